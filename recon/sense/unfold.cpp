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

#include "recon/cpu.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/unfold_chunk.hpp"
#include "recon/sense/unfold_volumes.hpp"

namespace {

using namespace mrkit::sense::unfolding;
using mrkit::sense::cf;

// Coil values re[x] + i im[x] (im may be null) for x = x0 .. x1 - 1 into out[x - x0].
inline void gather(const float* re, const float* im, int x0, int x1, cf* out) {
    int x = x0;
#if defined(__SSE2__)
    if (im)
        for (float* to = reinterpret_cast<float*>(out); x + 4 <= x1; x += 4, to += 8) {
            const __m128 r = _mm_loadu_ps(re + x), i = _mm_loadu_ps(im + x);
            _mm_storeu_ps(to, _mm_unpacklo_ps(r, i));
            _mm_storeu_ps(to + 4, _mm_unpackhi_ps(r, i));
        }
#endif
    for (; x < x1; ++x) out[x - x0] = cf(re[x], im ? im[x] : 0.0f);
}

#ifdef MRKIT_AVX2
// gather, eight values at a time.
__attribute__((target("avx2"))) void gather_avx2(const float* re, const float* im, int x0, int x1,
                                                 cf* out) {
    int x = x0;
    if (im) {
        for (float* to = reinterpret_cast<float*>(out); x + 8 <= x1; x += 8, to += 16) {
            const __m256 r = _mm256_loadu_ps(re + x), i = _mm256_loadu_ps(im + x);
            const __m256 lo = _mm256_unpacklo_ps(r, i), hi = _mm256_unpackhi_ps(r, i);
            _mm256_storeu_ps(to, _mm256_permute2f128_ps(lo, hi, 0x20));
            _mm256_storeu_ps(to + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
        }
    }
    gather(re, im, x, x1, out + (x - x0));
}
#endif

#ifdef MRKIT_AVX2_PAIRS
// The coil products of every pair of the chunk (n rows, fewer than kBlockedColumns coils), one
// loop for all: the next x's values go with the second voxel, and a voxel alone reads them unused
// (the spare entry when it is the chunk's last).
template <int Coils, int Rows>
__attribute__((target("avx2"))) void pair_products_avx2(Chunk& ch, int n, int coils, int x0) {
    const cf* values = ch.values_at(0);
    const int step = ch.pair_step();
    for (int p = 0; p < ch.pairs; ++p)
        mrkit::small::matrix_vector_interleaved_avx2<Coils, Rows>(
            ch.pair_matrix(p), step, n, coils, values + (ch.x[ch.first[p]] - x0), Chunk::kLength,
            ch.pair_result(p));
}

// The usual sizes unrolled (Coils and Rows > 0 fix them); every pair of a call, wherever its
// matrix lies, takes the same code.
template <int Coils>
void pair_products(Chunk& ch, int n, int coils, int x0) {
    with_positions(n, [&](auto N) { pair_products_avx2<Coils, N()>(ch, n, coils, x0); });
}

void pair_products(Chunk& ch, int n, int coils, int x0) {
    switch (coils) {
        case 8:
            return pair_products<8>(ch, n, coils, x0);
        case 12:
            return pair_products<12>(ch, n, coils, x0);
        case 16:
            return pair_products<16>(ch, n, coils, x0);
        case 32:
            return pair_products<32>(ch, n, coils, x0);
        default:
            return pair_products<0>(ch, n, coils, x0);
    }
}
#endif

// The chunk's voxels of one volume: u = M v per voxel, scattered to its aliased positions.
void unfold_chunk(const Layout& L, const Row& row, int x0, int x1, bool avx2,
                  const mrkit::sense::Volume& vol, Chunk& ch, std::atomic<int>& status) {
    const int n = row.n, ny = row.ny, nz = row.nz;
    // Output offset of each aliased position (y outer, z inner) but for x; when none can reach
    // past the output, a voxel whose positions all carry signal writes them without the checks
    // below.
    int offset[kMaxSlots];
    bool inside = n <= kMaxSlots;
    for (int m = 0; m < n && inside; ++m) {
        offset[m] = row.yList[m / nz] * L.N0 + row.zList[m % nz] * L.outPlane;
        inside = offset[m] + x1 - 1 < L.outTotal;
    }
    // Every voxel with signal is out of range when there are no coils (the folded offset
    // reaches the end at once); otherwise none is.
    const int rowStart = row.y * L.fd0 + row.z * L.slab;
    if (rowStart + x1 - 1 >= L.foldedTotal) {
        if (ch.active > 0) status.store(-1, std::memory_order_relaxed);
        return;
    }

    // The chunk's coil values, coil by coil along the row, so that the coils' rows (a volume
    // apart) are not all read at once.
    for (int c = 0; c < L.fd3; ++c) {
        const float* re = vol.foldedRe + rowStart + c * L.volume;
        const float* im = vol.foldedIm ? vol.foldedIm + rowStart + c * L.volume : nullptr;
#ifdef MRKIT_AVX2
        if (avx2) {
            gather_avx2(re, im, x0, x1, ch.values_at(c));
            continue;
        }
#endif
        gather(re, im, x0, x1, ch.values_at(c));
    }

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
        // Aliased positions in factor order (y outer, z inner). One outside the output
        // advances neither counter, so the rest of the voxel pairs with the mask one step
        // behind; that pairing is kept.
        const int* rows = ch.rows(i);
        int k = 0, j = 0;
        for (int iy = 0; iy < ny; ++iy) {
            for (int iz = 0; iz < nz; ++iz) {
                if (rows[k] < 0) {
                    ++k;
                    continue;
                }
                const int o = row.yList[iy] * L.N0 + x + row.zList[iz] * L.outPlane;
                if (o >= L.outTotal) {
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
    // The two voxels of a pair: results interleaved, written two neighbours at a time.
    const auto scatter_pair = [&](int p) {
        const int i = ch.first[p], x = ch.x[i];
        const bool two = ch.two[p];
        const cf* U = ch.pair_result(p);
        if (!inside) {
            for (int m = 0; m < n; ++m) {
                ch.u[m] = U[2 * m];
                ch.u2[m] = U[2 * m + 1];
            }
            scatter(i, ch.u.data());
            if (two) scatter(i + 1, ch.u2.data());
            return;
        }
        for (int m = 0; m < n; ++m) {
            float* re = vol.outRe + offset[m] + x;
            float* im = vol.outIm + offset[m] + x;
            if (!two) {
                *re = U[2 * m].real();
                *im = U[2 * m].imag();
                continue;
            }
#if defined(__SSE2__)
            const __m128 q = _mm_loadu_ps(reinterpret_cast<const float*>(U + 2 * m));
            _mm_storel_pi(reinterpret_cast<__m64*>(re),
                          _mm_shuffle_ps(q, q, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storel_pi(reinterpret_cast<__m64*>(im),
                          _mm_shuffle_ps(q, q, _MM_SHUFFLE(3, 1, 3, 1)));
#else
            re[0] = U[2 * m].real();
            re[1] = U[2 * m + 1].real();
            im[0] = U[2 * m].imag();
            im[1] = U[2 * m + 1].imag();
#endif
        }
    };
    bool products = false;  // of the pairs, done
#ifdef MRKIT_AVX2_PAIRS
    if (ch.pairs > 0 && n >= 2) {  // the pairs take fewer than kBlockedColumns coils
        pair_products(ch, n, L.fd3, x0);
        products = true;
    }
#endif
    if (products && ch.dense) {
        int p = 0;
#if defined(__SSE2__)
        // Two pairs of two at a time, along x position by position.
        if (inside) {
            const int quads = ch.active / 4 * 2;
            const size_t step = 4 * static_cast<size_t>(ch.slots);  // floats from pair to pair
            for (int m = 0; m < n; ++m) {
                const float* u = reinterpret_cast<const float*>(ch.pair_result(0) + 2 * m);
                float* re = vol.outRe + offset[m] + ch.x[0];
                float* im = vol.outIm + offset[m] + ch.x[0];
                for (int q = 0; q < quads; q += 2, u += 2 * step, re += 4, im += 4) {
                    const __m128 a = _mm_loadu_ps(u), b = _mm_loadu_ps(u + step);
                    _mm_storeu_ps(re, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
                    _mm_storeu_ps(im, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
                }
            }
            p = quads;
        }
#endif
        for (; p < ch.pairs; ++p) scatter_pair(p);
        return;
    }
    for (int i = 0; i < ch.active; ++i) {
        const int x = ch.x[i];
        if (const int p = ch.pairOf[i]; p >= 0) {
            if (products) {
                scatter_pair(p);
                if (ch.two[p]) ++i;
                continue;
            }
            // One position (n = 1): each voxel's row into its own M.
            const cf* P = ch.pair_matrix(p);
            const size_t step = ch.pair_step();
            for (int k = 0; k < (ch.two[p] ? 2 : 1); ++k) {
                cf* M = ch.matrix(i + k);
                for (int c = 0; c < L.fd3; ++c) M[c] = P[c * step + k];
                mrkit::small::matrix_vector(M, n, n, L.fd3, values + (x + k - x0), Chunk::kLength,
                                            ch.u.data());
                scatter(i + k, ch.u.data());
            }
            if (ch.two[p]) ++i;
            continue;
        }
#ifdef MRKIT_AVX2_PAIRS
        // Two voxels at once, all n rows each (Eigen's product takes the unused rows too, which
        // decides the bits of the used ones); a voxel without a neighbour goes through the same
        // kernel paired with itself, so that which voxels pair up (it depends on the threads'
        // blocks) cannot change the bits, not even of a NaN.
        if (avx2 && L.fd3 < mrkit::small::kBlockedColumns && n >= 2) {
            const bool pair = i + 1 < ch.active && ch.pairOf[i + 1] < 0;
            const int k = pair ? i + 1 : i;
            mrkit::small::matrix_vector_two_avx2(ch.matrix(i), n, ch.matrix(k), n, n, L.fd3,
                                                 values + (x - x0), values + (ch.x[k] - x0),
                                                 Chunk::kLength, ch.u.data(), ch.u2.data());
            scatter(i, ch.u.data());
            if (pair) scatter(++i, ch.u2.data());
            continue;
        }
#endif
        mrkit::small::matrix_vector(ch.matrix(i), n, n, L.fd3, values + (x - x0), Chunk::kLength,
                                    ch.u.data());
        scatter(i, ch.u.data());
    }
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
        const bool avx2 = mrkit::has_avx2();
        // Grid columns of a strip's corners: the lower one of each x and the next. Rows y and
        // y + 1 (and the same one plane on) are kept across the strip, so that the next row of
        // folded voxels finds half of its corners there. Strips of at most kStripWidth columns
        // bound that scratch whatever the image's width.
        const int lo0 = L.xs[begin].lower;
        KeptRows cache(L, avx2, std::min(L.xs[end - 1].lower + 2 - lo0, kStripWidth));
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
                        find_signal(L, row, x0, x1, avx2, ch);
                        if (ch.active == 0) continue;
                        interpolate(L, row, lo, avx2, cache, ch);
                        for (const Volume& vol : volumes)
                            unfold_chunk(L, row, x0, x1, avx2, vol, ch, status);
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
