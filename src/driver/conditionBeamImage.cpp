// conditionBeamImage.cpp - the amplitude image of the ping: magnitude of the
// formed beams, half-fan clipping per time sample, the host's copy, and the
// optional 7x7 mean.
#include <cmath>
#include <cstring>

#include "driver.h"

namespace kvane {
namespace {

// Samples per tile of the one-pass magnitude and clipping: every beam of a
// tile (256 x 64 floats, 64 KB) stays in cache between the steps.
constexpr int32_t kTileSamples = 64;

void clipHalf(float* v, int32_t count, float ratio) {
    if (count < 1) return;
    float m = v[0];
    for (int32_t i = 1; i < count; ++i) m = v[i] > m ? v[i] : m;
    // The replacement is the absolute value 1.0, not a fraction of the maximum;
    // an all-zero half has level 0 and stays zero.
    const float level = ratio * m;
    for (int32_t i = 0; i < count; ++i) v[i] = v[i] < level ? 1.0f : v[i];
}

float clampRatio(float clipRatio) {
    float r = static_cast<float>(std::fmax(static_cast<double>(clipRatio), 0.01));
    r = static_cast<float>(std::fmin(static_cast<double>(r), 0.99));
    return r;
}

}  // namespace

void clipHalfFans(float* rows, int32_t rowCount, int32_t beamCount, float clipRatio) {
    const float r = clampRatio(clipRatio);
    const int32_t half = beamCount / 2;
    for (int32_t t = 0; t < rowCount; ++t) {
        float* row = rows + static_cast<int64_t>(t) * beamCount;
        clipHalf(row, half, r);
        clipHalf(row + half, half, r);
    }
}

void smoothBeamImage(float* beamEnvelope, float* beamImage, int32_t beamCount, int32_t n) {
    const int32_t B = beamCount;
    if (B < 1 || n < 1) return;
    // Every kernel entry is (1/7)^2, formed as a single-precision product.
    const float seventh = 1.0f / 7.0f;
    const float k = seventh * seventh;
    const int32_t outCols = n + 6;
    const int32_t outRows = B + 6;

    // The full linear convolution, (B + 6) rows of n + 6, into beamImage:
    // out[r][c] = k * sum over i, j in 0..6 of image[r - i][c - j], zeros
    // outside the image. Column sums of seven rows first, then seven-wide sums
    // along the line.
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t r = 0; r < outRows; ++r) {
        float line[kMaxSamples + 12];
        std::memset(line, 0, sizeof(float) * 6);
        std::memset(line + 6 + n, 0, sizeof(float) * 6);
        float* v = line + 6;
        const int32_t top = r - 6 < 0 ? 0 : r - 6;
        const int32_t bottom = r < B - 1 ? r : B - 1;
        for (int32_t c = 0; c < n; ++c) v[c] = 0.0f;
        for (int32_t i = bottom; i >= top; --i) {
            const float* src = beamEnvelope + static_cast<int64_t>(i) * n;
            for (int32_t c = 0; c < n; ++c) v[c] += src[c];
        }
        float* out = beamImage + static_cast<int64_t>(r) * outCols;
        for (int32_t c = 0; c < outCols; ++c) {
            const float* w = line + c;  // w[6 - j] is column c - j
            out[c] = k * (w[6] + w[5] + w[4] + w[3] + w[2] + w[1] + w[0]);
        }
    }

    // The central n x B window (from row 3, column 3) back to beamEnvelope, then
    // packed to beamImage.
    for (int32_t b = 0; b < B; ++b)
        std::memcpy(beamEnvelope + static_cast<int64_t>(b) * n,
                    beamImage + static_cast<int64_t>(b + 3) * outCols + 3,
                    sizeof(float) * static_cast<std::size_t>(n));
    std::memcpy(beamImage, beamEnvelope, sizeof(float) * static_cast<std::size_t>(n) * B);
}

