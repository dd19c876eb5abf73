// fuzz_process.cpp - whole pings with fuzzed parameter blocks and small
// fuzzed sample planes.
//
// One input is one to three pings through the one workspace, each with its own
// parameter block: mostly the replay tool's values, with any field replaced by
// a value from its working range or by raw bits (NaN, infinities, denormals,
// extremes). The planes hold up to 64 x 300 samples: raw bytes, or a plane-wave
// echo at a fuzzed sample and angle over raw noise, so that the detection
// stages see something to detect. Host buffers are sized exactly as the
// result block documents them, so a stage that writes past its share is seen.
//
// Oracles besides the sanitizers: a ping the driver must refuse (sizes out of
// range, missing buffers) leaves the result block and the host buffers as they
// were; a ping that runs leaves bottomSample from entry 256 up, and bottomFlag
// and beamAngleCopies beyond the beam count, alone.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "driver/workspace.h"
#include "kVane.h"

namespace {

kvane::KVaneRetained loadState;  // retained state as the first ping finds it

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "ping invariant broken: %s\n", what);
        std::abort();
    }
}

float pickFloat(FuzzedDataProvider& in, float typical, float lo, float hi) {
    const uint8_t s = in.ConsumeIntegral<uint8_t>();
    if (s < 150) return typical;
    if (s < 225) return in.ConsumeFloatingPointInRange(lo, hi);
    const uint32_t bits = in.ConsumeIntegral<uint32_t>();
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

int32_t pickInt(FuzzedDataProvider& in, int32_t typical, int32_t lo, int32_t hi) {
    const uint8_t s = in.ConsumeIntegral<uint8_t>();
    if (s < 150) return typical;
    if (s < 235) return in.ConsumeIntegralInRange(lo, hi);
    return in.ConsumeIntegral<int32_t>();
}

void pickImageSize(FuzzedDataProvider& in, int32_t* width, int32_t* height) {
    const uint8_t s = in.ConsumeIntegral<uint8_t>();
    if (s < 150) {
        *width = 96;
        *height = 40;
    } else if (s < 215) {
        *width = in.ConsumeIntegralInRange(0, 300);
        *height = in.ConsumeIntegralInRange(0, 300);
    } else if (s < 245) {
        *width = in.ConsumeIntegralInRange(0, 2100);
        *height = in.ConsumeIntegralInRange(0, 2100);
    } else {
        // A negative side, which the kernel must refuse.
        *width = in.ConsumeIntegralInRange(INT32_MIN, 300);
        *height = in.ConsumeIntegralInRange(INT32_MIN, 300);
        if (*width >= 0 && *height >= 0) *height = -1;
    }
}

struct Ping {
    KVaneParams params{};
    int32_t n = 0;        // sample count handed to the kernel
    int32_t planeN = 0;   // samples per channel actually present
    bool raw7420 = false;
    int32_t rawRemainder = 0;
    uint8_t nullMask = 0;  // pointers left null: host buffers, blocks, a plane
    std::vector<int32_t> planes;  // plane I then plane Q (or the raw buffer)
};

void fillParams(FuzzedDataProvider& in, KVaneParams* p) {
    p->reserved0[0] = 0.4f;
    p->reserved0[1] = 15.0f;
    p->reserved0[2] = 70.0f;
    p->depthLimitNear = pickFloat(in, 15.0f, -100.0f, 500.0f);
    p->depthLimitFar = pickFloat(in, 30.0f, -100.0f, 500.0f);
    p->soundSpeed = pickFloat(in, 1500.0f, 1000.0f, 2000.0f);
    p->sectorPort = pickFloat(in, 70.0f, 0.0f, 90.0f);
    p->sectorStarboard = pickFloat(in, 70.0f, 0.0f, 90.0f);
    p->gainSwitch = pickFloat(in, 0.0f, 0.0f, 1.0f);
    p->rollCount = pickInt(in, 1, -110, 110);
    p->pingTime = pickInt(in, 100000, 0, 1 << 30);
    const int32_t count = std::abs(std::max(p->rollCount, -100));
    const bool regularTimes = in.ConsumeBool();
    for (int32_t i = 0; i < 100 && i < count; ++i) {
        // Regular times every 10 ms around the ping, wrapping like the
        // host's 32-bit clock; or any times at all.
        const int64_t t = static_cast<int64_t>(p->pingTime) - 50 + 10 * i +
                          in.ConsumeIntegralInRange(-3, 3);
        p->rollTime[i] = regularTimes ? static_cast<int32_t>(static_cast<uint32_t>(t))
                                      : in.ConsumeIntegral<int32_t>();
        p->rollAngle[i] = pickFloat(in, 0.0f, -30.0f, 30.0f);
    }
    p->pulseLength = pickFloat(in, 0.00005f, 0.0f, 0.01f);
    p->limitMode = static_cast<int8_t>(pickInt(in, 1, 0, 2));
    p->beamSpacing = static_cast<int8_t>(pickInt(in, 1, 0, 2));
    // Mostly small pictures: the wedge costs a lookup per pixel, and the fuzzer
    // should spend its time on the stages. Now and then one up to 2100 x 2100,
    // past the sector grid's capacity.
    pickImageSize(in, &p->imageWidth, &p->imageHeight);
    p->imageGain = pickFloat(in, 1.0f, -10.0f, 1000.0f);
    switch (in.ConsumeIntegralInRange(0, 7)) {
        case 0: p->beamCount = 64; break;
        case 1: p->beamCount = 128; break;
        case 2: p->beamCount = in.ConsumeIntegralInRange(1, 256); break;
        case 3: p->beamCount = in.ConsumeIntegral<int32_t>(); break;
        default: p->beamCount = 256; break;
    }
    p->fixedGainEnable = pickInt(in, 1, 0, 1);
    p->reserved6 = 3;
    p->trackEnable = pickInt(in, 1, 0, 2);
    p->clipRatio = pickFloat(in, 0.01f, -1.0f, 2.0f);
    p->sideScanMode = pickInt(in, 1, 0, 3);
    p->sideScanRows = pickInt(in, 100, -5, 250);
    p->qualityThreshold = pickFloat(in, 0.0f, -1.0f, 1.0f);
}

// 64 channels of a plane-wave echo: element e lags by e * d * sin(angle) / c,
// which at half-wavelength spacing is a phase step of pi * sin(angle).
void addEcho(FuzzedDataProvider& in, int32_t* planeI, int32_t* planeQ, int32_t n) {
    const float centre = in.ConsumeFloatingPointInRange(0.0f, static_cast<float>(n));
    const float angle = in.ConsumeFloatingPointInRange(-1.3f, 1.3f);
    const float width = in.ConsumeFloatingPointInRange(0.5f, 20.0f);
    const float amplitude = std::ldexp(1.0f, in.ConsumeIntegralInRange(0, 30));
    const float step = 3.1415927f * std::sin(angle);
    for (int32_t e = 0; e < 64; ++e) {
        for (int32_t t = 0; t < n; ++t) {
            const float x = (static_cast<float>(t) - centre) / width;
            if (x * x > 40.0f) continue;
            const float env = amplitude * std::exp(-0.5f * x * x);
            const float phase = step * static_cast<float>(e);
            const int64_t i = planeI[e * n + t] + static_cast<int64_t>(env * std::cos(phase));
            const int64_t q = planeQ[e * n + t] - static_cast<int64_t>(env * std::sin(phase));
            planeI[e * n + t] = static_cast<int32_t>(std::clamp<int64_t>(i, INT32_MIN, INT32_MAX));
            planeQ[e * n + t] = static_cast<int32_t>(std::clamp<int64_t>(q, INT32_MIN, INT32_MAX));
        }
    }
}

Ping makePing(FuzzedDataProvider& in) {
    Ping ping;
    // The shape of the ping first, so that even a short input chooses it: the
    // entry (exhausted input: kVaneProcess20), the raw buffer's odd bytes, the
    // sample count and a refused size or missing pointer.
    ping.raw7420 = in.ConsumeIntegralInRange(0, 3) == 3;
    ping.rawRemainder = ping.raw7420 ? in.ConsumeIntegralInRange(0, 511) : 0;
    ping.planeN = in.ConsumeIntegralInRange(1, 300);
    ping.n = ping.planeN;
    const uint8_t hostile = in.ConsumeIntegral<uint8_t>();
    if (hostile >= 248 && !ping.raw7420) {
        // A sample count the kernel must refuse; the planes stay small. (The
        // raw entry takes n from the byte count.)
        switch (hostile & 3) {
            case 0: ping.n = 0; break;
            case 1: ping.n = in.ConsumeIntegralInRange(INT32_MIN, -1); break;
            default: ping.n = in.ConsumeIntegralInRange(8001, INT32_MAX); break;
        }
    } else if (hostile >= 241 && hostile < 248) {
        // One missing pointer: a host buffer, the gain curve, a block or a plane.
        ping.nullMask = static_cast<uint8_t>(1u << (hostile - 241));
    }
    fillParams(in, &ping.params);

    const int32_t planeN = ping.planeN;
    const size_t planeWords = static_cast<size_t>(64) * planeN;
    // The raw entry takes plane Q at half the buffer, remainder included.
    const size_t rawBytes = 2 * planeWords * 4 + static_cast<size_t>(ping.rawRemainder);
    ping.planes.assign((rawBytes + 3) / 4, 0);
    std::vector<int32_t> planeI(planeWords);
    std::vector<int32_t> planeQ(planeWords);
    // Raw noise takes at most half of what is left, so that the echoes and
    // the later pings of the input still get values of their own.
    const size_t noiseBytes = in.ConsumeIntegralInRange<size_t>(
        0, std::min(planeWords * 8, in.remaining_bytes() / 2));
    const std::vector<uint8_t> noise = in.ConsumeBytes<uint8_t>(noiseBytes);
    if (!noise.empty())
        std::memcpy(planeI.data(), noise.data(), std::min(noise.size(), planeWords * 4));
    if (noise.size() > planeWords * 4)
        std::memcpy(planeQ.data(), noise.data() + planeWords * 4, noise.size() - planeWords * 4);
    const int echoes = in.ConsumeIntegralInRange(0, 2);
    for (int k = 0; k < echoes; ++k) addEcho(in, planeI.data(), planeQ.data(), planeN);
    uint8_t* bytes = reinterpret_cast<uint8_t*>(ping.planes.data());
    std::memcpy(bytes, planeI.data(), planeWords * 4);
    std::memcpy(bytes + rawBytes / 2, planeQ.data(), planeWords * 4);
    return ping;
}

// Host buffers with exactly the sizes the result block asks for.
struct HostBuffers {
    std::vector<float> beamImage;
    std::vector<uint8_t> displayImage;
    std::vector<float> sideScanImage;
    std::vector<float> gainProfile;
};

// With KVANE_FUZZ_PRINT set, each ping's blocks are described on stderr, so
// that a finding can be told as a plain input.
void printPing(const Ping& ping) {
    const KVaneParams& p = ping.params;
    std::fprintf(stderr,
                 "ping: entry=%s n=%d planeN=%d rawRemainder=%d nullMask=0x%02x\n"
                 "  depthLimitNear=%.9g depthLimitFar=%.9g soundSpeed=%.9g sectorPort=%.9g "
                 "sectorStarboard=%.9g gainSwitch=%.9g\n"
                 "  rollCount=%d pingTime=%d rollTime[0]=%d rollAngle[0]=%.9g pulseLength=%.9g "
                 "limitMode=%d beamSpacing=%d\n"
                 "  imageWidth=%d imageHeight=%d imageGain=%.9g beamCount=%d fixedGainEnable=%d "
                 "trackEnable=%d clipRatio=%.9g sideScanMode=%d sideScanRows=%d "
                 "qualityThreshold=%.9g\n",
                 ping.raw7420 ? "7420" : "20", ping.n, ping.planeN, ping.rawRemainder,
                 ping.nullMask, p.depthLimitNear, p.depthLimitFar, p.soundSpeed, p.sectorPort,
                 p.sectorStarboard, p.gainSwitch, p.rollCount, p.pingTime, p.rollTime[0],
                 p.rollAngle[0], p.pulseLength, p.limitMode, p.beamSpacing, p.imageWidth,
                 p.imageHeight, p.imageGain, p.beamCount, p.fixedGainEnable, p.trackEnable,
                 p.clipRatio, p.sideScanMode, p.sideScanRows, p.qualityThreshold);
}

void runPing(Ping& ping) {
    static const bool print = std::getenv("KVANE_FUZZ_PRINT") != nullptr;
    if (print) printPing(ping);
    KVaneParams& p = ping.params;
    const int32_t n = ping.n;
    const int32_t B = p.beamCount;
    const bool sizesValid = n >= 1 && n <= 8000 && B >= 1 && B <= 256;
    const bool smooth = p.gainSwitch != 0.0f;

    HostBuffers host;
    const size_t nn = sizesValid ? static_cast<size_t>(n) : 1;
    const size_t bb = sizesValid ? static_cast<size_t>(B) : 1;
    host.beamImage.assign(smooth ? (nn + 6) * (bb + 6) : nn * bb, 0.5f);
    const bool imageValid = p.imageWidth >= 0 && p.imageHeight >= 0;
    host.displayImage.assign(
        imageValid ? std::max<size_t>(1, static_cast<size_t>(p.imageWidth) * p.imageHeight) : 1, 7);
    const int32_t rows = static_cast<uint32_t>(p.sideScanRows) - 10u > 190u ? 100 : p.sideScanRows;
    host.sideScanImage.assign(static_cast<size_t>(rows) * 2 * nn, 0.25f);
    host.gainProfile.assign(std::max<size_t>(nn, 600), 0.0f);

    KVaneResult result;
    std::memset(&result, 0xA5, sizeof result);  // a recognisable "never written" pattern
    result.beamImage = (ping.nullMask & 0x01) ? nullptr : host.beamImage.data();
    result.displayImage = (ping.nullMask & 0x02) ? nullptr : host.displayImage.data();
    result.sideScanImage = (ping.nullMask & 0x04) ? nullptr : host.sideScanImage.data();
    result.gainProfile = (ping.nullMask & 0x08) ? nullptr : host.gainProfile.data();
    const KVaneResult before = result;
    const HostBuffers hostBefore = host;

    const bool nullParams = (ping.nullMask & 0x10) != 0;
    // The raw entry builds its own input block: only its buffer can be missing.
    const bool nullInput = (ping.nullMask & 0x20) != 0 && !ping.raw7420;
    const bool nullPlanes = (ping.nullMask & 0x40) != 0;
    const bool mustSkip = !sizesValid || !imageValid || result.beamImage == nullptr ||
                          result.displayImage == nullptr || result.sideScanImage == nullptr ||
                          (smooth && result.gainProfile == nullptr) || nullParams || nullInput ||
                          nullPlanes;
    KVaneParams* params = nullParams ? nullptr : &p;

    if (ping.raw7420) {
        // n comes from the byte count: a hostile n cannot reach this entry.
        const int32_t rawBytes = 512 * ping.planeN + ping.rawRemainder;
        kVaneProcess7420(params, nullptr, &result, nullPlanes ? nullptr : ping.planes.data(),
                         rawBytes);
    } else {
        const size_t rawBytes = 2 * static_cast<size_t>(64) * ping.planeN * 4 + ping.rawRemainder;
        uint8_t* bytes = reinterpret_cast<uint8_t*>(ping.planes.data());
        KVaneInput input{reinterpret_cast<int32_t*>(bytes),
                         reinterpret_cast<int32_t*>(bytes + rawBytes / 2), n};
        if (nullPlanes) input.planeQ = nullptr;
        kVaneProcess20(params, nullInput ? nullptr : &input, &result);
    }

    if (mustSkip) {
        require(std::memcmp(&result, &before, sizeof result) == 0, "refused ping wrote the result");
        require(host.beamImage == hostBefore.beamImage, "refused ping wrote beamImage");
        require(host.displayImage == hostBefore.displayImage, "refused ping wrote displayImage");
        require(host.sideScanImage == hostBefore.sideScanImage, "refused ping wrote sideScanImage");
        return;
    }
    if (!sizesValid) return;
    const uint8_t* a = reinterpret_cast<const uint8_t*>(&result);
    const uint8_t* b = reinterpret_cast<const uint8_t*>(&before);
    // The bottom trace works on a fixed line of 256 beams and the raw entry
    // dithers 256 entries: entries from 256 up stay whatever the beam count.
    const size_t o1 = offsetof(KVaneResult, bottomSample) + sizeof(float) * 256;
    require(std::memcmp(a + o1, b + o1, sizeof(float) * (1920 - 256)) == 0,
            "bottomSample written beyond 256 entries");
    const size_t o2 = offsetof(KVaneResult, bottomFlag) + static_cast<size_t>(B);
    require(std::memcmp(a + o2, b + o2, 1924 - static_cast<size_t>(B)) == 0,
            "bottomFlag written beyond the beam count");
    const size_t o3 = offsetof(KVaneResult, beamAngleCopies) + sizeof(float) * 3 * B;
    require(std::memcmp(a + o3, b + o3, sizeof(float) * (1920 - 3 * static_cast<size_t>(B))) == 0,
            "beamAngleCopies written beyond three copies");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kVaneMalloc7420();
    loadState = kvane::retained;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every input starts from the state of a fresh process, so a finding
    // replays on its own.
    kvane::retained = loadState;
    FuzzedDataProvider in(data, size);
    const int pings = in.ConsumeIntegralInRange(1, 3);
    for (int k = 0; k < pings; ++k) {
        Ping ping = makePing(in);
        runPing(ping);
    }
    return 0;
}
