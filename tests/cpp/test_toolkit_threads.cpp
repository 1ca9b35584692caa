// Every toolkit array operation gives the same bits with one thread as with two or three, on
// counts of volumes and outputs that do not split evenly.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/split_complex.hpp"
#include "support/threads.hpp"

using namespace mrkit_test;

using Op = std::function<SplitComplex(SplitComplex)>;

TEST(ThreadCount, AllOperationsGiveTheSameBits) {
    const std::vector<int> dims = {9, 6, 5, 7, 1, 1, 1, 1, 1, 2};  // 14 volumes
    const SplitComplex x = random_complex(element_count(dims), 60);
    std::vector<Op> ops;
    for (int dim = 1; dim <= 3; ++dim)
        for (auto shift : {MR_fftshift, MR_ifftshift})
            ops.push_back([&, dim, shift](SplitComplex v) {
                shift(v.re.data(), v.im.data(), dims.data(), 10, dim);
                return v;
            });
    ops.push_back([&](SplitComplex v) {
        SplitComplex out{std::vector<float>(12 * 9 * 6 * 14), std::vector<float>(12 * 9 * 6 * 14)};
        MR_zero_pad(v.re.data(), v.im.data(), 10, dims.data(), 12, 9, 6, out.re.data(),
                    out.im.data());
        return out;
    });
    ops.push_back([&](SplitComplex v) {
        const double s[3] = {0.4, 0.6, 0.2};
        const int w[3] = {7, 5, 4};
        MR_ringing_filter(v.re.data(), v.im.data(), 10, dims.data(), s, w);
        return v;
    });
    for (int coilDim : {1, 2, 4}) {
        std::vector<int> outDims = dims;
        outDims[coilDim - 1] = 1;
        const std::size_t P = element_count(outDims);
        ops.push_back([&, coilDim, outDims, P](SplitComplex v) {
            SplitComplex out{std::vector<float>(P), std::vector<float>(2 * P)};  // sos, pcsos
            MR_perform_sos(v.re.data(), v.im.data(), 10, dims.data(), coilDim, out.re.data(),
                           outDims.data());
            MR_perform_pcsos(v.re.data(), v.im.data(), 10, dims.data(), coilDim, out.im.data(),
                             out.im.data() + P, outDims.data());
            return out;
        });
    }
    for (std::size_t k = 0; k < ops.size(); ++k) {
        const SplitComplex one = with_threads(1, [&] { return ops[k](x); });
        for (int threads : {2, 3}) {
            const SplitComplex many = with_threads(threads, [&] { return ops[k](x); });
            EXPECT_TRUE(same_bits(one.re, many.re)) << "operation " << k << ", " << threads;
            EXPECT_TRUE(same_bits(one.im, many.im)) << "operation " << k << ", " << threads;
        }
    }
}
