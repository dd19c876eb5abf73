// findDropPoints.cpp - where the envelope on one side of a peak has fallen by
// given amounts of decibels.
#include <cmath>
#include <cstring>

#include "detect.h"

namespace kvane {
namespace {

// The ratio of each level, 10^(dB / 20), kept per thread for the last set of
// levels asked for: a ping asks for the same five for every side of every
// peak.
struct DropRatios {
    float db[kDropCount];
    float ratio[kDropCount];
    bool valid = false;
};

const float* dropRatios(const float* dropsDb) {
    thread_local DropRatios cache;
    bool same = cache.valid;
    for (int k = 0; k < kDropCount && same; ++k)
        same = std::memcmp(&cache.db[k], &dropsDb[k], sizeof(float)) == 0;
    if (!same) {
        for (int k = 0; k < kDropCount; ++k) {
            cache.db[k] = dropsDb[k];
            cache.ratio[k] = std::pow(10.0f, dropsDb[k] / 20.0f);
        }
        cache.valid = true;
    }
    return cache.ratio;
}

}  // namespace

void findDropPoints(int32_t* out, const float* x, int n, const float* dropsDb, int peakIndex,
                    int side) {
    if (side != 1 && side != 2) return;
    if (n < 1) {
        // No samples: every level is reached n = 0 samples from the peak.
        for (int k = 0; k < kDropCount; ++k) out[k] = peakIndex;
        return;
    }
    const float m = mean(x, n);
    const float* ratio = dropRatios(dropsDb);
    const float peak = side == 1 ? x[n - 1] : x[0];
    // A crossing at or above the side's mean does not stand alone: it is
    // combined with a further crossing and with the point where the side meets
    // its mean. The further crossing found for one level is kept for the next
    // levels that do not search again.
    int second = -1;

    if (side == 1) {
        int meanDist = -1;
        for (int i = n - 1; i >= 0; --i)
            if (x[i] <= m) {
                meanDist = n - i;
                break;
            }
        for (int k = 0; k < kDropCount; ++k) {
            const float thr = peak / ratio[k];
            int i = n - 1;
            while (i >= 0 && !(x[i] <= thr)) --i;
            if (i < 0) {
                out[k] = n;
                continue;
            }
            const int dist = n - i;
            if (x[i] < m) {
                out[k] = dist;
                continue;
            }
            // The second search runs over forward indices from n - 2 down to
            // dist + 2, although dist counts back from the peak: the rule of
            // this detector.
            if (dist + 2 < n - 1) {
                second = -1;
                for (int j = n - 2; j >= dist + 2; --j)
                    if (x[j] <= thr) {
                        second = n - 1 - j;
                        break;
                    }
            }
            const int candidate = second == -1 ? dist : second + dist + 3;
            if (meanDist == -1)
                out[k] = candidate;
            else if (candidate > meanDist)
                out[k] = meanDist + 1;
            else
                out[k] = static_cast<int32_t>(0.5 * (meanDist + candidate + 1) + 0.5);
        }
        for (int k = 0; k < kDropCount; ++k) out[k] = peakIndex - out[k];
        return;
    }

    int meanIdx = -1;
    for (int i = 0; i < n; ++i)
        if (x[i] <= m) {
            meanIdx = i;
            break;
        }
    for (int k = 0; k < kDropCount; ++k) {
        const float thr = peak / ratio[k];
        int i = 0;
        while (i < n && !(x[i] <= thr)) ++i;
        if (i == n) {
            out[k] = n;
            continue;
        }
        if (x[i] < m) {
            out[k] = i;
            continue;
        }
        if (i + 2 < n - 1) {
            second = -1;
            for (int t = 0; t <= n - i - 4; ++t)
                if (x[i + 2 + t] <= thr) {
                    second = t;
                    break;
                }
        }
        const int candidate = second == -1 ? i : i + second + 3;
        // The right side stops at the mean point itself, the left side one
        // beyond it: the two sides differ by one here, as they should.
        if (meanIdx == -1)
            out[k] = candidate;
        else if (candidate > meanIdx)
            out[k] = meanIdx;
        else
            out[k] = static_cast<int32_t>(0.5 * (meanIdx + candidate + 1) + 0.5);
    }
    for (int k = 0; k < kDropCount; ++k) out[k] = out[k] + peakIndex;
}

}  // namespace kvane
