// bench_stages.cpp - each stage of a full-size ping (64 x 8000 samples, 256
// beams, the host's settings of bench_common.h) timed alone on the workspace
// buffers of a real ping. Before a benchmark a whole ping of the recording has
// run through kVaneProcess20 (again, whenever something else used the
// workspace since), so the buffers a stage reads hold that ping's data; stages
// that change their input in place get it back, outside the timing, before
// every iteration.
//
// The program's main adds the OpenBLAS core type and the kernel's team size
// to the benchmark context.
#include <benchmark/benchmark.h>
#include <cblas.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_common.h"
#include "backend/backend.h"
#include "detect/detect.h"
#include "driver/driver.h"
#include "driver/workspace.h"
#include "frontend/frontend.h"
#include "numeric/numeric.h"

namespace {

using namespace kvane;
using kvbench::PingCase;

constexpr int32_t n = kvbench::kFullSamples;
constexpr int32_t B = kvbench::kFullBeams;

// The reference ping and what the driver keeps on its stack for it.
struct Reference {
    std::unique_ptr<PingCase> ping;
    float beamAngles[kMaxBeams] = {};
    double beamAnglesDouble[kMaxBeams] = {};
    int32_t firstEchoSample = 0;
    uint8_t firstBeamPending = 0;
    DetectionLimits limits{};
    // The harvest of the candidates: the driver's clamped tables and the
    // six-row matrix of the bottom trace.
    int32_t detectionTable[1536] = {};
    int32_t rawDetectionTable[1536] = {};
    float candidates[1536] = {};
};

Reference& reference() {
    static Reference r;
    return r;
}

// Runs the next ping of the recording unless the workspace still holds the
// reference (eight pings on the first call, so the first-echo history holds
// the recording's value) and rebuilds the driver's locals from it.
void primeWorkspace() {
    if (kvbench::workspaceHoldsReference) return;
    kvbench::ensureWorkspace();
    Reference& r = reference();
    const bool first = !r.ping;
    if (first) r.ping = kvbench::makePingCase(n, B, false, false);
    for (int i = 0; i < (first ? 8 : 1); ++i) kvbench::runPing(r.ping.get());
    kvbench::workspaceHoldsReference = true;

    const KVaneParams& p = r.ping->params;
    fillBeamAnglesFromTable(r.beamAngles, B);
    float copies[1920];
    int32_t signature = retained.geometrySignature;
    finishBeamFan(r.beamAngles, r.beamAnglesDouble, copies, p.sectorPort, p.sectorStarboard,
                  p.beamSpacing, B, &signature);
    int32_t history[7];
    std::memcpy(history, retained.firstEchoHistory, sizeof history);
    r.firstEchoSample = updateFirstEchoHistory(history, detectFirstEcho(ws.magnitudeBySample, n));
    r.firstBeamPending = retained.firstBeamPending;
    r.limits = DetectionLimits{0, n - 1, 0, n - 1, p.soundSpeed, 1};
    for (int32_t i = 0; i < 6 * B; ++i) {
        const int32_t raw = candidateSlots[i]->rawDetectionSample;
        const int32_t det = candidateSlots[i]->detectionSample;
        r.rawDetectionTable[i] = raw < 1 ? 1 : (raw > n ? n : raw);
        r.detectionTable[i] = det < 1 ? 1 : (det > n ? n : det);
    }
    std::fill(std::begin(r.candidates), std::end(r.candidates), 0.0f);
    for (int32_t b = 0; b < B; ++b)
        for (int32_t c = 0; c < 6; ++c)
            r.candidates[c * B + b] = static_cast<float>(r.detectionTable[b * 6 + c]);
}

BeamformingIo beamformingIo() {
    // The host's ping has no gain: its beams come from the raw channels.
    return BeamformingIo{ws.rawChannels,      ws.rawChannels, ws.formedBeamIq, ws.splitBeamIq,
                         ws.steerMatrix,      ws.split,       &retained.lastRollAngle,
                         &retained.lastRollTime};
}

// As the host's ping runs it: no gain follows, so no filtered copy.
void Stage_conditionChannels(benchmark::State& state) {
    primeWorkspace();
    const KVaneInput& in = reference().ping->input;
    for (auto _ : state) {
        conditionChannels(ws.rawChannels, nullptr, ws.magnitudeBySample, in.planeI, in.planeQ, n);
        benchmark::ClobberMemory();
    }
}

// The fixed gain the replay settings switch on (ones: the data stay as they are).
void Stage_applyFixedGain(benchmark::State& state) {
    primeWorkspace();
    for (auto _ : state) {
        applyFixedGain(ws.filteredChannels, ws.gainReal, n);
        benchmark::ClobberMemory();
    }
}

void Stage_detectFirstEcho(benchmark::State& state) {
    primeWorkspace();
    for (auto _ : state) benchmark::DoNotOptimize(detectFirstEcho(ws.magnitudeBySample, n));
}

// Levels filteredChannels in place: the conditioned channels come back before
// every iteration.
void Stage_equaliseChannelGain(benchmark::State& state) {
    primeWorkspace();
    const size_t count = static_cast<size_t>(kChannels) * n;
    // The host's ping leaves the filtered channels alone (it has no gain):
    // the gain works on a copy of the raw ones.
    std::vector<cfloat> saved(ws.rawChannels, ws.rawChannels + count);
    std::vector<float> gainProfile(n);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(ws.filteredChannels, saved.data(), count * sizeof(cfloat));
        state.ResumeTiming();
        int32_t onset = 0;
        equaliseChannelGain(ws.filteredChannels, gainProfile.data(), &onset, n);
        benchmark::DoNotOptimize(onset);
    }
    std::memcpy(ws.filteredChannels, saved.data(), count * sizeof(cfloat));
}

