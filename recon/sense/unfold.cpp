// Unfolding of one folded multi-coil volume: per folded voxel, the factors of its aliased
// positions are interpolated from the factor grid and applied to the coil values, and the
// results are scattered to the aliased positions of the full field of view.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstring>
#include <type_traits>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/unfold_chunk.hpp"
#include "recon/sense/unfold_volumes.hpp"

namespace mrkit::sense::unfolding {
namespace {

using lanes::Double2;
using lanes::Double4;
using lanes::Float4;
using lanes::Float8;
template <int N>
using Fixed = std::integral_constant<int, N>;

// Kernel bodies over lanes, compiled per target; Width is the lanes' bytes, 16 or 32.

template <int Width>
MRKIT_INLINE void gather_body(const float* re, const float* im, int x0, int x1, cf* out,
                              Fixed<Width>) {
    using V = std::conditional_t<Width == 16, Float4, Float8>;
    constexpr int n = Width / 4;
    int x = x0;
    if (im)
        for (float* to = reinterpret_cast<float*>(out); x + n <= x1; x += n, to += 2 * n) {
            const V r = lanes::load<V>(re + x), i = lanes::load<V>(im + x);
            if constexpr (n == 4) {
                lanes::store(to, __builtin_shufflevector(r, i, 0, 4, 1, 5));
                lanes::store(to + 4, __builtin_shufflevector(r, i, 2, 6, 3, 7));
            } else {
                lanes::store(to, __builtin_shufflevector(r, i, 0, 8, 1, 9, 2, 10, 3, 11));
                lanes::store(to + 8, __builtin_shufflevector(r, i, 4, 12, 5, 13, 6, 14, 7, 15));
            }
        }
    for (; x < x1; ++x) out[x - x0] = cf(re[x], im ? im[x] : 0.0f);
}

template <int Width>
MRKIT_INLINE void all_signal_body(const cd* f, int V, int n, int count, bool* result,
                                  Fixed<Width>) {
    using D = std::conditional_t<Width == 16, Double2, Double4>;
    constexpr int each = Width / 16;  // complex per load
    bool all = true;
    for (int k = 0; k < n && all; ++k) {
        const cd* in = f + static_cast<size_t>(k) * V;
        int q = 0;
        for (; q + each <= count; q += each) {
            // A part not equal to zero (NaN included) in either part of each complex.
            const auto part = lanes::load<D>(reinterpret_cast<const double*>(in + q)) != D{};
            for (int e = 0; e < each; ++e) all = all && (part[2 * e] | part[2 * e + 1]);
        }
        for (; q < count; ++q) all = all && (in[q].real() != 0.0 || in[q].imag() != 0.0);
    }
    *result = all;
}

// The coil products of every pair of the chunk (n rows, fewer than kBlockedColumns coils): the
// next x's values go with the second voxel, and a voxel alone reads them unused (the spare entry
// when it is the chunk's last). Coils and Rows > 0 fix the sizes, so that the loops unroll; every
// pair of a call, wherever its matrix lies, takes the same code.
template <int Coils, int Rows>
MRKIT_INLINE void chunk_pairs(Chunk* ch, int n, int coils, int x0) {
    const cf* values = ch->values_at(0);
    const int step = ch->pair_step();
    for (int p = 0; p < ch->pairs; ++p)
        products::two_voxels<Coils, Rows>(
            products::Interleaved{ch->pair_matrix(p), values + (ch->x[ch->first[p]] - x0), step, n,
                                  Chunk::kLength, ch->pair_result(p)},
            n, coils);
}

template <int Coils>
MRKIT_INLINE void chunk_pairs_rows(Chunk* ch, int n, int coils, int x0) {
    switch (n) {
        case 2:
            return chunk_pairs<Coils, 2>(ch, n, coils, x0);
        case 3:
            return chunk_pairs<Coils, 3>(ch, n, coils, x0);
        case 4:
            return chunk_pairs<Coils, 4>(ch, n, coils, x0);
        default:
            return chunk_pairs<Coils, 0>(ch, n, coils, x0);
    }
}

MRKIT_INLINE void pair_products_body(Chunk* ch, int n, int coils, int x0) {
    switch (coils) {
        case 8:
            return chunk_pairs_rows<8>(ch, n, coils, x0);
        case 12:
            return chunk_pairs_rows<12>(ch, n, coils, x0);
        case 16:
            return chunk_pairs_rows<16>(ch, n, coils, x0);
        case 32:
            return chunk_pairs_rows<32>(ch, n, coils, x0);
        default:
            return chunk_pairs_rows<0>(ch, n, coils, x0);
    }
}

MRKIT_INLINE void two_voxels_body(products::TwoVoxels s, Index rows, Index cols) {
    products::two_voxels<0, 0>(s, rows, cols);
}

MRKIT_PER_TARGET(gather, gather_body)
MRKIT_PER_TARGET(all_signal, all_signal_body)
MRKIT_PER_TARGET(pair_products, pair_products_body)
MRKIT_PER_TARGET(two_voxels, two_voxels_body)

template <class... Args>
void gather16(Args... args) {
    gather_baseline(args..., Fixed<16>());
}
template <class... Args>
void gather32(Args... args) {
    gather_avx2(args..., Fixed<32>());
}
template <class... Args>
void all_signal16(Args... args) {
    all_signal_baseline(args..., Fixed<16>());
}
template <class... Args>
void all_signal32(Args... args) {
    all_signal_avx2(args..., Fixed<32>());
}

}  // namespace

const Kernels& Kernels::chosen() {
    using Gather = decltype(gather);
    using AllSignal = decltype(all_signal);
    using PairProducts = decltype(pair_products);
    using TwoVoxels = decltype(two_voxels);
    using Copy = CopyNarrowed;
    using Pairs = CornerPairs;
    static const Kernels baseline{false,
                                  static_cast<Gather>(gather16),
                                  static_cast<AllSignal>(all_signal16),
                                  static_cast<PairProducts>(pair_products_baseline),
                                  static_cast<TwoVoxels>(two_voxels_baseline),
                                  static_cast<Copy>(copy_narrowed_baseline),
                                  static_cast<Pairs>(corner_pairs4_baseline),
                                  static_cast<Pairs>(corner_pairs8_baseline)};
    static const Kernels avx2{true,
                              static_cast<Gather>(gather32),
                              static_cast<AllSignal>(all_signal32),
                              static_cast<PairProducts>(pair_products_avx2),
                              static_cast<TwoVoxels>(two_voxels_avx2),
                              static_cast<Copy>(copy_narrowed_avx2),
                              static_cast<Pairs>(corner_pairs4_avx2),
                              static_cast<Pairs>(corner_pairs8_avx2)};
    return *lanes::pick(&baseline, &avx2);
}

}  // namespace mrkit::sense::unfolding

