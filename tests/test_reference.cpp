// test_reference.cpp - the outputs of a fixed sequence of simulated pings
// against values stored in tests/data/reference_outputs.txt: the bottom line
// and its flags exactly as stored (within float tolerance), and statistics of
// every picture. A change of how something is computed must leave these
// alone; a change of what is computed shows up here first.
//
// After a deliberate change of results, rewrite the file with
//   KVANE_WRITE_REFERENCE=1 build/tests/test_reference
// and say in the commit why the outputs moved.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kVane.h"
#include "reliability_support.h"

namespace {

const char* kReferencePath = KVANE_TEST_DATA_DIR "/reference_outputs.txt";

// One named row of values per output and ping, e.g. "p3.bottom".
using Outputs = std::map<std::string, std::vector<double>>;

void summarise(Outputs* out, int ping, const KVaneResult& r, const KVaneParams& p,
               const kvrel::HostBuffers& host, int32_t n) {
    char prefix[16];
    std::snprintf(prefix, sizeof prefix, "p%d.", ping);
    const std::string key = prefix;
    const int32_t B = p.beamCount;
    std::vector<double>& bottom = (*out)[key + "bottom"];
    std::vector<double>& flags = (*out)[key + "flags"];
    for (int32_t b = 0; b < B; ++b) {
        bottom.push_back(r.bottomSample[b]);
        flags.push_back(r.bottomFlag[b]);
    }
    (*out)[key + "firstEchoHalf"] = {r.firstEchoHalf};

    // Mean of each beam's row of the amplitude image (its stride is n + 6
    // with the smoothing's margins, n without).
    const bool margins = p.gainSwitch != 0.0f;
    const int32_t stride = margins ? n + 6 : n;
    std::vector<double>& rows = (*out)[key + "beamMeans"];
    for (int32_t b = 0; b < B; ++b) {
        double sum = 0.0;
        const float* row = host.beamImage.data() + static_cast<size_t>(b + (margins ? 3 : 0)) * stride;
        for (int32_t t = 0; t < n; ++t) sum += row[t + (margins ? 3 : 0)];
        rows.push_back(sum / n);
    }
    double displaySum = 0.0, lit = 0.0;
    for (size_t i = 0; i < host.displayBytes; ++i) {
        displaySum += host.displayImage[i];
        lit += host.displayImage[i] != 0;
    }
    (*out)[key + "display"] = {displaySum, lit};
    double sideSum = 0.0, sideMax = 0.0;
    for (size_t i = 0; i < host.sideScanFloats; ++i) {
        sideSum += host.sideScanImage[i];
        sideMax = std::max(sideMax, static_cast<double>(host.sideScanImage[i]));
    }
    (*out)[key + "sideScan"] = {sideSum, sideMax};
}

// The fixed sequence of the reliability checks, then one long ping whose
// beams are formed in many blocks of samples.
Outputs runReferenceSequence() {
    std::vector<kvrel::SequencePing> sequence = kvrel::fixedSequence();
    sequence.push_back({kvrel::simulatedPing(50.0, 4000, 0), kvrel::typicalParams(256)});

    Outputs out;
    kVaneMalloc();
    for (size_t k = 0; k < sequence.size(); ++k) {
        kvrel::SequencePing& sp = sequence[k];
        KVaneParams params = sp.params;
        kvrel::HostBuffers host(params, sp.ping.sampleCount);
        KVaneInput input = kvrel::inputOf(sp.ping);
        KVaneResult result = kvrel::sentinelResult();
        host.attach(&result);
        kVaneProcess20(&params, &input, &result);
        summarise(&out, static_cast<int>(k), result, params, host, sp.ping.sampleCount);
    }
    kVaneFree();
    return out;
}

Outputs readReference(const char* path) {
    Outputs ref;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key;
        if (!(fields >> key) || key[0] == '#') continue;
        double v;
        while (fields >> v) ref[key].push_back(v);
    }
    return ref;
}

void writeReference(const char* path, const Outputs& outputs) {
    std::ofstream out(path);
    out << "# Outputs of the fixed ping sequence (tests/test_reference.cpp).\n";
    out.precision(9);
    for (const auto& [key, values] : outputs) {
        out << key;
        for (double v : values) out << ' ' << v;
        out << '\n';
    }
}

}  // namespace

TEST(Reference, FixedSequenceKeepsItsOutputs) {
    const Outputs now = runReferenceSequence();
    if (std::getenv("KVANE_WRITE_REFERENCE") != nullptr) {
        writeReference(kReferencePath, now);
        GTEST_SKIP() << "wrote " << kReferencePath;
    }
    const Outputs ref = readReference(kReferencePath);
    ASSERT_FALSE(ref.empty()) << "no reference values in " << kReferencePath;
    ASSERT_EQ(ref.size(), now.size());
    for (const auto& [key, expected] : ref) {
        const auto found = now.find(key);
        ASSERT_NE(found, now.end()) << key;
        const std::vector<double>& actual = found->second;
        ASSERT_EQ(expected.size(), actual.size()) << key;
        // Flags and sample positions are decisions: a rounding difference
        // must not move them. Sums over pictures may move in their last bits.
        const bool sums = key.find("Means") != std::string::npos ||
                          key.find("display") != std::string::npos ||
                          key.find("sideScan") != std::string::npos;
        for (size_t i = 0; i < expected.size(); ++i) {
            const double tolerance = sums ? 1e-4 * std::fabs(expected[i]) + 1e-6
                                          : 1e-5 * std::fabs(expected[i]) + 1e-6;
            EXPECT_NEAR(actual[i], expected[i], tolerance) << key << "[" << i << "]";
        }
    }
}
