// test_detect.cpp - bottom detection: peaks, drop points, fits, gate
// detection and the candidates of whole beams.
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <lapacke.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "detect/detect.h"
#include "numeric/numeric.h"

namespace {

using kvane::cfloat;
using kvane::DetectWork;
using kvane::GateDetection;
using Ints = std::vector<int32_t>;

// One set of detector lines owned by the test.
struct TestWork {
    std::vector<float> f[6];
    std::vector<cfloat> c[2];
    TestWork() {
        for (auto& v : f) v.resize(kvane::kDetectLineLength);
        for (auto& v : c) v.resize(kvane::kDetectLineLength);
    }
    DetectWork work() {
        return DetectWork{f[0].data(), c[0].data(), c[1].data(), f[1].data(), f[2].data(),
                          f[3].data(), f[4].data(), f[5].data(), 1};
    }
};

Ints peaksOf(const std::vector<float>& y, int minDistance, int maxPeaks = 64) {
    std::vector<float> levels(y.size());
    Ints order(y.size()), peaks(static_cast<std::size_t>(maxPeaks));
    peaks.resize(static_cast<std::size_t>(kvane::pickEnvelopePeaks(
        peaks.data(), maxPeaks, y.data(), static_cast<int>(y.size()), minDistance, levels.data(), order.data())));
    return peaks;
}

TEST(PickEnvelopePeaks, HandMadeEnvelopes) {
    const std::vector<float> y = {0, 1, 0, 1, 0, 0.5f, 0, 0.1f, 0};
    const struct { std::vector<float> y; int minDistance, maxPeaks; Ints peaks; } cases[] = {
        {{5, 4, 3, 2, 1}, 1, 64, {1}},            // falling: index 1, not 0
        {{10, 1, 0.5f, 0.4f, 0.3f}, 1, 64, {0}},  // index 1 too low: fallback
        {{1, 2, 3, 4, 5}, 1, 64, {3}},            // rising: n - 2
        {{0, 1, 1, 1, 0, 0}, 1, 64, {3}},         // plateau: its last sample
        {{1, 0}, 1, 64, {0}},
        {{0, 1}, 1, 64, {1}},
        // Highest first, equal heights by index; thinning favours the earlier.
        {y, 1, 64, {1, 3, 5}}, {y, 3, 64, {1, 5}}, {y, 4, 64, {1}}, {y, 1, 2, {1, 3}},
        // At the threshold (0.2) the search stops on the second of two levels.
        {{0, 0.2f, 0, 0.2f, 0, 1, 0}, 1, 64, {5, 3}},
        {{0, 0.2f, 0, 1, 0}, 1, 64, {3, 1}},
        // No scale, no peaks.
        {{2, 2, 2, 2}, 1, 64, {}}, {{0, 1, NAN, 1, 0}, 1, 64, {}}, {{0, INFINITY, 0, 1, 0}, 1, 64, {}},
        // The same past the first eight samples, and in the last of sixteen.
        {{0, 1, 0, 1, 0, 1, 0, 1, 0, NAN, 0, 1, 0, 1, 0, 1, 0}, 1, 64, {}},
        {{0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, -INFINITY}, 1, 64, {}},
    };
    for (const auto& c : cases) EXPECT_EQ(peaksOf(c.y, c.minDistance, c.maxPeaks), c.peaks) << c.y.size();
}

// The picker step by step: stable sort, binary search, maxima, intersection,
// stable order by height, thinning over the whole list.
Ints plainPeaks(const std::vector<float>& y, int minDistance) {
    const int n = static_cast<int>(y.size());
    const float lowest = *std::min_element(y.begin(), y.end());
    const float range = std::fabs(lowest - *std::max_element(y.begin(), y.end()));
    if (n < 2 || range == 0.0f) return {};
    std::vector<float> v(n);
    for (int i = 0; i < n; ++i) v[i] = std::fabs((lowest - y[i]) * (1.0f / range));
    const float thr = 0.2f * *std::max_element(v.begin(), v.end());
    minDistance = std::min(minDistance, n - 1);
    Ints sorted(n);
    std::iota(sorted.begin(), sorted.end(), 0);
    std::stable_sort(sorted.begin(), sorted.end(), [&](int a, int b) { return v[a] < v[b]; });
    int lo = 0, hi = n - 1, pos = -1;
    while (lo <= hi && pos < 0) {
        const int mid = (lo + hi) / 2;
        if (v[sorted[mid]] > thr) hi = mid - 1;
        else if (v[sorted[mid]] < thr) lo = mid + 1;
        else pos = mid;
    }
    if (pos < 0 && hi == n - 1) return {};
    Ints above(sorted.begin() + (pos < 0 ? lo : pos), sorted.end()), maxima, both, out;
    std::sort(above.begin(), above.end());
    int s = 0;
    if (n == 2) maxima.push_back(0);
    else if (v[1] - v[0] < 0) maxima.push_back(s = 1);
    for (int i = s; n > 2 && i <= n - 4; ++i)
        if (v[i + 1] - v[i] >= 0 && v[i + 2] - v[i + 1] < 0) maxima.push_back(i + 1);
    if (n > 2 && v[std::max(s, n - 3) + 1] - v[std::max(s, n - 3)] > 0) maxima.push_back(std::max(s, n - 3) + 1);
    if (maxima.empty()) return {};
    std::set_intersection(above.begin(), above.end(), maxima.begin(), maxima.end(), std::back_inserter(both));
    if (both.empty()) both.push_back(above.back());
    std::stable_sort(both.begin(), both.end(), [&](int a, int b) { return v[a] > v[b]; });
    const int m = static_cast<int>(both.size());
    std::vector<int> removed(m, 0);
    for (int i = 0; m > 1 && i < m; ++i) {
        if (removed[i]) continue;
        for (int j = 0; j < m; ++j) removed[j] |= both[j] >= both[i] - minDistance && both[j] <= both[i] + minDistance;
        removed[i] = 0;
    }
    for (int i = 0; i < m; ++i)
        if (!removed[i]) out.push_back(both[i]);
    return out;
}

TEST(PickEnvelopePeaks, SameAsTheStepByStepPicker) {
    // Few levels make plateaus and samples at the threshold common.
    std::mt19937 rng(7);
    for (int trial = 0; trial < 3000; ++trial) {
        std::vector<float> y(2 + rng() % 40);
        const unsigned levels = 2 + rng() % 9;
        for (float& x : y) x = static_cast<float>(rng() % levels) * (trial % 2 ? 0.37f : 1.0f);
        const int minDistance = static_cast<int>(rng() % 7) - 1;
        const Ints full = plainPeaks(y, minDistance);
        ASSERT_EQ(peaksOf(y, minDistance), full) << "trial " << trial;
        ASSERT_EQ(peaksOf(y, minDistance, 2), Ints(full.begin(), full.begin() + std::min<std::size_t>(full.size(), 2)));
    }
}

Ints dropsOf(const std::vector<float>& x, int peakIndex, int side) {
    const float drops[kvane::kDropCount] = {6, 8, 10, 12, 14};
    Ints out(kvane::kDropCount, -7);
    kvane::findDropPoints(out.data(), x.data(), static_cast<int>(x.size()), drops, peakIndex, side);
    return out;
}

TEST(FindDropPoints, CrossingsWholeSidesAndTheMean) {
    EXPECT_EQ(dropsOf({1, 0.1f, 0.05f, 0.01f}, 10, 2), Ints(5, 11));
    EXPECT_EQ(dropsOf({0.01f, 0.05f, 0.1f, 1}, 10, 1), Ints(5, 8));  // the left side counts the peak
    EXPECT_EQ(dropsOf({1, 0.9f, 0.9f}, 10, 2), Ints(5, 13));         // never falls: n
    EXPECT_EQ(dropsOf({0.9f, 0.9f, 1}, 10, 1), Ints(5, 7));
    EXPECT_EQ(dropsOf({1}, 4, 2), Ints(5, 5));
    EXPECT_EQ(dropsOf({1, 0}, 4, 3), Ints(5, -7));  // unknown side: untouched
    // All zeros: the peak itself crosses, on the mean; the second search
    // takes the next element and the mean point decides.
    EXPECT_EQ(dropsOf(std::vector<float>(6, 0.0f), 20, 2), Ints(5, 20));
    EXPECT_EQ(dropsOf(std::vector<float>(6, 0.0f), 20, 1), Ints(5, 18));
    // Other levels between calls with the usual ones: each call uses its own.
    const std::vector<float> fall = {1, 0.6f, 0.4f, 0.25f, 0.16f, 0.1f, 0.06f, 0.04f, 0.0f};
    const float shallow[kvane::kDropCount] = {1, 2, 3, 4, 5};
    Ints first(kvane::kDropCount), again(kvane::kDropCount);
    kvane::findDropPoints(first.data(), fall.data(), 9, shallow, 0, 2);
    const Ints usual = dropsOf(fall, 0, 2);
    kvane::findDropPoints(again.data(), fall.data(), 9, shallow, 0, 2);
    EXPECT_EQ(first, again);
    EXPECT_NE(first, usual);
    EXPECT_EQ(dropsOf(fall, 0, 2), usual);
}

TEST(FitQuadraticRobust, ExactDataAndAFarOutlier) {
    std::vector<float> y(21), scratch(10 * 21), c(3);
    for (int k = 1; k <= 21; ++k) y[k - 1] = -0.01f * k * k + 0.3f * k - 0.8f;
    for (float tol : {1e-5f, 1e-4f}) {  // then an outlier of weight 0: the fit follows the rest
        kvane::fitQuadraticRobust(c.data(), y.data(), 21, scratch.data());
        EXPECT_NEAR(c[0], -0.01f, tol);
        EXPECT_NEAR(c[1], 0.3f, 10 * tol);
        EXPECT_NEAR(c[2], -0.8f, 100 * tol);
        y[12] += 50.0f;
    }
}

// The detection's smoothing against its definition, written plainly: output
// i is the mean of the width inputs centred on input i * step, the ends
// repeated, summed in window order. Widths and steps of the detection (3 and
// 2, up to 21 and 11) and others, lengths around them.
TEST(DecimatedMovingAverage, MeansOfCentredWindowsEndsRepeated) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> unit(0.0f, 1000.0f);
    for (int n : {1, 2, 5, 21, 22, 100, 1001, 7985})
        for (auto [width, step] : {std::pair{3, 2}, std::pair{1, 1}, std::pair{5, 3},
                                   std::pair{9, 5}, std::pair{21, 11}, std::pair{15, 8},
                                   std::pair{7, 1}, std::pair{3, 7}}) {
            std::vector<float> x(n);
            for (float& v : x) v = unit(rng);
            std::vector<float> out(n + 1, -1.0f);
            const int length = kvane::decimatedMovingAverage(out.data(), x.data(), n, width, step);
            ASSERT_EQ(length, (n + step - 1) / step);
            for (int i = 0; i < length; ++i) {
                float sum = 0.0f;
                for (int k = i * step - width / 2; k <= i * step + width / 2; ++k)
                    sum += x[std::clamp(k, 0, n - 1)];
                ASSERT_EQ(out[i], sum / static_cast<float>(width)) << n << " " << width << " " << step << " " << i;
            }
            ASSERT_EQ(out[length], -1.0f);
        }
}

