// recording.h - the recorded ping format: reading, writing, and the roll table
// that the simulator keeps in a record's auxiliary block.
//
// A recording is a plain concatenation of records with no file header, all
// integers little-endian:
//   0  4  headMark        4  2  headWordA      6  4  headWordB
//   10 2  LC (int16, range setting in metres)  12 2  headWordC
//   14 24 reserved        38 4  sampleBytes (int32)
//   42 sampleBytes         sample block: plane I then plane Q, each 64
//                          channels of int32, channel-major
//   42+s 4 auxBytes (int32), then auxBytes of auxiliary data
//   46+s+a 2 reserved, 48+s+a 4 tailMark
// A record is 52 + sampleBytes + auxBytes bytes long. The samples per channel
// are sampleBytes / 512 (integer division) and plane Q starts at byte
// sampleBytes / 2 of the block, whatever the remainder.
//
// The marks, the three head words, the reserved bytes and the auxiliary block
// are never looked at when a record is read. Records written here carry
// headMark "KVRH", headWordA 1 (layout version), headWordB the samples per
// channel, headWordC 64 (channels), zero reserved bytes and tailMark "KVRT".
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kvreplay {

// Largest sample block: 64 channels x 8000 samples x 2 planes x 4 bytes.
constexpr int32_t kMaxSampleBytes = 64 * 8000 * 8;
// Smallest sample block: one sample per channel.
constexpr int32_t kMinSampleBytes = 512;
constexpr int32_t kMaxAuxBytes = 1 << 20;
constexpr int kRecordHeadBytes = 42;  // up to and including sampleBytes
constexpr int kRecordTailBytes = 6;   // 2 reserved bytes and tailMark

struct PingRecord {
    int16_t lc = 0;
    std::vector<uint8_t> samples;  // sampleBytes bytes
    std::vector<uint8_t> aux;      // auxBytes bytes
};

enum class ReadStatus { ok, end, error };

// Reads the next record. end: the file ended cleanly at a record boundary.
// error: message holds a one-line description starting with "record N: "
// (truncated block, length out of range, read error). recordNumber is only used
// in the message.
ReadStatus readRecord(std::FILE* file, int recordNumber, PingRecord* record, std::string* message);

// Serialises one record: 64 channels of sampleCount samples per plane.
std::vector<uint8_t> encodeRecord(int16_t lc, const int32_t* planeI, const int32_t* planeQ,
                                  int32_t sampleCount, const std::vector<uint8_t>& aux);

// Copies the two planes out of a sample block: planeI from byte 0, planeQ from
// byte sampleBytes / 2, 64 * (sampleBytes / 512) samples each. The copy keeps
// the int32 reads aligned even when half the block is not a multiple of 4.
void splitSampleBlock(const std::vector<uint8_t>& block, std::vector<int32_t>* planeI,
                      std::vector<int32_t>* planeQ);

// The roll table of a ping, as the simulator stores it in the auxiliary block:
//   0  4  magic "ROLL"
//   4  4  int32 pingTime, ms: time of sample 0 of the ping
//   8  4  int32 count
//   12 8*count  count pairs of (int32 time in ms, float32 roll in degrees)
// little-endian, times on the same clock as pingTime.
struct RollTable {
    int32_t pingTime = 0;
    std::vector<int32_t> time;  // ms
    std::vector<float> angle;   // degrees, negative to port
};

std::vector<uint8_t> encodeRollAux(const RollTable& table);

// Decodes an auxiliary block; false with a reason in why when it holds no
// well-formed roll table.
bool decodeRollAux(const std::vector<uint8_t>& aux, RollTable* table, std::string* why);

}  // namespace kvreplay
