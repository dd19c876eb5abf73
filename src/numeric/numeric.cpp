// numeric.cpp - the shared plain operations, over OpenBLAS and OpenMP.
#include "numeric.h"
#include "transpose8.h"

#include <cblas.h>
#include <immintrin.h>
#include <omp.h>
#include <sched.h>
#include <sys/mman.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kvane {

namespace {

// The cores the process may run on, read at each ping's start.
int allowedCores = 0;
// One thread while other work holds the cores; the countdown to the next
// try of the whole team, and the wait after a failed try.
bool crowded = false;
int pingsUntilTry = 0;
int tryInterval = 16;
constexpr int kLongestTryInterval = 256;
// A share that got less of a core than this was slowed by other work.
constexpr double kWholeCore = 0.8;
// Shares shorter than this are not judged (timer and scheduling noise).
constexpr double kShortestShare = 0.5e-3;

int processCores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 0;
    return CPU_COUNT(&set);
}

double wallSeconds() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

}  // namespace

int teamSize() {
    int t = omp_get_max_threads();
    if (allowedCores > 0 && allowedCores < t) t = allowedCores;
    if (crowded && pingsUntilTry > 0) t = 1;
    return t < kTeamCapacity ? (t < 1 ? 1 : t) : kTeamCapacity;
}

void beginTeamPing() {
    allowedCores = processCores();
    if (crowded && pingsUntilTry > 0) --pingsUntilTry;
}

void TeamShareClock::start() {
    wallStart = wallSeconds();
    cpuStart = threadCpuSeconds();
}

double TeamShareClock::stop() const {
    const double wall = wallSeconds() - wallStart;
    if (wall < kShortestShare) return -1.0;
    return (threadCpuSeconds() - cpuStart) / wall;
}

void noteTeamShares(const double* shares, int team) {
    if (team < 2) return;  // one thread says nothing about the others' cores
    bool judged = false;
    bool slowed = false;
    for (int i = 0; i < team; ++i) {
        if (shares[i] < 0.0) continue;
        judged = true;
        slowed = slowed || shares[i] < kWholeCore;
    }
    if (!judged) return;
    if (slowed) {
        // Wait longer before each further try while the cores stay taken.
        tryInterval = crowded ? std::min(2 * tryInterval, kLongestTryInterval) : 16;
        crowded = true;
        pingsUntilTry = tryInterval;
    } else {
        crowded = false;
        tryInterval = 16;
    }
}

bool cpuHasAvx2() {
    static const bool avx2 = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") != 0;
    }();
    return avx2;
}

void setMatrixThreads(int threads) { openblas_set_num_threads(threads); }

int matrixThreads() { return openblas_get_num_threads(); }

// Workspace buffers come straight from the system as anonymous mappings:
// page-aligned (so 64-byte aligned), reading as zeros, and resident only where
// a ping actually touches them. A 64-byte header in front keeps the size for
// the release.
//
// Buffers of 2 MB and more start on a 2 MB boundary and ask for large pages
// where the system offers them on request: a ping walks the beam-major rows
// and the channels at strides of tens of kilobytes, which with small pages
// costs a translation miss on almost every row, and a first touch costs one
// fault per 2 MB instead of one per 4 KB.
void* alignedAlloc(std::size_t count, std::size_t elemSize) {
    if (count < 1 || elemSize < 1) return nullptr;
    const std::size_t bytes = count * elemSize + 64;
    constexpr std::size_t kLargePage = std::size_t{2} << 20;
    if (bytes < kLargePage) {
        void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) return nullptr;
        *static_cast<std::size_t*>(base) = bytes;
        return static_cast<char*>(base) + 64;
    }
    void* raw = mmap(nullptr, bytes + kLargePage, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t aligned = (start + kLargePage - 1) & ~(kLargePage - 1);
    // The slack before and after the aligned range goes back to the system.
    if (aligned > start) munmap(raw, aligned - start);
    const std::uintptr_t end = start + bytes + kLargePage;
    if (end > aligned + bytes) munmap(reinterpret_cast<void*>(aligned + bytes), end - (aligned + bytes));
    void* base = reinterpret_cast<void*>(aligned);
#ifdef MADV_HUGEPAGE
    madvise(base, bytes, MADV_HUGEPAGE);
#endif
    *static_cast<std::size_t*>(base) = bytes;
    return static_cast<char*>(base) + 64;
}

