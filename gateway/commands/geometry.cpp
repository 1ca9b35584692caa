// Geometry commands: positions encoded by non-linear gradients at given points, whole volumes
// unwarped, and the coefficient files of gradient coils.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "gateway/commands/call.hpp"
#include "gateway/commands/table.hpp"
#include "recon/recon.hpp"

namespace mrkit::commands {
namespace {

std::string coefficient_shape_text(int rows, int cols) {
    const std::string degrees = "degrees 0 to " + std::to_string(rows - 1);
    if (cols == 1) return "a vector of " + std::to_string(rows) + " elements (" + degrees + ")";
    return std::to_string(rows) + "x" + std::to_string(cols) + " (" + degrees + " by orders 0 to " +
           std::to_string(cols - 1) + ")";
}

// Host matrices are column-major; the library wants rows by degree, columns by order, as
// floats: each value must stay finite when narrowed.
template <int Rows, int Cols>
void coefficients(Call& call, const Input& a, const char* name, float (&out)[Rows][Cols]) {
    std::vector<std::int64_t> d = a.dims();
    if (d.size() < 2) d.resize(2, 1);
    const bool vector =
        Cols == 1 && d.size() == 2 && (d[0] == 1 || d[1] == 1) && d[0] * d[1] == Rows;
    const bool matrix = d.size() == 2 && d[0] == Rows && d[1] == Cols;
    require_numeric(call, a, name);
    if (!vector && !matrix)
        call.fail(std::string(name) + " must be " + coefficient_shape_text(Rows, Cols));
    const std::vector<double> v = numbers(call, a, name, Rows * Cols, Rows * Cols);
    for (double c : v)
        if (!std::isfinite(c)) call.fail(std::string(name) + " must be finite");
    for (double c : v)
        if (!(std::fabs(c) <= std::numeric_limits<float>::max()))
            call.fail(std::string(name) + single_range_text());
    for (int n = 0; n < Rows; ++n)
        for (int m = 0; m < Cols; ++m) out[n][m] = static_cast<float>(v[n + Rows * m]);
}

// Branch-free, so the loop vectorises: NaN and infinities both fail the comparison.
bool all_finite(const float* v, int n) {
    int bad = 0;
    for (int k = 0; k < n; ++k) bad |= !(std::fabs(v[k]) <= std::numeric_limits<float>::max());
    return !bad;
}

// The coefficient sets and r0 of gradwarp and unwarp, at inputs first .. first + 3.
struct Gradients {
    float coefSin[14][12], coefCos[14][12], coefZ[17][1];
    float r0;
};

void gradients(Call& call, int first, Gradients& g) {
    coefficients(call, call.in(first), "coefSin", g.coefSin);
    coefficients(call, call.in(first + 1), "coefCos", g.coefCos);
    coefficients(call, call.in(first + 2), "coefZ", g.coefZ);
    g.r0 = single_scalar(call, call.in(first + 3), "r0");
    if (!(g.r0 > 0.f)) call.fail("r0 must be positive");
    // Each series is divided by its linear term.
    if (g.coefSin[1][1] == 0.f) call.fail("coefSin(2,2) must be non-zero");
    if (g.coefCos[1][1] == 0.f) call.fail("coefCos(2,2) must be non-zero");
    if (g.coefZ[1][0] == 0.f) call.fail("coefZ(2) must be non-zero");
}

// A 4x4 voxel-to-scanner matrix, returned row-major: finite, [0 0 0 1] below, and a 3x3 part
// that can be inverted without losing most digits (positions go back through its inverse).
std::vector<double> affine(Call& call, const Input& a) {
    require_numeric(call, a, "affine");
    const std::vector<std::int64_t> d = a.dims();
    if (d.size() != 2 || d[0] != 4 || d[1] != 4) call.fail("affine must be a 4x4 matrix");
    const std::vector<double> v = finite_numbers(call, a, "affine", 16, 16);
    std::vector<double> rows(16);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) rows[4 * r + c] = v[r + 4 * c];
    if (rows[12] != 0 || rows[13] != 0 || rows[14] != 0 || rows[15] != 1)
        call.fail("affine must have [0 0 0 1] as its last row");
    auto at = [&](int r, int c) { return rows[4 * r + c]; };
    const double det = at(0, 0) * (at(1, 1) * at(2, 2) - at(1, 2) * at(2, 1)) -
                       at(0, 1) * (at(1, 0) * at(2, 2) - at(1, 2) * at(2, 0)) +
                       at(0, 2) * (at(1, 0) * at(2, 1) - at(1, 1) * at(2, 0));
    double volume = 1;  // |det| <= product of the column lengths
    for (int c = 0; c < 3; ++c) volume *= std::hypot(at(0, c), at(1, c), at(2, c));
    if (!(std::fabs(det) > 1e-9 * volume))
        call.fail("affine must be invertible: its columns 1-3 are (nearly) dependent");
    return rows;
}

struct UnwarpOptions {
    bool jacobian = true, cubic = false, warp = false;
};

// A text value of an option, one of two words.
bool choice(Call& call, const Input& a, const std::string& name, const char* first,
            const char* second) {
    const std::string message = name + " must be '" + first + "' or '" + second + "'";
    if (a.element_class() != ElementClass::Char) call.fail(ErrorKind::Type, message);
    const std::string v = lower(a.text());
    if (v != first && v != second) call.fail(message);
    return v == second;
}

UnwarpOptions unwarp_options(Call& call, int first) {
    UnwarpOptions o;
    for_each_option(call, first, [&](const std::string& name, const std::string& text,
                                        const Input& value) {
        if (name == "jacobian")
            o.jacobian = flag(call, value, "jacobian");
        else if (name == "interp")
            o.cubic = choice(call, value, "interp", "linear", "cubic");
        else if (name == "direction")
            o.warp = choice(call, value, "direction", "unwarp", "warp");
        else
            call.fail("unknown option '" + text + "'; valid options: jacobian, interp, direction");
    });
    return o;
}

}  // namespace

