// MEX entry of the homodyne module: command dispatch and the argument checks of "filter" and
// "multiply". The numbers are done by the cores in homodyne_core.cpp.
//
// In-place forms (the module's original calling convention) write into the caller's data array,
// which changes every variable sharing it; on Octave a write into a complex input never reaches
// the caller. Two outputs from "filter", or one from "multiply", return new arrays instead and
// leave every input untouched.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "gateway/homodyne.hpp"
#include "gateway/mex_args.hpp"

namespace mex = mrkit::mex;

namespace {

const char* const kRangeClass[3] = {"kx-range must be of type double.",
                                    "ky-range must be of type double.",
                                    "kz-range must be of type double."};
const char* const kRangeReal[3] = {"kx-range must be real valued.", "ky-range must be real valued.",
                                   "kz-range must be real valued."};
const char* const kRangeDims[3] = {"The kx-range must be 1 dimensional vector.",
                                   "The ky-range must be 1 dimensional vector.",
                                   "The kz-range must be 1 dimensional vector."};
const char* const kRangeVector[3] = {"The kx-range coordinates must be 1 dimensional vector.",
                                     "The ky-range coordinates must be 1 dimensional vector.",
                                     "The kz-range coordinates must be 1 dimensional vector."};
const char* const kRangeLength[3] = {"The kx-range must be of length 2.",
                                     "The ky-range must be of length 2.",
                                     "The kz-range must be of length 2."};

// Beyond the fixed checks: the cores index with 32-bit ints.
const char* const kTooLarge = "Data is too large for 32-bit indices.";

// Null when the range is acceptable; a range counts as absent when mex::is_empty.
const char* range_shape_error(const mxArray* range, int axis) {
    if (mex::ndims(range) > 2) return kRangeDims[axis];
    const int rows = mex::size(range, 0), columns = mex::size(range, 1);
    if (rows != 1) {
        if (columns != 1) return kRangeVector[axis];
        if (rows != 2 && columns != 2) return kRangeLength[axis];
    } else if (columns != 2) {
        return kRangeLength[axis];
    }
    return nullptr;
}

}  // namespace

// [low] = homodyne('filter', data, kxRange, kyRange, kzRange) weights data in place;
// [low, weighted] = ... leaves data as it is and returns the weighted copy.
void ApplyHomodyneFilter(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs) {
    if (nrhs < 5) return mex::fail("There must be at least 5 inputs.");
    if (nrhs > 5) return mex::fail("Too many input arguments.");
    const mxArray* data = prhs[1];
    const mxArray* const* ranges = prhs + 2;
    if (!mex::is_class(data, "single")) return mex::fail("Data must be of type single.");
    if (mex::is_empty(data)) return mex::fail("Data cannot be empty.");
    for (int r = 0; r < 3; ++r)
        if (!mex::is_class(ranges[r], "double")) return mex::fail(kRangeClass[r]);
    for (int r = 0; r < 3; ++r)
        if (mxIsComplex(ranges[r])) return mex::fail(kRangeReal[r]);
    for (int r = 0; r < 3; ++r) {
        if (mex::is_empty(ranges[r])) continue;
        if (const char* error = range_shape_error(ranges[r], r)) return mex::fail(error);
    }
    if (!mex::fits_int32(data)) return mex::fail(kTooLarge);

    std::vector<double> values[3];
    const double* rangeValues[3] = {nullptr, nullptr, nullptr};
    for (int r = 0; r < 3; ++r) {
        if (mex::is_empty(ranges[r])) continue;
        values[r] = mex::doubles(ranges[r], 2);
        rangeValues[r] = values[r].data();
    }
    const std::vector<int> dims = mex::dims(data);
    const int ndims = static_cast<int>(dims.size());
    int n[3];
    const int nvol = homodyne_volume_sizes(ndims, dims.data(), n);
    std::vector<float> weights(homodyne_weight_count(n));
    int edges[3][2];
    const int count =
        homodyne_filter_setup(n, rangeValues, weights.empty() ? nullptr : weights.data(), edges);
    std::vector<int> bandDims(ndims);
    homodyne_band_dims(ndims, dims.data(), edges, bandDims.data());

    const bool complex = mxIsComplex(data);
    plhs[0] = mex::create_single(bandDims, true);
    mxArray* weighted = nullptr;
    if (nlhs >= 2) weighted = plhs[1] = mex::create_single(dims, complex);

    const float* re = mex::real_block(data);
    const float* im = mex::imag_block(data);
    homodyne_crop(re, im, n, nvol, edges, mex::real_block(plhs[0]), mex::imag_block(plhs[0]));
    float* outRe = weighted ? mex::real_block(weighted) : mex::real_block(data);
    float* outIm = weighted ? mex::imag_block(weighted) : mex::imag_block(data);
    homodyne_weight(re, im, n, nvol, weights.data(), count, outRe, outIm);
}

