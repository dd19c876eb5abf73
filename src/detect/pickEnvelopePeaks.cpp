// pickEnvelopePeaks.cpp - echo peaks of one smoothed beam envelope.
#include <algorithm>
#include <cmath>

#include <immintrin.h>

#include "detect.h"

namespace kvane {
namespace {

// The local maxima j = i + 1 for i in from..to (slope into j not falling,
// slope out of it falling), in ascending order: all of them are counted, and
// those above the threshold (isAbove) appended to kept. Returns the count.
template <typename Above>
int collectMaxima(int32_t* kept, int* keptCount, const float* v, int from, int to, Above isAbove) {
    int maxima = 0;
    for (int i = from; i <= to; ++i) {
        const bool peak = (v[i + 1] - v[i] >= 0.0f) & (v[i + 2] - v[i + 1] < 0.0f);
        maxima += static_cast<int>(peak);
        kept[*keptCount] = i + 1;
        *keptCount += static_cast<int>(peak && isAbove(i + 1));
    }
    return maxima;
}

// The same eight samples at a time: the slopes and comparisons of each
// sample as above, the maxima taken from the bits of the masks.
KVANE_AVX2 int collectMaximaAvx2(int32_t* kept, int* keptCount, const float* v, int from, int to,
                                 float threshold, int tieCut) {
    int maxima = 0;
    int i = from;
    const __m256 zero = _mm256_setzero_ps();
    const __m256 level = _mm256_set1_ps(threshold);
    const __m256i lanes = _mm256_setr_epi32(1, 2, 3, 4, 5, 6, 7, 8);
    const __m256i cut = _mm256_set1_epi32(tieCut);
    for (; i + 7 <= to; i += 8) {
        const __m256 a = _mm256_loadu_ps(v + i);
        const __m256 b = _mm256_loadu_ps(v + i + 1);
        const __m256 c = _mm256_loadu_ps(v + i + 2);
        const __m256 peak = _mm256_and_ps(_mm256_cmp_ps(_mm256_sub_ps(b, a), zero, _CMP_GE_OQ),
                                          _mm256_cmp_ps(_mm256_sub_ps(c, b), zero, _CMP_LT_OQ));
        // Above: over the threshold, or on it from index tieCut on.
        const __m256i index = _mm256_add_epi32(_mm256_set1_epi32(i), lanes);
        const __m256 fromCut = _mm256_castsi256_ps(
            _mm256_cmpgt_epi32(index, _mm256_sub_epi32(cut, _mm256_set1_epi32(1))));
        const __m256 above = _mm256_or_ps(_mm256_cmp_ps(b, level, _CMP_GT_OQ),
                                          _mm256_and_ps(_mm256_cmp_ps(b, level, _CMP_EQ_OQ), fromCut));
        const unsigned all = static_cast<unsigned>(_mm256_movemask_ps(peak));
        unsigned keep = static_cast<unsigned>(_mm256_movemask_ps(_mm256_and_ps(peak, above)));
        maxima += __builtin_popcount(all);
        while (keep != 0) {
            kept[(*keptCount)++] = i + 1 + __builtin_ctz(keep);
            keep &= keep - 1;
        }
    }
    auto isAbove = [&](int j) { return v[j] > threshold || (v[j] == threshold && j >= tieCut); };
    return maxima + collectMaxima(kept, keptCount, v, i, to, isAbove);
}

// The eight lanes' extremes below in registers (min(x, low) keeps low unless
// x < low, max likewise); 1 when a NaN was met, else 0.
KVANE_AVX2 int laneExtremesAvx2(float* lowLane, float* highLane, const float* y, int whole) {
    __m256 low = _mm256_loadu_ps(lowLane);
    __m256 high = _mm256_loadu_ps(highLane);
    __m256 unordered = _mm256_setzero_ps();
    for (int i = 0; i < whole; i += 8) {
        const __m256 x = _mm256_loadu_ps(y + i);
        unordered = _mm256_or_ps(unordered, _mm256_cmp_ps(x, x, _CMP_UNORD_Q));
        low = _mm256_min_ps(x, low);
        high = _mm256_max_ps(x, high);
    }
    _mm256_storeu_ps(lowLane, low);
    _mm256_storeu_ps(highLane, high);
    return _mm256_movemask_ps(unordered) != 0 ? 1 : 0;
}

template <bool Wide>
KVANE_LOOP_BODY int pickPeaks(int32_t* peaks, int maxPeaks, const float* y, int n, int minDistance,
                     float* levels, int32_t* order) {
    if (n < 2 || maxPeaks < 1) return 0;

    // Normalise to 0..1. A NaN or an infinity leaves no usable scale, and a
    // flat envelope none at all: such a beam has no peaks.
    // Eight independent lanes: the extremes do not depend on the order of the
    // comparisons once NaN is ruled out.
    float lowLane[8], highLane[8];
    for (int k = 0; k < 8; ++k) lowLane[k] = highLane[k] = y[0];
    int nanCount = 0;
    const int whole = n - n % 8;
    if constexpr (Wide) {
        nanCount = laneExtremesAvx2(lowLane, highLane, y, whole);
    } else {
        for (int i = 0; i < whole; i += 8)
            for (int k = 0; k < 8; ++k) {
                const float x = y[i + k];
                nanCount += x != x;
                lowLane[k] = x < lowLane[k] ? x : lowLane[k];
                highLane[k] = x > highLane[k] ? x : highLane[k];
            }
    }
    for (int i = whole; i < n; ++i) {
        const float x = y[i];
        nanCount += x != x;
        lowLane[0] = x < lowLane[0] ? x : lowLane[0];
        highLane[0] = x > highLane[0] ? x : highLane[0];
    }
    if (nanCount != 0) return 0;
    float lowest = lowLane[0];
    float highest = highLane[0];
    for (int k = 1; k < 8; ++k) {
        lowest = std::min(lowest, lowLane[k]);
        highest = std::max(highest, highLane[k]);
    }
    const float range = std::fabs(lowest - highest);
    if (range == 0.0f || !std::isfinite(range)) return 0;
    // (min - y) scaled by the reciprocal of the largest magnitude, then made
    // positive: the value of a division by a constant in this system.
    const float scale = 1.0f / range;
    // The mapping is monotonic in y, so the highest level is that of the
    // highest sample.
    const float top = std::fabs((lowest - highest) * scale);
    const float threshold = 0.2f * top;
    minDistance = std::min(minDistance, n - 1);

    // The samples above the threshold are found by a binary search for the
    // threshold in the ascending order of v. The outcome of every probe depends
    // only on the rank probed: rank r holds a value below the threshold when
    // r < below, equal when below <= r < atMost, above otherwise. So the search
    // runs on the ranks alone, without sorting.
    // The levels and the counts in one pass.
    float* v = levels;
    int below = 0;
    int atMost = 0;
    for (int i = 0; i < n; ++i) {
        const float level = std::fabs((lowest - y[i]) * scale);
        v[i] = level;
        below += level < threshold;
        atMost += level <= threshold;
    }
    int lo = 0;
    int hi = n - 1;
    int position = -1;
    while (lo <= hi) {
        const int mid = (lo + hi) / 2;
        if (mid >= atMost) {
            hi = mid - 1;
        } else if (mid < below) {
            lo = mid + 1;
        } else {
            position = mid;
            break;
        }
    }
    if (position < 0) {
        if (hi == n - 1) return 0;
        position = lo;
    }
    // Samples equal to the threshold sit in ascending index order within the
    // sorted copy (a stable sort); those ranked below the found position are
    // not "above". The first skipTies of them, by index, drop out: ties from
    // index tieCut on count as above.
    const int skipTies = std::max(0, position - below);
    int tieCut = 0;
    if (skipTies > 0) {
        int seen = 0;
        for (int i = 0; i < n && seen <= skipTies; ++i)
            if (v[i] == threshold) {
                tieCut = i;
                ++seen;
            }
        if (seen <= skipTies) tieCut = n;
    }
    auto isAbove = [&](int i) { return v[i] > threshold || (v[i] == threshold && i >= tieCut); };

    // Local maxima from the slopes d[i] = v[i + 1] - v[i], in ascending index
    // order, and of them those above the threshold (written unconditionally
    // and kept by the count: noisy envelopes defeat branch prediction).
    int maxima = 0;
    int found = 0;
    auto take = [&](int index) {
        ++maxima;
        order[found] = index;
        found += static_cast<int>(isAbove(index));
    };
    if (n == 2) {
        take(0);
    } else {
        int s = 0;
        // The first maximum of a falling start is index 1, not 0: the rule of
        // this detector, even though sample 1 is lower than sample 0.
        if (v[1] - v[0] < 0.0f) {
            take(1);
            s = 1;
        }
        if constexpr (Wide)
            maxima += collectMaximaAvx2(order, &found, v, s, n - 4, threshold, tieCut);
        else
            maxima += collectMaxima(order, &found, v, s, n - 4, isAbove);
        // Only the slope before last is looked at: a rise into the last sample
        // makes no peak there.
        const int e = std::max(s, n - 3);
        if (v[e + 1] - v[e] > 0.0f) take(e + 1);
    }
    if (maxima == 0) return 0;

    // Maxima that are also above the threshold; if there are none, the
    // largest index above the threshold stands in.
    int count = found;
    if (count == 0) {
        int largest = n - 1;
        while (largest >= 0 && !isAbove(largest)) --largest;
        if (largest < 0) return 0;
        order[count++] = largest;
    }

    // Highest first, equal heights in ascending index order, then distance
    // thinning: a peak survives unless it lies within minDistance of a higher
    // survivor (survivors never remove each other). The order is drawn from a
    // heap, so only the part up to the last survivor needed is ever ordered.
    auto lower = [v](int32_t a, int32_t b) { return v[a] < v[b] || (v[a] == v[b] && a > b); };
    std::make_heap(order, order + count, lower);
    int kept = 0;
    for (int heapSize = count; heapSize > 0 && kept < maxPeaks; --heapSize) {
        std::pop_heap(order, order + heapSize, lower);
        const int32_t candidate = order[heapSize - 1];
        bool removed = false;
        for (int k = 0; k < kept; ++k) {
            const int64_t gap = static_cast<int64_t>(candidate) - peaks[k];
            if (gap >= -static_cast<int64_t>(minDistance) && gap <= minDistance) {
                removed = true;
                break;
            }
        }
        if (!removed) peaks[kept++] = candidate;
    }
    return kept;
}

KVANE_AVX2 int pickPeaksAvx2(int32_t* peaks, int maxPeaks, const float* y, int n,
                             int minDistance, float* levels, int32_t* order) {
    return pickPeaks<true>(peaks, maxPeaks, y, n, minDistance, levels, order);
}

}  // namespace

int pickEnvelopePeaks(int32_t* peaks, int maxPeaks, const float* y, int n, int minDistance,
                      float* levels, int32_t* order) {
    if (cpuHasAvx2()) return pickPeaksAvx2(peaks, maxPeaks, y, n, minDistance, levels, order);
    return pickPeaks<false>(peaks, maxPeaks, y, n, minDistance, levels, order);
}

}  // namespace kvane
