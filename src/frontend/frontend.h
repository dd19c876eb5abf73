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

// One threshold pass of detectFirstEcho: from a 0/1 mask (sampleCount floats)
// and the smoothed trace it was cut from (sampleCount floats), the rise that
// closes the quietest low gap from sample 20 on, walking on over bursts that
// end at most 50 samples after a rise into later gaps whose level is at most
// 1.2 times the quietest. Returns 20 when the mask never rises.
int32_t pickFirstEchoRise(const float* mask, const float* trace, int32_t sampleCount);

// Optional automatic gain: pulls strong parts of the ping towards a power of
// 1000 in 22-sample blocks. filteredChannels: 64 rows of sampleCount, changed
// in place. gainProfile: at least max(sampleCount, 600) floats (dB values of
// the blocks over its first 600 entries, linear gains behind).
// gainOnsetSample: first sample with a gain of 0.5 or less, minus 5.
void equaliseChannelGain(cfloat* filteredChannels, float* gainProfile, int32_t* gainOnsetSample,
                         int32_t sampleCount);

// A section of the sectioned correlator holds at most 19 beams for a fan of
// up to 256 beams.
constexpr int32_t kMaxSectionBeams = 24;
constexpr int32_t kSplitSections = 15;

// What every block of samples of one section of the sectioned correlator
// shares: the alignment of each channel for the section's centre beam (whole
// shift and the taps of the fractional delay) and the sub-aperture weights
// of its beams (three matrices of 32 elements by `beams`).
// What a section's setup is made from: the ping's length, the section's
// beams and their sines, the element phase and delay steps. A setup whose
// key matches is kept.
struct SplitSectionKey {
    int32_t n, first, last, centreBeam;
    float centreSin;
    float sinAngle[kMaxSectionBeams];
    float phaseRow[64];
    float delayRow[64];
};
struct SplitSectionSetup {
    int32_t section;
    int32_t beams;
    int32_t shift[64];
    float taps[64][5];
    cfloat weights[3][32 * kMaxSectionBeams];
    int32_t keyed = 0;  // 1 when key describes the contents
    SplitSectionKey key;
};

// Workspace storage of the split-aperture correlators, sized as the
// workspace sizes it: subBeamLow, subBeamMid, subBeamHigh and correlationSum
// 2,048,000 complex samples each (beamCount x sampleCount), alignedChannels
// 64 x 8000 + 8, alignScratch kTeamCapacity rows of 8000 + 8, sectionSetups
// kSplitSections. The sectioned correlator carves the per-thread blocks of
// splitThreadStore out of them.
struct SplitScratch {
    cfloat* subBeamLow;
    cfloat* subBeamMid;
    cfloat* subBeamHigh;
    cfloat* correlationSum;
    cfloat* alignedChannels;
    cfloat* alignScratch;
    SplitSectionSetup* sectionSetups;
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
// sections of the fan), the sections shared by the thread team.
// channelCount is forced to 64.
// With `needed`, only the blocks of samples (per section) that hold a sample
// of its windows are formed, each exactly as in the whole run; the rest of
// splitCorrelation is left as it was.
void correlateSubAperturesSectioned(const cfloat* channelBlock, int32_t sampleCount,
                                    int32_t channelCount, float angleOffset, float soundSpeed,
                                    const float* beamAngles, int32_t beamCount,
                                    cfloat* splitCorrelation, const SplitScratch* scratch,
                                    const SampleWindows* needed = nullptr);

// The sectioned correlator works in blocks of at most this many samples,
// small enough that a block of the channels, its aligned copy and its
// sub-beams stay in the cache of the thread that works it.
constexpr int32_t kSplitBlockSamples = 256;

// One thread's storage for the sectioned correlator: aligned (64 rows of
// kSplitBlockSamples), scratchRow (kSplitBlockSamples + 8), and three
// sub-beam blocks of 24 rows of kSplitBlockSamples.
struct SplitThreadStore {
    cfloat* aligned;
    cfloat* scratchRow;
    cfloat* subBeams[3];
};
// The store of team thread `thread` (below kTeamCapacity), carved out of the
// workspace scratch.
SplitThreadStore splitThreadStore(const SplitScratch* scratch, int32_t thread);
// The sectioned correlator on the calling thread alone (for a team that
// shares whole blocks of samples), with the same results, on a window of
// sampleCount samples of longer rows: channel rows channelStride apart, output
// rows outStride apart. The window is a ping of its own: nothing outside it is
// read or written. sampleCount up to kSplitBlockSamples is one block per
// section.
// sectionNeeded (kSplitSections flags), when given, leaves out the sections
// whose flag is 0.
void correlateSubAperturesSectionedOnThread(const cfloat* channelBlock, int32_t sampleCount,
                                            int64_t channelStride, float angleOffset,
                                            float soundSpeed, const float* beamAngles,
                                            int32_t beamCount, cfloat* splitCorrelation,
                                            int64_t outStride, const SplitThreadStore* store,
                                            const uint8_t* sectionNeeded = nullptr);
// The blocks of blockLength samples (from sample 0 of a ping of sampleCount
// samples) that each section must form so that every sample in `needed` is
// written: flags[s * blocks + k] for section s and block k, blocks =
// ceil(sampleCount / blockLength). A beam's samples come from the section
// that closes it (the later one for a border beam).
void splitBlocksNeeded(uint8_t* flags, const SampleWindows& needed, int32_t beamCount,
                       int32_t sampleCount, int32_t blockLength);

// One section of the fan for the sectioned correlator: beams first - 1 to
// last - 1 (borders count from 1), aligned for centreBeam (zero-based).
struct SplitSection {
    int32_t first;
    int32_t last;
    int32_t centreBeam;
};
// The 15 sections of a fan of beamCount beams (1..256).
void splitSections(SplitSection* sections, int32_t beamCount);

// The 5-tap fractional delay filter for a delay of d samples (centre tap 2),
// normalised to unit gain at zero frequency, in single precision.
void fractionalDelayTaps(float* taps, double d);

// Closing of both correlators over count samples:
// out = 0.5 * (low * conj(mid) + mid * conj(high)).
void closeSplitCorrelation(cfloat* out, const cfloat* low, const cfloat* mid,
                           const cfloat* high, int64_t count);

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

// The walkers of one half of the fan, from its centre beam (row 0) outward.
// rows: beams rows of 6 candidate samples, rescaled (and, for followHalfSwath,
// sorted) in place. radians: beam angles. line, flags: beams entries out.
// seed: fall-back start (a range, not scaled by the cosine).
//
// Keeps believable steps only; rejected beams end as 0 with flag 2.
void followHalfSwath(float seed, float firstEchoSample, float* rows, int32_t beams,
                     const float* radians, float* line, uint8_t* flags);
// Always yields a value: a doubtful beam looks 20 rows ahead and at the
// history (historyRows: beams rows of 3 earlier ranges).
void followHalfSwathWithHistory(float seed, float firstEchoSample, float* rows, int32_t beams,
                                const float* radians, float* line, const float* historyRows,
                                uint8_t* flags);

}  // namespace kvane
