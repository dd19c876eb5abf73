// bench_common.h - what the whole-ping and per-stage benchmarks share: the
// replay tool's parameter block, simulated pings (made once per sample count),
// host buffers sized as a host must size them, and the matrix-product floor.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include <cblas.h>
#include <omp.h>

#include "driver/driver.h"
#include "frontend/frontend.h"
#include "kVane.h"
#include "numeric/numeric.h"
#include "harness.h"
#include "simulate.h"

namespace kvbench {

constexpr int kFullSamples = 8000;
constexpr int kFullBeams = 256;
constexpr size_t kDisplayBytes = 1000000;
constexpr size_t kSideScanFloats = 3200000;

// True while the workspace holds what the per-stage benchmarks' reference ping
// left there; anything else that runs a ping or disturbs the buffers clears it.
inline bool workspaceHoldsReference = false;

// The workspace is built once for the whole run and left to the process exit.
inline void ensureWorkspace() {
    static const bool built = [] {
        kVaneMalloc();
        return true;
    }();
    (void)built;
}

// The seabed depth of the simulated recordings: 60 m, where the ping reaches
// that far (a 1000-sample ping spans 37.5 m of range and sees a seabed at 20 m
// instead).
inline double recordingDepth(int samples) { return samples >= 2000 ? 60.0 : 20.0; }

// Distinct pings of a simulated recording (flat seabed, echo level 1e8, no
// roll), made once per sample count: a host runs a new ping every time, and
// these are cycled through. The simulator is slow next to the kernel.
constexpr int kRecordingPings = 4;
inline const std::vector<kvsim::SimPing>& simulatedPings(int samples) {
    static std::map<int, std::vector<kvsim::SimPing>> cache;
    auto found = cache.find(samples);
    if (found != cache.end()) return found->second;
    kvsim::SimConfig config;
    config.depth = recordingDepth(samples);
    config.echoLevel = 1e8;
    config.samples = samples;
    config.pings = kRecordingPings;
    const std::string problem = kvsim::checkConfig(config);
    if (!problem.empty()) {
        std::fprintf(stderr, "simulator refused the benchmark recording: %s\n", problem.c_str());
        std::exit(1);
    }
    std::vector<kvsim::SimPing> pings;
    for (int i = 0; i < kRecordingPings; ++i) pings.push_back(kvsim::simulatePing(config, i));
    return cache.emplace(samples, std::move(pings)).first->second;
}

// The replay tool's parameter block (the harness's values, a fan of 70
// degrees to each side, clipping at 0.01, quality threshold 0) with the fixed
// gain off, as a host that has no per-sample gain sets it.
inline KVaneParams hostParams(int beams, bool gainSwitch) {
    KVaneParams p = kvreplay::harnessParams(beams);
    p.gainSwitch = gainSwitch ? 1.0f : 0.0f;
    p.fixedGainEnable = 0;
    return p;
}

// The pings of a recording ready for kVaneProcess20, with one set of host
// buffers for every output, sized as the replay tool sizes them. params,
// input and result are those of the ping run last.
struct PingCase {
    KVaneParams base{};
    KVaneParams params{};
    KVaneInput input{};
    bool segmented = false;
    size_t next = 0;
    std::vector<kvsim::SimPing> pings;
    std::unique_ptr<KVaneResult> result;
    std::vector<float> beamImage, sideScan, gainProfile;
    std::vector<uint8_t> display;
};

// segmented: each ping's simulated roll table (a sample every 10 ms from
// before the ping to after its end) goes into the block, so the ping runs in
// 200-sample segments; otherwise rollCount 1 selects the one-shot path.
inline std::unique_ptr<PingCase> makePingCase(int samples, int beams, bool segmented,
                                              bool gainSwitch) {
    auto c = std::make_unique<PingCase>();
    c->base = hostParams(beams, gainSwitch);
    c->segmented = segmented;
    c->pings = simulatedPings(samples);

    const size_t n = static_cast<size_t>(samples);
    const size_t B = static_cast<size_t>(beams);
    // The replay's sizes: 256 beams of n samples, more with the smoothing's
    // border of 3 on every side.
    c->beamImage.assign(gainSwitch ? std::max((n + 6) * (B + 6), n * 256) : n * 256, 0.0f);
    c->display.assign(kDisplayBytes, 0);
    c->sideScan.assign(kSideScanFloats, 0.0f);
    c->gainProfile.assign(std::max<size_t>(n, 600), 0.0f);
    c->result = std::make_unique<KVaneResult>();
    c->result->beamImage = c->beamImage.data();
    c->result->displayImage = c->display.data();
    c->result->sideScanImage = c->sideScan.data();
    c->result->gainProfile = gainSwitch ? c->gainProfile.data() : nullptr;
    return c;
}

// The next ping of the recording, with the block a host hands over for it
// (the harness rewrites its fields on every ping).
inline void runPing(PingCase* c) {
    workspaceHoldsReference = false;
    kvsim::SimPing& ping = c->pings[c->next++ % c->pings.size()];
    c->params = c->base;
    c->params.pingTime = ping.pingTime;
    if (c->segmented) {
        const size_t count = std::min<size_t>(ping.rollTime.size(), 100);
        c->params.rollCount = static_cast<int32_t>(count);
        for (size_t i = 0; i < count; ++i) {
            c->params.rollAngle[i] = ping.rollAngle[i];
            c->params.rollTime[i] = ping.rollTime[i];
        }
    }
    c->input = KVaneInput{ping.planeI.data(), ping.planeQ.data(), ping.sampleCount};
    kVaneProcess20(&c->params, &c->input, c->result.get());
}

// The complex multiply-adds of a one-shot ping, as real operations (8 per
// complex multiply-add): the beam sums (beams x n x 64) and the sectioned
// correlator (three products of 32 elements for every sample and every
// section row; border beams sit in two sections, 270 rows for 256 beams).
inline double productOperations(int n, int beams) {
    kvane::SplitSection sections[kvane::kSplitSections];
    kvane::splitSections(sections, beams);
    double rows = 0.0;
    for (const kvane::SplitSection& s : sections)
        rows += std::min(s.last - s.first + 1, kvane::kMaxSectionBeams);
    return 8.0 * double(n) * (double(beams) * 64.0 + rows * 3.0 * 32.0);
}

// The machine's limit: the best rate of complex single-precision products,
// measured as one large square product (2048 x 2048 x 2048, cblas_cgemm) on
// the given number of the matrix library's threads.
class MatrixLimit {
public:
    static constexpr int kSize = 2048;
    static constexpr double kOperations = 8.0 * kSize * kSize * kSize;

