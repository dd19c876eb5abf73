// detect.h - bottom detection: per-beam gates, envelope peaks, drop points,
// phase and amplitude detection in a gate, robust quadratic fit.
#pragma once

#include <cstdint>

#include "../numeric/numeric.h"

namespace kvane {

// One rated detection of one echo peak of one beam. Six per beam, slot
// b * 6 + p; the records outlive pings.
struct EchoCandidate {
    int32_t gateStart;          // first sample of the detection window, beam samples
    int32_t gateEnd;            // last sample of the detection window
    int32_t method;             // 1 phase, 2 amplitude
    int32_t gateStartCopy;      // same as gateStart
    int32_t gateEndCopy;        // same as gateEnd
    int32_t detectionSample;    // accepted detection, 0 for none
    int32_t rawDetectionSample; // detection before the quality threshold, 0 for none
    float quality;              // quality factor of the chosen detection
    float level;                // mean envelope in the gate; -200 without detection
};

// Range limits of one ping.
struct DetectionLimits {
    int32_t startLimit;
    int32_t endLimit;
    int32_t nearDepth;
    int32_t farDepth;
    float soundSpeed;  // m/s
    int32_t limitMode; // 0 fixed, 1 whole ping, 2 depth window
};

// Per-beam working storage, from the workspace (each at least 8000 elements).
struct DetectWork {
    float* envelopeWork;
    cfloat* iqWork;
    cfloat* gateIq;
    float* gateI;
    float* gateQ;
    float* gatePhase;
    float* scratchA;   // two further 8000-float scratch lines
    float* scratchB;
};

// What the driver hands to detectBeamCandidates for one ping.
struct BottomDetectArgs {
    const float* beamAngles;    // degrees, one per beam
    float* beamEnvelope;        // beam-major, sampleCount per beam; changed in place
    const cfloat* splitBeamIq;  // split-aperture products, same layout
    int32_t sampleCount;
    int32_t beamCount;          // at most 256
    int32_t firstEchoSample;    // seven-ping median of the first echo
    float pulseLength;          // seconds
    int32_t sampleRate;         // 20000
    const DetectionLimits* limits;
    float qualityThreshold;     // lowest adjusted R-squared of a phase detection
    uint8_t resetGates;         // nonzero on a ping whose fan changed
    uint8_t* firstBeamPending;  // retained flag, 1 at load
    DetectWork work;
};

// Fills the six candidate slots of every beam (slots b*6+p of candidateSlots).
// gateTable: beamCount start samples, then beamCount end samples.
void detectBeamCandidates(const BottomDetectArgs* args, EchoCandidate* const* candidateSlots,
                          const int32_t* gateTable);

}  // namespace kvane