// The double sums of the detection's means against the plain ordered sum,
// bit for bit: narrow and wide ranges of magnitude (the second making the
// additions round), signs, zeros, denormals, infinities and NaN, odd
// lengths. And the square roots with their lowest value against an ordered
// pass, a NaN first and later included.
TEST(OrderedSum, SameBitsAsTheOrderedPass) {
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    auto ordered = [](const std::vector<float>& x) {
        double s = 0.0;
        for (float v : x) s += v;
        return s;
    };
    auto bitsOf = [](double d) {
        uint64_t u;
        std::memcpy(&u, &d, sizeof u);
        return u;
    };
    for (int n : {1, 15, 16, 17, 100, 1001, 8000})
        for (int kind = 0; kind < 8; ++kind) {
            std::vector<float> x(n);
            for (int i = 0; i < n; ++i) {
                const float u = unit(rng);
                switch (kind) {
                    case 0: x[i] = 1.0f + 3e4f * u; break;                             // envelope-like
                    case 1: x[i] = std::ldexp(u, static_cast<int>(rng() % 60) - 30); break;  // wide range
                    case 2: x[i] = (u - 0.5f) * 2.0f; break;                           // signs
                    case 3: x[i] = i % 3 == 0 ? 0.0f : 7.0f * u; break;                // zeros
                    case 4: x[i] = i == n / 2 ? 1e-40f : u; break;                     // a denormal
                    case 5: x[i] = i == n - 1 ? INFINITY : u; break;
                    case 6: x[i] = std::ldexp(u, static_cast<int>(rng() % 24) - 12); break;
                    default: x[i] = i == n / 3 ? NAN : u; break;
                }
            }
            const double fast = kvane::orderedSum(x.data(), n);
            const double plain = ordered(x);
            if (plain != plain)
                EXPECT_NE(fast, fast) << n << " " << kind;
            else
                EXPECT_EQ(bitsOf(fast), bitsOf(plain)) << n << " " << kind;
        }
    for (int n : {1, 7, 8, 9, 100})
        for (int nanAt : {-1, 0, 3}) {
            std::vector<float> x(n);
            for (float& v : x) v = 1.0f + 100.0f * unit(rng);
            if (nanAt >= 0 && nanAt < n) x[nanAt] = NAN;
            std::vector<float> roots = x;
            const float lowest = kvane::squareRootsLowest(roots.data(), n);
            float expected = std::sqrt(x[0]);
            for (int i = 0; i < n; ++i) {
                const float r = std::sqrt(x[i]);
                ASSERT_TRUE(roots[i] == r || (r != r && roots[i] != roots[i]));
                expected = r < expected ? r : expected;
            }
            if (expected != expected)
                EXPECT_NE(lowest, lowest);
            else
                EXPECT_EQ(lowest, expected) << n << " " << nanAt;
        }
}