    explicit MatrixLimit(int threads) : threads_(threads) {
        const size_t count = size_t{kSize} * kSize;
        for (auto** p : {&a_, &b_, &c_}) {
            *p = static_cast<kvane::cfloat*>(kvane::alignedAlloc(count, sizeof(kvane::cfloat)));
            for (size_t i = 0; *p != nullptr && i < count; ++i)
                (*p)[i] = kvane::cfloat{float(i % 97) / 97.0f - 0.5f, float(i % 89) / 89.0f - 0.5f};
        }
    }
    ~MatrixLimit() {
        for (kvane::cfloat* p : {a_, b_, c_}) kvane::alignedFree(p);
    }
    MatrixLimit(const MatrixLimit&) = delete;
    MatrixLimit& operator=(const MatrixLimit&) = delete;

    void run() {
        const float one[2] = {1.0f, 0.0f};
        const float zero[2] = {0.0f, 0.0f};
        const int saved = kvane::matrixThreads();
        kvane::setMatrixThreads(threads_);
        cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kSize, kSize, kSize, one, a_, kSize,
                    b_, kSize, zero, c_, kSize);
        kvane::setMatrixThreads(saved);
    }

private:
    int threads_;
    kvane::cfloat *a_ = nullptr, *b_ = nullptr, *c_ = nullptr;
};

