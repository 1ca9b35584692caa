// Unfolding of one folded multi-coil volume: per folded voxel, the factors of its aliased
// positions are interpolated from the factor grid and applied to the coil values, and the
// results are scattered to the aliased positions of the full field of view.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <vector>

#include "recon/cpu.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/corners.hpp"
#include "recon/sense/factor_rows.hpp"
#include "recon/sense/products.hpp"
#include "recon/sense/unfold_volumes.hpp"

namespace {

// Where one folded index samples the factor grid: the coordinate (never below 0), its nearest
// grid index for the signal mask, and its lower grid index and fraction for interpolation.
struct Sample {
    float coord;
    int nearest, lower;
    double fraction;
};

// Folded index i -> factor-grid coordinate, first to first and last to last; along y and z the
// coordinate is snapped to the factor grid's compartments, so the interpolation never blends
// factors of differently aliased voxels.
std::vector<Sample> samples(int folded, int grid, int fullSize, const float* gridBounds) {
    float imageBounds[2] = {-1.0f, -1.0f};
    if (gridBounds) get_compartments(fullSize, folded, imageBounds);
    const float step =
        folded > 1 ? static_cast<float>(grid - 1) / static_cast<float>(folded - 1) : 0.0f;
    std::vector<Sample> out(folded);
    for (int i = 0; i < folded; ++i) {
        float c = folded == 1 ? 0.0f : static_cast<float>(i) * step;
        if (gridBounds) c = static_cast<float>(pos2interpolate(c, i, imageBounds, gridBounds));
        if (c < 0) c = 0;
        const int lower = static_cast<int>(c);
        out[i] = {c, MR_round(c), lower, c - static_cast<float>(lower)};
    }
    return out;
}

// Aliased full positions of every folded index of one axis, `most` entries per index.
struct Aliases {
    int most;
    std::vector<int> count, position;
    Aliases(int fullSize, int folded)
        : most(static_cast<int>(ceilf(static_cast<float>(fullSize) / static_cast<float>(folded)))),
          count(folded),
          position(static_cast<size_t>(folded) * most) {
        Eigen::VectorXi list(most);
        for (int i = 0; i < folded; ++i) {
            count[i] = MR_get_unfolded_positions(fullSize, folded, i, list);
            std::copy(list.data(), list.data() + most, position.begin() + i * most);
        }
    }
    const int* of(int i) const { return position.data() + static_cast<size_t>(i) * most; }
};

using mrkit::sense::cd;
using mrkit::sense::cf;

// Aliased positions per folded voxel up to which the output offsets are kept per row.
constexpr int kMaxSlots = 64;

// One thread's scratch for a run of folded voxels along x (a chunk of one (y, z) row): which
// aliased positions carry signal, each voxel's factor matrix M, and the coil values.
struct Chunk {
    static constexpr int kLength = 64;
    const int slots, coils;
    int active = 0;             // voxels with signal, in x order
    std::vector<int> x, valid;  // their x and number of positions with signal
    std::vector<int> rowOf;     // slots per voxel: row of position m in M, or -1
    std::vector<int> ld;        // leading dimension of the voxel's M
    std::vector<cf> M;          // slots x coils per voxel, column-major
    std::vector<cf> values;     // coil values of each x of the chunk

