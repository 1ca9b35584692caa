// NumPy arrays to and from the library's storage: split single-precision blocks, column-major,
// axis 0 fastest. An array of any memory layout (C order, Fortran order, strided views,
// negative strides) and any real or complex floating dtype is read in one pass; a complex
// result is interleaved into a NumPy complex64 array in one pass. Both passes run without the
// GIL on the caller's OpenMP team.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <complex>
#include <cstdlib>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "recon/parallel.hpp"

namespace mrkit_py {

namespace py = pybind11;

// A float block from malloc (or calloc when zeros are asked for: the kernel's zero pages then
// cost no pass) that NumPy can own after the call through a capsule.
class FloatBlock {
  public:
    FloatBlock() = default;
    FloatBlock(int64_t n, bool zero) {
        const size_t bytes = static_cast<size_t>(n > 0 ? n : 1) * sizeof(float);
        p_.reset(static_cast<float*>(zero ? std::calloc(1, bytes) : std::malloc(bytes)));
        if (!p_) throw std::bad_alloc();
    }
    float* get() const { return p_.get(); }
    float* release() { return p_.release(); }
    explicit operator bool() const { return p_ != nullptr; }

  private:
    struct Free {
        void operator()(float* p) const { std::free(p); }
    };
    std::unique_ptr<float, Free> p_;
};

// What the conversion needs to know of a NumPy array, read while the GIL is held.
struct Source {
    enum class Type { F32, F64, LongDouble, C64, C128, CLongDouble };
    Type type;
    const char* data;
    std::vector<int64_t> shape;
    std::vector<int64_t> strides;  // bytes
    int64_t numel = 1;
    bool complex() const { return type >= Type::C64; }
    // float32 already laid out as the library reads it: usable without a copy.
    bool library_layout() const {
        if (type != Type::F32) return false;
        int64_t expected = sizeof(float);
        for (size_t d = 0; d < shape.size(); ++d) {
            if (shape[d] > 1 && strides[d] != expected) return false;
            expected *= shape[d];
        }
        return true;
    }
};

// An array NumPy can read from x, in native byte order.
inline py::array as_array(const py::handle& x) {
    py::array a = py::module_::import("numpy").attr("asarray")(x);
    if (!a.dtype().attr("isnative").cast<bool>())
        a = a.attr("astype")(a.dtype().attr("newbyteorder")("="));
    return a;
}

// False when the dtype is not a real or complex floating type NumPy can hand over as is.
inline bool describe(const py::array& a, Source& s) {
    const py::dtype dt = a.dtype();
    const char kind = dt.kind();
    const auto size = dt.itemsize();
    if (kind == 'f' && size == 4)
        s.type = Source::Type::F32;
    else if (kind == 'f' && size == 8)
        s.type = Source::Type::F64;
    else if (kind == 'f' && size == static_cast<py::ssize_t>(sizeof(long double)))
        s.type = Source::Type::LongDouble;
    else if (kind == 'c' && size == 8)
        s.type = Source::Type::C64;
    else if (kind == 'c' && size == 16)
        s.type = Source::Type::C128;
    else if (kind == 'c' && size == static_cast<py::ssize_t>(2 * sizeof(long double)))
        s.type = Source::Type::CLongDouble;
    else
        return false;
    if (!dt.attr("isnative").cast<bool>()) return false;
    s.data = static_cast<const char*>(a.data());
    s.shape.assign(a.shape(), a.shape() + a.ndim());
    s.strides.assign(a.strides(), a.strides() + a.ndim());
    s.numel = 1;
    for (int64_t n : s.shape) s.numel *= n;
    return true;
}

namespace detail {

// Visits every element in runs along axis 0: run(outIndex, input, count, inputStep) covers
// the output elements outIndex .. outIndex + count - 1, read from input at inputStep bytes
// apart. When axis 0 is also the fastest axis in memory, whole rows are runs. Otherwise (C
// order, transposed views) the runs go in tiles of axis 0 by the input's fastest axis, so that
// both the strided reads and the writes stay in cache. Work is split over the threads in
// contiguous blocks of rows or tile rows.
template <class Run>
void column_major(const Source& s, Run&& run) {
    const int nd = static_cast<int>(s.shape.size());
    if (s.numel == 0) return;
    if (nd == 0) {
        run(0, s.data, 1, 0);
        return;
    }
    const int64_t n0 = s.shape[0], step0 = s.strides[0];
    int p = 0;
    int64_t fastest = n0 > 1 ? std::abs(step0) : INT64_MAX;
    for (int d = 1; d < nd; ++d) {
        if (s.shape[d] > 1 && std::abs(s.strides[d]) < fastest) {
            fastest = std::abs(s.strides[d]);
            p = d;
        }
    }
    std::vector<int64_t> outStride(nd, 1);
    for (int d = 1; d < nd; ++d) outStride[d] = outStride[d - 1] * s.shape[d - 1];

    constexpr int64_t kTile = 32;
    const int64_t np = p ? s.shape[p] : 1;
    const int64_t tiles = p ? (np + kTile - 1) / kTile : 1;
    const int64_t units = s.numel / (n0 * np) * tiles;  // rows, or tile rows
    const int chunks = static_cast<int>(std::min<int64_t>(units, 1 << 20));
    mrkit::parallel_blocks(chunks, [&](int cb, int ce) {
        const int64_t begin = units * cb / chunks, end = units * ce / chunks;
        for (int64_t u = begin; u < end; ++u) {
            // Subscripts of the axes other than 0 and p from the unit number.
            int64_t rest = u / tiles, in = 0, out = 0;
            for (int d = 1; d < nd; ++d) {
                if (d == p) continue;
                const int64_t i = rest % s.shape[d];
                rest /= s.shape[d];
                in += i * s.strides[d];
                out += i * outStride[d];
            }
            if (!p) {
                run(out, s.data + in, n0, step0);
                continue;
            }
            const int64_t j0 = (u % tiles) * kTile, j1 = std::min(np, j0 + kTile);
            for (int64_t i0 = 0; i0 < n0; i0 += kTile) {
                const int64_t count = std::min(n0 - i0, kTile);
                for (int64_t j = j0; j < j1; ++j)
                    run(out + j * outStride[p] + i0, s.data + in + j * s.strides[p] + i0 * step0,
                        count, step0);
            }
        }
    });
}

// One run of real values; the contiguous case is a loop the compiler vectorises.
template <class T>
void split_real(const Source& s, float* re) {
    column_major(s, [re](int64_t k, const char* p, int64_t n, int64_t step) {
        float* out = re + k;
        if (step == static_cast<int64_t>(sizeof(T))) {
            const T* v = reinterpret_cast<const T*>(p);
            for (int64_t i = 0; i < n; ++i) out[i] = static_cast<float>(v[i]);
        } else {
            for (int64_t i = 0; i < n; ++i)
                out[i] = static_cast<float>(*reinterpret_cast<const T*>(p + i * step));
        }
    });
}

template <class T>
void split_complex(const Source& s, float* re, float* im) {
    column_major(s, [re, im](int64_t k, const char* p, int64_t n, int64_t step) {
        float* r = re + k;
        float* m = im + k;
        if (step == static_cast<int64_t>(2 * sizeof(T))) {
            const T* v = reinterpret_cast<const T*>(p);
            for (int64_t i = 0; i < n; ++i) {
                r[i] = static_cast<float>(v[2 * i]);
                m[i] = static_cast<float>(v[2 * i + 1]);
            }
        } else {
            for (int64_t i = 0; i < n; ++i) {
                const T* v = reinterpret_cast<const T*>(p + i * step);
                r[i] = static_cast<float>(v[0]);
                m[i] = static_cast<float>(v[1]);
            }
        }
    });
}

}  // namespace detail

// Writes the elements of s as floats into re (and im for complex dtypes): the one pass over an
// input. Runs without the GIL.
inline void to_split(const Source& s, float* re, float* im) {
    using T = Source::Type;
    switch (s.type) {
        case T::F32:
            return detail::split_real<float>(s, re);
        case T::F64:
            return detail::split_real<double>(s, re);
        case T::LongDouble:
            return detail::split_real<long double>(s, re);
        case T::C64:
            return detail::split_complex<float>(s, re, im);
        case T::C128:
            return detail::split_complex<double>(s, re, im);
        case T::CLongDouble:
            return detail::split_complex<long double>(s, re, im);
    }
}

// Interleaves split blocks into out (the one pass over a complex output). Without the GIL.
inline void interleave(const float* re, const float* im, int64_t n, std::complex<float>* out) {
    const int chunks = static_cast<int>(std::min<int64_t>(n, 1 << 20));
    mrkit::parallel_blocks(chunks, [&](int cb, int ce) {
        const int64_t begin = n * cb / chunks, end = n * ce / chunks;
        if (im)
            for (int64_t k = begin; k < end; ++k) out[k] = {re[k], im[k]};
        else
            for (int64_t k = begin; k < end; ++k) out[k] = {re[k], 0.f};
    });
}

inline std::vector<py::ssize_t> fortran_strides(const std::vector<int64_t>& shape,
                                                py::ssize_t item) {
    std::vector<py::ssize_t> st(shape.size());
    py::ssize_t s = item;
    for (size_t d = 0; d < shape.size(); ++d) {
        st[d] = s;
        s *= static_cast<py::ssize_t>(shape[d] > 0 ? shape[d] : 1);
    }
    return st;
}

// A Fortran-ordered NumPy array that owns the memory at p (released with free). Needs the GIL.
template <class T>
py::array adopt(T* p, const std::vector<int64_t>& shape) {
    py::capsule owner(p, [](void* q) { std::free(q); });
    const std::vector<py::ssize_t> sh(shape.begin(), shape.end());
    return py::array_t<T>(sh, fortran_strides(shape, sizeof(T)), p, owner);
}

}  // namespace mrkit_py
