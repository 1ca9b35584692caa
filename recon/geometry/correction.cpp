// Gradient non-linearity: the position each gradient coil actually encodes at a point, from
// the spherical-harmonic expansions of the three coil fields. The Legendre values come from a
// per-call table except near the poles, where the high orders change too fast for it.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>

#include "recon/geometry/legendre_block.hpp"
#include "recon/geometry/sincos.hpp"
#include "recon/lanes.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

constexpr int kDegrees = 17;    // degrees 0..16 (z series); x and y stop at 13
constexpr int kOrders = 12;     // orders 0..11
constexpr int kDegreesXY = 14;  // rows 0..13 of the transverse coefficient matrices
constexpr int kSamples = mrkit::geometry::kTableSamples;
constexpr int kRow = kDegrees * kOrders;  // floats per table sample
constexpr int kPacked = 204;
using mrkit::geometry::table_row;

// Points go through in small batches, and each batch is located (angles, radial powers, table
// row) one batch ahead, so that its table rows are on their way into the cache while the batch
// before it is evaluated. The sums then run across a batch, each point's long chain of
// additions keeping its fixed order while the chains of the batch proceed side by side. Every
// point still takes exactly the operations of a one-at-a-time loop.
constexpr int kBatch = 8;
constexpr int kTerms = 88;  // (order, degree) pairs of the transverse series

// One value per point of a batch. Lane-wise arithmetic rounds exactly like scalar arithmetic.
typedef float Lanes __attribute__((vector_size(kBatch * sizeof(float))));

struct Located {
    int count;
    float phi[kBatch];
    Lanes pw[kDegrees];          // (r / r0)^n
    const float* row[kBatch];    // P[m * kDegrees + n] = P_n^m(cos theta)
    float direct[kBatch][kRow];  // rows evaluated directly near the poles
};

void locate(Located& b, const float* x, const float* y, const float* z, int count, float r0,
            const float* table) {
    b.count = count;
    Lanes q;  // r / r0
    for (int j = 0; j < kBatch; ++j) {
        // A short batch repeats its first point; those lanes are never stored.
        const int p = j < count ? j : 0;
        float sph[3];
        getRadiusThetaPhi(x[p], y[p], z[p], sph);
        b.phi[j] = sph[2];
        const float c = std::cos(sph[1]);
        if (mrkit::geometry::table_is_direct(c)) {
            mrkit::geometry::legendre_block(kDegrees, kOrders, c, b.direct[j], kDegreesXY);
            b.row[j] = b.direct[j];
        } else {
            b.row[j] = table + static_cast<std::ptrdiff_t>(table_row(c)) * kRow;
            for (int f = 0; f < kRow; f += 16) __builtin_prefetch(b.row[j] + f);
            __builtin_prefetch(b.row[j] + kRow - 1);  // rows do not start on a cache line
        }
        q[j] = sph[0] / r0;
    }
    b.pw[0] = Lanes{} + 1.0f;
    for (int n = 1; n < kDegrees; ++n) b.pw[n] = b.pw[n - 1] * q;
}

// The packed series and their normalisation, shared read-only by all threads.
struct Series {
    const float* sign;
    const float* cos;
    const float* sin;
    const float* z;
    float scaleX, scaleY, scaleZ;
};

typedef float Quad __attribute__((vector_size(4 * sizeof(float))));

// dst[i][j0 + t] = rows[t][offset + i] for i, t < 4.
void transpose4(const float* const* rows, int offset, Lanes* dst, int j0) {
    Quad a, b, c, d;
    std::memcpy(&a, rows[0] + offset, sizeof a);
    std::memcpy(&b, rows[1] + offset, sizeof b);
    std::memcpy(&c, rows[2] + offset, sizeof c);
    std::memcpy(&d, rows[3] + offset, sizeof d);
    const Quad ab0 = __builtin_shufflevector(a, b, 0, 4, 1, 5);
    const Quad ab1 = __builtin_shufflevector(a, b, 2, 6, 3, 7);
    const Quad cd0 = __builtin_shufflevector(c, d, 0, 4, 1, 5);
    const Quad cd1 = __builtin_shufflevector(c, d, 2, 6, 3, 7);
    const Quad out[4] = {__builtin_shufflevector(ab0, cd0, 0, 1, 4, 5),
                         __builtin_shufflevector(ab0, cd0, 2, 3, 6, 7),
                         __builtin_shufflevector(ab1, cd1, 0, 1, 4, 5),
                         __builtin_shufflevector(ab1, cd1, 2, 3, 6, 7)};
    for (int i = 0; i < 4; ++i)
        std::memcpy(reinterpret_cast<float*>(&dst[i]) + j0, &out[i], sizeof(Quad));
}

struct Evaluator {
    Lanes cs[kOrders], sn[kOrders], cz;
    Lanes P[kTerms + 3];  // transverse Legendre values in packed order (+ room for a run)
    Lanes P0[kDegrees];   // zonal Legendre values
};

