// numeric.cpp - the shared plain operations, over OpenBLAS and OpenMP.
#include "numeric.h"

#include <cblas.h>
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
KVANE_AVX2 void windowSumsAvx2(float* o, const float* base, int count, int step, int positions) {
    windowSums(o, base, count, step, positions);
}

}  // namespace

void magnitude(float* out, const cfloat* in, int n) {
    if (cpuHasAvx2())
        magnitudeLoopAvx2(out, in, n);
    else
        magnitudeLoop(out, in, n);
}

float mean(const float* x, int n) {
    if (n < 1) return 0.0f;
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += x[i];
    return static_cast<float>(s / n);
}

float stdDev(const float* x, int n) {
    if (n < 2) return 0.0f;
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += x[i];
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
