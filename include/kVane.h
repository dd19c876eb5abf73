/*
 * kVane.h - the whole public interface of the KVane multibeam sonar kernel.
 *
 * A host builds the process-wide workspace once (kVaneMalloc or
 * kVaneMalloc7420), hands every ping to kVaneProcess20 (or kVaneProcess7420 for
 * one raw buffer), and releases the workspace with the matching Free function.
 * There is no handle: the workspace is global to the process and pings must be
 * processed one at a time. No function reports an error.
 *
 * The three blocks below are shared byte for byte with the host, so their
 * memory order is fixed. Fields named reserved* are never read by the kernel;
 * a host may keep its own values there.
 *
 * Compiles as C99 and as C++.
 */
#ifndef KVANE_H
#define KVANE_H

#include <stdint.h>

#if defined(_WIN32)
#define KVANE_API __declspec(dllexport)
#elif defined(__GNUC__)
#define KVANE_API __attribute__((visibility("default")))
#else
#define KVANE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One ping of samples: two planes of 64 channels x sampleCount signed 32-bit
 * samples each, channel-major (channel c, sample t at c * sampleCount + t),
 * complex baseband at 20,000 samples per second. 1 <= sampleCount <= 8000. */
typedef struct KVaneInput {
    int32_t* planeI;     /* in-phase plane */
    int32_t* planeQ;     /* quadrature plane */
    int32_t sampleCount; /* samples per channel */
} KVaneInput;

/* Parameters, read afresh on every ping. Angles in degrees, times in ms. */
typedef struct KVaneParams {
    float reserved0[3];     /* not read */
    float depthLimitNear;   /* one end of the depth window, metres (limitMode 2) */
    float depthLimitFar;    /* other end of the depth window, metres */
    int32_t reserved1[3];   /* not read */
    float soundSpeed;       /* sound speed at the array, m/s */
    int32_t reserved2;      /* not read */
    float sectorPort;       /* fan limit to port, degrees, positive */
    float sectorStarboard;  /* fan limit to starboard, degrees, positive */
    float gainSwitch;       /* not 0: channel gain equaliser and 7x7 image smoothing */
    int32_t reserved3[2001];/* not read */
    float rollAngle[100];   /* roll samples, degrees, added to every steering angle */
    int32_t rollTime[100];  /* time of each roll sample, ms */
    int32_t rollCount;      /* roll samples in use; 1 selects the one-shot path.
                               |rollCount| > 100 is written back as 1 */
    int32_t pingTime;       /* time of sample 0 of the ping, same clock as rollTime */
    float pulseLength;      /* transmit pulse length, seconds */
    int32_t reserved4[2];   /* not read */
    int8_t limitMode;       /* detector range: 0 fixed, 1 whole ping, 2 depth window */
    int8_t beamSpacing;     /* 0 table fan, 1 equal angles, 2 equal distances */
    uint8_t reserved5[2];   /* alignment */
    int32_t imageWidth;     /* displayImage width, pixels */
    int32_t imageHeight;    /* displayImage height, pixels */
    float imageGain;        /* factor on the water-column picture */
    int32_t beamCount;      /* beams: 64, 128 or 256 */
    int32_t fixedGainEnable;/* not 0: apply the per-sample fixed gain */
    int32_t reserved6;      /* not read */
    int32_t trackEnable;    /* 1: across-swath tracker when the first echo is early */
    float clipRatio;        /* half-fan clipping level relative to the row maximum, 0.01..0.99 */
    int32_t sideScanMode;   /* waterfall line: 1 around the bottom, 2 whole record */
    int32_t sideScanRows;   /* visible waterfall rows, 10..200 (else 100) */
    float qualityThreshold; /* lowest adjusted R-squared of a phase detection */
} KVaneParams;

/* Outputs, and the addresses of the host's output buffers. */
typedef struct KVaneResult {
    float beamAngleCopies[1920]; /* steering angles, three copies of beamCount each */
    float bottomSample[1920];    /* bottom sample per beam, 0 for a rejected beam */
    float segmentRoll[320];      /* roll of each 200-sample segment (segmented path) */
    float* beamImage;            /* host: beamCount rows of sampleCount floats; with
                                    gainSwitch set, (sampleCount+6)*(beamCount+6) */
    uint8_t* displayImage;       /* host: imageWidth x imageHeight bytes */
    uint8_t bottomFlag[1924];    /* per beam: 1 own detection, 2 copied from a neighbour */
    float firstEchoHalf;         /* this ping's first echo sample times 0.5 */
    float* sideScanImage;        /* host: up to sideScanRows rows of 2*sampleCount floats
                                    (3,200,000 floats always suffice) */
    float* gainProfile;          /* host: max(sampleCount, 600) floats when gainSwitch set */
} KVaneResult;

/* Builds the workspace. */
KVANE_API void kVaneMalloc(void);
/* Builds the workspace, for hosts that use kVaneProcess7420. */
KVANE_API void kVaneMalloc7420(void);
/* Releases what kVaneMalloc built. */
KVANE_API void kVaneFree(void);
/* Releases what kVaneMalloc7420 built. */
KVANE_API void kVaneFree7420(void);
/* Processes one ping. */
KVANE_API void kVaneProcess20(KVaneParams* params, KVaneInput* input, KVaneResult* result);
/* Processes one ping held in one raw buffer: plane I then plane Q, each 64
 * channels of rawBytes / 512 samples; plane Q starts at rawBytes / 2. The
 * second argument is ignored. Dithers bottomSample by +-0.5 sample. */
KVANE_API void kVaneProcess7420(KVaneParams* params, void* unused, KVaneResult* result,
                                void* raw, int32_t rawBytes);
/* Does nothing. */
KVANE_API void kVaneProcess80(void);

#ifdef __cplusplus
}
#endif

#endif /* KVANE_H */
