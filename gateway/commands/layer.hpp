// The host-neutral command layer of mrkit: every argument check, every message and the one
// library call of each command, written once for all hosts (the Octave/MATLAB MEX module, the
// Python module). It knows nothing of mex.h or Python.
//
// A host adapter wraps each argument in an Input, implements Host (output allocation, warnings,
// an interruption poll) and calls run() or dispatch(); failures come back as Error.
//
//   struct MyHost : mrkit::commands::Host { ...new_single, new_double, set_record, ... };
//   std::vector<const mrkit::commands::Input*> args = {&x, &dim};   // after the command name
//   try { mrkit::commands::run("fftshift", args, host); }
//   catch (const mrkit::commands::Error& e) { raise e.kind as TypeError/ValueError/...; }
//
// Conventions the commands keep:
// - Arrays are column-major, first dimension fastest; dimensions 1-3 are x, y, z. Dimension
//   arguments (dim, coilDim) count from Host::axis_base() (1 for Octave, 0 for NumPy).
// - Data arrays are single precision, split complex (a real and an optional imaginary block).
//   A host that converts other floating types reports them as ElementClass::Single.
// - Sizes, scalars and coefficients may be any real numeric class; they are read as doubles.
// - Inputs are only read. Every result is a new array the host allocates when the layer asks.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mrkit::commands {

// ---------------------------------------------------------------------------------------------
// Inputs

enum class ElementClass {
    Single,
    Double,
    Int8,
    UInt8,
    Int16,
    UInt16,
    Int32,
    UInt32,
    Int64,
    UInt64,
    Logical,
    Char,  // text: command and option names
    Other  // cells, structs, objects, None...
};

// The split blocks of a single-precision array; im is null for real arrays.
struct SingleBlocks {
    const float* re = nullptr;
    const float* im = nullptr;
};

// A read-only view of one argument. The layer asks for the shape first and for element data
// only after every shape check of the command has passed: hosts may convert on request (Octave
// converts complex data to split blocks then; Python converts dtype and layout), and that
// conversion must never happen for an argument that is refused. A conversion that cannot be
// allocated throws std::bad_alloc; the layer reports it with the command and the argument.
class Input {
  public:
    virtual ~Input() = default;

    virtual ElementClass element_class() const = 0;
    virtual bool is_complex() const = 0;
    virtual bool is_sparse() const { return false; }
    // Sizes, first dimension first; a host may report any rank (NumPy: 0 or 1 too).
    virtual std::vector<std::int64_t> dims() const = 0;
    virtual std::int64_t numel() const = 0;

    // ElementClass::Single only, at most once per call. Blocks of numel() floats.
    virtual SingleBlocks single_blocks() const = 0;
    // Real numeric classes only (not Logical, Char, Other; never sparse, which the layer
    // refuses): the first n <= numel() elements in column-major order, converted to double.
    virtual void read_doubles(double* out, std::int64_t n) const = 0;
    // ElementClass::Char only: the whole text.
    virtual std::string text() const = 0;
};

// Ready-made inputs for hosts whose arguments are not arrays (Python ints, floats, keyword
// names). Both are plain values owned by the view.
class TextInput final : public Input {
  public:
    explicit TextInput(std::string text) : text_(std::move(text)) {}
    ElementClass element_class() const override { return ElementClass::Char; }
    bool is_complex() const override { return false; }
    std::vector<std::int64_t> dims() const override {
        return {1, static_cast<std::int64_t>(text_.size())};
    }
    std::int64_t numel() const override { return static_cast<std::int64_t>(text_.size()); }
    SingleBlocks single_blocks() const override { return {}; }
    void read_doubles(double*, std::int64_t) const override {}
    std::string text() const override { return text_; }

  private:
    std::string text_;
};

// Real doubles as a 1 x n row (or the given dims).
class NumberInput final : public Input {
  public:
    explicit NumberInput(std::vector<double> values)
        : values_(std::move(values)), dims_{1, static_cast<std::int64_t>(values_.size())} {}
    NumberInput(std::vector<double> values, std::vector<std::int64_t> dims)
        : values_(std::move(values)), dims_(std::move(dims)) {}
    ElementClass element_class() const override { return ElementClass::Double; }
    bool is_complex() const override { return false; }
    std::vector<std::int64_t> dims() const override { return dims_; }
    std::int64_t numel() const override { return static_cast<std::int64_t>(values_.size()); }
    SingleBlocks single_blocks() const override { return {}; }
    void read_doubles(double* out, std::int64_t n) const override {
        for (std::int64_t i = 0; i < n; ++i) out[i] = values_[static_cast<std::size_t>(i)];
    }
    std::string text() const override { return {}; }

  private:
    std::vector<double> values_;
    std::vector<std::int64_t> dims_;
};

// ---------------------------------------------------------------------------------------------
// Outputs and the host

