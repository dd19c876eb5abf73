// test_endtoend.cpp - from raw samples to the bottom line, on pings the
// simulator makes at test time, judged against the simulator's truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "harness.h"
#include "kVane.h"
#include "reliability_support.h"
#include "simulate.h"

namespace {

struct Survey {
    const char* name;
    double depth;  // metres
    int samples;
    double slopeDeg = 0.0;
    double rollAmplitude = 0.0;  // a rolling array: the roll table and the segmented path
};

class BottomLine : public ::testing::TestWithParam<Survey> {};

// Eight pings of one survey through one workspace with the replay tool's
// parameters. The last ping's bottom line is compared with the true seabed
// sample in each beam's direction, less one constant offset for the whole fan.
TEST_P(BottomLine, FollowsTheSeabed) {
    const Survey& s = GetParam();
    kvsim::SimConfig config;
    config.depth = s.depth;
    config.samples = s.samples;
    config.pings = 8;
    config.seed = 7;
    config.slopeDeg = s.slopeDeg;
    if (s.rollAmplitude != 0.0) config.rollAmplitude = s.rollAmplitude, config.rollPeriod = 6.0;

    constexpr int B = 256;
    KVaneResult result{};
    kVaneMalloc();
    for (int k = 0; k < config.pings; ++k) {
        kvsim::SimPing ping = kvsim::simulatePing(config, k);
        KVaneParams params = kvreplay::harnessParams(B);
        if (s.rollAmplitude != 0.0) kvrel::useRollTable(&params, ping);
        kvrel::HostBuffers host(params, ping.sampleCount);
        host.attach(&result);
        KVaneInput input = kvrel::inputOf(ping);
        kVaneProcess20(&params, &input, &result);
    }
    kVaneFree();

    std::vector<double> truth(B), diff(B);
    for (int b = 0; b < B; ++b) {
        truth[b] = kvsim::seabedSample(config, result.beamAngleCopies[b]);
        diff[b] = result.bottomSample[b] - truth[b];
    }
    std::vector<double> sorted = diff;
    std::nth_element(sorted.begin(), sorted.begin() + B / 2, sorted.end());
    const double offset = sorted[B / 2];
    int within = 0, flagged = 0;
    for (int b = 0; b < B; ++b) {
        within += std::fabs(diff[b] - offset) <= std::max(2.0, 0.005 * truth[b]);
        flagged += result.bottomFlag[b] == 1;
    }
    std::printf("offset %.1f samples, %d of %d beams on the seabed, %d flagged as their own\n", offset,
                within, B, flagged);
    // The offset is the 15 samples dropped at the head of the ping and the
    // detector's own origin.
    EXPECT_NEAR(offset, -15.0, 6.0);
    EXPECT_GE(within, 0.9 * B) << "beams within max(2 samples, 0.5 % of the range) of the seabed";
    EXPECT_GE(flagged, 0.6 * B) << "beams with a detection of their own";
}

INSTANTIATE_TEST_SUITE_P(Surveys, BottomLine,
                         ::testing::Values(Survey{"FlatSeabedAt10m", 10.0, 1200},
                                           Survey{"FlatSeabedAt40m", 40.0, 4000},
                                           Survey{"SlopeOf15DegreesAt20m", 20.0, 2500, 15.0},
                                           Survey{"RollingArrayOnTheSegmentedPath", 20.0, 2000, 0.0, 5.0},
                                           Survey{"ShallowSeabedTakesTheTracker", 2.5, 600}),
                         [](const ::testing::TestParamInfo<Survey>& info) { return std::string(info.param.name); });

}  // namespace
