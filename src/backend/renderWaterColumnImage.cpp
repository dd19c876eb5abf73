// renderWaterColumnImage.cpp - the 8-bit fan picture of the beam image: every
// pixel shows the amplitude at its range and angle, read through the sector
// grid.
#include <algorithm>
#include <cstdint>
#include <vector>

#include <immintrin.h>

#include "backend.h"
#include "../numeric/transpose8.h"

namespace kvane {
namespace {

constexpr int32_t kMaxWedgeBeams = 256;
constexpr int32_t kMaxWedgeSamples = 8000;

// Saturating float-to-byte conversion, round to nearest (ties to even, the
// conversion's own rounding): negatives and NaN give 0, 255 and above give 255.
// Adding and removing 2^23 rounds a value below 2^23 to an integer in the
// current (nearest) rounding mode without a library call.
inline uint8_t toByte(float v) {
    if (!(v > 0.0f)) return 0;
    if (v >= 255.0f) return 255;
    const float r = (v + 8388608.0f) - 8388608.0f;
    return static_cast<uint8_t>(r);
}

// The bounds of contiguous block t of `count` iterations split over `team`
// workers, as a static schedule splits them: the first count % team blocks
// take one extra iteration.
void staticBlock(int32_t count, int32_t team, int32_t t, int32_t* begin, int32_t* end) {
    const int32_t q = count / team;
    const int32_t r = count % team;
    *begin = t * q + std::min(t, r);
    *end = *begin + q + (t < r ? 1 : 0);
}

// Re-grid for equal-distance beams: an even angle grid over the sectors, the
// beam interval that holds each grid angle, and the image read at those
// beams into the sample-major regrid matrix (row i: the beams of sample i).
void regridBeams(const float* beamImage, float* regrid, float* angleGrid, int32_t* sourceBeam,
                 const float* beamAngles, int32_t beamCount, int32_t sampleCount,
                 float sectorPort, float sectorStarboard) {
    const int32_t B = beamCount;
    const float step = (sectorPort + sectorStarboard) / static_cast<float>(B);
    for (int32_t j = 0; j < B; ++j) angleGrid[j] = beamAngles[0] + static_cast<float>(j) * step;

    // The search runs in kTeamCapacity contiguous blocks of grid positions, one
    // scan cursor per block starting at 0 on every ping, so that every position
    // gets the answer of the three-worker team whatever the number of threads
    // that actually runs the blocks. A cursor moves past every interval that
    // fails and stays on the one that holds the angle; once it has run out, the
    // rest of its block finds nothing and keeps the previous ping's entries.
    // At u = B - 1 there is no upper neighbour: that comparison fails.
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t t = 0; t < kTeamCapacity; ++t) {
        int32_t begin = 0;
        int32_t end = 0;
        staticBlock(B, kTeamCapacity, t, &begin, &end);
        int32_t cursor = 0;
        for (int32_t j = begin; j < end; ++j) {
            const float g = angleGrid[j];
            while (cursor < B) {
                const int32_t u = cursor;
                if (u + 1 < B && beamAngles[u] <= g && g <= beamAngles[u + 1]) {
                    sourceBeam[j] = u;
                    break;
                }
                ++cursor;
            }
        }
    }

    // The interpolation of the remap at whole-number coordinates: its swapped
    // weights pick the neighbour one sample and one beam on, hence the +1 in
    // both. The last row of regrid is not written and keeps what it held.
    // sourceBeam only ever holds 0..254; anything else (foreign memory) reads
    // as 0, like a position that never matched.
    int32_t column[kMaxWedgeBeams];
    for (int32_t j = 0; j < B; ++j) {
        const int32_t u = sourceBeam[j];
        column[j] = (u >= 0 && u <= kMaxWedgeBeams - 2 ? u : 0) + 1;
    }
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t i = 0; i < sampleCount - 1; ++i) {
        const float* next = beamImage + i + 1;
        float* row = regrid + static_cast<std::size_t>(i) * B;
        for (int32_t j = 0; j < B; ++j)
            row[j] = next[static_cast<std::size_t>(column[j]) * sampleCount];
    }
}

