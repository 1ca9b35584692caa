// SENSE command: unfolding of undersampled multi-coil images with coil maps, optional noise
// covariance and regularisation.
//
// Beyond the library's 32-bit sizes the call is bounded by what SENSE can unfold: each folded
// voxel's ceil(ry) * ceil(rz) aliased positions are the unknowns of a system with one equation
// per coil, so without regularisation more positions than coils leave it singular (a NaN image
// that looks like success); the prior makes any count solvable, but the per-voxel work grows
// with its cube, so regularised unfolding takes at most the larger of the coil count and 64
// (8 x 8 in 3-D, beyond any parallel-imaging acquisition).
#include <algorithm>
#include <cctype>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "gateway/commands/call.hpp"
#include "gateway/commands/table.hpp"
#include "recon/recon.hpp"

namespace mrkit::commands {
namespace {

constexpr int kSenseRank = 13;     // x, y, z, coils and nine more
constexpr int kSenseMapRank = 5;   // x, y, z, coils, sets
constexpr int kRegularisedAliases = 64;

std::string sizes_text(const std::vector<int>& dims) {
    std::string s;
    for (size_t i = 0; i < dims.size(); ++i) s += (i ? "x" : "") + std::to_string(dims[i]);
    return s;
}

struct Options {
    std::optional<Floats> noise, ref, reg;
    double regScale = 1.0;
    bool exact = false;  // the reference validity rule of MR_sense_recon
};

Options options(Call& call) {
    Options o;
    for_each_option(call, 3, [&](const std::string& name, const std::string& text,
                                        const Input& value) {
        if (name == "noise") {
            o.noise = single_shape(call, value, "noise", Complexity::Any, 2);
        } else if (name == "reference") {
            o.ref = single_shape(call, value, "reference", Complexity::Any, kSenseRank);
        } else if (name == "regularization") {
            o.reg = single_shape(call, value, "regularization", Complexity::Any, kSenseRank);
        } else if (name == "regscale") {
            o.regScale = finite_scalar(call, value, "regScale");
            if (o.regScale <= 0) call.fail("regScale must be positive");
        } else if (name == "validity") {
            const std::string rule =
                value.element_class() == ElementClass::Char ? lower(value.text()) : "";
            if (rule != "voxel" && rule != "exact")
                call.fail("validity must be 'voxel' or 'exact'");
            o.exact = rule == "exact";
        } else {
            call.fail("unknown option '" + text +
                      "'; valid options: noise, reference, regularization, regScale, validity");
        }
    });
    return o;
}

// The agreement of data, maps, full size and options.
void check_shapes(Call& call, const Floats& folded, const Floats& sens, std::vector<int>& full,
                  const Options& o) {
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
    if (o.noise && o.noise->dims != std::vector<int>{coils, coils})
        call.fail("noise must be a coils x coils matrix (" + sizes_text({coils, coils}) + ")");
    if (o.ref.has_value() != o.reg.has_value())
        call.fail("reference and regularization must be given together");
    if (o.ref && o.ref->numel == 0) call.fail("reference must not be empty");
    const std::vector<int> regShape = {sens.dim(0), sens.dim(1), sens.dim(2), sets};
    const Floats* reg = o.reg ? &*o.reg : nullptr;
    if (reg &&
        (reg->dim(0) != regShape[0] || reg->dim(1) != regShape[1] || reg->dim(2) != regShape[2] ||
         reg->numel != regShape[0] * regShape[1] * regShape[2] * sets))
        call.fail("regularization must hold one map of the sensitivities' x-y-z size per set (" +
                  sizes_text(regShape) + ")");
}

// Refuses sizes the library cannot index, aliasing it cannot unfold and scratch that does not
// fit; returns the output's sizes.
std::vector<int> check_bounds(Call& call, const Floats& folded, const Floats& sens,
                              const std::vector<int>& full, bool regularised) {
    const std::vector<int> fd = folded.padded(std::max(4, folded.rank()));
    std::vector<int64_t> outDims(fd.begin(), fd.end());
    for (int d = 0; d < 3; ++d) outDims[d] = full[d];
    outDims[3] = 1;
    if (size_bound(outDims) > kMaxIndex) call.fail("fullSize is too large for 32-bit indices");
    const int coils = folded.dim(3);
    const float ry = static_cast<float>(full[1]) / static_cast<float>(fd[1]);
    const float rz = static_cast<float>(full[2]) / static_cast<float>(fd[2]);
    const int64_t aliases = static_cast<int64_t>(std::ceil(ry)) * static_cast<int64_t>(std::ceil(rz));
    const std::vector<int64_t> factorGrid = {
        sens.dim(0), static_cast<int64_t>(std::ceil(static_cast<float>(sens.dim(1)) / ry)),
        static_cast<int64_t>(std::ceil(static_cast<float>(sens.dim(2)) / rz)), aliases * coils};
    if (size_bound(factorGrid) > kMaxIndex)
        call.fail("sensitivities are too large for 32-bit indices at this reduction factor");

    if (!regularised && aliases > coils)
        call.fail("fullSize aliases " + std::to_string(aliases) +
                  " positions onto each folded voxel; without regularization at most one per "
                  "coil (" + std::to_string(coils) + ") can be unfolded");
    const int64_t most = std::max<int64_t>(coils, kRegularisedAliases);
    if (aliases > most)
        call.fail("fullSize aliases " + std::to_string(aliases) +
                  " positions onto each folded voxel; regularized unfolding takes at most " +
                  std::to_string(most));
    std::uint64_t factors = 16;  // complex double per entry
    for (int64_t d : factorGrid) factors *= static_cast<std::uint64_t>(std::max<int64_t>(d, 1));
    call.need(factors, "the combination factors at this fullSize");
    return std::vector<int>(outDims.begin(), outDims.end());
}

}  // namespace

void sense(Call& call) {
    Floats folded = single_shape(call, call.in(0), "folded", Complexity::Any, kSenseRank);
    Floats sens = single_shape(call, call.in(1), "sensitivities", Complexity::Any, kSenseMapRank);
    std::vector<int> full = integers(call, call.in(2), "fullSize", 2, 3, 1, kMaxIndex);
    Options o = options(call);
    check_shapes(call, folded, sens, full, o);
    const std::vector<int> outDims = check_bounds(call, folded, sens, full, o.reg.has_value());
    // The prior's weight balances it against the data's noise, taken as unit variance per coil
    // without a covariance: the result then depends on the data's arbitrary scale.
    if (o.reg && !o.noise)
        call.warn("regularization without noise weighs the prior against unit noise variance; "
                  "pass 'noise' in the units of the data (see mrkit('noisecov', ...))");

    // The reference rule marks an aliased position valid only where the maps have an imaginary
    // block, and the library reads one whenever a noise matrix is given: real input gets a zero
    // block.
    const bool realSens = !sens.complex;
    const bool realNoise = o.noise && !o.noise->complex;
    const int zeroCount = std::max(realSens ? sens.numel : 0, realNoise ? o.noise->numel : 0);
    call.need(4 * static_cast<std::uint64_t>(zeroCount), "zero imaginary parts");
    for (Floats* f : {&folded, &sens}) load(call, *f);
    for (std::optional<Floats>* f : {&o.noise, &o.ref, &o.reg})
        if (*f) load(call, **f);
    const std::vector<float> zeros(zeroCount, 0.f);

    const int nFolded = std::max(4, folded.rank());
    const std::vector<int> fd = folded.padded(nFolded);
    const int sensDims[4] = {sens.dim(0), sens.dim(1), sens.dim(2), folded.dim(3)};
    const int noiseDims[2] = {folded.dim(3), folded.dim(3)};
    const int one[1] = {1};
    const Floats* noise = o.noise ? &*o.noise : nullptr;
    const Floats* ref = o.ref ? &*o.ref : nullptr;
    const Floats* reg = o.reg ? &*o.reg : nullptr;

    const Blocks<float> img = call.new_single(0, outDims, true, Fill::Zero);  // 0 where nothing unfolds
    const auto entry = o.exact ? &MR_sense_recon : &MR_sense_recon_voxelwise;
    int status = call.library([&] {
        return entry(
            folded.re, folded.im, nFolded, fd.data(), sens.re, realSens ? zeros.data() : sens.im, 4,
            sensDims, noise ? noise->re : nullptr,
            noise ? (realNoise ? zeros.data() : noise->im) : nullptr, 2, noiseDims, full.data(),
            ref ? ref->re : nullptr, ref ? ref->im : nullptr, ref ? ref->rank() : 1,
            ref ? ref->dims.data() : one, reg ? reg->re : nullptr, reg ? reg->im : nullptr,
            reg ? reg->rank() : 1, reg ? reg->dims.data() : one, o.regScale, img.re, img.im,
            outDims.data());
    });
    // No NaN behind a success: status 0 and a warning when any sample is not finite.
    int64_t count = 1;
    for (int d : outDims) count *= d;
    int64_t nonfinite = 0;
    for (int64_t i = 0; i < count; ++i)
        nonfinite += !std::isfinite(img.re[i]) || !std::isfinite(img.im[i]);
    if (nonfinite > 0) {
        if (status == 1) status = 0;
        const std::string id = std::string("mrkit:") + call.name() + ":nonfinite";
        call.host().warn(id, std::string("mrkit:") + call.name() + ": " +
                                 std::to_string(nonfinite) + " of " + std::to_string(count) +
                                 " output samples are not finite" +
                                 (o.exact ? " (validity 'exact' with maps that are zero somewhere "
                                            "gives singular systems; use 'voxel')"
                                          : ""));
    }
    call.new_double(1, {1, 1}, false).re[0] = status;
    call.set_record(2, {{"nonfinite", {static_cast<double>(nonfinite)}},
                        {"skipped", {status == -1 ? 1.0 : 0.0}}});
}

}  // namespace mrkit::commands