// One batch of points: sine/cosine pairs, the Legendre values turned into lanes, then the
// three sums in their fixed order.
__attribute__((always_inline)) inline void evaluate_batch(Evaluator& e, const Located& b,
                                                          const Series& s, float* xOut, float* yOut,
                                                          float* zOut) {
    float angle[kOrders - 1][kBatch], sine[kOrders - 1][kBatch], cosine[kOrders - 1][kBatch];
    for (int m = 1; m < kOrders; ++m)
        for (int j = 0; j < kBatch; ++j) angle[m - 1][j] = static_cast<float>(m) * b.phi[j];
    mrkit::geometry::sincos_many(angle[0], (kOrders - 1) * kBatch, sine[0], cosine[0]);
    std::memcpy(&e.sn[1], sine, sizeof sine);
    std::memcpy(&e.cs[1], cosine, sizeof cosine);
    for (int j = 0; j < kBatch; ++j) {
        // cos(+-0) is exactly 1; only a non-finite phi needs the call (its NaN carries on).
        const float zero = b.phi[j] * 0.0f;
        e.cz[j] = zero == 0.0f ? 1.0f : std::cos(zero);
    }
    // Runs of four values of four rows at a time, transposed into lanes. A run may reach
    // past an order's last degree; the next order's runs overwrite those slots.
    for (int j0 = 0; j0 < kBatch; j0 += 4) {
        for (int m = 1, k = 0; m < kOrders; k += kDegreesXY - m, ++m)
            for (int n = m; n < kDegreesXY; n += 4)
                transpose4(b.row + j0, m * kDegrees + n, e.P + k + (n - m), j0);
        for (int n = 1; n < kDegrees; n += 4) transpose4(b.row + j0, n, e.P0 + n, j0);
    }
    Lanes ac = {}, as = {}, az = {};
    int k = 0;
    for (int m = 1; m < kOrders; ++m) {
        for (int n = m; n < kDegreesXY; ++n, ++k) {
            const Lanes t = (e.P[k] * s.sign[m]) * b.pw[n];
            ac = ac + (e.cs[m] * t) * s.cos[k];
            as = as + (t * e.sn[m]) * s.sin[k];
        }
    }
    for (int n = 1; n < kDegrees; ++n) az = az + ((e.P0[n] * b.pw[n]) * e.cz) * s.z[n - 1];
    for (int j = 0; j < b.count; ++j) {
        xOut[j] = s.scaleX * ac[j];
        yOut[j] = s.scaleY * as[j];
        zOut[j] = s.scaleZ * az[j];
    }
}

// Lane-wise float products and sums round the same in SSE and AVX registers (nothing is
// contracted), so the AVX2 build does the same work in half the instructions.
MRKIT_PER_TARGET(evaluate, evaluate_batch)

}  // namespace

void realign_corr_coeffs(float* packedCos, float* packedSin, float* packedZ, int nOrders,
                         int nDegreesXY, int nDegreesZ, const float (*firstMatrix)[12],
                         const float (*secondMatrix)[12], const float (*zMatrix)[1]) {
    int k = 0;
    for (int m = 1; m < nOrders; ++m) {
        for (int n = m; n < nDegreesXY; ++n) {
            packedCos[k] = firstMatrix[n][m];
            packedSin[k] = secondMatrix[n][m];
            ++k;
        }
    }
    for (int n = 1; n < nDegreesZ; ++n) packedZ[n - 1] = zMatrix[n][0];
}

void MR_geometry_correction(const float* x, const float* y, const float* z, float* xOut,
                            float* yOut, float* zOut, int nPoints, const float (*coefSin)[12],
                            const float (*coefCos)[12], const float (*coefZ)[1], float r0) {
    std::unique_ptr<float[]> table(new float[static_cast<std::size_t>(kSamples) * kRow]);
    std::unique_ptr<float[]> sign(new float[kOrders]);
    std::unique_ptr<float[]> packedCos(new float[kPacked]);
    std::unique_ptr<float[]> packedSin(new float[kPacked]);
    std::unique_ptr<float[]> packedZ(new float[kPacked]);

    create_plgndr_lookup(kDegrees, kOrders, kSamples, table.get());
    realign_corr_coeffs(packedCos.get(), packedSin.get(), packedZ.get(), kOrders, kDegreesXY,
                        kDegrees, coefCos, coefSin, coefZ);
    for (int m = 0; m < kOrders; ++m) sign[m] = static_cast<float>(std::pow(-1.0, m));

    // Each field is normalised by its own linear coefficient.
    const Series series{sign.get(),         packedCos.get(),    packedSin.get(), packedZ.get(),
                        r0 / coefCos[1][1], r0 / coefSin[1][1], r0 / coefZ[1][0]};
    const float* tab = table.get();

    mrkit::parallel_blocks(nPoints, [&](int begin, int end) {
        // Zeroed once: direct rows leave degrees past 13 of orders above 0 unwritten.
        std::unique_ptr<Located[]> located(new Located[2]());
        std::unique_ptr<Evaluator> evaluator(new Evaluator);
        auto locate_at = [&](int i, Located& b) {
            locate(b, x + i, y + i, z + i, std::min(kBatch, end - i), r0, tab);
        };
        using Evaluate =
            void (*)(Evaluator&, const Located&, const Series&, float*, float*, float*);
        const Evaluate evaluate = mrkit::lanes::pick(static_cast<Evaluate>(evaluate_baseline),
                                                     static_cast<Evaluate>(evaluate_avx2));
        if (begin < end) locate_at(begin, located[0]);
        for (int i = begin, cur = 0; i < end; i += kBatch, cur ^= 1) {
            if (i + kBatch < end) locate_at(i + kBatch, located[cur ^ 1]);
            evaluate(*evaluator, located[cur], series, xOut + i, yOut + i, zOut + i);
        }
    });
}