void Stage_fanAndSteering(benchmark::State& state) {
    primeWorkspace();
    const KVaneParams& p = reference().ping->params;
    for (auto _ : state) {
        float angles[kMaxBeams] = {};
        double anglesDouble[kMaxBeams] = {};
        float copies[1920];
        int32_t signature = retained.geometrySignature;
        fillBeamAnglesFromTable(angles, B);
        finishBeamFan(angles, anglesDouble, copies, p.sectorPort, p.sectorStarboard,
                      p.beamSpacing, B, &signature);
        formSteeringMatrix(ws.steerMatrix, anglesDouble, B, 0.0, p.soundSpeed);
        benchmark::ClobberMemory();
    }
}

// Steering weights and the one B x n x 64 product of the one-shot path.
void Stage_beamSums(benchmark::State& state) {
    primeWorkspace();
    const Reference& r = reference();
    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
    for (auto _ : state) {
        formSteeringMatrix(ws.steerMatrix, r.beamAnglesDouble, B, 0.0, r.ping->params.soundSpeed);
        cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, B, n, kChannels, one,
                    ws.steerMatrix, kChannels, ws.rawChannels, n, zero, ws.formedBeamIq, n);
        benchmark::ClobberMemory();
    }
}

void Stage_correlateSubAperturesSectioned(benchmark::State& state) {
    primeWorkspace();
    const Reference& r = reference();
    for (auto _ : state) {
        correlateSubAperturesSectioned(ws.rawChannels, n, kChannels, 0.0f,
                                       r.ping->params.soundSpeed, r.beamAngles, B, ws.splitBeamIq,
                                       &ws.split);
        benchmark::ClobberMemory();
    }
}

// The whole beamforming step: steering, beam sums and the correlator, once for
// the ping (range 0) or per 200-sample segment with the roll table (range 1).
void Stage_formBeams(benchmark::State& state) {
    primeWorkspace();
    Reference& r = reference();
    KVaneParams params = r.ping->params;
    if (state.range(0) != 0) {
        const kvsim::SimPing& sim = r.ping->pings[(r.ping->next - 1) % r.ping->pings.size()];
        const size_t count = std::min<size_t>(sim.rollTime.size(), 100);
        params.rollCount = static_cast<int32_t>(count);
        for (size_t i = 0; i < count; ++i) {
            params.rollAngle[i] = sim.rollAngle[i];
            params.rollTime[i] = sim.rollTime[i];
        }
    }
    const BeamformingIo io = beamformingIo();
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            formBeams(&params, r.ping->result.get(), r.beamAngles, r.beamAnglesDouble, n, &io));
        benchmark::ClobberMemory();
    }
    // The segmented beams and the roll it keeps differ from the reference's.
    if (state.range(0) != 0) kvbench::workspaceHoldsReference = false;
}

// Magnitude, half-fan clipping and the copy to the host (range 0), or with the
// 7 x 7 smoothing of the gain switch (range 1).
void Stage_conditionBeamImage(benchmark::State& state) {
    primeWorkspace();
    const bool smooth = state.range(0) != 0;
    std::vector<float> image(static_cast<size_t>(n + 6) * (B + 6));
    const float clipRatio = reference().ping->params.clipRatio;
    for (auto _ : state) {
        conditionBeamImage(ws.beamEnvelope, image.data(),
                           ws.formedBeamIq, B, n, clipRatio, smooth);
        benchmark::ClobberMemory();
    }
    if (smooth) kvbench::workspaceHoldsReference = false;
}

// On the host's image; the driver's cleared slots come back before every
// iteration.
void Stage_detectBeamCandidates(benchmark::State& state) {
    primeWorkspace();
    Reference& r = reference();
    uint8_t firstBeamPending = r.firstBeamPending;
    const KVaneParams& p = r.ping->params;
    const BottomDetectArgs args{r.beamAngles,     r.ping->beamImage.data(), ws.splitBeamIq, n, B,
                                r.firstEchoSample, p.pulseLength,  kSampleRate,    &r.limits,
                                p.qualityThreshold, 0,             &firstBeamPending, ws.detect};
    for (auto _ : state) {
        state.PauseTiming();
        firstBeamPending = r.firstBeamPending;
        for (int32_t i = 0; i < 6 * B; ++i) {
            candidateSlots[i]->detectionSample = 0;
            candidateSlots[i]->rawDetectionSample = 0;
        }
        state.ResumeTiming();
        detectBeamCandidates(&args, candidateSlots, retained.gateTable);
        benchmark::ClobberMemory();
    }
}

