// bench_common.h - what the whole-ping and per-stage benchmarks share: the
// replay tool's parameter block, simulated pings (made once per sample count)
// and host buffers sized as a host must size them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include "kVane.h"
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

}  // namespace kvbench
