// reliability_support.h - pieces shared by the reliability test, the soak
// program and the ping dump: a typical parameter block, simulated pings, host
// buffers sized exactly as the result block asks (each followed by a guard
// zone that a ping must leave alone), and a fixed sequence of pings whose
// outputs are collected byte for byte.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "kVane.h"
#include "harness.h"
#include "simulate.h"

namespace kvrel {

// The replay tool's values, with a working fan of 70 degrees a side and the
// one-shot beamforming path.
inline KVaneParams typicalParams(int32_t beamCount) {
    KVaneParams p = kvreplay::harnessParams(beamCount);
    // A higher clipping level and quality threshold than the replay's, so that
    // the second tracker pass and the clipping's replacement value run too.
    p.clipRatio = 0.5f;
    p.qualityThreshold = 0.5f;
    return p;
}

// A simulated ping of a flat seabed at depth metres (a slope and a rolling
// ship when asked), samples per channel as given.
inline kvsim::SimPing simulatedPing(double depth, int samples, int index, uint32_t seed = 7,
                                    double rollAmplitude = 0.0, double slopeDeg = 0.0) {
    kvsim::SimConfig c;
    c.depth = depth;
    c.samples = samples;
    c.pings = index + 1;
    c.seed = seed;
    c.rollAmplitude = rollAmplitude;
    c.slopeDeg = slopeDeg;
    c.scattererSpacing = 0.05;  // coarse: plenty of echo, and cheap to make
    return kvsim::simulatePing(c, index);
}

// Hands the ping's roll table to the segmented beamforming path.
inline void useRollTable(KVaneParams* p, const kvsim::SimPing& ping) {
    const int count = std::min<int>(100, static_cast<int>(ping.rollAngle.size()));
    p->rollCount = count;
    p->pingTime = ping.pingTime;
    for (int i = 0; i < count; ++i) {
        p->rollAngle[i] = ping.rollAngle[static_cast<size_t>(i)];
        p->rollTime[i] = ping.rollTime[static_cast<size_t>(i)];
    }
}

constexpr size_t kGuard = 64;          // guard entries behind every host buffer
constexpr uint32_t kFloatGuard = 0x7fc0dead;  // a quiet NaN no stage computes
constexpr uint8_t kByteGuard = 0xcd;

// Host buffers for one ping of n samples and the block's beam count, image
// size and waterfall rows, exactly as large as the result block documents,
// plus guard zones.
struct HostBuffers {
    size_t beamFloats = 0;
    size_t displayBytes = 0;
    size_t sideScanFloats = 0;
    size_t gainFloats = 0;
    std::vector<float> beamImage;
    std::vector<uint8_t> displayImage;
    std::vector<float> sideScanImage;
    std::vector<float> gainProfile;

    HostBuffers(const KVaneParams& p, int32_t n) {
        const size_t nn = static_cast<size_t>(std::max(n, 1));
        const size_t bb = static_cast<size_t>(std::clamp(p.beamCount, 1, 256));
        beamFloats = p.gainSwitch != 0.0f ? (nn + 6) * (bb + 6) : nn * bb;
        displayBytes = static_cast<size_t>(std::max(p.imageWidth, 0)) *
                       static_cast<size_t>(std::max(p.imageHeight, 0));
        const int32_t rows =
            static_cast<uint32_t>(p.sideScanRows) - 10u > 190u ? 100 : p.sideScanRows;
        sideScanFloats = static_cast<size_t>(rows) * 2 * nn;
        gainFloats = std::max<size_t>(nn, 600);
        beamImage.assign(beamFloats + kGuard, 0.0f);
        displayImage.assign(displayBytes + kGuard, 0);
        sideScanImage.assign(sideScanFloats + kGuard, 0.0f);
        gainProfile.assign(gainFloats + kGuard, 0.0f);
        setGuards();
    }

    void setGuards() {
        for (size_t i = 0; i < kGuard; ++i) {
            std::memcpy(&beamImage[beamFloats + i], &kFloatGuard, 4);
            std::memcpy(&sideScanImage[sideScanFloats + i], &kFloatGuard, 4);
            std::memcpy(&gainProfile[gainFloats + i], &kFloatGuard, 4);
            displayImage[displayBytes + i] = kByteGuard;
        }
    }

