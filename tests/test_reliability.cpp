// test_reliability.cpp - the kernel under hostile use: the workspace life
// cycle out of order, blocks and sizes it must refuse, extreme parameter
// values, and outputs that must not depend on repetition or thread count.
#include <gtest/gtest.h>
#include <omp.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "driver/workspace.h"
#include "kVane.h"
#include "reliability_support.h"
#include "simulate.h"

namespace {

using kvrel::HostBuffers;
using kvrel::sentinelResult;
using kvrel::typicalParams;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

bool sameBytes(const void* a, const void* b, size_t n) { return std::memcmp(a, b, n) == 0; }

// Everything a ping may change, captured before it to tell a refused ping.
struct Before {
    KVaneResult result;
    std::vector<float> beamImage;
    std::vector<uint8_t> displayImage;
    std::vector<float> sideScanImage;
    kvane::KVaneRetained retained;
    Before(const KVaneResult& r, const HostBuffers& h)
        : result(r),
          beamImage(h.beamImage),
          displayImage(h.displayImage),
          sideScanImage(h.sideScanImage),
          retained(kvane::retained) {}
};

// Byte comparison: the guard zones hold NaNs, which never compare equal.
template <typename T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && sameBytes(a.data(), b.data(), a.size() * sizeof(T));
}

void expectUntouched(const Before& before, const KVaneResult& result, const HostBuffers& host,
                     const std::string& what) {
    EXPECT_TRUE(sameBytes(&before.result, &result, sizeof result)) << what << ": result block written";
    EXPECT_TRUE(sameBytes(before.beamImage, host.beamImage)) << what << ": beamImage written";
    EXPECT_TRUE(sameBytes(before.displayImage, host.displayImage)) << what << ": displayImage written";
    EXPECT_TRUE(sameBytes(before.sideScanImage, host.sideScanImage)) << what << ": sideScanImage written";
    EXPECT_TRUE(sameBytes(&before.retained, &kvane::retained, sizeof kvane::retained))
        << what << ": retained state changed";
}

class Reliability : public ::testing::Test {
protected:
    void SetUp() override { kVaneMalloc(); }
    void TearDown() override { kVaneFree(); }
};

// ---------------------------------------------------------------------------
// Life cycle

TEST(Lifecycle, PingsOutsideMallocAndFreeAreSkipped) {
    kvsim::SimPing ping = kvrel::simulatedPing(20.0, 300, 0);
    KVaneParams params = typicalParams(64);
    HostBuffers host(params, ping.sampleCount);
    KVaneInput input = kvrel::inputOf(ping);
    std::vector<int32_t> raw(ping.planeI);
    raw.insert(raw.end(), ping.planeQ.begin(), ping.planeQ.end());
    const int32_t rawBytes = static_cast<int32_t>(raw.size() * 4);

    auto expectSkipped = [&](const std::string& what) {
        KVaneResult result = sentinelResult();
        host.attach(&result);
        const Before before(result, host);
        kVaneProcess20(&params, &input, &result);
        expectUntouched(before, result, host, what + " (Process20)");
        kVaneProcess7420(&params, nullptr, &result, raw.data(), rawBytes);
        expectUntouched(before, result, host, what + " (Process7420)");
    };

    kVaneFree();  // a Free with nothing built, then a second one
    kVaneFree7420();
    expectSkipped("before Malloc");

    kVaneMalloc();
    KVaneResult result = sentinelResult();
    host.attach(&result);
    kVaneProcess20(&params, &input, &result);
    EXPECT_TRUE(kvrel::pingRan(result));
    kVaneProcess80();

    kVaneFree();
    expectSkipped("after Free");
    kVaneFree();
    expectSkipped("after a second Free");
}

TEST(Lifecycle, SecondMallocKeepsTheWorkspaceAndAnyFreeReleasesIt) {
    kvsim::SimPing ping = kvrel::simulatedPing(20.0, 200, 0);
    KVaneParams params = typicalParams(128);
    HostBuffers host(params, ping.sampleCount);
    KVaneInput input = kvrel::inputOf(ping);
    auto runs = [&] {
        KVaneResult result = sentinelResult();
        host.attach(&result);
        kVaneProcess20(&params, &input, &result);
        return kvrel::pingRan(result);
    };

    kVaneMalloc();
    const void* first = kvane::ws.formedBeamIq;
    kVaneMalloc7420();
    EXPECT_EQ(first, kvane::ws.formedBeamIq) << "a second Malloc built a second workspace";
    EXPECT_TRUE(runs());
    kVaneFree7420();
    EXPECT_FALSE(kvane::ws.built);
    EXPECT_EQ(nullptr, kvane::ws.formedBeamIq);
    EXPECT_FALSE(runs());

    kVaneMalloc7420();
    EXPECT_TRUE(runs());
    kVaneFree();
    EXPECT_FALSE(runs());
}

