// Toolkit array operations against a plain memory copy of the same bytes, measured in the same
// iteration: each iteration first copies the pristine input over the working arrays (the
// baseline, with the same thread count and the same split over volumes), then runs the
// operation. The ratio copy time / operation time is reported per case (counter `vs_copy`)
// and in a summary table; goals: >= 0.8 for shifts, padding and the ringing filter, >= 0.7
// for the sum of squares over 8 coils.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ratio_reporter.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "support/split_complex.hpp"

namespace {

using Clock = std::chrono::steady_clock;

struct Row {
    double mib = 0, opMs = 0, copyMs = 0, bestOpMs = 0, bestCopyMs = 0, goal = 0;
};
std::map<std::string, Row> g_rows;  // by benchmark name; the last (measured) run wins

std::size_t count(const std::vector<int>& dims) {
    return mrkit_test::element_count(dims);
}

// Copies n samples of both blocks, cut into `parts` equal pieces shared out like volumes.
void parallel_copy(float* dstRe, float* dstIm, const float* re, const float* im, std::size_t n,
                   int parts) {
    const std::size_t piece = n / parts;
    mrkit::parallel_blocks(parts, [&](int begin, int end) {
        const std::size_t off = begin * piece, bytes = (end - begin) * piece * sizeof(float);
        std::memcpy(dstRe + off, re + off, bytes);
        std::memcpy(dstIm + off, im + off, bytes);
    });
}

struct Case {
    std::string name;
    std::vector<int> dims;  // input sizes
    double goal;
    // Runs the operation on `work` (already holding a fresh copy of the input); `out` is
    // scratch output space sized by outCount.
    std::function<void(mrkit_test::SplitComplex& work, std::vector<float>& out)> op;
    std::size_t outCount = 0;
    int parts = 0;  // pieces for the baseline copy (volumes or coils)
};

void run_case(benchmark::State& state, const Case& c) {
    const int threads = static_cast<int>(state.range(0));
    omp_set_num_threads(threads);
    const std::size_t n = count(c.dims);
    const mrkit_test::SplitComplex pristine = mrkit_test::random_complex(n, 5);
    mrkit_test::SplitComplex work = pristine;
    std::vector<float> out(c.outCount, 0.f);

    std::vector<double> copyTimes, opTimes;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        parallel_copy(work.re.data(), work.im.data(), pristine.re.data(), pristine.im.data(), n,
                      c.parts);
        const auto t1 = Clock::now();
        c.op(work, out);
        const auto t2 = Clock::now();
        benchmark::ClobberMemory();
        const double op = std::chrono::duration<double>(t2 - t1).count();
        copyTimes.push_back(std::chrono::duration<double>(t1 - t0).count());
        opTimes.push_back(op);
        state.SetIterationTime(op);
    }
    const double bytes = 2.0 * n * sizeof(float);
    Row& row = g_rows[c.name + "/threads:" + std::to_string(threads)];
    using mrkit_bench::fastest;
    using mrkit_bench::median;
    row = {bytes / (1 << 20),      median(opTimes) * 1e3,    median(copyTimes) * 1e3,
           fastest(opTimes) * 1e3, fastest(copyTimes) * 1e3, c.goal};
    state.counters["vs_copy"] = row.copyMs / row.opMs;
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}