// The detection's own route to the least-squares solution against the
// library's solver: the same numbers, bit for bit, on the fits a gate makes
// (rows k^2, k, 1, weighted), on systems the solver scales (tiny or huge
// magnitudes), and on a zero matrix and a zero right-hand side.
TEST(LeastSquaresColumns3, SameBitsAsTheSolver) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    const float scales[] = {1.0f, 1e-35f, 1e-20f, 1e30f, 1e35f};
    for (int m : {3, 4, 7, 31, 200, 728})
        for (float scale : scales)
            for (int kind = 0; kind < 4; ++kind) {
                std::vector<float> A(3 * m), rhs(m);
                for (int i = 0; i < m; ++i) {
                    const float k = static_cast<float>(i + 1);
                    const float w = kind == 1 ? std::fabs(unit(rng)) : 1.0f;
                    A[3 * i] = kind == 2 ? 0.0f : k * k * w * scale;
                    A[3 * i + 1] = kind == 2 ? 0.0f : k * w * scale;
                    A[3 * i + 2] = kind == 2 ? 0.0f : w * scale;
                    rhs[i] = kind == 3 ? 0.0f : unit(rng) * (scale > 1.0f ? scale : 1.0f);
                }
                std::vector<float> A2 = A, rhs2 = rhs;
                kvane::leastSquaresColumns3(A.data(), rhs.data(), m);
                LAPACKE_sgels(LAPACK_ROW_MAJOR, 'N', m, 3, 1, A2.data(), 3, rhs2.data(), 1);
                for (int i = 0; i < 3; ++i)
                    ASSERT_EQ(std::memcmp(&rhs[i], &rhs2[i], sizeof(float)), 0)
                        << m << " " << scale << " " << kind << " " << rhs[i] << " " << rhs2[i];
            }
}