// ---------------------------------------------------------------------------
// Blocks and sizes the kernel must refuse

struct Refusal {
    const char* name;
    std::function<void(KVaneParams&, KVaneInput&, KVaneResult&)> spoil;
};

TEST_F(Reliability, RefusedPingLeavesResultHostBuffersAndStateAlone) {
    kvsim::SimPing ping = kvrel::simulatedPing(20.0, 300, 0);
    const std::vector<Refusal> cases = {
        {"sampleCount 0", [](auto&, auto& in, auto&) { in.sampleCount = 0; }},
        {"sampleCount -1", [](auto&, auto& in, auto&) { in.sampleCount = -1; }},
        {"sampleCount INT_MIN", [](auto&, auto& in, auto&) { in.sampleCount = INT_MIN; }},
        {"sampleCount 8001", [](auto&, auto& in, auto&) { in.sampleCount = 8001; }},
        {"sampleCount INT_MAX", [](auto&, auto& in, auto&) { in.sampleCount = INT_MAX; }},
        {"beamCount 0", [](auto& p, auto&, auto&) { p.beamCount = 0; }},
        {"beamCount -64", [](auto& p, auto&, auto&) { p.beamCount = -64; }},
        {"beamCount 257", [](auto& p, auto&, auto&) { p.beamCount = 257; }},
        {"beamCount INT_MAX", [](auto& p, auto&, auto&) { p.beamCount = INT_MAX; }},
        {"planeI null", [](auto&, auto& in, auto&) { in.planeI = nullptr; }},
        {"planeQ null", [](auto&, auto& in, auto&) { in.planeQ = nullptr; }},
        {"beamImage null", [](auto&, auto&, auto& r) { r.beamImage = nullptr; }},
        {"displayImage null", [](auto&, auto&, auto& r) { r.displayImage = nullptr; }},
        {"sideScanImage null", [](auto&, auto&, auto& r) { r.sideScanImage = nullptr; }},
        {"gain switch without a gain buffer",
         [](auto& p, auto&, auto& r) { p.gainSwitch = 1.0f; r.gainProfile = nullptr; }},
        {"NaN gain switch without a gain buffer",
         [](auto& p, auto&, auto& r) { p.gainSwitch = kNaN; r.gainProfile = nullptr; }},
        {"imageWidth -1", [](auto& p, auto&, auto&) { p.imageWidth = -1; }},
        {"imageHeight INT_MIN", [](auto& p, auto&, auto&) { p.imageHeight = INT_MIN; }},
    };
    for (const Refusal& c : cases) {
        KVaneParams params = typicalParams(256);
        HostBuffers host(params, ping.sampleCount);
        KVaneInput input = kvrel::inputOf(ping);
        KVaneResult result = sentinelResult();
        host.attach(&result);
        c.spoil(params, input, result);
        const Before before(result, host);
        kVaneProcess20(&params, &input, &result);
        expectUntouched(before, result, host, c.name);
    }

    // Missing blocks: nothing to compare but the retained state.
    KVaneParams params = typicalParams(256);
    HostBuffers host(params, ping.sampleCount);
    KVaneInput input = kvrel::inputOf(ping);
    KVaneResult result = sentinelResult();
    host.attach(&result);
    const kvane::KVaneRetained state = kvane::retained;
    kVaneProcess20(nullptr, &input, &result);
    kVaneProcess20(&params, nullptr, &result);
    kVaneProcess20(&params, &input, nullptr);
    kVaneProcess7420(&params, nullptr, nullptr, ping.planeI.data(), 512);
    kVaneProcess7420(nullptr, nullptr, &result, ping.planeI.data(), 512);
    EXPECT_TRUE(sameBytes(&state, &kvane::retained, sizeof state));
    EXPECT_FALSE(kvrel::pingRan(result));
}

