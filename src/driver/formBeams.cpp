// formBeams.cpp - steering weights, the beam sums and the split-aperture
// products of a ping: once for the whole ping, or per 200-sample segment with
// the fan turned by the roll of that segment's moment.

#include <cblas.h>
#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "driver.h"

namespace kvane {
namespace {

inline double steerTaper(int32_t c) { return kSteerTaperHalf[c < 32 ? c : 63 - c]; }

// The taper of all 64 elements.
struct SteerTaperTable {
    double value[64];
    constexpr SteerTaperTable() : value{} {
        for (int32_t c = 0; c < 64; ++c) value[c] = kSteerTaperHalf[c < 32 ? c : 63 - c];
    }
};
constexpr SteerTaperTable kSteerTaperTable{};
constexpr const double* kSteerTaper = kSteerTaperTable.value;

// Degrees to radians by the stored divisor (180 over the single-precision pi),
// applied as a multiplication by its reciprocal.
constexpr double kDegreesPerRadian = 57.29577791868205;
// 2 pi * 200 kHz * 3.75 mm in m/s, as stored: the phase step between
// neighbouring elements is this over the sound speed, times sin(angle).
constexpr double kPhaseConstant = -4712.38921875;

inline int32_t segmentCountOf(int32_t n) { return (n + kSegmentLength - 1) / kSegmentLength; }

// Row b of the steering matrix: taper[c] * exp(-j phase), phase = sin(angle) *
// c * (-4712.38921875 / soundSpeed), all in double precision and rounded to
// single precision only for the product.
//
// The 64 phasors come from 16 sines and cosines: exp(-j phase) for c = 8h + l
// is the product of the phasors of 8h and of l. In double precision the
// product differs from the direct value by a few units in the 16th digit,
// far below the single precision of the result; a row costs a quarter of the
// library calls, which matters on the segmented path (a fan per segment).
void steeringRow(cfloat* row, double angleDegrees, double offsetDegrees, double phaseScale) {
    // An offset of 0.0 is a plain copy of the angle (keeps the sign of a zero).
    const double angle = offsetDegrees == 0.0 ? angleDegrees : angleDegrees + offsetDegrees;
    const double scaledSin = std::sin(angle * (1.0 / kDegreesPerRadian)) * phaseScale;
    double lowRe[8], lowIm[8], highRe[8], highIm[8];
    // Element 0's phase is a zero (of either sign): its sine is that zero
    // and its cosine 1, exactly as the library gives them.
    const double zeroPhase = -(scaledSin * 0.0);
    if (zeroPhase == 0.0) {
        lowIm[0] = highIm[0] = zeroPhase;
        lowRe[0] = highRe[0] = 1.0;
    } else {
        ::sincos(zeroPhase, &lowIm[0], &lowRe[0]);
        highIm[0] = lowIm[0];
        highRe[0] = lowRe[0];
    }
    for (int32_t l = 1; l < 8; ++l) {
        ::sincos(-(scaledSin * static_cast<double>(l)), &lowIm[l], &lowRe[l]);
        ::sincos(-(scaledSin * static_cast<double>(8 * l)), &highIm[l], &highRe[l]);
    }
    for (int32_t h = 0; h < 8; ++h)
        for (int32_t l = 0; l < 8; ++l) {
            const int32_t c = 8 * h + l;
            const double cs = highRe[h] * lowRe[l] - highIm[h] * lowIm[l];
            const double sn = highRe[h] * lowIm[l] + highIm[h] * lowRe[l];
            const double t = steerTaper(c);
            row[c] = cfloat{static_cast<float>(cs * t), static_cast<float>(sn * t)};
        }
}

// The same rows, four at a time, on wide vectors: each row's phasor of
// elements 1 and 8 from a sine and cosine of its own (a reduction by pi/2 and
// Taylor series, within 1.2e-16 of the library's values), those of elements
// 2..7 and 16..56 as their powers (a few units of the 16th digit more), then
// the same double products as steeringRow, rounded to single precision. A
// weight whose double value lies within 2^-40 of a point where that rounding
// changes (a hundred times any difference between the two ways of getting
// the phasors) could round differently from the library's route: its row is
// made again by steeringRow (about 2 % of rows). So every weight is
// steeringRow's, at a fraction of its cost.
constexpr double kRoundingMargin = 0x1p-40;
// Phases beyond this are left to steeringRow (no sound speed makes them).
constexpr double kLargestFastPhase = 4096.0;

#define KVANE_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline
// Sines and cosines of 4 * V phases (V vectors, worked in step so that their
// polynomials overlap).
template <int V>
KVANE_AVX2_INLINE void sinCosVectors(const double* phase, double* sine, double* cosine) {
    // pi/2 as its first 33 bits and the rest: q * kHalfPiHigh is exact for
    // |q| < 2^20.
    const __m256d halfPiHigh = _mm256_set1_pd(1.57079632673412561417e+00);
    const __m256d halfPiLow = _mm256_set1_pd(6.07710050650619224932e-11);
    const __m256d twoOverPi = _mm256_set1_pd(0.63661977236758134308);
    // Taylor coefficients 1/k! with alternating signs, highest power first.
    constexpr double kSineTerms[8] = {1.0 / 355687428096000.0, -1.0 / 1307674368000.0,
                                      1.0 / 6227020800.0,      -1.0 / 39916800.0,
                                      1.0 / 362880.0,          -1.0 / 5040.0,
                                      1.0 / 120.0,             -1.0 / 6.0};
    constexpr double kCosineTerms[9] = {-1.0 / 6402373705728000.0, 1.0 / 20922789888000.0,
                                        -1.0 / 87178291200.0,      1.0 / 479001600.0,
                                        -1.0 / 3628800.0,          1.0 / 40320.0,
                                        -1.0 / 720.0,              1.0 / 24.0,
                                        -1.0 / 2.0};
    __m256d q[V], r[V], r2[V], ps[V], pc[V];
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) {
        const __m256d x = _mm256_loadu_pd(phase + 4 * v);
        q[v] = _mm256_round_pd(_mm256_mul_pd(x, twoOverPi), _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
        r[v] = _mm256_sub_pd(_mm256_sub_pd(x, _mm256_mul_pd(q[v], halfPiHigh)),
                             _mm256_mul_pd(q[v], halfPiLow));
        r2[v] = _mm256_mul_pd(r[v], r[v]);
        ps[v] = _mm256_set1_pd(kSineTerms[0]);
        pc[v] = _mm256_set1_pd(kCosineTerms[0]);
    }
#pragma GCC unroll 8
    for (int k = 1; k < 9; ++k)
#pragma GCC unroll 4
        for (int v = 0; v < V; ++v) {
            if (k < 8) ps[v] = _mm256_add_pd(_mm256_mul_pd(ps[v], r2[v]), _mm256_set1_pd(kSineTerms[k]));
            pc[v] = _mm256_add_pd(_mm256_mul_pd(pc[v], r2[v]), _mm256_set1_pd(kCosineTerms[k]));
        }
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) {
        const __m256d sr = _mm256_add_pd(r[v], _mm256_mul_pd(r[v], _mm256_mul_pd(r2[v], ps[v])));
        const __m256d cr = _mm256_add_pd(_mm256_set1_pd(1.0), _mm256_mul_pd(r2[v], pc[v]));
        // Quadrant q mod 4: (s, c) = (sr, cr), (cr, -sr), (-sr, -cr), (-cr, sr).
        const __m256i k = _mm256_cvtepi32_epi64(_mm_and_si128(_mm256_cvtpd_epi32(q[v]), _mm_set1_epi32(3)));
        const __m256i odd = _mm256_and_si256(k, _mm256_set1_epi64x(1));
        const __m256i half = _mm256_srli_epi64(k, 1);
        const __m256d swap = _mm256_castsi256_pd(_mm256_cmpeq_epi64(odd, _mm256_set1_epi64x(1)));
        const __m256d negateSine = _mm256_castsi256_pd(_mm256_slli_epi64(half, 63));
        const __m256d negateCosine = _mm256_castsi256_pd(_mm256_slli_epi64(_mm256_xor_si256(half, odd), 63));
        _mm256_storeu_pd(sine + 4 * v, _mm256_xor_pd(_mm256_blendv_pd(sr, cr, swap), negateSine));
        _mm256_storeu_pd(cosine + 4 * v, _mm256_xor_pd(_mm256_blendv_pd(cr, sr, swap), negateCosine));
    }
}

// One row from the phasors of elements l and 8h: the double products of
// steeringRow rounded to single precision, four elements at a time. Returns
// nonzero when a weight lies too near a rounding boundary (element 0 takes
// no sine or cosine: its weight is exact on both routes, its imaginary part
// a zero).
KVANE_AVX2_INLINE int roundedRow(cfloat* row, const double* lowRe, const double* lowIm,
                                 const double* highRe, const double* highIm) {
    const __m256d margin = _mm256_set1_pd(kRoundingMargin);
    int unsafe = 0;
    for (int32_t h = 0; h < 8; ++h) {
        const __m256d hr = _mm256_set1_pd(highRe[h]);
        const __m256d hi = _mm256_set1_pd(highIm[h]);
        for (int32_t l = 0; l < 8; l += 4) {
            const int32_t c = 8 * h + l;
            const __m256d lr = _mm256_loadu_pd(lowRe + l);
            const __m256d li = _mm256_loadu_pd(lowIm + l);
            const __m256d cs = _mm256_sub_pd(_mm256_mul_pd(hr, lr), _mm256_mul_pd(hi, li));
            const __m256d sn = _mm256_add_pd(_mm256_mul_pd(hr, li), _mm256_mul_pd(hi, lr));
            const __m256d t = _mm256_loadu_pd(kSteerTaper + c);
            const __m256d re = _mm256_mul_pd(cs, t);
            const __m256d im = _mm256_mul_pd(sn, t);
            const __m128 reF = _mm256_cvtpd_ps(re);
            const __m128 imF = _mm256_cvtpd_ps(im);
            _mm_storeu_ps(reinterpret_cast<float*>(row + c), _mm_unpacklo_ps(reF, imF));
            _mm_storeu_ps(reinterpret_cast<float*>(row + c + 2), _mm_unpackhi_ps(reF, imF));
            const __m128 reLow = _mm256_cvtpd_ps(_mm256_sub_pd(re, margin));
            const __m128 reHigh = _mm256_cvtpd_ps(_mm256_add_pd(re, margin));
            const __m128 imLow = _mm256_cvtpd_ps(_mm256_sub_pd(im, margin));
            const __m128 imHigh = _mm256_cvtpd_ps(_mm256_add_pd(im, margin));
            const int differ = _mm_movemask_ps(_mm_or_ps(_mm_cmpneq_ps(reLow, reHigh),
                                                         _mm_cmpneq_ps(imLow, imHigh)));
            unsafe |= c == 0 ? differ & ~1 : differ;
        }
    }
    return unsafe;
}

// Rows first .. first + count - 1 of a steering matrix (64 weights each) for
// the given angles (degrees, one per row), turned by offsetDegrees.
KVANE_AVX2 void steeringRowsAvx2(cfloat* rows, const double* angles, int32_t count,
                                 double offsetDegrees, double phaseScale) {
    int32_t b = 0;
    for (; b + 4 <= count; b += 4) {
        // Lanes 0..3 the phases of element 1 of the four rows, lanes 4..7
        // those of element 8.
        alignas(32) double scaled[4], phase[8], sine[8], cosine[8];
        bool usable = true;
        for (int32_t k = 0; k < 4; ++k) {
            const double angle =
                offsetDegrees == 0.0 ? angles[b + k] : angles[b + k] + offsetDegrees;
            scaled[k] = std::sin(angle * (1.0 / kDegreesPerRadian)) * phaseScale;
            usable = usable && std::fabs(scaled[k]) * 56.0 <= kLargestFastPhase;
            phase[k] = -(scaled[k] * 1.0);
            phase[4 + k] = -(scaled[k] * 8.0);
        }
        if (!usable) {
            for (int32_t k = 0; k < 4; ++k)
                steeringRow(rows + static_cast<int64_t>(b + k) * kChannels, angles[b + k],
                            offsetDegrees, phaseScale);
            continue;
        }
        sinCosVectors<2>(phase, sine, cosine);
        // Powers 0..7 of the phasors of elements 1 and 8, lane by lane.
        alignas(32) double lowRe[8][4], lowIm[8][4], highRe[8][4], highIm[8][4];
        const __m256d zeroPhase = _mm256_xor_pd(_mm256_mul_pd(_mm256_load_pd(scaled), _mm256_setzero_pd()),
                                                _mm256_set1_pd(-0.0));
        const __m256d oneRe = _mm256_load_pd(cosine), oneIm = _mm256_load_pd(sine);
        const __m256d eightRe = _mm256_load_pd(cosine + 4), eightIm = _mm256_load_pd(sine + 4);
        __m256d lr = _mm256_set1_pd(1.0), li = zeroPhase, hr = lr, hi = zeroPhase;
        _mm256_store_pd(lowRe[0], lr);
        _mm256_store_pd(lowIm[0], li);
        _mm256_store_pd(highRe[0], hr);
        _mm256_store_pd(highIm[0], hi);
        lr = oneRe, li = oneIm, hr = eightRe, hi = eightIm;
        for (int32_t p = 1; p < 8; ++p) {
            _mm256_store_pd(lowRe[p], lr);
            _mm256_store_pd(lowIm[p], li);
            _mm256_store_pd(highRe[p], hr);
            _mm256_store_pd(highIm[p], hi);
            const __m256d nlr = _mm256_sub_pd(_mm256_mul_pd(lr, oneRe), _mm256_mul_pd(li, oneIm));
            const __m256d nli = _mm256_add_pd(_mm256_mul_pd(lr, oneIm), _mm256_mul_pd(li, oneRe));
            const __m256d nhr = _mm256_sub_pd(_mm256_mul_pd(hr, eightRe), _mm256_mul_pd(hi, eightIm));
            const __m256d nhi = _mm256_add_pd(_mm256_mul_pd(hr, eightIm), _mm256_mul_pd(hi, eightRe));
            lr = nlr, li = nli, hr = nhr, hi = nhi;
        }
        for (int32_t k = 0; k < 4; ++k) {
            double rowLowRe[8], rowLowIm[8], rowHighRe[8], rowHighIm[8];
            for (int32_t p = 0; p < 8; ++p) {
                rowLowRe[p] = lowRe[p][k];
                rowLowIm[p] = lowIm[p][k];
                rowHighRe[p] = highRe[p][k];
                rowHighIm[p] = highIm[p][k];
            }
            cfloat* row = rows + static_cast<int64_t>(b + k) * kChannels;
            if (roundedRow(row, rowLowRe, rowLowIm, rowHighRe, rowHighIm) != 0)
                steeringRow(row, angles[b + k], offsetDegrees, phaseScale);
        }
    }
    for (; b < count; ++b)
        steeringRow(rows + static_cast<int64_t>(b) * kChannels, angles[b], offsetDegrees,
                    phaseScale);
}

// Rows of the steering matrix by the faster route where the processor has it.
void steeringRows(cfloat* rows, const double* angles, int32_t count, double offsetDegrees,
                  double phaseScale) {
    if (cpuHasAvx2()) {
        steeringRowsAvx2(rows, angles, count, offsetDegrees, phaseScale);
        return;
    }
    for (int32_t b = 0; b < count; ++b)
        steeringRow(rows + static_cast<int64_t>(b) * kChannels, angles[b], offsetDegrees,
                    phaseScale);
}

}  // namespace