// The phase's arctangent: the vector form against the one-at-a-time form,
// bit for bit, over every exponent, the pairs it leaves to the library
// (zeros, infinities, NaN, denormals, x = 1, huge quotients) and odd lengths,
// in place too; against the C library's atan2f within an ulp, and the same
// bits on the library whose formulas it follows.
TEST(ArcTangent2, VectorFormAndLibraryAgree) {
    std::mt19937 rng(11);
    const float specials[] = {0.0f, -0.0f, 1.0f, -1.0f, INFINITY, -INFINITY, NAN, 1e-40f,
                              -1e-40f, 2.0f, 0.5f, 1e30f, -1e30f, 1e-30f, 3e-20f};
    std::vector<float> y, x;
    for (float a : specials)
        for (float b : specials) {
            y.push_back(a);
            x.push_back(b);
        }
    for (int i = 0; i < 1000000; ++i) {
        uint32_t a = rng(), b = rng();
        // Mostly quotients between 1/16 and 16, where the polynomial counts.
        if (i % 8 != 0) b = (b & 0x807fffffu) | ((a & 0x7f800000u) + ((b % 9u) << 23) - (4u << 23));
        float fa, fb;
        std::memcpy(&fa, &a, 4);
        std::memcpy(&fb, &b, 4);
        y.push_back(fa);
        x.push_back(fb);
    }
    const bool sameLibrary = std::string(gnu_get_libc_version()) == "2.36";
    auto bits = [](float v) {
        uint32_t u;
        std::memcpy(&u, &v, 4);
        return u;
    };
    for (int n : {static_cast<int>(y.size()), 13, 1}) {
        std::vector<float> out(n), inY(y.begin(), y.begin() + n), inX(x.begin(), x.begin() + n);
        kvane::arcTangent2(out.data(), y.data(), x.data(), n);
        kvane::arcTangent2(inY.data(), inY.data(), x.data(), n);
        kvane::arcTangent2(inX.data(), y.data(), inX.data(), n);
        for (int i = 0; i < n; ++i) {
            const float one = kvane::arcTangent2(y[i], x[i]);
            const float lib = std::atan2(y[i], x[i]);
            if (lib != lib) {
                ASSERT_TRUE(out[i] != out[i] && one != one) << y[i] << " " << x[i];
                continue;
            }
            ASSERT_EQ(bits(out[i]), bits(one)) << y[i] << " " << x[i];
            ASSERT_EQ(bits(inY[i]), bits(one));
            ASSERT_EQ(bits(inX[i]), bits(one));
            if (sameLibrary)
                ASSERT_EQ(bits(one), bits(lib)) << y[i] << " " << x[i];
            else
                ASSERT_LE(std::fabs(one - lib), std::fabs(std::nextafter(lib, 4.0f) - lib));
        }
    }
}