void gradwarp(Call& call) {
    const char* names[3] = {"x", "y", "z"};
    Floats p[3];
    for (int i = 0; i < 3; ++i) {
        p[i] = single_shape(call, call.in(i), names[i], Complexity::Real, kAnyRank);
        if (p[i].dims != p[0].dims) call.fail(std::string(names[i]) + " must have the size of x");
    }
    Gradients g;
    gradients(call, 3, g);
    // A non-finite point has no polar angle; a finite one gives a cosine in [-1, 1], which keeps
    // the Legendre table index in range and plgndr (whose process exit must never be reached
    // from a host) within its domain.
    for (int i = 0; i < 3; ++i) {
        load(call, p[i]);
        if (!all_finite(p[i].re, p[i].numel)) call.fail(std::string(names[i]) + " must be finite");
    }

    Blocks<float> out[3];
    for (int i = 0; i < 3; ++i) out[i] = call.new_single(i, p[0].dims, false, Fill::None);
    if (p[0].numel == 0) return;
    call.library([&] {
        MR_geometry_correction(p[0].re, p[1].re, p[2].re, out[0].re, out[1].re, out[2].re,
                               p[0].numel, g.coefSin, g.coefCos, g.coefZ, g.r0);
    });
}

void unwarp(Call& call) {
    Floats vol = single_shape(call, call.in(0), "vol", Complexity::Any, kAnyRank);
    const std::vector<double> a = affine(call, call.in(1));
    Gradients g;
    gradients(call, 2, g);
    const UnwarpOptions o = unwarp_options(call, 6);
    const std::vector<int> grid = {vol.dim(0), vol.dim(1), vol.dim(2)};
    const std::int64_t n = std::int64_t{grid[0]} * grid[1] * grid[2];
    const bool displacement = call.host().outputs_requested() != 1;
    if (displacement && 3 * n > kMaxIndex)
        call.fail("vol is too large for a displacement field with 32-bit indices");
    // Sampling offsets and Jacobian, the series' chunk buffers, the warp's list of voxels.
    call.need(16 * static_cast<std::uint64_t>(n) + (24 << 20) + (o.warp ? 4 * n : 0),
              "the sampling positions");
    load(call, vol);

    const Blocks<float> out = call.new_single(0, vol.dims, vol.complex, Fill::None);
    Blocks<float> field;
    if (displacement) field = call.new_single(1, {grid[0], grid[1], grid[2], 3}, false, Fill::None);
    if (n == 0) return;
    const int lost = call.library([&] {
        return MR_unwarp(vol.re, vol.im, vol.rank(), vol.dims.data(), a.data(), g.coefSin,
                         g.coefCos, g.coefZ, g.r0, o.cubic ? MR_UNWARP_CUBIC : MR_UNWARP_LINEAR,
                         o.jacobian, o.warp, out.re, out.im, field.re);
    });
    if (lost > 0)
        call.warn(std::to_string(lost) + " of " + std::to_string(n) +
                  " voxels have no true position the series maps onto them (they are 0)");
}

void gradfile(Call& call) {
    if (call.in(0).element_class() != ElementClass::Char)
        call.fail(ErrorKind::Type, "path must be a string");
    const std::string path = call.in(0).text();
    Gradients g;
    std::vector<MR_gradient_term> dropped;
    std::string error;
    if (!MR_read_gradient_file(path.c_str(), g.coefSin, g.coefCos, g.coefZ, &g.r0, &dropped,
                               &error))
        call.fail(error);

    std::vector<std::string> terms;
    for (const MR_gradient_term& t : dropped) {
        char text[96];
        std::snprintf(text, sizeof text, "%c(%d,%d) %c = %.9g (line %d)", t.kind, t.degree, t.order,
                      t.axis, t.value, t.line);
        terms.push_back(text);
    }
    // Column-major host matrices, rows by degree.
    const Blocks<double> s = call.new_double(0, {14, 12}, false);
    const Blocks<double> c = call.new_double(1, {14, 12}, false);
    for (int n = 0; n < 14; ++n)
        for (int m = 0; m < 12; ++m) {
            s.re[n + 14 * m] = g.coefSin[n][m];
            c.re[n + 14 * m] = g.coefCos[n][m];
        }
    const Blocks<double> z = call.new_double(2, {17, 1}, false);
    for (int n = 0; n < 17; ++n) z.re[n] = g.coefZ[n][0];
    call.new_double(3, {1, 1}, false).re[0] = g.r0;
    call.set_strings(4, terms);
    const int asked = call.host().outputs_requested();
    if (!terms.empty() && asked >= 1 && asked < 5) {
        std::string list;
        for (const std::string& t : terms) list += (list.empty() ? "" : "; ") + t;
        call.warn(std::to_string(terms.size()) +
                  " non-zero terms have no place in the series and were dropped: " + list);
    }
}

}  // namespace mrkit::commands
