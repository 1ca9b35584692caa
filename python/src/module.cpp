// mrkit._mrkit: the Python adapter of the command layer. call() runs any layer command with
// Python arguments (arrays, numbers, option names) and returns its outputs as a tuple; the
// homodyne functions run the homodyne cores. The documented functions live in mrkit/__init__.py.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <new>

#include "python/src/host.hpp"

namespace mrkit_py {

py::tuple homodyne_filter(py::object kspace, py::object kx, py::object ky, py::object kz,
                          int threads);
py::array homodyne_multiply(py::object image, py::object low_image, int threads);

namespace {

py::tuple call(const std::string& command, const py::sequence& args, int threads) {
    std::vector<std::unique_ptr<cmd::Input>> owned;
    std::vector<const cmd::Input*> inputs;
    for (const py::handle a : args) {
        owned.push_back(make_input(a));
        inputs.push_back(owned.back().get());
    }
    const Threads team(threads);
    Timing timing;
    PyHost host;
    try {
        cmd::run(command, inputs, host);
    } catch (const cmd::Error& e) {
        if (auto pending = host.take_interruption()) throw *pending;  // the handler's own
        raise(e);
    } catch (const std::bad_alloc&) {
        raise(PyExc_MemoryError, "mrkit:" + command, "mrkit:" + command + ": not enough memory");
    }
    py::tuple out = host.results();
    timing.done();
    return out;
}

}  // namespace
}  // namespace mrkit_py

PYBIND11_MODULE(_mrkit, m) {
    using namespace mrkit_py;
    m.doc() = "Adapter of the mrkit command layer; use the functions of the mrkit package.";
    m.def("call", &call, py::arg("command"), py::arg("args"), py::arg("threads") = 0,
          "Runs one layer command on the given arguments; returns its outputs as a tuple.");
    m.def("commands", [] {
        std::vector<std::string> names;
        for (const cmd::Command& c : cmd::command_table())
            if (c.listed) names.emplace_back(c.name);
        return names;
    });
    m.def("homodyne_filter", &homodyne_filter, py::arg("kspace"), py::arg("kx"), py::arg("ky"),
          py::arg("kz"), py::arg("threads") = 0);
    m.def("homodyne_multiply", &homodyne_multiply, py::arg("image"), py::arg("low"),
          py::arg("threads") = 0);
    m.def("max_threads", [] { return omp_get_max_threads(); });
    m.def("last_spans", [] { return py::make_tuple(last_spans().library, last_spans().total); },
          "(library ms, total ms) of this thread's last call; for the benchmark.");
}
