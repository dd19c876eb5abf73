// test_tools.cpp - the simulator's physics and conventions, the recording
// format, and the replay tool run as a program.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
// g++ 12 reports a false "may be used uninitialized" inside <regex> when it
// inlines the library's own state moves under the sanitizers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "recording.h"
#include "simulate.h"
#include "soundings.h"

namespace {

namespace fs = std::filesystem;
using cd = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

cd elementSample(const kvsim::SimPing& p, int element, int t) {
    const size_t i = static_cast<size_t>(element) * p.sampleCount + t;
    return {static_cast<double>(p.planeI[i]), static_cast<double>(p.planeQ[i])};
}

// A ping with nothing but the given point targets (no seabed, negligible noise).
kvsim::SimConfig quietConfig(std::vector<kvsim::SimTarget> targets) {
    kvsim::SimConfig c;
    c.seabed = false;
    c.snrDb = 300.0;
    c.samples = 600;
    c.targets = std::move(targets);
    return c;
}

double envelopeCentre(const kvsim::SimPing& p, int element, int t0, int t1) {
    double sum = 0.0, moment = 0.0;
    for (int t = t0; t <= t1; ++t) {
        sum += std::abs(elementSample(p, element, t));
        moment += std::abs(elementSample(p, element, t)) * t;
    }
    return moment / sum;
}

struct TempDir {
    fs::path path = fs::temp_directory_path() / ("kvane-tools-" + std::to_string(::getpid()) + "-" +
                                                 std::to_string(counter()++));
    static int& counter() { static int n = 0; return n; }
    TempDir() { fs::create_directories(path); }
    ~TempDir() { std::error_code ec; fs::remove_all(path, ec); }
    std::string file(const std::string& name) const { return (path / name).string(); }
};

std::vector<uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> split(std::istream&& in, char sep) {
    std::vector<std::string> parts;
    for (std::string s; std::getline(in, s, sep);) parts.push_back(s);
    return parts;
}
std::vector<std::string> readLines(const std::string& path) { return split(std::ifstream(path), '\n'); }
std::vector<std::string> splitCsv(const std::string& line) { return split(std::stringstream(line), ','); }

kvsim::SimConfig smallSurvey(double rollAmplitude = 0.0) {
    kvsim::SimConfig c;
    c.depth = 10.0;
    c.samples = 1000;
    c.pings = 3;
    c.seed = 11;
    c.rollAmplitude = rollAmplitude;
    return c;
}

}  // namespace

// An echo from array angle theta reaches element n n * 3.75 mm * sin(theta) / c
// after element 0, in its envelope and in its carrier phase; the array angle
// is the target's angle turned by the roll at the echo's return.
TEST(SimulatorPhysics, PointTargetArrivesAtItsTwoWayTimeFromItsAngleTurnedByRoll) {
    for (double rollAmplitude : {0.0, 6.0})
        for (double angle : {-41.2, 0.0, 23.5, 64.0}) {
            kvsim::SimConfig c = quietConfig({{angle, 15.0, 1e8}});
            c.rollAmplitude = rollAmplitude;
            c.rollPeriod = 4.0;
            c.soundSpeed = 1480.0;
            const kvsim::SimPing p = kvsim::simulatePing(c, 3);
            const double delay = 2.0 * 15.0 / 1480.0;  // two-way, seconds
            const double roll = kvsim::rollAt(c, p.pingTime / 1000.0 + delay);
            ASSERT_TRUE(rollAmplitude == 0.0 || std::fabs(roll) > 1.0);
            const double step = 0.00375 * std::sin((angle + roll) * kPi / 180.0) / 1480.0;  // seconds per element
            const int t = static_cast<int>(delay * 20000.0);
            EXPECT_NEAR(envelopeCentre(p, 0, t - 9, t + 9), delay * 20000.0, 0.05) << angle;
            EXPECT_NEAR(envelopeCentre(p, 63, t - 9, t + 12), (delay + 63 * step) * 20000.0, 0.05) << angle;
            cd product = 0.0;
            for (int n = 0; n < 63; ++n) product += elementSample(p, n + 1, t) * std::conj(elementSample(p, n, t));
            EXPECT_NEAR(std::remainder(std::arg(product) + 2.0 * kPi * 200e3 * step, 2.0 * kPi), 0.0, 2e-3) << angle;
        }
}

