// workspace.cpp - the Malloc and Free entry points and the global workspace.
#include "workspace.h"

#include <cblas.h>
#include <omp.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "../../include/kVane.h"

namespace kvane {

KVaneWorkspace ws{};

namespace {
KVaneRetained makeRetained() {
    KVaneRetained r{};
    for (int i = 0; i < 256; ++i) r.gateTable[i] = 10;
    for (int i = 256; i < 512; ++i) r.gateTable[i] = 8000;
    r.firstBeamPending = 1;
    return r;
}

EchoCandidate* candidateRecords = nullptr;

template <typename T>
T* alloc(std::size_t count) {
    return static_cast<T*>(alignedAlloc(count, sizeof(T)));
}

template <typename T>
void release(T*& p) {
    alignedFree(p);
    p = nullptr;
}
}  // namespace

KVaneRetained retained = makeRetained();
EchoCandidate* candidateSlots[1536] = {};

namespace {

constexpr std::size_t kHarnessPixels = 824 * 329;

// Starts the thread team and lets each thread make the matrix library's
// products of both shapes a ping makes (on zeros, into scratch a ping
// overwrites), so that the first ping finds the threads and the library's
// buffers ready.
void warmUpTeam() {
    const int saved = matrixThreads();
    setMatrixThreads(1);
    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
#pragma omp parallel num_threads(teamSize())
    {
        const int t = omp_get_thread_num();
        cfloat* block = ws.formedBeamIq + static_cast<std::size_t>(t) * 256 * 256;
        cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, 256, 256, 64, one, ws.steerMatrix,
                    64, ws.rawChannels, 8000, zero, block, 256);
        const SplitThreadStore store = splitThreadStore(&ws.split, t);
        cblas_cgemm(CblasRowMajor, CblasTrans, CblasNoTrans, 18, 256, 32, one, ws.rawChannels, 18,
                    store.aligned, 256, zero, store.subBeams[0], 256);
    }
    setMatrixThreads(saved);
}

void buildWorkspace() {
    if (ws.built) return;  // a second Malloc without Free keeps the first workspace
    constexpr std::size_t kChannelSet = 512000;
    constexpr std::size_t kBeamSet = 2048000;
    constexpr std::size_t kLine = 8000;

    ws.rawChannels = alloc<cfloat>(kChannelSet);
    ws.filteredChannels = alloc<cfloat>(kChannelSet);
    ws.magnitudeBySample = alloc<float>(kChannelSet);
    ws.gainReal = alloc<float>(kLine);
    // The per-sample fixed gain has no source in the kernel: ones make it neutral.
    for (std::size_t i = 0; i < kLine; ++i) ws.gainReal[i] = 1.0f;
    ws.formedBeamIq = alloc<cfloat>(kBeamSet);
    ws.splitBeamIq = alloc<cfloat>(kBeamSet);
    ws.beamEnvelope = alloc<float>(kBeamSet);
    ws.steerMatrix = alloc<cfloat>(256 * 64);

    ws.split.subBeamLow = alloc<cfloat>(kBeamSet);
    ws.split.subBeamMid = alloc<cfloat>(kBeamSet);
    ws.split.subBeamHigh = alloc<cfloat>(kBeamSet);
    ws.split.correlationSum = alloc<cfloat>(kBeamSet);
    ws.split.alignedChannels = alloc<cfloat>(kChannelSet + 8);
    ws.split.alignScratch = alloc<cfloat>(kTeamCapacity * (kLine + 8));
    ws.split.sectionSetups = alloc<SplitSectionSetup>(kSplitSections);

    // One set of detector lines per thread of the team: beams run in parallel.
    constexpr std::size_t kDetectLines = kTeamCapacity * static_cast<std::size_t>(kDetectLineLength);
    ws.detect.envelopeWork = alloc<float>(kDetectLines);
    ws.detect.iqWork = alloc<cfloat>(kDetectLines);
    ws.detect.gateIq = alloc<cfloat>(kDetectLines);
    ws.detect.gateI = alloc<float>(kDetectLines);
    ws.detect.gateQ = alloc<float>(kDetectLines);
    ws.detect.gatePhase = alloc<float>(kDetectLines);
    ws.detect.scratchA = alloc<float>(kDetectLines);
    ws.detect.scratchB = alloc<float>(kDetectLines);
    ws.detect.lineSets = kTeamCapacity;

    retained.grid.x = alloc<float>(kGridCapacity);
    retained.grid.y = alloc<float>(kGridCapacity);
    retained.grid.range = alloc<float>(kGridCapacity);
    retained.grid.beam = alloc<float>(kGridCapacity);
    ws.wedge.regrid = alloc<float>(kBeamSet);
    ws.wedge.angleGrid = alloc<float>(256);
    ws.wedge.sourceBeam = alloc<int32_t>(256);
    ws.wedgePlan = WedgePlan{};
    ws.wedgePlan.pixels = alloc<WedgePixel>(kGridCapacity);
    ws.wedgePlan.firstPixel = alloc<int32_t>(8002);
    ws.waterfall = alloc<float>(static_cast<std::size_t>(kWaterfallRows) * kWaterfallRowLength);

    candidateRecords = static_cast<EchoCandidate*>(std::calloc(1536, sizeof(EchoCandidate)));
    for (int i = 0; i < 1536; ++i) candidateSlots[i] = candidateRecords ? candidateRecords + i : nullptr;
    for (int i = 0; i < 256; ++i) retained.gateTable[i] = 10;
    for (int i = 256; i < 512; ++i) retained.gateTable[i] = 8000;

    // Every buffer must exist before a ping may run; a failed allocation
    // leaves the workspace unbuilt and pings are skipped.
    void* all[] = {ws.rawChannels, ws.filteredChannels,
                   ws.magnitudeBySample, ws.gainReal, ws.formedBeamIq,
                   ws.splitBeamIq, ws.beamEnvelope, ws.steerMatrix,
                   ws.split.subBeamLow, ws.split.subBeamMid, ws.split.subBeamHigh,
                   ws.split.correlationSum, ws.split.alignedChannels, ws.split.alignScratch,
                   ws.split.sectionSetups,
                   ws.detect.envelopeWork, ws.detect.iqWork, ws.detect.gateIq, ws.detect.gateI,
                   ws.detect.gateQ, ws.detect.gatePhase, ws.detect.scratchA, ws.detect.scratchB,
                   retained.grid.x, retained.grid.y, retained.grid.range, retained.grid.beam,
                   ws.wedge.regrid, ws.wedge.angleGrid, ws.wedge.sourceBeam,
                   ws.wedgePlan.pixels, ws.wedgePlan.firstPixel,
                   ws.waterfall, candidateRecords};
    bool ok = true;
    for (void* p : all) ok = ok && p != nullptr;
    ws.built = ok;
    if (!ok) return;
    // The sections' setups are made by the first ping that needs them.
    for (int32_t s = 0; s < kSplitSections; ++s) ws.split.sectionSetups[s].keyed = 0;

    // What every full-size ping writes is made resident now rather than on
    // the first ping: the channels and their magnitudes, the image, the
    // split-aperture products, the threads' blocks of beams and correlator
    // scratch, the detector lines and the waterfall.
    constexpr std::size_t kThreadBeamBlocks = kTeamCapacity * 256 * 256;
    constexpr std::size_t kThreadAligned = kTeamCapacity * 64 * 256;
    constexpr std::size_t kThreadSubBeams = kTeamCapacity * 24 * 256;
    const std::pair<void*, std::size_t> resident[] = {
        {ws.rawChannels, sizeof(cfloat) * kChannelSet},
        {ws.filteredChannels, sizeof(cfloat) * kChannelSet},
        {ws.magnitudeBySample, sizeof(float) * kChannelSet},
        {ws.beamEnvelope, sizeof(float) * kBeamSet},
        {ws.splitBeamIq, sizeof(cfloat) * kBeamSet},
        {ws.formedBeamIq, sizeof(cfloat) * kThreadBeamBlocks},
        {ws.split.alignedChannels, sizeof(cfloat) * kThreadAligned},
        {ws.split.subBeamLow, sizeof(cfloat) * kThreadSubBeams},
        {ws.split.subBeamMid, sizeof(cfloat) * kThreadSubBeams},
        {ws.split.subBeamHigh, sizeof(cfloat) * kThreadSubBeams},
        {ws.waterfall, sizeof(float) * kWaterfallRows * kWaterfallRowLength},
        // The sector grid and the wedge's plan of the harness's 824 x 329 picture.
        {retained.grid.range, sizeof(float) * kHarnessPixels},
        {retained.grid.beam, sizeof(float) * kHarnessPixels},
        {retained.grid.x, sizeof(float) * kHarnessPixels},
        {retained.grid.y, sizeof(float) * kHarnessPixels},
        {ws.wedgePlan.pixels, sizeof(WedgePixel) * kHarnessPixels}};
    for (const auto& [p, bytes] : resident) makeResident(p, bytes);
    warmUpTeam();
}

void releaseWorkspace() {
    release(ws.rawChannels);
    release(ws.filteredChannels);
    release(ws.magnitudeBySample);
    release(ws.gainReal);
    release(ws.formedBeamIq);
    release(ws.splitBeamIq);
    release(ws.beamEnvelope);
    release(ws.steerMatrix);
    release(ws.split.subBeamLow);
    release(ws.split.subBeamMid);
    release(ws.split.subBeamHigh);
    release(ws.split.correlationSum);
    release(ws.split.alignedChannels);
    release(ws.split.alignScratch);
    release(ws.split.sectionSetups);
    release(ws.detect.envelopeWork);
    release(ws.detect.iqWork);
    release(ws.detect.gateIq);
    release(ws.detect.gateI);
    release(ws.detect.gateQ);
    release(ws.detect.gatePhase);
    release(ws.detect.scratchA);
    release(ws.detect.scratchB);
    // The grid's signature and sizes stay (retained state); its buffers go.
    release(retained.grid.x);
    release(retained.grid.y);
    release(retained.grid.range);
    release(retained.grid.beam);
    release(ws.wedge.regrid);
    release(ws.wedge.angleGrid);
    release(ws.wedge.sourceBeam);
    release(ws.wedgePlan.pixels);
    release(ws.wedgePlan.firstPixel);
    ws.wedgePlan.ready = false;
    release(ws.waterfall);
    std::free(candidateRecords);
    candidateRecords = nullptr;
    for (auto& slot : candidateSlots) slot = nullptr;
    ws.built = false;
    ws.built7420 = false;
}

}  // namespace
}  // namespace kvane

using namespace kvane;

// Both Malloc variants build the same workspace: the raw-rate front end and
// the spare buffers that kVaneMalloc7420 would add feed no output, so they are
// not built. Both Free variants release everything, so any pairing of Malloc
// and Free is safe and leaks nothing.
extern "C" KVANE_API void kVaneMalloc(void) { buildWorkspace(); }

extern "C" KVANE_API void kVaneMalloc7420(void) {
    buildWorkspace();
    ws.built7420 = ws.built;
}

extern "C" KVANE_API void kVaneFree(void) { releaseWorkspace(); }

extern "C" KVANE_API void kVaneFree7420(void) { releaseWorkspace(); }

extern "C" KVANE_API void kVaneProcess80(void) {}