// Writable blocks of a new array the host allocated; im is null for real arrays.
template <class T>
struct Blocks {
    T* re = nullptr;
    T* im = nullptr;
};

// Whether a new array must start zeroed (the library accumulates into some outputs, or leaves
// parts untouched) or may come as it is (every element is written).
enum class Fill { Zero, None };

// One named value of a record output (Octave: a struct field; Python: a dict entry). One value
// is a scalar, more a row vector.
struct Field {
    std::string name;
    std::vector<double> values;
};

// What a host provides. Output slots count from 0 in the order of the command's usage text;
// the layer fills every slot its command has, whatever the caller asked for (a MEX host hands
// back the requested ones and frees the rest, a Python host returns them all).
class Host {
  public:
    virtual ~Host() = default;

    // How many outputs the caller asked for; the layer refuses more than the command has
    // ("too many outputs"). A Python host returns 0 ("whatever the command gives").
    virtual int outputs_requested() const = 0;

    // A new single-precision array of these sizes in output slot `slot`. Throws
    // std::bad_alloc when it cannot be allocated (the layer names command and size).
    virtual Blocks<float> new_single(int slot, const std::vector<std::int64_t>& dims,
                                     bool complex, Fill fill) = 0;
    // A new single array holding a copy of `source` (an ElementClass::Single input whose shape
    // the command checked), for the library's in-place operations. The default asks for the
    // source's blocks and copies them; a host that converts while copying overrides it so that
    // the data is read once.
    virtual Blocks<float> copy_single(int slot, const Input& source);
    // A new double-precision array (real, or complex when asked), zero-filled.
    virtual Blocks<double> new_double(int slot, const std::vector<std::int64_t>& dims,
                                      bool complex) = 0;
    // Non-array outputs: a record of named numbers, a list of strings.
    virtual void set_record(int slot, const std::vector<Field>& fields) = 0;
    virtual void set_strings(int slot, const std::vector<std::string>& strings) = 0;

    // A warning; the call goes on. id is "mrkit:<command>", message "mrkit:<command>: ...".
    virtual void warn(const std::string& id, const std::string& message) = 0;

    // Polled between volumes or chunks of long library calls: true stops the call with an
    // Error of kind Interrupted. Must be cheap and callable from the thread that called run().
    virtual bool interrupted() { return false; }

    // Bracket the command's library call: nothing else of the host is called in between but
    // interrupted(). A Python host releases the GIL here.
    virtual void library_begins() {}
    virtual void library_ends() {}

    // Number of the first dimension in dimension arguments and their messages.
    virtual int axis_base() const { return 1; }

    // Bytes one call may allocate (outputs, conversions, the library's scratch); a call that
    // would need more is refused before anything is allocated. The default is the memory the
    // system reports available, lowered to the address-space limit (ulimit -v) when one is set.
    virtual std::uint64_t memory_limit() const;
};

// ---------------------------------------------------------------------------------------------
// Errors

enum class ErrorKind {
    Type,         // wrong class, complexity or kind of argument, wrong argument count
    Value,        // right kind, wrong size or value
    Memory,       // an output, conversion or scratch block that cannot be allocated
    Interrupted,  // Host::interrupted() said stop
};

// A refused or failed call. Nothing the call allocated is left behind when it is thrown
// (the host frees outputs of a call that ends with an error).
class Error : public std::runtime_error {
  public:
    Error(ErrorKind kind, std::string id, const std::string& message)
        : std::runtime_error(message), kind_(kind), id_(std::move(id)) {}
    ErrorKind kind() const { return kind_; }
    const std::string& id() const { return id_; }  // "mrkit:<command>" or "mrkit:command"
    // what(): "mrkit:<command>: <argument> <problem>"

  private:
    ErrorKind kind_;
    std::string id_;
};

// ---------------------------------------------------------------------------------------------
// Commands

class Call;  // gateway/commands/call.hpp: what a command's function sees

struct Command {
    const char* name;   // "sos"
    const char* usage;  // "y = mrkit('sos', x, coilDim)", quoted in count errors
    int minInputs;      // counts exclude the command name
    int maxInputs;      // kManyInputs for name-value options
    int outputs;        // slots the command fills
    void (*run)(Call&);
    bool listed;  // named in "valid commands: ..."; false for internal commands
};

constexpr int kManyInputs = 1 << 30;

// Every command, listed ones in the order of the help text.
const std::vector<Command>& command_table();
// The listed names joined by ", ".
std::string command_list();

// Runs one command with its inputs (the command name not among them). Throws Error.
void run(std::string_view command, const std::vector<const Input*>& inputs, Host& host);

// The MEX calling form: args[0] is the command string, the command's inputs follow. Refuses a
// missing or non-text first argument and unknown names with the id "mrkit:command".
void dispatch(const std::vector<const Input*>& args, Host& host);

}  // namespace mrkit::commands
