// What a command's function sees: its call (inputs, outputs, failure) and the readers that
// check and convert arguments. Only command files include this; hosts use layer.hpp.
//
// A command checks every argument in a fixed order, the first failure ending the call with
// "mrkit:<command>: <argument> <problem>"; shapes and classes first, element data only after
// (see Input), then it allocates its outputs through the call and runs its one library call.
#pragma once

#include <cctype>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "gateway/commands/layer.hpp"
#include "recon/interrupt.hpp"

namespace mrkit::commands {

// The library indexes with 32-bit ints.
constexpr std::int64_t kMaxIndex = std::numeric_limits<std::int32_t>::max();

class Call {
  public:
    Call(const Command& command, const std::vector<const Input*>& inputs, Host& host);

    const char* name() const { return command_.name; }
    int inputs() const { return static_cast<int>(inputs_.size()); }
    const Input& in(int i) const { return *inputs_[static_cast<std::size_t>(i)]; }
    Host& host() const { return host_; }
    int axis_base() const { return host_.axis_base(); }

    // Ends the call: id "mrkit:<command>", message "mrkit:<command>: <what>".
    [[noreturn]] void fail(const std::string& what) const { fail(ErrorKind::Value, what); }
    [[noreturn]] void fail(ErrorKind kind, const std::string& what) const;
    void warn(const std::string& what) const;

    // Counts bytes the call is about to allocate against the host's limit; refuses with
    // "not enough memory for <what> (<size>)" past it.
    void need(std::uint64_t bytes, const std::string& what);

    // New outputs (see Host). Sizes are checked to fit 32-bit indices by the caller; the bytes
    // are counted with need(), and an allocation failure names the command and the size.
    Blocks<float> new_single(int slot, const std::vector<int>& dims, bool complex, Fill fill);
    Blocks<float> copy_single(int slot, const Input& source, const std::vector<int>& dims);
    Blocks<double> new_double(int slot, const std::vector<int>& dims, bool complex);
    void set_record(int slot, const std::vector<Field>& fields) { host_.set_record(slot, fields); }
    void set_strings(int slot, const std::vector<std::string>& s) { host_.set_strings(slot, s); }

    // Runs the command's library call f() inside Host::library_begins/ends, timed for the
    // internal "-spans" command. Returns what f returns. The library polls
    // Host::interrupted() on this thread between volumes or chunks; when it says stop, the
    // call ends with an Interrupted error.
    template <class F>
    auto library(F&& f) {
        Scope scope(*this);
        try {
            if constexpr (std::is_void_v<decltype(f())>)
                f();
            else
                return f();
        } catch (const mrkit::Interrupted&) {
            fail(ErrorKind::Interrupted, "interrupted");
        }
    }
    // Throws an Interrupted error when the host asks to stop.
    void poll() const;

  private:
    struct Scope {
        explicit Scope(Call& call);
        ~Scope();
        Call& call;
        double start;
        mrkit::InterruptGuard poll;
    };

    const Command& command_;
    const std::vector<const Input*>& inputs_;
    Host& host_;
    std::uint64_t used_ = 0;  // bytes counted by need()
    std::uint64_t limit_ = 0;
    bool limitKnown_ = false;
};

// Product of the sizes with zeros counted as ones: no partial product of the sizes, which the
// library forms in 32-bit ints, can exceed it. Saturates past kMaxIndex.
std::int64_t size_bound(const std::vector<std::int64_t>& dims);

// "46340 x 46340" (trailing ones past the second dimension left out), "16 GB".
std::string size_text(const std::vector<int>& dims);
std::string bytes_text(std::uint64_t bytes);

// ---------------------------------------------------------------------------------------------
// Readers. `name` is the argument's name in messages.

enum class Complexity { Any, Real };

// A single-precision data array as the library sees it: 32-bit sizes and split blocks.
struct Floats {
    const Input* source = nullptr;
    std::string name;
    std::vector<int> dims;  // as the host reports them, at least two entries
    int numel = 0;
    bool complex = false;
    const float* re = nullptr;  // set by load()
    const float* im = nullptr;  // null for real arrays

    int rank() const { return static_cast<int>(dims.size()); }
    int dim(int d) const { return d < rank() ? dims[d] : 1; }  // 0-based; 1 past the rank
    std::vector<int> padded(int n) const;
};

// Checks class, complexity, rank and 32-bit sizes without asking for the data.
Floats single_shape(Call& call, const Input& a, const std::string& name, Complexity complexity,
                    int maxRank);
// Asks the host for the blocks (converting them if it must); call after every shape check.
void load(Call& call, Floats& f);
inline Floats single_array(Call& call, const Input& a, const std::string& name,
                           Complexity complexity, int maxRank) {
    Floats f = single_shape(call, a, name, complexity, maxRank);
    load(call, f);
    return f;
}

// Refuses anything but a real, full numeric array ("<name> must be real and numeric").
void require_numeric(Call& call, const Input& a, const std::string& name);
// A real numeric array of any class with minCount..maxCount elements, as doubles. The count is
// checked before anything is read.
std::vector<double> numbers(Call& call, const Input& a, const std::string& name,
                            std::size_t minCount, std::size_t maxCount);
// The same, all finite.
std::vector<double> finite_numbers(Call& call, const Input& a, const std::string& name,
                                   std::size_t minCount, std::size_t maxCount);
double finite_scalar(Call& call, const Input& a, const std::string& name);
// A scalar the library takes as a float: finite after narrowing to single precision.
float single_scalar(Call& call, const Input& a, const std::string& name);
// " must be at most 3.4e38 in magnitude (single precision)": finite doubles beyond it.
std::string single_range_text();
// Whole numbers in lo..hi, one message for the lot ("dim must be an integer from 1 to 3").
std::vector<int> integers(Call& call, const Input& a, const std::string& name,
                          std::size_t minCount, std::size_t maxCount, std::int64_t lo,
                          std::int64_t hi);
// true or false: a logical or numeric scalar of value 0 or 1.
bool flag(Call& call, const Input& a, const std::string& name);
// A dimension argument in the host's numbering, returned 1-based: 1..count.
int dimension(Call& call, const Input& a, const std::string& name, int count);

// Lower-case copy, for option names and choices, which match in any case.
inline std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Name-value options from input `first` on: f(lower-case name, name as given, value) for each
// pair, after the pair count and the name's class are checked.
template <class F>
void for_each_option(Call& call, int first, F&& f) {
    if ((call.inputs() - first) % 2 != 0) call.fail("options must come in name-value pairs");
    for (int i = first; i < call.inputs(); i += 2) {
        if (call.in(i).element_class() != ElementClass::Char)
            call.fail(ErrorKind::Type, "option names must be strings");
        const std::string text = call.in(i).text();
        f(lower(text), text, call.in(i + 1));
    }
}

}  // namespace mrkit::commands
