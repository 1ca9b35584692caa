// The mrkit MEX module: the reconstruction library for Octave and MATLAB users. A thin adapter
// over the command layer (gateway/commands/), which checks every argument and calls the
// library; here host arrays become Inputs and the layer's outputs become mxArrays.
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "gateway/commands/layer.hpp"
#include "mex.h"

#ifdef MRKIT_MATLAB_UT
extern "C" bool utIsInterruptPending();  // libut: MATLAB's Ctrl-C flag
#elif !defined(MRKIT_MATLAB)
#include <octave/quit.h>
#endif

namespace cmd = mrkit::commands;

namespace {

void stop_for_host_interrupt() {
#ifndef MRKIT_MATLAB
    octave_quit();  // throws octave::interrupt_exception when an interrupt is pending
#endif
}

cmd::ElementClass element_class(const mxArray* a) {
    switch (mxGetClassID(a)) {
        case mxSINGLE_CLASS: return cmd::ElementClass::Single;
        case mxDOUBLE_CLASS: return cmd::ElementClass::Double;
        case mxINT8_CLASS: return cmd::ElementClass::Int8;
        case mxUINT8_CLASS: return cmd::ElementClass::UInt8;
        case mxINT16_CLASS: return cmd::ElementClass::Int16;
        case mxUINT16_CLASS: return cmd::ElementClass::UInt16;
        case mxINT32_CLASS: return cmd::ElementClass::Int32;
        case mxUINT32_CLASS: return cmd::ElementClass::UInt32;
        case mxINT64_CLASS: return cmd::ElementClass::Int64;
        case mxUINT64_CLASS: return cmd::ElementClass::UInt64;
        case mxLOGICAL_CLASS: return cmd::ElementClass::Logical;
        case mxCHAR_CLASS: return cmd::ElementClass::Char;
        default: return cmd::ElementClass::Other;
    }
}

template <class T>
void widen(const void* p, double* out, std::int64_t n) {
    const T* typed = static_cast<const T*>(p);
    for (std::int64_t i = 0; i < n; ++i) out[i] = static_cast<double>(typed[i]);
}

// Octave reports a failed allocation by its own error, which would lose the command's name.
template <class F>
auto allocating(F&& f) {
    try {
        return f();
    } catch (...) {
        throw std::bad_alloc();
    }
}

class MxInput final : public cmd::Input {
  public:
    explicit MxInput(const mxArray* a) : a_(a) {}
    const mxArray* array() const { return a_; }

    cmd::ElementClass element_class() const override { return ::element_class(a_); }
    bool is_complex() const override { return mxIsComplex(a_); }
    bool is_sparse() const override { return mxIsSparse(a_); }
    std::vector<std::int64_t> dims() const override {
        const mwSize* d = mxGetDimensions(a_);
        return std::vector<std::int64_t>(d, d + mxGetNumberOfDimensions(a_));
    }
    std::int64_t numel() const override {
        return static_cast<std::int64_t>(mxGetNumberOfElements(a_));
    }
    // Octave splits a complex array's interleaved data here, on the first request.
    cmd::SingleBlocks single_blocks() const override {
        return allocating([&] {
            cmd::SingleBlocks b;
            b.re = static_cast<const float*>(mxGetData(a_));
            b.im = mxIsComplex(a_) ? static_cast<const float*>(mxGetImagData(a_)) : nullptr;
            return b;
        });
    }
    void read_doubles(double* out, std::int64_t n) const override {
        const void* p = mxGetData(a_);
        switch (mxGetClassID(a_)) {
            case mxDOUBLE_CLASS: return widen<double>(p, out, n);
            case mxSINGLE_CLASS: return widen<float>(p, out, n);
            case mxINT8_CLASS: return widen<int8_t>(p, out, n);
            case mxUINT8_CLASS: return widen<uint8_t>(p, out, n);
            case mxINT16_CLASS: return widen<int16_t>(p, out, n);
            case mxUINT16_CLASS: return widen<uint16_t>(p, out, n);
            case mxINT32_CLASS: return widen<int32_t>(p, out, n);
            case mxUINT32_CLASS: return widen<uint32_t>(p, out, n);
            case mxINT64_CLASS: return widen<int64_t>(p, out, n);
            case mxUINT64_CLASS: return widen<uint64_t>(p, out, n);
            case mxLOGICAL_CLASS: return widen<mxLogical>(p, out, n);
            default: return;
        }
    }
    std::string text() const override {
        std::vector<char> buffer(mxGetNumberOfElements(a_) + 1, '\0');
        mxGetString(a_, buffer.data(), buffer.size());
        return buffer.data();
    }

  private:
    const mxArray* a_;
};

// Outputs live here until the command succeeds; then the requested ones go to the caller.
class MexHost final : public cmd::Host {
  public:
    MexHost(int nlhs, mxArray** plhs) : nlhs_(nlhs), plhs_(plhs) {}
    ~MexHost() override {
        for (mxArray* a : slots_)
            if (a) mxDestroyArray(a);
    }

    int outputs_requested() const override { return nlhs_; }

#ifndef MRKIT_MATLAB
    // Octave copies every output into an array of its own on return: outputs count twice.
    std::uint64_t memory_limit() const override { return Host::memory_limit() / 2; }
#endif