void makeResident(void* p, std::size_t bytes) {
    if (p == nullptr) return;
    volatile char* bytesOf = static_cast<volatile char*>(p);
    for (std::size_t offset = 0; offset < bytes; offset += 4096) bytesOf[offset] = 0;
    if (bytes > 0) bytesOf[bytes - 1] = 0;
}

void alignedFree(void* p) {
    if (p == nullptr) return;
    void* base = static_cast<char*>(p) - 64;
    munmap(base, *static_cast<std::size_t*>(base));
}

float roundHalfAway(float x) { return std::round(x); }

void transpose(float* out, const float* in, int rows, int cols) {
    if (rows < 1 || cols < 1) return;
    cblas_somatcopy(CblasRowMajor, CblasTrans, rows, cols, 1.0f, in, cols, out, rows);
}

void transpose(cfloat* out, const cfloat* in, int rows, int cols) {
    if (rows < 1 || cols < 1) return;
    const float one[2] = {1.0f, 0.0f};
    cblas_comatcopy(CblasRowMajor, CblasTrans, rows, cols, one,
                    reinterpret_cast<const float*>(in), cols, reinterpret_cast<float*>(out), rows);
}

namespace {

KVANE_LOOP_BODY void magnitudeLoop(float* out, const cfloat* in, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::sqrt(in[i].re * in[i].re + in[i].im * in[i].im);
}
KVANE_AVX2 void magnitudeLoopAvx2(float* out, const cfloat* in, int n) { magnitudeLoop(out, in, n); }

// Window position by window position across outputs: o[i] += base[i * step + k].
KVANE_LOOP_BODY void windowSums(float* o, const float* base, int count, int step, int positions) {
    for (int i = 0; i < count; ++i) o[i] = 0.0f;
    for (int k = 0; k < positions; ++k)
        for (int i = 0; i < count; ++i) o[i] += base[i * step + k];
}
// Other steps, eight outputs at a time: the eight windows are loaded eight
// positions at a time and transposed, so that each lane adds its own window's
// inputs from 0 in position order. The vector part stops where its loads
// would reach past the last input the sums read.
KVANE_AVX2 void windowSumsTransposedAvx2(float* o, const float* base, int count, int step,
                                         int positions) {
    if (positions < 1) {
        windowSums(o, base, count, step, positions);
        return;
    }
    const int64_t lastInput = static_cast<int64_t>(count - 1) * step + positions - 1;
    const int64_t reach = 7 * static_cast<int64_t>(step) + (positions - 1) / 8 * 8 + 7;
    int i = 0;
    for (; i + 8 <= count && static_cast<int64_t>(i) * step + reach <= lastInput; i += 8) {
        const float* p = base + static_cast<std::size_t>(i) * step;
        __m256 sum = _mm256_setzero_ps();
        for (int k0 = 0; k0 < positions; k0 += 8) {
            __m256 r[8];
            for (int l = 0; l < 8; ++l)
                r[l] = _mm256_loadu_ps(p + static_cast<std::size_t>(l) * step + k0);
            transpose8(r);
            const int span = positions - k0 < 8 ? positions - k0 : 8;
            for (int j = 0; j < span; ++j) sum = _mm256_add_ps(sum, r[j]);
        }
        _mm256_storeu_ps(o + i, sum);
    }
    windowSums(o + i, base + static_cast<std::size_t>(i) * step, count - i, step, positions);
}
// For a step of 2 the inputs of one window position for eight outputs are
// every other float of sixteen, taken out of two loads. The vector part stops
// where its loads would reach past the last input the sums read.
KVANE_AVX2 void windowSumsAvx2(float* o, const float* base, int count, int step, int positions) {
    if (step != 2) {
        windowSumsTransposedAvx2(o, base, count, step, positions);
        return;
    }
    int i = 0;
    for (; i + 9 <= count; i += 8) {
        __m256 sum = _mm256_setzero_ps();
        for (int k = 0; k < positions; ++k) {
            const float* p = base + 2 * i + k;
            const __m256 pairs = _mm256_shuffle_ps(_mm256_loadu_ps(p), _mm256_loadu_ps(p + 8), 0x88);
            const __m256 every = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(pairs), 0xd8));
            sum = _mm256_add_ps(sum, every);
        }
        _mm256_storeu_ps(o + i, sum);
    }
    windowSums(o + i, base + 2 * i, count - i, step, positions);
}

}  // namespace

