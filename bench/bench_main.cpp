// The entry point of kuv_bench; the benchmarks live in the other bench/*.cpp.
//
//   cmake -S . -B build-bench -DKUV_BUILD_BENCH=ON && cmake --build build-bench -j2 --target kuv_bench
//   build-bench/bench/kuv_bench --benchmark_filter=Add
#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

// Every peer runs on one thread, as kuv does; set once before any case.
int main(int argc, char** argv) {
    cv::setNumThreads(1);
    cv::setUseOptimized(true);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
