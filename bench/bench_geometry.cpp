// Geometry correction speed: the Legendre table build, one million points spread through the
// reference sphere on 1 and 2 threads, and the straightforward double-precision series the
// tests compare against, on the same points; the ratio of the last two closes the run.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

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

// Keeps each benchmark's fastest real time and its CPU time (ms per iteration) over the
// repetitions, so that the ratios can close the run; on a shared machine the fastest repetition
// is the one least disturbed.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    struct Times {
        double real = 0, cpu = 0;
    };
    std::map<std::string, Times> ms;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration) continue;
            const double toMs = 1e3 / benchmark::GetTimeUnitMultiplier(r.time_unit);
            const Times t{r.GetAdjustedRealTime() * toMs, r.GetAdjustedCPUTime() * toMs};
            auto it = ms.find(r.benchmark_name());
            if (it == ms.end() || t.real < it->second.real) ms[r.benchmark_name()] = t;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    Times find(const std::string& prefix) const {
        for (const auto& [name, t] : ms)
            if (name.rfind(prefix, 0) == 0) return t;
        return {};
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // CPU time is the main thread's only: on a shared machine the real time of the one-thread
    // runs is the fairer comparison, and the CPU ratio shows what the load cost.
    const RatioReporter::Times table = reporter.find("BM_LegendreTable");
    std::printf("Legendre table 17 x 12 x 10000: %.2f ms\n", table.real);
    const RatioReporter::Times series = reporter.find("BM_DoubleSeries");
    for (const char* threads : {"1", "2"}) {
        const RatioReporter::Times lib =
            reporter.find(std::string("BM_GeometryCorrection/threads:") + threads);
        if (lib.real > 0 && series.real > 0)
            std::printf(
                "1M points, %s thread(s): library %.1f ms, double series %.0f ms: %.1fx faster "
                "(main-thread CPU %.1f vs %.0f ms)\n",
                threads, lib.real, series.real, series.real / lib.real, lib.cpu, series.cpu);
    }
    benchmark::Shutdown();
    return 0;
}