// Split-aperture samples with phase (units of pi) slope * x + curve * x^2,
// x = i - zero. A straight ramp would leave the quadratic term at rounding
// level, where the plain root formula loses its precision.
void phaseRamp(cfloat* iq, int count, float slope, float zero, float curve = 0.00003f) {
    for (int i = 0; i < count; ++i) {
        const float x = static_cast<float>(i) - zero;
        const float ph = 3.14159265f * (slope * x + curve * x * x);
        iq[i] = cfloat{std::cos(ph), std::sin(ph)};
    }
}

struct Gate {
    TestWork t;
    DetectWork w = t.work();
    GateDetection run(int g0, int g1, int workLength = 400) {
        GateDetection d;
        kvane::detectInGate(&d, w.envelopeWork, w.iqWork, 5e-4f, 20000, g0, g1, 500, workLength, &w);
        return d;
    }
};

TEST(DetectInGate, PhaseZeroCrossingInGatesOfMoreThan20Samples) {
    // Through zero at 157: detected at the crossing plus 1.5, truncated, with
    // the full fit and with the refined one.
    Gate g;
    phaseRamp(g.w.iqWork, 400, 0.006f, 157.0f);
    std::fill(g.w.envelopeWork, g.w.envelopeWork + 400, 1.0f);
    for (int first : {100, 140}) {
        const GateDetection d = g.run(first, 210);
        EXPECT_EQ(d.phaseSample, 158) << first;
        EXPECT_GT(d.fitQuality, 0.95f);
        EXPECT_LT(d.phaseResidual, 0.05f);
        EXPECT_LE(d.fitStart, 157);
        EXPECT_GE(d.fitEnd, 157);
    }
    // Phase needs more than 20 samples in the gate; gates of one or two
    // samples detect nothing, and gates beyond the line are clamped to it.
    phaseRamp(g.w.iqWork, 400, 0.02f, 40.0f);
    EXPECT_EQ(g.run(30, 49).phaseSample, 0);
    EXPECT_EQ(g.run(30, 50).phaseSample, 41);
    for (int last : {10, 11}) {
        const GateDetection d = g.run(10, last);
        EXPECT_EQ(Ints({d.phaseSample, d.amplitudeSample}), Ints({0, 0}));
        EXPECT_EQ(d.phaseQuality, -100.0f);
    }
    EXPECT_EQ(g.run(-50, 1000000, 300).gateEnd, 300);
}

// One ping of synthetic beams, all gates open.
struct SyntheticPing {
    int n, beams;
    std::vector<float> angles, envelope;
    std::vector<cfloat> iq;
    std::vector<kvane::EchoCandidate> records = std::vector<kvane::EchoCandidate>(1536);
    std::vector<kvane::EchoCandidate*> slots;
    Ints gateTable = Ints(512, 0);
    kvane::DetectionLimits limits{100, 4000, 0, 1, 1500.0f, 0};
    uint8_t firstBeamPending = 0;
    TestWork work;