// The truth by which the end-to-end tests judge the kernel's bottom line (a
// bottom line on these values also shows the simulated echoes agree with them).
TEST(SimulatorPhysics, SeabedTruthFollowsTheGeometry) {
    kvsim::SimConfig c;
    c.depth = 20.0;
    EXPECT_NEAR(kvsim::seabedSample(c, 0.0), 2 * 20.0 / 1500.0 * 20000.0, 1e-9);
    EXPECT_NEAR(kvsim::seabedSample(c, -60.0), 2 * 40.0 / 1500.0 * 20000.0, 1e-9);
    c.slopeDeg = 10.0;
    // The ray at -10 degrees meets a 10 degree slope square on, at D cos(10).
    EXPECT_NEAR(kvsim::seabedSample(c, -10.0), 2 * 20.0 * std::cos(10.0 * kPi / 180.0) / 1500.0 * 20000.0, 1e-9);
    EXPECT_GT(kvsim::seabedSample(c, 30.0), kvsim::seabedSample(c, -30.0));  // deeper to starboard
    EXPECT_TRUE(std::isnan(kvsim::seabedSample(c, 85.0)));                   // parallel to the slope
    const std::vector<float> fan = kvsim::truthFanAngles();
    ASSERT_EQ(fan.size(), 256u);
    EXPECT_EQ(fan.front(), -70.0f);
    EXPECT_NEAR(fan.back(), 70.0f, 1e-4f);
}

TEST(SimulatorPhysics, LevelsFollowEchoLevelAndSnr) {
    // echoLevel is the RMS of the strongest seabed sample at an element; the
    // noise lies snrDb under the mean seabed echo power after the first echo.
    kvsim::SimConfig c;
    c.depth = 8.0;  // first echo at sample 213
    c.samples = 400;
    c.snrDb = 30.0;
    c.echoLevel = 1e8;
    double noise = 0.0, echo = 0.0, strongest = 0.0;
    const int pings = 12;
    for (int k = 0; k < pings; ++k) {
        const kvsim::SimPing p = kvsim::simulatePing(c, k);
        for (int e = 0; e < 64; ++e) {
            double top = 0.0;
            for (int t = 0; t < 200; ++t) noise += std::norm(elementSample(p, e, t));
            for (int t = 214; t < 400; ++t) echo += std::norm(elementSample(p, e, t));
            for (int t = 205; t < 225; ++t) top = std::max(top, std::norm(elementSample(p, e, t)));
            strongest += top;
        }
    }
    noise /= 200.0 * 64 * pings;
    echo = echo / (186.0 * 64 * pings) - noise;
    EXPECT_NEAR(10.0 * std::log10(echo / noise), 30.0, 1.0);
    // A speckled echo's strongest sample lies a few dB above its level.
    const double strongestRms = std::sqrt(strongest / (64.0 * pings));
    EXPECT_GT(strongestRms, 0.7e8);
    EXPECT_LT(strongestRms, 3e8);

    // Only the noise follows the SNR: 10 dB more is sqrt(10) times the
    // difference from a noise-free ping.
    auto withSnr = [&](double snr) { c.snrDb = snr; return kvsim::simulatePing(c, 0); };
    const kvsim::SimPing clean = withSnr(300.0), quiet = withSnr(40.0), loud = withSnr(30.0);
    for (int t = 0; t < 400; t += 7) {
        const cd dq = elementSample(quiet, 5, t) - elementSample(clean, 5, t);
        const cd dl = elementSample(loud, 5, t) - elementSample(clean, 5, t);
        EXPECT_NEAR(std::abs(dl / dq - std::sqrt(10.0)), 0.0, 1e-3) << "sample " << t;
    }
}

