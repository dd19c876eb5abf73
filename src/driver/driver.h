// driver.h - the steps of a ping that belong to the driver: channel
// conditioning, the beam fan, steering and beam sums, the amplitude image and
// the sector grid of the fan picture.
#pragma once

#include <cstdint>

#include "../../include/kVane.h"
#include "../backend/backend.h"
#include "../frontend/frontend.h"
#include "../numeric/numeric.h"

namespace kvane {

constexpr int32_t kChannels = 64;
constexpr int32_t kMaxSamples = 8000;
constexpr int32_t kMaxBeams = 256;
constexpr int32_t kCandidatesPerBeam = 6;
constexpr int32_t kSampleRate = 20000;
constexpr int32_t kSegmentLength = 200;
constexpr int32_t kMaxSegments = 40;

// The one scaling of the integer samples (bit pattern 0x36a7c5ac).
constexpr float kSampleScale = 5e-06f;

// Integer planes (64 rows of n) to scaled complex channels, with the
// one-tap channel filter and the 15-sample shift: rawChannels (64 rows of n)
// from the scaled samples, filteredChannels (64 rows of n) after the filter,
// and magnitudeBySample, n rows of the 64 channels' |rawChannels|.
// filteredChannels may be nullptr when no gain follows: the filter leaves
// the samples as they are, so rawChannels then serves for both.
void conditionChannels(cfloat* rawChannels, cfloat* filteredChannels, float* magnitudeBySample,
                       const int32_t* planeI, const int32_t* planeQ, int32_t n);

// Folds this ping's first echo into the seven-entry history (newest first,
// with its deliberate overlapping shift) and returns the smoothed
// firstEchoSample.
int32_t updateFirstEchoHistory(int32_t* history, int32_t first);

// Multiplies every row of filteredChannels (64 rows of n) by the per-sample
// real gain gainReal[n].
void applyFixedGain(cfloat* filteredChannels, const float* gainReal, int32_t n);

// The fan from the beam count alone: beamAngles[B] from the table for 64,
// 128 or 256 beams, zeros otherwise.
void fillBeamAnglesFromTable(float* beamAngles, int32_t beamCount);

// The rest of the fan: equal angles (beamSpacing 1) or equal distances (2)
// over the sectors, the geometry signature (returns geometryChanged), the
// three copies in beamAngleCopies and the double-precision angles.
uint8_t finishBeamFan(float* beamAngles, double* beamAnglesDouble, float* beamAngleCopies,
                      float sectorPort, float sectorStarboard, int8_t beamSpacing,
                      int32_t beamCount, int32_t* geometrySignature);

// Amplitude taper of the 64-element array, elements 0 to 31; 32 to 63 mirror
// them. Mirror-symmetric, summing to 64.
inline constexpr double kSteerTaperHalf[32] = {
    0.379662651083609, 0.386871609155205, 0.401156908046637, 0.422258374303884,
    0.449798089484145, 0.483294352883321, 0.522178953743148, 0.565816729590305,
    0.61352628083129,  0.664600686726341, 0.718327124667912, 0.774004427140212,
    0.830957806822049, 0.888550223192389, 0.94619013351194,  1.00333564532441,
    1.05949534494591,  1.11422629703831,  1.16712987809368,  1.21784621013317,
    1.26604799448218,  1.31143450952036,  1.35372643711647,  1.39266203157475,
    1.42799495800365,  1.45949392241404,  1.48694401292841,  1.51014948889346,
    1.5289376087409,   1.5431629906673,   1.55271196029454,  1.55750635864608};

// Steering weights of B beams x 64 elements, computed in double precision and
// rounded to single precision: taper[e] * exp(j 4712.38921875 / soundSpeed *
// sin(angle + offset) * e). steerMatrix: beamCount rows of 64.
void formSteeringMatrix(cfloat* steerMatrix, const double* beamAnglesDouble, int32_t beamCount,
                        double offsetDegrees, float soundSpeed);

// The block that turn j of `count` takes when a team of `team` deals them one
// at a time: rounds of `team` blocks, every other full round dealt backwards,
// so that when later blocks cost more (the fan picture grows with range) each
// thread's share comes out even. A permutation of 0..count-1.
int32_t dealtBlock(int32_t j, int32_t count, int32_t team);

// The beam sums C (m x n) = A (m x k, lda) * B (k x n, ldb), row-major, cut
// into a fixed grid of blocks: 256-column blocks when n is at least 512, else
// 64-row blocks. The grid depends on the shape only, so a thread team that
// shares the blocks (each a single-threaded library call) gets the same
// result whatever its size.
int32_t productBlockCount(int32_t m, int32_t n);
void productBlock(int32_t block, int32_t m, int32_t n, int32_t k, const cfloat* a, int32_t lda,
                  const cfloat* b, int32_t ldb, cfloat* c, int32_t ldc);

// Everything the beamforming step needs and leaves.
struct BeamformingIo {
    const cfloat* filteredChannels; // 64 rows of n
    const cfloat* rawChannels;      // 64 rows of n
    cfloat* formedBeamIq;           // B rows of n
    cfloat* splitBeamIq;            // B rows of n
    cfloat* steerMatrix;            // B x 64
    SplitScratch split;
    float* lastRollAngle;           // retained
    float* lastRollTime;            // retained
    // The amplitude image (B rows of n), when given: each block of beams is
    // turned into its columns as soon as it is formed, while it is still in
    // the cache (conditionBeamColumns with params->clipRatio).
    float* beamImage = nullptr;
    // When set, formBeams leaves splitBeamIq alone: formSplitProducts forms
    // the samples of it that are needed, once they are known.
    bool splitLater = false;
    // When given (with the image), the fan picture is drawn from each piece
    // of the image as soon as it is made (displayImage cleared beforehand).
    const WedgePlan* wedge = nullptr;
    float imageGain = 1.0f;
    uint8_t* displayImage = nullptr;
};

// Forms formedBeamIq and splitBeamIq (and the unsmoothed amplitude image,
// when io asks for it; formedBeamIq then serves as the threads' scratch for
// blocks of beams and is not kept): once for the ping when rollCount is 1, else per
// 200-sample segment steered by the interpolated roll (rollCount outside
// -100..100 is written back as 1). Writes segmentRoll on the segmented path.
// Returns angleOffset, the roll the tracker sees. n: 0..8000. The matrix
// library runs single-threaded inside the step's thread team; its thread
// count is restored on return.
float formBeams(KVaneParams* params, KVaneResult* result, const float* beamAngles,
                const double* beamAnglesDouble, int32_t n, const BeamformingIo* io);

// The split-aperture products of the samples in `needed` (beam samples), for
// a ping whose beams formBeams formed with io->splitLater: on either path the
// same blocks of samples, with the same arithmetic, as formBeams forms them
// all, so these samples equal a whole run's. segmented: the path formBeams
// took (rollCount other than 1 when it was called); params and result are
// those the ping's formBeams had (the segments' roll is read from
// result->segmentRoll).
void formSplitProducts(const KVaneParams* params, bool segmented, const KVaneResult* result,
                       const float* beamAngles, int32_t n, const BeamformingIo* io,
                       const SampleWindows& needed);

// Roll of each segment from the roll table, joined to the previous ping by the
// retained last sample. segmentRollLocal: segmentCount entries.
void interpolateRoll(float* segmentRollLocal, int32_t segmentCount, const float* rollAngle,
                     const int32_t* rollTime, int32_t rollCount, int32_t pingTime,
                     float* lastRollAngle, float* lastRollTime);

// Amplitude image: magnitude of formedBeamIq, half-fan clipping with the
// replacement value 1.0, the copy to beamImage, and with smooth the 7x7 mean
// (beamImage then must hold (n + 6) * (B + 6) floats).
void conditionBeamImage(float* beamEnvelope, float* beamImage,
                        const cfloat* formedBeamIq, int32_t beamCount, int32_t n,
                        float clipRatio, bool smooth);
// The same for samples start to start + count - 1 of one image (image: B
// rows of n), from beams: B rows of beamStride complex samples whose first
// entry is sample start. No smoothing.
void conditionBeamColumns(float* image, const cfloat* beams, int64_t beamStride,
                          int32_t beamCount, int32_t n, float clipRatio, int32_t start,
                          int32_t count);

// Half-fan clipping of rowCount sample rows of beamCount amplitudes each
// (sample-major): in each row, the values of a half of the fan below
// clipRatio (clamped to 0.01..0.99) times that half's maximum become 1.0.
// With an odd beam count the last beam takes no part.
void clipHalfFans(float* rows, int32_t rowCount, int32_t beamCount, float clipRatio);

// 7x7 mean of the beamCount x n image beamEnvelope (beam-major), zeros
// outside the image. The full convolution ((beamCount + 6) rows of n + 6)
// passes through beamImage; on return beamEnvelope and the first n *
// beamCount floats of beamImage hold the smoothed image, packed.
void smoothBeamImage(float* beamEnvelope, float* beamImage, int32_t beamCount, int32_t n);

// Rebuilds the sector grid when its key (sums of sectors, n*B + W*H) changed.
void updateSectorGrid(SectorGrid* grid, float sectorPort, float sectorStarboard,
                      int32_t imageWidth, int32_t imageHeight, int32_t n, int32_t beamCount);

}  // namespace kvane
