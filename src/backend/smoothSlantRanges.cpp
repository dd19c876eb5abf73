// smoothSlantRanges.cpp - smoothing of one ping's per-beam slant ranges in the
// depth domain: project to depth, causal median, block means, grow back to
// full length by point splitting, project back to slant range.
#include <cmath>
#include <cstring>

#include "backend.h"

namespace kvane {
namespace {

constexpr int32_t kLineLength = 256;
// An even mask is lowered by one: a 13-point causal median, whose delay of six
// beams is left in on purpose.
constexpr int32_t kMedianMask = 14;
constexpr float kDegreesPerRadian = 57.29578f;
constexpr float kSplitFraction = 0.125f;

// One splitting pass: c points P become 2c points Q, each point giving two
// neighbours placed an eighth of the local slope below and above it.
void splitPoints(float* q, const float* p, int32_t c) {
    if (c < 1) return;
    if (c == 1) {
        // A single point has no slope: both halves take its value.
        q[0] = p[0];
        q[1] = p[0];
        return;
    }
    const float first = p[1] - p[0];
    q[0] = p[0] - kSplitFraction * first;
    q[1] = p[0] + kSplitFraction * first;
    for (int32_t j = 1; j <= c - 2; ++j) {
        const float d = p[j + 1] - p[j - 1];
        q[2 * j] = p[j] - kSplitFraction * d;
        q[2 * j + 1] = p[j] + kSplitFraction * d;
    }
    const float last = p[c - 1] - p[c - 2];
    q[2 * c - 2] = p[c - 1] - kSplitFraction * last;
    q[2 * c - 1] = p[c - 1] + kSplitFraction * last;
}

void smoothSlantRanges(const int32_t* ranges, const float* angles, float angleOffset,
                       float* output, int32_t count, int32_t blockLength, int32_t passes) {
    // The working lines hold one fan of at most 256 beams; a longer count is
    // read as its first 256 beams, and output is written only there.
    const int32_t n = count < kLineLength ? count : kLineLength;
    float depth[kLineLength] = {};
    float cosine[kLineLength] = {};
    float second[kLineLength] = {};

    const float toRadians = 1.0f / kDegreesPerRadian;
    for (int32_t i = 0; i < n; ++i) {
        cosine[i] = std::cos((angles[i] + angleOffset) * toRadians);
        depth[i] = static_cast<float>(ranges[i]) * cosine[i];
    }
    runningMedianCausal(depth, depth, n, kMedianMask);

    // The edges of a 256-beam fan, where the median has not settled, take the
    // nearest settled value. Entry 255 is left as it is.
    for (int32_t i = 0; i <= 7; ++i) depth[i] = depth[8];
    for (int32_t i = 248; i <= 254; ++i) depth[i] = depth[247];

    const int32_t blocks = n / blockLength;
    for (int32_t k = 0; k < blocks; ++k) output[k] = mean(depth + k * blockLength, blockLength);

    // Alternate between output and the second line; after an odd number of
    // passes the result stands in the second line.
    float* from = output;
    float* to = second;
    for (int32_t t = 1; t <= passes; ++t) {
        splitPoints(to, from, blocks << (t - 1));
        float* swap = from;
        from = to;
        to = swap;
    }
    if (passes % 2 == 1 && n >= 1) std::memcpy(output, second, sizeof(float) * static_cast<std::size_t>(n));

    for (int32_t i = 0; i < n; ++i) output[i] = output[i] / cosine[i];
}

}  // namespace

void smoothSlantRanges16(const int32_t* ranges, const float* angles, float angleOffset,
                         float* output, int32_t count) {
    smoothSlantRanges(ranges, angles, angleOffset, output, count, 16, 4);
}

void smoothSlantRanges8(const int32_t* ranges, const float* angles, float angleOffset,
                        float* output, int32_t count) {
    smoothSlantRanges(ranges, angles, angleOffset, output, count, 8, 3);
}

void smoothSlantRanges4(const int32_t* ranges, const float* angles, float angleOffset,
                        float* output, int32_t count) {
    smoothSlantRanges(ranges, angles, angleOffset, output, count, 4, 2);
}

}  // namespace kvane
