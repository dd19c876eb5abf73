// updateSideScanWaterfall.cpp - one port/starboard amplitude line per ping,
// pushed onto the scrolling waterfall, and the visible rows copied out.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "backend.h"

namespace kvane {
namespace {

constexpr int32_t kSideLength = kWaterfallRowLength / 2;  // samples a side, 8000
constexpr int32_t kRowCentre = kWaterfallRowLength / 2;   // the seam's index in a row

// Process-wide lines. The mode-1 lines take one entry past a full row: a run
// that ends at the last sample also touches the entry behind it.
float portSum[kSideLength + 1];
float portHits[kSideLength + 1];
float starboardSum[kSideLength + 1];
float starboardHits[kSideLength + 1];
// sideLine beyond 2S keeps what earlier pings left there; the near-range
// shift reads up to d + 2S entries of it.
float sideLine[kWaterfallRowLength];
float shiftedLine[kWaterfallRowLength];

void reverse(float* x, int32_t n) { std::reverse(x, x + std::max(n, 0)); }

// dst *= 1/divisor; refused (nothing changes) for a divisor of 0.
void divideBy(float* x, int32_t n, float divisor) {
    if (divisor == 0.0f) return;
    const float inverse = 1.0f / divisor;
    for (int32_t k = 0; k < n; ++k) x[k] *= inverse;
}

// Mode 1: the mean of every side's beams over +-100 samples around each
// beam's bottom, so that the line follows the sea floor.
void lineAroundBottom(const float* beamImage, int32_t stride, int32_t beamCount, int32_t S,
                      const float* beamAngles, const float* bottomSample) {
    // Hit counters start at 1: a mean divides by the beams that reached a
    // sample plus one, and a sample no beam reached reads 0.
    std::fill(portHits, portHits + S, 1.0f);
    std::fill(starboardHits, starboardHits + S, 1.0f);
    std::fill(portSum, portSum + S, 0.0f);
    std::fill(starboardSum, starboardSum + S, 0.0f);

    // The run of beam i around its bottom: first, and count samples (none
    // when count < 1).
    auto runOf = [&](int32_t i, int32_t* first, int32_t* count) {
        const float b = bottomSample[i];
        // A NaN bottom has no samples around it. Limits beyond the row give
        // an empty run before they are turned into integers.
        *count = 0;
        if (b != b) return;
        double lo = std::max(static_cast<double>(b) - 100.0, 1.0);
        double hi = std::min(static_cast<double>(S), static_cast<double>(b) + 100.0);
        lo = std::min(lo, static_cast<double>(S) + 1.0);
        hi = std::max(hi, 0.0);
        *first = static_cast<int32_t>(lo);
        *count = static_cast<int32_t>(hi) - *first + 1;
    };
    if (beamCount > 3) {
        for (int32_t i = 2; i <= beamCount - 2; ++i) {
            int32_t first = 0, count = 0;
            runOf(i, &first, &count);
            // The next beam's run is fetched while this one is added: the
            // runs jump from beam to beam, which the processor cannot foresee.
            if (i + 1 <= beamCount - 2) {
                int32_t nextFirst = 0, nextCount = 0;
                runOf(i + 1, &nextFirst, &nextCount);
                const char* next = reinterpret_cast<const char*>(
                    beamImage + static_cast<std::size_t>(i + 1) * stride + nextFirst);
                for (int32_t k = 0; k < nextCount; k += 16) __builtin_prefetch(next + 4 * k);
            }
            if (count < 1) continue;
            // When hi = S the run takes one entry past the row: the next
            // beam's first sample, onto the lines' spare entry.
            const float* src = beamImage + static_cast<std::size_t>(i) * stride + first;
            const bool port = beamAngles[i] < 0.0f;
            float* sum = (port ? portSum : starboardSum) + first;
            float* hits = (port ? portHits : starboardHits) + first;
            for (int32_t k = 0; k < count; ++k) {
                sum[k] += src[k];
                hits[k] += 1.0f;
            }
        }
    }

    for (int32_t k = 0; k < S; ++k) sideLine[k] = portSum[k] / portHits[k];
    reverse(sideLine, S);  // far range on the left
    for (int32_t k = 0; k < S; ++k) sideLine[S + k] = starboardSum[k] / starboardHits[k];
}

// Mode 2: each side's beams averaged over the whole record.
void lineOverRecord(const float* beamImage, int32_t stride, int32_t beamCount, int32_t S,
                    const float* beamAngles) {
    std::fill(sideLine, sideLine + 2 * S, 0.0f);
    // The last port beam among 2..B-2; an angle of exactly 0 does not end
    // the port group, it is just not counted.
    int32_t nPort = 0;
    if (beamCount > 3)
        for (int32_t i = 2; i <= beamCount - 2; ++i)
            if (beamAngles[i] < 0.0f) nPort = i;

    for (int32_t i = 0; i < nPort; ++i) {
        const float* src = beamImage + static_cast<std::size_t>(i) * stride;
        for (int32_t k = 0; k < S; ++k) sideLine[k] += src[k];
    }
    divideBy(sideLine, S, static_cast<float>(nPort));
    reverse(sideLine, S);
    // Beam nPort itself, the last with a negative angle, goes to starboard.
    for (int32_t i = nPort; i < beamCount; ++i) {
        const float* src = beamImage + static_cast<std::size_t>(i) * stride;
        for (int32_t k = 0; k < S; ++k) sideLine[S + k] += src[k];
    }
    divideBy(sideLine + S, S, static_cast<float>(beamCount - nPort));
}

}  // namespace

void updateSideScanWaterfall(const float* beamImage, int32_t beamCount, int32_t sampleCount,
                             const float* beamAngles, const float* bottomSample,
                             float* sideScanImage, int32_t sideScanMode, int32_t sideScanRows,
                             int32_t firstEchoSample, const WaterfallRing& waterfall) {
    // One unsigned comparison keeps 10..200; everything else, negatives
    // included, shows 100 rows.
    const int32_t rows =
        static_cast<uint32_t>(sideScanRows) - 10u > 190u ? 100 : sideScanRows;
    if (sideScanMode != 1 && sideScanMode != 2) return;

    // A side holds at most 8000 samples and a row 16000: larger pings are cut
    // to their first 8000 samples (beamImage keeps its own row stride), and
    // the near-range shift d is kept within 0..16000-2S so that the shifted
    // line never leaves its row.
    const int32_t S = std::clamp(sampleCount, 0, kSideLength);
    const int32_t d = std::clamp(firstEchoSample, 0, kWaterfallRowLength - 2 * S);
    const int32_t E = S & ~1;  // shown samples a side: S rounded down to even

    if (sideScanMode == 1)
        lineAroundBottom(beamImage, sampleCount, beamCount, S, beamAngles, bottomSample);
    else
        lineOverRecord(beamImage, sampleCount, beamCount, S, beamAngles);

    // Scroll by one row, newest at row 0: the ring of the first `rows` rows
    // turns by one, its last row becoming the new row 0.
    float* const store = waterfall.rows;
    int32_t head = *waterfall.head;
    int32_t span = *waterfall.span;
    if (span < 0 || span > kWaterfallRows || head < 0 || head >= std::max(span, 1)) {
        head = 0;
        span = 0;
    }
    if (span != rows) {
        // Lay the ring out in order, so that row p is stored at p again.
        if (head != 0) {
            std::vector<float> ordered(static_cast<std::size_t>(span) * kWaterfallRowLength);
            for (int32_t p = 0; p < span; ++p)
                std::memcpy(ordered.data() + static_cast<std::size_t>(p) * kWaterfallRowLength,
                            store + static_cast<std::size_t>((head + p) % span) * kWaterfallRowLength,
                            sizeof(float) * kWaterfallRowLength);
            std::memcpy(store, ordered.data(), sizeof(float) * ordered.size());
        }
        head = 0;
        span = rows;
    }
    head = (head + span - 1) % span;
    *waterfall.head = head;
    *waterfall.span = span;
    auto row = [&](int32_t p) {
        return store + static_cast<std::size_t>((head + p) % span) * kWaterfallRowLength;
    };
    float* newest = row(0);
    std::fill(newest, newest + kWaterfallRowLength, 0.0f);
    std::fill(shiftedLine, shiftedLine + kWaterfallRowLength, 0.0f);

    // Remove the water above the first echo: the port half moves right by d,
    // the starboard half left by d. The second move overwrites what the first
    // pushed past S, and its last d reads come from beyond 2S in sideLine.
    std::memcpy(shiftedLine + d, sideLine, sizeof(float) * static_cast<std::size_t>(S));
    std::memcpy(shiftedLine + S, sideLine + d + S, sizeof(float) * static_cast<std::size_t>(S));

    // The seam on the row's centre.
    std::memcpy(newest + (kRowCentre - S), shiftedLine, sizeof(float) * static_cast<std::size_t>(2 * S));

    // Visible rows, 2E floats each around the seam: an odd S loses one entry
    // at each end.
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t r = 0; r < rows; ++r)
        std::memcpy(sideScanImage + static_cast<std::size_t>(r) * 2 * E, row(r) + (kRowCentre - E),
                    sizeof(float) * static_cast<std::size_t>(2 * E));
}

}  // namespace kvane