// The blend of one pixel: a, b the near and far sample of the lower beam, c,
// d those of the upper one.
inline uint8_t blendPixel(float a, float b, float c, float d, float fu, float fv,
                          float imageGain) {
    const float lowColumn = fv * a + (1.0f - fv) * b;
    const float highColumn = fv * c + (1.0f - fv) * d;
    const float level = fu * lowColumn + (1.0f - fu) * highColumn;
    return toByte(level * imageGain);
}

// The part of the grid that lands in the raster: rows 0..rows - 1, columns
// firstCol..endCol - 1, shifted by offset. False when nothing does.
bool rasterWindow(const SectorGrid* grid, int32_t imageWidth, int32_t imageHeight, int32_t* rows,
                  int32_t* firstCol, int32_t* endCol, int32_t* offset) {
    if (grid->cells <= 0) return false;
    *rows = std::min(grid->rows, imageHeight);
    const int32_t cols = grid->cols;
    // With the height fitted the narrower wedge is centred; a grid wider than
    // the raster gets a negative offset and loses both edges.
    *offset =
        grid->fitsHeight ? static_cast<int32_t>(static_cast<double>(imageWidth - cols) * 0.5) : 0;
    *firstCol = std::max(0, -*offset);
    *endCol = std::min(cols, imageWidth - *offset);
    return *rows > 0 && *endCol > *firstCol;
}

// The remap of the grid into displayImage, with the gain and the conversion
// to bytes. A: the source matrix, value (sample v, beam u) at A[v * vStride +
// u * uStride]: the beam-major image itself, or the sample-major regrid. Grid
// rows and columns that fall outside the raster are not computed: nothing
// outside imageWidth x imageHeight is ever written.
void remapToDisplay(const float* A, std::size_t vStride, std::size_t uStride, int32_t beamCount,
                    int32_t sampleCount, float imageGain, uint8_t* displayImage,
                    int32_t imageWidth, int32_t imageHeight, const SectorGrid* grid) {
    int32_t rows, firstCol, endCol, offset;
    if (!rasterWindow(grid, imageWidth, imageHeight, &rows, &firstCol, &endCol, &offset)) return;
    const int32_t cols = grid->cols;
    const float lastBeam = static_cast<float>(beamCount - 1);
    const float lastSample = static_cast<float>(sampleCount - 1);

#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t r = 0; r < rows; ++r) {
        const std::size_t cell0 = static_cast<std::size_t>(r) * cols;
        const float* beamRow = grid->beam + cell0;
        const float* rangeRow = grid->range + cell0;
        uint8_t* out = displayImage + static_cast<std::size_t>(r) * imageWidth;
        for (int32_t c = firstCol; c < endCol; ++c) {
            const float u = beamRow[c];
            const float v = rangeRow[c];
            uint8_t value = toByte(0.0f * imageGain);
            // Strict bounds: beam coordinate 0 and B - 1 and range S - 1 are
            // outside. A range is a magnitude; the v >= 0 test only guards
            // against a grid made by hand.
            if (u > 0.0f && u < lastBeam && v < lastSample && v >= 0.0f) {
                const int32_t iu = static_cast<int32_t>(u);
                const int32_t iv = static_cast<int32_t>(v);
                const int32_t iv1 = static_cast<int32_t>(v + 1.0f);
                const float fu = u - static_cast<float>(iu);
                const float fv = v - static_cast<float>(iv);
                // The fractional parts weight the lower neighbour, in both
                // coordinates: the picture's own interpolation, kept as it is.
                const float* near = A + static_cast<std::size_t>(iv) * vStride + iu * uStride;
                const float* far = A + static_cast<std::size_t>(iv1) * vStride + iu * uStride;
                value = blendPixel(near[0], far[0], near[uStride], far[uStride], fu, fv, imageGain);
            }
            out[c + offset] = value;
        }
    }
}

}  // namespace

