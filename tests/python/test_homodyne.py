"""Homodyne from Python: the filter's weights and centre block, phase removal, the whole
reconstruction, and the homodyne module's messages."""

import numpy as np
import pytest

import exams
import mrkit
from conftest import complex_data


def _weights(n, first):
    k = np.arange(n) - n // 2
    a = float(first)
    w = np.where(k <= a, 0.0, np.where(k <= 0, 1 - (k / a) ** 2, 1 + (k / a) ** 2))
    return np.where(k >= -a, 2.0, w)


def test_filter_weights_and_centre_block(rng):
    k = complex_data(rng, (10, 32, 3, 2))
    low, weighted = mrkit.homodyne_filter(k, ky=(-6, 15))
    assert low.dtype == np.complex64 and low.shape == (10, 13, 3, 2)
    np.testing.assert_array_equal(low, k[:, 16 - 6:16 + 7])
    np.testing.assert_allclose(weighted, k * _weights(32, -6)[None, :, None, None], rtol=1e-6)
    # Two axes: the geometric mean of the per-axis weights.
    k2 = complex_data(rng, (24, 20))
    _, w2 = mrkit.homodyne_filter(k2, (-5, 11), (-4, 9))
    both = np.sqrt(_weights(24, -5)[:, None] * _weights(20, -4)[None, :])
    np.testing.assert_allclose(w2, k2 * both, rtol=1e-5, atol=1e-7)


def test_filter_leaves_full_and_symmetric_axes_alone(rng):
    k = rng.standard_normal((8, 9)).astype(np.float32)
    low, weighted = mrkit.homodyne_filter(k, kx=(-4, 3), ky=None)
    np.testing.assert_array_equal(low, k)
    assert weighted.dtype == np.float32
    np.testing.assert_array_equal(weighted, k)


def test_multiply_removes_the_low_resolution_phase(rng):
    img = complex_data(rng, (12, 10, 2))
    low = complex_data(rng, (12, 10, 2))
    out = mrkit.homodyne_multiply(img, low)
    expected = (img * np.conj(low)).real / np.abs(low)
    assert out.dtype == np.float32 and out.shape == img.shape
    np.testing.assert_allclose(out, expected, rtol=1e-5, atol=1e-6)
    # A smaller low-resolution image is interpolated: a constant phase stays constant.
    coarse = np.full((4, 5, 2), np.exp(0.7j), np.complex64)
    turned = (np.abs(img) * np.exp(0.7j)).astype(np.complex64)
    np.testing.assert_allclose(mrkit.homodyne_multiply(turned, coarse), np.abs(img), rtol=1e-5)


@pytest.mark.parametrize("p", exams.exam_parameters(3))
def test_recon_of_partial_fourier_exams(p):
    exam = exams.make_exam(p)
    img = mrkit.homodyne_recon(exam["kspace"], ky=exam["ky"])
    assert img.dtype == np.float32 and img.shape == exam["rho"].shape
    assert exams.nrmse(np.abs(img), exam["rho"]) < 0.08
    # Zero-filled reconstruction is clearly worse: homodyne restores the missing half.
    zero_filled = np.abs(np.fft.fftshift(np.fft.ifft2(np.fft.ifftshift(exam["kspace"]))))
    assert exams.nrmse(np.abs(img), exam["rho"]) < 0.7 * exams.nrmse(zero_filled, exam["rho"])


CASES = [
    (TypeError, "homodyne: Data must be of type single.", lambda: mrkit.homodyne_filter(np.ones((4, 4), int))),
    (ValueError, "homodyne: Data cannot be empty.", lambda: mrkit.homodyne_filter(np.ones((0, 4), np.float32))),
    (TypeError, "homodyne: kx-range must be of type double.",
     lambda: mrkit.homodyne_filter(np.ones((4, 4), np.float32), kx=["a", "b"])),
    (TypeError, "homodyne: ky-range must be real valued.",
     lambda: mrkit.homodyne_filter(np.ones((4, 4), np.float32), ky=(1j, 2))),
    (ValueError, "homodyne: The kz-range must be of length 2.",
     lambda: mrkit.homodyne_filter(np.ones((4, 4), np.float32), kz=(1, 2, 3))),
    (ValueError, "homodyne: The kx-range coordinates must be 1 dimensional vector.",
     lambda: mrkit.homodyne_filter(np.ones((4, 4), np.float32), kx=np.ones((2, 2)))),
    (ValueError, "homodyne: The ky-range must be 1 dimensional vector.",
     lambda: mrkit.homodyne_filter(np.ones((4, 4), np.float32), ky=np.ones((1, 2, 2)))),
    (ValueError, "homodyne: The low resolution data cannot be empty.",
     lambda: mrkit.homodyne_multiply(np.ones((4, 4), np.float32), np.ones((0, 4)))),
    (TypeError, "homodyne: LowRes must be of type single.",
     lambda: mrkit.homodyne_multiply(np.ones((4, 4), np.float32), np.ones((4, 4), bool))),
    (ValueError, "homodyne: The data must have the same number of dimensions than the low resolution data",
     lambda: mrkit.homodyne_multiply(np.ones((4, 4, 2)), np.ones((4, 4)))),
    (ValueError, "homodyne: The low resolution data must have no empty dimension and the data's sizes "
                 "from the fourth dimension on.",
     lambda: mrkit.homodyne_multiply(np.ones((4, 4, 1, 2)), np.ones((2, 2, 1, 3)))),
    (ValueError, "homodyne_recon: the ky-range must start below the k-space centre",
     lambda: mrkit.homodyne_recon(np.ones((8, 8), np.complex64), ky=(1, 3))),
    (ValueError, "homodyne_recon: the ky-range must start below the k-space centre",
     lambda: mrkit.homodyne_recon(np.ones((8, 8), np.complex64), ky=(0, 3))),
    (ValueError, "homodyne_recon: the filter does not accept the ky-range [-7 3]",
     lambda: mrkit.homodyne_recon(np.ones((16, 16), np.complex64), ky=(-7, 3))),
]


@pytest.mark.parametrize("kind, message, run", CASES, ids=[c[1][:40] for c in CASES])
def test_messages(kind, message, run):
    with pytest.raises(kind) as e:
        run()
    assert str(e.value) == message
