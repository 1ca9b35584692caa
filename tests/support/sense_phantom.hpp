// Synthetic SENSE data: a smooth complex object, smooth complex coil sensitivities and the
// folded coil images an undersampled acquisition would give. Folding is done in image space as
// aliasing: every full position q of an axis adds to folded index (q - s) mod F, with the reduced
// field of view centred (s = ceil((N - F) / 2)). The fold here is plain integer arithmetic, kept
// independent of the library's own geometry code.
#pragma once

#include <array>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "recon/recon.hpp"

namespace sense_phantom {

using cf = std::complex<float>;
constexpr double kPi = 3.14159265358979323846;

// Split-complex block, column-major, with its sizes.
struct Split {
    std::vector<int> dims;
    std::vector<float> re, im;

    Split() = default;
    explicit Split(std::vector<int> d) : dims(std::move(d)) {
        size_t n = 1;
        for (int v : dims) n *= static_cast<size_t>(v);
        re.assign(n, 0.0f);
        im.assign(n, 0.0f);
    }
    size_t size() const { return re.size(); }
    cf at(size_t i) const { return {re[i], im[i]}; }
    void set(size_t i, cf v) {
        re[i] = v.real();
        im[i] = v.imag();
    }
};

// Position of sample i on an axis of n samples, in [0, 1]; grids of any resolution that cover
// the same field of view agree on it.
inline double unit(int i, int n) {
    return n > 1 ? static_cast<double>(i) / (n - 1) : 0.5;
}

// Smooth object: two blobs on a plateau, smooth phase. `variant` moves the blobs and the phase
// so that volumes of one reconstruction can be told apart.
inline cf object(double tx, double ty, double tz, int variant = 0) {
    const double shift = 0.07 * variant;
    const double a = (tx - 0.5) * (tx - 0.5) / 0.09 +
                     (ty - 0.45 - shift) * (ty - 0.45 - shift) / 0.12 +
                     (tz - 0.5) * (tz - 0.5) / 0.2;
    const double b = ((tx - 0.3 - shift) * (tx - 0.3 - shift) + (ty - 0.7) * (ty - 0.7)) / 0.02;
    const double mag = 0.3 + 0.7 * std::exp(-a) + 0.4 * std::exp(-b);
    const double phase = 1.2 * tx - 0.8 * ty + 0.5 * tz + 0.6 * tx * ty + 0.37 * variant;
    return cf(static_cast<float>(mag * std::cos(phase)), static_cast<float>(mag * std::sin(phase)));
}

// Coil c of `coils`: centred on a ring around the object (alternately above and below in z),
// smooth magnitude and phase. Coil 0's phase stays within (-pi/2, pi/2) so its real part is
// never zero. `variant` rotates the ring, giving another sensitivity set.
inline cf coil(int c, int coils, double tx, double ty, double tz, int variant = 0) {
    const double angle = 2.0 * kPi * c / coils + 0.4 * variant;
    const double cx = 0.5 + 0.75 * std::cos(angle), cy = 0.5 + 0.75 * std::sin(angle);
    const double cz = (c % 2) ? 1.1 : -0.1;
    const double d2 = (tx - cx) * (tx - cx) + (ty - cy) * (ty - cy) + 0.5 * (tz - cz) * (tz - cz);
    const double mag = std::exp(-d2 / (2.0 * 0.45 * 0.45)) + 0.05;
    const double phase = c == 0 ? 0.6 * tx - 0.4 * ty + 0.1 * variant
                                : 0.9 * c + 1.3 * (tx * std::cos(angle) + ty * std::sin(angle));
    return cf(static_cast<float>(mag * std::cos(phase)), static_cast<float>(mag * std::sin(phase)));
}

// Full-field-of-view object sampled on an nx x ny x nz grid.
inline Split make_object(int nx, int ny, int nz, int variant = 0) {
    Split img({nx, ny, nz});
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x)
                img.set(x + nx * (y + ny * z),
                        object(unit(x, nx), unit(y, ny), unit(z, nz), variant));
    return img;
}

// Sensitivity maps on their own nx x ny x nz grid covering the full field of view.
inline Split make_maps(int nx, int ny, int nz, int coils, int variant = 0) {
    Split maps({nx, ny, nz, coils});
    for (int c = 0; c < coils; ++c)
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x)
                    maps.set(x + nx * (y + ny * (z + nz * c)),
                             coil(c, coils, unit(x, nx), unit(y, ny), unit(z, nz), variant));
    return maps;
}

// Folded index of full position q: centred reduced field of view, aliases wrap around.
inline int fold_index(int q, int full, int folded) {
    const int s = (full - folded + 1) / 2;
    return ((q - s) % folded + folded) % folded;
}

