// test_beams.cpp - the fan, steering and beam sums, the split-aperture
// correlators and the amplitude image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <vector>

#include "driver/driver.h"
#include "frontend/frontend.h"

namespace {

using kvane::cfloat;
using cd = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

// A plane wave from theta degrees over the 64 elements (3.75 mm apart, 200 kHz
// carrier, 20 kHz sampling) with a Gaussian envelope; width 0: a steady wave.
std::vector<cfloat> planeWave(int32_t n, double theta, double c, double centre, double width) {
    std::vector<cfloat> x(static_cast<std::size_t>(64) * n);
    for (int e = 0; e < 64; ++e) {
        const double tau = e * 0.00375 * std::sin(theta * kPi / 180.0) / c;
        for (int32_t t = 0; t < n; ++t) {
            const double u = width > 0.0 ? (t - tau * 20000.0 - centre) / width : 0.0;
            const cd v = 1e-3 * std::exp(-0.5 * u * u) * std::exp(cd(0.0, -2e5 * 2.0 * kPi * tau));
            x[static_cast<std::size_t>(e) * n + t] = {float(v.real()), float(v.imag())};
        }
    }
    return x;
}

double phaseOf(cfloat v) { return std::atan2(v.im, v.re); }
double absOf(cfloat v) { return std::hypot(v.re, v.im); }
double peakOf(const std::vector<cfloat>& v) {
    double p = 0.0;
    for (const cfloat& x : v) p = std::max(p, absOf(x));
    return p;
}
void expectClose(cfloat a, cfloat b, double tol) {
    ASSERT_NEAR(a.re, b.re, tol);
    ASSERT_NEAR(a.im, b.im, tol);
}

// The beamforming step's buffers for n samples and an equal-angle fan.
struct Rig {
    int32_t n;
    std::vector<cfloat> filtered, raw, formed, split, steer, low, mid, high, sum, aligned,
        alignScratch;
    std::vector<kvane::SplitSectionSetup> setups = std::vector<kvane::SplitSectionSetup>(kvane::kSplitSections);
    float lastRollAngle = 0.0f, lastRollTime = 0.0f;
    std::unique_ptr<KVaneParams> params = std::make_unique<KVaneParams>();
    std::unique_ptr<KVaneResult> result = std::make_unique<KVaneResult>();
    std::vector<float> angles = std::vector<float>(256);
    std::vector<double> anglesDouble = std::vector<double>(256);