void formSteeringMatrix(cfloat* steerMatrix, const double* beamAnglesDouble, int32_t beamCount,
                        double offsetDegrees, float soundSpeed) {
    const double phaseScale = kPhaseConstant / static_cast<double>(soundSpeed);
    // Groups of 16 rows shared by the team.
    const int32_t groups = (beamCount + 15) / 16;
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t g = 0; g < groups; ++g) {
        const int32_t first = 16 * g;
        steeringRows(steerMatrix + static_cast<int64_t>(first) * kChannels,
                     beamAnglesDouble + first, std::min(16, beamCount - first), offsetDegrees,
                     phaseScale);
    }
}

namespace {
constexpr int32_t kProductColumns = 256;
constexpr int32_t kProductRows = 64;

// Thread `thread`'s block of beams (up to 256 beams of 256 samples) while the
// image is made from it: formedBeamIq holds them, as the buffer is not kept
// then.
cfloat* beamBlockOf(cfloat* formedBeamIq, int thread) {
    return formedBeamIq + static_cast<int64_t>(thread) * kMaxBeams * kProductColumns;
}
}  // namespace

int32_t dealtBlock(int32_t j, int32_t count, int32_t team) {
    if (team < 2) return j;
    const int32_t round = j / team;
    const int32_t pos = j % team;
    // Odd rounds run backwards, unless the round is the last and not full.
    if (round % 2 == 1 && (round + 1) * team <= count) return round * team + team - 1 - pos;
    return j;
}

