// conditionChannels.cpp - the head of the ping: integer planes to scaled
// complex channels, the first-echo history, the optional fixed gain.
#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "driver.h"

namespace kvane {
namespace {
// Plane Q of a raw buffer starts at exactly half of it, which need not be a
// multiple of four bytes: samples are read bytewise so any address is valid.
inline int32_t loadSample(const int32_t* p) {
    int32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
}  // namespace

namespace {

// Samples per tile of the conditioning: the 64 channels of a tile, their
// magnitudes and the magnitudes' transposed tile stay in the cache.
constexpr int32_t kTileSamples = 128;

// Samples from..to-1 of one row, each read at t + offset: scaled, and, when
// filt is given, copied there for the gains. The channel filter has one tap:
// a window of length 1 leaves it alone and the division by the tap sum makes
// it exactly 1.0, so the filtered channels equal the raw ones before the
// optional gains. mag[t - from] gets |raw[t]|.
KVANE_LOOP_BODY void scaleSamples(cfloat* raw, cfloat* filt, float* mag, const int32_t* rowI,
                                  const int32_t* rowQ, int32_t from, int32_t to,
                                  int32_t offset) {
    const float tap = 1.0f;
    for (int32_t t = from; t < to; ++t) {
        const float i = static_cast<float>(loadSample(rowI + t + offset)) * kSampleScale;
        const float q = static_cast<float>(loadSample(rowQ + t + offset)) * kSampleScale;
        raw[t] = cfloat{i, q};
        mag[t - from] = std::sqrt(i * i + q * q);
    }
    if (filt != nullptr)
        for (int32_t t = from; t < to; ++t) filt[t] = cfloat{raw[t].re * tap, raw[t].im * tap};
}

// mag (64 rows of kTileSamples) to magnitudeBySample rows t0 .. t0 + len - 1
// (64 floats each), eight by eight through the registers.
KVANE_AVX2 void transposeTileAvx2(float* magnitudeBySample, const float (*mag)[kTileSamples],
                                  int32_t t0, int32_t len) {
    int32_t t = 0;
    for (; t + 8 <= len; t += 8)
        for (int32_t c = 0; c < kChannels; c += 8) {
            __m256 r[8];
            for (int k = 0; k < 8; ++k) r[k] = _mm256_loadu_ps(mag[c + k] + t);
            const __m256 a0 = _mm256_unpacklo_ps(r[0], r[1]), a1 = _mm256_unpackhi_ps(r[0], r[1]);
            const __m256 a2 = _mm256_unpacklo_ps(r[2], r[3]), a3 = _mm256_unpackhi_ps(r[2], r[3]);
            const __m256 a4 = _mm256_unpacklo_ps(r[4], r[5]), a5 = _mm256_unpackhi_ps(r[4], r[5]);
            const __m256 a6 = _mm256_unpacklo_ps(r[6], r[7]), a7 = _mm256_unpackhi_ps(r[6], r[7]);
            const __m256 b0 = _mm256_shuffle_ps(a0, a2, 0x44), b1 = _mm256_shuffle_ps(a0, a2, 0xee);
            const __m256 b2 = _mm256_shuffle_ps(a1, a3, 0x44), b3 = _mm256_shuffle_ps(a1, a3, 0xee);
            const __m256 b4 = _mm256_shuffle_ps(a4, a6, 0x44), b5 = _mm256_shuffle_ps(a4, a6, 0xee);
            const __m256 b6 = _mm256_shuffle_ps(a5, a7, 0x44), b7 = _mm256_shuffle_ps(a5, a7, 0xee);
            const __m256 rows[8] = {_mm256_permute2f128_ps(b0, b4, 0x20), _mm256_permute2f128_ps(b1, b5, 0x20),
                                    _mm256_permute2f128_ps(b2, b6, 0x20), _mm256_permute2f128_ps(b3, b7, 0x20),
                                    _mm256_permute2f128_ps(b0, b4, 0x31), _mm256_permute2f128_ps(b1, b5, 0x31),
                                    _mm256_permute2f128_ps(b2, b6, 0x31), _mm256_permute2f128_ps(b3, b7, 0x31)};
            for (int k = 0; k < 8; ++k)
                _mm256_storeu_ps(magnitudeBySample + static_cast<int64_t>(t0 + t + k) * kChannels + c, rows[k]);
        }
    for (; t < len; ++t) {
        float* out = magnitudeBySample + static_cast<int64_t>(t0 + t) * kChannels;
        for (int32_t c = 0; c < kChannels; ++c) out[c] = mag[c][t];
    }
}

// Tile of samples t0 .. t0 + len - 1 of all 64 channels.
template <bool Wide>
KVANE_LOOP_BODY void conditionTile(cfloat* rawChannels, cfloat* filteredChannels,
                                   float* magnitudeBySample, const int32_t* planeI,
                                   const int32_t* planeQ, int32_t n, int32_t t0, int32_t len) {
    // The first 15 samples are dropped; the last 15 positions keep their own
    // samples, so the row ends with 15 repeated samples. Rows of 15 or fewer
    // samples stay unshifted. Each position is written once, from the sample
    // it ends up holding.
    const int32_t shifted = n - 15 >= 1 ? n - 15 : 0;
    const int32_t end = t0 + len;
    const int32_t split = shifted < t0 ? t0 : (shifted > end ? end : shifted);
    float mag[kChannels][kTileSamples];
    for (int32_t c = 0; c < kChannels; ++c) {
        const int64_t row = static_cast<int64_t>(c) * n;
        cfloat* raw = rawChannels + row;
        cfloat* filt = filteredChannels != nullptr ? filteredChannels + row : nullptr;
        scaleSamples(raw, filt, mag[c], planeI + row, planeQ + row, t0, split, 15);
        scaleSamples(raw, filt, mag[c] + (split - t0), planeI + row, planeQ + row, split, end, 0);
    }
    if constexpr (Wide) {
        transposeTileAvx2(magnitudeBySample, mag, t0, len);
    } else {
        for (int32_t t = 0; t < len; ++t) {
            float* out = magnitudeBySample + static_cast<int64_t>(t0 + t) * kChannels;
            for (int32_t c = 0; c < kChannels; ++c) out[c] = mag[c][t];
        }
    }
}
KVANE_AVX2 void conditionTileAvx2(cfloat* rawChannels, cfloat* filteredChannels,
                                  float* magnitudeBySample, const int32_t* planeI,
                                  const int32_t* planeQ, int32_t n, int32_t t0, int32_t len) {
    conditionTile<true>(rawChannels, filteredChannels, magnitudeBySample, planeI, planeQ, n, t0,
                        len);
}

}  // namespace

void conditionChannels(cfloat* rawChannels, cfloat* filteredChannels, float* magnitudeBySample,
                       const int32_t* planeI, const int32_t* planeQ, int32_t n) {
    if (n < 1) return;
    const bool avx2 = cpuHasAvx2();
    const int32_t tiles = (n + kTileSamples - 1) / kTileSamples;
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t k = 0; k < tiles; ++k) {
        const int32_t t0 = k * kTileSamples;
        const int32_t len = n - t0 < kTileSamples ? n - t0 : kTileSamples;
        if (avx2)
            conditionTileAvx2(rawChannels, filteredChannels, magnitudeBySample, planeI, planeQ, n,
                              t0, len);
        else
            conditionTile<false>(rawChannels, filteredChannels, magnitudeBySample, planeI, planeQ,
                                 n, t0, len);
    }
}

int32_t updateFirstEchoHistory(int32_t* history, int32_t first) {
    int32_t h[7];
    std::memcpy(h, history, sizeof h);
    // One forward block copy of 24 bytes from h[0] to h[1], done as a move of
    // 16 bytes and then one of 8 bytes: the moves overlap, so e4 is lost and e3
    // doubled (e0..e6 -> e0 e0 e1 e2 e3 e3 e5). This is the history's rule.
    std::memmove(h + 1, h, 16);
    std::memmove(h + 5, h + 4, 8);
    h[0] = first;
    int32_t sorted[7];
    std::memcpy(sorted, h, sizeof h);
    std::sort(sorted, sorted + 7);
    int32_t median = sorted[3];
    // While more than half of the history is still zero the largest value
    // stands in for the median.
    if (median == 0) median = sorted[6];
    std::memcpy(history, h, sizeof h);
    return median;
}

void applyFixedGain(cfloat* filteredChannels, const float* gainReal, int32_t n) {
    if (n < 1) return;
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t c = 0; c < kChannels; ++c) {
        cfloat* row = filteredChannels + static_cast<int64_t>(c) * n;
        for (int32_t t = 0; t < n; ++t) {
            // (re + j im) * (g + j0), written out as the complex product.
            const float g = gainReal[t];
            const float re = row[t].re * g - row[t].im * 0.0f;
            const float im = row[t].re * 0.0f + row[t].im * g;
            row[t] = cfloat{re, im};
        }
    }
}

}  // namespace kvane