bool prepareWedgePlan(WedgePlan* plan, const SectorGrid* grid, int32_t beamCount,
                      int32_t sampleCount, int32_t imageWidth, int32_t imageHeight) {
    if (plan->pixels == nullptr || plan->firstPixel == nullptr) return false;
    if (beamCount < 1 || beamCount > kMaxWedgeBeams || sampleCount < 1 ||
        sampleCount > kMaxWedgeSamples)
        return false;
    if (plan->ready && plan->gridBeam == grid->beam && plan->signature == grid->signature &&
        plan->rows == grid->rows && plan->cols == grid->cols && plan->cells == grid->cells &&
        plan->fitsHeight == grid->fitsHeight && plan->beamCount == beamCount &&
        plan->sampleCount == sampleCount && plan->imageWidth == imageWidth &&
        plan->imageHeight == imageHeight)
        return true;
    plan->ready = false;
    int32_t rows, firstCol, endCol, offset;
    if (!rasterWindow(grid, imageWidth, imageHeight, &rows, &firstCol, &endCol, &offset))
        return false;

    // The pixels inside the bounds of remapToDisplay (the others stay 0, as
    // the caller cleared them), counted by far sample, then placed in that
    // order.
    const int32_t cols = grid->cols;
    const float lastBeam = static_cast<float>(beamCount - 1);
    const float lastSample = static_cast<float>(sampleCount - 1);
    int32_t* first = plan->firstPixel;
    std::fill(first, first + sampleCount + 2, 0);
    auto visit = [&](auto&& take) {
        for (int32_t r = 0; r < rows; ++r)
            for (int32_t c = firstCol; c < endCol; ++c) {
                const std::size_t cell = static_cast<std::size_t>(r) * cols + c;
                const float u = grid->beam[cell];
                const float v = grid->range[cell];
                if (u > 0.0f && u < lastBeam && v < lastSample && v >= 0.0f)
                    take(r * imageWidth + c + offset, u, v);
            }
    };
    visit([&](int32_t, float, float v) { ++first[static_cast<int32_t>(v + 1.0f) + 1]; });
    for (int32_t t = 0; t <= sampleCount; ++t) first[t + 1] += first[t];
    std::vector<int32_t> next(first, first + sampleCount + 1);
    visit([&](int32_t out, float u, float v) {
        const int32_t iu = static_cast<int32_t>(u);
        const int32_t iv = static_cast<int32_t>(v);
        const int32_t iv1 = static_cast<int32_t>(v + 1.0f);
        plan->pixels[next[iv1]++] = WedgePixel{out, iu, iv, iv1, u - static_cast<float>(iu),
                                               v - static_cast<float>(iv)};
    });
    plan->count = first[sampleCount];
    plan->gridBeam = grid->beam;
    plan->signature = grid->signature;
    plan->rows = grid->rows;
    plan->cols = grid->cols;
    plan->cells = grid->cells;
    plan->fitsHeight = grid->fitsHeight;
    plan->beamCount = beamCount;
    plan->sampleCount = sampleCount;
    plan->imageWidth = imageWidth;
    plan->imageHeight = imageHeight;
    plan->ready = true;
    return true;
}