// The trace changes its candidate matrix in place; the copy back is part of
// the timing (1536 floats, nothing next to the trace).
void Stage_traceBottomCurve(benchmark::State& state) {
    primeWorkspace();
    const Reference& r = reference();
    float candidates[1536];
    float bottom[1920];
    uint8_t flags[1924];
    for (auto _ : state) {
        std::memcpy(candidates, r.candidates, sizeof candidates);
        std::memset(bottom, 0, sizeof(float) * B);
        traceBottomCurve(candidates, static_cast<float>(B), static_cast<float>(n), bottom);
        completeBottomLine(bottom, flags, B);
        benchmark::ClobberMemory();
    }
}

// Both tracker passes on the ping's clamped tables, as in shallow water with a
// quality threshold set.
void Stage_trackSoundings(benchmark::State& state) {
    primeWorkspace();
    const Reference& r = reference();
    int32_t tracked[kMaxBeams];
    int32_t detected[kMaxBeams];
    uint8_t flags[1924];
    const float first = static_cast<float>(r.firstEchoSample);
    for (auto _ : state) {
        trackRawSoundings(r.rawDetectionTable, B, retained.trackCentre, first, r.beamAngles, 0.0f,
                          tracked, retained.trackHistory, flags);
        trackDetectedSoundings(r.detectionTable, B, retained.trackCentre, first, r.beamAngles,
                               0.0f, detected, retained.trackHistory, flags);
        benchmark::ClobberMemory();
    }
}

// A rebuild forced by spoiling the stored signature; the rebuild restores it.
void Stage_updateSectorGrid(benchmark::State& state) {
    primeWorkspace();
    const KVaneParams& p = reference().ping->params;
    for (auto _ : state) {
        retained.grid.signature ^= 1;
        updateSectorGrid(&retained.grid, p.sectorPort, p.sectorStarboard, p.imageWidth,
                         p.imageHeight, n, B);
        benchmark::ClobberMemory();
    }
}

// With the clearing of the picture that precedes it in a ping.
void Stage_renderWaterColumnImage(benchmark::State& state) {
    primeWorkspace();
    const Reference& r = reference();
    const KVaneParams& p = r.ping->params;
    KVaneResult* result = r.ping->result.get();
    for (auto _ : state) {
        std::memset(result->displayImage, 0,
                    static_cast<size_t>(p.imageWidth) * static_cast<size_t>(p.imageHeight));
        renderWaterColumnImage(result->beamImage, B, n, r.beamAngles, p.sectorPort,
                               p.sectorStarboard, p.beamSpacing, p.imageGain,
                               result->displayImage, p.imageWidth, p.imageHeight, &retained.grid,
                               &ws.wedge);
        benchmark::ClobberMemory();
    }
}

void Stage_updateSideScanWaterfall(benchmark::State& state) {
    primeWorkspace();
    const Reference& r = reference();
    const KVaneParams& p = r.ping->params;
    KVaneResult* result = r.ping->result.get();
    for (auto _ : state) {
        updateSideScanWaterfall(result->beamImage, B, n, result->beamAngleCopies,
                                result->bottomSample, result->sideScanImage, p.sideScanMode,
                                p.sideScanRows, r.firstEchoSample,
                                WaterfallRing{ws.waterfall, &retained.waterfallHead,
                                              &retained.waterfallSpan});
        benchmark::ClobberMemory();
    }
}

#define KV_STAGE(fn)                      \
    BENCHMARK(fn)                         \
        ->Unit(benchmark::kMillisecond)   \
        ->UseRealTime()                   \
        ->Repetitions(5)                  \
        ->ReportAggregatesOnly(true)

KV_STAGE(Stage_conditionChannels);
KV_STAGE(Stage_applyFixedGain);
KV_STAGE(Stage_detectFirstEcho);
KV_STAGE(Stage_equaliseChannelGain);
KV_STAGE(Stage_fanAndSteering);
KV_STAGE(Stage_beamSums);
KV_STAGE(Stage_correlateSubAperturesSectioned);
KV_STAGE(Stage_formBeams)->ArgName("segmented")->Arg(0)->Arg(1);
KV_STAGE(Stage_conditionBeamImage)->ArgName("smooth")->Arg(0)->Arg(1);
KV_STAGE(Stage_detectBeamCandidates);
KV_STAGE(Stage_traceBottomCurve);
KV_STAGE(Stage_trackSoundings);
KV_STAGE(Stage_updateSectorGrid);
KV_STAGE(Stage_renderWaterColumnImage);
KV_STAGE(Stage_updateSideScanWaterfall);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::AddCustomContext("openblas_core", openblas_get_corename());
    benchmark::AddCustomContext("openblas_config", openblas_get_config());
    const char* coreType = std::getenv("OPENBLAS_CORETYPE");
    benchmark::AddCustomContext("openblas_coretype_env", coreType ? coreType : "");
    benchmark::AddCustomContext("kernel_team_size", std::to_string(kvane::teamSize()));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
