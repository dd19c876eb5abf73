// test_channels.cpp - the head of the ping: first echo detection and the
// channel gain equaliser.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "driver/driver.h"
#include "frontend/frontend.h"

namespace {

using kvane::cfloat;
constexpr int kCh = 64;

struct Channels {
    std::vector<cfloat> raw, filtered;
    std::vector<float> bySample;  // magnitudes, sample-major
};

Channels condition(const std::vector<int32_t>& planeI, const std::vector<int32_t>& planeQ, int n,
                   bool filtered = true) {
    Channels c{std::vector<cfloat>(kCh * n), std::vector<cfloat>(filtered ? kCh * n : 0),
               std::vector<float>(kCh * n)};
    kvane::conditionChannels(c.raw.data(), filtered ? c.filtered.data() : nullptr,
                             c.bySample.data(), planeI.data(), planeQ.data(), n);
    return c;
}

struct Lcg {  // uniform in [0, 1)
    uint32_t s;
    float next() {
        s = s * 1664525u + 1013904223u;
        return static_cast<float>(s >> 8) / 16777216.0f;
    }
};

// 64 channels of noise about 1.0 after scaling, random phases, and an echo of
// amplitude `echo` over raw samples [onset, onset + 300).
int32_t firstEchoOfPing(int n, int onset, float echo, uint32_t seed) {
    Lcg rng{seed};
    std::vector<int32_t> pi(kCh * n), pq(kCh * n);
    for (int c = 0; c < kCh; ++c)
        for (int t = 0; t < n; ++t) {
            float a = 200000.0f * (0.5f + rng.next());
            if (t >= onset && t < onset + 300) a += echo * 200000.0f;
            const float phase = 6.2831853f * rng.next();
            pi[c * n + t] = static_cast<int32_t>(a * std::cos(phase));
            pq[c * n + t] = static_cast<int32_t>(a * std::sin(phase));
        }
    return kvane::detectFirstEcho(condition(pi, pq, n).bySample.data(), n);
}

TEST(ChannelConditioning, ScalesAndDropsFifteenSamplesKeepingTheTail) {
    // Lengths around the 128-sample tiles, with the shifted part ending in the
    // last tile, at its start and in the tile before.
    for (int n : {15, 16, 40, 128, 143, 270, 1000}) {
        std::vector<int32_t> pi(kCh * n), pq(kCh * n);
        for (int i = 0; i < kCh * n; ++i) pi[i] = pq[i] = (i % n) * 1000 + i / n;
        pq[3 * n + n - 1] = std::numeric_limits<int32_t>::min();
        const Channels ch = condition(pi, pq, n);
        const int shift = n > 15 ? 15 : 0;
        for (int c : {0, 3, 63})
            for (int t = 0; t < n; ++t) {
                const int from = t < n - shift ? t + shift : t;  // the tail repeats
                const cfloat v = ch.raw[c * n + t];
                ASSERT_EQ(v.re, static_cast<float>(pi[c * n + from]) * 5e-6f) << n << " " << c << " " << t;
                ASSERT_EQ(v.im, static_cast<float>(pq[c * n + from]) * 5e-6f) << n << " " << c << " " << t;
                ASSERT_EQ(ch.filtered[c * n + t].re, v.re);
                ASSERT_EQ(ch.filtered[c * n + t].im, v.im);
                ASSERT_EQ(ch.bySample[t * kCh + c], std::sqrt(v.re * v.re + v.im * v.im));
            }
        // Without the filtered copy the rest comes out the same.
        const Channels rawOnly = condition(pi, pq, n, false);
        ASSERT_EQ(0, std::memcmp(rawOnly.raw.data(), ch.raw.data(), sizeof(cfloat) * kCh * n));
        ASSERT_EQ(0, std::memcmp(rawOnly.bySample.data(), ch.bySample.data(), sizeof(float) * kCh * n));
    }
}

TEST(FirstEcho, FallBackEchoOnsetAndBurstsInTheWater) {
    // Too short, silent, or without structure: the fall-back 20.
    std::vector<float> loud(kCh * 21, 100.0f);
    for (int c = 0; c < kCh; ++c) loud[10 * kCh + c] = 0.0f;
    EXPECT_EQ(kvane::detectFirstEcho(loud.data(), 21), 20);
    std::vector<float> silent(kCh * 1000, 0.0f), level(kCh * 1000, 3.0f);
    EXPECT_EQ(kvane::detectFirstEcho(silent.data(), 1000), 20);
    EXPECT_EQ(kvane::detectFirstEcho(level.data(), 1000), 20);

    // Raw sample s stands at s - 15; the smoothing sees the echo up to 10
    // samples early and the last quiet sample is reported: [s - 26, s - 16].
    for (int onset : {300, 1234, 2900}) {
        const int32_t first = firstEchoOfPing(4000, onset, 40.0f, 17u + onset);
        EXPECT_GE(first, onset - 26) << onset;
        EXPECT_LE(first, onset - 16) << onset;
    }

    // A short burst in the water column is stepped over.
    const int n = 3000;
    std::vector<float> mag(kCh * n);
    Lcg rng{99u};
    for (int t = 0; t < n; ++t)
        for (int c = 0; c < kCh; ++c) {
            float a = 0.5f + rng.next();
            if (t >= 600 && t < 620) a += 30.0f;    // a fish, 20 samples
            if (t >= 1500 && t < 1800) a += 40.0f;  // the seabed
            mag[t * kCh + c] = a;
        }
    const int32_t first = kvane::detectFirstEcho(mag.data(), n);
    EXPECT_GE(first, 1490);
    EXPECT_LE(first, 1499);
}

// 64 rows of n: row c has amplitude(t) * (c + 1) and a phase of its own.
struct GainCase {
    std::vector<cfloat> before, after;
    std::vector<float> profile;
    int32_t onset = 0;
};

GainCase equalise(int n, float (*amplitude)(int)) {
    GainCase g;
    g.before.resize(kCh * n);
    for (int c = 0; c < kCh; ++c)
        for (int t = 0; t < n; ++t) {
            const float a = amplitude(t) * (c + 1);
            g.before[c * n + t] = cfloat{a * std::cos(0.1f * c), a * std::sin(0.1f * c)};
        }
    g.after = g.before;
    g.profile.assign(n > 600 ? n : 600, -99.0f);
    kvane::equaliseChannelGain(g.after.data(), g.profile.data(), &g.onset, n);
    return g;
}

void expectRowsScaled(const GainCase& g, int n, int t, float gain, float tol) {
    for (int c = 0; c < kCh; c += 9) {
        const cfloat a = g.before[c * n + t], b = g.after[c * n + t];
        ASSERT_NEAR(b.re, a.re * gain, tol * std::fabs(a.re) + 1e-6f) << c << " " << t;
        ASSERT_NEAR(b.im, a.im * gain, tol * std::fabs(a.im) + 1e-6f) << c << " " << t;
    }
}

TEST(GainEqualiser, LoudSignalSettlesAtTargetPower) {
    const int n = 2210;  // 100 processed blocks and a last block of 10 samples
    const GainCase g = equalise(n, [](int) { return 100.0f; });
    const float settled = std::exp((6.907755f - std::log(1e4f)) / 2.0f);  // power 1000
    for (int t = 0; t < 2000; ++t) expectRowsScaled(g, n, t, settled, 1e-4f);
    for (int t = 2200; t < n; ++t) expectRowsScaled(g, n, t, 1.0f, 0.0f);
    for (int t = 600; t < 2000; ++t) ASSERT_NEAR(g.profile[t], settled, 1e-4f * settled);
    for (int k = 0; k < 90; ++k) ASSERT_NEAR(g.profile[k], -10.0f, 1e-3f) << k;  // power 1e4 -> 1e3
    for (int k = 100; k < 600; ++k) ASSERT_EQ(g.profile[k], 0.0f);
    EXPECT_EQ(g.onset, -5);
}

TEST(GainEqualiser, QuietSignalsShortPingsAndTheUnprocessedLastBlock) {
    // A quiet signal is never amplified; pings of one block or less are untouched.
    for (int n : {1000, 1, 21, 22}) {
        const GainCase g = equalise(n, n == 1000 ? +[](int) { return 10.0f; } : +[](int) { return 100.0f; });
        for (int i = 0; i < kCh * n; ++i) ASSERT_EQ(g.after[i].re, g.before[i].re) << n;
        for (int i = 0; i < kCh * n; ++i) ASSERT_EQ(g.after[i].im, g.before[i].im) << n;
        for (int k = 0; k < 600; ++k) ASSERT_EQ(g.profile[k], 0.0f) << n;
        for (int t = 600; t < n; ++t) ASSERT_EQ(g.profile[t], 1.0f);
    }
    const GainCase g = equalise(44, [](int) { return 100.0f; });
    for (int t = 0; t < 22; ++t) ASSERT_LT(std::fabs(g.after[t].re), 0.99f * std::fabs(g.before[t].re));
    for (int t = 22; t < 44; ++t) expectRowsScaled(g, 44, t, 1.0f, 0.0f);
}

TEST(GainEqualiser, RunsBackwardsInTime) {
    // An echo over blocks 46 to 49 (samples 1012..1099): the gain falls at its
    // end and recovers only before its start.
    const int n = 2000;
    const GainCase g = equalise(n, [](int t) { return t >= 1012 && t < 1100 ? 100.0f : 10.0f; });
    expectRowsScaled(g, n, 1000, g.profile[1000], 0.0f);
    EXPECT_LT(g.profile[1000], 0.5f);
    EXPECT_LT(g.profile[1050], 0.32f);
    EXPECT_EQ(g.profile[1100], 1.0f);
    EXPECT_EQ(g.profile[989], 1.0f);

    // Onset: loud from sample 500; the first gain of 0.5 or less is at 499,
    // where the backward loop has already settled on the loud part.
    const GainCase o = equalise(n, [](int t) { return t >= 500 ? 100.0f : 10.0f; });
    EXPECT_EQ(o.onset, 494);
}

}  // namespace
