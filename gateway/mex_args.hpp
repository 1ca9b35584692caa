// The MEX boundary of mrkit's gateways: reads host arrays into the plain 32-bit sizes and float
// blocks the numeric cores take. One source serves Octave (64-bit mwSize) and MATLAB's
// 32-bit-index API (MX_COMPAT_32), so sizes are converted here and nowhere else.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "mex.h"

namespace mrkit::mex {

// Ends the MEX call with text. Returns only if the host's error call does, so handlers write
// `return fail(...)` and stop either way.
inline void fail(const char* text) {
    mexErrMsgTxt(text);
}

inline bool is_class(const mxArray* a, const char* name) {
    return std::strcmp(mxGetClassName(a), name) == 0;
}

inline int ndims(const mxArray* a) {
    return static_cast<int>(mxGetNumberOfDimensions(a));
}

constexpr int64_t kMaxIndex = std::numeric_limits<int32_t>::max();

// Product of the sizes with zeros counted as ones: no partial product of the sizes, which the
// cores and the library form in 32-bit ints, can exceed it. Saturates past kMaxIndex.
template <class It>
int64_t size_bound(It first, It last) {
    int64_t p = 1;
    for (; first != last; ++first) {
        const int64_t d = static_cast<int64_t>(*first);
        p *= d > 1 ? d : 1;
        if (p > kMaxIndex) return kMaxIndex + 1;
    }
    return p;
}
inline int64_t size_bound(const std::vector<int64_t>& sizes) {
    return size_bound(sizes.begin(), sizes.end());
}

// True when every size and element index of a fits a 32-bit int.
inline bool fits_int32(const mxArray* a) {
    const mwSize* d = mxGetDimensions(a);
    return size_bound(d, d + mxGetNumberOfDimensions(a)) <= kMaxIndex;
}

inline std::vector<int> dims(const mxArray* a) {
    const mwSize* d = mxGetDimensions(a);
    return std::vector<int>(d, d + ndims(a));
}

// Size of dimension d (0-based); 1 beyond the last dimension.
inline int size(const mxArray* a, int d) {
    return d < ndims(a) ? static_cast<int>(mxGetDimensions(a)[d]) : 1;
}

// No dimensions, or a first dimension of 0 (only the first one counts).
inline bool is_empty(const mxArray* a) {
    return ndims(a) == 0 || size(a, 0) == 0;
}

// Element blocks of a single array; the imaginary block is null for real arrays.
inline float* real_block(const mxArray* a) {
    return static_cast<float*>(mxGetData(a));
}
inline float* imag_block(const mxArray* a) {
    return mxIsComplex(a) ? static_cast<float*>(mxGetImagData(a)) : nullptr;
}

// The first n elements (column-major) of a real double array, dense or sparse.
inline std::vector<double> doubles(const mxArray* a, int n) {
    std::vector<double> v(n, 0.0);
    const double* values = static_cast<const double*>(mxGetData(a));
    if (!mxIsSparse(a)) {
        std::copy(values, values + n, v.begin());
        return v;
    }
    const mwIndex* rows = mxGetIr(a);
    const mwIndex* columnStarts = mxGetJc(a);
    const mwSize m = mxGetM(a), columns = mxGetN(a);
    for (mwSize c = 0; c < columns; ++c)
        for (mwIndex k = columnStarts[c]; k < columnStarts[c + 1]; ++k)
            if (rows[k] + c * m < static_cast<mwSize>(n)) v[rows[k] + c * m] = values[k];
    return v;
}

// A zero-filled single array of the given sizes.
inline mxArray* create_single(const std::vector<int>& sizes, bool complex) {
    const std::vector<mwSize> d(sizes.begin(), sizes.end());
    return mxCreateNumericArray(static_cast<mwSize>(d.size()), d.data(), mxSINGLE_CLASS,
                                complex ? mxCOMPLEX : mxREAL);
}

}  // namespace mrkit::mex