namespace {

inline void drawPixel(const WedgePixel& p, const float* beamImage, std::size_t S, float imageGain,
                      uint8_t* displayImage) {
    const float* lower = beamImage + static_cast<std::size_t>(p.beam) * S;
    const float* upper = lower + S;
    displayImage[p.out] = blendPixel(lower[p.near], lower[p.far], upper[p.near], upper[p.far],
                                     p.beamWeight, p.rangeWeight, imageGain);
}

// Pixels from..to - 1 of the plan whose near sample lies at or past `from`
// (atOrPast) or before it, in the plain form.
void drawPixels(const WedgePlan& plan, const float* beamImage, float imageGain,
                uint8_t* displayImage, int32_t first, int32_t end, int32_t near, bool atOrPast) {
    const std::size_t S = static_cast<std::size_t>(plan.sampleCount);
    for (int32_t i = first; i < end; ++i) {
        const WedgePixel& p = plan.pixels[i];
        if ((p.near >= near) == atOrPast) drawPixel(p, beamImage, S, imageGain, displayImage);
    }
}

// The same eight pixels at a time: the fields and the four samples gathered,
// the blend and the conversion to bytes with the same single-precision
// operations in the same order (no fused multiply-adds), then the bytes
// stored one by one. A sample index beam * S + S + far stays below 256 *
// 8000, well inside int32.
KVANE_AVX2 void drawPixelsAvx2(const WedgePlan& plan, const float* beamImage, float imageGain,
                               uint8_t* displayImage, int32_t first, int32_t end, int32_t near,
                               bool atOrPast) {
    static_assert(sizeof(WedgePixel) == 6 * sizeof(int32_t), "six 32-bit fields");
    const __m256i S = _mm256_set1_epi32(plan.sampleCount);
    const __m256i nearLimit = _mm256_set1_epi32(near - 1);
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 gain = _mm256_set1_ps(imageGain);
    const __m256 zero = _mm256_setzero_ps();
    const __m256 top = _mm256_set1_ps(255.0f);
    const __m256 shift = _mm256_set1_ps(8388608.0f);
    const __m256i topByte = _mm256_set1_epi32(255);
    int32_t i = first;
    // Each pixel is loaded as eight 32-bit words (its six fields and two of
    // the next pixel's, so the group stops short of the last pixel) and the
    // eight are transposed into one vector per field.
    for (; i + 9 <= end; i += 8) {
        const int32_t* base = reinterpret_cast<const int32_t*>(plan.pixels + i);
        __m256 r[8];
        for (int k = 0; k < 8; ++k)
            r[k] = _mm256_loadu_ps(reinterpret_cast<const float*>(base + 6 * k));
        transpose8(r);
        // Field f of the eight pixels is now r[f] (the last two are the next
        // pixel's words and unused).
        const __m256i out = _mm256_castps_si256(r[0]);
        const __m256i beam = _mm256_castps_si256(r[1]);
        const __m256i nearIdx = _mm256_castps_si256(r[2]);
        const __m256i farIdx = _mm256_castps_si256(r[3]);
        const __m256 fu = r[4];
        const __m256 fv = r[5];
        // near > near - 1, i.e. near >= the limit
        const __m256i past = _mm256_cmpgt_epi32(nearIdx, nearLimit);
        int take = _mm256_movemask_ps(_mm256_castsi256_ps(past));
        if (!atOrPast) take ^= 0xff;
        if (take == 0) continue;
        const __m256i lower = _mm256_mullo_epi32(beam, S);
        const __m256i upper = _mm256_add_epi32(lower, S);
        const __m256 a = _mm256_i32gather_ps(beamImage, _mm256_add_epi32(lower, nearIdx), 4);
        const __m256 b = _mm256_i32gather_ps(beamImage, _mm256_add_epi32(lower, farIdx), 4);
        const __m256 c = _mm256_i32gather_ps(beamImage, _mm256_add_epi32(upper, nearIdx), 4);
        const __m256 d = _mm256_i32gather_ps(beamImage, _mm256_add_epi32(upper, farIdx), 4);
        const __m256 fvRest = _mm256_sub_ps(one, fv);
        const __m256 lowColumn = _mm256_add_ps(_mm256_mul_ps(fv, a), _mm256_mul_ps(fvRest, b));
        const __m256 highColumn = _mm256_add_ps(_mm256_mul_ps(fv, c), _mm256_mul_ps(fvRest, d));
        const __m256 level = _mm256_add_ps(_mm256_mul_ps(fu, lowColumn),
                                           _mm256_mul_ps(_mm256_sub_ps(one, fu), highColumn));
        const __m256 v = _mm256_mul_ps(level, gain);
        // NaN and v <= 0 give 0, v >= 255 gives 255, the rest rounds to
        // nearest through 2^23.
        const __m256 positive = _mm256_cmp_ps(v, zero, _CMP_GT_OQ);
        const __m256 saturated = _mm256_cmp_ps(v, top, _CMP_GE_OQ);
        const __m256 rounded = _mm256_sub_ps(_mm256_add_ps(v, shift), shift);
        __m256i bytes = _mm256_and_si256(_mm256_cvttps_epi32(rounded), _mm256_castps_si256(positive));
        bytes = _mm256_blendv_epi8(bytes, topByte, _mm256_castps_si256(saturated));
        alignas(32) int32_t outs[8];
        alignas(32) int32_t values[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(outs), out);
        _mm256_store_si256(reinterpret_cast<__m256i*>(values), bytes);
        for (; take != 0; take &= take - 1) {
            const int k = __builtin_ctz(static_cast<unsigned>(take));
            displayImage[outs[k]] = static_cast<uint8_t>(values[k]);
        }
    }
    drawPixels(plan, beamImage, imageGain, displayImage, i, end, near, atOrPast);
}

void drawPixelRange(const WedgePlan& plan, const float* beamImage, float imageGain,
                    uint8_t* displayImage, int32_t first, int32_t end, int32_t near,
                    bool atOrPast) {
    if (cpuHasAvx2())
        drawPixelsAvx2(plan, beamImage, imageGain, displayImage, first, end, near, atOrPast);
    else
        drawPixels(plan, beamImage, imageGain, displayImage, first, end, near, atOrPast);
}

}  // namespace