// The roll table the kernel interpolates: every 10 ms, from 50 ms before the
// ping to 50 ms after its last sample, at most 100 entries.
TEST(Simulator, RollTableSpansThePingEvery10Ms) {
    kvsim::SimConfig c = smallSurvey(3.0);
    c.samples = 8000;
    for (int index : {0, 7}) {
        const kvsim::SimPing p = kvsim::simulatePing(c, index);
        EXPECT_EQ(p.pingTime, kvsim::pingTimeMs(c, index));
        ASSERT_EQ(p.rollTime.size(), p.rollAngle.size());
        ASSERT_LE(p.rollTime.size(), 100u);
        EXPECT_LE(p.rollTime.front(), p.pingTime - 50);
        EXPECT_GE(p.rollTime.back(), p.pingTime + 400 + 50);
        for (size_t i = 0; i < p.rollTime.size(); ++i) {
            EXPECT_EQ(i > 0 ? p.rollTime[i] - p.rollTime[i - 1] : 10, 10);
            EXPECT_NEAR(p.rollAngle[i], kvsim::rollAt(c, p.rollTime[i] / 1000.0), 1e-5);
        }
    }
}

// The seabed truth of the simulator, turned into metres, lands on its seabed:
// the range formula undoes the dropped samples, and on the one-shot path the
// roll at the echo turns array angles into earth angles.
TEST(Soundings, TruthSamplesLandOnTheSimulatedSeabed) {
    kvsim::SimConfig config;
    config.slopeDeg = 10.0;
    const std::vector<float> angles = kvsim::truthFanAngles();
    const float roll = 3.5f;
    std::vector<float> bottom(angles.size()), steering(angles.size());
    for (size_t b = 0; b < angles.size(); ++b) {
        const double raw = kvsim::seabedSample(config, angles[b]);
        bottom[b] = std::isfinite(raw) ? static_cast<float>(raw - kvproducts::kDroppedSamples) : 0.0f;
        steering[b] = angles[b] + roll;  // the beam that looks at earth angle angles[b]
    }
    bottom[7] = std::nanf("");
    kvproducts::RollSamples table;
    table.pingTime = 1000;
    table.time = {900, 2000};
    table.angle = {roll, roll};
    std::vector<kvproducts::Sounding> s(angles.size());
    kvproducts::computeSoundings(s.data(), bottom.data(), steering.data(), static_cast<int>(angles.size()),
                                 static_cast<float>(config.soundSpeed), &table, 0.0);
    int landed = 0;
    for (size_t b = 0; b < angles.size(); ++b) {
        if (bottom[b] == 0.0f || b == 7) {
            EXPECT_TRUE(std::isnan(s[b].rangeM) && std::isnan(s[b].depthM)) << b;
            continue;
        }
        EXPECT_NEAR(s[b].angleDeg, angles[b], 1e-5);
        const double seabed = config.depth + s[b].acrossM * std::tan(config.slopeDeg * kPi / 180.0);
        EXPECT_NEAR(s[b].depthM, seabed, 1e-4 * s[b].rangeM) << b;
        ++landed;
    }
    EXPECT_GT(landed, 200);
}

TEST(Soundings, RollIsInterpolatedAndHeldAtTheTableEnds) {
    kvproducts::RollSamples roll;
    EXPECT_EQ(kvproducts::interpolateRoll(roll, 5.0), 0.0);
    roll.time = {10, 20, 40};
    roll.angle = {1.0f, 3.0f, -1.0f};
    EXPECT_DOUBLE_EQ(kvproducts::interpolateRoll(roll, 0.0), 1.0);
    EXPECT_DOUBLE_EQ(kvproducts::interpolateRoll(roll, 15.0), 2.0);
    EXPECT_DOUBLE_EQ(kvproducts::interpolateRoll(roll, 20.0), 3.0);
    EXPECT_DOUBLE_EQ(kvproducts::interpolateRoll(roll, 30.0), 1.0);
    EXPECT_DOUBLE_EQ(kvproducts::interpolateRoll(roll, 99.0), -1.0);
}

