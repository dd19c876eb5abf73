// test_smoothing.cpp - slant-range smoothing in the depth domain.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "backend/backend.h"

namespace {

using Smoother = void (*)(const int32_t*, const float*, float, float*, int32_t);
struct Variant {
    Smoother run;
    int blockLength;
};
const Variant kVariants[] = {{kvane::smoothSlantRanges16, 16},
                             {kvane::smoothSlantRanges8, 8},
                             {kvane::smoothSlantRanges4, 4}};

constexpr int kBeams = 256;
constexpr double kRad = 3.14159265358979 / 180.0;

std::vector<float> fanAngles() {
    std::vector<float> a(kBeams);
    for (int i = 0; i < kBeams; ++i) a[i] = -65.0f + 130.0f * i / (kBeams - 1);
    return a;
}

TEST(SlantRangeSmoothing, FlatSeabedStaysFlatInDepth) {
    // A flat seabed 400 samples down, seen from a fan rolled by 5 degrees,
    // with one beam caught by a multipath return at twice its range.
    const float offset = 5.0f;
    const std::vector<float> angles = fanAngles();
    std::vector<int32_t> ranges(kBeams);
    for (int i = 0; i < kBeams; ++i)
        ranges[i] = static_cast<int32_t>(std::lround(400.0 / std::cos((angles[i] + offset) * kRad)));
    ranges[120] *= 2;
    for (const Variant& v : kVariants) {
        std::vector<float> out(kBeams, -1.0f);
        v.run(ranges.data(), angles.data(), offset, out.data(), kBeams);
        for (int i = 0; i < kBeams; ++i) {
            ASSERT_TRUE(std::isfinite(out[i])) << v.blockLength << " " << i;
            const double depth = out[i] * std::cos((angles[i] + offset) * kRad);
            ASSERT_NEAR(depth, 400.0, 0.6) << v.blockLength << " " << i;
        }
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
    for (const Variant& v : kVariants) {
        std::vector<float> out(kBeams);
        v.run(ranges.data(), angles.data(), 0.0f, out.data(), kBeams);
        for (int i = 4 * v.blockLength; i < kBeams - 4 * v.blockLength; ++i)
            ASSERT_NEAR(out[i], 1000.0f + 2.0f * (i - 6), 1e-3f) << v.blockLength << " " << i;
        for (int i = 0; i < kBeams; ++i) ASSERT_TRUE(std::isfinite(out[i]));
    }
}

TEST(SlantRangeSmoothing, ShortAndOversizedCountsStayInBounds) {
    // Fewer beams than one block: nothing to average, nothing may be written
    // outside the count.
    const std::vector<float> angles(300, 10.0f);
    const std::vector<int32_t> ranges(300, 500);
    for (const Variant& v : kVariants) {
        for (int count : {0, 1, 3}) {
            std::vector<float> out(count > 0 ? count : 1, 0.0f);
            v.run(ranges.data(), angles.data(), 0.0f, out.data(), count);
        }
        // Above 256 beams only the first 256 are smoothed.
        std::vector<float> out(300, -7.0f);
        v.run(ranges.data(), angles.data(), 0.0f, out.data(), 300);
        EXPECT_NEAR(out[100], 500.0f, 0.01f);
        for (int i = 256; i < 300; ++i) ASSERT_EQ(out[i], -7.0f);
    }
}

}  // namespace
