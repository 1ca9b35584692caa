// Geometry command: positions encoded by non-linear gradients at given points.
#include <cmath>
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

}  // namespace

void gradwarp(Call& call) {
    const char* names[3] = {"x", "y", "z"};
    Floats p[3];
    for (int i = 0; i < 3; ++i) {
        p[i] = single_shape(call, call.in(i), names[i], Complexity::Real, kAnyRank);
        if (p[i].dims != p[0].dims) call.fail(std::string(names[i]) + " must have the size of x");
    }
    float coefSin[14][12], coefCos[14][12], coefZ[17][1];
    coefficients(call, call.in(3), "coefSin", coefSin);
    coefficients(call, call.in(4), "coefCos", coefCos);
    coefficients(call, call.in(5), "coefZ", coefZ);
    const float r0 = single_scalar(call, call.in(6), "r0");
    if (!(r0 > 0.f)) call.fail("r0 must be positive");
    // Each series is divided by its linear term.
    if (coefSin[1][1] == 0.f) call.fail("coefSin(2,2) must be non-zero");
    if (coefCos[1][1] == 0.f) call.fail("coefCos(2,2) must be non-zero");
    if (coefZ[1][0] == 0.f) call.fail("coefZ(2) must be non-zero");
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
                               p[0].numel, coefSin, coefCos, coefZ, r0);
    });
}

}  // namespace mrkit::commands