namespace {

KVANE_LOOP_BODY void conditionColumns(float* image, const cfloat* beams, int64_t beamStride,
                                      int32_t beamCount, int32_t n, float clipRatio,
                                      int32_t start, int32_t count) {
    // The clipping compares each sample of a beam with the maximum over the
    // beams of its half at the same sample. Rather than transposing the image
    // to sample-major rows and back, the maxima are taken across the rows of
    // the beam-major image, a tile of samples at a time: for every sample the
    // same comparisons in the same order (beam 0 up), so the same values, in
    // one pass and without the sample-major buffer. Samples are independent
    // of each other, so any split into blocks of samples gives the same image.
    const int32_t B = beamCount;
    if (B < 1 || B > kMaxBeams || n < 1 || count < 1) return;
    const float r = clampRatio(clipRatio);
    const int32_t half = B / 2;
    for (int32_t offset = 0; offset < count; offset += kTileSamples) {
        const int32_t start0 = start + offset;
        const int32_t len = count - offset < kTileSamples ? count - offset : kTileSamples;
        // The magnitudes, and each half's maximum taken as its rows are made
        // (its first row, then the others in order). A beam past the two
        // halves (an odd count) is not clipped.
        float levels[2][kTileSamples];
        for (int32_t b = 0; b < B; ++b) {
            const float* src = reinterpret_cast<const float*>(beams + b * beamStride + offset);
            float* env = image + static_cast<int64_t>(b) * n + start0;
            auto magnitude = [&](int32_t t) {
                return std::sqrt(src[2 * t] * src[2 * t] + src[2 * t + 1] * src[2 * t + 1]);
            };
            float* level = levels[b < half ? 0 : 1];
            if (half < 1 || b >= 2 * half) {
                for (int32_t t = 0; t < len; ++t) env[t] = magnitude(t);
            } else if (b == 0 || b == half) {
                for (int32_t t = 0; t < len; ++t) level[t] = env[t] = magnitude(t);
            } else {
                for (int32_t t = 0; t < len; ++t) {
                    const float m = magnitude(t);
                    env[t] = m;
                    level[t] = m > level[t] ? m : level[t];
                }
            }
        }
        for (int32_t h = 0; h < 2 && half > 0; ++h) {
            const int32_t first = h * half;
            float* level = levels[h];
            // The replacement is the absolute value 1.0, not a fraction of the
            // maximum; an all-zero half has level 0 and stays zero.
            for (int32_t t = 0; t < len; ++t) level[t] = r * level[t];
            for (int32_t b = first; b < first + half; ++b) {
                float* row = image + static_cast<int64_t>(b) * n + start0;
                for (int32_t t = 0; t < len; ++t) row[t] = row[t] < level[t] ? 1.0f : row[t];
            }
        }
    }
}
KVANE_AVX2 void conditionColumnsAvx2(float* image, const cfloat* beams, int64_t beamStride,
                                     int32_t beamCount, int32_t n, float clipRatio,
                                     int32_t start, int32_t count) {
    conditionColumns(image, beams, beamStride, beamCount, n, clipRatio, start, count);
}

}  // namespace

void conditionBeamColumns(float* image, const cfloat* beams, int64_t beamStride,
                          int32_t beamCount, int32_t n, float clipRatio, int32_t start,
                          int32_t count) {
    if (cpuHasAvx2())
        conditionColumnsAvx2(image, beams, beamStride, beamCount, n, clipRatio, start, count);
    else
        conditionColumns(image, beams, beamStride, beamCount, n, clipRatio, start, count);
}

void conditionBeamImage(float* beamEnvelope, float* beamImage,
                        const cfloat* formedBeamIq, int32_t beamCount, int32_t n,
                        float clipRatio, bool smooth) {
    const int32_t B = beamCount;
    if (B < 1 || B > kMaxBeams || n < 1) return;
    const int32_t tiles = (n + kTileSamples - 1) / kTileSamples;
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t tile = 0; tile < tiles; ++tile) {
        const int32_t start = tile * kTileSamples;
        const int32_t len = n - start < kTileSamples ? n - start : kTileSamples;
        conditionBeamColumns(beamEnvelope, formedBeamIq + start, n, B, n, clipRatio, start, len);
    }
    if (smooth)
        smoothBeamImage(beamEnvelope, beamImage, B, n);
    else
        std::memcpy(beamImage, beamEnvelope, sizeof(float) * static_cast<std::size_t>(B) * n);
}

}  // namespace kvane