namespace {

using namespace mrkit::sense::unfolding;
using mrkit::sense::cf;
namespace lanes = mrkit::lanes;
using lanes::Float4;

// Where the results of a chunk's voxels go in one output volume.
class Scatter {
  public:
    Scatter(const Layout& L, const Row& row, int x1, const mrkit::sense::Volume& vol,
            std::atomic<int>& status)
        : L_(L), row_(row), vol_(vol), status_(status) {
        // When no aliased position of the chunk can reach past the output, a voxel whose
        // positions all carry signal writes them without the checks of voxel() below.
        inside_ = row.n <= kMaxSlots;
        for (int m = 0; m < row.n && inside_; ++m) {
            offset_[m] = row.yList[m / row.nz] * L.N0 + row.zList[m % row.nz] * L.outPlane;
            inside_ = offset_[m] + x1 - 1 < L.outTotal;
        }
    }

    // Results u of voxel i to its aliased positions.
    void voxel(const Chunk& ch, int i, const cf* u) const {
        const int x = ch.x[i], n = row_.n;
        if (inside_ && ch.valid[i] == n) {
            for (int m = 0; m < n; ++m) put(offset_[m] + x, u[m]);
            return;
        }
        // Aliased positions in factor order (y outer, z inner). One outside the output
        // advances neither counter, so the rest of the voxel pairs with the mask one step
        // behind; that pairing is kept.
        const int* rows = ch.rows(i);
        int k = 0, j = 0;
        for (int iy = 0; iy < row_.ny; ++iy)
            for (int iz = 0; iz < row_.nz; ++iz) {
                if (rows[k] < 0) {
                    ++k;
                    continue;
                }
                const int o = row_.yList[iy] * L_.N0 + x + row_.zList[iz] * L_.outPlane;
                if (o >= L_.outTotal) {
                    status_.store(-1, std::memory_order_relaxed);
                    continue;
                }
                put(o, u[j]);
                ++j;
                ++k;
            }
    }

