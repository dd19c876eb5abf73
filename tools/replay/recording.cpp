// recording.cpp - reading and writing the recorded ping format.
#include "recording.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

namespace kvreplay {

static_assert(std::endian::native == std::endian::little,
              "records are little-endian and copied as they stand");

namespace {

int32_t loadInt32(const uint8_t* p) {
    int32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void storeInt32(uint8_t* p, int32_t v) { std::memcpy(p, &v, sizeof v); }

std::string recordPrefix(int recordNumber) {
    return "record " + std::to_string(recordNumber) + ": ";
}

// Reads exactly count bytes; returns how many arrived.
size_t readFully(std::FILE* file, uint8_t* to, size_t count) {
    size_t got = 0;
    while (got < count) {
        const size_t r = std::fread(to + got, 1, count - got, file);
        if (r == 0) break;
        got += r;
    }
    return got;
}

// The message for a short read: a read error if the stream says so, else the
// file simply ended.
std::string shortRead(std::FILE* file, int recordNumber, const char* what, size_t got,
                      size_t want) {
    if (std::ferror(file))
        return recordPrefix(recordNumber) + "read error in " + what + " (" +
               std::strerror(errno) + ")";
    return recordPrefix(recordNumber) + "truncated " + what + " (got " + std::to_string(got) +
           " of " + std::to_string(want) + " bytes)";
}

}  // namespace

ReadStatus readRecord(std::FILE* file, int recordNumber, PingRecord* record,
                      std::string* message) {
    uint8_t head[kRecordHeadBytes];
    size_t got = readFully(file, head, sizeof head);
    if (got == 0 && !std::ferror(file)) return ReadStatus::end;
    if (got < sizeof head) {
        *message = shortRead(file, recordNumber, "record head", got, sizeof head);
        return ReadStatus::error;
    }
    int16_t lc;
    std::memcpy(&lc, head + 10, sizeof lc);
    const int32_t sampleBytes = loadInt32(head + 38);
    if (sampleBytes < kMinSampleBytes || sampleBytes > kMaxSampleBytes) {
        *message = recordPrefix(recordNumber) + "sample block length " +
                   std::to_string(sampleBytes) + " out of range (" +
                   std::to_string(kMinSampleBytes) + " to " + std::to_string(kMaxSampleBytes) +
                   " bytes)";
        return ReadStatus::error;
    }
    record->lc = lc;
    record->samples.resize(static_cast<size_t>(sampleBytes));
    got = readFully(file, record->samples.data(), record->samples.size());
    if (got < record->samples.size()) {
        *message = shortRead(file, recordNumber, "sample block", got, record->samples.size());
        return ReadStatus::error;
    }
    uint8_t word[4];
    got = readFully(file, word, sizeof word);
    if (got < sizeof word) {
        *message = shortRead(file, recordNumber, "auxiliary length", got, sizeof word);
        return ReadStatus::error;
    }
    const int32_t auxBytes = loadInt32(word);
    if (auxBytes < 0 || auxBytes > kMaxAuxBytes) {
        *message = recordPrefix(recordNumber) + "auxiliary block length " +
                   std::to_string(auxBytes) + " out of range (0 to " +
                   std::to_string(kMaxAuxBytes) + " bytes)";
        return ReadStatus::error;
    }
    record->aux.resize(static_cast<size_t>(auxBytes));
    got = readFully(file, record->aux.data(), record->aux.size());
    if (got < record->aux.size()) {
        *message = shortRead(file, recordNumber, "auxiliary block", got, record->aux.size());
        return ReadStatus::error;
    }
    uint8_t tail[kRecordTailBytes];
    got = readFully(file, tail, sizeof tail);
    if (got < sizeof tail) {
        *message = shortRead(file, recordNumber, "record tail", got, sizeof tail);
        return ReadStatus::error;
    }
    return ReadStatus::ok;
}

std::vector<uint8_t> encodeRecord(int16_t lc, const int32_t* planeI, const int32_t* planeQ,
                                  int32_t sampleCount, const std::vector<uint8_t>& aux) {
    const size_t planeBytes = static_cast<size_t>(sampleCount) * 64 * sizeof(int32_t);
    const size_t sampleBytes = 2 * planeBytes;
    std::vector<uint8_t> out(kRecordHeadBytes + sampleBytes + 4 + aux.size() + kRecordTailBytes,
                             0);
    uint8_t* p = out.data();
    std::memcpy(p, "KVRH", 4);
    const uint16_t layoutVersion = 1;
    std::memcpy(p + 4, &layoutVersion, 2);
    storeInt32(p + 6, sampleCount);
    std::memcpy(p + 10, &lc, 2);
    const uint16_t channels = 64;
    std::memcpy(p + 12, &channels, 2);
    storeInt32(p + 38, static_cast<int32_t>(sampleBytes));
    p += kRecordHeadBytes;
    std::memcpy(p, planeI, planeBytes);
    std::memcpy(p + planeBytes, planeQ, planeBytes);
    p += sampleBytes;
    storeInt32(p, static_cast<int32_t>(aux.size()));
    p += 4;
    if (!aux.empty()) std::memcpy(p, aux.data(), aux.size());
    p += aux.size();
    std::memcpy(p + 2, "KVRT", 4);
    return out;
}

void splitSampleBlock(const std::vector<uint8_t>& block, std::vector<int32_t>* planeI,
                      std::vector<int32_t>* planeQ) {
    const size_t count = block.size() / 512 * 64;
    const size_t half = block.size() / 2;
    planeI->resize(count);
    planeQ->resize(count);
    if (count == 0) return;
    std::memcpy(planeI->data(), block.data(), count * sizeof(int32_t));
    std::memcpy(planeQ->data(), block.data() + half, count * sizeof(int32_t));
}

std::vector<uint8_t> encodeRollAux(const RollTable& table) {
    const size_t count = std::min(table.time.size(), table.angle.size());
    std::vector<uint8_t> out(12 + 8 * count);
    std::memcpy(out.data(), "ROLL", 4);
    storeInt32(out.data() + 4, table.pingTime);
    storeInt32(out.data() + 8, static_cast<int32_t>(count));
    for (size_t i = 0; i < count; ++i) {
        storeInt32(out.data() + 12 + 8 * i, table.time[i]);
        std::memcpy(out.data() + 16 + 8 * i, &table.angle[i], 4);
    }
    return out;
}

bool decodeRollAux(const std::vector<uint8_t>& aux, RollTable* table, std::string* why) {
    if (aux.size() < 12 || std::memcmp(aux.data(), "ROLL", 4) != 0) {
        *why = "auxiliary block holds no roll table";
        return false;
    }
    const int32_t count = loadInt32(aux.data() + 8);
    if (count < 0 || static_cast<size_t>(count) > (aux.size() - 12) / 8) {
        *why = "roll table count " + std::to_string(count) + " does not fit its block of " +
               std::to_string(aux.size()) + " bytes";
        return false;
    }
    table->pingTime = loadInt32(aux.data() + 4);
    table->time.resize(static_cast<size_t>(count));
    table->angle.resize(static_cast<size_t>(count));
    for (size_t i = 0; i < table->time.size(); ++i) {
        table->time[i] = loadInt32(aux.data() + 12 + 8 * i);
        std::memcpy(&table->angle[i], aux.data() + 16 + 8 * i, 4);
    }
    return true;
}

}  // namespace kvreplay
