// Toolkit commands: centre shifts, zero padding, ringing filter, coil combination. Operations
// the library does in place run on the output after one copy of the input. An input without
// elements skips the library: its output is already what the call returns.
#include <algorithm>
#include <string>
#include <vector>

#include "gateway/commands/call.hpp"
#include "gateway/commands/table.hpp"
#include "recon/recon.hpp"

namespace mrkit::commands {
namespace {

void shift(Call& call, bool inverse) {
    const Floats x = single_shape(call, call.in(0), "x", Complexity::Any, kAnyRank);
    const int dim = dimension(call, call.in(1), "dim", 3);
    const Blocks<float> y = call.copy_single(0, call.in(0), x.dims);
    if (x.numel == 0) return;
    // The shifts read three sizes, also for a 2-D array shifted along dimension 3.
    const std::vector<int> dims = x.padded(3);
    const int n = static_cast<int>(dims.size());
    call.library([&] {
        if (inverse)
            MR_ifftshift(y.re, y.im, dims.data(), n, dim);
        else
            MR_fftshift(y.re, y.im, dims.data(), n, dim);
    });
}

void coil_combine(Call& call, bool phaseCorrected) {
    Floats x = single_shape(call, call.in(0), "x", Complexity::Any, kAnyRank);
    const int coilDim = dimension(call, call.in(1), "coilDim", x.rank());
    // With the coils along the averaging dimension the library would read past the array.
    if (phaseCorrected && coilDim == 10)
        call.fail("coilDim must not be " + std::to_string(9 + call.axis_base()) +
                  ", the dimension pcsos averages along");
    // The phase-corrected form averages along the tenth dimension, so it reads ten sizes.
    const int n = phaseCorrected ? std::max(10, x.rank()) : x.rank();
    const std::vector<int> dims = x.padded(n);
    std::vector<int> outDims = dims;
    outDims[coilDim - 1] = 1;
    const std::vector<int> shape(outDims.begin(), outDims.begin() + x.rank());
    load(call, x);

    // The sum of squares accumulates into its output; the phase-corrected form overwrites it.
    const Blocks<float> y =
        call.new_single(0, shape, phaseCorrected, phaseCorrected ? Fill::None : Fill::Zero);
    std::int64_t outCount = 1;
    for (int d : shape) outCount *= d;
    if (outCount == 0) return;
    call.library([&] {
        if (phaseCorrected)
            MR_perform_pcsos(x.re, x.im, n, dims.data(), coilDim, y.re, y.im, outDims.data());
        else
            MR_perform_sos(x.re, x.im, n, dims.data(), coilDim, y.re, outDims.data());
    });
}

}  // namespace

void fftshift(Call& call) {
    shift(call, false);
}
void ifftshift(Call& call) {
    shift(call, true);
}
void sos(Call& call) {
    coil_combine(call, false);
}
void pcsos(Call& call) {
    coil_combine(call, true);
}

void zeropad(Call& call) {
    Floats x = single_shape(call, call.in(0), "x", Complexity::Any, kAnyRank);
    std::vector<int> newSize = integers(call, call.in(1), "newSize", 2, 3, 0, kMaxIndex);
    if (newSize.size() == 2) newSize.push_back(x.dim(2));
    for (int d = 0; d < 3; ++d) {
        if (newSize[d] < x.dim(d)) {
            const std::string i = std::to_string(d + 1);
            call.fail("newSize(" + i + ") must not be smaller than size(x, " + i + ") (" +
                      std::to_string(x.dim(d)) + ")");
        }
    }
    std::vector<int64_t> outDims(newSize.begin(), newSize.end());
    for (int d = 3; d < x.rank(); ++d) outDims.push_back(x.dims[d]);
    if (size_bound(outDims) > kMaxIndex) call.fail("newSize is too large for 32-bit indices");
    load(call, x);

    const Blocks<float> y = call.new_single(0, std::vector<int>(outDims.begin(), outDims.end()),
                                            x.complex, Fill::Zero);
    if (x.numel == 0) return;
    call.library([&] {
        MR_zero_pad(x.re, x.im, x.rank(), x.dims.data(), newSize[0], newSize[1], newSize[2], y.re,
                    y.im);
    });
}

void ringing(Call& call) {
    const Floats x = single_shape(call, call.in(0), "x", Complexity::Any, kAnyRank);
    const std::vector<double> strength = finite_numbers(call, call.in(1), "strength", 1, 3);
    const std::vector<int> width = integers(call, call.in(2), "width", 1, 3, 1, kMaxIndex);
    // A dimension without an entry is left alone: no taper over its whole size.
    double s[3];
    int w[3];
    for (size_t d = 0; d < 3; ++d) {
        s[d] = d < strength.size() ? strength[d] : 0.0;
        w[d] = d < width.size() ? width[d] : std::max(1, x.dim(static_cast<int>(d)));
    }
    const Blocks<float> y = call.copy_single(0, call.in(0), x.dims);
    if (x.numel == 0) return;
    call.library([&] { MR_ringing_filter(y.re, y.im, x.rank(), x.dims.data(), s, w); });
}

}  // namespace mrkit::commands