namespace {

// glibc 2.36's single-precision arctangent: atan(0.5), atan(1), atan(1.5),
// atan(inf) in two parts each, and the odd polynomial's coefficients (the
// even-indexed half added, the odd-indexed half subtracted as stored).
constexpr float kAtanHi[4] = {0x1.dac670p-2f, 0x1.921fb4p-1f, 0x1.f730bcp-1f, 0x1.921fb4p+0f};
constexpr float kAtanLo[4] = {0x1.586ed2p-28f, 0x1.4442d0p-25f, 0x1.281f68p-25f, 0x1.4442d0p-24f};
// pi and the low part of pi as the quadrants use them (z - pi_lo is z plus
// this constant).
constexpr float kPi = 0x1.921fb6p+1f;
constexpr float kMinusPiLo = 0x1.777a5cp-24f;

inline uint32_t bitsOf(float v) {
    uint32_t b;
    std::memcpy(&b, &v, sizeof b);
    return b;
}
inline float floatOf(uint32_t b) {
    float v;
    std::memcpy(&v, &b, sizeof v);
    return v;
}

// atan2(y, x) by the library's steps for finite, normal, nonzero y and x,
// x other than 1, |y / x| below 2^61 and, for negative x, above 2^-60 (the
// caller sends every other pair to the library): z = atan(|y / x|) with the
// library's five ranges of |y / x| and its polynomial, then the quadrant.
// Every range is computed and the right one selected, so that the loop
// vectorises; each selected value comes from the same operations in the
// same order as in the library.
KVANE_LOOP_BODY float arcTangent2Lane(float y, float x) {
    const float t = std::fabs(y / x);
    const uint32_t it = bitsOf(t);
    // Reduced arguments of the ranges 7/16..11/16, ..19/16, ..39/16, beyond.
    const float r0 = ((t + t) - 1.0f) / (t + 2.0f);
    const float r1 = (t - 1.0f) / (t + 1.0f);
    const float r2 = (t - 1.5f) / (t * 1.5f + 1.0f);
    const float r3 = -1.0f / t;
    const bool small = it < 0x3ee00000u;  // below 7/16: no reduction
    const int id = it < 0x3f300000u ? 0 : (it < 0x3f980000u ? 1 : (it < 0x401c0000u ? 2 : 3));
    const float r = small ? t : (id == 0 ? r0 : (id == 1 ? r1 : (id == 2 ? r2 : r3)));
    const float z2 = r * r;
    const float w = z2 * z2;
    const float s1 = (((((0x1.0ad3aep-6f * w + 0x1.97b4b2p-5f) * w + 0x1.10d66ap-4f) * w +
                        0x1.745cdcp-4f) * w + 0x1.24924ap-3f) * w + 0x1.555556p-2f) * z2;
    const float s2 = ((((-0x1.2b4442p-5f * w - 0x1.dde2d6p-5f) * w - 0x1.3b0f2ap-4f) * w -
                       0x1.c71c70p-4f) * w - 0x1.99999ap-3f) * w;
    const float p = (s1 + s2) * r;
    const float hi = id == 0 ? kAtanHi[0] : (id == 1 ? kAtanHi[1] : (id == 2 ? kAtanHi[2] : kAtanHi[3]));
    const float lo = id == 0 ? kAtanLo[0] : (id == 1 ? kAtanLo[1] : (id == 2 ? kAtanLo[2] : kAtanLo[3]));
    float z = small ? r - p : hi - ((p - lo) - r);
    // Below 2^-29 the arctangent is the argument; from 2^25 on it is pi/2.
    z = it < 0x31000000u ? t : z;
    z = it >= 0x4c000000u ? kAtanLo[3] + kAtanHi[3] : z;
    // The quadrant: y's sign, then x's.
    const bool negativeY = (bitsOf(y) >> 31) != 0;
    const bool negativeX = (bitsOf(x) >> 31) != 0;
    const float plus = negativeY ? floatOf(bitsOf(z) ^ 0x80000000u) : z;
    const float minus = negativeY ? (z + kMinusPiLo) - kPi : kPi - (z + kMinusPiLo);
    return negativeX ? minus : plus;
}

// True for the pairs arcTangent2Lane leaves to the library.
KVANE_LOOP_BODY bool arcTangent2Special(float y, float x) {
    const uint32_t hx = bitsOf(x);
    const int32_t ix = static_cast<int32_t>(hx & 0x7fffffffu);
    const int32_t iy = static_cast<int32_t>(bitsOf(y) & 0x7fffffffu);
    const int32_t k = (iy - ix) >> 23;
    return ix < 0x00800000 || iy < 0x00800000 || ix >= 0x7f800000 || iy >= 0x7f800000 ||
           hx == 0x3f800000u || k > 60 || ((hx >> 31) != 0 && k < -60);
}

constexpr int kArcTangentTile = 64;

int arcTangent2Tile(float* out, const float* y, const float* x, int n) {
    int special = 0;
    for (int i = 0; i < n; ++i) {
        out[i] = arcTangent2Lane(y[i], x[i]);
        special += static_cast<int>(arcTangent2Special(y[i], x[i]));
    }
    return special;
}

#define KVANE_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline
// Lanes whose bits, as signed integers, lie below limit.
KVANE_AVX2_INLINE __m256 below(__m256i bits, int32_t limit) {
    return _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(limit), bits));
}
// One step of a polynomial in w: acc * w + c, and acc * w - c.
KVANE_AVX2_INLINE __m256 hornerUp(__m256 acc, __m256 w, float c) {
    return _mm256_add_ps(_mm256_mul_ps(acc, w), _mm256_set1_ps(c));
}
KVANE_AVX2_INLINE __m256 hornerDown(__m256 acc, __m256 w, float c) {
    return _mm256_sub_ps(_mm256_mul_ps(acc, w), _mm256_set1_ps(c));
}