    // The voxels of pair p, their results interleaved.
    void pair(Chunk& ch, int p) const {
        const int i = ch.first[p], x = ch.x[i], n = row_.n;
        const bool two = ch.two[p];
        const cf* U = ch.pair_result(p);
        if (!inside_) {
            for (int m = 0; m < n; ++m) {
                ch.u[m] = U[2 * m];
                ch.u2[m] = U[2 * m + 1];
            }
            voxel(ch, i, ch.u.data());
            if (two) voxel(ch, i + 1, ch.u2.data());
            return;
        }
        for (int m = 0; m < n; ++m) {
            put(offset_[m] + x, U[2 * m]);
            if (two) put(offset_[m] + x + 1, U[2 * m + 1]);
        }
    }

    // Every pair of a dense chunk (pair p of voxels 2p and 2p + 1, along x position by position):
    // two pairs at a time while inside.
    void dense(Chunk& ch) const {
        int p = 0;
        if (inside_) {
            const int quads = ch.active / 4 * 2;
            const size_t step = 4 * static_cast<size_t>(ch.slots);  // floats from pair to pair
            for (int m = 0; m < row_.n; ++m) {
                const float* u = reinterpret_cast<const float*>(ch.pair_result(0) + 2 * m);
                float* re = vol_.outRe + offset_[m] + ch.x[0];
                float* im = vol_.outIm + offset_[m] + ch.x[0];
                for (int q = 0; q < quads; q += 2, u += 2 * step, re += 4, im += 4) {
                    const Float4 a = lanes::load<Float4>(u), b = lanes::load<Float4>(u + step);
                    lanes::store(re, __builtin_shufflevector(a, b, 0, 2, 4, 6));
                    lanes::store(im, __builtin_shufflevector(a, b, 1, 3, 5, 7));
                }
            }
            p = quads;
        }
        for (; p < ch.pairs; ++p) pair(ch, p);
    }

  private:
    void put(int o, cf value) const {
        vol_.outRe[o] = value.real();
        vol_.outIm[o] = value.imag();
    }

    const Layout& L_;
    const Row& row_;
    const mrkit::sense::Volume& vol_;
    std::atomic<int>& status_;
    int offset_[kMaxSlots];
    bool inside_;
};

// The chunk's coil values, coil by coil along the row, so that the coils' rows (a volume apart)
// are not all read at once.
void gather_values(const Layout& L, int rowStart, int x0, int x1, const mrkit::sense::Volume& vol,
                   Chunk& ch) {
    for (int c = 0; c < L.fd3; ++c) {
        const float* re = vol.foldedRe + rowStart + c * L.foldedVolume;
        const float* im = vol.foldedIm ? vol.foldedIm + rowStart + c * L.foldedVolume : nullptr;
        L.kernels.gather(re, im, x0, x1, ch.values_at(c));
    }
}

// The coil products of the chunk's voxels one by one (or two by two where their matrices lie
// apart), each scattered at once; pairs whose products are done are only scattered.
void voxel_products(const Layout& L, int n, int x0, bool pairsDone, Chunk& ch,
                    const Scatter& scatter) {
    const cf* values = ch.values_at(0);
    for (int i = 0; i < ch.active; ++i) {
        const int x = ch.x[i];
        if (const int p = ch.pairOf[i]; p >= 0) {
            if (pairsDone) {
                scatter.pair(ch, p);
                if (ch.two[p]) ++i;
                continue;
            }
            // One position (n = 1): each voxel's row into its own M.
            const cf* P = ch.pair_matrix(p);
            const size_t step = ch.pair_step();
            for (int k = 0; k < (ch.two[p] ? 2 : 1); ++k) {
                cf* M = ch.matrix(i + k);
                for (int c = 0; c < L.fd3; ++c) M[c] = P[c * step + k];
                matrix_vector(M, n, n, L.fd3, values + (x + k - x0), Chunk::kLength, ch.u.data());
                scatter.voxel(ch, i + k, ch.u.data());
            }
            if (ch.two[p]) ++i;
            continue;
        }
        // Two voxels at once, all n rows each (Eigen's product takes the unused rows too, which
        // decides the bits of the used ones); a voxel without a neighbour goes through the same
        // kernel paired with itself, so that which voxels pair up (it depends on the threads'
        // blocks) cannot change the bits, not even of a NaN.
        if (L.kernels.pairs && kEigenOrders && L.fd3 < kBlockedColumns && n >= 2) {
            const bool pair = i + 1 < ch.active && ch.pairOf[i + 1] < 0;
            const int k = pair ? i + 1 : i;
            L.kernels.two_voxels(
                {ch.matrix(i), ch.matrix(k), values + (x - x0), values + (ch.x[k] - x0), n, n,
                 Chunk::kLength, ch.u.data(), ch.u2.data()},
                n, L.fd3);
            scatter.voxel(ch, i, ch.u.data());
            if (pair) scatter.voxel(ch, ++i, ch.u2.data());
            continue;
        }
        matrix_vector(ch.matrix(i), n, n, L.fd3, values + (x - x0), Chunk::kLength, ch.u.data());
        scatter.voxel(ch, i, ch.u.data());
    }
}

// The chunk's voxels of one volume: u = M v per voxel, scattered to its aliased positions.
void unfold_chunk(const Layout& L, const Row& row, int x0, int x1, const mrkit::sense::Volume& vol,
                  Chunk& ch, std::atomic<int>& status) {
    // Every voxel with signal is out of range when there are no coils (the folded offset
    // reaches the end at once); otherwise none is.
    const int rowStart = row.y * L.fd0 + row.z * L.foldedPlane;
    if (rowStart + x1 - 1 >= L.foldedTotal) {
        if (ch.active > 0) status.store(-1, std::memory_order_relaxed);
        return;
    }
    gather_values(L, rowStart, x0, x1, vol, ch);
    const Scatter scatter(L, row, x1, vol, status);
    // Pairs exist only where the kernels pair voxels, and with n >= 2 their matrices are ready.
    const bool pairsDone = ch.pairs > 0 && row.n >= 2;
    if (pairsDone) L.kernels.pair_products(&ch, row.n, L.fd3, x0);
    if (pairsDone && ch.dense) return scatter.dense(ch);
    voxel_products(L, row.n, x0, pairsDone, ch, scatter);
}

}  // namespace

