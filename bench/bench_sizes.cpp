// bench_sizes.cpp - whole pings through kVaneProcess20 over sample counts, beam
// counts, the one-shot and the segmented path and the gain switch, and the
// matrix-product floor of each smaller size: the complex products a ping of
// that size cannot avoid, timed alone. The floor of the full size
// (BM_MatrixFloor without arguments) is in bench_ping.cpp.
#include <benchmark/benchmark.h>
#include <cblas.h>

#include <cstdint>

#include "bench_common.h"
#include "frontend/frontend.h"
#include "numeric/numeric.h"

namespace {

using kvbench::PingCase;

// One ping per iteration; the case is prepared and run once untimed, so the
// sector grid, the workspace pages and the first-echo history are in their
// steady state when timing starts.
void BM_Ping(benchmark::State& state) {
    const int samples = static_cast<int>(state.range(0));
    const int beams = static_cast<int>(state.range(1));
    const bool segmented = state.range(2) != 0;
    const bool gainSwitch = state.range(3) != 0;
    kvbench::ensureWorkspace();
    std::unique_ptr<PingCase> ping = kvbench::makePingCase(samples, beams, segmented, gainSwitch);
    kvbench::runPing(ping.get());
    for (auto _ : state) {
        kvbench::runPing(ping.get());
        benchmark::ClobberMemory();
    }
}

void pingArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"samples", "beams", "segmented", "gain"});
    const int64_t sizes[][2] = {{1000, 256}, {4000, 256}, {8000, 256}, {8000, 64}, {8000, 128}};
    for (const auto& size : sizes)
        for (int64_t segmented : {0, 1})
            for (int64_t gain : {0, 1}) b->Args({size[0], size[1], segmented, gain});
}

BENCHMARK(BM_Ping)
    ->Apply(pingArgs)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// Page-aligned, zero-filled complex buffer from the kernel's own allocator,
// released at scope end.
struct ComplexBuffer {
    kvane::cfloat* data;
    explicit ComplexBuffer(size_t count)
        : data(static_cast<kvane::cfloat*>(kvane::alignedAlloc(count, sizeof(kvane::cfloat)))) {}
    ~ComplexBuffer() { kvane::alignedFree(data); }
    ComplexBuffer(const ComplexBuffer&) = delete;
    ComplexBuffer& operator=(const ComplexBuffer&) = delete;
};

// Plain pseudo-random values in -1..1: no zeros, no denormals.
void fillNoise(kvane::cfloat* x, size_t count, uint32_t seed) {
    uint32_t s = seed * 2654435761u + 1u;
    auto next = [&s] {
        s = s * 1664525u + 1013904223u;
        return static_cast<float>(s >> 8) / 8388608.0f - 1.0f;
    };
    for (size_t i = 0; i < count; ++i) x[i] = kvane::cfloat{next(), next()};
}

// The products of one one-shot ping of this size, with the shapes, layouts
// and thread count the kernel uses: the beam sums (B x n from B x 64 weights
// and 64 x n channels), then for each of the 15 sections of the fan three
// sub-aperture products (sectionBeams x n from 32 transposed weights and 32
// aligned channels).
void BM_MatrixFloor(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const int beams = static_cast<int>(state.range(1));
    constexpr int kElements = 64;
    constexpr int kMaxSectionBeams = 24;
    ComplexBuffer steer(static_cast<size_t>(beams) * kElements);
    ComplexBuffer channels(static_cast<size_t>(kElements) * n);
    ComplexBuffer beamsOut(static_cast<size_t>(beams) * n);
    ComplexBuffer weights(static_cast<size_t>(kElements) * kMaxSectionBeams);
    ComplexBuffer subBeams(static_cast<size_t>(beams) * n);
    fillNoise(steer.data, static_cast<size_t>(beams) * kElements, 1);
    fillNoise(channels.data, static_cast<size_t>(kElements) * n, 2);
    fillNoise(weights.data, static_cast<size_t>(kElements) * kMaxSectionBeams, 3);

    kvane::SplitSection sections[kvane::kSplitSections];
    kvane::splitSections(sections, beams);
    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
    kvane::setMatrixThreads(kvane::teamSize());

    for (auto _ : state) {
        cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, beams, n, kElements, one, steer.data,
                    kElements, channels.data, n, zero, beamsOut.data, n);
        for (const kvane::SplitSection& s : sections) {
            int sectionBeams = s.last - s.first + 1;
            if (sectionBeams > kMaxSectionBeams) sectionBeams = kMaxSectionBeams;
            for (int a = 0; a < 3; ++a) {
                const int firstElement = 16 * a;
                cblas_cgemm(CblasRowMajor, CblasTrans, CblasNoTrans, sectionBeams, n, 32, one,
                            weights.data + firstElement * sectionBeams, sectionBeams,
                            channels.data + static_cast<int64_t>(firstElement) * n, n, zero,
                            subBeams.data + static_cast<int64_t>(s.first - 1) * n, n);
            }
        }
        benchmark::ClobberMemory();
    }
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
