// main.cpp - kvane-simulate: writes a recording of a known seabed, and its
// truth, for the replay tool and for anyone without a sonar at hand.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.h"
#include "simulate.h"

namespace {

void printHelp() {
    const kvsim::SimConfig d;
    std::printf(
        "usage: kvane-simulate [--out] FILE [options]\n"
        "Writes FILE, a recording of simulated pings of a seabed across track, and\n"
        "FILE.truth.csv, the raw sample (angle_deg,raw_sample) where each beam of a\n"
        "256-beam +-70 degree equal-angle fan meets the seabed.\n"
        "\n"
        "  --out FILE             the recording to write (or give FILE alone)\n"
        "  --depth M              depth of the seabed at nadir, metres (%g)\n"
        "  --slope DEG            across-track slope, positive deeper to starboard (%g)\n"
        "  --pings N              number of pings (%d)\n"
        "  --samples N            samples per channel, 1 to 8000 (%d)\n"
        "  --snr DB               mean seabed echo over the noise, dB (%g)\n"
        "  --sound-speed M/S      sound speed (%g)\n"
        "  --roll-amplitude DEG   amplitude of a sinusoidal roll (%g)\n"
        "  --roll-period S        period of the roll, seconds (%g)\n"
        "  --ping-interval S      time from one ping to the next, seconds (%g)\n"
        "  --pulse-length S       transmit pulse length, seconds (%g)\n"
        "  --targets N            point targets in the water column (%d)\n"
        "  --seed N               seed of the random numbers, 0 to 4294967295 (%u)\n"
        "  --echo-level COUNTS    RMS seabed echo per element at its strongest (%g)\n"
        "  --help                 this text\n"
        "\n"
        "Each record's auxiliary block carries the roll table of its ping (see\n"
        "kvane-replay --roll-from-aux).\n",
        d.depth, d.slopeDeg, d.pings, d.samples, d.snrDb, d.soundSpeed, d.rollAmplitude,
        d.rollPeriod, d.pingInterval, d.pulseLength, d.waterTargets, d.seed, d.echoLevel);
}

using kvcli::parseNumber;
using kvcli::usageError;
using kvcli::parseWhole;

}  // namespace

int main(int argc, char** argv) {
    kvcli::programName = "kvane-simulate";
    kvsim::SimConfig config;
    std::string out;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printHelp();
            return 0;
        }
        if (arg.rfind("--", 0) != 0) {
            if (!out.empty()) usageError("more than one output file ('" + out + "', '" + arg + "')");
            out = arg;
            continue;
        }
        const std::string value = kvcli::optionValue(&arg, argc, argv, &i);
        if (arg == "--out") {
            if (!out.empty()) usageError("more than one output file ('" + out + "', '" + value + "')");
            out = value;
        } else if (arg == "--depth") {
            config.depth = parseNumber(arg, value);
        } else if (arg == "--slope") {
            config.slopeDeg = parseNumber(arg, value);
        } else if (arg == "--pings") {
            config.pings = static_cast<int>(parseWhole(arg, value, 1, 1000000));
        } else if (arg == "--samples") {
            config.samples = static_cast<int>(parseWhole(arg, value, 1, kvsim::kMaxSamples));
        } else if (arg == "--snr") {
            config.snrDb = parseNumber(arg, value);
        } else if (arg == "--sound-speed") {
            config.soundSpeed = parseNumber(arg, value);
        } else if (arg == "--roll-amplitude") {
            config.rollAmplitude = parseNumber(arg, value);
        } else if (arg == "--roll-period") {
            config.rollPeriod = parseNumber(arg, value);
        } else if (arg == "--ping-interval") {
            config.pingInterval = parseNumber(arg, value);
        } else if (arg == "--pulse-length") {
            config.pulseLength = parseNumber(arg, value);
        } else if (arg == "--targets") {
            config.waterTargets = static_cast<int>(parseWhole(arg, value, 0, 10000));
        } else if (arg == "--seed") {
            config.seed = static_cast<uint32_t>(parseWhole(arg, value, 0, 4294967295LL));
        } else if (arg == "--echo-level") {
            config.echoLevel = parseNumber(arg, value);
        } else {
            usageError("unknown option " + arg + " (see --help)");
        }
    }
    if (out.empty()) usageError("no output file given (--out FILE)");
    const std::string bad = kvsim::checkConfig(config);
    if (!bad.empty()) usageError(bad);

    std::string failure = kvsim::writeRecording(out, config);
    if (failure.empty()) failure = kvsim::writeTruthCsv(out + ".truth.csv", config);
    if (!failure.empty()) {
        std::fprintf(stderr, "kvane-simulate: %s\n", failure.c_str());
        return 1;
    }
    std::printf("kvane-simulate: wrote %s (%d pings of %d samples) and %s.truth.csv\n", out.c_str(),
                config.pings, config.samples, out.c_str());
    return 0;
}