    Rig(int32_t samples, int32_t B, float sector) : n(samples) {
        for (auto* v : {&filtered, &raw}) v->resize(64 * n);
        for (auto* v : {&formed, &split}) v->resize(256 * n);
        for (auto* v : {&low, &mid, &high, &sum}) v->resize(2048000);
        aligned.resize(64 * 8000), steer.resize(256 * 64), alignScratch.resize(3 * 8008);
        params->soundSpeed = 1500.0f;
        params->rollCount = 1;
        params->beamCount = B;
        int32_t sig = 0;
        std::vector<float> copies(1920);
        kvane::finishBeamFan(angles.data(), anglesDouble.data(), copies.data(), sector, sector, 1, B, &sig);
    }
    kvane::SplitScratch scratch() {
        return {low.data(), mid.data(), high.data(), sum.data(), aligned.data(), alignScratch.data(), setups.data()};
    }
    float form(const std::vector<cfloat>& x) {
        filtered = raw = x;
        kvane::BeamformingIo io{filtered.data(), raw.data(), formed.data(), split.data(),
                                steer.data(), scratch(), &lastRollAngle, &lastRollTime};
        return kvane::formBeams(params.get(), result.get(), angles.data(), anglesDouble.data(), n, &io);
    }
    cfloat formedAt(int32_t b, int32_t t) const { return formed[std::size_t(b) * n + t]; }
    cfloat splitAt(int32_t b, int32_t t) const { return split[std::size_t(b) * n + t]; }
};

TEST(BeamFan, DefaultFansAndTheHostsFans) {
    std::vector<float> a(256), copies(1920, -1.0f);
    std::vector<double> ad(256);
    const float ends[3][3] = {{64, -69.2f, 69.4f}, {128, -70.0f, 69.7f}, {256, -70.0f, 70.25f}};
    for (const auto& [B, first, last] : ends) {
        kvane::fillBeamAnglesFromTable(a.data(), int32_t(B));
        EXPECT_NEAR(a[0], first, 1e-5);
        EXPECT_NEAR(a[int32_t(B) - 1], last, 1e-4);
    }
    kvane::fillBeamAnglesFromTable(a.data(), 100);
    EXPECT_EQ(std::vector<float>(a.begin(), a.begin() + 100), std::vector<float>(100, 0.0f));

    // Equal angles from -P to +S, copied three times and to doubles.
    int32_t sig = 0;
    auto fan = [&](float P, float S, int8_t spacing, int32_t B) {
        return kvane::finishBeamFan(a.data(), ad.data(), copies.data(), P, S, spacing, B, &sig);
    };
    fan(65.0f, 55.0f, 1, 256);
    EXPECT_EQ(a[0], -65.0f);
    EXPECT_NEAR(a[255], 55.0f, 1e-4);
    for (int i = 1; i < 256; ++i) ASSERT_NEAR(a[i] - a[i - 1], 120.0 / 255.0, 1e-4);
    for (int i = 0; i < 768; ++i) ASSERT_EQ(copies[i], a[i % 256]);
    EXPECT_EQ(copies[768], -1.0f);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(ad[i], double(a[i]));

    // Equal distances on a flat bottom; symmetric up to the floors of the ends.
    fan(60.0f, 60.0f, 2, 128);
    const double dx = 2.0 * std::floor(10000.0 * std::tan(kPi / 3.0)) / 127.0;
    for (int i = 0; i < 128; ++i) ASSERT_NEAR(a[i], -a[127 - i], 0.01) << i;
    for (int i = 1; i < 128; ++i)
        ASSERT_NEAR(10000.0 * (std::tan(a[i] * kPi / 180) - std::tan(a[i - 1] * kPi / 180)), dx, 0.05 * dx);

    // The signature: only the sum P + S and the count count; a fractional sum
    // is stored truncated, so it reads as new on every ping.
    sig = 0;
    const float calls[6][4] = {{60, 60, 256, 1}, {60, 60, 256, 0}, {60, 60, 128, 1},
                               {61, 59, 128, 0}, {60.5f, 60, 128, 1}, {60.5f, 60, 128, 1}};
    for (const auto& [P, S, B, changed] : calls) EXPECT_EQ(fan(P, S, 1, int32_t(B)), changed) << P << " " << B;
    EXPECT_EQ(sig, 249);
}

// Every block is dealt exactly once, whatever the team and the count (short
// last rounds, teams larger than the count), and with block costs that grow
// along the ping, two threads' shares differ by no more than one block's
// growth over the next.
TEST(BlockDealing, APermutationThatEvensGrowingCosts) {
    for (int team : {1, 2, 3, 5})
        for (int count : {0, 1, 2, 3, 4, 5, 7, 16, 31, 32, 33}) {
            std::vector<int> seen(count, 0);
            for (int j = 0; j < count; ++j) {
                const int k = kvane::dealtBlock(j, count, team);
                ASSERT_TRUE(k >= 0 && k < count) << team << " " << count << " " << j;
                ++seen[k];
            }
            EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), count) << team << " " << count;
        }
    for (int count : {4, 16, 32}) {
        double share[2] = {0.0, 0.0};
        for (int j = 0; j < count; ++j) share[j % 2] += 2 * kvane::dealtBlock(j, count, 2) + 1;
        EXPECT_LE(std::fabs(share[0] - share[1]), 2.0) << count;
    }
}

TEST(InterpolateRoll, SegmentsBetweenTableSamplesAndTheRetainedOne) {
    float roll[100];
    float lastAngle = 0.0f, lastTime = 0.0f;  // the previous ping's last sample
    const float angles1[3] = {1.0f, 3.0f, 3.0f};
    const int32_t times1[3] = {100, 200, 260};
    kvane::interpolateRoll(roll, 30, angles1, times1, 3, 50, &lastAngle, &lastTime);
    EXPECT_FLOAT_EQ(roll[0], 0.5f);   // 50 ms, from the retained sample
    EXPECT_FLOAT_EQ(roll[5], 1.0f);
    EXPECT_FLOAT_EQ(roll[10], 2.0f);
    EXPECT_EQ(roll[21], 0.0f);        // the last sample starts no interval
    EXPECT_EQ(roll[29], 0.0f);        // later than the table: 0, not held
    EXPECT_EQ(lastAngle, 3.0f);
    EXPECT_EQ(lastTime, 260.0f);

    // An empty table: no roll, and the retained sample stays.
    kvane::interpolateRoll(roll, 5, angles1, times1, 0, 30, &lastAngle, &lastTime);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(roll[k], 0.0f);
    EXPECT_EQ(lastAngle, 3.0f);
}