int32_t productBlockCount(int32_t m, int32_t n) {
    if (m < 1 || n < 1) return 0;
    if (n >= 2 * kProductColumns) return (n + kProductColumns - 1) / kProductColumns;
    return (m + kProductRows - 1) / kProductRows;
}

void productBlock(int32_t block, int32_t m, int32_t n, int32_t k, const cfloat* a, int32_t lda,
                  const cfloat* b, int32_t ldb, cfloat* c, int32_t ldc) {
    if (m < 1 || n < 1 || k < 1) return;
    int32_t row0 = 0, rows = m, col0 = 0, cols = n;
    if (n >= 2 * kProductColumns) {
        col0 = block * kProductColumns;
        cols = n - col0 < kProductColumns ? n - col0 : kProductColumns;
    } else {
        row0 = block * kProductRows;
        rows = m - row0 < kProductRows ? m - row0 : kProductRows;
    }
    if (rows < 1 || cols < 1) return;
    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
    cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, rows, cols, k, one,
                a + static_cast<int64_t>(row0) * lda, lda, b + col0, ldb, zero,
                c + static_cast<int64_t>(row0) * ldc + col0, ldc);
}

void interpolateRoll(float* segmentRollLocal, int32_t segmentCount, const float* rollAngle,
                     const int32_t* rollTime, int32_t rollCount, int32_t pingTime,
                     float* lastRollAngle, float* lastRollTime) {
    // Entry 0 is the last sample of the previous ping's table, entries 1 to
    // rollCount this ping's. The table is cleared first, so entries past
    // rollCount (reachable through the segment-indexed branch below) read 0.0.
    float rollValues[101] = {};
    float rollTimes[101] = {};
    rollValues[0] = *lastRollAngle;
    rollTimes[0] = *lastRollTime;
    const int32_t count = rollCount > 100 ? 100 : rollCount;
    for (int32_t j = 0; j < count; ++j) {
        rollValues[j + 1] = rollAngle[j];
        rollTimes[j + 1] = static_cast<float>(rollTime[j]);
    }
    const int32_t segments = segmentCount > 100 ? 100 : segmentCount;
    for (int32_t k = 0; k < segments; ++k) {
        const float t = static_cast<float>(pingTime) + 10.0f * static_cast<float>(k);
        float roll = 0.0f;  // later than every sample: no extrapolation, no hold
        for (int32_t j = 0; j < count; ++j) {
            if (rollTimes[j + 1] > t) {
                const float slope =
                    (rollValues[j + 1] - rollValues[j]) / (rollTimes[j + 1] - rollTimes[j]);
                roll = std::fma(slope, t - rollTimes[j], rollValues[j]);
                break;
            }
            if (rollTimes[j] == t) {
                // Indexed with the segment, not with the table position: this is
                // the rule (reached only with repeated or falling times).
                roll = rollValues[k];
                break;
            }
        }
        segmentRollLocal[k] = roll;
    }
    // A negative count has no last sample of its own: the retained sample then
    // stays as it was, like a count of 0.
    if (count >= 0) {
        *lastRollAngle = rollValues[count];
        *lastRollTime = rollTimes[count];
    }
}

