// main.cpp - kvane-replay: runs a recording through the kernel the way the
// kernel's own harness does, ping by ping, and prints the time of each ping.
//
// Standard output carries exactly the harness's two lines, "Total:%f s,%d ping"
// per ping and the "LC:..." summary; everything else goes to stderr or files.
// Unlike the harness, a missing, unreadable, truncated or inconsistent
// recording ends the run cleanly: the pings read so far are processed and
// reported with their summary, then one line on stderr names the file, the
// record and the problem, and the exit status is 1. Bad arguments exit with 2.
#include <xmmintrin.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "kVane.h"
#include "pictures.h"
#include "harness.h"
#include "recording.h"
#include "soundings.h"
#include "uncertainty.h"

namespace {

constexpr int kHarnessPingLimit = 199;  // the harness loops while its counter is below 200
constexpr size_t kDisplayBytes = 1000000;
constexpr size_t kSideScanFloats = 3200000;

// ---------------------------------------------------------------------------
// The parameter block by field name: one table of name, offset, type and
// entries drives --set, the defaults and the per-ping refresh.

enum class FieldType { f32, i32, i8, u8 };

struct ParamField {
    const char* name;
    size_t offset;
    FieldType type;
    int count;           // entries
    int perPingEntries;  // leading entries the harness rewrites on every ping
};

#define KV_FIELD(field, type, count, perPing) \
    ParamField { #field, offsetof(KVaneParams, field), FieldType::type, count, perPing }

const ParamField kParamFields[] = {
    KV_FIELD(reserved0, f32, 3, 3),
    KV_FIELD(depthLimitNear, f32, 1, 1),
    KV_FIELD(depthLimitFar, f32, 1, 1),
    KV_FIELD(reserved1, i32, 3, 0),
    KV_FIELD(soundSpeed, f32, 1, 1),
    KV_FIELD(reserved2, i32, 1, 0),
    KV_FIELD(sectorPort, f32, 1, 0),
    KV_FIELD(sectorStarboard, f32, 1, 0),
    KV_FIELD(gainSwitch, f32, 1, 1),
    KV_FIELD(reserved3, i32, 2001, 0),
    KV_FIELD(rollAngle, f32, 100, 1),
    KV_FIELD(rollTime, i32, 100, 0),
    KV_FIELD(rollCount, i32, 1, 0),
    KV_FIELD(pingTime, i32, 1, 0),
    KV_FIELD(pulseLength, f32, 1, 1),
    KV_FIELD(reserved4, i32, 2, 0),
    KV_FIELD(limitMode, i8, 1, 1),
    KV_FIELD(beamSpacing, i8, 1, 1),
    KV_FIELD(reserved5, u8, 2, 0),
    KV_FIELD(imageWidth, i32, 1, 1),
    KV_FIELD(imageHeight, i32, 1, 1),
    KV_FIELD(imageGain, f32, 1, 1),
    KV_FIELD(beamCount, i32, 1, 1),
    KV_FIELD(fixedGainEnable, i32, 1, 1),
    KV_FIELD(reserved6, i32, 1, 1),
    KV_FIELD(trackEnable, i32, 1, 1),
    KV_FIELD(clipRatio, f32, 1, 0),
    KV_FIELD(sideScanMode, i32, 1, 1),
    KV_FIELD(sideScanRows, i32, 1, 1),
    KV_FIELD(qualityThreshold, f32, 1, 0),
};
#undef KV_FIELD

size_t elementSize(FieldType t) {
    switch (t) {
        case FieldType::f32:
        case FieldType::i32: return 4;
        case FieldType::i8:
        case FieldType::u8: return 1;
    }
    return 0;
}


// Rewrites what the harness writes on every ping (with the user's --set values
// in place of the harness's); the other fields keep what the block holds, as
// on the harness's stack, including what the kernel wrote back (rollCount).
void refreshPerPing(KVaneParams* live, const KVaneParams& base) {
    for (const ParamField& f : kParamFields) {
        if (f.perPingEntries == 0) continue;
        std::memcpy(reinterpret_cast<char*>(live) + f.offset,
                    reinterpret_cast<const char*>(&base) + f.offset,
                    elementSize(f.type) * static_cast<size_t>(f.perPingEntries));
    }
}

std::string fieldValue(const KVaneParams& p, const ParamField& f, int index) {
    const char* at = reinterpret_cast<const char*>(&p) + f.offset + elementSize(f.type) * index;
    char text[64];
    switch (f.type) {
        case FieldType::f32: {
            float v;
            std::memcpy(&v, at, 4);
            std::snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
            break;
        }
        case FieldType::i32: {
            int32_t v;
            std::memcpy(&v, at, 4);
            std::snprintf(text, sizeof text, "%d", v);
            break;
        }
        case FieldType::i8: {
            int8_t v;
            std::memcpy(&v, at, 1);
            std::snprintf(text, sizeof text, "%d", v);
            break;
        }
        case FieldType::u8: {
            uint8_t v;
            std::memcpy(&v, at, 1);
            std::snprintf(text, sizeof text, "%u", v);
            break;
        }
    }
    return text;
}

// ---------------------------------------------------------------------------
// Command line.

struct Options {
    std::string recording;
    KVaneParams base = kvreplay::harnessParams();
    std::string bottomCsv, flagsCsv, soundingsCsv, picturePrefix;
    bool rollFromAux = false;
    double rangeOffsetSamples = kvproducts::kRangeOffsetSamples;
    kvproducts::SurveySigmas survey;
    bool dither = true;
    int pictureEvery = 0;
    std::set<long long> picturePings;
    long long maxPings = kHarnessPingLimit;
};

using kvcli::parseWhole;
using kvcli::usageError;

// --set NAME=VALUE or NAME[INDEX]=VALUE; arrays need the index.
void applySetting(KVaneParams* p, const std::string& setting) {
    const size_t eq = setting.find('=');
    if (eq == std::string::npos || eq == 0)
        usageError("--set: '" + setting + "' is not NAME=VALUE (or NAME[INDEX]=VALUE)");
    std::string name = setting.substr(0, eq);
    const std::string value = setting.substr(eq + 1);
    std::string indexText;
    const size_t bracket = name.find('[');
    if (bracket != std::string::npos) {
        if (name.back() != ']') usageError("--set: '" + name + "' is not NAME[INDEX]");
        indexText = name.substr(bracket + 1, name.size() - bracket - 2);
        name = name.substr(0, bracket);
    }
    const ParamField* field = nullptr;
    for (const ParamField& f : kParamFields)
        if (name == f.name) field = &f;
    if (field == nullptr) usageError("--set: unknown parameter '" + name + "' (see --help)");
    long long index = 0;
    if (!indexText.empty())
        index = parseWhole("--set " + name + " index", indexText, 0, field->count - 1);
    else if (bracket != std::string::npos || field->count > 1)
        usageError("--set: " + name + " has " + std::to_string(field->count) +
                   " entries; give one as " + name + "[INDEX]=VALUE");
    const std::string what = "--set " + name;
    char* at = reinterpret_cast<char*>(p) + field->offset + elementSize(field->type) * index;
    switch (field->type) {
        case FieldType::f32: {
            // Any float, NaN and infinities included: the kernel's response to
            // them is part of what a replay may want to see.
            errno = 0;
            char* end = nullptr;
            const float v = std::strtof(value.c_str(), &end);
            if (value.empty() || *end != '\0') usageError(what + ": '" + value + "' is not a number");
            std::memcpy(at, &v, 4);
            break;
        }
        case FieldType::i32: {
            const int32_t v = static_cast<int32_t>(parseWhole(what, value, INT32_MIN, INT32_MAX));
            std::memcpy(at, &v, 4);
            break;
        }
        case FieldType::i8: {
            const int8_t v = static_cast<int8_t>(parseWhole(what, value, INT8_MIN, INT8_MAX));
            std::memcpy(at, &v, 1);
            break;
        }
        case FieldType::u8: {
            const uint8_t v = static_cast<uint8_t>(parseWhole(what, value, 0, UINT8_MAX));
            std::memcpy(at, &v, 1);
            break;
        }
    }
}

void printHelp() {
    const KVaneParams d = kvreplay::harnessParams();
    std::printf(
        "usage: kvane-replay RECORDING [options]\n"
        "Runs every record of RECORDING (at most %d) through kVaneProcess20 with the\n"
        "harness's parameter block, prints \"Total:<s> s,<n> ping\" per ping and then\n"
        "\"LC:<m> m, Tol_aver:<s> s, <pings per second> ping\", where the average is the\n"
        "total time over one more than the pings run.\n"
        "\n"
        "  --set NAME=VALUE       set a field of the parameter block on every ping;\n"
        "                         arrays take NAME[INDEX]=VALUE (repeatable)\n"
        "  --roll-from-aux        take rollCount, rollAngle, rollTime and pingTime from the\n"
        "                         roll table in each record's auxiliary block (as written\n"
        "                         by kvane-simulate), so the segmented path runs\n"
        "  --no-dither            leave bottomSample as the kernel gave it (default: the\n"
        "                         +-0.5 sample dither of the raw-buffer entry point)\n"
        "  --bottom-csv FILE      per ping: ping number, then bottomSample of every beam\n"
        "  --flags-csv FILE       per ping: ping number, then bottomFlag of every beam\n"
        "  --soundings FILE       soundings in metres with their uncertainty, one line per beam\n"
        "                         with a bottom: ping,beam,angle_deg,range_m,across_m,depth_m,flag,\n"
        "                         depth_unc_m,across_unc_m,qf,iho_order (from the kernel's bottom\n"
        "                         line before the dither; on the one-shot path the angles are\n"
        "                         corrected with the record's roll table)\n"
        "  --range-offset-samples S  the detector's calibration offset, subtracted from every\n"
        "                         bottom sample before the range (default %.2f)\n"
        "  --sound-speed-sigma M  the survey's sound speed uncertainty, m/s, 1 sigma (default %g)\n"
        "  --roll-sigma DEG       the survey's roll uncertainty, degrees, 1 sigma (default %g)\n"
        "  --pictures PREFIX      write PNG pictures PREFIXping<N>-{wedge,waterfall,beams}.png\n"
        "                         (default: of the last ping only)\n"
        "  --picture-every N      ... of every ping whose number is a multiple of N\n"
        "  --picture-pings LIST   ... of the pings in the comma-separated LIST\n"
        "  --max-pings N          stop after N pings (default %d)\n"
        "  --help                 this text\n"
        "\n"
        "Parameter block (name, entries, value on every ping; * = rewritten on every\n"
        "ping, others are set once and keep what the kernel writes back):\n",
        kHarnessPingLimit, kvproducts::kRangeOffsetSamples, kvproducts::kDefaultSoundSpeedSigma,
        kvproducts::kDefaultRollSigma, kHarnessPingLimit);
    for (const ParamField& f : kParamFields) {
        std::string shown;
        const int showCount = std::min(f.count, 3);
        for (int i = 0; i < showCount; ++i) {
            if (i > 0) shown += ' ';
            shown += fieldValue(d, f, i);
        }
        if (f.count > showCount) shown += " ...";
        std::printf("  %c %-18s %5d  %s\n", f.perPingEntries ? '*' : ' ', f.name, f.count,
                    shown.c_str());
    }
    std::printf("  (rollAngle: only entry 0 is rewritten on every ping)\n");
}

Options parseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printHelp();
            std::exit(0);
        }
        if (arg.rfind("--", 0) != 0) {
            if (!o.recording.empty())
                usageError("more than one recording ('" + o.recording + "', '" + arg + "')");
            o.recording = arg;
            continue;
        }
        if (arg == "--roll-from-aux") {
            o.rollFromAux = true;
            continue;
        }
        if (arg == "--no-dither") {
            o.dither = false;
            continue;
        }
        const std::string value = kvcli::optionValue(&arg, argc, argv, &i);
        if (arg == "--set") {
            applySetting(&o.base, value);
        } else if (arg == "--bottom-csv") {
            o.bottomCsv = value;
        } else if (arg == "--flags-csv") {
            o.flagsCsv = value;
        } else if (arg == "--soundings") {
            o.soundingsCsv = value;
        } else if (arg == "--range-offset-samples") {
            o.rangeOffsetSamples = kvcli::parseNumber(arg, value);
        } else if (arg == "--sound-speed-sigma") {
            o.survey.soundSpeed = kvcli::parseNumber(arg, value);
            if (o.survey.soundSpeed < 0.0) usageError(arg + ": must not be negative");
        } else if (arg == "--roll-sigma") {
            o.survey.rollDeg = kvcli::parseNumber(arg, value);
            if (o.survey.rollDeg < 0.0) usageError(arg + ": must not be negative");
        } else if (arg == "--pictures") {
            o.picturePrefix = value;
        } else if (arg == "--picture-every") {
            o.pictureEvery = static_cast<int>(parseWhole(arg, value, 1, 1000000000));
        } else if (arg == "--picture-pings") {
            size_t start = 0;
            while (start <= value.size()) {
                const size_t comma = std::min(value.find(',', start), value.size());
                o.picturePings.insert(parseWhole(arg, value.substr(start, comma - start), 1, 1000000000));
                start = comma + 1;
            }
        } else if (arg == "--max-pings") {
            o.maxPings = parseWhole(arg, value, 1, 1000000000);
        } else {
            usageError("unknown option " + arg + " (see --help)");
        }
    }
    if (o.recording.empty()) usageError("no recording given (see --help)");
    if (o.picturePrefix.empty() && (o.pictureEvery > 0 || !o.picturePings.empty()))
        usageError("--picture-every and --picture-pings need --pictures PREFIX");
    return o;
}

