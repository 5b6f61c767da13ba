// The entry point of kuv_bench; the benchmarks live in the other bench/*.cpp.
//
//   cmake -S . -B build-bench -DKUV_BUILD_BENCH=ON && cmake --build build-bench -j2 --target kuv_bench
//   build-bench/bench/kuv_bench --benchmark_filter=Add
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