float formBeams(KVaneParams* params, KVaneResult* result, const float* beamAngles,
                const double* beamAnglesDouble, int32_t n, const BeamformingIo* io) {
    const int32_t B = params->beamCount;
    const float soundSpeed = params->soundSpeed;
    if (B < 1 || B > kMaxBeams || n > kMaxSamples) return 0.0f;
    const double phaseScale = kPhaseConstant / static_cast<double>(soundSpeed);

    // All the work of this step is shared by the one thread team, the matrix
    // library running single-threaded inside it: one set of threads, not two
    // competing for the cores. Every block of work is the same computation
    // whichever thread does it, so no result depends on the team's size. The
    // library's own setting is restored at the end.
    const int savedThreads = matrixThreads();
    setMatrixThreads(1);

    // The narrow-band correlator (correlateSubAperturesNarrowBand) is not run on
    // either path: the sectioned correlator follows it on the same output block
    // and replaces every sample it would write, so no result depends on it.
    const bool image = io->beamImage != nullptr;
    const float clipRatio = params->clipRatio;
    if (params->rollCount == 1) {
        if (n >= 1) {
            // The split-aperture products first, so that the image, made
            // last, is still in the cache for the pictures drawn from it.
            if (!io->splitLater)
                correlateSubAperturesSectioned(io->rawChannels, n, kChannels, 0.0f, soundSpeed,
                                               beamAngles, B, io->splitBeamIq, &io->split);
            // Steering rows, then the beam sums over the product's fixed grid
            // of blocks. Blocks of columns are turned into the image right
            // away, from a block of the thread's own that stays in its cache
            // (formedBeamIq is then not kept: only the image reads it); with
            // blocks of rows (short pings) the image follows.
            const int32_t blocks = productBlockCount(B, n);
            const bool byColumns = n >= 2 * kProductColumns;
            const bool wedge = image && io->wedge != nullptr;
            // The fan picture of the samples start..start + count - 1.
            auto drawPiece = [&](int32_t start, int32_t count) {
                if (wedge)
                    drawWedgeSamples(*io->wedge, io->beamImage, io->imageGain, io->displayImage,
                                     start, count);
            };
            const int32_t tiles = (n + kProductColumns - 1) / kProductColumns;
            // The image of columns k * 256 to k * 256 + 255.
            auto conditionBlock = [&](int32_t k) {
                const int32_t col0 = k * kProductColumns;
                const int32_t cols = n - col0 < kProductColumns ? n - col0 : kProductColumns;
                conditionBeamColumns(io->beamImage, io->formedBeamIq + col0, n, B, n, clipRatio,
                                     col0, cols);
            };
            // Each thread times its share of the blocks (see noteTeamShares).
            double shares[kTeamCapacity] = {-1.0, -1.0, -1.0};
            int team = 1;
#pragma omp parallel num_threads(teamSize())
            {
                // Groups of 16 rows of the steering matrix shared by the team.
#pragma omp for schedule(static)
                for (int32_t g = 0; g < (B + 15) / 16; ++g)
                    steeringRows(io->steerMatrix + static_cast<int64_t>(16 * g) * kChannels,
                                 beamAnglesDouble + 16 * g, std::min(16, B - 16 * g), 0.0,
                                 phaseScale);
                const int thread = omp_get_thread_num();
                cfloat* own = beamBlockOf(io->formedBeamIq, thread);
                TeamShareClock clock;
                clock.start();
                const int32_t members = omp_get_num_threads();
#pragma omp for schedule(static, 1) nowait
                for (int32_t j = 0; j < blocks; ++j) {
                    const int32_t k = dealtBlock(j, blocks, members);
                    if (image && byColumns) {
                        const int32_t col0 = k * kProductColumns;
                        const int32_t cols = n - col0 < kProductColumns ? n - col0 : kProductColumns;
                        const float one[2] = {1.0f, 0.0f};
                        const float zero[2] = {0.0f, 0.0f};
                        cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, B, cols, kChannels,
                                    one, io->steerMatrix, kChannels, io->filteredChannels + col0, n,
                                    zero, own, cols);
                        conditionBeamColumns(io->beamImage, own, cols, B, n, clipRatio, col0,
                                             cols);
                        drawPiece(col0, cols);
                    } else {
                        productBlock(k, B, n, kChannels, io->steerMatrix, kChannels,
                                     io->filteredChannels, n, io->formedBeamIq, n);
                    }
                }
                if (thread < kTeamCapacity) shares[thread] = clock.stop();
                if (thread == 0) team = omp_get_num_threads();
                if (image && !byColumns) {
#pragma omp barrier
#pragma omp for schedule(static)
                    for (int32_t k = 0; k < tiles; ++k) {
                        conditionBlock(k);
                        drawPiece(k * kProductColumns, kProductColumns);
                    }
                }
            }
            noteTeamShares(shares, team);
            if (wedge) drawWedgeBorders(*io->wedge, io->beamImage, io->imageGain, io->displayImage,
                                        kProductColumns);
        }
        setMatrixThreads(savedThreads);
        return 0.0f;
    }

    // Segmented path. An out-of-range count is written back as 1; this ping
    // stays segmented with that single sample.
    int32_t rollCount = params->rollCount;
    if (rollCount > 100 || rollCount < -100) {
        params->rollCount = 1;
        rollCount = 1;
    }
    const int32_t segments = n > 0 ? segmentCountOf(n) : 0;
    float segmentRollLocal[100] = {};
    interpolateRoll(segmentRollLocal, segments, params->rollAngle, params->rollTime, rollCount,
                    params->pingTime, io->lastRollAngle, io->lastRollTime);
    std::memcpy(result->segmentRoll, segmentRollLocal, sizeof segmentRollLocal);

    // The team shares whole segments. A thread takes a segment from start to
    // end: steers the fan by the segment's roll, and forms its beams, their
    // image and its split-aperture products, reading the segment's columns of
    // the channels and writing its columns of the ping's rows in place.
    // Segments own disjoint columns, and each thread steers into a matrix of
    // its own (so steerMatrix is not used on this path).
    // Each thread times its share of the segments (see noteTeamShares).
    double shares[kTeamCapacity] = {-1.0, -1.0, -1.0};
    int team = 1;