TEST_F(Reliability, RawEntryRefusesBuffersThatHoldNoSample) {
    std::vector<int32_t> raw(64 * 2 * 4, 1000);
    KVaneParams params = typicalParams(64);
    HostBuffers host(params, 4);
    for (int32_t rawBytes : {0, 1, 511, -512, INT_MIN}) {
        KVaneResult result = sentinelResult();
        host.attach(&result);
        const Before before(result, host);
        kVaneProcess7420(&params, nullptr, &result, raw.data(), rawBytes);
        expectUntouched(before, result, host, "rawBytes " + std::to_string(rawBytes));
    }
    KVaneResult result = sentinelResult();
    host.attach(&result);
    const Before before(result, host);
    kVaneProcess7420(&params, nullptr, &result, nullptr, 512);
    expectUntouched(before, result, host, "null raw buffer");

    // One sample per channel is enough to run.
    kVaneProcess7420(&params, nullptr, &result, raw.data(), 512);
    EXPECT_TRUE(kvrel::pingRan(result));
    EXPECT_TRUE(host.guardsIntact());
}

// A raw buffer whose byte count is not a multiple of 512: plane Q starts at
// exactly half the buffer, here an address that is not 4-byte aligned, and
// the ping sees the same samples as through a KVaneInput of aligned planes.
TEST_F(Reliability, RawEntryReadsPlaneQAtHalfAnOddBuffer) {
    kvsim::SimPing ping = kvrel::simulatedPing(15.0, 250, 0);
    const int32_t n = ping.sampleCount;
    const size_t planeBytes = static_cast<size_t>(64) * n * 4;
    const int32_t rawBytes = static_cast<int32_t>(2 * planeBytes + 6);  // half = planeBytes + 3
    std::vector<uint8_t> raw(static_cast<size_t>(rawBytes), 0);
    std::memcpy(raw.data(), ping.planeI.data(), planeBytes);
    std::memcpy(raw.data() + rawBytes / 2, ping.planeQ.data(), planeBytes);

    KVaneParams params = typicalParams(128);
    const kvane::KVaneRetained start = kvane::retained;
    HostBuffers viaRaw(params, n);
    KVaneResult rawResult = sentinelResult();
    viaRaw.attach(&rawResult);
    kVaneProcess7420(&params, nullptr, &rawResult, raw.data(), rawBytes);

    kvane::retained = start;
    HostBuffers viaInput(params, n);
    KVaneResult inputResult = sentinelResult();
    viaInput.attach(&inputResult);
    KVaneInput input = kvrel::inputOf(ping);
    kVaneProcess20(&params, &input, &inputResult);

    ASSERT_TRUE(kvrel::pingRan(rawResult));
    EXPECT_TRUE(sameBytes(viaInput.beamImage, viaRaw.beamImage));
    for (int b = 0; b < 256; ++b) {
        // The raw entry dithers all 256 entries by at most half a sample.
        const float want = b < 128 ? inputResult.bottomSample[b] : rawResult.bottomSample[b];
        EXPECT_LE(std::fabs(rawResult.bottomSample[b] - want), 0.5f) << "beam " << b;
    }
}

// ---------------------------------------------------------------------------
// Extreme values that the kernel runs with: every ping stays inside the host
// buffers and the documented leading entries of the result arrays.

struct Extreme {
    std::string name;
    std::function<void(KVaneParams&)> set;
    double depth = 20.0;
    int samples = 300;
    int beams = 256;
};

