// test_reliability.cpp - the kernel under hostile use: the workspace life
// cycle out of order, blocks and sizes it must refuse, extreme parameter
// values, and outputs that must not depend on repetition. (Outputs against the
// thread count: the thread_count_determinism test, on the shared library.)
#include <gtest/gtest.h>

#include <algorithm>
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

namespace {

using kvrel::HostBuffers;
using kvrel::sentinelResult;
using kvrel::typicalParams;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

bool sameBytes(const void* a, const void* b, size_t n) { return std::memcmp(a, b, n) == 0; }

// Everything a ping may write, as bytes: the result block, the host buffers
// and the state kept across pings. A refused ping leaves all of it alone.
std::vector<uint8_t> footprint(const KVaneResult& r, const HostBuffers& h) {
    std::vector<uint8_t> out;
    auto put = [&out](const void* data, size_t bytes) {
        const uint8_t* b = static_cast<const uint8_t*>(data);
        out.insert(out.end(), b, b + bytes);
    };
    put(&r, sizeof r);
    put(h.beamImage.data(), 4 * h.beamImage.size());
    put(h.displayImage.data(), h.displayImage.size());
    put(h.sideScanImage.data(), 4 * h.sideScanImage.size());
    put(h.gainProfile.data(), 4 * h.gainProfile.size());
    put(&kvane::retained, sizeof kvane::retained);
    return out;
}

using SetParams = std::function<void(KVaneParams&, const kvsim::SimPing&)>;

// One simulated ping (of a rolling ship when asked) and its blocks, the
// parameters changed by `set` before the host buffers are sized for them, and
// the same samples as one raw buffer (plane I, then plane Q).
struct Ping {
    kvsim::SimPing sim;
    KVaneParams params;
    HostBuffers host;
    KVaneInput input;
    std::vector<int32_t> raw;
    KVaneResult result = sentinelResult();
    Ping(int beams, int samples, double depth = 20.0, double roll = 0.0, const SetParams& set = {})
        : sim(kvrel::simulatedPing(depth, samples, 0, 7, roll)), params(paramsFor(beams, sim, set)),
          host(params, samples), input(kvrel::inputOf(sim)), raw(sim.planeI) {
        raw.insert(raw.end(), sim.planeQ.begin(), sim.planeQ.end());
        host.attach(&result);
    }
    static KVaneParams paramsFor(int beams, const kvsim::SimPing& sim, const SetParams& set) {
        KVaneParams p = typicalParams(beams);
        if (set) set(p, sim);
        return p;
    }
    void process() { kVaneProcess20(&params, &input, &result); }
    int32_t rawBytes() const { return static_cast<int32_t>(raw.size() * 4); }
    // Runs `call` on a fresh sentinel result (first changed by `spoil`): true
    // when the ping did not run and left every byte it may write alone.
    bool refused(const std::function<void()>& call, const std::function<void()>& spoil = [] {}) {
        result = sentinelResult();
        host.attach(&result);
        spoil();
        const std::vector<uint8_t> before = footprint(result, host);
        call();
        return !kvrel::pingRan(result) && footprint(result, host) == before;
    }
};

class Reliability : public ::testing::Test {
protected:
    void SetUp() override { kVaneMalloc(); }
    void TearDown() override { kVaneFree(); }
};

// Pings outside a Malloc and a Free are skipped on both entries; a second
// Malloc of either kind keeps the workspace, and either Free releases it.
TEST(Lifecycle, PingsRunOnlyBetweenMallocAndFree) {
    Ping ping(128, 300);
    auto skipped = [&ping] {
        return ping.refused([&] { ping.process(); }) &&
               ping.refused([&] {
                   kVaneProcess7420(&ping.params, nullptr, &ping.result, ping.raw.data(), ping.rawBytes());
               });
    };
    kVaneFree();  // Frees with nothing built
    kVaneFree7420();
    EXPECT_TRUE(skipped()) << "before Malloc";

    kVaneMalloc();
    const void* first = kvane::ws.formedBeamIq;
    kVaneMalloc7420();
    EXPECT_EQ(first, kvane::ws.formedBeamIq) << "a second Malloc built a second workspace";
    EXPECT_FALSE(skipped());
    kVaneProcess80();
    kVaneFree7420();
    EXPECT_FALSE(kvane::ws.built);
    EXPECT_EQ(nullptr, kvane::ws.formedBeamIq);
    EXPECT_TRUE(skipped()) << "after Free7420 of Malloc's workspace";
    kVaneFree();
    EXPECT_TRUE(skipped()) << "after a second Free";

    kVaneMalloc7420();
    EXPECT_FALSE(skipped());
    kVaneFree();
    EXPECT_TRUE(skipped()) << "after Free of Malloc7420's workspace";
}

TEST_F(Reliability, RefusedPingLeavesResultHostBuffersAndStateAlone) {
    using Spoil = std::function<void(KVaneParams&, KVaneInput&, KVaneResult&)>;
    const std::pair<const char*, Spoil> cases[] = {
        {"sampleCount 0", [](auto&, auto& in, auto&) { in.sampleCount = 0; }},
        {"sampleCount INT_MIN", [](auto&, auto& in, auto&) { in.sampleCount = INT_MIN; }},
        {"sampleCount 8001", [](auto&, auto& in, auto&) { in.sampleCount = 8001; }},
        {"sampleCount INT_MAX", [](auto&, auto& in, auto&) { in.sampleCount = INT_MAX; }},
        {"beamCount 0", [](auto& p, auto&, auto&) { p.beamCount = 0; }},
        {"beamCount -64", [](auto& p, auto&, auto&) { p.beamCount = -64; }},
        {"beamCount 257", [](auto& p, auto&, auto&) { p.beamCount = 257; }},
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
    Ping ping(256, 300);
    for (const auto& [name, spoil] : cases) {
        KVaneParams params = ping.params;
        KVaneInput input = ping.input;
        EXPECT_TRUE(ping.refused([&] { kVaneProcess20(&params, &input, &ping.result); },
                                 [&] { spoil(params, input, ping.result); }))
            << name;
    }
    // The raw entry: buffers without one sample per channel, or none at all.
    for (int32_t rawBytes : {0, 1, 511, -512, INT_MIN})
        EXPECT_TRUE(ping.refused([&] {
            kVaneProcess7420(&ping.params, nullptr, &ping.result, ping.raw.data(), rawBytes);
        })) << "rawBytes " << rawBytes;
    EXPECT_TRUE(ping.refused([&] { kVaneProcess7420(&ping.params, nullptr, &ping.result, nullptr, 512); }));
    // Missing blocks.
    EXPECT_TRUE(ping.refused([&] {
        kVaneProcess20(nullptr, &ping.input, &ping.result);
        kVaneProcess20(&ping.params, nullptr, &ping.result);
        kVaneProcess20(&ping.params, &ping.input, nullptr);
        kVaneProcess7420(&ping.params, nullptr, nullptr, ping.raw.data(), 512);
        kVaneProcess7420(nullptr, nullptr, &ping.result, ping.raw.data(), 512);
    }));
    // One sample per channel is enough to run.
    EXPECT_FALSE(ping.refused([&] { kVaneProcess7420(&ping.params, nullptr, &ping.result, ping.raw.data(), 512); }));
    EXPECT_TRUE(ping.host.guardsIntact());
}

// A raw buffer whose byte count is not a multiple of 512: plane Q starts at
// exactly half the buffer, here an address that is not 4-byte aligned, and
// the ping sees the same samples as through a KVaneInput of aligned planes.
TEST_F(Reliability, RawEntryReadsPlaneQAtHalfAnOddBuffer) {
    Ping viaInput(128, 250, 15.0), viaRaw(128, 250, 15.0);
    const size_t planeBytes = viaRaw.raw.size() * 2;
    const int32_t rawBytes = static_cast<int32_t>(2 * planeBytes + 6);  // half = planeBytes + 3
    std::vector<uint8_t> raw(static_cast<size_t>(rawBytes), 0);
    std::memcpy(raw.data(), viaRaw.sim.planeI.data(), planeBytes);
    std::memcpy(raw.data() + rawBytes / 2, viaRaw.sim.planeQ.data(), planeBytes);

    const kvane::KVaneRetained start = kvane::retained;
    kVaneProcess7420(&viaRaw.params, nullptr, &viaRaw.result, raw.data(), rawBytes);
    kvane::retained = start;
    viaInput.process();

    ASSERT_TRUE(kvrel::pingRan(viaRaw.result));
    // Compared as bytes: the guard zones hold NaNs.
    EXPECT_TRUE(sameBytes(viaInput.host.beamImage.data(), viaRaw.host.beamImage.data(), 4 * viaRaw.host.beamFloats));
    // The raw entry dithers all 256 entries by at most half a sample.
    int moved = 0;
    for (int b = 0; b < 256; ++b) {
        const float d = viaRaw.result.bottomSample[b] - (b < 128 ? viaInput : viaRaw).result.bottomSample[b];
        EXPECT_LE(std::fabs(d), 0.5f) << "beam " << b;
        moved += d != 0.0f;
    }
    EXPECT_GT(moved, 0);
}

// Extreme values the kernel runs with: every ping stays inside the host
// buffers and the documented leading entries of the result arrays, and flags
// each beam as its own detection or a neighbour's.
struct Extreme {
    std::string name;
    std::function<void(KVaneParams&)> set;
    double depth = 20.0;
    int samples = 300;
    int beams = 256;
};

std::vector<Extreme> extremeCases() {
    std::vector<Extreme> cases;
    auto add = [&](const std::string& name, float v, const std::function<void(KVaneParams&, float)>& set) {
        cases.push_back({name + " " + std::to_string(v), [set, v](KVaneParams& p) { set(p, v); }});
    };
    for (float v : {0.0f, -1500.0f, kNaN, kInf, 1e-30f, 1e30f})
        add("soundSpeed", v, [](KVaneParams& p, float x) { p.soundSpeed = x; });
    for (float v : {kNaN, 0.0f, 90.0f, 180.0f, -70.0f, 1e30f}) {
        add("sectorPort", v, [](KVaneParams& p, float x) { p.sectorPort = x; });
        add("both sectors", v, [](KVaneParams& p, float x) { p.sectorPort = p.sectorStarboard = x; });
    }
    for (float v : {kNaN, -kInf, 1e9f})
        add("depth window", v, [](KVaneParams& p, float x) {
            p.limitMode = 2;
            p.depthLimitNear = x;
            p.depthLimitFar = -x;
        });
    for (float v : {0.0f, -1.0f, kNaN, 1.0f}) add("pulseLength", v, [](KVaneParams& p, float x) { p.pulseLength = x; });
    for (float v : {kNaN, -5.0f, 5.0f}) add("clipRatio", v, [](KVaneParams& p, float x) { p.clipRatio = x; });
    for (float v : {kNaN, kInf, -1.0f, 1e30f}) add("imageGain", v, [](KVaneParams& p, float x) { p.imageGain = x; });
    for (float v : {kNaN, 2.0f, -1.0f})
        add("qualityThreshold", v, [](KVaneParams& p, float x) { p.qualityThreshold = x; });
    add("gainSwitch", kNaN, [](KVaneParams& p, float x) { p.gainSwitch = x; });
    for (int v : {0, -1, 2, 100, -100, 101, INT_MIN})
        add("rollCount with repeated and backward times", static_cast<float>(v), [v](KVaneParams& p, float) {
            p.rollCount = v;
            p.pingTime = 5000;
            for (int i = 0; i < 100; ++i) {
                p.rollTime[i] = (i % 3 == 0) ? 5000 : 5000 - 7 * i;
                p.rollAngle[i] = (i % 5 == 0) ? kNaN : 40.0f * static_cast<float>(i % 4);
            }
        });
    add("roll table in the far future", 0, [](KVaneParams& p, float) {
        p.rollCount = 100;
        p.pingTime = INT_MIN;
        for (int i = 0; i < 100; ++i) p.rollTime[i] = INT_MAX - i, p.rollAngle[i] = 1e30f;
    });
    for (int v : {-1, 3, 127, -128})
        add("limitMode", static_cast<float>(v), [](KVaneParams& p, float x) { p.limitMode = static_cast<int8_t>(x); });
    for (int v : {-1, 0, 2, 3, 127})
        add("beamSpacing", static_cast<float>(v), [](KVaneParams& p, float x) { p.beamSpacing = static_cast<int8_t>(x); });
    for (int v : {0, 2, 3, -1})
        add("sideScanMode", static_cast<float>(v), [v](KVaneParams& p, float) { p.sideScanMode = v; });
    for (int v : {-1, 0, 9, 201, INT_MAX, INT_MIN})
        add("sideScanRows", static_cast<float>(v), [v](KVaneParams& p, float) { p.sideScanRows = v; });
    for (auto [w, h] : {std::pair{0, 0}, {1, 1}, {1, 5000}, {5000, 1}, {1600, 1600}, {2100, 900}})
        add("image width " + std::to_string(w) + " height", static_cast<float>(h),
            [w = w, h = h](KVaneParams& p, float) { p.imageWidth = w, p.imageHeight = h; });
    // Odd shapes of the ping itself, and shallow water, where the first echo
    // comes before sample 100 and the tracker decides.
    for (int beams : {1, 2, 3, 4, 63, 65, 255})
        cases.push_back({"beamCount " + std::to_string(beams), [](KVaneParams&) {}, 20.0, 300, beams});
    for (int samples : {1, 2, 15, 16, 199, 201})
        cases.push_back({"sampleCount " + std::to_string(samples), [](KVaneParams&) {}, 20.0, samples});
    for (int track : {1, 0, 2})
        for (float quality : {0.0f, 0.5f})
            cases.push_back({"shallow, trackEnable " + std::to_string(track) + " quality " + std::to_string(quality),
                             [=](KVaneParams& p) { p.trackEnable = track, p.qualityThreshold = quality; }, 1.5});
    for (int beams : {1, 2, 3, 21, 255})
        cases.push_back({"shallow, beamCount " + std::to_string(beams), [](KVaneParams&) {}, 1.5, 300, beams});
    return cases;
}

TEST_F(Reliability, ExtremeParametersStayInsideTheirBuffers) {
    // The bottom trace works on a fixed line of 256 beams (slot 255 and the
    // copies of its merge reach past a smaller beam count), so only the
    // bottomSample entries from 256 up are certain to stay.
    constexpr size_t kTracedLine = 256;
    // One ping per case, in a row: state left by an extreme ping is used by the next one.
    for (const Extreme& c : extremeCases()) {
        Ping ping(c.beams, c.samples, c.depth, 0.0, [&c](KVaneParams& p, const kvsim::SimPing&) {
            p.gainSwitch = 1.0f;  // the smoothing path, with its larger image
            c.set(p);
        });
        const KVaneResult before = ping.result;
        ping.process();
        const KVaneResult& result = ping.result;
        ASSERT_TRUE(kvrel::pingRan(result)) << c.name;
        EXPECT_TRUE(ping.host.guardsIntact()) << c.name << ": a host buffer overrun";
        const size_t B = static_cast<size_t>(c.beams);
        EXPECT_TRUE(sameBytes(result.bottomSample + kTracedLine, before.bottomSample + kTracedLine,
                              4 * (1920 - kTracedLine)))
            << c.name << ": bottomSample written past the traced line";
        for (size_t b = 0; b < B; ++b)
            ASSERT_TRUE(result.bottomFlag[b] == 1 || result.bottomFlag[b] == 2) << c.name << ": flag of beam " << b;
        EXPECT_TRUE(sameBytes(result.bottomFlag + B, before.bottomFlag + B, 1924 - B))
            << c.name << ": bottomFlag written past the beams";
        EXPECT_TRUE(sameBytes(result.beamAngleCopies + 3 * B, before.beamAngleCopies + 3 * B, 4 * (1920 - 3 * B)))
            << c.name << ": beamAngleCopies written past three copies";
    }
}

// A count beyond the table is written back as 1 and the ping stays on the
// segmented path (it writes segmentRoll); a count of 1 takes the one-shot path.
TEST_F(Reliability, RollCountOutOfRangeIsWrittenBackAsOne) {
    const int cases[][3] = {{101, 1, 1}, {-101, 1, 1}, {INT_MIN, 1, 1}, {100, 100, 1}, {-100, -100, 1}, {1, 1, 0}};
    for (const auto& [given, kept, segmented] : cases) {
        Ping ping(64, 200, 20.0, 3.0, [given = given](KVaneParams& p, const kvsim::SimPing& sim) {
            kvrel::useRollTable(&p, sim);
            p.rollCount = given;
        });
        ping.process();
        EXPECT_TRUE(kvrel::pingRan(ping.result));
        EXPECT_EQ(kept, ping.params.rollCount) << "rollCount " << given;
        const KVaneResult sentinel = sentinelResult();
        EXPECT_EQ(segmented == 1, !sameBytes(ping.result.segmentRoll, sentinel.segmentRoll, 4)) << "rollCount " << given;
    }
}

// The same pings from the same retained state give the same bytes: no stage
// reads memory that an earlier ping left behind and it does not own.
TEST_F(Reliability, RepeatedRunsGiveIdenticalOutputs) {
    std::vector<kvrel::SequencePing> sequence = kvrel::fixedSequence();
    const kvane::KVaneRetained retained = kvane::retained;
    const std::vector<float> waterfall(kvane::ws.waterfall,
                                       kvane::ws.waterfall + size_t{kvane::kWaterfallRows} * kvane::kWaterfallRowLength);
    const std::vector<int32_t> sourceBeam(kvane::ws.wedge.sourceBeam, kvane::ws.wedge.sourceBeam + 256);
    const std::vector<uint8_t> first = kvrel::runSequence(sequence);
    kvane::retained = retained;
    std::copy(waterfall.begin(), waterfall.end(), kvane::ws.waterfall);
    std::copy(sourceBeam.begin(), sourceBeam.end(), kvane::ws.wedge.sourceBeam);
    const std::vector<uint8_t> second = kvrel::runSequence(sequence);
    ASSERT_EQ(first.size(), second.size());
    const auto differ = std::mismatch(first.begin(), first.end(), second.begin());
    EXPECT_TRUE(differ.first == first.end()) << "first difference at byte " << differ.first - first.begin();
}

}  // namespace