    cmd::Blocks<float> new_single(int slot, const std::vector<std::int64_t>& dims, bool complex,
                                  cmd::Fill fill) override {
        const mxComplexity c = complex ? mxCOMPLEX : mxREAL;
#ifdef MRKIT_MATLAB
        // MATLAB declares the uninitialised form with size_t sizes, whatever mwSize is.
        const std::vector<size_t> uninitDims(dims.begin(), dims.end());
#else
        const std::vector<mwSize> uninitDims(dims.begin(), dims.end());
#endif
        const std::vector<mwSize> d(dims.begin(), dims.end());
        return singles(put(slot, allocating([&] {
            return fill == cmd::Fill::Zero
                       ? mxCreateNumericArray(d.size(), d.data(), mxSINGLE_CLASS, c)
                       : mxCreateUninitNumericArray(uninitDims.size(), uninitDims.data(),
                                                    mxSINGLE_CLASS, c);
        })));
    }

    // A complex array is duplicated by the host, which converts Octave's interleaved data into
    // the new split blocks in the same pass.
    cmd::Blocks<float> copy_single(int slot, const cmd::Input& source) override {
        const MxInput* host = dynamic_cast<const MxInput*>(&source);
        if (!source.is_complex() || !host) return Host::copy_single(slot, source);
        return singles(put(slot, allocating([&] { return mxDuplicateArray(host->array()); })));
    }

    cmd::Blocks<double> new_double(int slot, const std::vector<std::int64_t>& dims,
                                   bool complex) override {
        const std::vector<mwSize> d(dims.begin(), dims.end());
        mxArray* a = put(slot, allocating([&] {
            return mxCreateNumericArray(d.size(), d.data(), mxDOUBLE_CLASS,
                                        complex ? mxCOMPLEX : mxREAL);
        }));
        cmd::Blocks<double> b;
        b.re = static_cast<double*>(mxGetData(a));
        b.im = complex ? static_cast<double*>(mxGetImagData(a)) : nullptr;
        return b;
    }

    void set_record(int slot, const std::vector<cmd::Field>& fields) override {
        std::vector<const char*> names;
        for (const cmd::Field& f : fields) names.push_back(f.name.c_str());
        mxArray* s = put(slot, mxCreateStructMatrix(1, 1, static_cast<int>(names.size()),
                                                    names.data()));
        for (std::size_t i = 0; i < fields.size(); ++i) {
            mxArray* v = mxCreateDoubleMatrix(1, fields[i].values.size(), mxREAL);
            std::copy(fields[i].values.begin(), fields[i].values.end(), mxGetPr(v));
            mxSetFieldByNumber(s, 0, static_cast<int>(i), v);
        }
    }

    void set_strings(int slot, const std::vector<std::string>& strings) override {
        mxArray* c = put(slot, mxCreateCellMatrix(1, strings.size()));
        for (std::size_t i = 0; i < strings.size(); ++i)
            mxSetCell(c, i, mxCreateString(strings[i].c_str()));
    }

    // Ctrl-C: the host's own flag, read without acting on it (only mexFunction's thread
    // polls, and the interrupt is raised once the call has released everything).
    bool interrupted() override {
#ifdef MRKIT_MATLAB_UT
        return utIsInterruptPending();
#elif defined(MRKIT_MATLAB)
        return false;
#else
        return octave_interrupt_state > 0;
#endif
    }

    void warn(const std::string& id, const std::string& message) override {
        // Octave's mexWarnMsgIdAndTxt puts the module name before the text; warning() does not.
        mxArray* args[3] = {mxCreateString(id.c_str()), mxCreateString("%s"),
                            mxCreateString(message.c_str())};
        mexCallMATLAB(0, nullptr, 3, args, "warning");
    }

    // Hands the outputs to the caller (slot 0 always exists) and frees the others.
    void finish() {
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            if (slots_[i] && (static_cast<int>(i) < nlhs_ || i == 0)) {
                plhs_[i] = slots_[i];
                slots_[i] = nullptr;
            }
        }
    }

  private:
    mxArray* put(int slot, mxArray* a) {
        if (slots_.size() <= static_cast<std::size_t>(slot)) slots_.resize(slot + 1, nullptr);
        if (slots_[slot]) mxDestroyArray(slots_[slot]);
        return slots_[slot] = a;
    }
    static cmd::Blocks<float> singles(mxArray* a) {
        cmd::Blocks<float> b;
        b.re = static_cast<float*>(mxGetData(a));
        b.im = mxIsComplex(a) ? static_cast<float*>(mxGetImagData(a)) : nullptr;
        return b;
    }

    int nlhs_;
    mxArray** plhs_;
    std::vector<mxArray*> slots_;
};

void run(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs) {
    std::vector<MxInput> views(prhs, prhs + nrhs);
    std::vector<const cmd::Input*> args;
    for (const MxInput& v : views) args.push_back(&v);
    MexHost host(nlhs, plhs);
    cmd::dispatch(args, host);
    host.finish();
}

}  // namespace

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    // The host's error call need not unwind this frame, so the error is raised only after
    // everything the call owned is gone; its texts wait in host-managed strings.
    mxArray* id = nullptr;
    mxArray* message = nullptr;
    try {
        run(nlhs, plhs, nrhs, prhs);
        return;
    } catch (const cmd::Error& e) {
        id = mxCreateString(e.id().c_str());
        message = mxCreateString(e.what());
        // Octave handles its pending interrupt as it does between statements (no error
        // message, back to the prompt); if it has none after all, the error is reported.
        if (e.kind() == cmd::ErrorKind::Interrupted) stop_for_host_interrupt();
    }
#ifdef MRKIT_MATLAB
    mexErrMsgIdAndTxt(mxArrayToString(id), "%s", mxArrayToString(message));
#else
    // Octave's mexErrMsgIdAndTxt puts the module name before the text; error() keeps it as is.
    mxArray* args[3] = {id, mxCreateString("%s"), message};
    mexCallMATLAB(0, nullptr, 3, args, "error");
    mexErrMsgIdAndTxt(mxArrayToString(id), "%s", mxArrayToString(message));
#endif
}
