// uncertainty.h - the uncertainty of every sounding, from what its ping shows,
// for the tools. The Python package has the same model
// (kvane/uncertainty.py, where the model is explained); the tests hold the
// two against each other.
//
// In short: the echo around the bottom sample in the beam image gives its
// duration N (samples) and its signal-to-noise ratio SNR; the echo tells the
// detection method (amplitude for short echoes near normal incidence, phase
// for oblique ones, either between); each method has its range model, the
// beam's width and the SNR give the angle's; the survey adds the sound speed
// and the roll; first-order propagation gives the depth and across-track
// uncertainty, and from them the quality factor and the IHO S-44 order.
#pragma once

#include <cstdint>
#include <vector>

#include "soundings.h"

namespace kvproducts {

// Calibrated on simulated seabeds (see the README and kvane/uncertainty.py).
constexpr double kRangeOffsetSamples = 2.07;
constexpr double kPhaseFloor = 0.1285;      // samples^2 per pulse length^2
constexpr double kPhaseSpread = 0.00111;    // samples^2 per pulse length of echo
constexpr double kPhaseNoise = 0.132;       // samples^2 per pulse length of echo, times noise/signal
constexpr double kOuterPhaseFloor = 0.350;  // samples^2 per pulse length^2, outer beams
constexpr double kAmplitudeFloor = 0.541;   // samples^2 per pulse length^2
constexpr double kAmplitudeNoise = 83.9;    // samples^2 times noise/signal
constexpr double kAngleFactor = 0.408;
// The detector gates beams outside these absolute indices on a smoother
// envelope: their phase detections scatter more.
constexpr int kFirstInnerBeam = 49, kLastInnerBeam = 207;
constexpr double kBeamwidthRad = 0.03515;   // 3 dB width at broadside for c = 1500 m/s
constexpr double kDefaultSoundSpeedSigma = 2.0;  // m/s
constexpr double kDefaultRollSigma = 0.02;       // degrees

enum DetectionMethod : uint8_t { kNoMethod = 0, kPhase = 1, kAmplitude = 2, kEither = 3 };

// IHO S-44 (6th edition) orders, coded by strictness; 0 none.
enum IhoOrder : uint8_t { kOrderNone = 0, kOrder2 = 1, kOrder1 = 2, kOrderSpecial = 3, kOrderExclusive = 4 };
const char* ihoOrderName(uint8_t order);  // "none", "2", "1a/1b", "special", "exclusive"

struct SoundingUncertainty {
    int32_t echoSamples;      // echo duration N, samples; 0 without a bottom
    double echoSnr;           // power ratio; NaN without a bottom
    uint8_t method;           // DetectionMethod
    double rangeSigma;        // detection range std, m
    double angleSigmaDeg;     // detection angle std, degrees
    double depthUncertainty;  // m, 1 sigma, detection and survey
    double acrossUncertainty; // m, 1 sigma
    double qualityFactor;     // log10(range / rangeSigma)
    uint8_t ihoOrder;         // IhoOrder
};

struct SurveySigmas {
    double soundSpeed = kDefaultSoundSpeedSigma;  // m/s, 1 sigma
    double rollDeg = kDefaultRollSigma;           // degrees, 1 sigma
};

// Noise power of a ping's beam image (beamCount rows of sampleCount floats,
// beam-major): the water column before the first echo, or the image's 10th
// percentile when that is shorter than 16 samples.
double noisePower(const float* image, int beamCount, int sampleCount, float firstEcho);

// Uncertainty of one ping's soundings. image: the beam image; bottomSample,
// bottomFlag, steeringDeg: as the kernel gave them; soundings: from
// computeSoundings; firstEcho: the ping's first-echo sample; pulseLength (s)
// and soundSpeed (m/s): the parameters it ran with. out: beamCount entries.
void computeUncertainty(SoundingUncertainty* out, const float* image, int beamCount, int sampleCount,
                        const float* bottomSample, const uint8_t* bottomFlag, const float* steeringDeg,
                        const Sounding* soundings, float firstEcho, float pulseLength, float soundSpeed,
                        const SurveySigmas& survey);

}  // namespace kvproducts
