// Streaming speed of the homodyne cores against a plain memcpy of the same bytes, in one run.
//
// Data: 256 x 256 x 1 x nvol complex single, nvol 128 (64 MiB, streams from memory) or 8
// (4 MiB, cache-resident). Each core runs in its safe form (separate output), so every iteration
// sees the same input: the in-place form runs the same loop but would drift its own data toward
// denormals over repeated passes. Second argument: OpenMP threads. At the end every run is
// printed as a ratio line: memcpy time / run time for the same nvol (1.0 = memcpy speed);
// with --benchmark_repetitions=N the medians are compared.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstring>
#include <string>
#include <vector>

#include "gateway/homodyne.hpp"
#include "ratio_reporter.hpp"

namespace {

constexpr int kNx = 256, kNy = 256;

std::size_t samples(int nvol) {
    return std::size_t(kNx) * kNy * nvol;
}
std::size_t data_bytes(int nvol) {
    return samples(nvol) * 2 * sizeof(float);
}

std::vector<float> values(std::size_t n, uint32_t seed) {
    std::vector<float> v(n);
    for (auto& x : v) {
        seed = seed * 1664525u + 1013904223u;
        x = float(seed >> 8) / float(1u << 24) + 0.5f;
    }
    return v;
}

void BM_memcpy(benchmark::State& state) {
    const std::size_t bytes = data_bytes(int(state.range(0)));
    std::vector<char> src(bytes, 1), dst(bytes, 0);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

// The weighting pass of "filter": 5/8 partial Fourier along ky, range (-32, 127).
void BM_filter_weight(benchmark::State& state) {
    const int nvol = int(state.range(0));
    omp_set_num_threads(int(state.range(1)));
    const int dims[] = {kNx, kNy, 1, nvol};
    int n[3];
    homodyne_volume_sizes(4, dims, n);
    const double ky[] = {-32, 127};
    const double* ranges[3] = {nullptr, ky, nullptr};
    std::vector<float> weights(kNx + kNy + 1);
    int edges[3][2];
    const int count = homodyne_filter_setup(n, ranges, weights.data(), edges);
    const auto re = values(samples(nvol), 1), im = values(samples(nvol), 2);
    std::vector<float> outRe(re.size()), outIm(im.size());
    for (auto _ : state) {
        homodyne_weight(re.data(), im.data(), n, nvol, weights.data(), count, outRe.data(),
                        outIm.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data_bytes(nvol)));
}

// The per-sample loop of "multiply"; lowNy = kNy: same size, else the low-resolution band
// (256 x 65 for the range above) interpolated onto the data grid.
void multiply(benchmark::State& state, int lowNy) {
    const int nvol = int(state.range(0));
    omp_set_num_threads(int(state.range(1)));
    const int dims[] = {kNx, kNy, 1, nvol}, lowDims[] = {kNx, lowNy, 1, nvol};
    const std::size_t lowSamples = std::size_t(kNx) * lowNy * nvol;
    const auto re = values(samples(nvol), 3), im = values(samples(nvol), 4);
    const auto lowRe = values(lowSamples, 5), lowIm = values(lowSamples, 6);
    std::vector<float> out(re.size());
    for (auto _ : state) {
        homodyne_multiply(re.data(), im.data(), lowRe.data(), lowIm.data(), 4, dims, lowDims,
                          out.data(), nullptr);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data_bytes(nvol)));
}

void BM_multiply_same(benchmark::State& state) {
    multiply(state, kNy);
}
void BM_multiply_interpolated(benchmark::State& state) {
    multiply(state, 65);
}

void cases(benchmark::internal::Benchmark* b) {
    for (int nvol : {128, 8})
        for (int threads : {1, 2}) b->Args({nvol, threads});
    b->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_memcpy)->Arg(128)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_filter_weight)->Apply(cases);
BENCHMARK(BM_multiply_same)->Apply(cases);
BENCHMARK(BM_multiply_interpolated)->Apply(cases);

}  // namespace

int main(int argc, char** argv) {
    mrkit_bench::RatioReporter reporter;
    if (!mrkit_bench::run_benchmarks(&argc, argv, &reporter)) return 1;
    // Every run against the memcpy of the same nvol (its second name part).
    for (const std::string& name : reporter.names()) {
        const std::size_t slash = name.find('/');
        const std::string family = name.substr(0, slash);
        const std::string nvol = name.substr(slash + 1, name.find('/', slash + 1) - slash - 1);
        if (family == "BM_memcpy") continue;
        mrkit_bench::print_ratio(name + " vs memcpy",
                                 reporter.median("BM_memcpy/" + nvol + "/real_time"),
                                 reporter.median(name));
    }
    benchmark::Shutdown();
    return 0;
}
