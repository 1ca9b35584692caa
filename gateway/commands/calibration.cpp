// What SENSE needs, estimated from the data: coil maps from a fully sampled k-space centre and
// the coil noise covariance from noise-only samples.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <string>
#include <vector>

#include "gateway/commands/call.hpp"
#include "gateway/commands/table.hpp"
#include "recon/recon.hpp"

namespace mrkit::commands {
namespace {

struct MapOptions {
    int walsh = -1;           // -1: Walsh's for 3-D k-space, calibration kernels for 2-D
    float threshold = 0.05f;  // 0 keeps the maps unmasked
    std::vector<int> window;  // empty: 5 along x and y, 3 along z
    std::vector<int> kernel;  // empty: 6 along every axis
};

// One to three sizes made three, the last repeated; each at most cap[d].
std::vector<int> three(std::vector<int> v, std::vector<int> fallback, const std::vector<int>& cap) {
    if (v.empty()) v = fallback;
    while (v.size() < 3) v.push_back(v.back());
    for (int d = 0; d < 3; ++d) v[d] = std::min(v[d], cap[d]);
    return v;
}

MapOptions map_options(Call& call) {
    MapOptions o;
    for_each_option(call, 2, [&](const std::string& name, const std::string& text,
                                        const Input& value) {
        if (name == "method") {
            if (value.element_class() != ElementClass::Char)
                call.fail(ErrorKind::Type, "method must be 'espirit' or 'walsh'");
            const std::string m = lower(value.text());
            if (m != "espirit" && m != "walsh") call.fail("method must be 'espirit' or 'walsh'");
            o.walsh = m == "walsh" ? 1 : 0;
        } else if (name == "threshold") {
            const double t = finite_scalar(call, value, "threshold");
            if (t < 0 || t >= 1) call.fail("threshold must be at least 0 and below 1");
            o.threshold = static_cast<float>(t);
        } else if (name == "window") {
            o.window = integers(call, value, "window", 1, 3, 1, 99);
            for (int w : o.window)
                if (w % 2 == 0) call.fail("window must hold odd sizes (a voxel and its neighbours)");
        } else if (name == "kernel") {
            o.kernel = integers(call, value, "kernel", 1, 3, 1, 16);
        } else {
            call.fail("unknown option '" + text +
                      "'; valid options: method, threshold, window, kernel");
        }
    });
    return o;
}

}  // namespace

void coilmaps(Call& call) {
    Floats k = single_shape(call, call.in(0), "kspace", Complexity::Any, 4);
    const std::vector<int> dims = k.padded(4);
    if (k.numel == 0) call.fail("kspace must not be empty");
    std::vector<int> calib = integers(call, call.in(1), "calibSize", 2, 3, 1, kMaxIndex);
    if (calib.size() == 2) {
        if (dims[2] > 1) call.fail("calibSize must have 3 entries for 3-D k-space");
        calib.push_back(1);
    }
    for (int d = 0; d < 3; ++d)
        if (calib[d] > dims[d]) {
            const std::string i = std::to_string(d + 1);
            call.fail("calibSize(" + i + ") must not exceed size(kspace, " + i + ") (" +
                      std::to_string(dims[d]) + ")");
        }
    MapOptions o = map_options(call);
    const std::vector<int> window = three(o.window, {5, 5, 3}, {2 * dims[0] - 1, 2 * dims[1] - 1,
                                                              2 * dims[2] - 1});
    const std::vector<int> kernel = three(o.kernel, {6}, calib);
    const bool walsh = o.walsh < 0 ? dims[2] > 1 : o.walsh == 1;
    if (!walsh) {
        // The calibration matrix (patches x kernel positions times coils), the Gram of its
        // smaller side with its eigenvectors, the subspace's projector and the operator's sums.
        uint64_t rows = 1, positions = 1, spans = 1;
        for (int d = 0; d < 3; ++d) {
            const uint64_t block = std::min(calib[d], 32);
            rows *= block - kernel[d] + 1;
            positions *= kernel[d];
            spans *= 2 * kernel[d] - 1;
        }
        const uint64_t K = positions * dims[3], small = std::min(rows, K);
        call.need(16 * (rows * K + 3 * small * small + 2 * small * K + K * K +
                        spans * dims[3] * dims[3]),
                  "the calibration matrix");
    }
    // Low-resolution images in double: a calibration block, a plane and the images per thread.
    const uint64_t voxels = static_cast<uint64_t>(dims[0]) * dims[1] * dims[2];
    call.need(16 * (static_cast<uint64_t>(dims[0]) * calib[1] * calib[2] +
                    static_cast<uint64_t>(dims[0]) * dims[1] * (calib[2] + 1)) *
                      2 +
                  8 * voxels * dims[3] + 4 * voxels,
              "the low-resolution coil images");
    load(call, k);

    // The block must hold data: a line of zeros inside it means the centre was not fully
    // sampled that wide, and maps from it would be blurred by the gap.
    const int x0 = dims[0] / 2 - calib[0] / 2, y0 = dims[1] / 2 - calib[1] / 2,
              z0 = dims[2] / 2 - calib[2] / 2;
    int emptyLines = 0;
    bool finite = true;
    for (int z = z0; z < z0 + calib[2]; ++z)
        for (int y = y0; y < y0 + calib[1]; ++y) {
            bool any = false;
            for (int c = 0; c < dims[3]; ++c)
                for (int x = x0; x < x0 + calib[0]; ++x) {
                    const int64_t i = x + static_cast<int64_t>(dims[0]) *
                                              (y + static_cast<int64_t>(dims[1]) *
                                                       (z + static_cast<int64_t>(dims[2]) * c));
                    const float re = k.re[i], im = k.im ? k.im[i] : 0.0f;
                    any = any || re != 0.0f || im != 0.0f;
                    finite = finite && std::isfinite(re) && std::isfinite(im);
                }
            emptyLines += !any;
        }
    if (!finite) call.fail("kspace must be finite in its calibration block");
    if (emptyLines == calib[1] * calib[2]) call.fail("kspace is zero in its calibration block");
    if (emptyLines > 0)
        call.warn(std::to_string(emptyLines) +
                  " lines of the calibration block are zero; calibSize is larger than the fully "
                  "sampled centre");

    const Blocks<float> maps = call.new_single(0, dims, true, Fill::None);
    const int mapDims[4] = {dims[0], dims[1], dims[2], dims[3]};
    call.library([&] {
        return walsh ? MR_coil_maps(k.re, k.im, mapDims, calib.data(), window.data(),
                                      o.threshold, maps.re, maps.im)
                       : MR_coil_maps_kernel(k.re, k.im, mapDims, calib.data(), kernel.data(),
                                             o.threshold, maps.re, maps.im);
    });
}

void noisecov(Call& call) {
    Floats x = single_shape(call, call.in(0), "samples", Complexity::Any, kAnyRank);
    const int coilDim = dimension(call, call.in(1), "coilDim", x.rank());
    const int coils = x.dim(coilDim - 1);
    const int64_t perCoil = coils > 0 ? x.numel / coils : 0;
    if (coils == 0) call.fail("samples must hold at least one coil along coilDim");
    if (perCoil < coils)
        call.fail("samples must hold at least as many samples per coil as coils (" +
                  std::to_string(coils) + "), or the covariance is singular");
    load(call, x);
    const Blocks<float> psi = call.new_single(0, {coils, coils}, true, Fill::None);
    const std::vector<int> dims = x.padded(x.rank());
    call.library([&] {
        MR_noise_covariance(x.re, x.im, x.rank(), dims.data(), coilDim, psi.re, psi.im);
    });
    bool finite = true;
    for (int i = 0; i < coils * coils; ++i)
        finite = finite && std::isfinite(psi.re[i]) && std::isfinite(psi.im[i]);
    if (!finite) call.fail("samples must be finite (the covariance is not)");
}

}  // namespace mrkit::commands
