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

// Elements of one DetectWork line: 8000 samples and a small margin.
constexpr int kDetectLineLength = 8008;

// Per-beam working storage, from the workspace. Each pointer addresses
// lineSets consecutive lines of kDetectLineLength elements; beams are spread
// over up to lineSets threads, one line set each.
struct DetectWork {
    float* envelopeWork;
    cfloat* iqWork;
    cfloat* gateIq;
    float* gateI;
    float* gateQ;
    float* gatePhase;
    float* scratchA;   // two further scratch lines
    float* scratchB;
    int32_t lineSets = 1;
};

// What the driver hands to detectBeamCandidates for one ping.
struct BottomDetectArgs {
    const float* beamAngles;    // degrees, one per beam
    const float* beamEnvelope;  // beam-major, sampleCount per beam; read only
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

// Forms the split-aperture samples of the given windows (beam samples) in
// args->splitBeamIq; context is the caller's.
using SplitIqSource = void (*)(const SampleWindows& windows, void* context);

// Samples from .. from + count - 1 of one beam's envelope (row) into out, as
// the detection sees them: zero outside the beam's gate keepFrom .. keepTo -
// 1 (clamped to the beam beforehand; empty when keepTo <= keepFrom).
void gatedEnvelope(float* out, const float* row, int32_t from, int32_t count, int32_t keepFrom,
                   int32_t keepTo);

// Fills the six candidate slots of every beam (slots b*6+p of candidateSlots).
// gateTable: beamCount start samples, then beamCount end samples.
// Beams are independent and run in parallel, one line set of args->work per
// thread; the result does not depend on the number of threads.
// The gates of all beams are found first; with formSplitIq, it is then called
// once with the samples of splitBeamIq that the measurements in the gates
// read, before they are read (without it, splitBeamIq must be complete).
void detectBeamCandidates(const BottomDetectArgs* args, EchoCandidate* const* candidateSlots,
                          const int32_t* gateTable, SplitIqSource formSplitIq = nullptr,
                          void* context = nullptr);

// Drop levels of the gate edges: 6, 8, 10, 12, 14 dB below a peak.
constexpr int kDropCount = 5;
// Candidates kept per beam.
constexpr int kPeaksPerBeam = 6;

// What detectInGate measures in one gate. Indices are work indices (work
// index i is beam sample firstSample - 1 + i).
struct GateDetection {
    float amplitudeQuality;  // quality factor of the amplitude detection
    float phaseQuality;      // quality factor of the phase detection; -100 if none
    float phaseResidual;     // std. dev. of the phase around its fit, units of pi; -1 if none
    float phaseFitDone;      // 1 once the phase result was computed, else 0
    float fitQuality;        // adjusted R-squared of the phase fit (meaningful with phaseSample)
    int32_t fitStart;        // first sample of the phase fit
    int32_t fitEnd;          // last sample of the phase fit
    int32_t gateStart;       // the gate as examined
    int32_t gateEnd;
    int32_t phaseSample;     // phase detection, 0 for none
    int32_t amplitudeSample; // amplitude detection, 0 for none
    float meanLevel;         // mean envelope in the gate
};

// Float to int32 conversion that truncates; NaN and values outside the int32
// range give INT32_MIN (the processor's "integer indefinite") instead of
// undefined behaviour.
int32_t truncToInt(float x);

// Echo peaks of one smoothed envelope y (n floats): local maxima above 0.2 of
// the normalised range, thinned so that no two lie within minDistance samples
// (the higher wins), highest first. Ties in height keep ascending index order.
// Writes at most maxPeaks indices into peaks and returns how many; the first
// maxPeaks are those of the full list. A flat or non-finite envelope has no
// peaks. levels: n floats of scratch, order: n int32 of scratch.
int pickEnvelopePeaks(int32_t* peaks, int maxPeaks, const float* y, int n, int minDistance,
                      float* levels, int32_t* order);

// Edges of one side of a peak: for each of the kDropCount levels dropsDb
// (ascending, dB) the index, in whole-envelope coordinates, where x has fallen
// that far below the peak. side 1: x is the left side, the peak is x[n - 1];
// side 2: x is the right side, the peak is x[0]. peakIndex is the peak's index
// in the whole envelope. Any other side leaves out untouched. A side that never
// falls far enough reaches n samples from the peak.
void findDropPoints(int32_t* out, const float* x, int n, const float* dropsDb, int peakIndex,
                    int side);

// Root of a*k^2 + b*k + c in 0..limit: 0 unless the discriminant is positive;
// the one root inside the range, or the smaller one if both are inside, or 0
// if neither is.
float quadraticRoot(float a, float b, float c, float limit);

// Running trapezoid integral of x (n floats, unit spacing), starting at 0,
// with 0.001 added to every element. out may not alias x.
void cumulativeTrapezoid(float* out, const float* x, int n);

// LAPACKE_sgels(LAPACK_ROW_MAJOR, 'N', m, 3, 1, A, 3, rhs, 1) without the
// wrapper's copies, allocations and workspace query: the same LAPACK routine
// on the same numbers, and the same refusal of input holding a NaN (nothing
// changes then). A: m rows of 3, row-major, left as scratch (not the
// factors). rhs: m floats; the solution lands in its first three.
void leastSquaresColumns3(float* A, float* rhs, int m);

// Quadratic fit to y (n >= 5 floats) at k = 1..n by iteratively reweighted
// least squares (bisquare weights, leverage adjustment, at most 10 rounds).
// coef receives (a, b, c) of a*k^2 + b*k + c. scratch: 10 * n floats.
void fitQuadraticRobust(float* coef, const float* y, int n, float* scratch);

// Phase and amplitude detection of one echo in the gate gateFirst..gateLast
// (work indices, inclusive). envelopeWork: the beam's envelope from work index
// 0, square-rooted and levelled in place over the gate by the amplitude
// detector. iqWork: the beam's split-aperture samples, same indexing, read
// only. pulseLength in seconds, sampleRate in samples per second. The gate is
// clamped to 0..workLength (the lines hold workLength + 1 samples). Uses the
// lines gateI, gateQ, gatePhase and scratchA of work.
void detectInGate(GateDetection* result, float* envelopeWork, const cfloat* iqWork,
                  float pulseLength, int32_t sampleRate, int32_t gateFirst, int32_t gateLast,
                  int32_t firstSample, int32_t workLength, const DetectWork* work);

}  // namespace kvane
