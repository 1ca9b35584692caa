// Geometry correction speed: the Legendre table build, one million points spread through the
// reference sphere on 1 and 2 threads, and the straightforward double-precision series the
// tests compare against, on the same points; the ratio of the last two closes the run. Then
// the unwarping of a 256^3 volume (trilinear, Jacobian on, 2 threads) as a whole and by stage:
// positions, Jacobian, resampling.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ratio_reporter.hpp"
#include "recon/geometry/unwarp.hpp"
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

// A 256^3 head-sized volume: 1.2 mm voxels, 307 mm across, centred on the isocentre.
constexpr int kSide = 256;
constexpr double kVoxel = 1.2;
const int kGrid[3] = {kSide, kSide, kSide};
constexpr int64_t kVoxels = int64_t{kSide} * kSide * kSide;

const double* affine() {
    static const double o = -kVoxel * (kSide - 1) / 2;
    static const double a[16] = {kVoxel, 0, 0, o, 0, kVoxel, 0, o, 0, 0, kVoxel, o, 0, 0, 0, 1};
    return a;
}

mrkit::geometry::GradientSet gradients() {
    const shref::CoefficientSet& set = coefficients();
    return {set.sin, set.cos, set.z, kR0};
}

const std::vector<float>& volume() {
    static const std::vector<float> v = [] {
        std::vector<float> out(kVoxels);
        for (int64_t i = 0; i < kVoxels; ++i)
            out[i] = static_cast<float>((i * 2654435761u) >> 20 & 1023);
        return out;
    }();
    return v;
}

// Runs body on 2 threads for every iteration.
template <class Body>
void on_two_threads(benchmark::State& state, Body&& body) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    for (auto _ : state) {
        body();
        benchmark::ClobberMemory();
    }
    omp_set_num_threads(saved);
    state.SetItemsProcessed(state.iterations() * kVoxels);
}

void BM_Unwarp(benchmark::State& state) {
    const shref::CoefficientSet& set = coefficients();
    std::vector<float> out(kVoxels);
    on_two_threads(state, [&] {
        MR_unwarp(volume().data(), nullptr, 3, kGrid, affine(), set.sin, set.cos, set.z, kR0,
                  MR_UNWARP_LINEAR, true, false, out.data(), nullptr, nullptr);
    });
}
BENCHMARK(BM_Unwarp)->Iterations(1)->Repetitions(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_UnwarpPositions(benchmark::State& state) {
    std::vector<float> t(3 * kVoxels);
    on_two_threads(state, [&] {
        mrkit::geometry::sampling_offsets(kGrid, affine(), gradients(), false, t.data());
    });
}
BENCHMARK(BM_UnwarpPositions)
    ->Iterations(1)
    ->Repetitions(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The resampling stages on offsets from one positions run.
const std::vector<float>& offsets() {
    static const std::vector<float> t = [] {
        std::vector<float> out(3 * kVoxels);
        mrkit::geometry::sampling_offsets(kGrid, affine(), gradients(), false, out.data());
        return out;
    }();
    return t;
}

void BM_UnwarpJacobian(benchmark::State& state) {
    std::vector<float> J(kVoxels);
    offsets();
    on_two_threads(state,
                   [&] { mrkit::geometry::offset_jacobian(kGrid, offsets().data(), J.data()); });
}
BENCHMARK(BM_UnwarpJacobian)->Repetitions(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_UnwarpResample(benchmark::State& state) {
    std::vector<float> J(kVoxels, 1.0f), out(kVoxels);
    offsets();
    on_two_threads(state, [&] {
        mrkit::geometry::resample(volume().data(), nullptr, 1, kGrid, offsets().data(), J.data(),
                                  false, out.data(), nullptr);
    });
}
BENCHMARK(BM_UnwarpResample)->Repetitions(3)->Unit(benchmark::kMillisecond)->UseRealTime();

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
    const auto total = reporter.fastest("BM_Unwarp/iterations:1/repeats:2/real_time");
    const auto positions = reporter.fastest("BM_UnwarpPositions/iterations:1/repeats:2/real_time");
    const auto jacobian = reporter.fastest("BM_UnwarpJacobian/repeats:3/real_time");
    const auto resample = reporter.fastest("BM_UnwarpResample/repeats:3/real_time");
    const auto points = reporter.fastest("BM_GeometryCorrection/threads:2/real_time");
    if (total.real > 0) {
        std::printf("Unwarp 256^3, trilinear, Jacobian, 2 threads: %.2f s (goal: under 3 s)\n",
                    total.real);
        std::printf("  positions %.2f s, Jacobian %.2f s, resampling %.2f s\n", positions.real,
                    jacobian.real, resample.real);
        if (points.real > 0)
            std::printf(
                "  positions %.1f ns per voxel vs the series alone %.1f ns per point "
                "(1M points, 2 threads)\n",
                positions.real / kVoxels * 1e9, points.real / kPoints * 1e9);
    }
    benchmark::Shutdown();
    return 0;
}