    Chunk(int s, int c)
        : slots(s),
          coils(c),
          x(kLength),
          valid(kLength),
          rowOf(static_cast<size_t>(kLength) * s),
          ld(kLength),
          M(static_cast<size_t>(kLength) * s * c),
          values(static_cast<size_t>(kLength) * c) {}
    int* rows(int i) { return rowOf.data() + static_cast<size_t>(i) * slots; }
    cf* matrix(int i) { return M.data() + static_cast<size_t>(i) * slots * coils; }
    cf* values_at(int c) { return values.data() + static_cast<size_t>(c) * kLength; }
};

// Coil values re[x] + i im[x] (im may be null) for x = x0 .. x1 - 1 into out[x - x0].
inline void gather(const float* re, const float* im, int x0, int x1, cf* out) {
    int x = x0;
#if defined(__SSE2__)
    float* to = reinterpret_cast<float*>(out) - 2 * x0;
    if (im)
        for (; x + 4 <= x1; x += 4) {
            const __m128 r = _mm_loadu_ps(re + x), i = _mm_loadu_ps(im + x);
            _mm_storeu_ps(to + 2 * x, _mm_unpacklo_ps(r, i));
            _mm_storeu_ps(to + 2 * x + 4, _mm_unpackhi_ps(r, i));
        }
#endif
    for (; x < x1; ++x) out[x - x0] = cf(re[x], im ? im[x] : 0.0f);
}

inline cf narrow(cd v) {
    return cf(static_cast<float>(v.real()), static_cast<float>(v.imag()));
}

// M of a voxel with `valid` of its n positions carrying signal (rows: their rows in M).
template <class Runs>
void interpolate(const Runs& runs, int valid, const int* rows, int n, int coils, int slots,
                 bool avx2, cf* out) {
    if (valid == n) return runs.all(n * coils, out, avx2);
    for (int c = 0; c < coils; ++c)
        for (int m = 0; m < n; ++m)
            if (rows[m] >= 0) out[rows[m] + static_cast<size_t>(c) * slots] = runs.at(c * n + m);
}

}  // namespace

