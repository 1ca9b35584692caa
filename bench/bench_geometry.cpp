// Geometry correction speed: the Legendre table build, one million points spread through the
// reference sphere on 1 and 2 threads, and the straightforward double-precision series the
// tests compare against, on the same points; the ratio of the last two closes the run.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ratio_reporter.hpp"
#include "recon/recon.hpp"
#include "support/sh_reference.hpp"

namespace {

constexpr int kPoints = 1000000;
constexpr float kR0 = 250.0f;

const shref::Points& points() {
    static const shref::Points p = shref::ball_points(kPoints, kR0, 1);
    return p;
}

const shref::CoefficientSet& coefficients() {
    static const shref::CoefficientSet set = shref::distorted_set();
    return set;
}

void BM_LegendreTable(benchmark::State& state) {
    std::vector<float> table(10000 * 12 * 17);
    for (auto _ : state) {
        create_plgndr_lookup(17, 12, 10000, table.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * table.size() * sizeof(float));
}
BENCHMARK(BM_LegendreTable)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GeometryCorrection(benchmark::State& state) {
    const shref::Points& p = points();
    const shref::CoefficientSet& set = coefficients();
    std::vector<float> xo(kPoints), yo(kPoints), zo(kPoints);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        MR_geometry_correction(p.x.data(), p.y.data(), p.z.data(), xo.data(), yo.data(), zo.data(),
                               kPoints, set.sin, set.cos, set.z, kR0);
        benchmark::ClobberMemory();
    }
    omp_set_num_threads(saved);
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_GeometryCorrection)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The tests' reference, one thread, one point after another.
void BM_DoubleSeries(benchmark::State& state) {
    const shref::Points& p = points();
    const shref::CoefficientSet& set = coefficients();
    for (auto _ : state) {
        for (int i = 0; i < kPoints; ++i) {
            auto r = shref::series(set, p.x[i], p.y[i], p.z[i], kR0);
            benchmark::DoNotOptimize(r);
        }
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_DoubleSeries)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    mrkit_bench::RatioReporter reporter;
    if (!mrkit_bench::run_benchmarks(&argc, argv, &reporter)) return 1;
    // The fastest repetition of each: on a shared machine the least disturbed one. CPU time is
    // the main thread's only, so the real time is the fair comparison; the CPU times show what
    // the load cost.
    const auto table = reporter.fastest("BM_LegendreTable/real_time");
    if (table.real > 0) std::printf("Legendre table 17 x 12 x 10000: %.2f ms\n", table.real * 1e3);
    const auto series = reporter.fastest("BM_DoubleSeries/iterations:1/real_time");
    for (const char* threads : {"1", "2"}) {
        const std::string name = std::string("BM_GeometryCorrection/threads:") + threads;
        const auto lib = reporter.fastest(name + "/real_time");
        mrkit_bench::print_ratio(name + " vs double series", series.real, lib.real);
        if (lib.real > 0 && series.real > 0)
            std::printf("  main-thread CPU %.1f ms vs %.0f ms\n", lib.cpu * 1e3, series.cpu * 1e3);
    }
    benchmark::Shutdown();
    return 0;
}
