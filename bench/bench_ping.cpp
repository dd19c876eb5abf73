// bench_ping.cpp - a full ping (64 channels x 8000 samples, 256 beams) through
// kVaneProcess20 on the one-shot and on the segmented path, against its floor:
// the complex matrix products such a ping cannot avoid, timed alone.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <omp.h>

#include <sys/resource.h>

#include <cstdint>
#include <memory>

#include "bench_common.h"
#include "driver/driver.h"
#include "frontend/frontend.h"
#include "numeric/numeric.h"

namespace {

// CPU seconds used so far by all threads of the process. Reported per
// iteration as the counter "cpu_ms_all": the work of a ping on every core,
// which, unlike the wall time, a busy machine hardly changes (with
// OMP_WAIT_POLICY=passive it holds no spinning either).
double processCpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec) + double(u.ru_stime.tv_sec) +
           1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

void reportCpu(benchmark::State& state, double startSeconds) {
    state.counters["cpu_ms_all"] = benchmark::Counter(
        1e3 * (processCpuSeconds() - startSeconds) / double(state.iterations()));
}

constexpr int kSamples = kvbench::kFullSamples;
constexpr int kBeams = kvbench::kFullBeams;

// One simulated ping per iteration (flat seabed at 20 m); the segmented case
// carries the simulator's roll table across the ping. The ping is run once
// untimed so that the workspace pages, the sector grid and the first-echo
// history are in their steady state.
void pingBenchmark(benchmark::State& state, bool segmented) {
    kvbench::ensureWorkspace();
    std::unique_ptr<kvbench::PingCase> ping =
        kvbench::makePingCase(kSamples, kBeams, segmented, false);
    kvbench::runPing(ping.get());
    const double start = processCpuSeconds();
    for (auto _ : state) {
        kvbench::runPing(ping.get());
        benchmark::ClobberMemory();
    }
    reportCpu(state, start);
}

void BM_PingOneShot(benchmark::State& state) { pingBenchmark(state, false); }
void BM_PingSegmented(benchmark::State& state) { pingBenchmark(state, true); }

// The products of a full one-shot ping with the kernel's shapes and layouts:
// the beam sums (256 x 8000 from 256 x 64 weights and 64 x 8000 channels)
// and, for each of the 15 sections, three sub-aperture products
// (sectionBeams x 8000 from 32 transposed weights and 32 channels). team 0:
// plain calls, threaded by the matrix library (teamSize threads); team 1: the
// same products shared out by the thread team as the kernel does it.
void BM_MatrixFloor(benchmark::State& state) {
    constexpr int kElements = 64;
    constexpr int kMaxSectionBeams = 24;
    auto alloc = [](std::size_t count) {
        auto* p = static_cast<kvane::cfloat*>(kvane::alignedAlloc(count, sizeof(kvane::cfloat)));
        for (std::size_t i = 0; i < count; ++i)
            p[i] = kvane::cfloat{0.001f * static_cast<float>(i % 997), 0.5f};
        return p;
    };
    kvane::cfloat* steer = alloc(static_cast<std::size_t>(kBeams) * kElements);
    kvane::cfloat* channels = alloc(static_cast<std::size_t>(kElements) * kSamples);
    kvane::cfloat* beams = alloc(static_cast<std::size_t>(kBeams) * kSamples);
    kvane::cfloat* weights = alloc(static_cast<std::size_t>(kElements) * kMaxSectionBeams);
    kvane::cfloat* subBeams = alloc(static_cast<std::size_t>(kBeams) * kSamples);
    kvane::SplitSection sections[kvane::kSplitSections];
    kvane::splitSections(sections, kBeams);
    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
    kvane::setMatrixThreads(kvane::teamSize());

    const bool team = state.range(0) != 0;
    const int blocks = kvane::productBlockCount(kBeams, kSamples);
    if (team) kvane::setMatrixThreads(1);
    const double start = processCpuSeconds();
    for (auto _ : state) {
        if (team) {
            // As the kernel runs them: the beam sums over the product's fixed
            // grid of blocks, the sections one per thread, the library on one
            // thread inside the team.
#pragma omp parallel num_threads(kvane::teamSize())
            {
#pragma omp for schedule(static)
                for (int k = 0; k < blocks; ++k)
                    kvane::productBlock(k, kBeams, kSamples, kElements, steer, kElements,
                                        channels, kSamples, beams, kSamples);
#pragma omp for schedule(static)
                for (int i = 0; i < kvane::kSplitSections; ++i) {
                    const kvane::SplitSection& s = sections[i];
                    const int sectionBeams = s.last - s.first + 1;
                    const int64_t rows =
                        static_cast<int64_t>(omp_get_thread_num()) * kMaxSectionBeams * kSamples;
                    for (int a = 0; a < 3; ++a)
                        cblas_cgemm(CblasRowMajor, CblasTrans, CblasNoTrans, sectionBeams,
                                    kSamples, 32, one, weights + 16 * a * sectionBeams,
                                    sectionBeams, channels + static_cast<int64_t>(16 * a) * kSamples,
                                    kSamples, zero, subBeams + rows, kSamples);
                }
            }
        } else {
            cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kBeams, kSamples, kElements,
                        one, steer, kElements, channels, kSamples, zero, beams, kSamples);
            for (const kvane::SplitSection& s : sections) {
                const int sectionBeams = s.last - s.first + 1;
                for (int a = 0; a < 3; ++a)
                    cblas_cgemm(CblasRowMajor, CblasTrans, CblasNoTrans, sectionBeams, kSamples,
                                32, one, weights + 16 * a * sectionBeams, sectionBeams,
                                channels + static_cast<int64_t>(16 * a) * kSamples, kSamples,
                                zero, subBeams + static_cast<int64_t>(s.first - 1) * kSamples,
                                kSamples);
            }
        }
        benchmark::ClobberMemory();
    }
    reportCpu(state, start);
    kvane::setMatrixThreads(kvane::teamSize());
    for (kvane::cfloat* p : {steer, channels, beams, weights, subBeams}) kvane::alignedFree(p);
}

BENCHMARK(BM_PingOneShot)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_PingSegmented)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_MatrixFloor)
    ->ArgName("team")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
