// recording.h - reading the recorded ping format.
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
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kvreplay {

// Largest sample block: 64 channels x 8000 samples x 2 planes x 4 bytes.
constexpr int32_t kMaxSampleBytes = 64 * 8000 * 8;
constexpr int32_t kMaxAuxBytes = 1 << 20;

struct PingRecord {
    int16_t lc = 0;
    std::vector<uint8_t> samples;  // sampleBytes bytes
    std::vector<uint8_t> aux;      // auxBytes bytes
};

enum class ReadStatus { ok, end, error };

// Reads the next record. end: the file ended cleanly at a record boundary.
// error: message holds a one-line description (record number, problem).
ReadStatus readRecord(std::FILE* file, int recordNumber, PingRecord* record, std::string* message);

// Serialises one record.
std::vector<uint8_t> encodeRecord(int16_t lc, const int32_t* planeI, const int32_t* planeQ,
                                  int32_t sampleCount, const std::vector<uint8_t>& aux);

}  // namespace kvreplay
