// workspace.h - the process-wide workspace: buffers of the ping path,
// allocated once by the Malloc functions, and the state retained between pings.
#pragma once

#include <cstdint>

#include "../backend/backend.h"
#include "../detect/detect.h"
#include "../frontend/frontend.h"
#include "../numeric/numeric.h"
#include "driver.h"

namespace kvane {

// Buffers of the ping path. Counts in elements. Buffers that no output reads
// (the unread int16/cfloat/float sets, the spare set and the raw-rate front
// end) are not allocated at all.
struct KVaneWorkspace {
    bool built;                  // between a Malloc and a Free
    bool built7420;              // built by kVaneMalloc7420
    cfloat* rawChannels;         // 512,000: shifted 15 samples
    cfloat* filteredChannels;    // 512,000: after the channel filter and gains (pings with a gain)
    float* magnitudeBySample;    // 512,000: |rawChannels|, sample-major, width 64
    float* gainReal;             // 8,000: per-sample fixed gain, ones at allocation
    cfloat* formedBeamIq;        // 2,048,000: beams, beam-major
    cfloat* splitBeamIq;         // 2,048,000: split-aperture products, beam-major
    float* beamEnvelope;         // 2,048,000: |formedBeamIq| after clipping
    cfloat* steerMatrix;         // 16,384: B x 64 steering weights
    SplitScratch split;          // sub-beams, sum (2,048,000 each), aligned, alignScratch
    DetectWork detect;           // per-beam and per-gate lines, one set per thread of the team
    WedgeWork wedge;             // wedge picture scratch
    WedgePlan wedgePlan;         // the equal-angle wedge by image samples
    float* waterfall;            // 3,200,000, zeroed at allocation
};

// State that survives between pings and across Free and Malloc: zero at load
// (gateTable 10 / 8000 and firstBeamPending 1 are set by the Malloc
// functions and at load).
struct KVaneRetained {
    int32_t firstEchoHistory[7];
    float lastRollAngle;
    float lastRollTime;
    int32_t geometrySignature;
    uint8_t geometryChanged;
    SectorGrid grid;             // signature and sizes retained; buffers in the workspace
    int32_t trackCentre[2];
    float trackHistory[768];
    int32_t gateTable[512];
    uint8_t firstBeamPending;
    int32_t waterfallHead;       // the waterfall's ring (its rows are in the workspace)
    int32_t waterfallSpan;
};

extern KVaneWorkspace ws;
extern KVaneRetained retained;
extern EchoCandidate* candidateSlots[1536];

}  // namespace kvane
