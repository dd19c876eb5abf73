// bench_ping.cpp - a full ping (64 channels x 8000 samples, 256 beams) through
// kVaneProcess20 on the one-shot and on the segmented path, against its floor:
// the complex matrix products such a ping cannot avoid, timed alone.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <memory>

#include "bench_common.h"

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

// The floor: the matrix products of the same ping alone.
void BM_MatrixFloor(benchmark::State& state) {
    kvbench::MatrixFloor floor(kSamples, kBeams);
    const double start = processCpuSeconds();
    for (auto _ : state) {
        floor.run();
        benchmark::ClobberMemory();
    }
    reportCpu(state, start);
}

BENCHMARK(BM_PingOneShot)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_PingSegmented)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_MatrixFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