#pragma omp parallel num_threads(teamSize())
    {
        const int thread = omp_get_thread_num();
        const SplitThreadStore store = splitThreadStore(&io->split, thread);
        // The thread's own steering matrix, B x 64 (128 KB of stack).
        cfloat steer[kMaxBeams * kChannels];
        TeamShareClock clock;
        clock.start();
        const int32_t members = omp_get_num_threads();
#pragma omp for schedule(static, 1) nowait
        for (int32_t j = 0; j < segments; ++j) {
            const int32_t s = dealtBlock(j, segments, members);
            const int32_t start = s * kSegmentLength;
            const int32_t len = n - start < kSegmentLength ? n - start : kSegmentLength;
            const double roll = static_cast<double>(segmentRollLocal[s]);
            steeringRows(steer, beamAnglesDouble, B, roll, phaseScale);
            const float one[2] = {1.0f, 0.0f};
            const float zero[2] = {0.0f, 0.0f};
            if (image) {
                // The segment's beams in a block of the thread's own, in its
                // cache until their image is made.
                cfloat* own = beamBlockOf(io->formedBeamIq, omp_get_thread_num());
                cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, B, len, kChannels, one,
                            steer, kChannels, io->filteredChannels + start, n, zero, own, len);
                conditionBeamColumns(io->beamImage, own, len, B, n, clipRatio, start, len);
                if (io->wedge != nullptr)
                    drawWedgeSamples(*io->wedge, io->beamImage, io->imageGain, io->displayImage,
                                     start, len);
            } else {
                cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, B, len, kChannels, one,
                            steer, kChannels, io->filteredChannels + start, n, zero,
                            io->formedBeamIq + start, n);
            }
            if (!io->splitLater)
                correlateSubAperturesSectionedOnThread(io->rawChannels + start, len, n,
                                                       segmentRollLocal[s], soundSpeed, beamAngles,
                                                       B, io->splitBeamIq + start, n, &store);
        }
        if (thread < kTeamCapacity) shares[thread] = clock.stop();
        if (thread == 0) team = omp_get_num_threads();
    }
    noteTeamShares(shares, team);
    setMatrixThreads(savedThreads);
    if (image && io->wedge != nullptr)
        drawWedgeBorders(*io->wedge, io->beamImage, io->imageGain, io->displayImage,
                         kSegmentLength);
    // The tracker sees the roll of the last segment (with no segment, the
    // host's first roll sample).
    return segments > 0 ? segmentRollLocal[segments - 1] : params->rollAngle[0];
}

