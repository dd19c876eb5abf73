// bench_ping.cpp - whole-ping and matrix-product benchmarks.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
