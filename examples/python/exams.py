"""Synthetic exams and their reconstruction with mrkit, shared by demo.py and batch.py.

An exam is made from a small dict of parameters (seed, sizes, coils, reduction factor), so a
cluster task carries a few bytes and builds its data where it runs. Each exam holds:

- a partial-Fourier acquisition of one complex image (5/8 of the ky lines) for homodyne;
- multi-coil images aliased along y at reduction factor R (2 or 2.5, a non-integer folded
  size allowed) with correlated coil noise, coil maps and the noise covariance, for SENSE;
- the object itself, at an arbitrary scale, to measure the reconstructions against.
"""

import numpy as np

import mrkit

# intensity, semi-axes (x, y), centre (x, y), rotation in degrees: a head-like phantom
_ELLIPSES = [
    (1.00, 0.72, 0.92, 0.00, 0.00, 0),
    (-0.60, 0.66, 0.86, 0.00, -0.02, 0),
    (0.25, 0.14, 0.32, -0.25, 0.10, 15),
    (0.20, 0.18, 0.26, 0.24, 0.05, -20),
    (0.35, 0.06, 0.06, 0.00, 0.45, 0),
    (-0.15, 0.08, 0.05, 0.05, -0.50, 30),
    (0.30, 0.025, 0.025, -0.12, -0.62, 0),
    (0.30, 0.025, 0.025, 0.10, -0.62, 0),
]


def grid(nx, ny):
    """Coordinates over [-1, 1) along each axis, x down axis 0."""
    x = (np.arange(nx) - nx // 2) / (nx / 2)
    y = (np.arange(ny) - ny // 2) / (ny / 2)
    return np.meshgrid(x, y, indexing="ij")


def phantom(nx, ny):
    x, y = grid(nx, ny)
    img = np.zeros((nx, ny))
    for value, a, b, cx, cy, deg in _ELLIPSES:
        t = np.deg2rad(deg)
        u = (x - cx) * np.cos(t) + (y - cy) * np.sin(t)
        v = -(x - cx) * np.sin(t) + (y - cy) * np.cos(t)
        img[(u / a) ** 2 + (v / b) ** 2 <= 1] += value
    return img


def smooth_phase(nx, ny, turn=0.0):
    x, y = grid(nx, ny)
    return np.pi * (0.3 * x - 0.2 * y + 0.25 * x * y + 0.2 * (x**2 - y**2)) + turn


def coil_maps(nx, ny, ncoils):
    """Smooth complex maps of coils on a ring just outside the field of view."""
    x, y = grid(nx, ny)
    maps = np.zeros((nx, ny, 1, ncoils), np.complex64)
    for c in range(ncoils):
        a = 2 * np.pi * c / ncoils
        d2 = (x - 1.3 * np.cos(a)) ** 2 + (y - 1.3 * np.sin(a)) ** 2
        phase = a + 0.6 * (x * np.cos(a) - y * np.sin(a))
        maps[:, :, 0, c] = 1 / (1 + d2 / 0.8) * np.exp(1j * phase)
    return maps


def fold(x, axis, folded_size):
    """Aliases x along axis onto folded_size positions as a reduced, centred field of view
    sees it: full position p adds to (p - s) mod folded_size, s = ceil((n - folded_size) / 2)."""
    n = x.shape[axis]
    s = -(-(n - folded_size) // 2)
    shape = list(x.shape)
    shape[axis] = folded_size
    out = np.zeros(shape, x.dtype)
    for p in range(n):
        dst = [slice(None)] * x.ndim
        src = [slice(None)] * x.ndim
        dst[axis], src[axis] = (p - s) % folded_size, p
        out[tuple(dst)] += x[tuple(src)]
    return out


def centred_fft2(x):
    return np.fft.fftshift(np.fft.fft2(np.fft.ifftshift(x, axes=(0, 1)), axes=(0, 1)), axes=(0, 1))


def exam_parameters(count, base_seed=0):
    """Parameters of `count` exams: sizes, coils and reduction factors vary from exam to exam."""
    shapes = [(128, 128), (121, 150), (96, 120), (128, 160)]
    return [{"seed": base_seed + i, "shape": shapes[i % len(shapes)], "coils": 8 + 4 * (i % 2),
             "R": (2.0, 2.5)[i % 2], "scale": 10.0 ** ((i % 5) - 2)} for i in range(count)]


def make_exam(p):
    """The data of one exam from its parameters (deterministic in the seed)."""
    rng = np.random.default_rng(p["seed"])
    nx, ny = p["shape"]
    scale = p["scale"]
    rho = phantom(nx, ny) * scale
    obj = rho * np.exp(1j * smooth_phase(nx, ny, turn=rng.uniform(-np.pi, np.pi)))

    # Partial Fourier: ky from -(ny // 2) to first - 1 not sampled.
    first = -(ny // 2 - (3 * ny) // 8)  # 5/8 of the lines
    k = centred_fft2(obj).astype(np.complex64)
    k[:, : ny // 2 + first] = 0

    # SENSE: coil images folded along y, correlated complex noise of known covariance.
    ncoils = p["coils"]
    maps = coil_maps(nx, ny, ncoils)
    coils = rho[:, :, None, None] * maps
    folded_size = int(round(ny / p["R"]))
    folded = fold(coils, 1, folded_size)
    mix = np.eye(ncoils) + 0.3 * rng.standard_normal((ncoils, ncoils)) * np.tri(ncoils, k=-1)
    sigma = 0.005 * np.abs(coils).max()
    white = rng.standard_normal(folded.shape) + 1j * rng.standard_normal(folded.shape)
    noise = np.einsum("cd,xyzd->xyzc", mix, white) * sigma / np.sqrt(2)
    psi = sigma**2 * mix @ mix.conj().T
    return {"params": p, "rho": rho.astype(np.float32), "kspace": k, "ky": (first, ny // 2 - 1),
            "folded": (folded + noise).astype(np.complex64), "sens": maps,
            "noise": psi.astype(np.complex64), "full_shape": (nx, ny)}


def nrmse(x, ref):
    x, ref = np.asarray(x, np.complex128).ravel(), np.asarray(ref, np.complex128).ravel()
    return float(np.linalg.norm(x - ref) / np.linalg.norm(ref))


def reconstruct(exam, threads=None):
    """Homodyne and SENSE reconstructions of one exam with their NRMSE against the object."""
    homodyne = mrkit.homodyne_recon(exam["kspace"], ky=exam["ky"], threads=threads)
    image, info = mrkit.sense(exam["folded"], exam["sens"], exam["full_shape"],
                              noise=exam["noise"], threads=threads)
    sense = np.abs(image[:, :, 0, 0])
    rho = exam["rho"]
    return {"params": exam["params"], "homodyne": homodyne, "sense": sense,
            "status": info["status"], "nrmse_homodyne": nrmse(np.abs(homodyne), rho),
            "nrmse_sense": nrmse(sense, rho)}


def run_exam(p, threads=1):
    """One cluster task: build the exam where it runs and reconstruct it."""
    return reconstruct(make_exam(p), threads=threads)