std::vector<Case> cases() {
    std::vector<Case> list;
    struct Size {
        const char* label;
        int n, planes;  // n x n x 1 x (8 * planes) volumes, or n x n x planes x 8
    };
    for (Size s : {Size{"64MiB", 256, 16}, Size{"4MiB", 64, 16}}) {
        const std::vector<int> flat = {s.n, s.n, 1, 8 * s.planes};
        const std::vector<int> deep = {s.n, s.n, s.planes, 8};
        for (int dim = 1; dim <= 3; ++dim) {
            const auto& dims = dim == 3 ? deep : flat;
            list.push_back({std::string("fftshift_dim") + char('0' + dim) + "/" + s.label, dims,
                            0.8,
                            [dims, dim](mrkit_test::SplitComplex& w, std::vector<float>&) {
                                MR_fftshift(w.re.data(), w.im.data(), dims.data(), 4, dim);
                            },
                            0, dims[3]});
        }
        // Odd length along dimension 1: the overlapping middle move.
        const std::vector<int> odd = {s.n - 1, s.n, 1, 8 * s.planes};
        list.push_back({std::string("fftshift_dim1_odd/") + s.label, odd, 0.8,
                        [odd](mrkit_test::SplitComplex& w, std::vector<float>&) {
                            MR_fftshift(w.re.data(), w.im.data(), odd.data(), 4, 1);
                        },
                        0, odd[3]});

        const int m = s.n + s.n / 4;
        const std::size_t padded = std::size_t(m) * m * flat[3];
        list.push_back({std::string("zero_pad/") + s.label, flat, 0.8,
                        [flat, m, padded](mrkit_test::SplitComplex& w, std::vector<float>& out) {
                            MR_zero_pad(w.re.data(), w.im.data(), 4, flat.data(), m, m, 1,
                                        out.data(), out.data() + padded);
                        },
                        2 * padded, flat[3]});

        list.push_back({std::string("ringing_filter/") + s.label, flat, 0.8,
                        [flat, s](mrkit_test::SplitComplex& w, std::vector<float>&) {
                            const double strength[3] = {0.5, 0.5, 0.0};
                            const int width[3] = {s.n * 3 / 4, s.n * 3 / 4, 1};
                            MR_ringing_filter(w.re.data(), w.im.data(), 4, flat.data(), strength,
                                              width);
                        },
                        0, flat[3]});

        // 8 coils, last (long coil stride) and first (coils adjacent).
        const std::vector<int> coilLast = {s.n, s.n, s.planes, 8};
        const std::vector<int> coilFirst = {8, s.n, s.n, s.planes};
        const std::size_t P = std::size_t(s.n) * s.n * s.planes;
        for (int coilDim : {4, 1}) {
            const auto& dims = coilDim == 4 ? coilLast : coilFirst;
            std::vector<int> outDims = dims;
            outDims[coilDim - 1] = 1;
            list.push_back(
                {std::string("sos_8coils_") + (coilDim == 4 ? "last/" : "first/") + s.label, dims,
                 0.7,
                 [dims, outDims, coilDim](mrkit_test::SplitComplex& w, std::vector<float>& out) {
                     // Accumulates onto the previous result: the timing does not
                     // depend on the values.
                     MR_perform_sos(w.re.data(), w.im.data(), 4, dims.data(), coilDim, out.data(),
                                    outDims.data());
                 },
                 P, 8 * s.planes});
        }
    }
    return list;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<Case> list = cases();
    for (const Case& c : list)
        benchmark::RegisterBenchmark(c.name.c_str(), run_case, c)
            ->Arg(1)
            ->Arg(2)
            ->ArgName("threads")
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    // The baseline copy is timed inside each iteration, so the plain console output will do.
    if (!mrkit_bench::run_benchmarks(&argc, argv, nullptr)) return 1;
    benchmark::Shutdown();

    // Medians are what a caller sees on a busy machine; the fastest iterations show what the
    // code reaches when it has the cores to itself.
    std::printf("\n%-34s %6s %9s %9s %8s %8s %5s\n", "case", "MiB", "op ms", "copy ms", "copy/op",
                "fastest", "goal");
    for (const auto& [name, r] : g_rows) {
        const double ratio = r.copyMs / r.opMs, best = r.bestCopyMs / r.bestOpMs;
        std::printf("%-34s %6.1f %9.3f %9.3f %8.2f %8.2f %5.2f%s\n", name.c_str(), r.mib, r.opMs,
                    r.copyMs, ratio, best, r.goal, ratio < r.goal ? "  below goal" : "");
    }
    return 0;
}
