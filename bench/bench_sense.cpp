// SENSE speed on 256 x 256 images with 8 coils, folded along y by 2 and by 2.5 (256 onto 102):
// the combination factors, the unfolding of one volume and of 16 volumes sharing the factors
// timed apart, then whole reconstructions of 1 and 16 volumes sharing one sensitivity set. A
// memcpy of one folded volume's bytes gives the scale: the run closes with memcpy / operation
// ratios. Rates are folded voxels per second. The factors and whole reconstructions also run with
// the per-voxel validity rule (the Voxelwise rows), row beside row with the reference rule.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "ratio_reporter.hpp"
#include "recon/recon.hpp"
#include "recon/sense/unfold_volumes.hpp"
#include "support/sense_phantom.hpp"

namespace {

using namespace sense_phantom;

constexpr int kN = 256, kCoils = 8;

struct Setup {
    int folded;
    Split data, maps;
    Eigen::VectorXi sensDims{4}, foldedDims{4}, fullDims{3}, factorDims{4};
    Eigen::Vector3f R;
    Eigen::VectorXcd factors;
    float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};

    explicit Setup(int f)
        : folded(f),
          data(fold(make_object(kN, kN, 1), kCoils, f, 1)),
          maps(make_maps(kN, kN, 1, kCoils)) {
        sensDims << kN, kN, 1, kCoils;
        foldedDims << kN, f, 1, kCoils;
        fullDims << kN, kN, 1;
        R << 1.0f, static_cast<float>(kN) / static_cast<float>(f), 1.0f;
        factorDims << kN, static_cast<int>(ceilf(kN / R[1])), 1,
            static_cast<int>(ceilf(R[1])) * kCoils;
        factors = Eigen::VectorXcd::Zero(factorDims.prod());
    }
    int compute_factors(decltype(&get_combination_factors) f = &get_combination_factors) {
        yc[0] = yc[1] = zc[0] = zc[1] = -1.0f;
        return f(maps.re.data(), maps.im.data(), sensDims,
                                       Eigen::MatrixXcd::Identity(kCoils, kCoils), R, 0.0,
                                       Eigen::VectorXf(), factors, foldedDims, fullDims, yc, zc);
    }
};

