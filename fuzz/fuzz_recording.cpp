// fuzz_recording.cpp - the recording reader on arbitrary bytes.
//
// The bytes are read as a recording from a memory stream until the reader
// reports the end or an error. Every record it accepts must be internally
// consistent, split into planes of the documented size, and survive a write
// and a second read unchanged.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "recording.h"

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "recording invariant broken: %s\n", what);
        std::abort();
    }
}

void checkRecord(const kvreplay::PingRecord& record) {
    const size_t sampleBytes = record.samples.size();
    require(sampleBytes >= static_cast<size_t>(kvreplay::kMinSampleBytes) &&
                sampleBytes <= static_cast<size_t>(kvreplay::kMaxSampleBytes),
            "accepted sample block length out of range");
    require(record.aux.size() <= static_cast<size_t>(kvreplay::kMaxAuxBytes),
            "accepted auxiliary block length out of range");

    std::vector<int32_t> planeI;
    std::vector<int32_t> planeQ;
    kvreplay::splitSampleBlock(record.samples, &planeI, &planeQ);
    const size_t n = sampleBytes / 512;
    require(planeI.size() == 64 * n && planeQ.size() == 64 * n, "plane size");
    require(std::memcmp(planeI.data(), record.samples.data(), planeI.size() * 4) == 0,
            "plane I is not the head of the block");
    require(std::memcmp(planeQ.data(), record.samples.data() + sampleBytes / 2,
                        planeQ.size() * 4) == 0,
            "plane Q does not start at half the block");

    kvreplay::RollTable roll;
    std::string why;
    if (kvreplay::decodeRollAux(record.aux, &roll, &why)) {
        require(roll.time.size() == roll.angle.size(), "roll table halves differ");
        require(12 + 8 * roll.time.size() <= record.aux.size(), "roll table past its block");
        const std::vector<uint8_t> again = kvreplay::encodeRollAux(roll);
        require(std::memcmp(again.data(), record.aux.data(), again.size()) == 0,
                "roll table does not re-encode to its bytes");
    } else {
        require(!why.empty(), "a refused roll table gives no reason");
    }

    // Written again, the record reads back with the same content.
    const std::vector<uint8_t> bytes = kvreplay::encodeRecord(
        record.lc, planeI.data(), planeQ.data(), static_cast<int32_t>(n), record.aux);
    std::FILE* file = fmemopen(const_cast<uint8_t*>(bytes.data()), bytes.size(), "rb");
    require(file != nullptr, "fmemopen");
    kvreplay::PingRecord back;
    std::string message;
    require(kvreplay::readRecord(file, 0, &back, &message) == kvreplay::ReadStatus::ok,
            "a written record does not read back");
    require(back.lc == record.lc, "range setting changed");
    require(back.aux == record.aux, "auxiliary block changed");
    require(back.samples.size() == 512 * n, "sample block length changed");
    if (sampleBytes % 512 == 0) require(back.samples == record.samples, "samples changed");
    require(kvreplay::readRecord(file, 1, &back, &message) == kvreplay::ReadStatus::end,
            "a single written record is followed by more");
    std::fclose(file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;  // fmemopen refuses an empty buffer
    std::FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (file == nullptr) return 0;
    kvreplay::PingRecord record;
    std::string message;
    for (int number = 1; number <= 64; ++number) {
        message.clear();
        const kvreplay::ReadStatus status = kvreplay::readRecord(file, number, &record, &message);
        if (status == kvreplay::ReadStatus::end) {
            require(message.empty(), "a clean end carries a message");
            break;
        }
        if (status == kvreplay::ReadStatus::error) {
            const std::string prefix = "record " + std::to_string(number) + ": ";
            require(message.compare(0, prefix.size(), prefix) == 0,
                    "error message does not name its record");
            break;
        }
        checkRecord(record);
    }
    std::fclose(file);
    return 0;
}
