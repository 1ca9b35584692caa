// The examples' head phantom and ring of coil maps (examples/mrkit_phantom.m and
// mrkit_coil_maps.m) in 2-D, so that C++ tests measure on the data the demo shows.
#pragma once

#include <cmath>
#include <complex>

#include "support/sense_phantom.hpp"

namespace demo_phantom {

using sense_phantom::Split;

// Coordinate of index i of n in [-1, 1), zero at n / 2.
inline double grid(int i, int n) {
    return (i - n / 2) / (n / 2.0);
}

inline Split phantom(int nx, int ny) {
    // intensity, semi-axes x, y, centre x, y, rotation in degrees (the z = 0 plane)
    const double e[8][6] = {
        {1.00, 0.72, 0.92, 0.00, 0.00, 0},    {-0.60, 0.66, 0.86, 0.00, -0.02, 0},
        {0.25, 0.14, 0.32, -0.25, 0.10, 15},  {0.20, 0.18, 0.26, 0.24, 0.05, -20},
        {0.35, 0.06, 0.06, 0.00, 0.45, 0},    {-0.15, 0.08, 0.05, 0.05, -0.50, 30},
        {0.30, 0.025, 0.025, -0.12, -0.62, 0}, {0.30, 0.025, 0.025, 0.10, -0.62, 0}};
    // The z semi-axes and centres of the 3-D phantom, for the z = 0 plane.
    const double ez[8][2] = {{0.85, 0.0}, {0.78, 0.0},  {0.25, 0.0}, {0.22, 0.05},
                             {0.06, 0.10}, {0.10, -0.10}, {0.04, 0.0}, {0.04, 0.0}};
    Split img({nx, ny, 1});
    for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x) {
            const double px = grid(x, nx), py = grid(y, ny);
            double v = 0.0;
            for (int k = 0; k < 8; ++k) {
                const double t = e[k][5] * 3.14159265358979323846 / 180.0;
                const double u = (px - e[k][3]) * std::cos(t) + (py - e[k][4]) * std::sin(t);
                const double w = -(px - e[k][3]) * std::sin(t) + (py - e[k][4]) * std::cos(t);
                const double dz = (0.0 - ez[k][1]) / ez[k][0];
                if ((u / e[k][1]) * (u / e[k][1]) + (w / e[k][2]) * (w / e[k][2]) + dz * dz <= 1.0)
                    v += e[k][0];
            }
            img.set(x + static_cast<size_t>(nx) * y, std::complex<float>(static_cast<float>(v), 0.0f));
        }
    return img;
}

// Coils on a ring just outside the field of view (linspace(-1, 1) coordinates, as the example).
inline Split coil_maps(int nx, int ny, int coils) {
    Split maps({nx, ny, 1, coils});
    for (int c = 0; c < coils; ++c) {
        const double a = 2.0 * 3.14159265358979323846 * c / coils;
        const double cx = 1.3 * std::cos(a), cy = 1.3 * std::sin(a);
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const double px = -1.0 + 2.0 * x / (nx - 1), py = -1.0 + 2.0 * y / (ny - 1);
                const double d2 = (px - cx) * (px - cx) + (py - cy) * (py - cy);
                const double magnitude = 1.0 / (1.0 + d2 / 0.8);
                const double phase = a + 0.6 * (px * std::cos(a) - py * std::sin(a));
                maps.set(x + static_cast<size_t>(nx) * (y + static_cast<size_t>(ny) * c),
                         std::complex<float>(std::polar(magnitude, phase)));
            }
    }
    return maps;
}

}  // namespace demo_phantom
