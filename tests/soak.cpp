// soak.cpp - many small pings of varying shape through one workspace, as a
// host running for days would send them, with a Free and a new Malloc half
// way. Checks that every output stays finite and that resident memory does not
// grow once every kind of ping has been seen.
//
//   kvane_soak [pings]     default 10000
//
// Prints the resident size at checkpoints and exits 1 on a non-finite output,
// a touched guard zone or memory growth.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "kVane.h"
#include "reliability_support.h"

namespace {

// Resident set size in KiB, from /proc/self/statm.
long residentKiB() {
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    long size = 0, resident = 0;
    const int got = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    return got == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

bool finite(const float* x, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (!std::isfinite(x[i])) return false;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const long pings = argc > 1 ? std::atol(argv[1]) : 10000;
    if (pings < 1) {
        std::fprintf(stderr, "usage: kvane_soak [pings]\n");
        return 2;
    }

    // A pool of pings made once: depths from shallow (the tracker decides) to
    // deep, short and longer records, some rolling.
    std::vector<kvsim::SimPing> pool;
    for (int n : {40, 120, 250, 400})
        for (double depth : {1.5, 6.0, 14.0})
            pool.push_back(kvrel::simulatedPing(depth, n, static_cast<int>(pool.size()), 11,
                                                pool.size() % 2 ? 5.0 : 0.0));

    // Host buffers of the largest ping, as a host allocates them once.
    KVaneParams largest = kvrel::typicalParams(256);
    largest.gainSwitch = 1.0f;
    largest.imageWidth = 824;
    largest.imageHeight = 329;
    largest.sideScanRows = 200;
    kvrel::HostBuffers host(largest, 400);

    kVaneMalloc();
    // The standard fixes minstd_rand's sequence, so a run is the same everywhere.
    std::minstd_rand rng(12345);
    auto below = [&rng](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const auto start = std::chrono::steady_clock::now();
    const long warmUp = std::min<long>(1000, pings / 4);
    const long restartAt = pings / 2;
    long baseline = 0;  // largest resident size between warm-up and the restart
    long lateMax = 0;   // largest resident size after the restart's own warm-up
    long nonFinite = 0, guardHits = 0, ran = 0;

    for (long i = 0; i < pings; ++i) {
        if (i == restartAt) {
            kVaneFree();
            if (i % 2) kVaneMalloc(); else kVaneMalloc7420();
            std::printf("ping %ld: Free and Malloc, resident %ld KiB\n", i, residentKiB());
        }
        kvsim::SimPing& ping = pool[static_cast<size_t>(below(static_cast<int>(pool.size())))];
        // Any beam count from 2 up: one beam has no fan (its angle is 0 * inf,
        // not a number, by the fan's own formulas) and is left out.
        const int beamChoices[] = {64, 128, 256, 256, 2 + below(255)};
        KVaneParams p = kvrel::typicalParams(beamChoices[below(5)]);
        p.gainSwitch = below(4) == 0 ? 1.0f : 0.0f;
        p.fixedGainEnable = below(2);
        p.limitMode = static_cast<int8_t>(below(3));
        p.beamSpacing = static_cast<int8_t>(below(3));
        p.trackEnable = below(3) ? 1 : 0;
        p.qualityThreshold = below(2) ? 0.0f : 0.4f;
        p.sideScanMode = 1 + below(2);
        p.sideScanRows = 10 + below(191);
        p.clipRatio = 0.1f * static_cast<float>(below(11));
        const int sizes[][2] = {{824, 329}, {200, 120}, {64, 64}, {300, 300}};
        const int* size = sizes[below(4)];
        p.imageWidth = size[0];
        p.imageHeight = size[1];
        if (below(3) == 0) kvrel::useRollTable(&p, ping);

        KVaneResult result = kvrel::sentinelResult();
        host.attach(&result);
        KVaneInput input = kvrel::inputOf(ping);
        if (below(4) == 0) {
            std::vector<int32_t> raw(ping.planeI);
            raw.insert(raw.end(), ping.planeQ.begin(), ping.planeQ.end());
            kVaneProcess7420(&p, nullptr, &result, raw.data(), static_cast<int32_t>(raw.size() * 4));
        } else {
            kVaneProcess20(&p, &input, &result);
        }
        ran += kvrel::pingRan(result);

        const size_t n = static_cast<size_t>(ping.sampleCount), B = static_cast<size_t>(p.beamCount);
        const size_t sideScan = static_cast<size_t>(p.sideScanRows) * 2 * (n / 2 * 2);
        const bool allFinite = finite(result.bottomSample, B) && finite(result.beamAngleCopies, 3 * B) &&
                               std::isfinite(result.firstEchoHalf) && finite(host.beamImage.data(), B * n) &&
                               finite(host.sideScanImage.data(), sideScan);
        if (!allFinite && nonFinite++ < 5)
            std::printf("ping %ld: a non-finite output (n %zu, beams %zu, gain %g, spacing %d, limitMode %d, "
                        "rollCount %d)\n",
                        i, n, B, static_cast<double>(p.gainSwitch), p.beamSpacing, p.limitMode, p.rollCount);
        if (!host.guardsIntact()) {
            if (guardHits++ < 5) std::printf("ping %ld: a host buffer's guard zone was written\n", i);
            host.setGuards();
        }

        const long rss = residentKiB();
        if (i >= warmUp && i < restartAt) baseline = std::max(baseline, rss);
        if (i >= restartAt + warmUp) lateMax = std::max(lateMax, rss);
        if ((i + 1) % 1000 == 0 || i + 1 == pings) std::printf("ping %ld: resident %ld KiB\n", i + 1, rss);
    }
    kVaneFree();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    // The workspace is mapped lazily, so the resident size climbs while new
    // kinds of ping arrive; after that it must stay put. Allow 1 MiB for the
    // C library's own bookkeeping.
    const bool measured = pings >= 4000;
    const bool grew = measured && lateMax > baseline + 1024;
    std::printf("%ld pings (%ld ran) in %.1f s; non-finite outputs: %ld; guard zones written: %ld\n", pings,
                ran, seconds, nonFinite, guardHits);
    if (measured)
        std::printf("resident after warm-up: %ld KiB before the restart, %ld KiB at most after: %s\n", baseline,
                    lateMax, grew ? "GROWTH" : "no growth");
    else
        std::printf("too few pings to judge memory growth (at least 4000)\n");
    return (nonFinite || guardHits || grew || ran != pings) ? 1 : 0;
}
