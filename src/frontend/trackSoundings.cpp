// trackSoundings.cpp - the across-swath tracker of shallow water: walks the
// bottom from the two centre beams outward, one half of the fan at a time,
// and keeps in each beam the candidate that continues the line. Candidates
// are compared as vertical distances (range times the cosine of the beam
// angle), so a flat bottom is a flat line.
#include <algorithm>
#include <cmath>
#include <limits>

#include "frontend.h"

namespace kvane {

namespace {

constexpr int kMaxBeams = 256;
constexpr int kRow = 6;          // candidates per beam
constexpr int kHistoryPings = 3; // rows of trackHistory
constexpr int kAheadRows = 21;   // the beam's own row and 20 more
constexpr int kSeedMedian = 21;

// Index of the entry nearest target, first on ties, and its distance.
int nearestEntry(const float* v, int count, float target, float* distance) {
    int best = 0;
    float bestDistance = std::fabs(v[0] - target);
    for (int c = 1; c < count; ++c) {
        const float d = std::fabs(v[c] - target);
        if (d < bestDistance) {
            bestDistance = d;
            best = c;
        }
    }
    *distance = bestDistance;
    return best;
}

// The walk starts at the candidate of the centre row nearest the first echo,
// when it lies closer than the echo itself and is not implausibly small;
// otherwise at the seed.
float startOfWalk(const float* centreRow, float firstEchoSample, float seed) {
    float nearest;
    const int k = nearestEntry(centreRow, kRow, firstEchoSample, &nearest);
    float start = nearest < firstEchoSample ? centreRow[k] : seed;
    if (start < 10.0f) start = seed;
    return start;
}

// The fan's median wins unless the last ping's sounding differs from it by
// more than about 20 percent.
float chooseSeed(float median, int32_t lastCentre) {
    const double ratio = static_cast<double>(static_cast<float>(
        static_cast<double>(lastCentre) / (0.01 + static_cast<double>(median))));
    if ((ratio < 0.8 || ratio > 1.2) && lastCentre != 0) return static_cast<float>(lastCentre);
    return median;
}

// The walked line holds whole numbers; anything beyond int32 (a beam near 90
// degrees, damaged input) saturates, and NaN reads 0.
int32_t truncateSounding(float v) {
    if (std::isnan(v)) return 0;
    if (v >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
    if (v <= -2147483648.0f) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

void trackBothHalves(const int32_t* candidateTable, int32_t beamCount, const int32_t* trackCentre,
                     float firstEchoSample, const float* beamAngles, float angleOffset,
                     int32_t* trackedSoundings, const float* trackHistory, uint8_t* bottomFlag,
                     bool withHistory) {
    const int B = std::clamp(beamCount, 0, kMaxBeams);
    if (B < 1) return;
    const int half = B / 2;

    float beamRadians[kMaxBeams];
    const float perDegree = 1.0f / 57.29578f;  // divide by a constant: times its reciprocal
    for (int b = 0; b < B; ++b) beamRadians[b] = (beamAngles[b] + angleOffset) * perDegree;

    float sampleRows[kMaxBeams * kRow];
    for (int i = 0; i < B * kRow; ++i) sampleRows[i] = static_cast<float>(candidateTable[i]);
    float historyRows[kMaxBeams * kHistoryPings];
    for (int b = 0; b < B; ++b)
        for (int r = 0; r < kHistoryPings; ++r)
            historyRows[b * kHistoryPings + r] = trackHistory[r * B + b];

    // Causal median over the 21 beams up to each beam: the value read at the
    // centre is not recentred, and that is the intended seed.
    float firstColumn[kMaxBeams];
    for (int b = 0; b < B; ++b) firstColumn[b] = sampleRows[b * kRow];
    runningMedianCausal(firstColumn, firstColumn, B, kSeedMedian);

    float trackedLine[kMaxBeams] = {};

    auto walk = [&](float seed, float* rows, int beams, const float* radians, float* line,
                    const float* history, uint8_t* flags) {
        if (withHistory)
            followHalfSwathWithHistory(seed, firstEchoSample, rows, beams, radians, line, history,
                                       flags);
        else
            followHalfSwath(seed, firstEchoSample, rows, beams, radians, line, flags);
    };

    // starboard half, from beam half outward
    walk(chooseSeed(firstColumn[half], trackCentre[1]), sampleRows + half * kRow, B - half,
         beamRadians + half, trackedLine + half, historyRows + half * kHistoryPings,
         bottomFlag + half);

    // port half, mirrored so that it too is walked from the centre outward
    if (half > 0) {
        const float seed = chooseSeed(firstColumn[half - 1], trackCentre[0]);
        for (int lo = 0, hi = half - 1; lo < hi; ++lo, --hi) {
            std::swap_ranges(sampleRows + lo * kRow, sampleRows + (lo + 1) * kRow,
                             sampleRows + hi * kRow);
            std::swap_ranges(historyRows + lo * kHistoryPings, historyRows + (lo + 1) * kHistoryPings,
                             historyRows + hi * kHistoryPings);
        }
        float mirroredRadians[kMaxBeams];
        std::reverse_copy(beamRadians, beamRadians + half, mirroredRadians);
        walk(seed, sampleRows, half, mirroredRadians, trackedLine, historyRows, bottomFlag);
        std::reverse(trackedLine, trackedLine + half);
        std::reverse(bottomFlag, bottomFlag + half);
    }

    for (int b = 0; b < B; ++b) trackedSoundings[b] = truncateSounding(trackedLine[b]);
}

}  // namespace

void followHalfSwath(float seed, float firstEchoSample, float* rows, int32_t beams,
                     const float* radians, float* line, uint8_t* flags) {
    beams = std::min(beams, kMaxBeams);
    if (beams < 1) return;

    float cosine[kMaxBeams];
    int valid[kMaxBeams];
    for (int i = 0; i < beams; ++i) cosine[i] = std::cos(radians[i]);
    for (int i = 0; i < beams; ++i) {
        float* row = rows + i * kRow;
        // an empty slot reads 1 (the driver's clamp), so only values above 1 count
        valid[i] = static_cast<int>(std::count_if(row, row + kRow, [](float v) { return v > 1.0f; }));
        // descending; a NaN (never from the driver's integer table) sorts last
        std::sort(row, row + kRow,
                  [](float a, float b) { return a > b || (std::isnan(b) && !std::isnan(a)); });
        if (valid[i] == 1) std::fill(row + 1, row + kRow, row[0]);
        for (int c = 0; c < kRow; ++c) row[c] *= cosine[i];
    }

    line[0] = startOfWalk(rows, firstEchoSample, seed);  // the seed is not scaled
    flags[0] = 1;

    for (int i = 1; i < beams; ++i) {
        const float previous = line[i - 1];
        flags[i] = 1;
        float distance;
        if (valid[i] > 0) {
            line[i] = rows[i * kRow + nearestEntry(rows + i * kRow, kRow, previous, &distance)];
        } else {
            line[i] = previous;
            flags[i] = 2;
        }
        const double jump = std::fabs(static_cast<double>(line[i]) - static_cast<double>(previous));
        if (jump <= 0.08 * static_cast<double>(std::min(line[i], previous))) continue;

        // A step is believed when at least four of the rows ahead agree with
        // it and at most one stays with the old level; empty rows extend the
        // look-ahead instead of voting.
        const float band = 0.08f * previous;
        int limit = 8;
        int nearVotes = 0;
        int farVotes = 0;
        for (int k = 0; k < limit && i + k < beams; ++k) {
            const float* row = rows + (i + k) * kRow;
            const float v = row[nearestEntry(row, kRow, previous, &distance)];
            if (v < 1.0f) ++limit;
            if (v > 1.0f) {
                if (distance < band) ++nearVotes;
                if (distance > band) ++farVotes;
            }
        }
        if (nearVotes > 1 || farVotes < 4) {
            line[i] = previous;
            flags[i] = 2;
        }
        // even a believed step is capped at 25 percent
        if (jump > 0.25 * static_cast<double>(std::min(line[i], previous))) {
            line[i] = previous;
            flags[i] = 2;
        }
    }

    for (int i = 0; i < beams; ++i) line[i] = roundHalfAway(line[i] / cosine[i]);
    // rejected beams carried the previous value during the walk; only now cleared
    for (int i = 0; i < beams; ++i)
        if (flags[i] == 2) line[i] = 0.0f;
}

void followHalfSwathWithHistory(float seed, float firstEchoSample, float* rows, int32_t beams,
                                const float* radians, float* line, const float* historyRows,
                                uint8_t* flags) {
    beams = std::min(beams, kMaxBeams);
    if (beams < 1) return;

    float cosine[kMaxBeams];
    for (int i = 0; i < beams; ++i) cosine[i] = std::cos(radians[i]);
    for (int i = 0; i < beams; ++i)
        for (int c = 0; c < kRow; ++c) rows[i * kRow + c] *= cosine[i];

    line[0] = startOfWalk(rows, firstEchoSample, seed);
    // the mark of beam i is kept at i - 1, beam 0's at the end of the range
    flags[beams - 1] = 1;

    float lastSpread = 0.0f;
    for (int i = 1; i < beams; ++i) {
        const float previous = line[i - 1];
        const int width = i < beams - 20 ? kAheadRows : beams - i;
        float distances[kAheadRows];
        int entries[kAheadRows];
        for (int k = 0; k < width; ++k)
            entries[k] = nearestEntry(rows + (i + k) * kRow, kRow, previous, &distances[k]);

        line[i] = rows[i * kRow + entries[0]];
        const bool doubtful = line[i] < 1.0f || (distances[0] > 2.0f * lastSpread + 2.0f &&
                                                 distances[0] > 0.3f * previous);
        if (!doubtful) {
            flags[i - 1] = 1;
        } else {
            flags[i - 1] = 0;
            const int k = static_cast<int>(std::min_element(distances, distances + width) - distances);
            lastSpread = distances[k];
            const float ahead = rows[(i + k) * kRow + entries[k]];
            // earlier pings' ranges against a vertical distance, unscaled: the
            // comparison is defined on these values as they are
            float behindDistance;
            const float* history = historyRows + i * kHistoryPings;
            const float behind = history[nearestEntry(history, kHistoryPings, previous, &behindDistance)];
            line[i] = std::fabs(ahead - previous) > std::fabs(behind - previous) ? behind : ahead;
        }
        if (line[i] < 1.0f) {
            flags[i - 1] = 0;
            line[i] = previous;
        }
    }

    for (int i = 0; i < beams; ++i) line[i] = roundHalfAway(line[i] / cosine[i]);
}

void trackRawSoundings(const int32_t* candidateTable, int32_t beamCount, const int32_t* trackCentre,
                       float firstEchoSample, const float* beamAngles, float angleOffset,
                       int32_t* trackedSoundings, const float* trackHistory, uint8_t* bottomFlag) {
    trackBothHalves(candidateTable, beamCount, trackCentre, firstEchoSample, beamAngles,
                    angleOffset, trackedSoundings, trackHistory, bottomFlag, true);
    // this tracker always yields a value: its walker's marks are dropped
    const int B = std::clamp(beamCount, 0, kMaxBeams);
    std::fill(bottomFlag, bottomFlag + B, uint8_t{1});
}

void trackDetectedSoundings(const int32_t* candidateTable, int32_t beamCount,
                            const int32_t* trackCentre, float firstEchoSample,
                            const float* beamAngles, float angleOffset,
                            int32_t* trackedSoundings, const float* trackHistory,
                            uint8_t* bottomFlag) {
    trackBothHalves(candidateTable, beamCount, trackCentre, firstEchoSample, beamAngles,
                    angleOffset, trackedSoundings, trackHistory, bottomFlag, false);
}

}  // namespace kvane