// arcTangent2Lane on eight lanes: every range computed, the lane's own
// selected by masks; the same operations in the same order, no fused
// multiply-adds.
KVANE_AVX2 int arcTangent2TileAvx2(float* out, const float* y, const float* x, int n) {
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 two = _mm256_set1_ps(2.0f);
    const __m256 oneAndHalf = _mm256_set1_ps(1.5f);
    const __m256 minusOne = _mm256_set1_ps(-1.0f);
    const __m256i magnitudeBits = _mm256_set1_epi32(0x7fffffff);
    const __m256i signBit = _mm256_set1_epi32(static_cast<int>(0x80000000u));
    int special = 0;
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 vy = _mm256_loadu_ps(y + i);
        const __m256 vx = _mm256_loadu_ps(x + i);
        const __m256 t = _mm256_and_ps(_mm256_div_ps(vy, vx), _mm256_castsi256_ps(magnitudeBits));
        const __m256i it = _mm256_castps_si256(t);
        const __m256 r0 = _mm256_div_ps(_mm256_sub_ps(_mm256_add_ps(t, t), one), _mm256_add_ps(t, two));
        const __m256 r1 = _mm256_div_ps(_mm256_sub_ps(t, one), _mm256_add_ps(t, one));
        const __m256 r2 = _mm256_div_ps(_mm256_sub_ps(t, oneAndHalf),
                                        _mm256_add_ps(_mm256_mul_ps(t, oneAndHalf), one));
        const __m256 r3 = _mm256_div_ps(minusOne, t);
        const __m256 small = below(it, 0x3ee00000);
        const __m256 in0 = below(it, 0x3f300000);
        const __m256 in1 = below(it, 0x3f980000);
        const __m256 in2 = below(it, 0x401c0000);
        __m256 r = _mm256_blendv_ps(r3, r2, in2);
        r = _mm256_blendv_ps(r, r1, in1);
        r = _mm256_blendv_ps(r, r0, in0);
        r = _mm256_blendv_ps(r, t, small);
        __m256 hi = _mm256_blendv_ps(_mm256_set1_ps(kAtanHi[3]), _mm256_set1_ps(kAtanHi[2]), in2);
        hi = _mm256_blendv_ps(hi, _mm256_set1_ps(kAtanHi[1]), in1);
        hi = _mm256_blendv_ps(hi, _mm256_set1_ps(kAtanHi[0]), in0);
        __m256 lo = _mm256_blendv_ps(_mm256_set1_ps(kAtanLo[3]), _mm256_set1_ps(kAtanLo[2]), in2);
        lo = _mm256_blendv_ps(lo, _mm256_set1_ps(kAtanLo[1]), in1);
        lo = _mm256_blendv_ps(lo, _mm256_set1_ps(kAtanLo[0]), in0);
        const __m256 z2 = _mm256_mul_ps(r, r);
        const __m256 w = _mm256_mul_ps(z2, z2);
        __m256 s1 = hornerUp(_mm256_set1_ps(0x1.0ad3aep-6f), w, 0x1.97b4b2p-5f);
        s1 = hornerUp(s1, w, 0x1.10d66ap-4f);
        s1 = hornerUp(s1, w, 0x1.745cdcp-4f);
        s1 = hornerUp(s1, w, 0x1.24924ap-3f);
        s1 = hornerUp(s1, w, 0x1.555556p-2f);
        s1 = _mm256_mul_ps(s1, z2);
        __m256 s2 = hornerDown(_mm256_set1_ps(-0x1.2b4442p-5f), w, 0x1.dde2d6p-5f);
        s2 = hornerDown(s2, w, 0x1.3b0f2ap-4f);
        s2 = hornerDown(s2, w, 0x1.c71c70p-4f);
        s2 = hornerDown(s2, w, 0x1.99999ap-3f);
        s2 = _mm256_mul_ps(s2, w);
        const __m256 p = _mm256_mul_ps(_mm256_add_ps(s1, s2), r);
        const __m256 reduced = _mm256_sub_ps(hi, _mm256_sub_ps(_mm256_sub_ps(p, lo), r));
        __m256 z = _mm256_blendv_ps(reduced, _mm256_sub_ps(r, p), small);
        z = _mm256_blendv_ps(z, t, below(it, 0x31000000));
        const __m256 big = _mm256_castsi256_ps(_mm256_cmpgt_epi32(it, _mm256_set1_epi32(0x4bffffff)));
        z = _mm256_blendv_ps(z, _mm256_set1_ps(kAtanLo[3] + kAtanHi[3]), big);
        // The quadrant: blendv picks by the sign bits of y and of x.
        const __m256 plus = _mm256_xor_ps(z, _mm256_and_ps(vy, _mm256_castsi256_ps(signBit)));
        const __m256 shifted = _mm256_add_ps(z, _mm256_set1_ps(kMinusPiLo));
        const __m256 minus = _mm256_blendv_ps(_mm256_sub_ps(_mm256_set1_ps(kPi), shifted),
                                              _mm256_sub_ps(shifted, _mm256_set1_ps(kPi)), vy);
        _mm256_storeu_ps(out + i, _mm256_blendv_ps(plus, minus, vx));
        // The pairs left to the library.
        const __m256i hx = _mm256_castps_si256(vx);
        const __m256i ix = _mm256_and_si256(hx, magnitudeBits);
        const __m256i iy = _mm256_and_si256(_mm256_castps_si256(vy), magnitudeBits);
        const __m256i k = _mm256_srai_epi32(_mm256_sub_epi32(iy, ix), 23);
        __m256i odd = _mm256_cmpgt_epi32(_mm256_set1_epi32(0x00800000), ix);
        odd = _mm256_or_si256(odd, _mm256_cmpgt_epi32(_mm256_set1_epi32(0x00800000), iy));
        odd = _mm256_or_si256(odd, _mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f7fffff)));
        odd = _mm256_or_si256(odd, _mm256_cmpgt_epi32(iy, _mm256_set1_epi32(0x7f7fffff)));
        odd = _mm256_or_si256(odd, _mm256_cmpeq_epi32(hx, _mm256_set1_epi32(0x3f800000)));
        odd = _mm256_or_si256(odd, _mm256_cmpgt_epi32(k, _mm256_set1_epi32(60)));
        odd = _mm256_or_si256(odd, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), hx),
                                                    _mm256_cmpgt_epi32(_mm256_set1_epi32(-60), k)));
        special += __builtin_popcount(static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(odd))));
    }
    for (; i < n; ++i) {
        out[i] = arcTangent2Lane(y[i], x[i]);
        special += static_cast<int>(arcTangent2Special(y[i], x[i]));
    }
    return special;
}

}  // namespace

