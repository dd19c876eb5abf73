// test_smoothing.cpp - slant-range smoothing in the depth domain, in its
// three block lengths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "backend/backend.h"

namespace {

using Smoother = void (*)(const int32_t*, const float*, float, float*, int32_t);
const std::pair<Smoother, int> kVariants[] = {
    {kvane::smoothSlantRanges16, 16}, {kvane::smoothSlantRanges8, 8}, {kvane::smoothSlantRanges4, 4}};
constexpr int kBeams = 256;
constexpr double kRad = 3.14159265358979 / 180.0;

TEST(SlantRangeSmoothing, FlatSeabedStaysFlatInDepth) {
    // A flat seabed 400 samples down, seen from a fan over +-65 degrees rolled
    // by 5 degrees, with one beam caught by a multipath return at twice its range.
    const float roll = 5.0f;
    std::vector<float> angles(kBeams);
    std::vector<int32_t> ranges(kBeams);
    for (int i = 0; i < kBeams; ++i) {
        angles[i] = -65.0f + 130.0f * i / (kBeams - 1);
        ranges[i] = static_cast<int32_t>(std::lround(400.0 / std::cos((angles[i] + roll) * kRad)));
    }
    ranges[120] *= 2;
    for (const auto& [smooth, block] : kVariants) {
        std::vector<float> out(kBeams, -1.0f);
        smooth(ranges.data(), angles.data(), roll, out.data(), kBeams);
        for (int i = 0; i < kBeams; ++i)
            ASSERT_NEAR(out[i] * std::cos((angles[i] + roll) * kRad), 400.0, 0.6) << block << " " << i;
    }
}

TEST(SlantRangeSmoothing, SlopeFollowsSixBeamsLate) {
    // Vertical beams, so ranges are depths: a straight slope of 2 samples a
    // beam. The causal median delays it by six beams and the block means and
    // point splitting reproduce a straight line away from the fan's ends
    // (the eight edge beams, set to a common value, reach up to four block
    // lengths inwards through the splitting passes).
    const std::vector<float> angles(kBeams, 0.0f);
    std::vector<int32_t> ranges(kBeams);
    for (int i = 0; i < kBeams; ++i) ranges[i] = 1000 + 2 * i;
    for (const auto& [smooth, block] : kVariants) {
        std::vector<float> out(kBeams);
        smooth(ranges.data(), angles.data(), 0.0f, out.data(), kBeams);
        for (int i = 0; i < kBeams; ++i) {
            ASSERT_TRUE(std::isfinite(out[i])) << block << " " << i;
            if (i >= 4 * block && i < kBeams - 4 * block) {
                ASSERT_NEAR(out[i], 1000.0f + 2.0f * (i - 6), 1e-3f) << block << " " << i;
            }
        }
    }
}

TEST(SlantRangeSmoothing, FansShorterThanABlockStayInBounds) {
    // Fewer beams than one block: nothing to average, and nothing may be
    // written past the count (checked under the address sanitizer).
    const std::vector<float> angles(3, 10.0f);
    const std::vector<int32_t> ranges(3, 500);
    for (const auto& [smooth, block] : kVariants)
        for (int count : {0, 1, 3}) {
            std::vector<float> out(static_cast<size_t>(std::max(count, 1)), 0.0f);
            smooth(ranges.data(), angles.data(), 0.0f, out.data(), count);
        }
}

}  // namespace