// Folded coil images (fx, fy, fz, coils) of `img` seen by the coils of `set`; the maps are
// evaluated on the image grid, so coarser maps given to the reconstruction are only an
// approximation of what produced the data.
inline Split fold(const Split& img, int coils, int fy, int fz, int set = 0) {
    const int nx = img.dims[0], ny = img.dims[1], nz = img.dims[2];
    Split out({nx, fy, fz, coils});
    for (int c = 0; c < coils; ++c)
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    const cf s = coil(c, coils, unit(x, nx), unit(y, ny), unit(z, nz), set);
                    const size_t o =
                        x + static_cast<size_t>(nx) *
                                (fold_index(y, ny, fy) +
                                 static_cast<size_t>(fy) *
                                     (fold_index(z, nz, fz) + static_cast<size_t>(fz) * c));
                    out.set(o, out.at(o) + s * img.at(x + static_cast<size_t>(nx) * (y + ny * z)));
                }
    return out;
}

// Adds noise with covariance L L^H across coils (the last dimension of `data`).
inline void add_noise(Split& data, const std::vector<cf>& L, int coils, float sigma,
                      unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<float> g(0.0f, sigma);
    const size_t per = data.size() / coils;
    std::vector<cf> w(coils);
    for (size_t i = 0; i < per; ++i) {
        for (auto& v : w) v = cf(g(gen), g(gen));
        for (int r = 0; r < coils; ++r) {
            cf sum = 0;
            for (int k = 0; k < coils; ++k) sum += L[r + coils * k] * w[k];
            data.set(i + per * r, data.at(i + per * r) + sum);
        }
    }
}

// Normalised RMS error of `out` against `ref` over their first ref.size() samples.
inline double nrmse(const Split& out, const Split& ref, size_t offset = 0) {
    double err = 0.0, norm = 0.0;
    for (size_t i = 0; i < ref.size(); ++i) {
        const std::complex<double> a = out.at(offset + i), b = ref.at(i);
        err += std::norm(a - b);
        norm += std::norm(b);
    }
    return std::sqrt(err / norm);
}

// Output of a reconstruction of `folded`: full x, y, z, one combined image, the folded data's
// higher dimensions; every sample preset to `fill` so untouched samples stay recognisable.
inline Split make_output(const Split& folded, std::array<int, 3> full, float fill = 0.0f) {
    std::vector<int> dims(folded.dims);
    dims[0] = full[0];
    dims[1] = full[1];
    dims[2] = full[2];
    dims[3] = 1;
    Split out(dims);
    std::fill(out.re.begin(), out.re.end(), fill);
    std::fill(out.im.begin(), out.im.end(), fill);
    return out;
}

// Optional inputs of MR_sense_recon; null leaves them out.
struct Extras {
    const Split* noise = nullptr;  // coils x coils covariance
    const Split* ref = nullptr;    // reference image (its RMS scales the weight)
    const Split* reg = nullptr;    // prior image, one x-y-z block per sensitivity set
    double regScale = 1.0;
};

// MR_sense_recon (or another entry with its inputs) with the sizes taken from the blocks. `maps`
// may hold several sensitivity sets one after another; its dims describe one set.
using SenseEntry = decltype(&MR_sense_recon);
inline int reconstruct(const Split& folded, const Split& maps, std::array<int, 3> full, Split& out,
                       const Extras& e = {}, SenseEntry entry = &MR_sense_recon) {
    const int nd = static_cast<int>(folded.dims.size());
    const auto dims = [](const Split* s) { return s ? s->dims.data() : nullptr; };
    const auto count = [](const Split* s) { return s ? static_cast<int>(s->dims.size()) : 0; };
    const int identity[2] = {maps.dims[3], maps.dims[3]};  // size of the identity covariance
    return entry(
        folded.re.data(), folded.im.data(), nd, folded.dims.data(), maps.re.data(), maps.im.data(),
        static_cast<int>(maps.dims.size()), maps.dims.data(),
        e.noise ? e.noise->re.data() : nullptr, e.noise ? e.noise->im.data() : nullptr, 2,
        e.noise ? e.noise->dims.data() : identity, full.data(), e.ref ? e.ref->re.data() : nullptr,
        e.ref ? e.ref->im.data() : nullptr, count(e.ref), dims(e.ref),
        e.reg ? e.reg->re.data() : nullptr, e.reg ? e.reg->im.data() : nullptr, count(e.reg),
        dims(e.reg), e.regScale, out.re.data(), out.im.data(), out.dims.data());
}

}  // namespace sense_phantom
