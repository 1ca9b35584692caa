// The Python host of the command layer: NumPy arrays as layer inputs, NumPy arrays as its
// outputs, layer errors as Python exceptions.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <omp.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gateway/commands/layer.hpp"
#include "python/src/arrays.hpp"

namespace mrkit_py {

namespace cmd = mrkit::commands;

// Runs a block without the GIL when it is held (conversions reached from the layer's checks).
template <class F>
void without_gil(F&& f) {
    if (PyGILState_Check()) {
        py::gil_scoped_release release;
        f();
    } else {
        f();
    }
}

// One NumPy array (or anything np.asarray turns into one) as a layer input. Floating and
// complex dtypes count as single precision: they are converted, with the layout, into split
// column-major blocks when the layer first asks for the data, in one pass without the GIL.
// A real float32 array in column-major order is handed over as it is.
class ArrayInput final : public cmd::Input {
  public:
    explicit ArrayInput(py::array a) : array_(std::move(a)) {
        floating_ = describe(array_, source_);
        if (!floating_) {
            source_.shape.assign(array_.shape(), array_.shape() + array_.ndim());
            source_.numel = 1;
            for (int64_t n : source_.shape) source_.numel *= n;
        }
        class_ = floating_ ? cmd::ElementClass::Single : integer_class(array_.dtype());
    }

    cmd::ElementClass element_class() const override { return class_; }
    bool is_complex() const override {
        return floating_ ? source_.complex() : array_.dtype().kind() == 'c';
    }
    std::vector<std::int64_t> dims() const override { return source_.shape; }
    std::int64_t numel() const override { return source_.numel; }

    cmd::SingleBlocks single_blocks() const override {
        if (source_.library_layout()) return {reinterpret_cast<const float*>(source_.data), nullptr};
        if (!re_) {
            re_ = FloatBlock(source_.numel, false);
            if (source_.complex()) im_ = FloatBlock(source_.numel, false);
            without_gil([&] { to_split(source_, re_.get(), im_.get()); });
        }
        return {re_.get(), im_ ? im_.get() : nullptr};
    }

    // Into new blocks the caller owns: the copy of an in-place command's input is its one pass.
    void convert_into(float* re, float* im) const {
        without_gil([&] { to_split(source_, re, im); });
    }

    void read_doubles(double* out, std::int64_t n) const override {
        py::gil_scoped_acquire gil;
        py::array_t<double, py::array::f_style | py::array::forcecast> d(
            is_complex() ? py::array(array_.attr("real")) : array_);
        const double* p = d.data();
        for (std::int64_t i = 0; i < n; ++i) out[i] = p[i];
    }
    std::string text() const override { return {}; }

  private:
    static cmd::ElementClass integer_class(const py::dtype& dt) {
        using C = cmd::ElementClass;
        const auto size = dt.itemsize();
        switch (dt.kind()) {
            case 'b':
                return C::Logical;
            case 'i':
                return size == 1 ? C::Int8 : size == 2 ? C::Int16 : size == 4 ? C::Int32 : C::Int64;
            case 'u':
                return size == 1   ? C::UInt8
                       : size == 2 ? C::UInt16
                       : size == 4 ? C::UInt32
                                   : C::UInt64;
            case 'U':
            case 'S':
                return C::Char;
            default:
                return C::Other;
        }
    }

    py::array array_;
    Source source_;
    bool floating_ = false;
    cmd::ElementClass class_;
    mutable FloatBlock re_, im_;
};

// Wraps one Python argument: str -> text, None -> an "Other" input, anything else -> np.asarray.
std::unique_ptr<cmd::Input> make_input(const py::handle& arg);

// Collects what a command produces and hands it to Python after the call.
class PyHost final : public cmd::Host {
  public:
    int outputs_requested() const override { return 0; }
    int axis_base() const override { return 0; }

    cmd::Blocks<float> new_single(int slot, const std::vector<std::int64_t>& dims, bool complex,
                                  cmd::Fill fill) override;
    cmd::Blocks<float> copy_single(int slot, const cmd::Input& source) override;
    cmd::Blocks<double> new_double(int slot, const std::vector<std::int64_t>& dims,
                                   bool complex) override;
    void set_record(int slot, const std::vector<cmd::Field>& fields) override;
    void set_strings(int slot, const std::vector<std::string>& strings) override;
    void warn(const std::string& id, const std::string& message) override;
    bool interrupted() override;
    void library_begins() override;
    void library_ends() override;

    // The outputs as a tuple, in slot order. Needs the GIL.
    py::tuple results();
    // The exception a signal handler raised when interrupted() said stop (KeyboardInterrupt
    // for Ctrl-C), or null.
    std::unique_ptr<py::error_already_set> take_interruption() { return std::move(interruption_); }

  private:
    struct Output {
        enum class Kind { Single, Double, Object } kind = Kind::Object;
        std::vector<int64_t> dims;
        bool complex = false;
        FloatBlock re, im;
        std::unique_ptr<double[]> dre, dim;  // double outputs
        py::object object;                   // records and string lists
    };
    Output& slot(int i);

    std::map<int, Output> outputs_;
    PyThreadState* saved_ = nullptr;
    double libraryStart_ = 0;
    double lastPoll_ = 0;
    std::unique_ptr<py::error_already_set> interruption_;
};

// Wall time of this thread's last call, in ms: inside the library, and from the call's entry
// to its outputs being NumPy arrays. bench/bench_python.py reads them to tell the adapter's
// cost from the library's own time.
struct Spans {
    double library = 0;
    double total = 0;
};
Spans& last_spans();
double now_ms();

// Measures a call: total from construction to done(), the library part from begin() to end().
class Timing {
  public:
    Timing() : start_(now_ms()) { last_spans() = Spans{}; }
    void begin() { library_ = now_ms(); }
    void end() { last_spans().library += now_ms() - library_; }
    void done() { last_spans().total = now_ms() - start_; }

  private:
    double start_, library_ = 0;
};

// Sets the calling thread's OpenMP team size for one call and restores it after.
class Threads {
  public:
    explicit Threads(int n) : previous_(omp_get_max_threads()) {
        if (n > 0) omp_set_num_threads(n);
    }
    ~Threads() { omp_set_num_threads(previous_); }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

  private:
    int previous_;
};

// Raises the Python exception of a layer error: TypeError, ValueError, MemoryError or
// KeyboardInterrupt, with the layer's message and its id as the attribute `id`.
[[noreturn]] void raise(const cmd::Error& e);
[[noreturn]] void raise(PyObject* type, const std::string& id, const std::string& message);

}  // namespace mrkit_py
