// kVaneProcess20.cpp - the ping driver: the fixed order of the stages of one
// ping, the switches of KVaneParams, the state that crosses pings, and the
// raw-buffer entry kVaneProcess7420.
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "../../include/kVane.h"
#include "../backend/backend.h"
#include "../detect/detect.h"
#include "../frontend/frontend.h"
#include "driver.h"
#include "workspace.h"

namespace kvane {
namespace {

// A ping runs only on a built workspace with usable blocks and sizes. Anything
// else is skipped and leaves the result block as it was: the kernel has no
// error channel, and a skipped ping is the one outcome that never touches
// memory it does not own.
bool pingIsRunnable(const KVaneParams* params, const KVaneInput* input, const KVaneResult* result) {
    if (!ws.built || params == nullptr || input == nullptr || result == nullptr) return false;
    if (input->planeI == nullptr || input->planeQ == nullptr) return false;
    const int32_t n = input->sampleCount;
    const int32_t B = params->beamCount;
    if (n < 1 || n > kMaxSamples || B < 1 || B > kMaxBeams) return false;
    if (result->beamImage == nullptr || result->displayImage == nullptr ||
        result->sideScanImage == nullptr)
        return false;
    if (params->gainSwitch != 0.0f && result->gainProfile == nullptr) return false;
    if (params->imageWidth < 0 || params->imageHeight < 0) return false;
    return true;
}

void decideTrackedLine(const KVaneParams* params, KVaneResult* result, int32_t B,
                       int32_t firstEchoSample, const float* beamAngles, float angleOffset,
                       const int32_t* rawDetectionTable, const int32_t* detectionTable) {
    if (params->trackEnable != 1) {
        // The first candidate of each beam, straight from the record (not clamped).
        for (int32_t b = 0; b < B; ++b)
            result->bottomSample[b] = static_cast<float>(candidateSlots[b * 6]->detectionSample);
        retained.trackCentre[0] = 0;
        retained.trackCentre[1] = 0;
        return;
    }
    int32_t tracked[kMaxBeams] = {};
    int32_t detected[kMaxBeams] = {};
    trackRawSoundings(rawDetectionTable, B, retained.trackCentre,
                      static_cast<float>(firstEchoSample), beamAngles, angleOffset, tracked,
                      retained.trackHistory, result->bottomFlag);
    if (params->qualityThreshold != 0.0f) {
        trackDetectedSoundings(detectionTable, B, retained.trackCentre,
                               static_cast<float>(firstEchoSample), beamAngles, angleOffset,
                               detected, retained.trackHistory, result->bottomFlag);
        for (int32_t b = 0; b < B; ++b)
            if (result->bottomFlag[b] == 1 && tracked[b] != 0) tracked[b] = detected[b];
    }
    std::memmove(retained.trackHistory, retained.trackHistory + B, sizeof(float) * 2 * B);
    for (int32_t b = 0; b < B; ++b) retained.trackHistory[2 * B + b] = static_cast<float>(tracked[b]);
    retained.trackCentre[0] = B / 2 - 1 >= 0 ? tracked[B / 2 - 1] : 0;
    retained.trackCentre[1] = tracked[B / 2];
    for (int32_t b = 0; b < B; ++b) result->bottomSample[b] = static_cast<float>(tracked[b]);
}

// What the detection needs to have the split-aperture samples of its gates
// formed.
struct SplitProductsOrder {
    const KVaneParams* params;
    bool segmented;
    const KVaneResult* result;
    const float* beamAngles;
    int32_t n;
    const BeamformingIo* io;
};

void formSplitProductsFor(const SampleWindows& windows, void* context) {
    const SplitProductsOrder& o = *static_cast<const SplitProductsOrder*>(context);
    formSplitProducts(o.params, o.segmented, o.result, o.beamAngles, o.n, o.io, windows);
}

}  // namespace

// Runs one ping; false when it was skipped.
bool processPing(KVaneParams* params, KVaneInput* input, KVaneResult* result) {
    if (!pingIsRunnable(params, input, result)) return false;
    beginTeamPing();
    const int32_t n = input->sampleCount;
    const int32_t B = params->beamCount;

    // 1. Scaled complex channels and their magnitudes by sample. The beams
    // are formed from the filtered channels, which differ from the raw ones
    // only where a gain applies: without one, the raw channels serve.
    const bool gains = params->gainSwitch != 0.0f || params->fixedGainEnable != 0;
    cfloat* const filtered = gains ? ws.filteredChannels : ws.rawChannels;
    conditionChannels(ws.rawChannels, gains ? ws.filteredChannels : nullptr,
                      ws.magnitudeBySample, input->planeI, input->planeQ, n);

    // 2. Default detector limits.
    DetectionLimits limits{100, 4000, 0, 1, params->soundSpeed, 0};

    // 3. The fan from the beam-count table.
    float beamAngles[kMaxBeams] = {};
    double beamAnglesDouble[kMaxBeams] = {};
    fillBeamAnglesFromTable(beamAngles, B);

    // 4. First echo, optional gain equaliser, the history, optional fixed gain.
    const int32_t first = detectFirstEcho(ws.magnitudeBySample, n);
    if (params->gainSwitch != 0.0f) {
        int32_t gainOnsetSample = 0;  // nothing reads it later
        equaliseChannelGain(filtered, result->gainProfile, &gainOnsetSample, n);
    }
    result->firstEchoHalf = static_cast<float>(first) * 0.5f;
    const int32_t firstEchoSample = updateFirstEchoHistory(retained.firstEchoHistory, first);
    if (params->fixedGainEnable != 0) applyFixedGain(filtered, ws.gainReal, n);

    // 5. Detector limits from limitMode.
    if (params->limitMode == 1) {
        limits = DetectionLimits{0, n - 1, 0, n - 1, params->soundSpeed, 1};
    } else if (params->limitMode == 2) {
        const float lo = params->depthLimitNear < params->depthLimitFar ? params->depthLimitNear
                                                                        : params->depthLimitFar;
        const float hi = params->depthLimitNear < params->depthLimitFar ? params->depthLimitFar
                                                                        : params->depthLimitNear;
        // Cut to whole numbers; a NaN or out-of-range end reads as INT32_MIN,
        // as the processor's conversion gives it, instead of being undefined.
        limits = DetectionLimits{0, n - 1, truncToInt(lo), truncToInt(hi), params->soundSpeed, 2};
        retained.trackCentre[0] = 0;
        retained.trackCentre[1] = 0;
    }

    // 6. The rest of the fan.
    retained.geometryChanged =
        finishBeamFan(beamAngles, beamAnglesDouble, result->beamAngleCopies, params->sectorPort,
                      params->sectorStarboard, params->beamSpacing, B, &retained.geometrySignature);

    // 7. Sector grid of the water-column wedge. The wedge needs the image
    // alone: for an equal-angle fan without smoothing it is drawn piece by
    // piece as the image is formed, while each piece is in the cache.
    updateSectorGrid(&retained.grid, params->sectorPort, params->sectorStarboard,
                     params->imageWidth, params->imageHeight, n, B);
    std::memset(result->displayImage, 0,
                static_cast<std::size_t>(params->imageWidth) *
                    static_cast<std::size_t>(params->imageHeight));
    const bool wedgeByPieces =
        params->gainSwitch == 0.0f && params->beamSpacing == 1 &&
        prepareWedgePlan(&ws.wedgePlan, &retained.grid, B, n, params->imageWidth,
                         params->imageHeight);

    // 8. Beams and their amplitude image. The split-aperture products follow
    // once the detection's gates say which of their samples it reads (step 10).
    // The image goes straight to the host's buffer; when it is to be smoothed,
    // to the workspace's envelope, the smoothing's input.
    const bool smooth = params->gainSwitch != 0.0f;
    BeamformingIo io{filtered,            ws.rawChannels,           ws.formedBeamIq,
                     ws.splitBeamIq,      ws.steerMatrix,           ws.split,
                     &retained.lastRollAngle, &retained.lastRollTime,
                     smooth ? ws.beamEnvelope : result->beamImage, true,
                     wedgeByPieces ? &ws.wedgePlan : nullptr, params->imageGain,
                     result->displayImage};
    const bool segmented = params->rollCount != 1;
    const float angleOffset = formBeams(params, result, beamAngles, beamAnglesDouble, n, &io);

    // 9. The image smoothed when asked, and the wedge when not drawn yet.
    if (smooth) smoothBeamImage(ws.beamEnvelope, result->beamImage, B, n);
    if (!wedgeByPieces)
        renderWaterColumnImage(result->beamImage, B, n, beamAngles, params->sectorPort,
                               params->sectorStarboard, params->beamSpacing, params->imageGain,
                               result->displayImage, params->imageWidth, params->imageHeight,
                               &retained.grid, &ws.wedge);

    // 10. Candidates.
    for (int32_t i = 0; i < 6 * B; ++i) {
        candidateSlots[i]->detectionSample = 0;
        candidateSlots[i]->rawDetectionSample = 0;
    }
    // The detection reads the image where the host has it (smoothed or not,
    // its first B rows of n).
    BottomDetectArgs args{beamAngles,         result->beamImage, ws.splitBeamIq, n, B,
                          firstEchoSample,    params->pulseLength, kSampleRate, &limits,
                          params->qualityThreshold, retained.geometryChanged,
                          &retained.firstBeamPending, ws.detect};
    SplitProductsOrder order{params, segmented, result, beamAngles, n, &io};
    detectBeamCandidates(&args, candidateSlots, retained.gateTable, formSplitProductsFor, &order);

    // 11. Harvest, clamped to 1..n so that an empty slot reads 1.
    int32_t detectionTable[1536] = {};
    int32_t rawDetectionTable[1536] = {};
    float candidates[1536] = {};
    for (int32_t i = 0; i < 6 * B; ++i) {
        const int32_t raw = candidateSlots[i]->rawDetectionSample;
        const int32_t det = candidateSlots[i]->detectionSample;
        rawDetectionTable[i] = raw < 1 ? 1 : (raw > n ? n : raw);
        detectionTable[i] = det < 1 ? 1 : (det > n ? n : det);
    }
    for (int32_t b = 0; b < B; ++b)
        for (int32_t c = 0; c < 6; ++c)
            candidates[c * B + b] = static_cast<float>(detectionTable[b * 6 + c]);

    // 12. Trace the line across the fan.
    for (int32_t b = 0; b < B; ++b) result->bottomSample[b] = 0.0f;
    traceBottomCurve(candidates, static_cast<float>(B), static_cast<float>(n),
                     result->bottomSample);
    completeBottomLine(result->bottomSample, result->bottomFlag, B);

    // 13. In shallow water the tracker or the first candidates replace the line.
    if (firstEchoSample < 100)
        decideTrackedLine(params, result, B, firstEchoSample, beamAngles, angleOffset,
                          rawDetectionTable, detectionTable);

    // 14. Gates of the next ping.
    for (int32_t b = 0; b < B; ++b) {
        retained.gateTable[b] = firstEchoSample / 4;
        retained.gateTable[B + b] = n - 1;
    }

    // 15. Side-scan waterfall.
    updateSideScanWaterfall(result->beamImage, B, n, result->beamAngleCopies,
                            result->bottomSample, result->sideScanImage, params->sideScanMode,
                            params->sideScanRows, firstEchoSample,
                            WaterfallRing{ws.waterfall, &retained.waterfallHead,
                                          &retained.waterfallSpan});
    return true;
}

}  // namespace kvane

extern "C" KVANE_API void kVaneProcess20(KVaneParams* params, KVaneInput* input,
                                         KVaneResult* result) {
    kvane::processPing(params, input, result);
}

extern "C" KVANE_API void kVaneProcess7420(KVaneParams* params, void* /*unused*/,
                                           KVaneResult* result, void* raw, int32_t rawBytes) {
    if (raw == nullptr || rawBytes < 512 || result == nullptr) return;
    KVaneInput input{};
    input.planeI = static_cast<int32_t*>(raw);
    input.planeQ = reinterpret_cast<int32_t*>(static_cast<char*>(raw) + rawBytes / 2);
    input.sampleCount = rawBytes / 512;
    if (!kvane::processPing(params, &input, result)) return;
    // Dither of +-0.5 sample, reseeded from the clock on every ping. glibc's
    // rand() spans 31 bits; its top 15 bits keep the dither within half a sample.
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int i = 0; i < 256; ++i) {
        const double r = static_cast<double>(std::rand() >> 16);
        result->bottomSample[i] =
            static_cast<float>(r / 32767.0 - 0.5 + static_cast<double>(result->bottomSample[i]));
    }
}
