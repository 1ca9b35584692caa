// The mrkit MEX module: the reconstruction library for Octave and MATLAB users.
//
// mrkit('<command>', ...) checks every argument, calls the library once and returns new
// arrays; inputs are only read. Operations the library does in place run on the output after
// one copy of the input.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "mex.h"
#include "mrkit_args.hpp"
#include "recon/recon.hpp"

namespace mrkit_mex {
namespace {

constexpr int kAnyRank = 64;      // the toolkit works on any rank
constexpr int kSenseRank = 13;    // x, y, z, coils and nine more
constexpr int kSenseMapRank = 5;  // x, y, z, coils, sets

// Wall time of the last command: inside the library, and from the command's start to its
// outputs being ready. bench/bench_gateway.m reads them with mrkit('-spans') to tell the
// gateway's and the host's costs from the library's own time, free of its run-to-run noise.
using Clock = std::chrono::steady_clock;
struct Spans {
    double library = 0;  // ms
    double command = 0;
} lastSpans;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Runs the command's one library call.
template <class F>
auto library(F&& f) {
    const Clock::time_point start = Clock::now();
    if constexpr (std::is_void_v<decltype(f())>) {
        f();
        lastSpans.library = msSince(start);
    } else {
        const auto result = f();
        lastSpans.library = msSince(start);
        return result;
    }
}

void shift(const Call& call, bool inverse) {
    call.arity(2, 2, 1,
               inverse ? "y = mrkit('ifftshift', x, dim)" : "y = mrkit('fftshift', x, dim)");
    const Floats x = singleShape(call, call.in(0), "x", Complexity::Any, kAnyRank);
    const int dim = integers(call, call.in(1), "dim", 1, 1, 1, 3)[0];
    NewFloats y = copyOf(call.in(0));
    // The shifts read three sizes, also for a 2-D array shifted along dimension 3.
    const std::vector<int> dims = x.padded(3);
    const int n = static_cast<int>(dims.size());
    library([&] {
        if (inverse)
            MR_ifftshift(y.re, y.im, dims.data(), n, dim);
        else
            MR_fftshift(y.re, y.im, dims.data(), n, dim);
    });
    call.give(0, y.array);
}

void fftshift(const Call& call) {
    shift(call, false);
}
void ifftshift(const Call& call) {
    shift(call, true);
}

void zeropad(const Call& call) {
    call.arity(2, 2, 1, "y = mrkit('zeropad', x, newSize)");
    const Floats x = singleArray(call, call.in(0), "x", Complexity::Any, kAnyRank);
    std::vector<int> newSize = integers(call, call.in(1), "newSize", 2, 3, 0, kMaxIndex);
    if (newSize.size() == 2) newSize.push_back(x.dim(2));
    for (int d = 0; d < 3; ++d) {
        if (newSize[d] < x.dim(d)) {
            const std::string i = std::to_string(d + 1);
            call.fail("newSize(" + i + ") must not be smaller than size(x, " + i + ") (" +
                      std::to_string(x.dim(d)) + ")");
        }
    }
    std::vector<int64_t> outDims(newSize.begin(), newSize.end());
    for (int d = 3; d < x.rank(); ++d) outDims.push_back(x.dims[d]);
    if (size_bound(outDims) > kMaxIndex) call.fail("newSize is too large for 32-bit indices");

    NewFloats y = newSingle(toInts(outDims), x.im != nullptr, Fill::Zero);
    library([&] {
        MR_zero_pad(x.re, x.im, x.rank(), x.dims.data(), newSize[0], newSize[1], newSize[2], y.re,
                    y.im);
    });
    call.give(0, y.array);
}

void ringing(const Call& call) {
    call.arity(3, 3, 1, "y = mrkit('ringing', x, strength, width)");
    const Floats x = singleShape(call, call.in(0), "x", Complexity::Any, kAnyRank);
    const std::vector<double> strength = finiteNumbers(call, call.in(1), "strength", 1, 3);
    const std::vector<int> width = integers(call, call.in(2), "width", 1, 3, 1, kMaxIndex);
    // A dimension without an entry is left alone: no taper over its whole size.
    double s[3];
    int w[3];
    for (size_t d = 0; d < 3; ++d) {
        s[d] = d < strength.size() ? strength[d] : 0.0;
        w[d] = d < width.size() ? width[d] : std::max(1, x.dim(static_cast<int>(d)));
    }
    NewFloats y = copyOf(call.in(0));
    library([&] { MR_ringing_filter(y.re, y.im, x.rank(), x.dims.data(), s, w); });
    call.give(0, y.array);
}

void coilCombine(const Call& call, bool phaseCorrected) {
    call.arity(2, 2, 1,
               phaseCorrected ? "y = mrkit('pcsos', x, coilDim)" : "y = mrkit('sos', x, coilDim)");
    const Floats x = singleArray(call, call.in(0), "x", Complexity::Any, kAnyRank);
    const int coilDim = integers(call, call.in(1), "coilDim", 1, 1, 1, x.rank())[0];
    // With the coils along the averaging dimension the library would read past the array.
    if (phaseCorrected && coilDim == 10)
        call.fail("coilDim must not be 10, the dimension pcsos averages along");
    // The phase-corrected form averages along the tenth dimension, so it reads ten sizes.
    const int n = phaseCorrected ? std::max(10, x.rank()) : x.rank();
    const std::vector<int> dims = x.padded(n);
    std::vector<int> outDims = dims;
    outDims[coilDim - 1] = 1;

    // The sum of squares accumulates into its output; the phase-corrected form overwrites it.
    const std::vector<int> shape(outDims.begin(), outDims.begin() + x.rank());
    NewFloats y = newSingle(shape, phaseCorrected, phaseCorrected ? Fill::None : Fill::Zero);
    library([&] {
        if (phaseCorrected)
            MR_perform_pcsos(x.re, x.im, n, dims.data(), coilDim, y.re, y.im, outDims.data());
        else
            MR_perform_sos(x.re, x.im, n, dims.data(), coilDim, y.re, outDims.data());
    });
    call.give(0, y.array);
}

void sos(const Call& call) {
    coilCombine(call, false);
}
void pcsos(const Call& call) {
    coilCombine(call, true);
}

// Host matrices are column-major; the library wants rows by degree, columns by order.
template <int Rows, int Cols>
void coefficients(const Call& call, const mxArray* a, const char* name, float (&out)[Rows][Cols]) {
    const std::vector<double> v = numbers(call, a, name);
    const bool vector = Cols == 1 && v.size() == Rows && mxGetNumberOfDimensions(a) == 2 &&
                        (mxGetM(a) == 1 || mxGetN(a) == 1);
    const bool matrix = mxGetNumberOfDimensions(a) == 2 && mxGetM(a) == static_cast<size_t>(Rows) &&
                        mxGetN(a) == static_cast<size_t>(Cols);
    if (!vector && !matrix) {
        call.fail(std::string(name) + " must be " +
                  (Cols == 1 ? "a vector of " + std::to_string(Rows) + " elements (degrees 0 to " +
                                   std::to_string(Rows - 1) + ")"
                             : std::to_string(Rows) + "x" + std::to_string(Cols) +
                                   " (degrees 0 to " + std::to_string(Rows - 1) +
                                   " by orders 0 to " + std::to_string(Cols - 1) + ")"));
    }
    for (double c : v)
        if (!std::isfinite(c)) call.fail(std::string(name) + " must be finite");
    for (int n = 0; n < Rows; ++n)
        for (int m = 0; m < Cols; ++m) out[n][m] = static_cast<float>(v[n + Rows * m]);
}

// Branch-free, so the loop vectorises: NaN and infinities both fail the comparison.
bool allFinite(const float* v, int n) {
    int bad = 0;
    for (int k = 0; k < n; ++k) bad |= !(std::fabs(v[k]) <= std::numeric_limits<float>::max());
    return !bad;
}

void gradwarp(const Call& call) {
    call.arity(7, 7, 3, "[xo, yo, zo] = mrkit('gradwarp', x, y, z, coefSin, coefCos, coefZ, r0)");
    const char* names[3] = {"x", "y", "z"};
    Floats p[3];
    for (int i = 0; i < 3; ++i) {
        p[i] = singleArray(call, call.in(i), names[i], Complexity::Real, kAnyRank);
        if (p[i].dims != p[0].dims) call.fail(std::string(names[i]) + " must have the size of x");
        // A non-finite point has no polar angle; a finite one gives a cosine in [-1, 1], which
        // keeps the Legendre table index in range and plgndr (whose process exit must never
        // be reached from a host) within its domain.
        if (!allFinite(p[i].re, p[i].numel)) call.fail(std::string(names[i]) + " must be finite");
    }
    float coefSin[14][12], coefCos[14][12], coefZ[17][1];
    coefficients(call, call.in(3), "coefSin", coefSin);
    coefficients(call, call.in(4), "coefCos", coefCos);
    coefficients(call, call.in(5), "coefZ", coefZ);
    const double r0 = finiteScalar(call, call.in(6), "r0");
    if (!(static_cast<float>(r0) > 0.f)) call.fail("r0 must be positive");
    // Each series is divided by its linear term.
    if (coefSin[1][1] == 0.f) call.fail("coefSin(2,2) must be non-zero");
    if (coefCos[1][1] == 0.f) call.fail("coefCos(2,2) must be non-zero");
    if (coefZ[1][0] == 0.f) call.fail("coefZ(2) must be non-zero");

    NewFloats out[3];
    for (int i = 0; i < 3; ++i) out[i] = newSingle(p[0].dims, false, Fill::None);
    library([&] {
        MR_geometry_correction(p[0].re, p[1].re, p[2].re, out[0].re, out[1].re, out[2].re,
                               p[0].numel, coefSin, coefCos, coefZ, static_cast<float>(r0));
    });
    for (int i = 0; i < 3; ++i) call.give(i, out[i].array);
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

void sense(const Call& call) {
    const char* usage = "[img, status] = mrkit('sense', folded, sens, fullSize, Name, Value...)";
    call.arity(3, std::numeric_limits<int>::max(), 2, usage);
    const Floats folded = singleArray(call, call.in(0), "folded", Complexity::Any, kSenseRank);
    const Floats sens =
        singleArray(call, call.in(1), "sensitivities", Complexity::Any, kSenseMapRank);
    std::vector<int> full = integers(call, call.in(2), "fullSize", 2, 3, 1, kMaxIndex);

    if ((call.inputs() - 3) % 2 != 0) call.fail("options must come in name-value pairs");
    std::optional<Floats> noise, ref, reg;
    double regScale = 1.0;
    for (int i = 3; i < call.inputs(); i += 2) {
        if (!mxIsChar(call.in(i))) call.fail("option names must be strings");
        char text[32] = "";
        mxGetString(call.in(i), text, sizeof text);
        const std::string name = lower(text);
        const mxArray* value = call.in(i + 1);
        if (name == "noise") {
            noise = singleArray(call, value, "noise", Complexity::Any, 2);
        } else if (name == "reference") {
            ref = singleArray(call, value, "reference", Complexity::Any, kSenseRank);
        } else if (name == "regularization") {
            reg = singleArray(call, value, "regularization", Complexity::Any, kSenseRank);
        } else if (name == "regscale") {
            regScale = finiteScalar(call, value, "regScale");
            if (regScale <= 0) call.fail("regScale must be positive");
        } else {
            call.fail("unknown option '" + std::string(text) +
                      "'; valid options: noise, reference, regularization, regScale");
        }
    }

    if (folded.numel == 0) call.fail("folded must not be empty");
    if (sens.numel == 0) call.fail("sensitivities must not be empty");
    const int coils = folded.dim(3);
    const int sets = folded.dim(7);
    if (sens.dim(3) != coils)
        call.fail("sensitivities must have as many coils as folded (" + std::to_string(coils) +
                  ") in dimension 4");
    if (sens.dim(4) != sets)
        call.fail("sensitivities must have as many sets as size(folded, 8) (" +
                  std::to_string(sets) + ") in dimension 5");
    if (full.size() == 2) full.push_back(folded.dim(2));
    if (full[0] != folded.dim(0))
        call.fail("fullSize(1) must equal size(folded, 1) (" + std::to_string(folded.dim(0)) +
                  "): x is never folded");
    for (int d = 1; d < 3; ++d) {
        if (full[d] < folded.dim(d)) {
            const std::string i = std::to_string(d + 1);
            call.fail("fullSize(" + i + ") must not be smaller than size(folded, " + i + ") (" +
                      std::to_string(folded.dim(d)) + ")");
        }
    }
    if (noise && noise->dims != std::vector<int>{coils, coils})
        call.fail("noise must be a coils x coils matrix (" + sizeText({coils, coils}) + ")");
    if (ref.has_value() != reg.has_value())
        call.fail("reference and regularization must be given together");
    if (ref && ref->numel == 0) call.fail("reference must not be empty");
    const std::vector<int> regShape = {sens.dim(0), sens.dim(1), sens.dim(2), sets};
    if (reg &&
        (reg->dim(0) != regShape[0] || reg->dim(1) != regShape[1] || reg->dim(2) != regShape[2] ||
         reg->numel != regShape[0] * regShape[1] * regShape[2] * sets))
        call.fail("regularization must hold one map of the sensitivities' x-y-z size per set (" +
                  sizeText(regShape) + ")");

    // The output and the factor grid the library sizes with 32-bit ints.
    const int nFolded = std::max(4, folded.rank());
    const std::vector<int> fd = folded.padded(nFolded);
    std::vector<int64_t> outDims(fd.begin(), fd.end());
    for (int d = 0; d < 3; ++d) outDims[d] = full[d];
    outDims[3] = 1;
    if (size_bound(outDims) > kMaxIndex) call.fail("fullSize is too large for 32-bit indices");
    const float ry = static_cast<float>(full[1]) / static_cast<float>(fd[1]);
    const float rz = static_cast<float>(full[2]) / static_cast<float>(fd[2]);
    const std::vector<int64_t> factorGrid = {
        sens.dim(0), static_cast<int64_t>(std::ceil(static_cast<float>(sens.dim(1)) / ry)),
        static_cast<int64_t>(std::ceil(static_cast<float>(sens.dim(2)) / rz)),
        static_cast<int64_t>(std::ceil(ry)) * static_cast<int64_t>(std::ceil(rz)) * coils};
    if (size_bound(factorGrid) > kMaxIndex)
        call.fail("sensitivities are too large for 32-bit indices at this reduction factor");

    // The library marks an aliased position valid only where the maps have an imaginary block,
    // and reads one whenever a noise matrix is given: real input gets a zero block.
    const bool realSens = sens.im == nullptr;
    const bool realNoise = noise && noise->im == nullptr;
    const std::vector<float> zeros(
        std::max(realSens ? sens.numel : 0, realNoise ? noise->numel : 0), 0.f);
    const int sensDims[4] = {sens.dim(0), sens.dim(1), sens.dim(2), coils};
    const int noiseDims[2] = {coils, coils};
    const int one[1] = {1};

    const std::vector<int> outDims32 = toInts(outDims);
    NewFloats img = newSingle(outDims32, true, Fill::Zero);  // zero where nothing unfolds
    const int status = library([&] {
        return MR_sense_recon(
            folded.re, folded.im, nFolded, fd.data(), sens.re, realSens ? zeros.data() : sens.im, 4,
            sensDims, noise ? noise->re : nullptr,
            noise ? (realNoise ? zeros.data() : noise->im) : nullptr, 2, noiseDims, full.data(),
            ref ? ref->re : nullptr, ref ? ref->im : nullptr, ref ? ref->rank() : 1,
            ref ? ref->dims.data() : one, reg ? reg->re : nullptr, reg ? reg->im : nullptr,
            reg ? reg->rank() : 1, reg ? reg->dims.data() : one, regScale, img.re, img.im,
            outDims32.data());
    });
    call.give(0, img.array);
    call.give(1, mxCreateDoubleScalar(status));
}

struct Command {
    const char* name;
    void (*run)(const Call&);
};

const Command kCommands[] = {
    {"sense", sense},         {"sos", sos},         {"pcsos", pcsos},     {"fftshift", fftshift},
    {"ifftshift", ifftshift}, {"zeropad", zeropad}, {"ringing", ringing}, {"gradwarp", gradwarp}};

std::string commandList() {
    std::string s;
    for (const Command& c : kCommands) s += (s.empty() ? "" : ", ") + std::string(c.name);
    return s;
}

void run(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs) {
    if (nrhs < 1 || !mxIsChar(prhs[0]))
        throw ArgError{"mrkit:command",
                       "mrkit: the first input must be a command string; "
                       "valid commands: " +
                           commandList()};
    char name[64] = "";
    mxGetString(prhs[0], name, sizeof name);  // a longer text is no command anyway
    if (std::strcmp(name, "-spans") == 0) {   // for the benchmark; not a user command
        plhs[0] = mxCreateDoubleMatrix(1, 2, mxREAL);
        mxGetPr(plhs[0])[0] = lastSpans.library;
        mxGetPr(plhs[0])[1] = lastSpans.command;
        return;
    }
    for (const Command& c : kCommands) {
        if (std::strcmp(name, c.name) != 0) continue;
        const Call call(c.name, nlhs, plhs, nrhs, prhs);
        const Clock::time_point start = Clock::now();
        try {
            c.run(call);
        } catch (const std::bad_alloc&) {
            call.fail("not enough memory");
        }
        lastSpans.command = msSince(start);
        return;
    }
    throw ArgError{"mrkit:command", "mrkit: unknown command '" + std::string(name) +
                                        "'; valid commands: " + commandList()};
}

// Reports an error; does not return.
void raise(const char* id, const char* message) {
#ifdef MRKIT_MATLAB
    mexErrMsgIdAndTxt(id, "%s", message);
#else
    // Octave's mexErrMsgIdAndTxt puts the module name before the text; error() keeps it as is.
    mxArray* args[3] = {mxCreateString(id), mxCreateString("%s"), mxCreateString(message)};
    mexCallMATLAB(0, nullptr, 3, args, "error");
    mexErrMsgIdAndTxt(id, "%s", message);
#endif
}

}  // namespace
}  // namespace mrkit_mex

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    // The host's error call need not unwind this frame, so the error is raised only after
    // everything the call owned is gone; its text waits in fixed buffers.
    char id[64] = "";
    char message[1024] = "";
    try {
        mrkit_mex::run(nlhs, plhs, nrhs, prhs);
        return;
    } catch (const mrkit_mex::ArgError& e) {
        std::snprintf(id, sizeof id, "%s", e.id.c_str());
        std::snprintf(message, sizeof message, "%s", e.message.c_str());
    }
    mrkit_mex::raise(id, message);
}