std::vector<Extreme> extremeCases() {
    std::vector<Extreme> cases;
    auto add = [&](std::string name, std::function<void(KVaneParams&)> set) {
        cases.push_back({std::move(name), std::move(set)});
    };
    for (float v : {0.0f, -1500.0f, kNaN, kInf, 1e-30f, 1e30f})
        add("soundSpeed " + std::to_string(v), [v](KVaneParams& p) { p.soundSpeed = v; });
    for (float v : {kNaN, 0.0f, 90.0f, 180.0f, -70.0f, 1e30f}) {
        add("sectorPort " + std::to_string(v), [v](KVaneParams& p) { p.sectorPort = v; });
        add("both sectors " + std::to_string(v),
            [v](KVaneParams& p) { p.sectorPort = v; p.sectorStarboard = v; });
    }
    for (float v : {kNaN, -kInf, 1e9f})
        add("depth window " + std::to_string(v), [v](KVaneParams& p) {
            p.limitMode = 2;
            p.depthLimitNear = v;
            p.depthLimitFar = -v;
        });
    for (float v : {0.0f, -1.0f, kNaN, 1.0f})
        add("pulseLength " + std::to_string(v), [v](KVaneParams& p) { p.pulseLength = v; });
    for (float v : {kNaN, -5.0f, 5.0f})
        add("clipRatio " + std::to_string(v), [v](KVaneParams& p) { p.clipRatio = v; });
    for (float v : {kNaN, kInf, -1.0f, 1e30f})
        add("imageGain " + std::to_string(v), [v](KVaneParams& p) { p.imageGain = v; });
    for (float v : {kNaN, 2.0f, -1.0f})
        add("qualityThreshold " + std::to_string(v), [v](KVaneParams& p) { p.qualityThreshold = v; });
    add("gainSwitch NaN", [](KVaneParams& p) { p.gainSwitch = kNaN; });
    for (int v : {0, -1, 2, 100, -100, 101, INT_MIN})
        add("rollCount " + std::to_string(v) + " with odd times", [v](KVaneParams& p) {
            p.rollCount = v;
            p.pingTime = 5000;
            for (int i = 0; i < 100; ++i) {
                p.rollTime[i] = (i % 3 == 0) ? 5000 : 5000 - 7 * i;  // repeats, running back
                p.rollAngle[i] = (i % 5 == 0) ? kNaN : 40.0f * static_cast<float>(i % 4);
            }
        });
    add("roll table in the far future", [](KVaneParams& p) {
        p.rollCount = 100;
        p.pingTime = INT_MIN;
        for (int i = 0; i < 100; ++i) {
            p.rollTime[i] = INT_MAX - i;
            p.rollAngle[i] = 1e30f;
        }
    });
    for (int v : {-1, 3, 127, -128})
        add("limitMode " + std::to_string(v), [v](KVaneParams& p) { p.limitMode = static_cast<int8_t>(v); });
    for (int v : {-1, 0, 2, 3, 127})
        add("beamSpacing " + std::to_string(v), [v](KVaneParams& p) { p.beamSpacing = static_cast<int8_t>(v); });
    for (int v : {0, 2, 3, -1})
        add("sideScanMode " + std::to_string(v), [v](KVaneParams& p) { p.sideScanMode = v; });
    for (int v : {-1, 0, 9, 201, INT_MAX, INT_MIN})
        add("sideScanRows " + std::to_string(v), [v](KVaneParams& p) { p.sideScanRows = v; });
    for (auto [w, h] : {std::pair{0, 0}, {1, 1}, {1, 5000}, {5000, 1}, {1600, 1600}, {2100, 900}})
        add("image " + std::to_string(w) + "x" + std::to_string(h), [w = w, h = h](KVaneParams& p) {
            p.imageWidth = w;
            p.imageHeight = h;
        });
    // Odd shapes of the ping itself.
    for (int beams : {1, 2, 3, 4, 63, 65, 255})
        cases.push_back({"beamCount " + std::to_string(beams), [](KVaneParams&) {}, 20.0, 300, beams});
    for (int samples : {1, 2, 15, 16, 199, 201})
        cases.push_back({"sampleCount " + std::to_string(samples), [](KVaneParams&) {}, 20.0, samples, 256});
    // Shallow water: the first echo comes before sample 100 and the tracker decides.
    for (int track : {1, 0, 2})
        for (float quality : {0.0f, 0.5f})
            cases.push_back({"shallow, trackEnable " + std::to_string(track) + " quality " +
                                 std::to_string(quality),
                             [track, quality](KVaneParams& p) {
                                 p.trackEnable = track;
                                 p.qualityThreshold = quality;
                             },
                             1.5, 300, 256});
    return cases;
}

// bottomSample entries a ping may write: the bottom trace works on a fixed
// line of 256 beams (slot 255 and the copies of its merge reach past a smaller
// beam count), so only the entries from 256 up are certain to stay.
constexpr size_t kTracedLine = 256;

