// bench_ping.cpp - the machine's limit and the full-size ping a host runs.
//
// The limit is the best rate of complex single-precision products here: one
// 2048 x 2048 x 2048 cblas_cgemm on all the cores the process may use, and
// on one. The ping is 64 channels x 8000 samples, 256 beams, through
// kVaneProcess20 with every output buffer given, on the one-shot and on the
// segmented path, cycling through the distinct pings of a recording of a
// seabed at 60 m; beside it its floor, the ping's complex products alone.
// Each case reports its complex multiply-adds as real operations (counter
// "product_gflop"), so that bench/run can set its time against the limit.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "bench_common.h"

namespace {

// CPU seconds used so far by all threads of the process. Reported per
// iteration as the counter "cpu_ms_all": the work of a ping on every core,
// which, unlike the wall time, a busy machine hardly changes.
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

// range(0) threads of the matrix library; 0 stands for every core the
// process may use. Counter "best_gflops": the rate of the fastest product.
void BM_MatrixLimit(benchmark::State& state) {
    const int threads = state.range(0) > 0 ? static_cast<int>(state.range(0)) : omp_get_num_procs();
    kvbench::MatrixLimit limit(threads);
    limit.run();
    double best = 1e30;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        limit.run();
        benchmark::ClobberMemory();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.counters["threads"] = threads;
    state.counters["best_gflops"] = kvbench::MatrixLimit::kOperations * 1e-9 / best;
    // The library's idle threads spin for a while after a threaded call;
    // let them fall asleep before the pings are timed.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

// The ping is run once untimed, so that the workspace pages, the sector grid
// and the first-echo history are in their steady state.
void BM_Ping(benchmark::State& state) {
    const bool segmented = state.range(2) != 0;
    kvbench::ensureWorkspace();
    std::unique_ptr<kvbench::PingCase> ping =
        kvbench::makePingCase(kSamples, kBeams, segmented, false);
    for (int i = 0; i < kvbench::kRecordingPings; ++i) kvbench::runPing(ping.get());
    const double start = processCpuSeconds();
    for (auto _ : state) {
        kvbench::runPing(ping.get());
        benchmark::ClobberMemory();
    }
    reportCpu(state, start);
    state.counters["product_gflop"] = kvbench::productOperations(kSamples, kBeams) * 1e-9;
}

// The segmented ping against the one-shot ping in alternation: every
// iteration runs a one-shot ping and then a segmented ping of the same
// recording, each timed alone, so that both see the same state of a machine
// whose load drifts from second to second (cases timed one after the other
// do not). Counters: the median one-shot and segmented times (ms) and the
// median over the pairs of segmented over one-shot.
void BM_PingPair(benchmark::State& state) {
    kvbench::ensureWorkspace();
    std::unique_ptr<kvbench::PingCase> oneShot =
        kvbench::makePingCase(kSamples, kBeams, false, false);
    std::unique_ptr<kvbench::PingCase> segmented =
        kvbench::makePingCase(kSamples, kBeams, true, false);
    for (int i = 0; i < kvbench::kRecordingPings; ++i) {
        kvbench::runPing(oneShot.get());
        kvbench::runPing(segmented.get());
    }
    std::vector<double> one, seg, ratio;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        kvbench::runPing(oneShot.get());
        benchmark::ClobberMemory();
        const auto t1 = std::chrono::steady_clock::now();
        kvbench::runPing(segmented.get());
        benchmark::ClobberMemory();
        const auto t2 = std::chrono::steady_clock::now();
        one.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        seg.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
        ratio.push_back(seg.back() / one.back());
    }
    auto median = [](std::vector<double> v) {
        if (v.empty()) return 0.0;
        std::sort(v.begin(), v.end());
        const std::size_t mid = v.size() / 2;
        return v.size() % 2 ? v[mid] : 0.5 * (v[mid - 1] + v[mid]);
    };
    state.counters["one_shot_ms"] = median(one);
    state.counters["segmented_ms"] = median(seg);
    state.counters["segmented_over_one_shot"] = median(ratio);
}

// The floor: the complex products of the same ping alone, made as the
// kernel makes them.
void BM_MatrixFloor(benchmark::State& state) {
    kvbench::MatrixFloor floor(kSamples, kBeams);
    const double start = processCpuSeconds();
    for (auto _ : state) {
        floor.run();
        benchmark::ClobberMemory();
    }
    reportCpu(state, start);
    state.counters["product_gflop"] = kvbench::productOperations(kSamples, kBeams) * 1e-9;
}

BENCHMARK(BM_MatrixLimit)->ArgName("threads")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)
    ->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Ping)
    ->ArgNames({"samples", "beams", "segmented", "gain"})
    ->Args({kSamples, kBeams, 0, 0})
    ->Args({kSamples, kBeams, 1, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);
BENCHMARK(BM_PingPair)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_MatrixFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