TEST(Recording, RoundTripsRecordByRecord) {
    TempDir dir;
    const kvsim::SimConfig c = smallSurvey(2.0);
    const std::string path = dir.file("survey.kvr");
    ASSERT_EQ(kvsim::writeRecording(path, c), "");
    EXPECT_EQ(fs::file_size(path), 3u * (52 + 1000 * 512 + 12 + 8 * kvsim::simulatePing(c, 0).rollTime.size()));
    std::FILE* f = std::fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    kvreplay::PingRecord rec;
    std::string message;
    std::vector<int32_t> planeI, planeQ;
    for (int k = 0; k < c.pings; ++k) {
        ASSERT_EQ(kvreplay::readRecord(f, k + 1, &rec, &message), kvreplay::ReadStatus::ok) << message;
        const kvsim::SimPing p = kvsim::simulatePing(c, k);
        EXPECT_EQ(rec.lc, 38);  // 1000 samples reach 37.5 m
        kvreplay::splitSampleBlock(rec.samples, &planeI, &planeQ);
        EXPECT_EQ(planeI, p.planeI);
        EXPECT_EQ(planeQ, p.planeQ);
        kvreplay::RollTable roll;
        ASSERT_TRUE(kvreplay::decodeRollAux(rec.aux, &roll, &message)) << message;
        EXPECT_EQ(roll.pingTime, p.pingTime);
        EXPECT_EQ(roll.time, p.rollTime);
        EXPECT_EQ(roll.angle, p.rollAngle);
    }
    EXPECT_EQ(kvreplay::readRecord(f, 4, &rec, &message), kvreplay::ReadStatus::end);
    std::fclose(f);

    // An odd block of 1028 bytes: 2 samples per channel, plane Q from byte 514.
    std::vector<uint8_t> block(1028, 0);
    for (int32_t i = 0; i < 128; ++i) {
        const int32_t vi = 1000 + i, vq = -2000 - i;
        std::memcpy(block.data() + 4 * i, &vi, 4);
        std::memcpy(block.data() + 514 + 4 * i, &vq, 4);
    }
    kvreplay::splitSampleBlock(block, &planeI, &planeQ);
    ASSERT_EQ(planeI.size() * 1000 + planeQ.size(), 128128u);
    EXPECT_EQ(planeI[127], 1127);
    EXPECT_EQ(planeQ[0], -2000);
    EXPECT_EQ(planeQ[127], -2127);

    // Roll tables: foreign blocks and a count that no longer fits are refused.
    kvreplay::RollTable t, two;
    EXPECT_FALSE(kvreplay::decodeRollAux({1, 2, 3}, &t, &message));
    two.pingTime = -5;
    two.time = {1, 2};
    two.angle = {0.5f, -0.25f};
    std::vector<uint8_t> aux = kvreplay::encodeRollAux(two);
    ASSERT_TRUE(kvreplay::decodeRollAux(aux, &t, &message));
    EXPECT_EQ(t.angle, two.angle);
    aux.pop_back();
    EXPECT_FALSE(kvreplay::decodeRollAux(aux, &t, &message));
}

TEST(Recording, ReaderNamesTheRecordAndTheProblem) {
    std::vector<int32_t> plane(64 * 4, 7);
    const std::vector<uint8_t> one = kvreplay::encodeRecord(5, plane.data(), plane.data(), 4, {1, 2, 3});
    ASSERT_EQ(one.size(), 52u + 2048 + 3);
    auto withInt = [&](size_t offset, int32_t v) {
        std::vector<uint8_t> r = one;
        std::memcpy(r.data() + offset, &v, 4);
        return r;
    };
    const std::string sampleRange = " out of range (512 to 4096000 bytes)", auxRange = " out of range (0 to 1048576 bytes)";
    const std::pair<std::vector<uint8_t>, std::string> cases[] = {  // the second record and its message
        {{one.begin(), one.begin() + 1042}, "truncated sample block (got 1000 of 2048 bytes)"},
        {{one.begin(), one.begin() + 10}, "truncated record head (got 10 of 42 bytes)"},
        {{one.begin(), one.end() - 1}, "truncated record tail (got 5 of 6 bytes)"},
        {withInt(38, -2048), "sample block length -2048" + sampleRange},
        {withInt(38, 4096001), "sample block length 4096001" + sampleRange},
        {withInt(38, 511), "sample block length 511" + sampleRange},
        {withInt(42 + 2048, -1), "auxiliary block length -1" + auxRange},
        {withInt(42 + 2048, (1 << 20) + 1), "auxiliary block length 1048577" + auxRange},
    };
    TempDir dir;
    for (const auto& [second, want] : cases) {
        std::vector<uint8_t> bytes = one;
        bytes.insert(bytes.end(), second.begin(), second.end());
        writeBytes(dir.file("bad.kvr"), bytes);
        std::FILE* f = std::fopen(dir.file("bad.kvr").c_str(), "rb");
        ASSERT_NE(f, nullptr);
        kvreplay::PingRecord rec;
        std::string message;
        EXPECT_EQ(kvreplay::readRecord(f, 1, &rec, &message), kvreplay::ReadStatus::ok) << want;
        EXPECT_EQ(rec.lc, 5);
        EXPECT_EQ(rec.aux, (std::vector<uint8_t>{1, 2, 3}));
        EXPECT_EQ(kvreplay::readRecord(f, 2, &rec, &message), kvreplay::ReadStatus::error) << want;
        EXPECT_EQ(message, "record 2: " + want);
        std::fclose(f);
    }
}

