// harness.h - the parameter block the replay tool hands the kernel on every
// ping; tests and benchmarks use the same block.
#pragma once

#include <cstdint>

#include "kVane.h"

namespace kvreplay {

// The harness's values, written on every ping, and our defaults for the
// fields the harness leaves as its stack holds them: a fan of 70 degrees to
// each side, the one-shot path (rollCount 1), clipping at the lowest ratio the
// kernel accepts (0.01, so only beams 40 dB under their half-fan's strongest
// are flattened and the image keeps its dynamics), and a quality threshold of
// 0.0 (every phase detection with a non-negative adjusted R-squared counts,
// and only the raw tracker pass runs).
inline KVaneParams harnessParams(int32_t beamCount = 256) {
    KVaneParams p{};
    p.reserved0[0] = 0.4f;
    p.reserved0[1] = 15.0f;
    p.reserved0[2] = 70.0f;
    p.depthLimitNear = 15.0f;
    p.depthLimitFar = 30.0f;
    p.soundSpeed = 1500.0f;
    p.gainSwitch = 0.0f;
    p.rollAngle[0] = 0.0f;
    p.pulseLength = 0.00005f;
    p.limitMode = 1;
    p.beamSpacing = 1;
    p.imageWidth = 824;
    p.imageHeight = 329;
    p.imageGain = 1.0f;
    p.beamCount = beamCount;
    p.fixedGainEnable = 1;
    p.reserved6 = 3;
    p.trackEnable = 1;
    p.sideScanMode = 1;
    p.sideScanRows = 100;
    p.sectorPort = 70.0f;
    p.sectorStarboard = 70.0f;
    p.rollCount = 1;
    p.pingTime = 0;
    p.clipRatio = 0.01f;
    p.qualityThreshold = 0.0f;
    return p;
}

}  // namespace kvreplay
