// Argument checking and conversion at the Octave/MATLAB boundary of the mrkit module.
//
// The library trusts every size and pointer it gets, so everything it relies on is checked
// here, before anything is computed. Host sizes (64-bit in Octave, 32-bit under MATLAB's
// MX_COMPAT_32 API) become 32-bit ints only after the check that they fit.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "gateway/mex_args.hpp"
#include "mex.h"
#include "recon/parallel.hpp"

namespace mrkit_mex {

using mrkit::mex::kMaxIndex;
using mrkit::mex::size_bound;

// A failed check. mexFunction reports it after everything the call owned is released.
struct ArgError {
    std::string id;       // "mrkit:<command>"
    std::string message;  // "mrkit:<command>: <argument> <problem>"
};

// One command call: its name, its inputs after the command string and its output slots.
class Call {
  public:
    Call(std::string command, int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs)
        : command_(std::move(command)), nlhs_(nlhs), plhs_(plhs), nrhs_(nrhs), prhs_(prhs) {}

    [[noreturn]] void fail(const std::string& what) const {
        const std::string id = "mrkit:" + command_;
        throw ArgError{id, id + ": " + what};
    }

    // Counts exclude the command string.
    void arity(int minIn, int maxIn, int maxOut, const char* usage) const {
        if (inputs() < minIn || inputs() > maxIn)
            fail(std::string("wrong number of inputs; usage: ") + usage);
        if (nlhs_ > maxOut) fail(std::string("too many outputs; usage: ") + usage);
    }

    int inputs() const { return nrhs_ - 1; }
    const mxArray* in(int i) const { return prhs_[i + 1]; }  // 0-based, after the command

    // Hands an output to the host when the caller asked for it (slot 0 always exists).
    void give(int i, mxArray* a) const {
        if (i < nlhs_ || i == 0)
            plhs_[i] = a;
        else
            mxDestroyArray(a);
    }

  private:
    std::string command_;
    int nlhs_;
    mxArray** plhs_;
    int nrhs_;
    const mxArray** prhs_;
};

inline std::vector<int> toInts(const std::vector<int64_t>& dims) {
    return std::vector<int>(dims.begin(), dims.end());
}

inline std::string sizeText(const std::vector<int>& dims) {
    std::string s;
    for (size_t i = 0; i < dims.size(); ++i) s += (i ? "x" : "") + std::to_string(dims[i]);
    return s;
}

// A single-precision array as the library sees it: split blocks and 32-bit sizes. The blocks
// are the host's own (Octave converts interleaved complex input to split blocks once, on the
// first request); they are only ever read.
struct Floats {
    const float* re = nullptr;
    const float* im = nullptr;  // null for real arrays
    std::vector<int> dims;      // as the host reports them: at least two entries
    int numel = 0;