// ---------------------------------------------------------------------------
// One ping's host buffers and result block.

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

struct PingOutputs {
    std::unique_ptr<KVaneResult> result;
    std::unique_ptr<float, FreeDeleter> beamImage, sideScan, gainProfile;
    std::unique_ptr<uint8_t, FreeDeleter> display;
    KVaneParams params{};
    int32_t sampleCount = 0;
    long long ping = 0;
};

// Host buffers sized as the harness sizes them. Zeroed (calloc: untouched
// pages cost nothing) so that a picture never shows stale memory; the kernel
// does not depend on it.
PingOutputs allocateOutputs(const KVaneParams& params, int32_t sampleBytes, int32_t n) {
    PingOutputs o;
    o.result = std::make_unique<KVaneResult>();
    size_t beamFloats = static_cast<size_t>(sampleBytes / 8) * 256;
    const long long B = params.beamCount;
    if (params.gainSwitch != 0.0f && B > 0)
        beamFloats = std::max(beamFloats, static_cast<size_t>(n + 6) * static_cast<size_t>(B + 6));
    // The kernel clears imageWidth * imageHeight bytes: a --set beyond the
    // harness's million bytes gets a buffer to match.
    size_t displayBytes = kDisplayBytes;
    if (params.imageWidth > 0 && params.imageHeight > 0)
        displayBytes = std::max(displayBytes, static_cast<size_t>(params.imageWidth) *
                                                  static_cast<size_t>(params.imageHeight));
    o.beamImage.reset(static_cast<float*>(std::calloc(beamFloats, sizeof(float))));
    o.display.reset(static_cast<uint8_t*>(std::calloc(displayBytes, 1)));
    o.sideScan.reset(static_cast<float*>(std::calloc(kSideScanFloats, sizeof(float))));
    if (params.gainSwitch != 0.0f)
        o.gainProfile.reset(static_cast<float*>(
            std::calloc(static_cast<size_t>(std::max<int32_t>(n, 600)), sizeof(float))));
    o.result->beamImage = o.beamImage.get();
    o.result->displayImage = o.display.get();
    o.result->sideScanImage = o.sideScan.get();
    o.result->gainProfile = o.gainProfile.get();  // left unset (null) with the switch off
    return o;
}

