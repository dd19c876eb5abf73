// bridgeSegmentGaps.cpp - turns the smooth runs of the bottom trace into one
// continuous curve: neighbouring runs that continue each other are merged and
// their gap filled from the six candidate rows; then a chain is grown from the
// longest near-port run, its gaps checked against the chord, and the curve is
// carried on to the end of the fan.
#include <algorithm>
#include <cmath>

#include "backend.h"

namespace kvane {

namespace {

constexpr int kSlots = 256;
constexpr int kRows = 6;
constexpr int kMatrix = 1536;
constexpr int kBridgeRowOffset = 256;  // bridging reads rows at 256, not at beamCount
constexpr double kCandidateFloor = 0.01;

// Largest of six values and the first index that holds it. A NaN angle is
// never the largest: it is passed over, and only six NaNs give NaN (index 0).
int maxIndex6(const float* v, float* value) {
    int best = 0;
    float top = v[0];
    for (int c = 1; c < kRows; ++c) {
        if (v[c] > top || (std::isnan(top) && !std::isnan(v[c]))) {
            top = v[c];
            best = c;
        }
    }
    *value = top;
    return best;
}

void normalise(float* yAll, const float* candidates, float sampleCount) {
    const float inv = 1.0f / sampleCount;
    for (int i = 0; i < kMatrix; ++i) yAll[i] = candidates[i] * inv;
}

bool aboveFloor(float y) { return static_cast<double>(y) > kCandidateFloor; }

}  // namespace

void bridgeSegmentGaps(const float* candidates, float beamCount, float sampleCount,
                       float* segmentStart, float* segmentEnd, int32_t* segmentCount,
                       float* bottomSample) {
    (void)beamCount;  // rows are read at the fixed offset of 256
    const int n = std::clamp(*segmentCount, 0, kSlots);

    float w[kSlots];
    for (int i = 0; i < n; ++i) w[i] = segmentEnd[i] - segmentStart[i];
    float yAll[kMatrix];
    normalise(yAll, candidates, sampleCount);
    const float* y0 = yAll;  // row 0

    float newStart[kSlots];
    float newEnd[kSlots];
    newEnd[0] = segmentEnd[0];
    newStart[0] = segmentStart[0];
    int m = 0;

    for (int i = 0; i + 1 < n; ++i) {
        const float e = segmentEnd[i];
        const float s = segmentStart[i + 1];
        int a;
        if (w[i] > 10.0f)
            a = lineSlot(e - 10.0f + 1.0f);  // nine beams before the end
        else if (w[i] == 0.0f)
            a = lineSlot(e - 1.0f);
        else
            a = lineSlot(segmentStart[i]);
        const int eb = lineSlot(e);
        const int sb = lineSlot(s);
        const PlanePoint L{fanX(a), y0[a]};
        const PlanePoint E{fanX(eb), y0[eb]};
        const PlanePoint S{fanX(sb), y0[sb]};

        const bool merge = vertexAngle(L, E, S) > 150.0f && s - e < 80.0f &&
                           0.05 * static_cast<double>(E.y) > static_cast<double>(std::fabs(E.y - S.y));
        if (merge) {
            newEnd[m] = segmentEnd[i + 1];
            for (int k = lineSlot(e + 1.0f); static_cast<float>(k) < s && k < kSlots; ++k) {
                float ang[kRows];
                for (int c = 0; c < kRows; ++c) {
                    const float r = yAll[c * kBridgeRowOffset + k];
                    ang[c] = aboveFloor(r) ? vertexAngle(L, {fanX(k), r}, S) : 0.0f;
                }
                float best;
                const int c = maxIndex6(ang, &best);
                if (best > 120.0f) bottomSample[k] = candidates[c * kBridgeRowOffset + k];
            }
        } else {
            newEnd[m] = e;
            ++m;
            newStart[m] = s;
            if (i == n - 2) newEnd[m] = segmentEnd[i + 1];
        }
    }

    // n of 0 or 1 reports one run: slot 0 as it stands
    *segmentCount = m + 1;
    for (int i = 0; i <= m; ++i) {
        segmentEnd[i] = newEnd[i];
        segmentStart[i] = newStart[i];
    }
}

void extendBottomChain(const float* candidates, float beamCount, float sampleCount,
                       float* segmentStart, float* segmentEnd, int32_t* segmentCount,
                       float* bottomSample) {
    const int B = lineBeamCount(beamCount);
    // an empty list still has its slot 0, the pair (0, 0)
    const int n = std::clamp(*segmentCount, 1, kSlots);

    float w[kSlots];
    for (int i = 0; i < n; ++i) w[i] = segmentEnd[i] - segmentStart[i] + 1.0f;
    float yAll[kMatrix];
    normalise(yAll, candidates, sampleCount);
    float y[kSlots] = {};
    const float inv = 1.0f / sampleCount;
    for (int j = 0; j < B; ++j) y[j] = bottomSample[j] * inv;

    // Seed: the longest run among the first half of those that start at or
    // before the centre beam.
    int p = n;
    for (int i = 0; i < n; ++i) {
        if (segmentStart[i] > 128.0f) {
            p = i + 1;
            break;
        }
    }
    int seed = 0;
    if (p > 2)
        for (int i = 1; i < p / 2; ++i)
            if (w[i] > w[seed]) seed = i;

    float fwd[kSlots] = {};  // replacement by direction from the run's end
    float alt[kSlots] = {};  // replacement by the chord to the next run

    // Holes inside a run are bridged linearly for the geometry only;
    // bottomSample keeps them.
    float y2[kSlots];
    std::copy(y, y + kSlots, y2);
    for (int i = 0; i < n; ++i) {
        if (!(w[i] > 1.0f)) continue;
        const int from = lineSlot(segmentStart[i]);
        const int to = lineSlot(segmentEnd[i]);
        float X[kSlots];
        float V[kSlots];
        int count = 0;
        for (int b = from; b <= to; ++b) {
            if (aboveFloor(y[b])) {
                X[count] = static_cast<float>(b);
                V[count] = y[b];
                ++count;
            }
        }
        if (count < 2) continue;
        // Each position takes the first interval whose right end lies past
        // it; as positions and ends both ascend, that interval is found by a
        // cursor that only moves on.
        int q = 0;
        for (int t = from; t <= to; ++t) {
            const float ft = static_cast<float>(t);
            while (q + 1 < count && !(X[q + 1] > ft)) ++q;
            if (q + 1 >= count) break;
            y2[t] = V[q] + (V[q + 1] - V[q]) / (X[q + 1] - X[q]) * (ft - X[q]);
        }
    }
    std::copy(y2, y2 + kSlots, y);

    auto at = [&y](int b) { return PlanePoint{fanX(b), y[b]}; };
    // the beam before e; at e = 0 it does not exist and is taken as e itself
    auto before = [](int e) { return e > 0 ? e - 1 : e; };

    int e = lineSlot(segmentEnd[seed]);
    PlanePoint L = at(w[seed] > 10.0f ? lineSlot(segmentEnd[seed] - 10.0f + 1.0f)
                                      : lineSlot(segmentStart[seed]));
    PlanePoint E = at(e);
    int newStart[kSlots];
    int newEnd[kSlots];
    newEnd[0] = e;
    newStart[0] = lineSlot(segmentStart[seed]);
    int m = 0;

    for (int i = seed + 1; i < n; ++i) {
        const float s = segmentStart[i];
        if (s - static_cast<float>(e) > 80.0f) break;  // a wider gap ends the chain
        if (w[i] < 3.0f) continue;
        const int sb = lineSlot(s);
        const PlanePoint S = at(sb);
        if (!(vertexAngle(L, E, S) > 130.0f)) continue;
        if (!(0.5 * static_cast<double>(E.y) > static_cast<double>(std::fabs(E.y - S.y)))) continue;

        ++m;
        newEnd[m] = lineSlot(segmentEnd[i]);
        newStart[m] = sb;

        // The gap walk starts from the true end e, not from the anchor E.
        PlanePoint P = at(before(e));
        PlanePoint C = at(e);
        const PlanePoint G = at(e);
        const float ye = y[e];
        const float chordSlope = (S.y - ye) / (fanX(sb) - fanX(e));
        for (int k = e + 1; k < sb; ++k) {
            const float yLine = ye + chordSlope * (fanX(k) - fanX(e));
            float a1[kRows], a2[kRows], d1[kRows], d2[kRows];
            for (int c = 0; c < kRows; ++c) {
                const float r = yAll[k + c * B];
                if (aboveFloor(r)) {
                    const PlanePoint X{fanX(k), r};
                    a1[c] = vertexAngle(P, C, X);
                    a2[c] = vertexAngle(G, X, S);
                    d1[c] = std::fabs(C.y - P.y);
                    d2[c] = std::fabs(C.y - r);
                } else {
                    a1[c] = a2[c] = d1[c] = d2[c] = 0.0f;
                }
            }
            // a sounding far below the chord goes even without a replacement
            if (static_cast<double>(bottomSample[k]) > 1.4 * static_cast<double>(yLine * sampleCount))
                bottomSample[k] = 0.0f;

            const float stepFloor = 10.0f / sampleCount;
            float best1;
            const int c1 = maxIndex6(a1, &best1);
            const float r1 = yAll[k + c1 * B];
            if (best1 > 140.0f && 5.0f * (stepFloor + d1[c1]) > d2[c1] &&
                0.3f * yLine > std::fabs(r1 - yLine)) {
                fwd[k] = candidates[k + c1 * B];
                P = C;
                C = PlanePoint{fanX(k), r1};
            }
            float best2;
            const int c2 = maxIndex6(a2, &best2);
            const float r2 = yAll[k + c2 * B];
            if (best2 > 160.0f && 5.0f * (stepFloor + d1[c2]) > d2[c2] &&
                0.3f * yLine > std::fabs(r2 - yLine))
                alt[k] = candidates[k + c2 * B];
        }

        e = lineSlot(segmentEnd[i]);
        if (w[i] > 10.0f) {
            L = at(lineSlot(segmentEnd[i] - 10.0f + 1.0f));
            E = at(lineSlot(segmentEnd[i] - 1.0f));  // one beam short of the true end
        } else {
            L = at(lineSlot(segmentStart[i]));
            E = at(e);
        }
    }

    *segmentCount = m + 1;
    for (int i = 0; i <= m; ++i) {
        segmentEnd[i] = static_cast<float>(newEnd[i]);
        segmentStart[i] = static_cast<float>(newStart[i]);
    }

    // On to the end of the fan from the last incoming run, chained or not
    // (its slot read after the write-back).
    const int last = lineSlot(segmentEnd[n - 1]);
    if (last + 1 < B) {
        const PlanePoint Pe = at(before(last));
        const PlanePoint Ee = at(last);
        const float d = std::fabs(y[last] - Pe.y);
        for (int k = last + 1; k < B; ++k) {
            float a[kRows], d1[kRows], d2[kRows];
            for (int c = 0; c < kRows; ++c) {
                const float r = yAll[k + c * B];
                if (aboveFloor(r)) {
                    a[c] = vertexAngle(Pe, Ee, {fanX(k), r});
                    d1[c] = d;
                    d2[c] = std::fabs(y[last] - r);
                } else {
                    a[c] = d1[c] = d2[c] = 0.0f;
                }
            }
            float best;
            const int c = maxIndex6(a, &best);
            if (best > 160.0f && 15.0f * (10.0f / sampleCount + d1[c]) > d2[c]) {
                fwd[k] = candidates[k + c * B];
                alt[k] = fwd[k];
            }
        }
    }

    // the chord-based choice wins over the direction-based one
    for (int j = 0; j < B; ++j) {
        if (fwd[j] > 0.0f) bottomSample[j] = fwd[j];
        if (alt[j] > 0.0f) bottomSample[j] = alt[j];
    }
}

}  // namespace kvane