void formSplitProducts(const KVaneParams* params, bool segmented, const KVaneResult* result,
                       const float* beamAngles, int32_t n, const BeamformingIo* io,
                       const SampleWindows& needed) {
    const int32_t B = params->beamCount;
    if (B < 1 || B > kMaxBeams || n < 1 || n > kMaxSamples) return;
    const float soundSpeed = params->soundSpeed;
    if (!segmented) {
        correlateSubAperturesSectioned(io->rawChannels, n, kChannels, 0.0f, soundSpeed, beamAngles,
                                       B, io->splitBeamIq, &io->split, &needed);
        return;
    }
    // Segmented: each segment is a ping of its own to the correlator, steered
    // by its roll; only the segments and their sections that form a needed
    // sample run.
    const int32_t segments = segmentCountOf(n);
    uint8_t flags[kSplitSections * kMaxSegments];
    splitBlocksNeeded(flags, needed, B, n, kSegmentLength);
    int32_t list[kMaxSegments];
    uint8_t sectionFlags[kMaxSegments][kSplitSections];
    int32_t count = 0;
    for (int32_t s = 0; s < segments; ++s) {
        bool any = false;
        for (int32_t k = 0; k < kSplitSections; ++k) {
            sectionFlags[s][k] = flags[k * segments + s];
            any = any || sectionFlags[s][k] != 0;
        }
        if (any) list[count++] = s;
    }
    if (count == 0) return;
    const int savedThreads = matrixThreads();
    setMatrixThreads(1);
#pragma omp parallel num_threads(teamSize())
    {
        const SplitThreadStore store = splitThreadStore(&io->split, omp_get_thread_num());
#pragma omp for schedule(static, 1)
        for (int32_t j = 0; j < count; ++j) {
            const int32_t s = list[j];
            const int32_t start = s * kSegmentLength;
            const int32_t len = n - start < kSegmentLength ? n - start : kSegmentLength;
            correlateSubAperturesSectionedOnThread(io->rawChannels + start, len, n,
                                                   result->segmentRoll[s], soundSpeed, beamAngles,
                                                   B, io->splitBeamIq + start, n, &store,
                                                   sectionFlags[s]);
        }
    }
    setMatrixThreads(savedThreads);
}

}  // namespace kvane
