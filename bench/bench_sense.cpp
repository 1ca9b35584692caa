// SENSE speed on 256 x 256 images with 8 coils, folded along y by 2 and by 2.5 (256 onto 102):
// the combination factors, the unfolding of one volume and of 16 volumes sharing the factors
// timed apart, then whole reconstructions of 1 and 16 volumes sharing one sensitivity set. A
// memcpy of one folded volume's bytes gives the scale: the run closes with memcpy / operation
// ratios. Rates are folded voxels per second. The factors and whole reconstructions also run with
// the per-voxel validity rule (the Voxelwise rows), row beside row with the reference rule.
//
// Then the coil counts of today's scans: the factors alone at 8, 16, 32 and 64 coils (2-D 256^2,
// R = 4), and whole reconstructions of the cases below on one and two threads, each against the
// literal sequential reconstruction of the tests (tests/support/sense_reference.hpp) in the same
// run; every row with the identity and with a correlated noise covariance.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ratio_reporter.hpp"
#include "recon/recon.hpp"
#include "recon/sense/unfold_volumes.hpp"
#include "support/sense_phantom.hpp"
#include "support/sense_reference.hpp"

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


// Correlated coil noise: covariance rho^|r - c| with a phase turning along the coil index, as
// neighbouring elements of an array couple.
Split correlated_noise(int coils) {
    Split noise({coils, coils});
    for (int c = 0; c < coils; ++c)
        for (int r = 0; r < coils; ++r) {
            const int d = r - c;
            noise.set(r + static_cast<size_t>(coils) * c,
                      std::polar(std::pow(0.3f, static_cast<float>(std::abs(d))), 0.4f * d));
        }
    return noise;
}

// The scans of the coil-count rows: full size, folded size along y and z, coils, volumes.
struct Scan {
    int nx, ny, nz, fy, fz, coils, volumes;
};
const Scan kScans[] = {
    {256, 256, 1, 128, 1, 8, 1},  // 0: 8 coils, R = 2
    {256, 256, 1, 64, 1, 32, 1},  // 1: 32 coils, R = 4
    {256, 256, 1, 102, 1, 32, 8}, // 2: 32 coils, R = 2.5, 8 volumes
    {128, 128, 64, 64, 32, 32, 1},  // 3: 3-D, 32 coils, R = 2 x 2
    {256, 256, 1, 64, 1, 64, 1},  // 4: 64 coils, R = 4
};

// Inputs of one scan, built once per process: folded volumes, maps, correlated noise.
struct ScanData {
    Split data, maps, noise;
    std::array<int, 3> full;
    explicit ScanData(const Scan& s)
        : maps(make_maps(s.nx, s.ny, s.nz, s.coils)),
          noise(correlated_noise(s.coils)),
          full{s.nx, s.ny, s.nz} {
        const Split one = fold(make_object(s.nx, s.ny, s.nz), s.coils, s.fy, s.fz);
        data = Split({s.nx, s.fy, s.fz, s.coils, s.volumes});
        for (int v = 0; v < s.volumes; ++v) {
            std::copy(one.re.begin(), one.re.end(), data.re.begin() + v * one.size());
            std::copy(one.im.begin(), one.im.end(), data.im.begin() + v * one.size());
        }
    }
    double folded_voxels() const {
        return static_cast<double>(data.size()) / data.dims[3];
    }
};

const ScanData& scan_data(int i) {
    static std::map<int, std::unique_ptr<ScanData>> cache;
    auto& d = cache[i];
    if (!d) d = std::make_unique<ScanData>(kScans[i]);
    return *d;
}

// The literal reconstruction with the library's signature.
int literal_recon(const float* a, const float* b, int c, const int* d, const float* e,
                  const float* f, int g, const int* h, const float* i, const float* j, int,
                  const int* l, const int* m, const float* n, const float* o, int p, const int* q,
                  const float* r, const float* s, int t, const int* u, double v, float* w,
                  float* x, const int* y) {
    return sense_reference::recon(a, b, c, d, e, f, g, h, i, j, l, m, n, o, p, q, r, s, t, u, v,
                                  w, x, y);
}

// Folded voxels per second of a whole reconstruction of scan range(0), with correlated noise
// when range(1), on range(2) threads (the literal one is sequential).
void scan_recon(benchmark::State& state, SenseEntry entry) {
    const ScanData& d = scan_data(static_cast<int>(state.range(0)));
    Extras extras;
    if (state.range(1)) extras.noise = &d.noise;
    Split out = make_output(d.data, d.full);
    const int threads = omp_get_max_threads();
    omp_set_num_threads(static_cast<int>(state.range(2)));
    for (auto _ : state) benchmark::DoNotOptimize(reconstruct(d.data, d.maps, d.full, out, extras, entry));
    omp_set_num_threads(threads);
    set_rate(state, d.folded_voxels());
}
void BM_Scan(benchmark::State& state) {
    scan_recon(state, &MR_sense_recon);
}
void BM_ScanLiteral(benchmark::State& state) {
    scan_recon(state, &literal_recon);
}

