#include "python/src/host.hpp"

#include <chrono>
#include <thread>

namespace mrkit_py {

namespace {

// Ctrl-C reaches Python on the main thread only; other threads never look.
const std::thread::id kMainThread = std::this_thread::get_id();

int64_t count(const std::vector<int64_t>& dims) {
    int64_t n = 1;
    for (int64_t d : dims) n *= d;
    return n;
}

class NoneInput final : public cmd::Input {
  public:
    cmd::ElementClass element_class() const override { return cmd::ElementClass::Other; }
    bool is_complex() const override { return false; }
    std::vector<std::int64_t> dims() const override { return {0, 0}; }
    std::int64_t numel() const override { return 0; }
    cmd::SingleBlocks single_blocks() const override { return {}; }
    void read_doubles(double*, std::int64_t) const override {}
    std::string text() const override { return {}; }
};

}  // namespace

Spans& last_spans() {
    thread_local Spans spans;
    return spans;
}

double now_ms() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

std::unique_ptr<cmd::Input> make_input(const py::handle& arg) {
    if (py::isinstance<py::str>(arg)) return std::make_unique<cmd::TextInput>(arg.cast<std::string>());
    if (arg.is_none()) return std::make_unique<NoneInput>();
    // Lists of numbers and scalars become arrays; anything NumPy cannot read as one becomes an
    // object array, which the layer refuses by class.
    return std::make_unique<ArrayInput>(as_array(arg));
}

PyHost::Output& PyHost::slot(int i) {
    Output& o = outputs_[i];
    o = Output{};  // a slot filled twice keeps the last
    return o;
}

cmd::Blocks<float> PyHost::new_single(int i, const std::vector<std::int64_t>& dims, bool complex,
                                      cmd::Fill fill) {
    Output& o = slot(i);
    o.kind = Output::Kind::Single;
    o.dims = dims;
    o.complex = complex;
    const int64_t n = count(dims);
    o.re = FloatBlock(n, fill == cmd::Fill::Zero);
    if (complex) o.im = FloatBlock(n, fill == cmd::Fill::Zero);
    return {o.re.get(), complex ? o.im.get() : nullptr};
}

cmd::Blocks<float> PyHost::copy_single(int i, const cmd::Input& source) {
    const auto* a = dynamic_cast<const ArrayInput*>(&source);
    if (!a) return Host::copy_single(i, source);
    const cmd::Blocks<float> b = new_single(i, source.dims(), source.is_complex(), cmd::Fill::None);
    a->convert_into(b.re, b.im);
    return b;
}

cmd::Blocks<double> PyHost::new_double(int i, const std::vector<std::int64_t>& dims,
                                       bool complex) {
    Output& o = slot(i);
    o.kind = Output::Kind::Double;
    o.dims = dims;
    o.complex = complex;
    const size_t n = static_cast<size_t>(count(dims));
    o.dre.reset(new double[n]());
    if (complex) o.dim.reset(new double[n]());
    return {o.dre.get(), o.dim.get()};
}

void PyHost::set_record(int i, const std::vector<cmd::Field>& fields) {
    py::gil_scoped_acquire gil;
    py::dict d;
    for (const cmd::Field& f : fields) {
        if (f.values.size() == 1)
            d[py::str(f.name)] = py::float_(f.values[0]);
        else
            d[py::str(f.name)] = py::array_t<double>(static_cast<py::ssize_t>(f.values.size()),
                                                     f.values.data());
    }
    slot(i).object = std::move(d);
}

void PyHost::set_strings(int i, const std::vector<std::string>& strings) {
    py::gil_scoped_acquire gil;
    py::list l;
    for (const std::string& s : strings) l.append(py::str(s));
    slot(i).object = std::move(l);
}

void PyHost::warn(const std::string&, const std::string& message) {
    py::gil_scoped_acquire gil;
    if (PyErr_WarnEx(PyExc_RuntimeWarning, message.c_str(), 1) != 0) throw py::error_already_set();
}

// Signals are only readable with the GIL, which the library runs without: the poll takes it
// at most every 50 ms, so that a busy interpreter thread holding it delays the library little.
bool PyHost::interrupted() {
    if (std::this_thread::get_id() != kMainThread) return false;
    const double now = now_ms();
    if (now - lastPoll_ < 50) return false;
    lastPoll_ = now;
    py::gil_scoped_acquire gil;
    if (PyErr_CheckSignals() == 0) return false;
    interruption_ = std::make_unique<py::error_already_set>();  // takes the pending exception
    return true;
}

void PyHost::library_begins() {
    if (PyGILState_Check()) saved_ = PyEval_SaveThread();
    libraryStart_ = now_ms();
}

void PyHost::library_ends() {
    last_spans().library += now_ms() - libraryStart_;
    if (saved_) PyEval_RestoreThread(saved_);
    saved_ = nullptr;
}

py::tuple PyHost::results() {
    int n = 0;
    for (const auto& kv : outputs_) n = std::max(n, kv.first + 1);
    py::tuple t(n);
    for (auto& [i, o] : outputs_) {
        py::object value = py::none();
        if (o.kind == Output::Kind::Object) {
            value = o.object;
        } else if (o.kind == Output::Kind::Single && !o.complex) {
            value = adopt(o.re.release(), o.dims);
        } else if (o.kind == Output::Kind::Single) {
            const int64_t m = count(o.dims);
            FloatBlock buffer(2 * m, false);
            auto* c = reinterpret_cast<std::complex<float>*>(buffer.release());
            {
                py::gil_scoped_release release;
                interleave(o.re.get(), o.im.get(), m, c);
            }
            o.re = FloatBlock();
            o.im = FloatBlock();
            value = adopt(c, o.dims);
        } else {
            const int64_t m = count(o.dims);
            if (o.complex) {
                py::array_t<std::complex<double>, py::array::f_style> a(
                    std::vector<py::ssize_t>(o.dims.begin(), o.dims.end()));
                auto* c = a.mutable_data();
                for (int64_t k = 0; k < m; ++k) c[k] = {o.dre[k], o.dim[k]};
                value = a;
            } else {
                py::array_t<double, py::array::f_style> a(
                    std::vector<py::ssize_t>(o.dims.begin(), o.dims.end()));
                std::copy(o.dre.get(), o.dre.get() + m, a.mutable_data());
                value = a;
            }
        }
        t[static_cast<size_t>(i)] = value;
    }
    return t;
}

void raise(PyObject* type, const std::string& id, const std::string& message) {
    py::object e = py::reinterpret_borrow<py::object>(type)(message);
    e.attr("id") = id;
    PyErr_SetObject(type, e.ptr());
    throw py::error_already_set();
}

void raise(const cmd::Error& e) {
    PyObject* type = PyExc_ValueError;
    switch (e.kind()) {
        case cmd::ErrorKind::Type:
            type = PyExc_TypeError;
            break;
        case cmd::ErrorKind::Value:
            type = PyExc_ValueError;
            break;
        case cmd::ErrorKind::Memory:
            type = PyExc_MemoryError;
            break;
        case cmd::ErrorKind::Interrupted:
            type = PyExc_KeyboardInterrupt;
            break;
    }
    raise(type, e.id(), e.what());
}

}  // namespace mrkit_py