TEST(PlaneWave, PeaksInItsBeamAndTheSplitPhaseGivesTheSide) {
    Rig rig(600, 256, 70.0f);
    for (int32_t k : {30, 128, 240}) {
        EXPECT_EQ(rig.form(planeWave(rig.n, rig.angles[k], 1500.0, 300.0, 15.0)), 0.0f);
        int32_t best = -1;
        double bestPower = -1.0;
        for (int32_t b = 0; b < 256; ++b) {
            double power = 0.0;
            for (int32_t t = 0; t < rig.n; ++t) power += std::pow(absOf(rig.formedAt(b, t)), 2);
            if (power > bestPower) bestPower = power, best = b;
        }
        EXPECT_EQ(best, k);
        for (int32_t t = 290; t <= 310; ++t) {
            EXPECT_GT(rig.splitAt(k, t).re, 0.0f) << k << " " << t;
            EXPECT_NEAR(phaseOf(rig.splitAt(k, t)), 0.0, 0.01) << k << " " << t;
        }
        // A little to starboard (a larger angle): positive phase.
        rig.form(planeWave(rig.n, rig.angles[k] + 0.3, 1500.0, 300.0, 15.0));
        EXPECT_GT(phaseOf(rig.splitAt(k, 300)), 0.05) << k;
        rig.form(planeWave(rig.n, rig.angles[k] - 0.3, 1500.0, 300.0, 15.0));
        EXPECT_LT(phaseOf(rig.splitAt(k, 300)), -0.05) << k;
    }
}

TEST(PlaneWave, SectionedAlignmentAgainstTheNarrowBandProduct) {
    Rig rig(600, 256, 70.0f);
    auto scratch = rig.scratch();
    auto sectioned = [&](const std::vector<cfloat>& x, int32_t n, float roll, float c, int32_t B) {
        std::vector<cfloat> out(256 * 600);
        kvane::correlateSubAperturesSectioned(x.data(), n, 64, roll, c, rig.angles.data(), B, out.data(), &scratch);
        return out;
    };
    auto narrowBand = [&](const std::vector<cfloat>& x, int32_t n, float roll, float c, int32_t B) {
        std::vector<cfloat> out(256 * 600);
        kvane::correlateSubAperturesNarrowBand(x.data(), n, roll, c, rig.anglesDouble.data(), B, 1, out.data(), &scratch);
        return out;
    };
    // A short pulse takes about three samples to cross the array at the outer
    // sections: aligned for the section's centre beam it peaks as high as a
    // steady wave does; the narrow-band product loses coherence.
    for (int32_t k : {8, 246}) {
        const auto x = planeWave(600, rig.angles[k], 1500.0, 300.0, 2.5);
        const auto steady = planeWave(600, rig.angles[k], 1500.0, 0.0, 0.0);
        const double level = absOf(sectioned(steady, 600, 0.0f, 1500.0f, 256)[k * 600 + 300]);
        EXPECT_NEAR(absOf(sectioned(x, 600, 0.0f, 1500.0f, 256)[k * 600 + 300]) / level, 1.0, 0.003) << k;
        EXPECT_LT(absOf(narrowBand(x, 600, 0.0f, 1500.0f, 256)[k * 600 + 300]) / level, 0.9) << k;
    }
    // On a steady wave the alignment changes nothing away from the ends.
    const int32_t n = 300;
    Rig fan(n, 128, 70.0f);
    rig.angles = fan.angles, rig.anglesDouble = fan.anglesDouble;
    const auto x = planeWave(n, 23.3, 1480.0, 0.0, 0.0);
    const auto a = narrowBand(x, n, 1.5f, 1480.0f, 128), s = sectioned(x, n, 1.5f, 1480.0f, 128);
    const double peak = peakOf(a);
    for (int32_t b = 0; b < 128; ++b)
        for (int32_t t = 8; t < n - 8; ++t) expectClose(a[b * n + t], s[b * n + t], 2e-4 * peak);
}

