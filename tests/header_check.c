/* header_check.c - the public header seen from a C translation unit: it
 * compiles as C99, and the layout a C host sees is reported to the C++ tests. */
#include <stddef.h>
#include <stdint.h>

#include "kVane.h"

_Static_assert(sizeof(KVaneParams) == 8924, "KVaneParams is 8924 bytes");
_Static_assert(sizeof(KVaneInput) == 24, "KVaneInput is 24 bytes");
_Static_assert(sizeof(void*) != 8 || sizeof(KVaneResult) == 18600, "KVaneResult is 18600 bytes");

/* Offsets of every field as a C compiler lays them out, in declaration order. */
size_t kvaneCParamsOffsets(size_t* out) {
    size_t i = 0;
    out[i++] = offsetof(KVaneParams, depthLimitNear);
    out[i++] = offsetof(KVaneParams, depthLimitFar);
    out[i++] = offsetof(KVaneParams, soundSpeed);
    out[i++] = offsetof(KVaneParams, sectorPort);
    out[i++] = offsetof(KVaneParams, sectorStarboard);
    out[i++] = offsetof(KVaneParams, gainSwitch);
    out[i++] = offsetof(KVaneParams, rollAngle);
    out[i++] = offsetof(KVaneParams, rollTime);
    out[i++] = offsetof(KVaneParams, rollCount);
    out[i++] = offsetof(KVaneParams, pingTime);
    out[i++] = offsetof(KVaneParams, pulseLength);
    out[i++] = offsetof(KVaneParams, limitMode);
    out[i++] = offsetof(KVaneParams, beamSpacing);
    out[i++] = offsetof(KVaneParams, imageWidth);
    out[i++] = offsetof(KVaneParams, imageHeight);
    out[i++] = offsetof(KVaneParams, imageGain);
    out[i++] = offsetof(KVaneParams, beamCount);
    out[i++] = offsetof(KVaneParams, fixedGainEnable);
    out[i++] = offsetof(KVaneParams, trackEnable);
    out[i++] = offsetof(KVaneParams, clipRatio);
    out[i++] = offsetof(KVaneParams, sideScanMode);
    out[i++] = offsetof(KVaneParams, sideScanRows);
    out[i++] = offsetof(KVaneParams, qualityThreshold);
    out[i++] = sizeof(KVaneParams);
    return i;
}

size_t kvaneCResultOffsets(size_t* out) {
    size_t i = 0;
    out[i++] = offsetof(KVaneResult, beamAngleCopies);
    out[i++] = offsetof(KVaneResult, bottomSample);
    out[i++] = offsetof(KVaneResult, segmentRoll);
    out[i++] = offsetof(KVaneResult, beamImage);
    out[i++] = offsetof(KVaneResult, displayImage);
    out[i++] = offsetof(KVaneResult, bottomFlag);
    out[i++] = offsetof(KVaneResult, firstEchoHalf);
    out[i++] = offsetof(KVaneResult, sideScanImage);
    out[i++] = offsetof(KVaneResult, gainProfile);
    out[i++] = sizeof(KVaneResult);
    out[i++] = offsetof(KVaneInput, planeI);
    out[i++] = offsetof(KVaneInput, planeQ);
    out[i++] = offsetof(KVaneInput, sampleCount);
    out[i++] = sizeof(KVaneInput);
    return i;
}