float arcTangent2(float y, float x) {
    return arcTangent2Special(y, x) ? std::atan2(y, x) : arcTangent2Lane(y, x);
}

void arcTangent2(float* out, const float* y, const float* x, int n) {
    const bool avx2 = cpuHasAvx2();
    for (int start = 0; start < n; start += kArcTangentTile) {
        const int count = n - start < kArcTangentTile ? n - start : kArcTangentTile;
        float tile[kArcTangentTile];
        const int special = avx2 ? arcTangent2TileAvx2(tile, y + start, x + start, count)
                                 : arcTangent2Tile(tile, y + start, x + start, count);
        if (special != 0)
            for (int i = 0; i < count; ++i)
                if (arcTangent2Special(y[start + i], x[start + i]))
                    tile[i] = std::atan2(y[start + i], x[start + i]);
        std::memcpy(out + start, tile, sizeof(float) * static_cast<std::size_t>(count));
    }
}

void magnitude(float* out, const cfloat* in, int n) {
    if (cpuHasAvx2())
        magnitudeLoopAvx2(out, in, n);
    else
        magnitudeLoop(out, in, n);
}

namespace {

// The double sum of n floats in any order, with what decides whether that
// sum is exact: the largest magnitude and the smallest exponent field of the
// nonzero values (255 when there are none; 0 for denormals, which are left
// to the ordered sum), and whether an infinity or NaN is among them.
struct SumWithBounds {
    double sum;
    float largest;
    int smallestExponent;
    bool special;
};
KVANE_LOOP_BODY SumWithBounds sumWithBounds(const float* x, int n) {
    double lane[8] = {};
    float largest[8] = {};
    int smallest[8] = {255, 255, 255, 255, 255, 255, 255, 255};
    int special[8] = {};
    int i = 0;
    for (; i + 8 <= n; i += 8)
        for (int k = 0; k < 8; ++k) {
            const float v = x[i + k];
            uint32_t bits;
            std::memcpy(&bits, &v, sizeof bits);
            const int exponent = static_cast<int>((bits >> 23) & 0xffu);
            const float magnitude = std::fabs(v);
            lane[k] += static_cast<double>(v);
            largest[k] = magnitude > largest[k] ? magnitude : largest[k];
            const int e = (bits & 0x7fffffffu) == 0 ? 255 : exponent;
            smallest[k] = e < smallest[k] ? e : smallest[k];
            special[k] |= static_cast<int>(exponent == 255);
        }
    for (; i < n; ++i) {
        const float v = x[i];
        uint32_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        lane[0] += static_cast<double>(v);
        largest[0] = std::fabs(v) > largest[0] ? std::fabs(v) : largest[0];
        const int exponent = static_cast<int>((bits >> 23) & 0xffu);
        const int e = (bits & 0x7fffffffu) == 0 ? 255 : exponent;
        smallest[0] = e < smallest[0] ? e : smallest[0];
        special[0] |= static_cast<int>(exponent == 255);
    }
    SumWithBounds r{0.0, 0.0f, 255, false};
    for (int k = 0; k < 8; ++k) {
        r.special = r.special || special[k] != 0;
        r.sum += lane[k];
        r.largest = largest[k] > r.largest ? largest[k] : r.largest;
        r.smallestExponent = smallest[k] < r.smallestExponent ? smallest[k] : r.smallestExponent;
    }
    return r;
}
KVANE_AVX2 SumWithBounds sumWithBoundsAvx2(const float* x, int n) {
    const __m256i magnitudeBits = _mm256_set1_epi32(0x7fffffff);
    const __m256i exponentMask = _mm256_set1_epi32(0xff);
    const __m256i none = _mm256_set1_epi32(255);
    __m256d low = _mm256_setzero_pd(), high = _mm256_setzero_pd();
    __m256 largest = _mm256_setzero_ps();
    __m256i smallest = none, special = _mm256_setzero_si256();
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 v = _mm256_loadu_ps(x + i);
        low = _mm256_add_pd(low, _mm256_cvtps_pd(_mm256_castps256_ps128(v)));
        high = _mm256_add_pd(high, _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)));
        const __m256i bits = _mm256_and_si256(_mm256_castps_si256(v), magnitudeBits);
        largest = _mm256_max_ps(largest, _mm256_castsi256_ps(bits));
        const __m256i exponent = _mm256_and_si256(_mm256_srli_epi32(bits, 23), exponentMask);
        const __m256i zero = _mm256_cmpeq_epi32(bits, _mm256_setzero_si256());
        smallest = _mm256_min_epi32(smallest, _mm256_blendv_epi8(exponent, none, zero));
        special = _mm256_or_si256(special, _mm256_cmpeq_epi32(exponent, none));
    }
    alignas(32) double lanes[8];
    alignas(32) float large[8];
    alignas(32) int32_t small[8], odd[8];
    _mm256_store_pd(lanes, low);
    _mm256_store_pd(lanes + 4, high);
    _mm256_store_ps(large, largest);
    _mm256_store_si256(reinterpret_cast<__m256i*>(small), smallest);
    _mm256_store_si256(reinterpret_cast<__m256i*>(odd), special);
    SumWithBounds r{0.0, 0.0f, 255, false};
    for (int k = 0; k < 8; ++k) {
        r.sum += lanes[k];
        r.largest = large[k] > r.largest ? large[k] : r.largest;
        r.smallestExponent = small[k] < r.smallestExponent ? small[k] : r.smallestExponent;
        r.special = r.special || odd[k] != 0;
    }
    if (i < n) {
        const SumWithBounds rest = sumWithBounds(x + i, n - i);
        r.sum += rest.sum;
        r.largest = rest.largest > r.largest ? rest.largest : r.largest;
        r.smallestExponent = std::min(r.smallestExponent, rest.smallestExponent);
        r.special = r.special || rest.special;
    }
    return r;
}

