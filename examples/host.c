/* host.c - a minimal host written in C against kVane.h alone: builds the
 * workspace, hands one synthetic ping to the kernel, prints the bottom sample
 * of the centre beam, and releases the workspace. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kVane.h"

int main(void) {
    enum { CHANNELS = 64, SAMPLES = 2000, BEAMS = 256 };
    int32_t* planeI = calloc(CHANNELS * SAMPLES, sizeof *planeI);
    int32_t* planeQ = calloc(CHANNELS * SAMPLES, sizeof *planeQ);
    float* beamImage = calloc((SAMPLES + 6) * (BEAMS + 6), sizeof *beamImage);
    uint8_t* displayImage = calloc(824 * 329, 1);
    float* sideScanImage = calloc(3200000, sizeof *sideScanImage);
    KVaneParams* params = calloc(1, sizeof *params);
    KVaneResult* result = calloc(1, sizeof *result);
    if (!planeI || !planeQ || !beamImage || !displayImage || !sideScanImage || !params || !result) {
        fprintf(stderr, "host: out of memory\n");
        return 1;
    }
    /* A broadside echo at sample 500 on every channel, over a little noise. */
    srand(1);
    for (int c = 0; c < CHANNELS; ++c)
        for (int t = 0; t < SAMPLES; ++t) {
            planeI[c * SAMPLES + t] = (rand() % 2001) - 1000;
            planeQ[c * SAMPLES + t] = (rand() % 2001) - 1000;
            if (t >= 500 && t < 504) planeI[c * SAMPLES + t] += 100000000;
        }

    params->soundSpeed = 1500.0f;
    params->sectorPort = 70.0f;
    params->sectorStarboard = 70.0f;
    params->rollCount = 1;
    params->pulseLength = 0.00005f;
    params->limitMode = 1;
    params->beamSpacing = 1;
    params->imageWidth = 824;
    params->imageHeight = 329;
    params->imageGain = 1.0f;
    params->beamCount = BEAMS;
    params->fixedGainEnable = 1;
    params->trackEnable = 1;
    params->clipRatio = 0.01f;
    params->sideScanMode = 1;
    params->sideScanRows = 100;

    result->beamImage = beamImage;
    result->displayImage = displayImage;
    result->sideScanImage = sideScanImage;

    KVaneInput input = {planeI, planeQ, SAMPLES};
    kVaneMalloc();
    kVaneProcess20(params, &input, result);
    kVaneFree();

    printf("centre beam at %.2f degrees: bottom sample %.1f, flag %d\n",
           result->beamAngleCopies[BEAMS / 2], result->bottomSample[BEAMS / 2],
           result->bottomFlag[BEAMS / 2]);
    free(planeI);
    free(planeQ);
    free(beamImage);
    free(displayImage);
    free(sideScanImage);
    free(params);
    free(result);
    return 0;
}
