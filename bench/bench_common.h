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

// A flat seabed at 20 m, echo level 1e8, no roll: the same samples serve the
// one-shot and the segmented path, so the two differ only in the path taken.
// Made once per sample count; the simulator is slow next to the kernel.
inline const kvsim::SimPing& simulatedPing(int samples) {
    static std::map<int, kvsim::SimPing> cache;
    auto found = cache.find(samples);
    if (found != cache.end()) return found->second;
    kvsim::SimConfig config;
    config.depth = 20.0;
    config.echoLevel = 1e8;
    config.samples = samples;
    config.pings = 1;
    const std::string problem = kvsim::checkConfig(config);
    if (!problem.empty()) {
        std::fprintf(stderr, "simulator refused the benchmark ping: %s\n", problem.c_str());
        std::exit(1);
    }
    return cache.emplace(samples, kvsim::simulatePing(config, 0)).first->second;
}

// The replay tool's parameter block: the harness's values on every ping, a
// fan of 70 degrees to each side, clipping at 0.01, quality threshold 0.
inline KVaneParams replayParams(int beams, bool gainSwitch) {
    KVaneParams p = kvreplay::harnessParams(beams);
    p.gainSwitch = gainSwitch ? 1.0f : 0.0f;
    return p;
}

// One ping ready for kVaneProcess20, with its own host buffers.
struct PingCase {
    KVaneParams params{};
    KVaneInput input{};
    std::unique_ptr<KVaneResult> result;
    std::vector<int32_t> planeI, planeQ;
    std::vector<float> beamImage, sideScan, gainProfile;
    std::vector<uint8_t> display;
};

// segmented: the simulated roll table (a sample every 10 ms from before the
// ping to after its end) goes into the block, so the ping runs in 200-sample
// segments; otherwise rollCount 1 selects the one-shot path.
inline std::unique_ptr<PingCase> makePingCase(int samples, int beams, bool segmented,
                                              bool gainSwitch) {
    const kvsim::SimPing& ping = simulatedPing(samples);
    auto c = std::make_unique<PingCase>();
    c->params = replayParams(beams, gainSwitch);
    c->params.pingTime = ping.pingTime;
    if (segmented) {
        const size_t count = std::min<size_t>(ping.rollTime.size(), 100);
        c->params.rollCount = static_cast<int32_t>(count);
        for (size_t i = 0; i < count; ++i) {
            c->params.rollAngle[i] = ping.rollAngle[i];
            c->params.rollTime[i] = ping.rollTime[i];
        }
    }
    c->planeI = ping.planeI;
    c->planeQ = ping.planeQ;
    c->input = KVaneInput{c->planeI.data(), c->planeQ.data(), ping.sampleCount};

    const size_t n = static_cast<size_t>(samples);
    const size_t B = static_cast<size_t>(beams);
    // With gainSwitch the smoothed image has a border of 3 on every side.
    c->beamImage.assign(gainSwitch ? (n + 6) * (B + 6) : n * B, 0.0f);
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

inline void runPing(PingCase* c) {
    workspaceHoldsReference = false;
    kVaneProcess20(&c->params, &c->input, c->result.get());
}

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