// The literal factors with the library's signature.
int literal_factors(const float* sensRe, const float* sensIm, const Eigen::VectorXi& sensDims,
                    const Eigen::MatrixXcd& noiseCov, const Eigen::Vector3f& R, double lambda,
                    const Eigen::VectorXf& regImage, Eigen::VectorXcd& factors,
                    Eigen::VectorXi& foldedDims, Eigen::VectorXi fullDims, float* yc, float* zc) {
    return sense_reference::factors(sensRe, sensIm, sensDims, noiseCov, R, lambda, regImage,
                                    factors, foldedDims, fullDims, yc, zc);
}

// The combination factors alone, 2-D 256^2, R = 4 (range(3) folded lines: 64) or as given,
// range(0) coils, correlated noise when range(1), range(2) threads.
void factors_coils(benchmark::State& state, decltype(&get_combination_factors) entry) {
    const int coils = static_cast<int>(state.range(0)), folded = static_cast<int>(state.range(3));
    const Split maps = make_maps(kN, kN, 1, coils);
    Eigen::MatrixXcd noise = Eigen::MatrixXcd::Identity(coils, coils);
    if (state.range(1)) {
        const Split n = correlated_noise(coils);
        for (int i = 0; i < coils * coils; ++i) noise.data()[i] = {n.re[i], n.im[i]};
    }
    Eigen::VectorXi sensDims(4), foldedDims(4), fullDims(3);
    sensDims << kN, kN, 1, coils;
    foldedDims << kN, folded, 1, coils;
    fullDims << kN, kN, 1;
    Eigen::Vector3f R(1.0f, static_cast<float>(kN) / static_cast<float>(folded), 1.0f);
    const int gridY = static_cast<int>(ceilf(kN / R[1]));
    // Touched before timing: first writes to fresh pages cost more than the factors.
    Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(
        static_cast<Eigen::Index>(kN) * gridY * static_cast<int>(ceilf(R[1])) * coils);
    const int threads = omp_get_max_threads();
    omp_set_num_threads(static_cast<int>(state.range(2)));
    for (auto _ : state) {
        float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};
        benchmark::DoNotOptimize(entry(maps.re.data(), maps.im.data(), sensDims, noise, R, 0.0,
                                       Eigen::VectorXf(), factors, foldedDims, fullDims, yc, zc));
    }
    omp_set_num_threads(threads);
    set_rate(state, double(kN) * gridY);
}
void BM_FactorsCoils(benchmark::State& state) {
    factors_coils(state, &get_combination_factors);
}
void BM_FactorsCoilsLiteral(benchmark::State& state) {
    factors_coils(state, &literal_factors);
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

BENCHMARK(BM_FactorsCoils)
    ->ArgsProduct({{8, 16, 32, 64}, {0, 1}, {1, 2}, {64}})
    ->Args({8, 0, 1, 128})
    ->Args({8, 0, 2, 128})
    ->Args({8, 1, 2, 128})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_FactorsCoilsLiteral)
    ->ArgsProduct({{8, 16, 32, 64}, {0, 1}, {1}, {64}})
    ->Args({8, 0, 1, 128})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Scan)
    ->ArgsProduct({{0, 1, 2, 3, 4}, {0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ScanLiteral)
    ->ArgsProduct({{0, 1, 2, 3, 4}, {0, 1}, {1}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

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
    // The factors at each coil count on one and two threads against the literal ones.
    for (const std::string args : {"8/0", "16/0", "32/0", "64/0", "8/1", "16/1", "32/1", "64/1"}) {
        const double literal =
            reporter.median("BM_FactorsCoilsLiteral/" + args + "/1/64/iterations:1/real_time");
        for (const std::string threads : {"1", "2"}) {
            const std::string row = "BM_FactorsCoils/" + args + "/" + threads + "/64/real_time";
            mrkit_bench::print_ratio(row + " vs literal", literal, reporter.median(row));
        }
    }
    mrkit_bench::print_ratio(
        "BM_FactorsCoils/8/0/1/128/real_time vs literal",
        reporter.median("BM_FactorsCoilsLiteral/8/0/1/128/iterations:1/real_time"),
        reporter.median("BM_FactorsCoils/8/0/1/128/real_time"));
    // Each scan's reconstruction on one and two threads against the literal one (one thread).
    for (int scan = 0; scan < 5; ++scan)
        for (int noise = 0; noise < 2; ++noise) {
            const std::string args = std::to_string(scan) + "/" + std::to_string(noise);
            const double literal = reporter.median("BM_ScanLiteral/" + args + "/1/iterations:1/real_time");
            for (int threads = 1; threads <= 2; ++threads) {
                const std::string row = "BM_Scan/" + args + "/" + std::to_string(threads) + "/real_time";
                mrkit_bench::print_ratio(row + " vs literal", literal, reporter.median(row));
            }
        }
    benchmark::Shutdown();
    return 0;
}