    SyntheticPing(int samples, std::vector<float> beamAngles)
        : n(samples), beams(static_cast<int>(beamAngles.size())), angles(std::move(beamAngles)),
          envelope(static_cast<std::size_t>(n) * beams, 0.0f),
          iq(static_cast<std::size_t>(n) * beams, cfloat{1.0f, 0.0f}) {
        for (auto& r : records) slots.push_back(&r);
        for (int b = 0; b < beams; ++b) gateTable[beams + b] = n - 1;
    }
    // Gaussian echo at echoSample, with a phase ramp through zero there.
    void addEcho(int beam, float echoSample, float width, float height, bool phase) {
        for (int i = 0; i < n; ++i) {
            const float x = (static_cast<float>(i) - echoSample) / width;
            envelope[static_cast<std::size_t>(beam) * n + i] += height * std::exp(-0.5f * x * x);
        }
        if (phase) phaseRamp(iq.data() + static_cast<std::size_t>(beam) * n, n, 0.004f, echoSample);
    }
    void run(int firstEcho, float qualityThreshold = 0.5f, uint8_t reset = 0) {
        const kvane::BottomDetectArgs args{angles.data(), envelope.data(), iq.data(), n, beams,
                                           firstEcho, 5e-4f, 20000, &limits, qualityThreshold,
                                           reset, &firstBeamPending, work.work()};
        kvane::detectBeamCandidates(&args, slots.data(), gateTable.data());
    }
    const kvane::EchoCandidate& slot(int beam, int p) const { return records[beam * 6 + p]; }
};

TEST(DetectBeamCandidates, EchoIsFoundWhereItIs) {
    // Steep beam: phase always preferred. Near nadir with no phase crossing:
    // amplitude.
    SyntheticPing ping(3000, {50.0f, 10.0f});
    ping.addEcho(0, 1800.0f, 25.0f, 1000.0f, true);
    ping.addEcho(1, 1400.0f, 25.0f, 1000.0f, false);
    ping.run(400);
    const kvane::EchoCandidate& steep = ping.slot(0, 0);
    EXPECT_EQ(steep.method, 1);
    // Beam sample + 2: one from firstSample, one from the detector's rounding.
    EXPECT_NEAR(steep.detectionSample, 1802, 1);
    EXPECT_EQ(steep.rawDetectionSample, steep.detectionSample);
    EXPECT_TRUE(steep.gateStart <= 1800 && steep.gateEnd >= 1800);
    const kvane::EchoCandidate& nadir = ping.slot(1, 0);
    EXPECT_EQ(nadir.method, 2);
    EXPECT_NEAR(nadir.detectionSample, 1401, 2);  // halving point, beam sample + 1
    // The gate reaches the 14 dB points (1.8 widths), widened by smoothing.
    EXPECT_TRUE(nadir.gateStart < 1400 - 30 && nadir.gateStart > 1400 - 120) << nadir.gateStart;
    EXPECT_TRUE(nadir.gateEnd > 1400 + 30 && nadir.gateEnd < 1400 + 120) << nadir.gateEnd;
    for (int b = 0; b < 2; ++b)
        for (int p = 1; p < 6; ++p) EXPECT_EQ(ping.slot(b, p).detectionSample, 0);
    // A threshold no fit reaches keeps only the raw phase detection.
    ping.run(400, 2.0f);
    EXPECT_EQ(ping.slot(0, 0).detectionSample, 0);
    EXPECT_EQ(ping.slot(0, 0).level, -200.0f);
    EXPECT_NEAR(ping.slot(0, 0).rawDetectionSample, 1802, 1);

    // Six highest echoes of eight, highest first.
    SyntheticPing many(3000, {30.0f});
    for (int e = 0; e < 8; ++e) many.addEcho(0, 700.0f + 280.0f * e, 12.0f, 100.0f + 50.0f * e, false);
    many.run(400);
    for (int p = 0; p < 6; ++p) {
        EXPECT_EQ(many.slot(0, p).method, 2);
        EXPECT_NEAR(many.slot(0, p).detectionSample, 2660 - 280 * p + 1, 2) << p;
    }
}

