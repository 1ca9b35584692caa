// homodyne_filter and homodyne_multiply for Python over the plain cores of gateway/homodyne.hpp.
// The checks and texts are those of the homodyne MEX module, in its order; only the safe
// forms exist (new arrays, inputs untouched). Class checks accept every floating dtype, which
// is converted to single precision as the MEX module requires it.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <limits>
#include <vector>

#include "gateway/homodyne.hpp"
#include "python/src/host.hpp"

namespace mrkit_py {

namespace {

constexpr int64_t kMaxIndex = std::numeric_limits<int32_t>::max();

// Octave shows a MEX error with the module's name in front; so does Python.
[[noreturn]] void fail(PyObject* type, const char* text) {
    raise(type, "homodyne", std::string("homodyne: ") + text);
}

// Sizes as Octave reports them: at least two, no trailing ones past the second.
std::vector<int64_t> host_dims(const std::vector<int64_t>& shape) {
    std::vector<int64_t> d(shape);
    while (d.size() > 2 && d.back() == 1) d.pop_back();
    while (d.size() < 2) d.push_back(1);
    return d;
}

bool is_empty(const std::vector<int64_t>& shape) {
    return host_dims(shape)[0] == 0;
}

// Every size and element index fits a 32-bit int (zeros counted as ones).
bool fits_int32(const std::vector<int64_t>& shape) {
    int64_t p = 1;
    for (int64_t d : shape) {
        p *= d > 1 ? d : 1;
        if (p > kMaxIndex) return false;
    }
    return true;
}

std::vector<int> ints(const std::vector<int64_t>& v) {
    return std::vector<int>(v.begin(), v.end());
}

const char* const kAxis[3] = {"kx", "ky", "kz"};

// One k-space range: absent (None or empty) or two real numbers, checked as the MEX module
// checks a double range; `stage` 0 checks the class, 1 the complexity, 2 the shape.
struct Range {
    py::array array;
    bool present = false;
    double values[2] = {0, 0};
};

void check_range(Range& r, int axis, int stage) {
    if (!r.present) return;
    const char kind = r.array.dtype().kind();
    std::string name(kAxis[axis]);
    if (stage == 0 && kind != 'f' && kind != 'i' && kind != 'u' && kind != 'c')
        fail(PyExc_TypeError, (name + "-range must be of type double.").c_str());
    if (stage == 1 && kind == 'c')
        fail(PyExc_TypeError, (name + "-range must be real valued.").c_str());
    if (stage != 2) return;
    std::vector<int64_t> shape(r.array.shape(), r.array.shape() + r.array.ndim());
    if (shape.size() == 1) shape.insert(shape.begin(), 1);  // a 1-D range reads as a row
    const std::vector<int64_t> d = host_dims(shape);
    if (d.size() > 2) fail(PyExc_ValueError, ("The " + name + "-range must be 1 dimensional vector.").c_str());
    const int64_t rows = d[0], columns = d[1];
    if (rows != 1) {
        if (columns != 1)
            fail(PyExc_ValueError,
                 ("The " + name + "-range coordinates must be 1 dimensional vector.").c_str());
        if (rows != 2 && columns != 2)
            fail(PyExc_ValueError, ("The " + name + "-range must be of length 2.").c_str());
    } else if (columns != 2) {
        fail(PyExc_ValueError, ("The " + name + "-range must be of length 2.").c_str());
    }
    py::array_t<double, py::array::f_style | py::array::forcecast> v(r.array);
    r.values[0] = v.data()[0];
    r.values[1] = v.data()[1];
}

}  // namespace

// (low, weighted): the unweighted centre block and the weighted k-space.
py::tuple homodyne_filter(py::object kspace, py::object kx, py::object ky, py::object kz,
                          int threads) {
    Timing timing;
    const ArrayInput data(as_array(kspace));
    Range ranges[3];
    const py::object given[3] = {kx, ky, kz};
    for (int r = 0; r < 3; ++r) {
        if (given[r].is_none()) continue;
        ranges[r].array = as_array(given[r]);
        ranges[r].present = ranges[r].array.size() > 0;
    }
    if (data.element_class() != cmd::ElementClass::Single)
        fail(PyExc_TypeError, "Data must be of type single.");
    if (is_empty(data.dims())) fail(PyExc_ValueError, "Data cannot be empty.");
    for (int stage = 0; stage < 3; ++stage)
        for (int r = 0; r < 3; ++r) check_range(ranges[r], r, stage);
    if (!fits_int32(data.dims())) fail(PyExc_ValueError, "Data is too large for 32-bit indices.");

    const std::vector<int> dims = ints(data.dims().empty() ? std::vector<int64_t>{1} : data.dims());
    const int ndims = static_cast<int>(dims.size());
    const double* rangeValues[3] = {nullptr, nullptr, nullptr};
    for (int r = 0; r < 3; ++r)
        if (ranges[r].present) rangeValues[r] = ranges[r].values;
    int n[3];
    const int nvol = homodyne_volume_sizes(ndims, dims.data(), n);
    std::vector<float> weights(static_cast<size_t>(n[0]) + n[1] + n[2]);
    int edges[3][2];
    const int count = homodyne_filter_setup(n, rangeValues, weights.data(), edges);
    std::vector<int> bandDims(ndims);
    homodyne_band_dims(ndims, dims.data(), edges, bandDims.data());

    const Threads team(threads);
    PyHost host;
    const bool complex = data.is_complex();
    const cmd::Blocks<float> low =
        host.new_single(0, {bandDims.begin(), bandDims.end()}, true, cmd::Fill::Zero);
    const cmd::Blocks<float> weighted =
        host.new_single(1, {dims.begin(), dims.end()}, complex, cmd::Fill::None);
    const cmd::SingleBlocks in = data.single_blocks();
    {
        py::gil_scoped_release release;
        timing.begin();
        ::homodyne_crop(in.re, in.im, n, nvol, edges, low.re, low.im);
        ::homodyne_weight(in.re, in.im, n, nvol, weights.data(), count, weighted.re, weighted.im);
        timing.end();
    }
    py::tuple out = host.results();
    timing.done();
    return out;
}

// The image with the low-resolution phase removed: real single, the image's shape.
py::array homodyne_multiply(py::object image, py::object low_image, int threads) {
    Timing timing;
    const ArrayInput data(as_array(image));
    const ArrayInput low(as_array(low_image));
    if (is_empty(low.dims())) fail(PyExc_ValueError, "The low resolution data cannot be empty.");
    if (data.element_class() != cmd::ElementClass::Single)
        fail(PyExc_TypeError, "Data must be of type single.");
    if (is_empty(data.dims())) fail(PyExc_ValueError, "Data cannot be empty.");
    if (low.element_class() != cmd::ElementClass::Single)
        fail(PyExc_TypeError, "LowRes must be of type single.");
    const std::vector<int> dims = ints(host_dims(data.dims()));
    const std::vector<int> lowDims = ints(host_dims(low.dims()));
    if (dims.size() != lowDims.size())
        fail(PyExc_ValueError,
             "The data must have the same number of dimensions than the low resolution data");
    if (!fits_int32(data.dims()) || !fits_int32(low.dims()))
        fail(PyExc_ValueError, "Data is too large for 32-bit indices.");
    const int ndims = static_cast<int>(dims.size());
    if (!homodyne_low_res_fits(ndims, dims.data(), lowDims.data()))
        fail(PyExc_ValueError,
             "The low resolution data must have no empty dimension and the data's sizes from "
             "the fourth dimension on.");

    const Threads team(threads);
    PyHost host;
    const cmd::Blocks<float> out =
        host.new_single(0, {dims.begin(), dims.end()}, false, cmd::Fill::None);
    const cmd::SingleBlocks in = data.single_blocks();
    const cmd::SingleBlocks l = low.single_blocks();
    {
        py::gil_scoped_release release;
        timing.begin();
        ::homodyne_multiply(in.re, in.im, l.re, l.im, ndims, dims.data(), lowDims.data(), out.re,
                            nullptr);
        timing.end();
    }
    py::array result = host.results()[0].attr("reshape")(data.dims(), py::arg("order") = "F");
    timing.done();
    return result;
}

}  // namespace mrkit_py
