// Coil maps of a 256 x 256 slice with 32 coils from 24 calibration lines, the calibration block
// 24 wide or the whole readout: the calibration kernels beside Walsh's method, which needs only
// the block's low-resolution images. Rates are image voxels per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <complex>
#include <vector>

#include "recon/recon.hpp"
#include "support/sense_phantom.hpp"

namespace {

using namespace sense_phantom;
using cd = std::complex<double>;

constexpr int kN = 256, kCoils = 32, kLines = 24;

// Centred k-space of the object through the maps, computed on the calibration lines only
// (the methods read nothing else), zero elsewhere.
const Split& kspace() {
    static const Split k = [] {
        const Split img = make_object(kN, kN, 1), maps = make_maps(kN, kN, 1, kCoils);
        Split out({kN, kN, 1, kCoils});
        std::vector<cd> w(static_cast<size_t>(kN) * kN), t(static_cast<size_t>(kN) * kLines);
        for (int k = 0; k < kN; ++k)
            for (int x = 0; x < kN; ++x) {
                const long p = static_cast<long>(k - kN / 2) * (x - kN / 2);
                w[x + static_cast<size_t>(kN) * k] =
                    std::polar(1.0, -2.0 * kPi * static_cast<double>(((p % kN) + kN) % kN) / kN);
            }
        const size_t n = static_cast<size_t>(kN) * kN;
        for (int c = 0; c < kCoils; ++c) {
            std::fill(t.begin(), t.end(), 0.0);
            for (int l = 0; l < kLines; ++l)
                for (int y = 0; y < kN; ++y) {
                    const cd e = w[y + static_cast<size_t>(kN) * (kN / 2 - kLines / 2 + l)];
                    for (int x = 0; x < kN; ++x)
                        t[x + static_cast<size_t>(kN) * l] +=
                            e * cd(img.at(x + kN * y)) * cd(maps.at(x + kN * y + n * c));
                }
            for (int l = 0; l < kLines; ++l)
                for (int kx = 0; kx < kN; ++kx) {
                    cd s = 0.0;
                    for (int x = 0; x < kN; ++x)
                        s += w[x + static_cast<size_t>(kN) * kx] * t[x + static_cast<size_t>(kN) * l];
                    out.set(kx + kN * (kN / 2 - kLines / 2 + l) + n * c, cf(s));
                }
        }
        return out;
    }();
    return k;
}

void run(benchmark::State& state, bool kernel) {
    const Split& k = kspace();
    Split maps(k.dims);
    const int dims[4] = {kN, kN, 1, kCoils};
    const int calib[3] = {static_cast<int>(state.range(0)), kLines, 1};
    const int kernelSize[3] = {6, 6, 1}, window[3] = {5, 5, 1};
    for (auto _ : state)
        benchmark::DoNotOptimize(
            kernel ? MR_coil_maps_kernel(k.re.data(), k.im.data(), dims, calib, kernelSize, 0.05f,
                                         maps.re.data(), maps.im.data())
                   : MR_coil_maps(k.re.data(), k.im.data(), dims, calib, window, 0.05f,
                                  maps.re.data(), maps.im.data()));
    state.counters["voxels_per_s"] = benchmark::Counter(
        double(kN) * kN * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_CoilMapsKernel(benchmark::State& state) { run(state, true); }
void BM_CoilMapsWalsh(benchmark::State& state) { run(state, false); }

}  // namespace

BENCHMARK(BM_CoilMapsKernel)->Arg(24)->Arg(kN)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CoilMapsWalsh)->Arg(24)->Arg(kN)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
