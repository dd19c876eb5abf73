// test_tracker.cpp - the across-swath tracker of shallow water.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "frontend/frontend.h"

using namespace kvane;

namespace {

constexpr int kB = 256;
constexpr int kHalf = kB / 2;

struct Swath {
    std::vector<float> angles = std::vector<float>(kB, 0.0f);
    std::vector<int32_t> table = std::vector<int32_t>(kB * 6, 1);  // 1: empty slot
    std::vector<float> history = std::vector<float>(3 * kB, 0.0f);  // newest ping in row 2
    int32_t centre[2] = {0, 0};
    std::vector<int32_t> tracked = std::vector<int32_t>(kB, -1);
    std::vector<uint8_t> flag = std::vector<uint8_t>(kB, 9);

    // angles over +-65 degrees, or all at nadir
    explicit Swath(bool fan) {
        if (fan)
            for (int b = 0; b < kB; ++b) angles[b] = -65.0f + 130.0f * b / (kB - 1);
    }
    // the range to a bottom `depth` samples below the array
    int32_t range(int b, double depth) const {
        return static_cast<int32_t>(std::lround(depth / std::cos(angles[b] / 57.29578)));
    }
    // first candidate of beams [from, to] at `depth`
    void level(int from, int to, double depth) {
        for (int b = from; b <= to; ++b) table[b * 6] = range(b, depth);
    }
    void raw(float firstEcho) {
        trackRawSoundings(table.data(), kB, centre, firstEcho, angles.data(), 0.0f, tracked.data(),
                          history.data(), flag.data());
    }
    void detected(float firstEcho) {
        trackDetectedSoundings(table.data(), kB, centre, firstEcho, angles.data(), 0.0f,
                               tracked.data(), history.data(), flag.data());
    }
};

}  // namespace

TEST(Tracker, FlatBottomIsKeptByBothWalkers) {
    Swath s(true);
    s.level(0, kB - 1, 80.0);
    for (int b = 0; b < kB; ++b) s.table[b * 6 + 2] = s.range(b, 160.0);  // a second bounce
    for (int pass = 0; pass < 2; ++pass) {
        pass == 0 ? s.raw(80.0f) : s.detected(80.0f);
        for (int b = 0; b < kB; ++b) {
            EXPECT_EQ(s.tracked[b], s.table[b * 6]) << b;
            EXPECT_EQ(s.flag[b], 1) << b;
        }
    }
}

TEST(Tracker, StepsNeedConfirmationAndAreCappedAt25Percent) {
    // 30 percent deeper from beam 160 on, confirmed by every later beam:
    // rejected all the same, and the rejected beams are cleared.
    Swath deep(true);
    deep.level(0, 159, 1000.0);
    deep.level(160, kB - 1, 1300.0);
    deep.detected(1000.0f);
    for (int b = 0; b < kB; ++b) {
        EXPECT_EQ(deep.tracked[b], b < 160 ? deep.table[b * 6] : 0) << b;
        EXPECT_EQ(deep.flag[b], b < 160 ? 1 : 2) << b;
    }

    // 10 percent deeper over `length` beams from `first`: believed when at
    // least four of the eight rows looked at agree and at most one does not.
    auto tenPercent = [](int first, int length) {
        Swath s(true);
        s.level(0, kB - 1, 1000.0);
        s.level(first, first + length - 1, 1100.0);
        s.detected(1000.0f);
        return s;
    };
    for (int length : {6, 7}) {
        const Swath s = tenPercent(200, length);
        for (int b = 200; b < 200 + length; ++b) {
            EXPECT_EQ(s.flag[b], length == 7 ? 1 : 2) << length << " " << b;
            EXPECT_EQ(s.tracked[b], length == 7 ? s.table[b * 6] : 0);
        }
        EXPECT_EQ(s.tracked[210], s.table[210 * 6]);
    }
    // at the outer ends the look-ahead runs out: four rows confirm, three do not
    for (int length : {3, 4}) {
        const Swath starboard = tenPercent(kB - length, length);
        const Swath port = tenPercent(0, length);
        for (int k = 0; k < length; ++k) {
            EXPECT_EQ(starboard.flag[kB - 1 - k], length == 4 ? 1 : 2) << length;
            EXPECT_EQ(port.flag[k], length == 4 ? 1 : 2) << length;
        }
    }
}

TEST(Tracker, SeedFromTheCausalMedianOrTheLastPing) {
    // Port half at 80, starboard at 120. The first echo (20) is far from
    // every candidate, so each half starts at its seed. The causal median at
    // the centre sees 20 beams of 80 and one of 120.
    auto run = [](int32_t lastPort, int32_t lastStarboard) {
        Swath s(false);
        s.level(0, kHalf - 1, 80.0);
        s.level(kHalf, kB - 1, 120.0);
        s.centre[0] = lastPort;
        s.centre[1] = lastStarboard;
        s.raw(20.0f);
        return std::make_pair(s.tracked[kHalf - 1], s.tracked[kHalf]);
    };
    EXPECT_EQ(run(0, 0), std::make_pair(80, 80));
    EXPECT_EQ(run(90, 90), std::make_pair(80, 80));   // within 20 percent: the median stays
    EXPECT_EQ(run(0, 100), std::make_pair(80, 100));  // 25 percent off: the last ping wins
}

TEST(Tracker, DoubtfulBeamsLookAheadAndAtTheHistory) {
    // At nadir, with every slot of a beam holding the same detection.
    auto swath = [](int from, int to, int historyAt, float historyValue) {
        Swath s(false);
        for (int b = 0; b < kB; ++b)
            for (int c = 0; c < 6; ++c) s.table[b * 6 + c] = (b >= from && b <= to) ? 200 : 100;
        s.history[2 * kB + historyAt] = historyValue;
        s.raw(100.0f);
        return s.tracked;
    };
    // a short stray stretch takes the nearest of the 20 rows ahead
    std::vector<int32_t> t = swath(200, 202, 0, 0.0f);
    for (int b = 199; b <= 203; ++b) EXPECT_EQ(t[b], 100) << b;
    // A real step: the last ping had the old level, so the first beam of the
    // step keeps it; the spread learnt there lets the next beams through.
    t = swath(200, kB - 1, 200, 100.0f);
    EXPECT_EQ(t[200], 100);
    EXPECT_EQ(t[201], 200);
    // the same at both outer ends, where only the beam's own row is ahead
    for (int end : {0, kB - 1}) {
        EXPECT_EQ(swath(end, end, end, 100.0f)[end], 100) << end;
        EXPECT_EQ(swath(end, end, end, 0.0f)[end], 200) << end;
    }
    // history (nearest of {0, 0, 300} is 0) and look-ahead equally far: the look-ahead wins
    EXPECT_EQ(swath(200, kB - 1, 200, 300.0f)[200], 200);
}
