// The library's own time for the cases bench/bench_gateway.m times through mrkit.mex.
// Run bench_gateway.m: it runs this program and prints the comparison. The cases here must
// match the ones there.
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "recon/recon.hpp"

namespace {

std::vector<float> randomFloats(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<float> dist(0.f, 1.f);
    std::vector<float> v(n);
    for (float& x : v) x = dist(gen);
    return v;
}

size_t product(const std::vector<int>& dims) {
    size_t p = 1;
    for (int d : dims) p *= static_cast<size_t>(d);
    return p;
}

// One case: set-up outside the timing, and the library call. In-place operations run on a
// copy the case refreshes before each call, outside the timing (the gateway's copy is what
// the comparison allows for); outputs the library accumulates into are zeroed likewise.
struct Case {
    std::string name;
    std::function<void()> refresh;  // may be empty
    std::function<void()> run;
};

struct Complex {
    std::vector<float> re, im;
    explicit Complex(size_t n, unsigned seed)
        : re(randomFloats(n, seed)), im(randomFloats(n, seed + 1)) {}
};

std::vector<Case>& cases() {
    static std::vector<Case> all;
    if (!all.empty()) return all;

    {  // fftshift along y, complex 256 x 256 x 32
        static std::vector<int> dims = {256, 256, 32};
        static Complex in(product(dims), 1), work(product(dims), 1);
        all.push_back({"fftshift", [] { work = in; },
                       [] { MR_fftshift(work.re.data(), work.im.data(), dims.data(), 3, 2); }});
    }
    {  // the same on real data, 256 x 256 x 64 (the host converts no complex layout)
        static std::vector<int> dims = {256, 256, 64};
        static std::vector<float> in = randomFloats(product(dims), 2), work;
        all.push_back({"fftshift_real", [] { work = in; },
                       [] { MR_fftshift(work.data(), nullptr, dims.data(), 3, 2); }});
    }
    {  // zero padding, complex 192 x 192 x 32 -> 256 x 256 x 32
        static std::vector<int> dims = {192, 192, 32};
        static Complex in(product(dims), 3);
        static std::vector<float> outRe, outIm;
        const size_t n = product({256, 256, 32});
        all.push_back({"zeropad",
                       [n] {
                           outRe.assign(n, 0.f);  // the host hands out zero-filled arrays
                           outIm.assign(n, 0.f);
                       },
                       [] {
                           MR_zero_pad(in.re.data(), in.im.data(), 3, dims.data(), 256, 256, 32,
                                       outRe.data(), outIm.data());
                       }});
    }
    {  // ringing filter, complex 256 x 256 x 32
        static std::vector<int> dims = {256, 256, 32};
        static Complex in(product(dims), 5), work(product(dims), 5);
        static const double strength[3] = {0.5, 0.5, 0.5};
        static const int width[3] = {200, 200, 32};
        all.push_back({"ringing", [] { work = in; },
                       [] {
                           MR_ringing_filter(work.re.data(), work.im.data(), 3, dims.data(),
                                             strength, width);
                       }});
    }
    for (bool pc : {false, true}) {  // coil combination, complex 128 x 128 x 32 x 8 coils
        static std::vector<int> dims = {128, 128, 32, 8, 1, 1, 1, 1, 1, 1};
        static std::vector<int> outDims = {128, 128, 32, 1, 1, 1, 1, 1, 1, 1};
        static Complex in(product(dims), 7);
        static std::vector<float> outRe, outIm;
        const size_t n = product(outDims);
        all.push_back({pc ? "pcsos" : "sos",
                       [n] {
                           outRe.assign(n, 0.f);
                           outIm.assign(n, 0.f);
                       },
                       [pc] {
                           if (pc)
                               MR_perform_pcsos(in.re.data(), in.im.data(), 10, dims.data(), 4,
                                                outRe.data(), outIm.data(), outDims.data());
                           else
                               MR_perform_sos(in.re.data(), in.im.data(), 4, dims.data(), 4,
                                              outRe.data(), outDims.data());
                       }});
    }
    {  // gradient non-linearity at 500 x 500 points within 200 mm, r0 250 mm
        static const size_t n = 500 * 500;
        static std::vector<float> x, y, z, xo(n), yo(n), zo(n);
        static float coefSin[14][12] = {}, coefCos[14][12] = {}, coefZ[17][1] = {};
        x = randomFloats(n, 9);
        y = randomFloats(n, 10);
        z = randomFloats(n, 11);
        for (size_t i = 0; i < n; ++i) x[i] *= 80.f, y[i] *= 80.f, z[i] *= 80.f;
        coefSin[1][1] = coefCos[1][1] = coefZ[1][0] = 1.f;
        coefSin[3][1] = coefCos[3][1] = coefZ[3][0] = -0.04f;
        all.push_back({"gradwarp", {}, [] {
                           MR_geometry_correction(x.data(), y.data(), z.data(), xo.data(),
                                                  yo.data(), zo.data(), static_cast<int>(n),
                                                  coefSin, coefCos, coefZ, 250.f);
                       }});
    }
    {  // SENSE, 192 x 192 at R = 2 along y, 8 coils
        static std::vector<int> folded = {192, 96, 1, 8};
        static std::vector<int> sens = {192, 192, 1, 8};
        static std::vector<int> out = {192, 192, 1, 1};
        static const int full[3] = {192, 192, 1};
        static const int noiseDims[2] = {8, 8};
        static const int one[1] = {1};
        static Complex f(product(folded), 12), s(product(sens), 14);
        static std::vector<float> outRe, outIm;
        const size_t n = product(out);
        all.push_back({"sense",
                       [n] {
                           outRe.assign(n, 0.f);
                           outIm.assign(n, 0.f);
                       },
                       [] {
                           MR_sense_recon(f.re.data(), f.im.data(), 4, folded.data(), s.re.data(),
                                          s.im.data(), 4, sens.data(), nullptr, nullptr, 2,
                                          noiseDims, full, nullptr, nullptr, 1, one, nullptr,
                                          nullptr, 1, one, 1.0, outRe.data(), outIm.data(),
                                          out.data());
                       }});
    }
    return all;
}

void library(benchmark::State& state, const Case& c) {
    for (auto _ : state) {
        if (c.refresh) {
            state.PauseTiming();
            c.refresh();
            state.ResumeTiming();
        }
        c.run();
    }
}

const bool registered = [] {
    for (const Case& c : cases()) {
        // Single calls, as the Octave side times them; the medians are compared.
        benchmark::RegisterBenchmark(("library/" + c.name).c_str(), library, c)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(1)
            ->Repetitions(21);
    }
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