TEST_F(Reliability, ExtremeParametersStayInsideTheirBuffers) {
    // One ping per case, in a row: state left by an extreme ping is used by the
    // next one.
    for (const Extreme& c : extremeCases()) {
        kvsim::SimPing ping = kvrel::simulatedPing(c.depth, c.samples, 0);
        KVaneParams params = typicalParams(c.beams);
        params.gainSwitch = 1.0f;  // the smoothing path, with its larger image
        c.set(params);
        HostBuffers host(params, ping.sampleCount);
        KVaneInput input = kvrel::inputOf(ping);
        KVaneResult result = sentinelResult();
        host.attach(&result);
        const KVaneResult before = result;
        kVaneProcess20(&params, &input, &result);
        ASSERT_TRUE(kvrel::pingRan(result)) << c.name;
        EXPECT_TRUE(host.guardsIntact()) << c.name << ": a host buffer overrun";
        const size_t B = static_cast<size_t>(c.beams);
        EXPECT_TRUE(sameBytes(result.bottomSample + kTracedLine, before.bottomSample + kTracedLine,
                              4 * (1920 - kTracedLine)))
            << c.name << ": bottomSample written past the traced line";
        EXPECT_TRUE(sameBytes(result.bottomFlag + B, before.bottomFlag + B, 1924 - B))
            << c.name << ": bottomFlag written past the beams";
        EXPECT_TRUE(sameBytes(result.beamAngleCopies + 3 * B, before.beamAngleCopies + 3 * B,
                              4 * (1920 - 3 * B)))
            << c.name << ": beamAngleCopies written past three copies";
    }
}

TEST_F(Reliability, RollCountOutOfRangeIsWrittenBackAsOne) {
    kvsim::SimPing ping = kvrel::simulatedPing(20.0, 200, 0, 7, 3.0);
    for (auto [given, kept] : {std::pair{101, 1}, {-101, 1}, {INT_MIN, 1}, {100, 100}, {-100, -100}}) {
        KVaneParams params = typicalParams(64);
        kvrel::useRollTable(&params, ping);
        params.rollCount = given;
        HostBuffers host(params, ping.sampleCount);
        KVaneInput input = kvrel::inputOf(ping);
        KVaneResult result = sentinelResult();
        host.attach(&result);
        kVaneProcess20(&params, &input, &result);
        EXPECT_TRUE(kvrel::pingRan(result));
        EXPECT_EQ(kept, params.rollCount) << "rollCount " << given;
    }
}

// ---------------------------------------------------------------------------
// Determinism

// The state that crosses pings, put back as it was at the start of a run.
struct CrossPingState {
    kvane::KVaneRetained retained = kvane::retained;
    std::vector<float> waterfall;
    std::vector<int32_t> sourceBeam;
    CrossPingState() {
        waterfall.assign(kvane::ws.waterfall,
                         kvane::ws.waterfall + size_t{kvane::kWaterfallRows} * kvane::kWaterfallRowLength);
        sourceBeam.assign(kvane::ws.wedge.sourceBeam, kvane::ws.wedge.sourceBeam + 256);
    }
    void restore() const {
        kvane::retained = retained;
        std::copy(waterfall.begin(), waterfall.end(), kvane::ws.waterfall);
        std::copy(sourceBeam.begin(), sourceBeam.end(), kvane::ws.wedge.sourceBeam);
    }
};

size_t firstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    const size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i)
        if (a[i] != b[i]) return i;
    return n;
}

TEST_F(Reliability, RepeatedRunsGiveIdenticalOutputs) {
    std::vector<kvrel::SequencePing> sequence = kvrel::fixedSequence();
    const CrossPingState start;
    const std::vector<uint8_t> first = kvrel::runSequence(sequence);
    start.restore();
    const std::vector<uint8_t> second = kvrel::runSequence(sequence);
    ASSERT_EQ(first.size(), second.size());
    EXPECT_TRUE(first == second) << "first difference at byte " << firstDifference(first, second);
}

TEST_F(Reliability, ThreadCountDoesNotChangeOutputs) {
    std::vector<kvrel::SequencePing> sequence = kvrel::fixedSequence();
    const int threadsBefore = omp_get_max_threads();
    const CrossPingState start;
    omp_set_num_threads(1);
    const std::vector<uint8_t> serial = kvrel::runSequence(sequence);
    for (int threads : {2, 3}) {
        start.restore();
        omp_set_num_threads(threads);
        const std::vector<uint8_t> parallel = kvrel::runSequence(sequence);
        ASSERT_EQ(serial.size(), parallel.size());
        EXPECT_TRUE(serial == parallel)
            << threads << " threads differ from 1 at byte " << firstDifference(serial, parallel);
    }
    omp_set_num_threads(threadsBefore);
}

}  // namespace
