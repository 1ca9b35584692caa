// The layer's machinery: the call a command sees, the host defaults, dispatch, and the internal
// "-spans" command that tells a benchmark the library's share of a call.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>

#include "gateway/commands/call.hpp"
#include "recon/parallel.hpp"

namespace mrkit::commands {
namespace {

double now_ms() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

// Wall time of this thread's last command: inside the library, and from the command's start
// to its outputs being ready.
struct Spans {
    double library = 0;
    double command = 0;
};
thread_local Spans lastSpans;

// A "Key:   123 kB" line of a /proc file, in bytes; 0 when absent.
std::uint64_t proc_kb(const char* file, const char* key) {
    std::ifstream in(file);
    std::string name;
    std::uint64_t value = 0;
    std::string unit;
    while (in >> name >> value) {
        std::getline(in, unit);
        if (name == key) return value * 1024;
    }
    return 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Host defaults

Blocks<float> Host::copy_single(int slot, const Input& source) {
    const std::vector<std::int64_t> dims = source.dims();
    const bool complex = source.is_complex();
    const Blocks<float> out = new_single(slot, dims, complex, Fill::None);
    const SingleBlocks in = source.single_blocks();
    const int n = static_cast<int>(source.numel());
    mrkit::parallel_blocks(n, [&](int begin, int end) {
        std::copy(in.re + begin, in.re + end, out.re + begin);
        if (complex) std::copy(in.im + begin, in.im + end, out.im + begin);
    });
    return out;
}

std::uint64_t Host::memory_limit() const {
    std::uint64_t limit = proc_kb("/proc/meminfo", "MemAvailable:");
    if (limit == 0) {
        const long pages = sysconf(_SC_AVPHYS_PAGES), page = sysconf(_SC_PAGESIZE);
        limit = pages > 0 && page > 0 ? static_cast<std::uint64_t>(pages) * page : UINT64_MAX;
    }
    rlimit as{};
    if (getrlimit(RLIMIT_AS, &as) == 0 && as.rlim_cur != RLIM_INFINITY) {
        const std::uint64_t used = proc_kb("/proc/self/status", "VmSize:");
        const std::uint64_t room = as.rlim_cur > used ? as.rlim_cur - used : 0;
        limit = std::min(limit, room);
    }
    return limit;
}

// ---------------------------------------------------------------------------------------------
// Call

Call::Call(const Command& command, const std::vector<const Input*>& inputs, Host& host)
    : command_(command), inputs_(inputs), host_(host) {}

void Call::fail(ErrorKind kind, const std::string& what) const {
    const std::string id = std::string("mrkit:") + name();
    throw Error(kind, id, id + ": " + what);
}

void Call::warn(const std::string& what) const {
    const std::string id = std::string("mrkit:") + name();
    host_.warn(id, id + ": " + what);
}

void Call::need(std::uint64_t bytes, const std::string& what) {
    if (!limitKnown_) {
        limit_ = host_.memory_limit();
        limitKnown_ = true;
    }
    if (bytes > limit_ || used_ > limit_ - bytes)
        fail(ErrorKind::Memory, "not enough memory for " + what + " (" + bytes_text(bytes) + ")");
    used_ += bytes;
}

namespace {

std::vector<std::int64_t> widen(const std::vector<int>& dims) {
    return std::vector<std::int64_t>(dims.begin(), dims.end());
}

std::uint64_t single_bytes(const std::vector<int>& dims, bool complex) {
    std::uint64_t n = complex ? 8 : 4;
    for (int d : dims) n *= static_cast<std::uint64_t>(d);
    return n;
}

std::string output_text(const std::vector<int>& dims, bool complex) {
    return "a " + size_text(dims) + (complex ? " complex output" : " real output");
}

}  // namespace

Blocks<float> Call::new_single(int slot, const std::vector<int>& dims, bool complex, Fill fill) {
    const std::string what = output_text(dims, complex);
    const std::uint64_t bytes = single_bytes(dims, complex);
    need(bytes, what);
    try {
        return host_.new_single(slot, widen(dims), complex, fill);
    } catch (const std::bad_alloc&) {
        fail(ErrorKind::Memory, "not enough memory for " + what + " (" + bytes_text(bytes) + ")");
    }
}

Blocks<float> Call::copy_single(int slot, const Input& source, const std::vector<int>& dims) {
    const bool complex = source.is_complex();
    const std::string what = output_text(dims, complex);
    const std::uint64_t bytes = single_bytes(dims, complex);
    need(bytes, what);
    try {
        return host_.copy_single(slot, source);
    } catch (const std::bad_alloc&) {
        fail(ErrorKind::Memory, "not enough memory for " + what + " (" + bytes_text(bytes) + ")");
    }
}

Blocks<double> Call::new_double(int slot, const std::vector<int>& dims, bool complex) {
    const std::string what = output_text(dims, complex);
    const std::uint64_t bytes = 2 * single_bytes(dims, complex);
    need(bytes, what);
    try {
        return host_.new_double(slot, widen(dims), complex);
    } catch (const std::bad_alloc&) {
        fail(ErrorKind::Memory, "not enough memory for " + what + " (" + bytes_text(bytes) + ")");
    }
}

void Call::poll() const {
    if (host_.interrupted()) fail(ErrorKind::Interrupted, "interrupted");
}

Call::Scope::Scope(Call& c)
    : call(c), start(now_ms()), poll([](void* host) { return static_cast<Host*>(host)->interrupted(); }, &c.host_) {
    call.host_.library_begins();
}
Call::Scope::~Scope() {
    call.host_.library_ends();
    lastSpans.library = now_ms() - start;
}

// ---------------------------------------------------------------------------------------------
// Texts

std::string size_text(const std::vector<int>& dims) {
    std::size_t n = dims.size();
    while (n > 2 && dims[n - 1] == 1) --n;
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += (i ? " x " : "") + std::to_string(dims[i]);
    return s;
}

std::string bytes_text(std::uint64_t bytes) {
    static const char* const units[] = {"bytes", "KB", "MB", "GB", "TB"};
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1024 && u < 4) {
        v /= 1024;
        ++u;
    }
    char text[32];
    if (u == 0)
        std::snprintf(text, sizeof text, "%.0f bytes", v);
    else
        std::snprintf(text, sizeof text, v < 10 ? "%.1f %s" : "%.0f %s", v, units[u]);
    return text;
}

// ---------------------------------------------------------------------------------------------
// Dispatch

std::string command_list() {
    std::string s;
    for (const Command& c : command_table())
        if (c.listed) s += (s.empty() ? "" : ", ") + std::string(c.name);
    return s;
}

namespace {

void arity(const Call& call, const Command& c, int outputsRequested) {
    if (call.inputs() < c.minInputs || call.inputs() > c.maxInputs)
        call.fail(ErrorKind::Type, std::string("wrong number of inputs; usage: ") + c.usage);
    if (outputsRequested > c.outputs)
        call.fail(ErrorKind::Type, std::string("too many outputs; usage: ") + c.usage);
}

[[noreturn]] void refuse(ErrorKind kind, const std::string& message) {
    throw Error(kind, "mrkit:command", message);
}

}  // namespace

void run(std::string_view command, const std::vector<const Input*>& inputs, Host& host) {
    for (const Command& c : command_table()) {
        if (command != c.name) continue;
        Call call(c, inputs, host);
        const double start = now_ms();
        arity(call, c, host.outputs_requested());
        try {
            c.run(call);
        } catch (const std::bad_alloc&) {
            call.fail(ErrorKind::Memory, "not enough memory");
        } catch (const std::length_error&) {
            call.fail(ErrorKind::Memory, "not enough memory");
        }
        if (c.listed) lastSpans.command = now_ms() - start;
        return;
    }
    refuse(ErrorKind::Value, "mrkit: unknown command '" + std::string(command) +
                                 "'; valid commands: " + command_list());
}

void dispatch(const std::vector<const Input*>& args, Host& host) {
    if (args.empty() || args[0]->element_class() != ElementClass::Char)
        refuse(ErrorKind::Type,
               "mrkit: the first input must be a command string; valid commands: " +
                   command_list());
    const std::vector<const Input*> inputs(args.begin() + 1, args.end());
    run(args[0]->text(), inputs, host);
}

// The internal command: [library, command] in ms of this thread's last call.
void spans(Call& call) {
    const Blocks<double> t = call.new_double(0, {1, 2}, false);
    t.re[0] = lastSpans.library;
    t.re[1] = lastSpans.command;
}

}  // namespace mrkit::commands