// The complex matrix products of one one-shot ping of n samples and `beams`
// beams, with the calls, shapes, layouts and thread arrangement the kernel
// uses, and nothing else: the beam sums over the product's fixed grid of
// blocks (B x 64 weights times 64 x n channels), then the sectioned
// correlator's grid, for every block of kSplitBlockSamples samples and each
// of the 15 sections three sub-aperture products (sectionBeams x block from
// 32 transposed weights and 32 aligned channels). The team shares both
// grids with the matrix library on one thread, as in the kernel.
class MatrixFloor {
public:
    MatrixFloor(int n, int beams) : n_(n), beams_(beams) {
        steer_ = filled(static_cast<size_t>(beams) * 64, 1);
        channels_ = filled(static_cast<size_t>(64) * n, 2);
        beamsOut_ = filled(static_cast<size_t>(beams) * n, 3);
        weights_ = filled(static_cast<size_t>(3) * 32 * kvane::kMaxSectionBeams, 4);
        aligned_ = filled(static_cast<size_t>(kvane::kTeamCapacity) * 64 * kvane::kSplitBlockSamples, 5);
        subBeams_ = filled(static_cast<size_t>(kvane::kTeamCapacity) * 3 * kvane::kMaxSectionBeams *
                               kvane::kSplitBlockSamples, 6);
        kvane::splitSections(sections_, beams);
    }
    ~MatrixFloor() {
        for (kvane::cfloat* p : {steer_, channels_, beamsOut_, weights_, aligned_, subBeams_})
            kvane::alignedFree(p);
    }
    MatrixFloor(const MatrixFloor&) = delete;
    MatrixFloor& operator=(const MatrixFloor&) = delete;

    void run() {
        const float one[2] = {1.0f, 0.0f};
        const float zero[2] = {0.0f, 0.0f};
        const int n = n_;
        const int products = kvane::productBlockCount(beams_, n);
        const int blocks = (n + kvane::kSplitBlockSamples - 1) / kvane::kSplitBlockSamples;
        const int items = kvane::kSplitSections * blocks;
        const int saved = kvane::matrixThreads();
        kvane::setMatrixThreads(1);
#pragma omp parallel num_threads(kvane::teamSize())
        {
#pragma omp for schedule(static)
            for (int k = 0; k < products; ++k)
                kvane::productBlock(k, beams_, n, 64, steer_, 64, channels_, n, beamsOut_, n);
            const int64_t thread = omp_get_thread_num();
            kvane::cfloat* aligned = aligned_ + thread * 64 * kvane::kSplitBlockSamples;
            const int64_t subBlock = int64_t{kvane::kMaxSectionBeams} * kvane::kSplitBlockSamples;
            kvane::cfloat* sub = subBeams_ + thread * 3 * subBlock;
#pragma omp for schedule(static)
            for (int i = 0; i < items; ++i) {
                const kvane::SplitSection& s = sections_[i % kvane::kSplitSections];
                const int t0 = (i / kvane::kSplitSections) * kvane::kSplitBlockSamples;
                const int w = std::min(kvane::kSplitBlockSamples, n - t0);
                const int sectionBeams = std::min(s.last - s.first + 1, kvane::kMaxSectionBeams);
                for (int a = 0; a < 3; ++a)
                    cblas_cgemm(CblasRowMajor, CblasTrans, CblasNoTrans, sectionBeams, w, 32, one,
                                weights_ + a * 32 * sectionBeams, sectionBeams,
                                aligned + int64_t{16} * a * w, w, zero, sub + a * subBlock, w);
            }
        }
        kvane::setMatrixThreads(saved);
    }

private:
    // Plain pseudo-random values in -1..1: no zeros, no denormals.
    static kvane::cfloat* filled(size_t count, uint32_t seed) {
        auto* p = static_cast<kvane::cfloat*>(kvane::alignedAlloc(count, sizeof(kvane::cfloat)));
        uint32_t state = seed * 2654435761u + 1u;
        auto next = [&state] {
            state = state * 1664525u + 1013904223u;
            return static_cast<float>(state >> 8) / 8388608.0f - 1.0f;
        };
        for (size_t i = 0; p != nullptr && i < count; ++i) p[i] = kvane::cfloat{next(), next()};
        return p;
    }

    int n_, beams_;
    kvane::SplitSection sections_[kvane::kSplitSections];
    kvane::cfloat *steer_, *channels_, *beamsOut_, *weights_, *aligned_, *subBeams_;
};

}  // namespace kvbench
