// buildBeamFan.cpp - the steering angles of a ping: the default fan of the
// beam count, the host's equal-angle or equal-distance fan over its sectors,
// and the signature that turns a change of the fan into a gate reset.
#include <cmath>
#include <cstring>

#include "driver.h"

namespace kvane {
namespace {

// Single-precision pi and the ramp dst[i] = offset + i * slope as the fan
// builds it (float product, then float sum).
constexpr float kPi = 3.1415927f;

void rampFloat(float* dst, int32_t count, float offset, float slope) {
    for (int32_t i = 0; i < count; ++i) dst[i] = offset + static_cast<float>(i) * slope;
}

// Truncation of a float to int32. A value outside the int32 range (or NaN)
// reads as INT32_MIN, the processor's own answer, rather than being undefined.
int32_t truncToInt32(float x) {
    if (!(x > -2147483648.0f && x < 2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(x);
}

}  // namespace

void fillBeamAnglesFromTable(float* beamAngles, int32_t beamCount) {
    // The default fans are not centred and ignore the sector fields; a fan of
    // any other beam count is all zeros.
    float start = 0.0f;
    float step = 0.0f;
    if (beamCount == 64) {
        start = -69.2f;
        step = 2.2f;
    } else if (beamCount == 128) {
        start = -70.0f;
        step = 1.1f;
    } else if (beamCount == 256) {
        start = -70.0f;
        step = 0.55f;
    }
    rampFloat(beamAngles, beamCount, start, step);
}

uint8_t finishBeamFan(float* beamAngles, double* beamAnglesDouble, float* beamAngleCopies,
                      float sectorPort, float sectorStarboard, int8_t beamSpacing,
                      int32_t beamCount, int32_t* geometrySignature) {
    const float P = sectorPort;
    const float S = sectorStarboard;
    const int32_t B = beamCount;
    if (beamSpacing == 1) {
        // Equal angles from -P to +S. One beam divides by zero: the fan is then
        // not finite, as the host asked for a fan of one beam over a sector.
        rampFloat(beamAngles, B, -P, (P + S) / static_cast<float>(B - 1));
    } else if (beamSpacing == 2) {
        // Equal distances across a flat bottom 10000 units deep; the depth unit
        // only sets the resolution of the floors.
        std::memset(beamAngles, 0, sizeof(float) * static_cast<std::size_t>(B > 0 ? B : 0));
        const float xP = std::floor(10000.0f * std::tan(kPi * (P / 180.0f)));
        const float xS = std::floor(10000.0f * std::tan(kPi * (S / 180.0f)));
        const float dx = (xP + xS) / static_cast<float>(B - 1);
        for (int32_t i = 0; i < B; ++i)
            beamAngles[i] =
                -180.0f * std::atan((xP - static_cast<float>(i) * dx) / 10000.0f) / kPi;
    }

    // The stored signature is truncated, so a fractional sector sum reads as a
    // new fan on every ping (and resets the gates every ping): intended.
    const float sig = (P + S) + static_cast<float>(beamSpacing) + static_cast<float>(B);
    uint8_t changed = 0;
    if (sig != static_cast<float>(*geometrySignature)) {
        *geometrySignature = truncToInt32(sig);
        changed = 1;
    }

    for (int32_t copy = 0; copy < 3; ++copy)
        std::memcpy(beamAngleCopies + copy * B, beamAngles,
                    sizeof(float) * static_cast<std::size_t>(B > 0 ? B : 0));
    for (int32_t i = 0; i < B; ++i) beamAnglesDouble[i] = static_cast<double>(beamAngles[i]);
    return changed;
}

}  // namespace kvane