// homodyne('multiply', img, low) replaces img in place by its real part after rotation by minus
// the phase of low; img2 = ... returns that as a new real array and leaves img as it is.
void AddLowResPhase(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs) {
    if (nrhs < 3) return mex::fail("There must be at least 3 inputs.");
    if (nrhs > 3) return mex::fail("Too many input arguments.");
    const mxArray* data = prhs[1];
    const mxArray* low = prhs[2];
    if (mex::is_empty(low)) return mex::fail("The low resolution data cannot be empty.");
    if (!mex::is_class(data, "single")) return mex::fail("Data must be of type single.");
    if (mex::is_empty(data)) return mex::fail("Data cannot be empty.");
    if (!mex::is_class(low, "single")) return mex::fail("LowRes must be of type single.");
    if (mex::ndims(data) != mex::ndims(low))
        return mex::fail(
            "The data must have the same number of dimensions than the low resolution data");
    if (!mex::fits_int32(data) || !mex::fits_int32(low)) return mex::fail(kTooLarge);
    const std::vector<int> dims = mex::dims(data);
    const std::vector<int> lowDims = mex::dims(low);
    const int ndims = static_cast<int>(dims.size());
    // Interpolation reads one low-resolution volume per data volume; guard the reads.
    if (!homodyne_low_res_fits(ndims, dims.data(), lowDims.data()))
        return mex::fail(
            "The low resolution data must have no empty dimension and the data's sizes from "
            "the fourth dimension on.");

    float* outRe = mex::real_block(data);
    float* outIm = mex::imag_block(data);
    if (nlhs >= 1) {
        plhs[0] = mex::create_single(dims, false);
        outRe = mex::real_block(plhs[0]);
        outIm = nullptr;
    }
    homodyne_multiply(mex::real_block(data), mex::imag_block(data), mex::real_block(low),
                      mex::imag_block(low), ndims, dims.data(), lowDims.data(), outRe, outIm);
}

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    // A call without arguments gets the same answer as a non-string first argument rather
    // than a read of an input that is not there.
    if (nrhs < 1 || !mxIsChar(prhs[0]))
        return mex::fail("The first input must be a string describing the functionality.");
    // Rows times columns plus one, in 32-bit arithmetic; a size that wraps to nothing leaves
    // room for the terminator only, and the copy then warns of the truncation.
    const int size = static_cast<int32_t>(
        static_cast<uint32_t>(mxGetM(prhs[0])) * static_cast<uint32_t>(mxGetN(prhs[0])) + 1u);
    const int length = size > 0 ? size : 1;
    // Owned, so that it is released when an error unwinds through here.
    const std::unique_ptr<char[]> command(new char[length]());
    if (mxGetString(prhs[0], command.get(), length) != 0)
        mexWarnMsgTxt("Not enough space. String is truncated.");
    command[length - 1] = '\0';
    if (std::strcmp(command.get(), "filter") == 0) ApplyHomodyneFilter(nlhs, plhs, nrhs, prhs);
    if (std::strcmp(command.get(), "multiply") == 0) AddLowResPhase(nlhs, plhs, nrhs, prhs);
}