void set_rate(benchmark::State& state, double voxelsPerIteration) {
    state.counters["folded_voxels_per_s"] = benchmark::Counter(
        voxelsPerIteration * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Factors(benchmark::State& state) {
    Setup s(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(s.compute_factors());
    set_rate(state, double(kN) * s.factorDims[1]);
}

void BM_FactorsVoxelwise(benchmark::State& state) {
    Setup s(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(s.compute_factors(&get_combination_factors_voxelwise));
    set_rate(state, double(kN) * s.factorDims[1]);
}

void BM_UnfoldVolume(benchmark::State& state) {
    Setup s(static_cast<int>(state.range(0)));
    s.compute_factors();
    Split out({kN, kN, 1});
    for (auto _ : state)
        benchmark::DoNotOptimize(unfold(s.data.re.data(), s.data.im.data(), s.foldedDims, s.factors,
                                        s.factorDims, s.sensDims, s.fullDims, s.yc, s.zc,
                                        out.re.data(), out.im.data()));
    set_rate(state, double(kN) * s.folded);
}

// Unfolding of `volumes` volumes sharing one set of factors in one pass, as the reconstruction
// does for the volumes of a sensitivity set; also reported as time per volume.
void BM_UnfoldVolumes(benchmark::State& state) {
    const int volumes = static_cast<int>(state.range(1));
    Setup s(static_cast<int>(state.range(0)));
    s.compute_factors();
    const size_t in = s.data.size(), out = size_t(kN) * kN;
    std::vector<float> re(in * volumes), im(in * volumes), outRe(out * volumes),
        outIm(out * volumes);
    std::vector<mrkit::sense::Volume> list;
    for (int v = 0; v < volumes; ++v) {
        std::copy(s.data.re.begin(), s.data.re.end(), re.begin() + v * in);
        std::copy(s.data.im.begin(), s.data.im.end(), im.begin() + v * in);
        list.push_back({re.data() + v * in, im.data() + v * in, outRe.data() + v * out,
                        outIm.data() + v * out});
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(mrkit::sense::unfold_volumes(
            list, s.foldedDims, s.factors, s.factorDims, s.fullDims, s.yc, s.zc));
    set_rate(state, double(kN) * s.folded * volumes);
    state.counters["s_per_volume"] = benchmark::Counter(
        volumes, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Whole reconstruction of `volumes` volumes along dimension 5, one sensitivity set.
void recon(benchmark::State& state, SenseEntry entry) {
    const int folded = static_cast<int>(state.range(0)), volumes = static_cast<int>(state.range(1));
    const Split one = fold(make_object(kN, kN, 1), kCoils, folded, 1);
    Split data({kN, folded, 1, kCoils, volumes});
    for (int v = 0; v < volumes; ++v) {
        std::copy(one.re.begin(), one.re.end(), data.re.begin() + v * one.size());
        std::copy(one.im.begin(), one.im.end(), data.im.begin() + v * one.size());
    }
    const Split maps = make_maps(kN, kN, 1, kCoils);
    Split out = make_output(data, {kN, kN, 1});
    for (auto _ : state)
        benchmark::DoNotOptimize(reconstruct(data, maps, {kN, kN, 1}, out, {}, entry));
    set_rate(state, double(kN) * folded * volumes);
}
void BM_Recon(benchmark::State& state) {
    recon(state, &MR_sense_recon);
}
void BM_ReconVoxelwise(benchmark::State& state) {
    recon(state, &MR_sense_recon_voxelwise);
}

// Copy of one folded volume (all coils, both parts): the floor any per-volume pass pays.
void BM_MemcpyFoldedVolume(benchmark::State& state) {
    const size_t n = size_t(kN) * state.range(0) * kCoils;
    std::vector<float> src(2 * n, 1.0f), dst(2 * n);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), 2 * n * sizeof(float));
        benchmark::ClobberMemory();
    }
    set_rate(state, double(kN) * state.range(0));
}

}  // namespace

BENCHMARK(BM_Factors)->Arg(128)->Arg(102)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FactorsVoxelwise)->Arg(128)->Arg(102)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UnfoldVolume)->Arg(128)->Arg(102)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UnfoldVolumes)
    ->Args({128, 16})
    ->Args({102, 16})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Recon)
    ->Args({128, 1})
    ->Args({102, 1})
    ->Args({128, 16})
    ->Args({102, 16})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ReconVoxelwise)
    ->Args({128, 1})
    ->Args({102, 1})
    ->Args({128, 16})
    ->Args({102, 16})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_MemcpyFoldedVolume)->Arg(128)->Arg(102)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Each unfolding and whole reconstruction against the copy of as many folded volumes.
int main(int argc, char** argv) {
    mrkit_bench::RatioReporter reporter;
    if (!mrkit_bench::run_benchmarks(&argc, argv, &reporter)) return 1;
    for (const std::string folded : {"128", "102"}) {
        const double copy = reporter.median("BM_MemcpyFoldedVolume/" + folded + "/real_time");
        const std::string unfold = "BM_UnfoldVolume/" + folded + "/real_time";
        mrkit_bench::print_ratio(unfold + " vs memcpy", copy, reporter.median(unfold));
        const std::string many = "BM_UnfoldVolumes/" + folded + "/16/real_time";
        mrkit_bench::print_ratio(many + " vs memcpy", copy * 16, reporter.median(many));
        for (int volumes : {1, 16}) {
            const std::string recon =
                "BM_Recon/" + folded + "/" + std::to_string(volumes) + "/real_time";
            mrkit_bench::print_ratio(recon + " vs memcpy", copy * volumes, reporter.median(recon));
            const std::string voxelwise =
                "BM_ReconVoxelwise/" + folded + "/" + std::to_string(volumes) + "/real_time";
            mrkit_bench::print_ratio(voxelwise + " vs memcpy", copy * volumes,
                                     reporter.median(voxelwise));
        }
    }
    benchmark::Shutdown();
    return 0;
}
