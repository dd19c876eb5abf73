// bench_sizes.cpp - whole pings through kVaneProcess20 over sample counts, beam
// counts, the one-shot and the segmented path and the gain switch, and the
// matrix-product floor of each smaller size: the complex products a ping of
// that size cannot avoid, timed alone. The full-size ping without the gain
// switch and its floor are in bench_ping.cpp, beside the machine's limit.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "bench_common.h"

namespace {

using kvbench::PingCase;

// One ping per iteration, cycling through the pings of a recording; each is
// run once untimed first, so that the sector grid, the workspace pages and
// the first-echo history are in their steady state when timing starts.
void BM_Ping(benchmark::State& state) {
    const int samples = static_cast<int>(state.range(0));
    const int beams = static_cast<int>(state.range(1));
    const bool segmented = state.range(2) != 0;
    const bool gainSwitch = state.range(3) != 0;
    kvbench::ensureWorkspace();
    std::unique_ptr<PingCase> ping = kvbench::makePingCase(samples, beams, segmented, gainSwitch);
    for (int i = 0; i < kvbench::kRecordingPings; ++i) kvbench::runPing(ping.get());
    for (auto _ : state) {
        kvbench::runPing(ping.get());
        benchmark::ClobberMemory();
    }
    state.counters["product_gflop"] = kvbench::productOperations(samples, beams) * 1e-9;
}

void pingArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"samples", "beams", "segmented", "gain"});
    const int64_t sizes[][2] = {{1000, 256}, {4000, 256}, {8000, 256}, {8000, 64}, {8000, 128}};
    for (const auto& size : sizes)
        for (int64_t segmented : {0, 1})
            for (int64_t gain : {0, 1})
                if (gain == 1 || size[0] != kvbench::kFullSamples || size[1] != kvbench::kFullBeams)
                    b->Args({size[0], size[1], segmented, gain});
}

BENCHMARK(BM_Ping)
    ->Apply(pingArgs)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// The matrix-product floor of a one-shot ping of this size (the full size is
// in bench_ping.cpp).
void BM_MatrixFloor(benchmark::State& state) {
    kvbench::MatrixFloor floor(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        floor.run();
        benchmark::ClobberMemory();
    }
    state.counters["product_gflop"] =
        kvbench::productOperations(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))) * 1e-9;
}

void floorArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"samples", "beams"});
    const int64_t sizes[][2] = {{1000, 256}, {4000, 256}, {8000, 64}, {8000, 128}};
    for (const auto& size : sizes) b->Args({size[0], size[1]});
}

BENCHMARK(BM_MatrixFloor)
    ->Apply(floorArgs)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
