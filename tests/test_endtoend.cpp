// test_endtoend.cpp - from raw samples to the bottom line, on recordings the
// simulator makes at test time, judged against the simulator's truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "harness.h"
#include "kVane.h"
#include "simulate.h"

namespace {

struct Survey {
    std::vector<float> bottom;   // last ping's bottomSample, beamCount entries
    std::vector<uint8_t> flags;  // last ping's bottomFlag
    std::vector<float> angles;   // beam angles of the last ping, degrees
    int32_t sampleCount = 0;
};


Survey runSurvey(const kvsim::SimConfig& config, int32_t beamCount, bool segmented) {
    Survey s;
    kVaneMalloc();
    std::vector<float> beamImage;
    std::vector<uint8_t> display(1000000);
    std::vector<float> sideScan(3200000);
    std::vector<float> gainProfile(8000);
    KVaneResult result{};
    for (int k = 0; k < config.pings; ++k) {
        kvsim::SimPing ping = kvsim::simulatePing(config, k);
        const int32_t n = ping.sampleCount;
        beamImage.assign(static_cast<size_t>(n + 6) * (beamCount + 6), 0.0f);
        KVaneParams params = kvreplay::harnessParams(beamCount);
        if (segmented) {
            const int count = std::min<int>(100, static_cast<int>(ping.rollAngle.size()));
            params.rollCount = count;
            for (int i = 0; i < count; ++i) {
                params.rollAngle[i] = ping.rollAngle[static_cast<size_t>(i)];
                params.rollTime[i] = ping.rollTime[static_cast<size_t>(i)];
            }
            params.pingTime = ping.pingTime;
        }
        result.beamImage = beamImage.data();
        result.displayImage = display.data();
        result.sideScanImage = sideScan.data();
        result.gainProfile = gainProfile.data();
        KVaneInput input{ping.planeI.data(), ping.planeQ.data(), n};
        kVaneProcess20(&params, &input, &result);
        s.sampleCount = n;
    }
    kVaneFree();
    s.bottom.assign(result.bottomSample, result.bottomSample + beamCount);
    s.flags.assign(result.bottomFlag, result.bottomFlag + beamCount);
    s.angles.assign(result.beamAngleCopies, result.beamAngleCopies + beamCount);
    return s;
}

struct Score {
    double offset = 0.0;     // the one constant sample offset removed
    double withinShare = 0;  // beams within max(2, 0.5 % of range) of the truth
    double flaggedShare = 0; // beams flagged as their own detection
};

Score score(const Survey& s, const kvsim::SimConfig& config) {
    const size_t B = s.bottom.size();
    std::vector<double> diff(B);
    for (size_t b = 0; b < B; ++b) diff[b] = s.bottom[b] - kvsim::seabedSample(config, s.angles[b]);
    std::vector<double> sorted = diff;
    std::nth_element(sorted.begin(), sorted.begin() + B / 2, sorted.end());
    Score r;
    r.offset = sorted[B / 2];
    int within = 0, flagged = 0;
    for (size_t b = 0; b < B; ++b) {
        const double truth = kvsim::seabedSample(config, s.angles[b]);
        const double tol = std::max(2.0, 0.005 * truth);
        if (std::fabs(diff[b] - r.offset) <= tol) ++within;
        if (s.flags[b] == 1) ++flagged;
    }
    r.withinShare = static_cast<double>(within) / B;
    r.flaggedShare = static_cast<double>(flagged) / B;
    return r;
}

void expectOnTheSeabed(const Survey& s, const kvsim::SimConfig& config) {
    const Score r = score(s, config);
    std::printf("offset %.1f samples, %.1f %% of beams on the seabed, %.1f %% flagged 1\n",
                r.offset, 100.0 * r.withinShare, 100.0 * r.flaggedShare);
    // The offset is the 15 dropped samples and the detector's own origin.
    EXPECT_NEAR(r.offset, -15.0, 6.0);
    EXPECT_GE(r.withinShare, 0.9) << "offset " << r.offset;
    EXPECT_GE(r.flaggedShare, 0.6);
}

kvsim::SimConfig survey(double depth, int samples) {
    kvsim::SimConfig c;
    c.depth = depth;
    c.samples = samples;
    c.pings = 8;
    c.seed = 7;
    return c;
}

}  // namespace

TEST(BottomLine, FlatSeabedAt10m) {
    const auto c = survey(10.0, 1200);
    expectOnTheSeabed(runSurvey(c, 256, false), c);
}

TEST(BottomLine, FlatSeabedAt40m) {
    const auto c = survey(40.0, 4000);
    expectOnTheSeabed(runSurvey(c, 256, false), c);
}

TEST(BottomLine, SlopeOf15DegreesAt20m) {
    auto c = survey(20.0, 2500);
    c.slopeDeg = 15.0;
    expectOnTheSeabed(runSurvey(c, 256, false), c);
}

TEST(BottomLine, RollingArrayOnTheSegmentedPath) {
    auto c = survey(20.0, 2000);
    c.rollAmplitude = 5.0;
    c.rollPeriod = 6.0;
    expectOnTheSeabed(runSurvey(c, 256, true), c);
}

TEST(BottomLine, ShallowSeabedTakesTheTracker) {
    const auto c = survey(2.5, 600);
    expectOnTheSeabed(runSurvey(c, 256, false), c);
}