namespace mrkit::sense {

int unfold_volumes(const std::vector<Volume>& volumes, const Eigen::VectorXi& foldedDims,
                   const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
                   const Eigen::VectorXi& fullDims, const float* yCompartments,
                   const float* zCompartments) {
    if (volumes.empty()) return 1;
    const Layout L(foldedDims, factors, factorDims, fullDims, yCompartments, zCompartments);
    std::atomic<int> status{1};
    mrkit::parallel_blocks(L.fd0, [&](int begin, int end) {
        if (begin >= end) return;
        Chunk ch(L.slots, L.fd3);
        // Grid columns of a strip's corners: the lower one of each x and the next. Rows y and
        // y + 1 (and the same one plane on) are kept across the strip, so that the next row of
        // folded voxels finds half of its corners there. Strips of at most kStripWidth columns
        // bound that scratch whatever the image's width.
        const int lo0 = L.xs[begin].lower;
        KeptRows cache(L, std::min(L.xs[end - 1].lower + 2 - lo0, kStripWidth));
        // Folded rows longer than the output's reach into its next row, so that two voxels may
        // write one sample; the one later in x order must win, as with x outermost. Then every
        // strip is one x wide.
        const bool overlaps = L.fd0 > L.N0;
        for (int s0 = begin, s1; s0 < end; s0 = s1) {
            const int lo = L.xs[s0].lower;
            for (s1 = s0 + 1; s1 < end && !overlaps && L.xs[s1].lower + 2 - lo <= kStripWidth;)
                ++s1;
            cache.columns(lo, L.xs[s1 - 1].lower + 2 - lo);
            // Row by row, each row in chunks: the folded volumes are read along their rows.
            // A host's stop request ends the call between rows (the output then partly written).
            for (int y = 0; y < L.fd1 && !mrkit::interrupted(); ++y)
                for (int z = 0; z < L.fd2; ++z) {
                    Row row(L, y, z);
                    for (int x0 = s0; x0 < s1; x0 += Chunk::kLength) {
                        const int x1 = std::min(s1, x0 + Chunk::kLength);
                        find_signal(L, row, x0, x1, ch);
                        if (ch.active == 0) continue;
                        interpolate(L, row, lo, cache, ch);
                        for (const Volume& vol : volumes)
                            unfold_chunk(L, row, x0, x1, vol, ch, status);
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
