// detectBeamCandidates.cpp - per-ping entry of the bottom detector: range gate
// per beam, smoothed envelope, up to six echo peaks, a gate around each, phase
// and amplitude detection, and the choice between the two per candidate.
#include <algorithm>
#include <cmath>
#include <cstring>

#include <omp.h>

#include "detect.h"

namespace kvane {

int32_t truncToInt(float x) {
    if (!(x >= -2147483648.0f && x < 2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(x);
}

namespace {

constexpr int kMaxDetectBeams = 256;
// Samples of one beam that a work line takes.
constexpr int kMaxWorkLength = kDetectLineLength - 8;
const float kDropsDb[kDropCount] = {6.0f, 8.0f, 10.0f, 12.0f, 14.0f};
// The measurement of one gate costs about as much as this many of its samples
// besides them (its fits).
constexpr int64_t kGateFixedCost = 300;

// Smoothing width of the beams outside the centre band, wider for long pings
// and deep first echoes.
int outerSmoothWidth(int32_t sampleCount, int32_t firstEchoSample) {
    if (sampleCount < 200 || firstEchoSample < 50) return 9;
    if (sampleCount < 300 || firstEchoSample < 133) return 11;
    if (sampleCount < 900 || firstEchoSample < 400) return 15;
    if (sampleCount < 1500 || firstEchoSample < 666) return 19;
    return 21;
}

// Keeps one detection per candidate and writes it into its slot. Detections
// carry firstSample and gate fields firstSample - 1: a detection sample is one
// higher than the beam index of the same point, which the later stages expect.
void storeCandidate(EchoCandidate* slot, const GateDetection& det, float beamAngle,
                    float qualityThreshold, int32_t firstSample) {
    const float angle = std::fabs(beamAngle);
    const float q = det.fitQuality;
    const int32_t accepted = q >= qualityThreshold ? det.phaseSample : 0;
    // The quality limits are met in double precision.
    int32_t strict = accepted;
    if (angle < 45.0f && static_cast<double>(q) < 0.35) strict = 0;
    // Beams at 45 degrees or more always keep the phase detection.
    const bool useAmplitude = (angle < 20.0f && static_cast<double>(q) < 0.7) ||
                              (angle < 45.0f && strict < 2);
    int32_t method, chosen, raw, windowStart, windowEnd;
    float value;
    if (useAmplitude && det.amplitudeSample > 0) {
        method = 2;
        chosen = raw = det.amplitudeSample;
        windowStart = det.gateStart;
        windowEnd = det.gateEnd;
        value = det.amplitudeQuality;
    } else {
        method = 1;
        chosen = accepted;
        raw = det.phaseSample;
        windowStart = det.fitStart;
        windowEnd = det.fitEnd;
        value = det.phaseQuality;
    }
    slot->method = method;
    if (chosen != 0) {
        slot->detectionSample = chosen + firstSample;
        slot->quality = value;
        slot->gateStart = slot->gateStartCopy = windowStart + firstSample - 1;
        slot->gateEnd = slot->gateEndCopy = windowEnd + firstSample - 1;
        slot->level = det.meanLevel;
    } else {
        slot->detectionSample = 0;
        slot->quality = 0.0f;
        slot->level = -200.0f;
    }
    slot->rawDetectionSample = raw != 0 ? raw + firstSample : 0;
}

// What every beam of one ping shares.
struct PingPlan {
    const BottomDetectArgs* args;
    EchoCandidate* const* slots;
    const int32_t* beamStart;  // gate per beam, pending flag and reset applied
    const int32_t* beamEnd;
    int outerWidth;
    int32_t firstSample;
    int workLength;
    int64_t twoPulses;
};

// Line set number set of work.
DetectWork lineSet(const DetectWork& work, int set) {
    const std::size_t offset = static_cast<std::size_t>(set) * kDetectLineLength;
    return DetectWork{work.envelopeWork + offset, work.iqWork + offset, work.gateIq + offset,
                      work.gateI + offset,        work.gateQ + offset,  work.gatePhase + offset,
                      work.scratchA + offset,     work.scratchB + offset, 1};
}

// The gates of the candidates of one beam, in work indices: one per echo
// peak, highest peak first.
struct BeamGates {
    int32_t count;
    int32_t low[kPeaksPerBeam];
    int32_t high[kPeaksPerBeam];
};

// Gates and peaks of beam b. order: kDetectLineLength int32 of scratch.
void findBeamGates(const PingPlan& plan, int b, const DetectWork& lines, int32_t* order,
                   BeamGates* gates) {
    const BottomDetectArgs& args = *plan.args;
    const int32_t n = std::max(args.sampleCount, 0);
    const int32_t firstEcho = args.firstEchoSample;
    const int32_t firstSample = plan.firstSample;
    const int workLength = plan.workLength;
    gates->count = 0;

    // The centre band (absolute beam numbers, whatever the beam count) is
    // smoothed lightly.
    const int smoothWidth = (b >= 49 && b <= 207) ? 3 : plan.outerWidth;
    const int smoothStep = truncToInt(std::floor(0.5f * static_cast<float>(smoothWidth) + 0.5f));

    // Outside the gate the envelope reads zero, sample end included. Gates
    // outside the beam are clamped to it.
    const float* envelope =
        args.beamEnvelope + static_cast<std::size_t>(b) * static_cast<std::size_t>(n);
    if (workLength < 1) return;

    // Work index i is beam sample firstSample - 1 + i; the last sample of the
    // beam is never copied.
    gatedEnvelope(lines.envelopeWork, envelope, firstSample - 1, workLength,
                  std::clamp(plan.beamStart[b], 0, n), std::clamp(plan.beamEnd[b], 0, n));
    float* smoothed = lines.scratchB;
    const int smoothLength =
        decimatedMovingAverage(smoothed, lines.envelopeWork, workLength, smoothWidth, smoothStep);
    const int minDistance = truncToInt(
        std::ceil((static_cast<float>(firstEcho) / 3.0f) / static_cast<float>(smoothStep)));
    int32_t peaks[kPeaksPerBeam];
    const int peakCount = pickEnvelopePeaks(peaks, kPeaksPerBeam, smoothed, smoothLength,
                                            minDistance, lines.scratchA, order);

    for (int p = 0; p < peakCount; ++p) {
        const int pk = peaks[p];
        int32_t left[kDropCount];
        int32_t right[kDropCount];
        findDropPoints(left, smoothed, pk + 1, kDropsDb, pk, 1);
        findDropPoints(right, smoothed + pk, smoothLength - pk, kDropsDb, pk, 2);
        // The 14 dB points bound the gate, in work indices. (smoothLength - 1)
        // * smoothStep lies below workLength, so a gate never reaches the
        // sample past the copy; the last clamp only makes that explicit.
        const int64_t lowSmooth = std::max(left[kDropCount - 1], 0);
        const int64_t highSmooth = std::min(right[kDropCount - 1], smoothLength - 1);
        int64_t low = std::clamp<int64_t>(lowSmooth * smoothStep, 0, workLength);
        int64_t high = std::clamp<int64_t>(highSmooth * smoothStep, 0, workLength);
        high = std::min<int64_t>(high, workLength - 1);
        // The gate of a peak lying more than two pulse lengths past the point
        // two pulse lengths after the first echo starts no earlier than that
        // point.
        const int64_t clipIndex = static_cast<int64_t>(firstEcho) + plan.twoPulses - firstSample - 1;
        const int64_t beyond = static_cast<int64_t>(pk) * smoothStep - clipIndex;
        if (beyond != 0 && clipIndex >= low && clipIndex <= high && beyond > plan.twoPulses)
            low = clipIndex;
        gates->low[p] = static_cast<int32_t>(low);
        gates->high[p] = static_cast<int32_t>(high);
    }
    gates->count = peakCount;
}

// The part of a gate that detectInGate reads, in work indices (empty when
// last < first).
void gateSpan(const PingPlan& plan, const BeamGates& gates, int p, int32_t* first,
              int32_t* last) {
    *first = std::max(gates.low[p], 0);
    *last = std::min(gates.high[p], std::min(plan.workLength, kDetectLineLength - 1));
}

// The candidates of beam b from its gates. The amplitude detector levels the
// envelope in place over each gate, and later peaks of the beam see the
// envelope as earlier gates left it; only the gates are read, so only they
// are copied, all of them before the first is measured.
void measureBeamGates(const PingPlan& plan, int b, const DetectWork& lines,
                      const BeamGates& gates) {
    const BottomDetectArgs& args = *plan.args;
    const int32_t n = std::max(args.sampleCount, 0);
    const int32_t firstSample = plan.firstSample;
    const float* envelope =
        args.beamEnvelope + static_cast<std::size_t>(b) * static_cast<std::size_t>(n);
    const int32_t keepFrom = std::clamp(plan.beamStart[b], 0, n);
    const int32_t keepTo = std::clamp(plan.beamEnd[b], 0, n);
    for (int p = 0; p < gates.count; ++p) {
        int32_t first, last;
        gateSpan(plan, gates, p, &first, &last);
        if (last >= first)
            gatedEnvelope(lines.envelopeWork + first, envelope, firstSample - 1 + first,
                          last - first + 1, keepFrom, keepTo);
    }
    // The split-aperture samples are read where they lie.
    const cfloat* iq = args.splitBeamIq + static_cast<std::size_t>(b) * static_cast<std::size_t>(n) +
                       (firstSample - 1);
    for (int p = 0; p < gates.count; ++p) {
        GateDetection det;
        detectInGate(&det, lines.envelopeWork, iq, args.pulseLength, args.sampleRate,
                     gates.low[p], gates.high[p], firstSample, plan.workLength, &lines);
        storeCandidate(plan.slots[b * kPeaksPerBeam + p], det, args.beamAngles[b],
                       args.qualityThreshold, firstSample);
    }
}

}  // namespace

void gatedEnvelope(float* out, const float* row, int32_t from, int32_t count, int32_t keepFrom,
                   int32_t keepTo) {
    if (count < 1) return;
    const int32_t a = std::clamp(keepFrom - from, 0, count);
    const int32_t e = std::clamp(keepTo - from, a, count);
    std::fill(out, out + a, 0.0f);
    std::memcpy(out + a, row + from + a, sizeof(float) * static_cast<std::size_t>(e - a));
    std::fill(out + e, out + count, 0.0f);
}

void detectBeamCandidates(const BottomDetectArgs* args, EchoCandidate* const* candidateSlots,
                          const int32_t* gateTable, SplitIqSource formSplitIq, void* context) {
    const int32_t n = args->sampleCount;
    // The gate table holds 256 starts and 256 ends, the slots six per beam.
    const int beamCount = std::clamp(args->beamCount, 0, kMaxDetectBeams);
    const int32_t firstEcho = args->firstEchoSample;
    const int32_t sampleRate = args->sampleRate;
    const DetectionLimits& limits = *args->limits;

    // Gates per beam: from the table (the end half starts at beamCount, not at
    // 256), or from the depth window.
    int32_t beamStart[kMaxDetectBeams];
    int32_t beamEnd[kMaxDetectBeams];
    for (int b = 0; b < beamCount; ++b) {
        beamStart[b] = gateTable[b];
        beamEnd[b] = gateTable[beamCount + b];
    }
    if (limits.limitMode == 2) {
        // All four limits are taken as metres of depth and turned into two-way
        // sample counts, the two sample limits included: endLimit then bounds
        // very loosely.
        auto toSamples = [&](int32_t v) {
            return std::floor(static_cast<float>(sampleRate) *
                              ((2.0f * static_cast<float>(v)) / limits.soundSpeed));
        };
        const float startLimitSamples = toSamples(limits.startLimit);
        const float endLimitSamples = toSamples(limits.endLimit);
        const float nearDepthSamples = toSamples(limits.nearDepth);
        const float farDepthSamples = toSamples(limits.farDepth);
        for (int b = 0; b < beamCount; ++b) {
            const float c = std::cos(args->beamAngles[b] / 57.29578f);
            beamStart[b] = std::max(truncToInt(nearDepthSamples / c), truncToInt(startLimitSamples));
            beamEnd[b] = std::min(truncToInt(farDepthSamples / c), truncToInt(endLimitSamples));
        }
    }
    // Only the first beam processed after load sees the wide gate through
    // firstBeamPending; a changed fan widens every beam of the ping.
    const int32_t wideStart = firstEcho / 4;
    const int32_t wideEnd = static_cast<int32_t>(std::max<int64_t>(static_cast<int64_t>(n) - 1, INT32_MIN));
    if (beamCount > 0 && *args->firstBeamPending != 0) {
        beamStart[0] = wideStart;
        beamEnd[0] = wideEnd;
        *args->firstBeamPending = 0;
    }
    if (args->resetGates != 0) {
        for (int b = 0; b < beamCount; ++b) {
            beamStart[b] = wideStart;
            beamEnd[b] = wideEnd;
        }
    }

    const int32_t firstSample = std::max(firstEcho, 10);
    PingPlan plan;
    plan.args = args;
    plan.slots = candidateSlots;
    plan.beamStart = beamStart;
    plan.beamEnd = beamEnd;
    plan.outerWidth = outerSmoothWidth(n, firstEcho);
    plan.firstSample = firstSample;
    // Beyond the line capacity a beam is cut (the driver never sends more
    // than 8000 samples).
    plan.workLength = static_cast<int>(
        std::clamp<int64_t>(static_cast<int64_t>(n) - firstSample, -1, kMaxWorkLength));
    plan.twoPulses =
        truncToInt(std::ceil(2.0f * args->pulseLength * static_cast<float>(sampleRate)));

    // The gates of every beam first, then (when the caller forms the
    // split-aperture samples on demand) the samples they read, then the
    // measurements in them.
    const int team = std::clamp(std::min(args->work.lineSets, teamSize()), 1, kTeamCapacity);
    BeamGates gates[kMaxDetectBeams];
    // Beams alternate between the threads: the centre band costs more than
    // the edges of the fan.
#pragma omp parallel for num_threads(team) schedule(static, 1)
    for (int b = 0; b < beamCount; ++b) {
        int32_t order[kDetectLineLength];
        findBeamGates(plan, b, lineSet(args->work, omp_get_thread_num()), order, gates + b);
    }
    if (formSplitIq != nullptr) {
        SampleWindows windows;
        windows.rows = beamCount;
        for (int b = 0; b < beamCount; ++b) {
            windows.count[b] = gates[b].count;
            for (int p = 0; p < gates[b].count; ++p) {
                int32_t first, last;
                gateSpan(plan, gates[b], p, &first, &last);
                windows.first[b][p] = firstSample - 1 + first;
                windows.last[b][p] = firstSample - 1 + last;
            }
        }
        formSplitIq(windows, context);
    }
    // The measurements cost about the samples of their gates and a fixed
    // amount per gate (the fits): the beams are dealt out from the costliest
    // down, so that the threads' shares come out even. Every beam is measured
    // alone, on the lines of the thread that takes it, so the order changes
    // nothing but the time.
    int order[kMaxDetectBeams];
    int64_t cost[kMaxDetectBeams];
    for (int b = 0; b < beamCount; ++b) {
        order[b] = b;
        cost[b] = 0;
        for (int p = 0; p < gates[b].count; ++p) {
            int32_t first, last;
            gateSpan(plan, gates[b], p, &first, &last);
            cost[b] += std::max(last - first + 1, 0) + kGateFixedCost;
        }
    }
    // Costliest first, equal costs in beam order (an insertion sort: no
    // library sort's instantiations end up among the library's symbols).
    for (int j = 1; j < beamCount; ++j) {
        const int beam = order[j];
        int k = j;
        for (; k > 0 && cost[order[k - 1]] < cost[beam]; --k) order[k] = order[k - 1];
        order[k] = beam;
    }
#pragma omp parallel for num_threads(team) schedule(static, 1)
    for (int j = 0; j < beamCount; ++j)
        measureBeamGates(plan, order[j], lineSet(args->work, omp_get_thread_num()), gates[order[j]]);
}

}  // namespace kvane
