// frontend.h - first echo, channel gain equaliser, split-aperture correlators,
// across-swath sounding tracker.
#pragma once

#include <cstdint>

#include "../numeric/numeric.h"

namespace kvane {

// Sample at which the strong return starts after the quietest stretch of the
// ping. magnitudeBySample: sampleCount rows of 64 channel magnitudes.
// Returns 20 when nothing rises.
int32_t detectFirstEcho(const float* magnitudeBySample, int32_t sampleCount);

// Optional automatic gain: pulls strong parts of the ping towards a power of
// 1000 in 22-sample blocks. filteredChannels: 64 rows of sampleCount, changed
// in place. gainProfile: at least max(sampleCount, 600) floats (dB values of
// the blocks over its first 600 entries, linear gains behind).
// gainOnsetSample: first sample with a gain of 0.5 or less, minus 5.
void equaliseChannelGain(cfloat* filteredChannels, float* gainProfile, int32_t* gainOnsetSample,
                         int32_t sampleCount);

// Workspace storage of the split-aperture correlators; each buffer holds
// beamCount x sampleCount (sub-beams, sum) or 64 x sampleCount (aligned)
// complex samples; alignScratch holds kTeamCapacity rows of 8000 + 8.
struct SplitScratch {
    cfloat* subBeamLow;
    cfloat* subBeamMid;
    cfloat* subBeamHigh;
    cfloat* correlationSum;
    cfloat* alignedChannels;
    cfloat* alignScratch;
};

// Conjugate products of neighbouring 32-element sub-aperture beams, with
// phase shifts only. channelBlock: 64 rows of sampleCount. Output:
// beamCount rows of sampleCount. beamSpacing is not read.
void correlateSubAperturesNarrowBand(const cfloat* channelBlock, int32_t sampleCount,
                                     float angleOffset, float soundSpeed,
                                     const double* beamAnglesDouble, int32_t beamCount,
                                     int8_t beamSpacing, cfloat* splitCorrelation,
                                     const SplitScratch* scratch);

// The same product with per-section time alignment of the channels (15
// sections of the fan). channelCount is forced to 64.
void correlateSubAperturesSectioned(const cfloat* channelBlock, int32_t sampleCount,
                                    int32_t channelCount, float angleOffset, float soundSpeed,
                                    const float* beamAngles, int32_t beamCount,
                                    cfloat* splitCorrelation, const SplitScratch* scratch);

// Across-swath tracker. candidateTable: beamCount rows of 6 candidate samples
// (clamped to 1..sampleCount). trackCentre: 2 seeds of the last ping.
// trackHistory: 3 rows of beamCount, newest in row 2. Writes
// trackedSoundings[beamCount] and bottomFlag[beamCount].
void trackRawSoundings(const int32_t* candidateTable, int32_t beamCount,
                       const int32_t* trackCentre, float firstEchoSample,
                       const float* beamAngles, float angleOffset, int32_t* trackedSoundings,
                       const float* trackHistory, uint8_t* bottomFlag);
void trackDetectedSoundings(const int32_t* candidateTable, int32_t beamCount,
                            const int32_t* trackCentre, float firstEchoSample,
                            const float* beamAngles, float angleOffset,
                            int32_t* trackedSoundings, const float* trackHistory,
                            uint8_t* bottomFlag);

}  // namespace kvane