TEST(DetectBeamCandidates, GatesHideTheEnvelopeOutside) {
    // What the detection sees of a beam: zero outside its gate, the gate's
    // end excluded, whatever part of the beam is read.
    std::vector<float> row(100);
    for (int i = 0; i < 100; ++i) row[i] = static_cast<float>(i + 1);
    auto seen = [&](int from, int count, int keepFrom, int keepTo) {
        std::vector<float> out(count, -1.0f);
        kvane::gatedEnvelope(out.data(), row.data(), from, count, keepFrom, keepTo);
        return out;
    };
    EXPECT_EQ(seen(10, 6, 12, 14), (std::vector<float>{0, 0, 13, 14, 0, 0}));
    EXPECT_EQ(seen(10, 3, 0, 100), (std::vector<float>{11, 12, 13}));
    EXPECT_EQ(seen(10, 3, 20, 30), (std::vector<float>{0, 0, 0}));
    EXPECT_EQ(seen(10, 3, 5, 11), (std::vector<float>{11, 0, 0}));
    EXPECT_EQ(seen(10, 3, 12, 11), (std::vector<float>{0, 0, 0}));  // an empty gate

    // Depth window 30..60 m at 1500 m/s: samples 800..1599 straight down,
    // twice that at 60 degrees. A strong echo outside the window is not
    // seen, a weak one inside is; the envelope itself stays as it was.
    SyntheticPing ping(4000, {0.0f, 60.0f});
    ping.addEcho(0, 600.0f, 12.0f, 5000.0f, false);
    ping.addEcho(0, 1200.0f, 12.0f, 100.0f, false);
    ping.addEcho(1, 1500.0f, 12.0f, 5000.0f, true);
    ping.addEcho(1, 2400.0f, 12.0f, 100.0f, true);
    const std::vector<float> before = ping.envelope;
    ping.limits = kvane::DetectionLimits{0, 3999, 30, 60, 1500.0f, 2};
    ping.run(400);
    EXPECT_EQ(ping.envelope, before);
    EXPECT_NEAR(ping.slot(0, 0).detectionSample, 1201, 2);
    EXPECT_NEAR(ping.slot(1, 0).rawDetectionSample, 2402, 2);
    for (int b = 0; b < 2; ++b)
        for (int p = 0; p < 6; ++p) {
            const int32_t at = ping.slot(b, p).rawDetectionSample;
            EXPECT_TRUE(at == 0 || (at > 800 * (b + 1) && at <= 1600 * (b + 1))) << b << " " << p;
        }

    // Table gates 10..10 hide whole beams; the pending flag opens beam 0 of
    // the first ping only (a ping without beams keeps it), a changed fan every
    // beam of its ping.
    SyntheticPing first(2000, {0.0f, 0.0f});
    for (int b = 0; b < 2; ++b) first.addEcho(b, 1000.0f, 12.0f, 1000.0f, false);
    first.gateTable.assign(512, 10);
    first.firstBeamPending = 1;
    first.beams = 0;
    first.run(400);
    EXPECT_EQ(first.firstBeamPending, 1);
    first.beams = 2;
    first.run(400);
    EXPECT_EQ(first.firstBeamPending, 0);
    EXPECT_NEAR(first.slot(0, 0).detectionSample, 1001, 2);
    EXPECT_EQ(first.slot(1, 0).detectionSample, 0);
    first.run(400, 0.5f, 1);
    EXPECT_NEAR(first.slot(1, 0).detectionSample, 1001, 2);
}

TEST(DetectBeamCandidates, NaNPhaseLeavesAmplitudeWhileNaNEnvelopesAndTinyBeamsGiveNone) {
    // NaN envelopes and phases (a NaN parameter makes them) and a beam shorter
    // than the detector's margins.
    SyntheticPing nanEnvelope(300, {0.0f, 80.0f});
    std::fill(nanEnvelope.envelope.begin(), nanEnvelope.envelope.end(), NAN);
    nanEnvelope.run(-5, 0.5f, 1);
    EXPECT_EQ(nanEnvelope.slot(0, 0).detectionSample, 0);
    SyntheticPing nanPhase(3000, {10.0f});
    nanPhase.addEcho(0, 1400.0f, 25.0f, 1000.0f, false);
    std::fill(nanPhase.iq.begin(), nanPhase.iq.end(), cfloat{NAN, NAN});
    nanPhase.run(400);
    EXPECT_NEAR(nanPhase.slot(0, 0).detectionSample, 1401, 2);  // amplitude still stands
    SyntheticPing tiny(12, {0.0f});
    tiny.addEcho(0, 11.0f, 1.0f, 5.0f, true);
    tiny.run(0, 0.5f, 1);
    EXPECT_EQ(tiny.slot(0, 0).detectionSample, 0);
}

}  // namespace
