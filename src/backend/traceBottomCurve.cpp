// traceBottomCurve.cpp - one bottom line across the fan from the six ranked
// candidates of every beam: smooth runs of the first candidates, the ends of
// the fan dropped, gaps bridged, the whole done again on the mirrored fan and
// the two lines merged around the centre beam; then the completion that fills
// empty beams from their inner neighbour.
#include <algorithm>
#include <cmath>

#include "backend.h"

namespace kvane {

namespace {

constexpr int kSlots = 256;      // local lines and segment lists
constexpr int kRows = 6;         // candidate rows
constexpr int kRowOffset = 256;  // row offset of the mirroring (not the matrix stride)
constexpr int kCentre = 128;     // the beam around which the two passes meet
constexpr float kFanEndBeams = 25.0f;

void zeroLine(float* line, int from, int count) {
    from = std::max(from, 0);
    const int to = std::min(from + count, kSlots);
    for (int j = from; j < to; ++j) line[j] = 0.0f;
}

// Blanks runs that end within 25 beams of the port end or start within 25
// beams of the starboard end, with everything outward of them.
void dropFanEnds(float beamCount, float* segmentStart, float* segmentEnd, int32_t segmentCount,
                 float* bottomSample) {
    for (int k = 0; k < segmentCount; ++k) {
        const float e = segmentEnd[k];
        if (e < kFanEndBeams) {
            // also blanks beams of earlier runs: everything up to this end
            zeroLine(bottomSample, 0, lineSlot(e + 1.0f));
            segmentStart[k] = 0.0f;
            segmentEnd[k] = 0.0f;
            continue;
        }
        const float s = segmentStart[k];
        if (s > beamCount - kFanEndBeams) {
            zeroLine(bottomSample, lineSlot(s), static_cast<int>(beamCount - s));
            segmentStart[k] = 0.0f;
            segmentEnd[k] = 0.0f;
        }
    }
}

// Keeps, in order, the runs that were not dropped. An empty list is the pair
// (0, 0) in slot 0: the bridging still reports one run and reads it.
int32_t compactSegments(float* segmentStart, float* segmentEnd, int32_t segmentCount) {
    int32_t kept = 0;
    for (int k = 0; k < segmentCount; ++k) {
        if (segmentStart[k] > 0.0f) {
            segmentStart[kept] = segmentStart[k];
            segmentEnd[kept] = segmentEnd[k];
            ++kept;
        }
    }
    if (kept == 0) {
        segmentStart[0] = 0.0f;
        segmentEnd[0] = 0.0f;
    }
    return kept;
}

}  // namespace

float vertexAngle(PlanePoint p, PlanePoint v, PlanePoint q) {
    const float vpx = p.x - v.x;
    const float vpy = p.y - v.y;
    const float vqx = q.x - v.x;
    const float vqy = q.y - v.y;
    const float pqx = q.x - p.x;
    const float pqy = q.y - p.y;
    const float vp2 = vpx * vpx + vpy * vpy;
    const float vq2 = vqx * vqx + vqy * vqy;
    const float pq2 = pqx * pqx + pqy * pqy;
    // not clamped to [-1, 1]: a cosine rounded past -1 on a straight line is
    // NaN, and the line treats that as "no angle"
    const float cosine = (vp2 + vq2 - pq2) / (2.0f * std::sqrt(vp2) * std::sqrt(vq2));
    return std::acos(cosine) * 180.0f / 3.1415927f;
}

void findSmoothSegments(const float* candidates, float beamCount, float sampleCount,
                        float* segmentStart, float* segmentEnd, int32_t* segmentCount,
                        float* bottomSample) {
    const int B = lineBeamCount(beamCount);
    for (int j = 0; j < B; ++j) bottomSample[j] = candidates[j];

    float angle[kSlots] = {};
    int idx[kSlots];
    float y[kSlots] = {};
    for (int j = 0; j < B; ++j) angle[j] = 180.0f;
    for (int j = 0; j < kSlots; ++j) idx[j] = j;
    const float inv = 1.0f / sampleCount;
    for (int j = 0; j < B; ++j) y[j] = candidates[j] * inv;

    if (B >= 3) {
        for (int j = 1; j <= B - 2; ++j)
            angle[j] = vertexAngle({fanX(j - 1), y[j - 1]}, {fanX(j), y[j]}, {fanX(j + 1), y[j + 1]});
    }
    if (B - 1 > 1) {
        // the slot 255 is fixed: with fewer beams it is not the last beam
        angle[0] = 0.0f;
        angle[kSlots - 1] = 0.0f;
        const double unit = 1.0 / static_cast<double>(sampleCount);
        for (int j = 1; j <= B - 2; ++j) {
            if (static_cast<double>(y[j - 1]) < 0.01 || static_cast<double>(y[j + 1]) < 0.01)
                angle[j] = 0.0f;
            const float l = static_cast<float>(
                std::fabs(static_cast<double>(y[j - 1]) - static_cast<double>(y[j])) + unit);
            const float r = static_cast<float>(
                std::fabs(static_cast<double>(y[j + 1]) - static_cast<double>(y[j])) + unit);
            const float longer = l > r ? l : r;
            const float shorter = l < r ? l : r;
            if (longer / shorter > 5.0f) angle[j] = 0.0f;
            // a NaN angle is not below 120: such a beam stays in its run
            if (angle[j] < 120.0f) {
                idx[j] = 0;
                bottomSample[j] = 0.0f;
            }
        }
    }
    bottomSample[0] = 0.0f;
    bottomSample[kSlots - 1] = 0.0f;

    int32_t starts = 0;
    int32_t ends = 0;
    if (B - 1 > 1) {
        // With fewer than 256 beams, idx[beamCount - 1] is not cleared, so a
        // run that reaches beam beamCount - 2 records a start but no end.
        idx[0] = 0;
        idx[kSlots - 1] = 0;
        for (int j = 1; j <= B - 2; ++j) {
            if (idx[j] > 0 && idx[j - 1] == 0 && starts < kSlots)
                segmentStart[starts++] = static_cast<float>(j);
            if (idx[j] > 0 && idx[j + 1] == 0 && ends < kSlots)
                segmentEnd[ends++] = static_cast<float>(j);
        }
    }
    *segmentCount = ends;
}

void traceBottomCurve(float* candidates, float beamCount, float sampleCount, float* bottomSample) {
    const int B = lineBeamCount(beamCount);

    // A hole in row 0 takes the first later row that holds a candidate.
    for (int r = 1; r < kRows; ++r)
        for (int j = 0; j < B; ++j)
            if (candidates[j] == 1.0f) candidates[j] = candidates[r * B + j];

    float segmentStart[kSlots];
    float segmentEnd[kSlots];
    int32_t segmentCount = 0;
    float P[kSlots] = {};  // the line of the first pass
    float Q[kSlots] = {};  // the line of the mirrored pass, in beam order; 0 from beamCount up
    int first0 = 0;
    int last0 = 0;
    int left1 = 0;
    int right1 = 0;

    for (int pass = 0; pass < 2; ++pass) {
        std::fill(segmentStart, segmentStart + kSlots, 0.0f);
        std::fill(segmentEnd, segmentEnd + kSlots, 0.0f);
        findSmoothSegments(candidates, beamCount, sampleCount, segmentStart, segmentEnd,
                           &segmentCount, bottomSample);
        dropFanEnds(static_cast<float>(B), segmentStart, segmentEnd, segmentCount, bottomSample);
        segmentCount = compactSegments(segmentStart, segmentEnd, segmentCount);
        bridgeSegmentGaps(candidates, beamCount, sampleCount, segmentStart, segmentEnd,
                          &segmentCount, bottomSample);
        extendBottomChain(candidates, beamCount, sampleCount, segmentStart, segmentEnd,
                          &segmentCount, bottomSample);
        const int last = std::clamp(segmentCount, 1, kSlots) - 1;

        if (pass == 0) {
            first0 = lineSlot(segmentStart[0]);
            last0 = lineSlot(segmentEnd[last]);
            std::copy(bottomSample, bottomSample + B, P);
            // Mirror the fan. Rows are taken at multiples of 256 while the
            // matrix stride is beamCount: with fewer beams this reverses
            // other stretches of the matrix, and that is the required rule.
            for (int r = 0; r < kRows; ++r)
                std::reverse(candidates + r * kRowOffset, candidates + r * kRowOffset + B);
        } else {
            // 255, not beamCount - 1: with fewer beams left1 lies above 127
            // and the mirrored pass alone decides the line.
            left1 = lineSlot(255.0f - segmentEnd[last]);
            right1 = lineSlot(255.0f - segmentStart[0]);
            for (int j = 0; j < B; ++j) Q[j] = bottomSample[B - 1 - j];
        }
    }

    // Merge around the centre beam. The order carries the tie-breaks: P wins
    // over Q below last0, Q over P from left1 to the centre, and the tails
    // beyond each pass's far end come last.
    const int m = std::min(kCentre, last0);
    std::copy(P, P + B, bottomSample);
    if (right1 > kCentre)
        for (int j = m; j <= right1; ++j) bottomSample[j] = Q[j];
    if (last0 > kCentre + 1)
        for (int j = 0; j < last0; ++j)
            if (P[j] > 1.0f) bottomSample[j] = P[j];
    if (first0 < kCentre) {
        const int to = std::max(kCentre, left1);
        for (int j = first0; j <= to; ++j) bottomSample[j] = P[j];
    }
    if (left1 < kCentre)
        for (int j = left1; j < kCentre; ++j)
            if (Q[j] > 1.0f) bottomSample[j] = Q[j];
    for (int j = last0; j < B; ++j) bottomSample[j] = P[j];
    for (int j = 0; j <= left1; ++j) bottomSample[j] = Q[j];
}

void completeBottomLine(float* bottomSample, uint8_t* bottomFlag, int32_t beamCount) {
    if (beamCount < 1) return;
    const int32_t h = beamCount / 2;
    // Outward from the centre, so a run of empty beams repeats the last good
    // value towards the end of the fan. The centre beam is visited twice: when
    // it took a usable value from beam h + 1 it ends flagged as its own.
    for (int32_t i = h; i >= 0; --i) {
        if (bottomSample[i] > 1.0f) {
            bottomFlag[i] = 1;
        } else {
            bottomSample[i] = bottomSample[i + 1];
            bottomFlag[i] = 2;
        }
    }
    for (int32_t i = h; i < beamCount; ++i) {
        if (bottomSample[i] > 1.0f) {
            bottomFlag[i] = 1;
        } else {
            // a single beam has no inner neighbour and keeps its value
            if (i > 0) bottomSample[i] = bottomSample[i - 1];
            bottomFlag[i] = 2;
        }
    }
}

}  // namespace kvane