    bool guardsIntact() const {
        for (size_t i = 0; i < kGuard; ++i) {
            if (std::memcmp(&beamImage[beamFloats + i], &kFloatGuard, 4) != 0) return false;
            if (std::memcmp(&sideScanImage[sideScanFloats + i], &kFloatGuard, 4) != 0) return false;
            if (std::memcmp(&gainProfile[gainFloats + i], &kFloatGuard, 4) != 0) return false;
            if (displayImage[displayBytes + i] != kByteGuard) return false;
        }
        return true;
    }

    void attach(KVaneResult* r) {
        r->beamImage = beamImage.data();
        r->displayImage = displayImage.data();
        r->sideScanImage = sideScanImage.data();
        r->gainProfile = gainProfile.data();
    }
};

inline KVaneInput inputOf(kvsim::SimPing& ping) {
    return KVaneInput{ping.planeI.data(), ping.planeQ.data(), ping.sampleCount};
}

// A result block in which every byte shows whether a ping wrote it.
inline KVaneResult sentinelResult() {
    KVaneResult r;
    std::memset(&r, 0xA5, sizeof r);
    return r;
}

// firstEchoHalf is written by every ping that runs, and only then.
inline bool pingRan(const KVaneResult& r) {
    const KVaneResult s = sentinelResult();
    return std::memcmp(&r.firstEchoHalf, &s.firstEchoHalf, sizeof(float)) != 0;
}

// All outputs of one ping, as bytes.
inline void appendOutputs(std::vector<uint8_t>* out, const KVaneResult& r, const KVaneParams& p,
                   const HostBuffers& host) {
    auto put = [out](const void* data, size_t bytes) {
        const uint8_t* b = static_cast<const uint8_t*>(data);
        out->insert(out->end(), b, b + bytes);
    };
    const size_t B = static_cast<size_t>(p.beamCount);
    put(r.beamAngleCopies, 4 * 3 * B);
    put(r.bottomSample, 4 * B);
    put(r.bottomFlag, B);
    put(&r.firstEchoHalf, 4);
    if (p.rollCount != 1) put(r.segmentRoll, sizeof r.segmentRoll);
    put(host.beamImage.data(), 4 * host.beamFloats);
    put(host.displayImage.data(), host.displayBytes);
    put(host.sideScanImage.data(), 4 * host.sideScanFloats);
    if (p.gainSwitch != 0.0f) put(host.gainProfile.data(), 4 * host.gainFloats);
}

struct SequencePing {
    kvsim::SimPing ping;
    KVaneParams params;
};

// Pings that take every path once: one-shot and segmented beamforming, the
// gain equaliser and smoothing, the depth window, the tracker in shallow
// water, equal-distance spacing and the second waterfall mode. The first ping
// is the longest, so that no line keeps samples of an earlier, longer ping.
inline std::vector<SequencePing> fixedSequence() {
    std::vector<SequencePing> s;
    auto add = [&](kvsim::SimPing ping, int beams, const std::function<void(KVaneParams&)>& set) {
        KVaneParams p = typicalParams(beams);
        set(p);
        s.push_back({std::move(ping), p});
    };
    add(simulatedPing(25.0, 900, 0), 256, [](KVaneParams&) {});
    kvsim::SimPing rolling = simulatedPing(25.0, 900, 1, 7, 4.0);
    add(rolling, 128, [&rolling](KVaneParams& p) { useRollTable(&p, rolling); });
    add(simulatedPing(18.0, 700, 2, 7, 0.0, 10.0), 256, [](KVaneParams& p) { p.gainSwitch = 1.0f; });
    add(simulatedPing(18.0, 700, 3), 256, [](KVaneParams& p) { p.limitMode = 2; });
    add(simulatedPing(2.0, 400, 4), 64, [](KVaneParams& p) { p.qualityThreshold = 0.3f; });
    add(simulatedPing(2.0, 400, 5), 256, [](KVaneParams& p) { p.trackEnable = 0; });
    add(simulatedPing(30.0, 899, 6), 256, [](KVaneParams& p) {
        p.beamSpacing = 2;
        p.sideScanMode = 2;
        p.sectorPort = 60.0f;
    });
    return s;
}

inline std::vector<uint8_t> runSequence(std::vector<SequencePing>& sequence) {
    std::vector<uint8_t> out;
    for (SequencePing& sp : sequence) {
        KVaneParams params = sp.params;
        HostBuffers host(params, sp.ping.sampleCount);
        KVaneInput input = inputOf(sp.ping);
        KVaneResult result = sentinelResult();
        host.attach(&result);
        kVaneProcess20(&params, &input, &result);
        appendOutputs(&out, result, params, host);
    }
    return out;
}

}  // namespace kvrel