// Square roots in place and the lowest of them, eight lanes: each lane keeps
// the first of its smallest roots (x < lane ? x : lane, which passes over a
// NaN), all starting from the first root, so that the lowest over the lanes
// is the one an ordered pass finds.
// The roots of x[i..n) in place into lane 0, then the lowest over the lanes.
KVANE_LOOP_BODY float rootsLowestFinish(float* x, int i, int n, float* lane) {
    for (; i < n; ++i) {
        const float root = std::sqrt(x[i]);
        x[i] = root;
        lane[0] = root < lane[0] ? root : lane[0];
    }
    float lowest = lane[0];
    for (int k = 1; k < 8; ++k) lowest = lane[k] < lowest ? lane[k] : lowest;
    return lowest;
}
KVANE_LOOP_BODY float rootsLowest(float* x, int n) {
    float lane[8];
    for (int k = 0; k < 8; ++k) lane[k] = std::sqrt(x[0]);
    int i = 0;
    for (; i + 8 <= n; i += 8)
        for (int k = 0; k < 8; ++k) {
            const float root = std::sqrt(x[i + k]);
            x[i + k] = root;
            lane[k] = root < lane[k] ? root : lane[k];
        }
    return rootsLowestFinish(x, i, n, lane);
}
KVANE_AVX2 float rootsLowestAvx2(float* x, int n) {
    __m256 lane = _mm256_set1_ps(std::sqrt(x[0]));
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 root = _mm256_sqrt_ps(_mm256_loadu_ps(x + i));
        _mm256_storeu_ps(x + i, root);
        lane = _mm256_min_ps(root, lane);  // root < lane ? root : lane
    }
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, lane);
    return rootsLowestFinish(x, i, n, lanes);
}

}  // namespace