// The sections' setups kept from call to call: a call that changes the
// length, the beam count, the fan, the roll or the sound speed gets the bits
// of a call with fresh setups, and so does the same call again.
TEST(PlaneWave, KeptSectionSetupsGiveTheBitsOfFreshOnes) {
    Rig shared(700, 256, 70.0f), fresh(700, 256, 70.0f);
    Rig narrow(700, 256, 50.0f);
    const auto x = planeWave(700, 12.0, 1500.0, 350.0, 3.0);
    struct Call { int32_t n, B; float roll, c; const Rig* fan; };
    const Call calls[] = {{700, 256, 0.0f, 1500.0f, &shared}, {700, 256, 0.0f, 1500.0f, &shared},
                          {640, 256, 0.0f, 1500.0f, &shared}, {640, 200, 0.0f, 1500.0f, &shared},
                          {640, 256, 0.0f, 1500.0f, &narrow}, {640, 256, 2.5f, 1500.0f, &shared},
                          {640, 256, 2.5f, 1480.0f, &shared}, {700, 256, 0.0f, 1500.0f, &shared}};
    auto keptScratch = shared.scratch();
    for (const Call& c : calls) {
        std::vector<cfloat> kept(256 * 700), anew(256 * 700);
        kvane::correlateSubAperturesSectioned(x.data(), c.n, 64, c.roll, c.c, c.fan->angles.data(), c.B,
                                              kept.data(), &keptScratch);
        for (auto& setup : fresh.setups) setup.keyed = 0;
        auto freshScratch = fresh.scratch();
        kvane::correlateSubAperturesSectioned(x.data(), c.n, 64, c.roll, c.c, c.fan->angles.data(), c.B,
                                              anew.data(), &freshScratch);
        ASSERT_EQ(0, std::memcmp(kept.data(), anew.data(), sizeof(cfloat) * kept.size()))
            << c.n << " " << c.B << " " << c.roll << " " << c.c;
    }
}

// Every steering weight is the taper times the product of the library's
// phasors of elements 8h and l (c = 8h + l), in double precision, rounded
// once: over fans, rolls (those of segments included) and sound speeds, bit
// for bit, whatever route the matrix takes to them.
TEST(Steering, WeightsAreTheLibrarysPhasorProductsRoundedOnce) {
    std::vector<double> angles(256);
    std::vector<cfloat> steer(256 * 64);
    int mismatches = 0;
    for (float soundSpeed : {1500.0f, 1432.5f, 1561.25f})
        for (double roll : {0.0, 0.37, -3.1, 12.5})
            for (int trial = 0; trial < 16; ++trial) {
                for (int b = 0; b < 256; ++b) angles[b] = -75.0 + (150.0 * b + trial * 0.37) / 255.0;
                kvane::formSteeringMatrix(steer.data(), angles.data(), 256, roll, soundSpeed);
                const double phaseScale = -4712.38921875 / static_cast<double>(soundSpeed);
                for (int b = 0; b < 256; ++b) {
                    const double angle = roll == 0.0 ? angles[b] : angles[b] + roll;
                    const double s = std::sin(angle * (1.0 / 57.29577791868205)) * phaseScale;
                    for (int c = 0; c < 64; ++c) {
                        double hs, hc, ls, lc;
                        ::sincos(-(s * (8 * (c / 8))), &hs, &hc);
                        ::sincos(-(s * (c % 8)), &ls, &lc);
                        const double t = kvane::kSteerTaperHalf[c < 32 ? c : 63 - c];
                        const cfloat w{static_cast<float>((hc * lc - hs * ls) * t),
                                       static_cast<float>((hc * ls + hs * lc) * t)};
                        mismatches += std::memcmp(&w, &steer[b * 64 + c], sizeof w) != 0;
                    }
                }
            }
    EXPECT_EQ(mismatches, 0);
}

TEST(Segmented, ConstantRollEqualsTheTurnedFan) {
    const float r = 2.5f;
    for (int32_t n : {1000, 1001}) {  // the second ends in a one-sample segment
        Rig seg(n, 256, 65.0f), turned(n, 256, 65.0f);
        for (int32_t b = 0; b < 256; ++b) {
            turned.angles[b] = seg.angles[b] + r;
            turned.anglesDouble[b] = seg.anglesDouble[b] + r;
        }
        seg.params->rollCount = 2;
        seg.params->rollAngle[0] = seg.params->rollAngle[1] = seg.lastRollAngle = r;
        seg.params->rollTime[1] = 100000;
        seg.params->pingTime = 500;
        seg.lastRollTime = -1000.0f;
        const std::vector<cfloat> x = planeWave(n, 31.0, 1500.0, 500.0, 40.0);
        EXPECT_EQ(seg.form(x), r);
        turned.form(x);
        for (int k = 0; k < 100; ++k) EXPECT_EQ(seg.result->segmentRoll[k], k < (n + 199) / 200 ? r : 0.0f);
        EXPECT_EQ(seg.lastRollTime, 100000.0f);
        const double peak = peakOf(turned.formed), splitPeak = peakOf(turned.split);
        for (int32_t b = 0; b < 256; ++b)
            for (int32_t t = 0; t < n; ++t) {
                expectClose(seg.formedAt(b, t), turned.formedAt(b, t), 1e-5 * peak);
                // Each segment is aligned on its own: borders differ.
                if (t % 200 < 8 || t % 200 >= 192 || t >= n - 8) continue;
                expectClose(seg.splitAt(b, t), turned.splitAt(b, t), 1e-5 * splitPeak);
            }
    }
}

