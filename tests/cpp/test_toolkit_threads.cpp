// Every toolkit array operation gives the same bits with one thread as with several, on data
// with more volumes (or outputs) than threads and counts that do not split evenly.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "recon/recon.hpp"
#include "support/split_complex.hpp"

using mrkit_test::element_count;
using mrkit_test::first_difference;
using mrkit_test::random_complex;
using mrkit_test::SplitComplex;
using mrkit_test::with_threads;

namespace {

// Runs op on a fresh copy of the input with 1, 2 and 3 threads; all results must agree.
void expect_thread_independent(const std::function<SplitComplex(SplitComplex)>& op,
                               const SplitComplex& input) {
    SplitComplex one, two, three;
    with_threads(1, [&] { one = op(input); });
    with_threads(2, [&] { two = op(input); });
    with_threads(3, [&] { three = op(input); });
    EXPECT_EQ(first_difference(one.re, two.re), -1);
    EXPECT_EQ(first_difference(one.im, two.im), -1);
    EXPECT_EQ(first_difference(one.re, three.re), -1);
    EXPECT_EQ(first_difference(one.im, three.im), -1);
}

const std::vector<int> kDims = {9, 6, 5, 7};  // 7 volumes
const int kNdims = 4;

}  // namespace

TEST(ThreadCount, ShiftsPadsAndFilterGiveTheSameBits) {
    const SplitComplex x = random_complex(element_count(kDims), 60);
    for (int dim = 1; dim <= 3; ++dim) {
        expect_thread_independent(
            [&](SplitComplex v) {
                MR_fftshift(v.re.data(), v.im.data(), kDims.data(), kNdims, dim);
                return v;
            },
            x);
        expect_thread_independent(
            [&](SplitComplex v) {
                MR_ifftshift(v.re.data(), v.im.data(), kDims.data(), kNdims, dim);
                return v;
            },
            x);
    }
    expect_thread_independent(
        [&](SplitComplex v) {
            SplitComplex out{std::vector<float>(12 * 9 * 6 * 7, 0.f),
                             std::vector<float>(12 * 9 * 6 * 7, 0.f)};
            MR_zero_pad(v.re.data(), v.im.data(), kNdims, kDims.data(), 12, 9, 6, out.re.data(),
                        out.im.data());
            return out;
        },
        x);
    expect_thread_independent(
        [&](SplitComplex v) {
            const double s[3] = {0.4, 0.6, 0.2};
            const int w[3] = {7, 5, 4};
            MR_ringing_filter(v.re.data(), v.im.data(), kNdims, kDims.data(), s, w);
            return v;
        },
        x);
}

TEST(ThreadCount, CoilCombinationGivesTheSameBits) {
    const std::vector<int> dims = {37, 5, 3, 1, 1, 1, 1, 1, 1, 2};
    const SplitComplex x = random_complex(element_count(dims), 61);
    for (int coilDim : {1, 2, 3}) {
        std::vector<int> outDims = dims;
        outDims[coilDim - 1] = 1;
        const std::size_t P = element_count(outDims);
        expect_thread_independent(
            [&](SplitComplex v) {
                SplitComplex out{std::vector<float>(P, 0.f), {}};
                MR_perform_sos(v.re.data(), v.im.data(), 10, dims.data(), coilDim, out.re.data(),
                               outDims.data());
                return out;
            },
            x);
        expect_thread_independent(
            [&](SplitComplex v) {
                SplitComplex out{std::vector<float>(P), std::vector<float>(P)};
                MR_perform_pcsos(v.re.data(), v.im.data(), 10, dims.data(), coilDim, out.re.data(),
                                 out.im.data(), outDims.data());
                return out;
            },
            x);
    }
}