float squareRootsLowest(float* x, int n) {
    if (n < 1) return 0.0f;
    return cpuHasAvx2() ? rootsLowestAvx2(x, n) : rootsLowest(x, n);
}

double orderedSum(const float* x, int n) {
    if (n < 1) return 0.0;
    // Every float is a whole multiple of 2^q, q the exponent of the unit in
    // the last place of the smallest nonzero one, so every partial sum, in
    // any order, is one too, and no larger than n times the largest
    // magnitude. Below 2^(q + 53) all of them are doubles: no addition
    // rounds, and any order gives the exact sum, which is the ordered one.
    // Otherwise (and for denormals, infinities and NaN) the ordered sum.
    if (n >= 16) {
        const SumWithBounds b = cpuHasAvx2() ? sumWithBoundsAvx2(x, n) : sumWithBounds(x, n);
        if (!b.special && b.smallestExponent == 255) return b.sum;  // zeros alone
        if (!b.special && b.smallestExponent >= 1) {
            // A factor of two to spare for the rounding of the bound itself.
            const int q = b.smallestExponent - 127 - 23;
            if (static_cast<double>(n) * static_cast<double>(b.largest) < std::ldexp(1.0, q + 52))
                return b.sum;
        }
    }
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += x[i];
    return s;
}