// The dither of the raw-buffer entry point: reseeded from the clock on every
// ping, +-0.5 sample on all 256 entries whatever the beam count. glibc's
// rand() spans 31 bits; its top 15 bits give the 0..32767 the scale expects.
void ditherBottom(KVaneResult* result) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int i = 0; i < 256; ++i) {
        const double r = static_cast<double>(std::rand() >> 16);
        result->bottomSample[i] =
            static_cast<float>(r / 32767.0 - 0.5 + static_cast<double>(result->bottomSample[i]));
    }
}

int beamsOf(const KVaneParams& p) { return std::clamp<int32_t>(p.beamCount, 0, 256); }

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openOutput(const std::string& path) {
    File f(path.empty() ? nullptr : std::fopen(path.c_str(), "w"), &std::fclose);
    if (!path.empty() && !f) {
        std::fprintf(stderr, "kvane-replay: %s: cannot open for writing (%s)\n", path.c_str(),
                     std::strerror(errno));
        std::exit(1);
    }
    return f;
}

bool writePictures(const Options& o, const PingOutputs& out) {
    const std::string prefix = o.picturePrefix + "ping" + std::to_string(out.ping) + "-";
    const std::string message =
        kvreplay::writePingPictures(prefix, out.params, *out.result, out.sampleCount);
    if (message.empty()) return true;
    std::fprintf(stderr, "kvane-replay: pictures of ping %lld: %s\n", out.ping, message.c_str());
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    kvcli::programName = "kvane-replay";
    const Options opt = parseOptions(argc, argv);

    // Flush-to-zero and denormals-are-zero, for this thread, as the harness
    // sets them; the kernel itself leaves the control register alone.
    _mm_setcsr(_mm_getcsr() | 0x8040);

    File recording(std::fopen(opt.recording.c_str(), "rb"), &std::fclose);
    if (!recording) {
        std::fprintf(stderr, "kvane-replay: %s: cannot open (%s)\n", opt.recording.c_str(),
                     std::strerror(errno));
        return 1;
    }
    File bottomCsv = openOutput(opt.bottomCsv);
    File flagsCsv = openOutput(opt.flagsCsv);
    File soundingsCsv = openOutput(opt.soundingsCsv);
    if (soundingsCsv) std::fprintf(soundingsCsv.get(), "%s\n", kvproducts::kSoundingsHeader);
    std::vector<kvproducts::Sounding> soundings(256);
    std::vector<kvproducts::SoundingUncertainty> uncertainty(256);
    float kernelBottom[256];

    kVaneMalloc7420();
    double total = 0.0;
    long long ping = 1;
    int16_t lc = 0;
    std::string failure;
    bool outputFailed = false;
    KVaneParams params = opt.base;
    kvreplay::PingRecord record;
    std::vector<int32_t> planeI, planeQ;
    PingOutputs last;  // the previous ping's outputs, kept for the last-ping pictures
    bool lastPictured = false;

    while (ping <= opt.maxPings) {
        std::string message;
        const kvreplay::ReadStatus status =
            kvreplay::readRecord(recording.get(), static_cast<int>(ping), &record, &message);
        if (status == kvreplay::ReadStatus::end) break;
        if (status == kvreplay::ReadStatus::error) {
            failure = message;
            break;
        }
        lc = record.lc;

        refreshPerPing(&params, opt.base);
        kvreplay::RollTable roll;
        std::string why;
        const bool haveRoll = kvreplay::decodeRollAux(record.aux, &roll, &why);
        if (opt.rollFromAux) {
            if (!haveRoll) {
                failure = "record " + std::to_string(ping) + ": " + why;
                break;
            }
            // The kernel takes at most 100 roll samples: the first 100 are used.
            const size_t count = std::min<size_t>(roll.time.size(), 100);
            params.rollCount = static_cast<int32_t>(count);
            for (size_t i = 0; i < count; ++i) {
                params.rollAngle[i] = roll.angle[i];
                params.rollTime[i] = roll.time[i];
            }
            params.pingTime = roll.pingTime;
        }

        const int32_t sampleBytes = static_cast<int32_t>(record.samples.size());
        const int32_t n = sampleBytes / 2 / 4 / 64;  // the harness's chain: half, quarter, 64
        kvreplay::splitSampleBlock(record.samples, &planeI, &planeQ);
        PingOutputs out = allocateOutputs(params, sampleBytes, n);
        KVaneInput input{planeI.data(), planeQ.data(), n};

        // The kernel may write rollCount back: the path is decided before the call.
        const bool segmented = params.rollCount != 1;
        const auto start = std::chrono::steady_clock::now();
        kVaneProcess20(&params, &input, out.result.get());
        if (soundingsCsv) std::memcpy(kernelBottom, out.result->bottomSample, sizeof kernelBottom);
        if (opt.dither) ditherBottom(out.result.get());
        const auto stop = std::chrono::steady_clock::now();
        const double elapsed = std::chrono::duration<double>(stop - start).count();
        total += elapsed;
        std::printf("Total:%f s,%d ping\n", elapsed, static_cast<int>(ping));

        const int beams = beamsOf(params);
        if (bottomCsv) {
            std::fprintf(bottomCsv.get(), "%lld", ping);
            for (int b = 0; b < beams; ++b)
                std::fprintf(bottomCsv.get(), ",%.9g", static_cast<double>(out.result->bottomSample[b]));
            std::fprintf(bottomCsv.get(), "\n");
        }
        if (soundingsCsv) {
            // One-shot pings steer in the array frame: the record's roll table,
            // where it has one, turns their angles to the earth frame.
            kvproducts::RollSamples rollSamples;
            if (haveRoll && !segmented) {
                rollSamples.pingTime = roll.pingTime;
                rollSamples.time = roll.time;
                rollSamples.angle = roll.angle;
            }
            kvproducts::computeSoundings(soundings.data(), kernelBottom, out.result->beamAngleCopies, beams,
                                         params.soundSpeed, segmented ? nullptr : &rollSamples,
                                         opt.rangeOffsetSamples);
            kvproducts::computeUncertainty(uncertainty.data(), out.beamImage.get(), beams, n, kernelBottom,
                                           out.result->bottomFlag, out.result->beamAngleCopies, soundings.data(),
                                           out.result->firstEchoHalf * 2.0f, params.pulseLength,
                                           params.soundSpeed, opt.survey);
            kvproducts::writeSoundingRows(soundingsCsv.get(), ping, soundings.data(), out.result->bottomFlag,
                                          uncertainty.data(), beams);
        }
        if (flagsCsv) {
            std::fprintf(flagsCsv.get(), "%lld", ping);
            for (int b = 0; b < beams; ++b) std::fprintf(flagsCsv.get(), ",%u", out.result->bottomFlag[b]);
            std::fprintf(flagsCsv.get(), "\n");
        }

        out.params = params;
        out.sampleCount = n;
        out.ping = ping;
        lastPictured = false;
        if (!opt.picturePrefix.empty() &&
            ((opt.pictureEvery > 0 && ping % opt.pictureEvery == 0) || opt.picturePings.count(ping))) {
            outputFailed |= !writePictures(opt, out);
            lastPictured = true;
        }
        last = std::move(out);
        ++ping;
    }
    recording.reset();  // the one close of the recording

    // ping stands one above the pings run: that is how the average is defined.
    const double average = total / static_cast<double>(ping);
    std::printf("LC:%d m, Tol_aver:%f s, %f ping\n", lc, average, 1.0 / average);
    std::fflush(stdout);

    const bool lastOnly = opt.pictureEvery == 0 && opt.picturePings.empty();
    if (!opt.picturePrefix.empty() && lastOnly && last.result && !lastPictured)
        outputFailed |= !writePictures(opt, last);
    last = PingOutputs{};
    kVaneFree7420();

    for (File* f : {&bottomCsv, &flagsCsv, &soundingsCsv}) {
        if (*f && (std::ferror(f->get()) || std::fclose(f->release()) != 0)) {
            std::fprintf(stderr, "kvane-replay: writing a CSV file failed\n");
            outputFailed = true;
        }
    }
    if (!failure.empty()) {
        std::fprintf(stderr, "kvane-replay: %s: %s\n", opt.recording.c_str(), failure.c_str());
        return 1;
    }
    return outputFailed ? 1 : 0;
}