    int rank() const { return static_cast<int>(dims.size()); }
    int dim(int d) const { return d < rank() ? dims[d] : 1; }  // 0-based; 1 past the rank
    std::vector<int> padded(int n) const {
        std::vector<int> p(dims);
        if (static_cast<int>(p.size()) < n) p.resize(n, 1);
        return p;
    }
};

enum class Complexity { Any, Real };

// Checks a single array and reads its sizes without asking for its data: Octave converts a
// complex array's interleaved data on the first request.
inline Floats singleShape(const Call& call, const mxArray* a, const std::string& name,
                          Complexity complexity, int maxRank) {
    if (mxGetClassID(a) != mxSINGLE_CLASS) call.fail(name + " must be single");
    if (complexity == Complexity::Real && mxIsComplex(a)) call.fail(name + " must be real");
    const int64_t rank = static_cast<int64_t>(mxGetNumberOfDimensions(a));
    if (rank > maxRank)
        call.fail(name + " must have at most " + std::to_string(maxRank) + " dimensions");
    if (!mrkit::mex::fits_int32(a)) call.fail(name + " is too large for 32-bit indices");

    Floats f;
    f.dims = mrkit::mex::dims(a);
    f.numel = static_cast<int>(mxGetNumberOfElements(a));
    return f;
}

inline Floats singleArray(const Call& call, const mxArray* a, const std::string& name,
                          Complexity complexity, int maxRank) {
    Floats f = singleShape(call, a, name, complexity, maxRank);
    f.re = mrkit::mex::real_block(a);
    f.im = mrkit::mex::imag_block(a);
    return f;
}

// A real numeric array of any class, as doubles: sizes, scalars and small coefficient sets.
inline std::vector<double> numbers(const Call& call, const mxArray* a, const std::string& name) {
    if (!mxIsNumeric(a) || mxIsComplex(a) || mxIsSparse(a))
        call.fail(name + " must be real and numeric");
    const size_t n = mxGetNumberOfElements(a);
    const void* p = mxGetData(a);
    std::vector<double> v(n);
    auto copy = [&](auto* typed) {
        for (size_t i = 0; i < n; ++i) v[i] = static_cast<double>(typed[i]);
    };
    switch (mxGetClassID(a)) {
        case mxDOUBLE_CLASS:
            copy(static_cast<const double*>(p));
            break;
        case mxSINGLE_CLASS:
            copy(static_cast<const float*>(p));
            break;
        case mxINT8_CLASS:
            copy(static_cast<const int8_t*>(p));
            break;
        case mxUINT8_CLASS:
            copy(static_cast<const uint8_t*>(p));
            break;
        case mxINT16_CLASS:
            copy(static_cast<const int16_t*>(p));
            break;
        case mxUINT16_CLASS:
            copy(static_cast<const uint16_t*>(p));
            break;
        case mxINT32_CLASS:
            copy(static_cast<const int32_t*>(p));
            break;
        case mxUINT32_CLASS:
            copy(static_cast<const uint32_t*>(p));
            break;
        case mxINT64_CLASS:
            copy(static_cast<const int64_t*>(p));
            break;
        case mxUINT64_CLASS:
            copy(static_cast<const uint64_t*>(p));
            break;
        default:
            call.fail(name + " must be real and numeric");
    }
    return v;
}

inline std::vector<double> finiteNumbers(const Call& call, const mxArray* a,
                                         const std::string& name, size_t minCount,
                                         size_t maxCount) {
    std::vector<double> v = numbers(call, a, name);
    if (v.size() < minCount || v.size() > maxCount) {
        std::string count = std::to_string(minCount);
        if (maxCount != minCount) count += " to " + std::to_string(maxCount);
        call.fail(name + " must have " + count + (maxCount == 1 ? " element" : " elements"));
    }
    for (double x : v)
        if (!std::isfinite(x)) call.fail(name + " must be finite");
    return v;
}

inline double finiteScalar(const Call& call, const mxArray* a, const std::string& name) {
    return finiteNumbers(call, a, name, 1, 1)[0];
}

// Whole numbers in lo..hi, one message for the lot ("dim must be an integer from 1 to 3").
inline std::vector<int> integers(const Call& call, const mxArray* a, const std::string& name,
                                 size_t minCount, size_t maxCount, int64_t lo, int64_t hi) {
    std::vector<int> out;
    for (double x : finiteNumbers(call, a, name, minCount, maxCount)) {
        if (x != std::floor(x) || x < static_cast<double>(lo) || x > static_cast<double>(hi)) {
            const bool one = maxCount == 1;
            call.fail(name + (one ? " must be an integer from " : " must hold integers from ") +
                      std::to_string(lo) + " to " + std::to_string(hi));
        }
        out.push_back(static_cast<int>(x));
    }
    return out;
}

// A new single array and its blocks.
struct NewFloats {
    mxArray* array;
    float* re;
    float* im;  // null when real
};

// Zeroed for the library functions that need it; left as it comes where every sample is
// written anyway, which saves the host a pass over the memory.
enum class Fill { Zero, None };

inline NewFloats newSingle(const std::vector<int>& dims, bool complex, Fill fill) {
    const mxComplexity c = complex ? mxCOMPLEX : mxREAL;
    NewFloats out;
#ifdef MRKIT_MATLAB
    // MATLAB declares the uninitialised form with size_t sizes, whatever mwSize is.
    std::vector<size_t> uninitDims(dims.begin(), dims.end());
#else
    std::vector<mwSize> uninitDims(dims.begin(), dims.end());
#endif
    std::vector<mwSize> hostDims(dims.begin(), dims.end());
    out.array = fill == Fill::Zero ? mxCreateNumericArray(static_cast<mwSize>(hostDims.size()),
                                                          hostDims.data(), mxSINGLE_CLASS, c)
                                   : mxCreateUninitNumericArray(
                                         uninitDims.size(), uninitDims.data(), mxSINGLE_CLASS, c);
    out.re = static_cast<float*>(mxGetData(out.array));
    out.im = complex ? static_cast<float*>(mxGetImagData(out.array)) : nullptr;
    return out;
}

// A new array holding a copy of a (single, checked), for the library's in-place operations.
// The host duplicates a complex array, converting Octave's interleaved data into the new split
// blocks in the same pass; a real one is copied here, into memory nobody zero-fills first.
inline NewFloats copyOf(const mxArray* a) {
    NewFloats out;
    if (mxIsComplex(a)) {
        out.array = mxDuplicateArray(a);
        out.re = mrkit::mex::real_block(out.array);
        out.im = mrkit::mex::imag_block(out.array);
        return out;
    }
    const int n = static_cast<int>(mxGetNumberOfElements(a));
    out = newSingle(mrkit::mex::dims(a), false, Fill::None);
    const float* in = mrkit::mex::real_block(a);
    float* copy = out.re;
    mrkit::parallel_blocks(
        n, [&](int begin, int end) { std::copy(in + begin, in + end, copy + begin); });
    return out;
}

}  // namespace mrkit_mex