float mean(const float* x, int n) {
    if (n < 1) return 0.0f;
    return static_cast<float>(orderedSum(x, n) / n);
}

float stdDev(const float* x, int n) {
    if (n < 2) return 0.0f;
    const double s = orderedSum(x, n);
    const double m = s / n;
    double q = 0.0;
    for (int i = 0; i < n; ++i) q += (x[i] - m) * (x[i] - m);
    return static_cast<float>(std::sqrt(q / (n - 1)));
}

int decimatedMovingAverage(float* out, const float* x, int n, int width, int step) {
    if (n < 1 || width < 1 || step < 1) return 0;
    const int outLen = (n + step - 1) / step;
    const int half = width / 2;
    const float w = static_cast<float>(width);
    // Windows that reach past an end repeat the end sample.
    auto clampedWindow = [&](int i) {
        const int c = i * step;
        float s = 0.0f;
        for (int k = c - half; k <= c + half; ++k) {
            const int j = k < 0 ? 0 : (k >= n ? n - 1 : k);
            s += x[j];
        }
        out[i] = s / w;
    };
    // Outputs first..last have their whole window inside the trace. Their
    // sums run window position by window position across all of them: for
    // every output the same additions in the same order, but a loop that
    // vectorises.
    const int first = std::min((half + step - 1) / step, outLen);
    const int last = n - 1 - half >= 0 ? std::min((n - 1 - half) / step, outLen - 1) : -1;
    for (int i = 0; i < first; ++i) clampedWindow(i);
    if (last >= first) {
        float* o = out + first;
        const int count = last - first + 1;
        const float* base = x + first * step - half;
        if (cpuHasAvx2())
            windowSumsAvx2(o, base, count, step, 2 * half + 1);
        else
            windowSums(o, base, count, step, 2 * half + 1);
        for (int i = 0; i < count; ++i) o[i] = o[i] / w;
    }
    for (int i = std::max(first, last + 1); i < outLen; ++i) clampedWindow(i);
    return outLen;
}

void runningMedianCausal(float* out, const float* in, int n, int mask) {
    if (n < 1 || mask < 1) return;
    if (mask % 2 == 0) mask -= 1;
    if (mask < 1) mask = 1;
    std::vector<float> src(in, in + n);
    std::vector<float> win(static_cast<std::size_t>(mask));
    for (int i = 0; i < n; ++i) {
        for (int k = 0; k < mask; ++k) {
            const int j = i - mask + 1 + k;
            win[static_cast<std::size_t>(k)] = src[static_cast<std::size_t>(j < 0 ? 0 : j)];
        }
        std::nth_element(win.begin(), win.begin() + mask / 2, win.end());
        out[i] = win[static_cast<std::size_t>(mask / 2)];
    }
}

}  // namespace kvane