namespace {

struct ToolRun {
    int status = -1;
    std::vector<std::string> out, err;
};

std::string toolPath(const char* name) {
    const char* dir = std::getenv("KVANE_BINARY_DIR");
    return dir ? std::string(dir) + "/tools/" + name : std::string();
}

// Runs a tool with each argument as one word, capturing both streams by line.
// The kernel's thread team spins while it waits; on a busy test machine a
// passive wait keeps these runs short. Results do not depend on it.
ToolRun runTool(const TempDir& dir, const char* tool, const std::vector<std::string>& args) {
    auto quoted = [](const std::string& word) { return std::string(1, '\'').append(word).append(1, '\''); };
    const std::string out = dir.file("stdout.txt"), err = dir.file("stderr.txt");
    std::string command = "OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive} ";
    command += quoted(toolPath(tool));
    for (const std::string& a : args) command.append(" ").append(quoted(a));
    command.append(" >").append(quoted(out)).append(" 2>").append(quoted(err));
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readLines(out), readLines(err)};
}

#define REQUIRE_TOOLS() \
    if (toolPath("kvane-replay").empty()) GTEST_SKIP() << "KVANE_BINARY_DIR is not set"

// The harness's lines, exact to the character: one "Total:" per ping numbered
// from 1, then the summary averaging over one more than the pings run.
void expectHarnessOutput(const std::vector<std::string>& out, int pings, int lc) {
    ASSERT_EQ(out.size(), static_cast<size_t>(pings + 1));
    const std::regex total(R"(Total:(\d+\.\d{6}) s,(\d+) ping)");
    const std::regex summary(R"(LC:(-?\d+) m, Tol_aver:(\d+\.\d{6}) s, \S+ ping)");
    std::smatch m;
    double sum = 0.0;
    for (int k = 0; k < pings; ++k) {
        ASSERT_TRUE(std::regex_match(out[k], m, total)) << out[k];
        EXPECT_EQ(std::stoi(m[2]), k + 1);
        sum += std::stod(m[1]);
    }
    ASSERT_TRUE(std::regex_match(out[pings], m, summary)) << out[pings];
    EXPECT_EQ(std::stoi(m[1]), lc);
    EXPECT_NEAR(std::stod(m[2]), sum / (pings + 1), 5e-6 * (pings + 1));
}

}  // namespace

