// correlateSubAperturesSectioned.cpp - the split-aperture product of every
// beam: three overlapping 32-element sub-apertures (elements 0, 16, 32), each
// beam formed per sub-aperture, neighbours multiplied by each other's
// conjugate. The fan is cut into 15 sections; for each the channels are
// aligned in time for the section's centre beam (whole-sample shift plus a
// 5-tap fractional delay), so that only the small residue between the centre
// beam and the section's other beams is left to the phase shift.
#include <cblas.h>
#include <omp.h>

#include <cmath>
#include <cstring>

#include "frontend.h"

namespace kvane {
namespace {

// Sub-aperture taper, entries 0 to 15; 16 to 31 mirror them. The end weight
// above its neighbour is part of the design (equal-ripple window).
constexpr float kSubApertureTaperHalf[16] = {
    0.4438836f, 0.2433151f, 0.3035482f, 0.3683799f, 0.4367064f, 0.5072329f,
    0.5785091f, 0.6489719f, 0.7169954f, 0.7809441f, 0.8392290f, 0.8903624f,
    0.9330113f, 0.9660454f, 0.9885782f, 1.0000000f};

inline float subApertureTaper(int32_t i) { return kSubApertureTaperHalf[i < 16 ? i : 31 - i]; }

// Row k holds the coefficients of d^k of the five taps of the delay filter.
constexpr double kFractionalDelayTable[6][5] = {
    {-3.50803037118889e-07, 1.35685515640371e-06, 0.999997987032676, 1.35685520930121e-06,
     -3.50803066878865e-07},
    {0.0909829233360522, -0.681326112536417, 3.66333144794981e-11, 0.681326112486201,
     -0.0909829233223881},
    {-0.0447457301412817, 0.67858047854356, -1.26767694842714, 0.678580478543843,
     -0.044745730141441},
    {-0.0929638220292721, 0.185120423780519, -1.69894211645447e-09, -0.185120421451633,
     0.0929638213954753},
    {0.0452701109953302, -0.180608862361248, 0.270686240111911, -0.180608862363717,
     0.0452701109967203},
    {0.00199182889609306, -0.0038149654002863, 6.31901447807196e-09, 0.0038149567382984,
     -0.00199182653877037}};

// Degrees per radian as stored in single precision.
constexpr float kDegreesPerRadian = 57.29578f;
// 2 pi * 200 kHz * 3.75 mm (m/s): phase step between neighbouring elements,
// over the sound speed, times sin(angle).
constexpr float kPhaseConstant = -4712.389f;
// 3.75 mm * 20000 samples/s (m/s): delay step between neighbouring elements in
// samples, over the sound speed, times sin(angle).
constexpr float kDelayConstant = -75.0f;

// z[t] = sum over j of h[j] * input[t - j] on m interleaved floats (a complex
// sample is two floats, so the input steps by 2).
KVANE_LOOP_BODY void delayFilter(float* zf, const float* qf, const float* h, int32_t m) {
    const float h0 = h[0], h1 = h[1], h2 = h[2], h3 = h[3], h4 = h[4];
    for (int32_t u = 0; u < m; ++u)
        zf[u] = h0 * qf[u + 8] + h1 * qf[u + 6] + h2 * qf[u + 4] + h3 * qf[u + 2] + h4 * qf[u];
}
KVANE_AVX2 void delayFilterAvx2(float* zf, const float* qf, const float* h, int32_t m) {
    delayFilter(zf, qf, h, m);
}

// Samples [t0, t0 + w) of channel ch of the block, aligned for a beam whose
// delay at this channel is shift + fraction samples: advanced by the whole
// shift, then delayed by -fraction through the 5-tap filter centred on tap 2.
//
// The shifted row holds x[k + shift] where both k and k + shift lie in
// 0..n-1 and zeros elsewhere; the filter reads it from position 2 on, sees
// nothing before that position, and reads zeros for the two samples past the
// row's end. Zeros at both places make each channel's result depend on its
// own samples only (not on the thread count or on the previous channel), and
// every output sample the same whichever block of samples it is formed in.
// q is scratch of w + 4 samples: q[i] is the filter's input sample t0 - 4 + i.
void alignChannel(cfloat* aligned, const cfloat* x, int32_t n, int32_t shift, const float* h,
                  int32_t t0, int32_t w, cfloat* q) {
    // A shift beyond the row leaves nothing of it (and a shift from a
    // non-finite delay arrives as the most negative integer): clamp it first.
    if (shift > n) shift = n;
    if (shift < -n) shift = -n;
    // Filter input i is row position 2 + i, i.e. x[i + 2 + shift], for i in
    // [lo, hi); zero elsewhere.
    int32_t lo = -2 - shift;
    if (lo < 0) lo = 0;
    int32_t hi = n - 2;
    if (n - 2 - shift < hi) hi = n - 2 - shift;
    // The part of [lo, hi) this block reads: inputs t0 - 4 to t0 + w - 1.
    // Inside the row the filter reads the channel where it lies; only a
    // block that reaches an end of the row goes through the zero-padded copy.
    const int32_t from = lo > t0 - 4 ? lo : t0 - 4;
    const int32_t to = hi < t0 + w ? hi : t0 + w;
    const float* qf = reinterpret_cast<const float*>(q);
    if (from == t0 - 4 && to == t0 + w) {
        qf = reinterpret_cast<const float*>(x + (t0 - 4) + 2 + shift);
    } else if (to > from) {
        std::memset(q, 0, sizeof(cfloat) * static_cast<std::size_t>(from - (t0 - 4)));
        std::memcpy(q + (from - (t0 - 4)), x + from + 2 + shift,
                    sizeof(cfloat) * static_cast<std::size_t>(to - from));
        std::memset(q + (to - (t0 - 4)), 0, sizeof(cfloat) * static_cast<std::size_t>(t0 + w - to));
    } else {
        std::memset(q, 0, sizeof(cfloat) * static_cast<std::size_t>(w + 4));
    }

    float* zf = reinterpret_cast<float*>(aligned);
    if (cpuHasAvx2())
        delayFilterAvx2(zf, qf, h, 2 * w);
    else
        delayFilter(zf, qf, h, 2 * w);
}

}  // namespace

void splitSections(SplitSection* sections, int32_t beamCount) {
    // Borders counted from 1: 1 + i * (B - 1) / 15 rounded half away from zero,
    // the last one B itself. A border beam belongs to two sections; the later
    // one's result stands.
    float edges[kSplitSections + 1];
    const float slope = static_cast<float>(beamCount - 1) / 15.0f;
    for (int32_t i = 0; i < kSplitSections; ++i)
        edges[i] = roundHalfAway(1.0f + static_cast<float>(i) * slope);
    edges[kSplitSections] = static_cast<float>(beamCount);
    for (int32_t s = 0; s < kSplitSections; ++s) {
        const int32_t first = static_cast<int32_t>(edges[s]);
        const int32_t last = static_cast<int32_t>(edges[s + 1]);
        sections[s] = SplitSection{first, last, (first + last) / 2 - 1};
    }
}

void fractionalDelayTaps(float* taps, double d) {
    // A delay of exactly 0 is taken as 1e-15: the filter is then the unit
    // impulse at tap 2 within about 2e-6 (the design's residue at d = 0).
    if (d == 0.0) d = 1e-15;
    // The powers of d by repeated multiplication: within a few units of the
    // 16th digit of pow(d, k), far below the single precision of the taps.
    double acc[5];
    for (int32_t j = 0; j < 5; ++j) acc[j] = kFractionalDelayTable[0][j];
    double dk = 1.0;
    for (int32_t k = 1; k <= 5; ++k) {
        dk *= d;
        for (int32_t j = 0; j < 5; ++j) acc[j] = acc[j] + kFractionalDelayTable[k][j] * dk;
    }
    double sum = 0.0;
    for (int32_t j = 0; j < 5; ++j) sum += acc[j];
    // Unit gain at zero frequency; the division is a multiplication by the
    // reciprocal of the sum.
    const double scale = 1.0 / sum;
    for (int32_t j = 0; j < 5; ++j) taps[j] = static_cast<float>(acc[j] * scale);
}

namespace {

// The running sum starts from a cleared buffer (0 + first product), then
// takes the second product; the mean of the two is half the sum. Written on
// the interleaved floats so that the loop vectorises.
KVANE_LOOP_BODY void closeProducts(cfloat* out, const cfloat* low, const cfloat* mid, const cfloat* high,
                          int64_t count) {
    float* __restrict o = reinterpret_cast<float*>(out);
    const float* __restrict a = reinterpret_cast<const float*>(low);
    const float* __restrict b = reinterpret_cast<const float*>(mid);
    const float* __restrict c = reinterpret_cast<const float*>(high);
    for (int64_t i = 0; i < count; ++i) {
        const float ar = a[2 * i], ai = a[2 * i + 1];
        const float br = b[2 * i], bi = b[2 * i + 1];
        const float cr = c[2 * i], ci = c[2 * i + 1];
        const float p1re = ar * br + ai * bi;  // low * conj(mid)
        const float p1im = ai * br - ar * bi;
        const float p2re = br * cr + bi * ci;  // mid * conj(high)
        const float p2im = bi * cr - br * ci;
        o[2 * i] = 0.5f * ((0.0f + p1re) + p2re);
        o[2 * i + 1] = 0.5f * ((0.0f + p1im) + p2im);
    }
}
KVANE_AVX2 void closeProductsAvx2(cfloat* out, const cfloat* low, const cfloat* mid,
                                  const cfloat* high, int64_t count) {
    closeProducts(out, low, mid, high, count);
}

}  // namespace

void closeSplitCorrelation(cfloat* out, const cfloat* low, const cfloat* mid,
                           const cfloat* high, int64_t count) {
    if (cpuHasAvx2())
        closeProductsAvx2(out, low, mid, high, count);
    else
        closeProducts(out, low, mid, high, count);
}

namespace {

constexpr int32_t kElements = 64;

// What one call shares with the threads that work its sections.
struct SectionPlan {
    const cfloat* channels;
    int32_t n;
    int64_t channelStride;  // between channel rows
    int64_t outStride;      // between output rows
    const float* sinAngle;
    const float* phaseRow;
    const float* delayRow;
    SplitSection sections[kSplitSections];
    cfloat* out;
};

// Section s:
// 1. each channel's alignment for the centre beam: whole shift floor(delay +
//    0.5), the fraction in -0.5..0.5 taken by the filter as a delay of
//    -fraction;
// 2. the section's steering exp(j phase), element by beam (the steering
//    rows of its beams, transposed), weighted by the taper of each of the
//    three sub-apertures. The steering phase uses the absolute element
//    index, so all three sub-apertures refer to element 0.
//
// A ping with the same length, fan and sound speed as the one that made the
// setup keeps it: the same inputs would give the same contents.
void setUpSection(const SectionPlan& p, int32_t s, SplitSectionSetup* setup) {
    const SplitSection& sec = p.sections[s];
    int32_t beams = sec.last - sec.first + 1;
    if (beams > kMaxSectionBeams) beams = kMaxSectionBeams;
    const int32_t n = p.n;
    const float centreSin = p.sinAngle[sec.centreBeam];

    SplitSectionKey key;
    std::memset(&key, 0, sizeof key);
    key.n = n;
    key.first = sec.first;
    key.last = sec.last;
    key.centreBeam = sec.centreBeam;
    key.centreSin = centreSin;
    for (int32_t b = 0; b < beams; ++b) key.sinAngle[b] = p.sinAngle[sec.first - 1 + b];
    std::memcpy(key.phaseRow, p.phaseRow, sizeof key.phaseRow);
    std::memcpy(key.delayRow, p.delayRow, sizeof key.delayRow);
    if (setup->keyed == 1 && setup->section == s && setup->beams == beams &&
        std::memcmp(&setup->key, &key, sizeof key) == 0)
        return;
    setup->keyed = 0;
    setup->section = s;
    setup->beams = beams;
    for (int32_t ch = 0; ch < kElements; ++ch) {
        const float delay = centreSin * p.delayRow[ch];
        const float whole = std::floor(delay + 0.5f);
        const float fraction = delay - whole;
        fractionalDelayTaps(setup->taps[ch], -static_cast<double>(fraction));
        // Whole shifts beyond the row are clamped to it; a non-finite delay
        // (no usable sound speed) shifts nothing.
        int32_t shift = 0;
        if (whole >= static_cast<float>(n)) shift = n;
        else if (whole <= -static_cast<float>(n)) shift = -n;
        else if (whole == whole) shift = static_cast<int32_t>(whole);
        setup->shift[ch] = shift;
    }

    cfloat steering[kElements * kMaxSectionBeams];
    for (int32_t e = 0; e < kElements; ++e)
        for (int32_t b = 0; b < beams; ++b) {
            const float phase = p.sinAngle[sec.first - 1 + b] * p.phaseRow[e];
            steering[e * beams + b] = cfloat{std::cos(phase), std::sin(phase)};
        }
    for (int32_t a = 0; a < 3; ++a)
        for (int32_t i = 0; i < 32; ++i) {
            const float t = subApertureTaper(i);
            const cfloat* from = steering + (16 * a + i) * beams;
            cfloat* to = setup->weights[a] + i * beams;
            for (int32_t b = 0; b < beams; ++b) to[b] = cfloat{from[b].re * t, from[b].im * t};
        }
    setup->key = key;
    setup->keyed = 1;
}

// Samples [t0, t0 + w) of the section set up in `setup`, on one thread:
// 1. the 64 channels aligned;
// 2. the three sub-aperture products, subBeam[b][t] = sum over the 32
//    elements of weight[i][b] * aligned[16a + i][t];
// 3. the closing of the beams that no later section covers: all but the
//    border beam, which belongs to the next section too and whose result is
//    the next section's (the last section closes all of its beams).
// A block fits the thread's cache, so its aligned channels and sub-beams are
// read back from there.
void runSectionBlock(const SectionPlan& p, const SplitSectionSetup& setup, int32_t t0, int32_t w,
                     const SplitThreadStore& store) {
    const SplitSection& sec = p.sections[setup.section];
    const int32_t n = p.n;
    const int32_t beams = setup.beams;
    for (int32_t ch = 0; ch < kElements; ++ch)
        alignChannel(store.aligned + static_cast<int64_t>(ch) * w,
                     p.channels + ch * p.channelStride, n, setup.shift[ch],
                     setup.taps[ch], t0, w, store.scratchRow);

    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
    for (int32_t a = 0; a < 3; ++a)
        cblas_cgemm(CblasRowMajor, CblasTrans, CblasNoTrans, beams, w, 32, one,
                    setup.weights[a], beams, store.aligned + static_cast<int64_t>(16 * a) * w, w,
                    zero, store.subBeams[a], w);

    const int32_t end = setup.section == kSplitSections - 1 ? sec.last : sec.last - 1;
    for (int32_t r = 0; r < end - (sec.first - 1); ++r) {
        const int64_t row = static_cast<int64_t>(r) * w;
        closeSplitCorrelation(p.out + (sec.first - 1 + r) * p.outStride + t0,
                              store.subBeams[0] + row, store.subBeams[1] + row,
                              store.subBeams[2] + row, w);
    }
}

// The per-call tables of the fan: sin(angle) per beam and the phase and
// delay steps per element, all in single precision. phase[b][e] =
// sin(angle_b) * e * 4712.389 / c and delay[b][e] = sin(angle_b) * e * 75 / c
// samples (the ramp -e cancels the negative constants).
struct FanTables {
    float sinAngle[256];
    float phaseRow[kElements];
    float delayRow[kElements];
};

void prepare(SectionPlan* p, FanTables* f, const cfloat* channelBlock, int32_t n,
             float angleOffset, float soundSpeed, const float* beamAngles, int32_t B,
             cfloat* splitCorrelation) {
    const float toRadians = 1.0f / kDegreesPerRadian;
    for (int32_t b = 0; b < B; ++b)
        f->sinAngle[b] = std::sin((beamAngles[b] + angleOffset) * toRadians);
    const float phaseStep = kPhaseConstant / soundSpeed;
    const float delayStep = kDelayConstant / soundSpeed;
    for (int32_t e = 0; e < kElements; ++e) {
        const float ramp = -static_cast<float>(e);
        f->phaseRow[e] = ramp * phaseStep;
        f->delayRow[e] = ramp * delayStep;
    }
    p->channels = channelBlock;
    p->n = n;
    p->channelStride = n;
    p->outStride = n;
    p->sinAngle = f->sinAngle;
    p->phaseRow = f->phaseRow;
    p->delayRow = f->delayRow;
    p->out = splitCorrelation;
    splitSections(p->sections, B);
}

inline int32_t blockCountOf(int32_t n) { return (n + kSplitBlockSamples - 1) / kSplitBlockSamples; }

// The longest ping the correlator takes.
constexpr int32_t kMaxPingSamples = 8000;

}  // namespace

SplitThreadStore splitThreadStore(const SplitScratch* scratch, int32_t thread) {
    const int64_t aligned = static_cast<int64_t>(kElements) * kSplitBlockSamples;
    const int64_t subBeams = static_cast<int64_t>(kMaxSectionBeams) * kSplitBlockSamples;
    SplitThreadStore store;
    store.aligned = scratch->alignedChannels + thread * aligned;
    store.scratchRow = scratch->alignScratch + thread * (kSplitBlockSamples + 8);
    store.subBeams[0] = scratch->subBeamLow + thread * subBeams;
    store.subBeams[1] = scratch->subBeamMid + thread * subBeams;
    store.subBeams[2] = scratch->subBeamHigh + thread * subBeams;
    return store;
}

void splitBlocksNeeded(uint8_t* flags, const SampleWindows& needed, int32_t beamCount,
                       int32_t sampleCount, int32_t blockLength) {
    if (sampleCount < 1 || blockLength < 1 || beamCount < 1 || beamCount > 256) return;
    const int32_t blocks = (sampleCount + blockLength - 1) / blockLength;
    std::memset(flags, 0, static_cast<std::size_t>(kSplitSections) * static_cast<std::size_t>(blocks));
    // Each section closes its beams but the border beam that the next one
    // closes; the last section closes all of its beams (runSectionBlock).
    SplitSection sections[kSplitSections];
    splitSections(sections, beamCount);
    int32_t closer[256];
    for (int32_t b = 0; b < 256; ++b) closer[b] = -1;
    for (int32_t s = 0; s < kSplitSections; ++s) {
        const SplitSection& sec = sections[s];
        const int32_t end = s == kSplitSections - 1 ? sec.last : sec.last - 1;
        for (int32_t b = sec.first - 1; b < end; ++b)
            if (b >= 0 && b < beamCount) closer[b] = s;
    }
    const int32_t rows = needed.rows < beamCount ? needed.rows : beamCount;
    for (int32_t b = 0; b < rows; ++b) {
        if (closer[b] < 0) continue;
        uint8_t* row = flags + static_cast<std::size_t>(closer[b]) * static_cast<std::size_t>(blocks);
        const int32_t count = needed.count[b] < kMaxRowWindows ? needed.count[b] : kMaxRowWindows;
        for (int32_t w = 0; w < count; ++w) {
            const int32_t first = needed.first[b][w] < 0 ? 0 : needed.first[b][w];
            const int32_t last =
                needed.last[b][w] > sampleCount - 1 ? sampleCount - 1 : needed.last[b][w];
            for (int32_t k = first / blockLength; first <= last && k <= last / blockLength; ++k)
                row[k] = 1;
        }
    }
}

void correlateSubAperturesSectionedOnThread(const cfloat* channelBlock, int32_t sampleCount,
                                            int64_t channelStride, float angleOffset,
                                            float soundSpeed, const float* beamAngles,
                                            int32_t beamCount, cfloat* splitCorrelation,
                                            int64_t outStride, const SplitThreadStore* store,
                                            const uint8_t* sectionNeeded) {
    if (sampleCount < 1 || beamCount < 1 || beamCount > 256 || sampleCount > 8000) return;
    SectionPlan p{};
    FanTables f;
    prepare(&p, &f, channelBlock, sampleCount, angleOffset, soundSpeed, beamAngles, beamCount,
            splitCorrelation);
    p.channelStride = channelStride;
    p.outStride = outStride;
    SplitSectionSetup setup;
    const int32_t blocks = blockCountOf(sampleCount);
    for (int32_t s = 0; s < kSplitSections; ++s) {
        if (sectionNeeded != nullptr && sectionNeeded[s] == 0) continue;
        setUpSection(p, s, &setup);
        for (int32_t k = 0; k < blocks; ++k) {
            const int32_t t0 = k * kSplitBlockSamples;
            const int32_t w = sampleCount - t0 < kSplitBlockSamples ? sampleCount - t0
                                                                    : kSplitBlockSamples;
            runSectionBlock(p, setup, t0, w, *store);
        }
    }
}

void correlateSubAperturesSectioned(const cfloat* channelBlock, int32_t sampleCount,
                                    int32_t channelCount, float angleOffset, float soundSpeed,
                                    const float* beamAngles, int32_t beamCount,
                                    cfloat* splitCorrelation, const SplitScratch* scratch,
                                    const SampleWindows* needed) {
    (void)channelCount;  // the array has 64 elements, whatever the caller says
    const int32_t n = sampleCount;
    if (n < 1 || beamCount < 1 || beamCount > 256 || n > 8000) return;
    SectionPlan p{};
    FanTables f;
    prepare(&p, &f, channelBlock, n, angleOffset, soundSpeed, beamAngles, beamCount,
            splitCorrelation);

    // The team sets up the 15 sections, then shares a fixed grid of work:
    // the ping cut into blocks of kSplitBlockSamples samples, each block
    // worked for all 15 sections in turn while its channels stay in the
    // thread's cache. Each block is the same arithmetic whichever thread runs
    // it, on storage of that thread's own, with the matrix library on one
    // thread: no result depends on the team's size. The library's setting
    // comes back at the end.
    //
    // With `needed`, the grid keeps only its items that form a needed
    // sample, in the same order, and only the sections with an item are set up.
    const int32_t blocks = blockCountOf(n);
    uint8_t flags[kSplitSections * ((kMaxPingSamples + kSplitBlockSamples - 1) / kSplitBlockSamples)];
    if (needed != nullptr) splitBlocksNeeded(flags, *needed, beamCount, n, kSplitBlockSamples);
    int32_t items[sizeof flags];
    int32_t itemCount = 0;
    uint8_t sectionUsed[kSplitSections] = {};
    for (int32_t i = 0; i < kSplitSections * blocks; ++i) {
        const int32_t s = i % kSplitSections;
        if (needed != nullptr && flags[s * blocks + i / kSplitSections] == 0) continue;
        items[itemCount++] = i;
        sectionUsed[s] = 1;
    }
    int32_t sectionList[kSplitSections];
    int32_t sectionCount = 0;
    for (int32_t s = 0; s < kSplitSections; ++s)
        if (sectionUsed[s]) sectionList[sectionCount++] = s;
    if (itemCount == 0) return;
    SplitSectionSetup* setups = scratch->sectionSetups;
    const int savedThreads = matrixThreads();
    setMatrixThreads(1);
#pragma omp parallel num_threads(teamSize())
    {
        const SplitThreadStore store = splitThreadStore(scratch, omp_get_thread_num());
#pragma omp for schedule(static)
        for (int32_t j = 0; j < sectionCount; ++j)
            setUpSection(p, sectionList[j], setups + sectionList[j]);
#pragma omp for schedule(static)
        for (int32_t j = 0; j < itemCount; ++j) {
            const int32_t i = items[j];
            const int32_t s = i % kSplitSections;
            const int32_t t0 = (i / kSplitSections) * kSplitBlockSamples;
            const int32_t w = n - t0 < kSplitBlockSamples ? n - t0 : kSplitBlockSamples;
            runSectionBlock(p, setups[s], t0, w, store);
        }
    }
    setMatrixThreads(savedThreads);
}

}  // namespace kvane
