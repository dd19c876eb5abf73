// test_line.cpp - the bottom line across the fan: smooth runs, bridging,
// chaining, the two passes and their merge, and the completion.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "backend/backend.h"

using namespace kvane;

namespace {

constexpr float kSamples = 8000.0f;
constexpr float kGuard = -7.0f;

// A flat seabed 50 m down under a fan of B beams over +-65 degrees:
// 2 * D / cos(angle) / c * 20000 samples.
float seabedSample(int beam, int B) {
    const double angle = (-65.0 + 130.0 * beam / (B - 1)) * 3.14159265358979 / 180.0;
    return static_cast<float>(std::round(2.0 * 50.0 / std::cos(angle) / 1500.0 * 20000.0));
}

// Six candidate rows of stride B (1.0: no candidate) with row 0 on the
// seabed, and the result line; both with a guard behind their full size.
struct Fan {
    int B;
    std::vector<float> candidates = std::vector<float>(1536 + 8, kGuard);
    std::vector<float> bottom = std::vector<float>(1920 + 8, kGuard);
    std::vector<uint8_t> flag = std::vector<uint8_t>(1920, 0);
    std::vector<float> truth;

    explicit Fan(int beams) : B(beams), truth(std::max(beams, 1)) {
        std::fill_n(candidates.begin(), 1536, 0.0f);
        std::fill_n(candidates.begin(), 6 * B, 1.0f);
        std::fill_n(bottom.begin(), 1920, 0.0f);
        for (int j = 0; j < B; ++j) truth[j] = row(0)[j] = seabedSample(j, B);
    }
    float* row(int c) { return candidates.data() + c * B; }
    void trace(float n = kSamples) {
        traceBottomCurve(candidates.data(), static_cast<float>(B), n, bottom.data());
        completeBottomLine(bottom.data(), flag.data(), B);
    }
    bool guardsIntact() const {
        for (int i = 0; i < 8; ++i)
            if (candidates[1536 + i] != kGuard || bottom[1920 + i] != kGuard) return false;
        return true;
    }
    // Every beam on the seabed with its own detection, except the listed
    // beams: (value, flag).
    void expectLine(const std::map<int, std::pair<float, int>>& except = {}) const {
        for (int j = 0; j < B; ++j) {
            const auto it = except.find(j);
            EXPECT_EQ(bottom[j], it == except.end() ? truth[j] : it->second.first) << "beam " << j;
            EXPECT_EQ(flag[j], it == except.end() ? 1 : it->second.second) << "beam " << j;
        }
    }
};

}  // namespace

TEST(TraceBottom, FlatSeabedIsTracedIntact) {
    Fan fan(256);
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> noise(2, 8000);
    for (int c = 1; c < 6; ++c)
        for (int j = 0; j < 256; ++j) fan.row(c)[j] = static_cast<float>(noise(rng));
    fan.trace();
    fan.expectLine();
    EXPECT_TRUE(fan.guardsIntact());
}

TEST(TraceBottom, WrongOrMissingFirstCandidates) {
    Fan fan(256);
    fan.row(0)[100] = 600.0f;  // a lone outlier
    fan.row(1)[100] = fan.truth[100];
    for (int j = 140; j <= 155; ++j) {  // an erratic stretch, bridged from row 2
        fan.row(0)[j] = (j % 2) ? 7000.0f : 6000.0f;
        fan.row(2)[j] = fan.truth[j];
    }
    for (int j = 180; j <= 195; ++j) {  // smooth on its own but off the line: chained over
        fan.row(0)[j] = 7000.0f;
        fan.row(3)[j] = fan.truth[j];
    }
    fan.row(0)[70] = 1.0f;  // a hole filled from the first later row
    fan.row(3)[70] = fan.truth[70];
    fan.row(0)[60] = 1.0f;  // nothing in any row: the inner neighbour's value
    fan.trace();
    fan.expectLine({{60, {fan.truth[61], 2}}});
}

TEST(TraceBottom, RunsHuggingTheEndsOfTheFan) {
    // Short deep runs at both ends are dropped; the ends repeat the outermost good beam.
    Fan fan(256);
    std::map<int, std::pair<float, int>> copied;
    for (int j = 0; j <= 23; ++j) fan.row(0)[j] = 6000.0f, copied[j] = {fan.truth[24], 2};
    for (int j = 232; j <= 255; ++j) fan.row(0)[j] = 6000.0f, copied[j] = {fan.truth[231], 2};
    fan.trace();
    fan.expectLine(copied);

    // a run starting at beam 231 is not near enough to the end to be dropped
    Fan starboard(256);
    for (int j = 230; j <= 255; ++j) starboard.row(0)[j] = 6000.0f;
    starboard.trace();
    for (int j = 231; j <= 255; ++j) EXPECT_EQ(starboard.bottom[j], 6000.0f) << j;
    EXPECT_EQ(starboard.bottom[230], starboard.truth[228]);
}

TEST(TraceBottom, StaysInBoundsOnAnyInput) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const float odd[] = {nan, inf, -inf, -1e30f, 1e30f, 0.0f, -3.0f, 1.0f, 4000.0f};
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> level(1.0f, 8000.0f);
    for (int B : {0, 1, 2, 3, 64, 100, 255, 256}) {
        for (float n : {kSamples, 0.0f, nan, 7.0f}) {
            Fan fan(B);
            for (int i = 0; i < 1536; ++i) fan.candidates[i] = (i % 3) ? level(rng) : odd[rng() % 9];
            fan.trace(n);
            EXPECT_TRUE(fan.guardsIntact());
            for (int j = 0; j < B; ++j) EXPECT_TRUE(fan.flag[j] == 1 || fan.flag[j] == 2);
        }
    }
}