namespace mrkit::sense {

int unfold_volumes(const std::vector<Volume>& volumes, const Eigen::VectorXi& foldedDims,
                   const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
                   const Eigen::VectorXi& fullDims, const float* yCompartments,
                   const float* zCompartments) {
    if (volumes.empty()) return 1;
    const int fd0 = foldedDims[0], fd1 = foldedDims[1], fd2 = foldedDims[2], fd3 = foldedDims[3];
    const int N0 = fullDims[0], N1 = fullDims[1], N2 = fullDims[2];
    const int F0 = factorDims[0], F1 = factorDims[1], F2 = factorDims[2];
    const int slab = fd0 * fd1, volume = slab * fd2, foldedTotal = foldedDims.prod();
    const int plane = F0 * F1, V = plane * F2;
    const int outPlane = N0 * N1, outTotal = outPlane * N2;

    const std::vector<Sample> xs = samples(fd0, F0, N0, nullptr);
    const std::vector<Sample> ys = samples(fd1, F1, N1, yCompartments);
    const std::vector<Sample> zs = samples(fd2, F2, N2, zCompartments);
    const Aliases yAlias(N1, fd1), zAlias(N2, fd2);
    const int slots = yAlias.most * zAlias.most;
    // Blocks a voxel may read, as far as the factor vector holds them.
    const int blocks = V > 0 ? static_cast<int>(std::min<Eigen::Index>(
                                   static_cast<Eigen::Index>(slots) * fd3, factors.size() / V))
                             : 0;

    std::atomic<int> status{1};
    mrkit::parallel_blocks(fd0, [&](int begin, int end) {
        if (begin >= end) return;
        Chunk ch(slots, fd3);
        Eigen::VectorXcf u(slots), u2(slots);
        // Grid columns of this thread's corners: the lower one of each x and the next.
        const int lo = xs[begin].lower, width = xs[end - 1].lower + 2 - lo;
        mrkit::sense::FactorRows cache(factors.data(), F0, V, lo, width, blocks, F2 > 1 ? 8 : 4);
        const bool avx2 = mrkit::has_avx2();

        for (int y = 0; y < fd1; ++y) {
            const int ny = yAlias.count[y];
            const int* yList = yAlias.of(y);
            for (int z = 0; z < fd2; ++z) {
                const int nz = zAlias.count[z];
                const int* zList = zAlias.of(z);
                const int n = ny * nz;
                const Sample &sy = ys[y], &sz = zs[z];
                // Weight of corner k: (x weight * y weight) * z weight, each t or 1 - t.
                const double wy[2] = {1.0 - sy.fraction, sy.fraction};
                const double wz[2] = {1.0 - sz.fraction, sz.fraction};
                const int rowBase = sy.lower * F0 + sz.lower * plane;
                const int row0 = sy.lower + sz.lower * F1;
                // Corner rows (y, y + 1, then one plane on), fetched when first needed.
                const cd* row[4] = {nullptr, nullptr, nullptr, nullptr};
                const auto rows_for = [&](int corners) {
                    for (int r = 0; r < corners / 2; ++r)
                        if (!row[r]) row[r] = cache.row(row0 + (r & 1) + (r & 2 ? F1 : 0), n * fd3);
                };
                for (int x0 = begin; x0 < end; x0 += Chunk::kLength) {
                    const int x1 = std::min(end, x0 + Chunk::kLength);

                    // Coil 0's factor at the nearest grid voxel says which positions carry
                    // signal; outside the object this is the only work done.
                    ch.active = 0;
                    for (int x = x0; x < x1; ++x) {
                        const Sample& sx = xs[x];
                        const int r = sz.nearest * plane + sy.nearest * F0 + sx.nearest;
                        int* rows = ch.rows(ch.active);
                        int valid = 0;
                        for (int m = 0; m < n; ++m) {
                            const cd f = factors[r + m * V];
                            rows[m] = (f.real() != 0.0 || f.imag() != 0.0) ? valid++ : -1;
                        }
                        if (valid == 0) continue;
                        const int i = ch.active++;
                        ch.x[i] = x;
                        ch.valid[i] = valid;

                        // Corners as MR_linear_interpolation picks them; within a block, so the
                        // block bound (block + 1) * V leaves b + offset < V as the test. All
                        // corners of one plane (4) or two (8) come from the cached rows; other
                        // voxels, at the grid's end, read the factors as they lie.
                        const int b = sx.lower + rowBase;
                        const int corners = b + F0 + 1 + plane < V             ? 8
                                            : b + plane >= V && b + F0 + 1 < V ? 4
                                                                               : 0;
                        cf* out = ch.matrix(i);
                        if (corners == 0 || n * fd3 > blocks) {
                            const mrkit::Corners<double> at(b, F0, plane, V, sx.fraction,
                                                            sy.fraction, sz.fraction);
                            for (int c = 0; c < fd3; ++c)
                                for (int m = 0; m < n; ++m)
                                    if (rows[m] >= 0)
                                        out[rows[m] + static_cast<size_t>(c) * slots] =
                                            narrow(at.apply(factors.data() + (c * n + m) * V));
                            ch.ld[i] = slots;
                            continue;
                        }
                        const double wx[2] = {1.0 - sx.fraction, sx.fraction};
                        double w[8];
                        for (int k = 0; k < corners; ++k)
                            w[k] = wx[k & 1] * wy[(k >> 1) & 1] * wz[(k >> 2) & 1];
                        rows_for(corners);
                        // With signal at every position M is all blocks in order (n x coils,
                        // leading dimension n), otherwise the rows with signal only.
                        ch.ld[i] = valid == n ? n : slots;
                        if (corners == 4)
                            interpolate(mrkit::sense::CornerRuns<4>{row, sx.lower - lo, blocks, w},
                                        valid, rows, n, fd3, slots, avx2, out);
                        else
                            interpolate(mrkit::sense::CornerRuns<8>{row, sx.lower - lo, blocks, w},
                                        valid, rows, n, fd3, slots, avx2, out);
                    }
                    if (ch.active == 0) continue;

                    // Output offset of each aliased position (y outer, z inner) but for x; when
                    // none can reach past the output, a voxel whose positions all carry signal
                    // writes them without the checks below.
                    int offset[kMaxSlots];
                    bool inside = n <= kMaxSlots;
                    for (int m = 0; m < n && inside; ++m) {
                        offset[m] = yList[m / nz] * N0 + zList[m % nz] * outPlane;
                        inside = offset[m] + x1 - 1 < outTotal;
                    }
                    const int rowStart = y * fd0 + z * slab;
                    const bool folded = rowStart + x1 - 1 < foldedTotal;
                    for (const Volume& vol : volumes) {
                        // The chunk's coil values, coil by coil along the row, so that the
                        // coils' rows (a volume apart) are not all read at once.
                        for (int c = 0; c < fd3; ++c)
                            gather(vol.foldedRe + rowStart + c * volume,
                                   vol.foldedIm ? vol.foldedIm + rowStart + c * volume : nullptr,
                                   x0, x1, ch.values_at(c));
                        // Results u of voxel i to its aliased positions.
                        const auto scatter = [&](int i, const cf* u) {
                            const int x = ch.x[i];
                            if (inside && ch.valid[i] == n) {
                                for (int m = 0; m < n; ++m) {
                                    vol.outRe[offset[m] + x] = u[m].real();
                                    vol.outIm[offset[m] + x] = u[m].imag();
                                }
                                return;
                            }
                            // Aliased positions in factor order (y outer, z inner). One outside
                            // the output advances neither counter, so the rest of the voxel
                            // pairs with the mask one step behind; that pairing is kept.
                            const int* rows = ch.rows(i);
                            int k = 0, j = 0;
                            for (int iy = 0; iy < ny; ++iy) {
                                for (int iz = 0; iz < nz; ++iz) {
                                    if (rows[k] < 0) {
                                        ++k;
                                        continue;
                                    }
                                    const int o = yList[iy] * N0 + x + zList[iz] * outPlane;
                                    if (o >= outTotal) {
                                        status.store(-1, std::memory_order_relaxed);
                                        continue;
                                    }
                                    vol.outRe[o] = u[j].real();
                                    vol.outIm[o] = u[j].imag();
                                    ++j;
                                    ++k;
                                }
                            }
                        };
                        const cf* values = ch.values_at(0);
                        for (int i = 0; i < ch.active; ++i) {
                            const int x = ch.x[i];
                            if (!folded && y * fd0 + x + z * slab >= foldedTotal) {
                                status.store(-1, std::memory_order_relaxed);
                                continue;
                            }
#ifdef MRKIT_AVX2_PAIRS
                            // Two voxels with as many positions with signal at once; a voxel
                            // without such a neighbour goes through the same kernel paired with
                            // itself, so that which voxels pair up (it depends on the threads'
                            // blocks) cannot change the bits, not even of a NaN.
                            if (avx2 && fd3 < 128 && ch.valid[i] >= 2) {
                                const bool pair =
                                    i + 1 < ch.active && ch.valid[i + 1] == ch.valid[i] &&
                                    (folded || y * fd0 + ch.x[i + 1] + z * slab < foldedTotal);
                                const int k = pair ? i + 1 : i;
                                mrkit::small::matrix_vector_two_avx2(
                                    ch.matrix(i), ch.ld[i], ch.matrix(k), ch.ld[k], ch.valid[i],
                                    fd3, values + (x - x0), values + (ch.x[k] - x0), Chunk::kLength,
                                    u.data(), u2.data());
                                scatter(i, u.data());
                                if (pair) scatter(++i, u2.data());
                                continue;
                            }
#endif
                            mrkit::small::matrix_vector(ch.matrix(i), ch.ld[i], ch.valid[i], fd3,
                                                        values + (x - x0), Chunk::kLength,
                                                        u.data());
                            scatter(i, u.data());
                        }
                    }
                }
            }
        }
    });
    return status.load();
}

}  // namespace mrkit::sense

int unfold(const float* foldedRe, const float* foldedIm, const Eigen::VectorXi& foldedDims,
           const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
           const Eigen::VectorXi& /*sensDims*/, Eigen::VectorXi fullDims,
           const float* yCompartments, const float* zCompartments, float* outRe, float* outIm) {
    return mrkit::sense::unfold_volumes({{foldedRe, foldedIm, outRe, outIm}}, foldedDims, factors,
                                        factorDims, fullDims, yCompartments, zCompartments);
}