TEST(ReplayTool, ReplaysWithSettingsAndRollTables) {
    REQUIRE_TOOLS();
    TempDir dir;
    const std::string rec = dir.file("s.kvr");
    ASSERT_EQ(kvsim::writeRecording(rec, smallSurvey(3.0)), "");
    ToolRun r = runTool(dir, "kvane-replay",
                        {rec, "--no-dither", "--bottom-csv", dir.file("b.csv"), "--flags-csv", dir.file("f.csv")});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.err.empty());
    expectHarnessOutput(r.out, 3, 38);
    for (const char* csv : {"b.csv", "f.csv"}) {
        const std::vector<std::string> lines = readLines(dir.file(csv));
        ASSERT_EQ(lines.size(), 3u) << csv;
        for (int k = 0; k < 3; ++k) {
            ASSERT_EQ(splitCsv(lines[k]).size(), 257u) << csv;
            EXPECT_EQ(splitCsv(lines[k])[0], std::to_string(k + 1));
        }
    }

    r = runTool(dir, "kvane-replay",
                {rec, "--set", "beamCount=128", "--set", "gainSwitch=1", "--set", "rollAngle[0]=0.5",
                 "--roll-from-aux", "--max-pings", "2", "--bottom-csv", dir.file("b.csv")});
    EXPECT_EQ(r.status, 0) << (r.err.empty() ? "" : r.err[0]);
    expectHarnessOutput(r.out, 2, 38);
    const std::vector<std::string> lines = readLines(dir.file("b.csv"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(splitCsv(lines[0]).size(), 129u);
}

TEST(ReplayTool, FailuresAndBadArguments) {
    REQUIRE_TOOLS();
    TempDir dir;
    const std::string rec = dir.file("s.kvr");
    ASSERT_EQ(kvsim::writeRecording(rec, smallSurvey()), "");
    // Two records and the start of the third: the complete pings, then the failure.
    std::vector<uint8_t> bytes = readBytes(rec);
    bytes.resize(bytes.size() * 2 / 3 + 1000);
    writeBytes(dir.file("cut.kvr"), bytes);
    ToolRun r = runTool(dir, "kvane-replay", {dir.file("cut.kvr")});
    EXPECT_NE(r.status, 0);
    expectHarnessOutput(r.out, 2, 38);
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_NE(r.err[0].find(dir.file("cut.kvr") + ": record 3: truncated sample block"), std::string::npos) << r.err[0];

    r = runTool(dir, "kvane-replay", {dir.file("none.kvr")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.empty());
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_NE(r.err[0].find(dir.file("none.kvr")), std::string::npos);

    const std::vector<std::vector<std::string>> cases = {
        {rec, "--set", "noSuchField=1"}, {rec, "--set", "beamCount=12x"}, {rec, "--set", "rollAngle=1"},
        {rec, "--set", "limitMode=200"}, {rec, "--max-pings", "0"},      {rec, "--picture-every", "2"},
        {"--no-dither"}};
    for (const auto& args : cases) {
        r = runTool(dir, "kvane-replay", args);
        EXPECT_EQ(r.status, 2) << args.back();
        EXPECT_EQ(r.err.size(), 1u) << args.back();
        EXPECT_TRUE(r.out.empty()) << args.back();
    }
}

TEST(SimulateTool, WritesTheRecordingAndItsTruth) {
    REQUIRE_TOOLS();
    TempDir dir;
    const std::string out = dir.file("d.kvr");
    ToolRun r = runTool(dir, "kvane-simulate",
                        {"--out", out, "--pings", "2", "--samples", "600", "--depth", "5", "--seed", "3"});
    ASSERT_EQ(r.status, 0);
    kvsim::SimConfig c;
    c.pings = 2;
    c.samples = 600;
    c.depth = 5.0;
    c.seed = 3;
    ASSERT_EQ(kvsim::writeRecording(dir.file("lib.kvr"), c), "");
    EXPECT_EQ(readBytes(out), readBytes(dir.file("lib.kvr")));
    const std::vector<std::string> truth = readLines(out + ".truth.csv");
    ASSERT_EQ(truth.size(), 257u);
    EXPECT_EQ(truth[0], "angle_deg,raw_sample");
    const auto first = splitCsv(truth[1]);
    EXPECT_NEAR(std::stod(first[1]), kvsim::seabedSample(c, std::stod(first[0])), 1e-5);

    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--depth", "abc", "x.kvr"}, {"--samples", "9000", "x.kvr"}, {"--depth", "0", "x.kvr"}, {"--pings", "3"}}) {
        r = runTool(dir, "kvane-simulate", args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(r.err.size(), 1u) << args[0];
    }
}