void drawWedgeSamples(const WedgePlan& plan, const float* beamImage, float imageGain,
                      uint8_t* displayImage, int32_t start, int32_t count) {
    if (!plan.ready || count < 1) return;
    const int32_t S = plan.sampleCount;
    const int32_t end = std::min(start + count, S);
    if (start < 0 || start >= end) return;
    drawPixelRange(plan, beamImage, imageGain, displayImage, plan.firstPixel[start],
                   plan.firstPixel[end], start, true);
}

void drawWedgeBorders(const WedgePlan& plan, const float* beamImage, float imageGain,
                      uint8_t* displayImage, int32_t pieceLength) {
    if (!plan.ready || pieceLength < 1) return;
    const int32_t S = plan.sampleCount;
    // A far sample lies one or two samples past its near one.
    for (int32_t border = pieceLength; border < S; border += pieceLength)
        drawPixelRange(plan, beamImage, imageGain, displayImage, plan.firstPixel[border],
                       plan.firstPixel[std::min(border + 3, S)], border, false);
}

void renderWaterColumnImage(const float* beamImage, int32_t beamCount, int32_t sampleCount,
                            const float* beamAngles, float sectorPort, float sectorStarboard,
                            int8_t beamSpacing, float imageGain, uint8_t* displayImage,
                            int32_t imageWidth, int32_t imageHeight, const SectorGrid* grid,
                            const WedgeWork* work) {
    // Any mode other than equal angles (1) or equal distances (2) leaves the
    // wedge empty, as do sizes beyond the workspace. An empty grid or raster
    // draws nothing, but the re-grid still runs: its sourceBeam entries carry
    // over to later pings.
    if (beamSpacing != 1 && beamSpacing != 2) return;
    if (beamCount < 1 || beamCount > kMaxWedgeBeams || sampleCount < 1 ||
        sampleCount > kMaxWedgeSamples)
        return;
    const int32_t B = beamCount;
    const int32_t S = sampleCount;

    // Equal angles: the grid indexes the beams of the image directly (read in
    // place, beam-major). Equal distances: it indexes the re-gridded matrix.
    if (beamSpacing == 1) {
        remapToDisplay(beamImage, 1, static_cast<std::size_t>(S), B, S, imageGain, displayImage,
                       imageWidth, imageHeight, grid);
        return;
    }
    regridBeams(beamImage, work->regrid, work->angleGrid, work->sourceBeam, beamAngles, B, S,
                sectorPort, sectorStarboard);
    remapToDisplay(work->regrid, static_cast<std::size_t>(B), 1, B, S, imageGain, displayImage,
                   imageWidth, imageHeight, grid);
}

}  // namespace kvane