TEST(FractionalDelay, UnitImpulseAtZeroAndAPhaseDelayElsewhere) {
    float h[5];
    kvane::fractionalDelayTaps(h, 0.0);
    for (int j = 0; j < 5; ++j) EXPECT_NEAR(h[j], j == 2 ? 1.0 : 0.0, 3e-6) << j;
    // A slow tone comes out delayed by d samples with unit gain.
    for (double d : {-0.5, -0.3, -0.1, 0.1, 0.25, 0.4999}) {
        kvane::fractionalDelayTaps(h, d);
        cd response = 0.0;
        for (int m = 0; m < 5; ++m) response += double(h[m]) * std::exp(cd(0.0, 0.3 * (2 - m)));
        EXPECT_NEAR(h[0] + h[1] + h[2] + h[3] + h[4], 1.0, 1e-6) << d;
        EXPECT_NEAR(std::arg(response), -0.3 * d, 1e-3) << d;
        EXPECT_NEAR(std::abs(response), 1.0, 1e-3) << d;
    }
}

TEST(BeamImage, MagnitudeAndHalfFanClipping) {
    // Odd beam count: the last beam takes no part. An all-zero half stays zero.
    std::vector<float> rows = {10, 2, 10, 3, 0.5f, 0, 0, 5, 1, 0.2f};
    kvane::clipHalfFans(rows.data(), 2, 5, 0.5f);
    EXPECT_EQ(rows, (std::vector<float>{10, 1, 10, 1, 0.5f, 0, 0, 5, 1, 0.2f}));
    // A ratio of 0 acts as 0.01, one of 1 as 0.99.
    std::vector<float> low = {100, 0.5f, 0, 0}, high = {100, 99.5f, 98.9f, 100, 0, 0, 0, 0};
    kvane::clipHalfFans(low.data(), 1, 4, 0.0f);
    kvane::clipHalfFans(high.data(), 1, 8, 1.0f);
    EXPECT_EQ(low, (std::vector<float>{100, 1, 0, 0}));
    EXPECT_EQ(high, (std::vector<float>{100, 99.5f, 1, 100, 0, 0, 0, 0}));

    // The whole step against the sample-major definition: an odd beam count,
    // a length no tile divides, samples whose whole half is zero.
    const int32_t B = 7, n = 150;
    std::vector<cfloat> formed(B * n);
    std::vector<float> bySample(n * B);
    uint32_t seed = 12345;
    for (int32_t b = 0; b < B; ++b)
        for (int32_t t = 0; t < n; ++t) {
            seed = seed * 1664525u + 1013904223u;
            const float re = float(seed >> 8) / 16777216.0f - 0.5f;
            const cfloat v = (t % 10 == 0 && b < 3) ? cfloat{0, 0} : cfloat{re, 0.25f - re * re};
            formed[b * n + t] = v;
            bySample[t * B + b] = std::sqrt(v.re * v.re + v.im * v.im);
        }
    kvane::clipHalfFans(bySample.data(), n, B, 0.6f);
    std::vector<float> env(B * n), image(B * n);
    kvane::conditionBeamImage(env.data(), image.data(), formed.data(), B, n, 0.6f, false);
    for (int32_t b = 0; b < B; ++b)
        for (int32_t t = 0; t < n; ++t) ASSERT_EQ(env[b * n + t], bySample[t * B + b]) << b << " " << t;
    EXPECT_EQ(env, image);
    EXPECT_EQ(env[0], 0.0f);
}

TEST(BeamImage, SmoothingSpreadsAnImpulseOverSevenBySeven) {
    const int32_t B = 20, n = 30;
    const float k = (1.0f / 7.0f) * (1.0f / 7.0f);
    for (auto [b0, t0] : {std::pair{10, 15}, std::pair{0, 0}, std::pair{19, 29}}) {
        std::vector<float> env(B * n, 0.0f), image((n + 6) * (B + 6), -1.0f);
        env[b0 * n + t0] = 49.0f;
        kvane::smoothBeamImage(env.data(), image.data(), B, n);
        for (int32_t b = 0; b < B; ++b)
            for (int32_t t = 0; t < n; ++t) {
                const bool inside = std::abs(b - b0) <= 3 && std::abs(t - t0) <= 3;
                ASSERT_EQ(env[b * n + t], inside ? 49.0f * k : 0.0f) << b << " " << t;
                ASSERT_EQ(image[b * n + t], env[b * n + t]);
            }
    }
}

}  // namespace
