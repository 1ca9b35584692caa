"""The toolkit functions against NumPy's definitions of the same operations."""

import numpy as np
import pytest

import mrkit
from conftest import complex_data

SHAPES = [(7,), (6, 5), (5, 6, 3), (4, 5, 3, 2, 3)]


@pytest.mark.parametrize("shape", SHAPES)
def test_shifts_are_numpys(rng, shape):
    for x in (complex_data(rng, shape), rng.standard_normal(shape).astype(np.float32)):
        for axis in range(min(3, len(shape))):
            y = mrkit.fftshift(x, axis)
            assert y.dtype == x.dtype and y.shape == x.shape
            np.testing.assert_array_equal(y, np.fft.fftshift(x, axes=axis))
            np.testing.assert_array_equal(mrkit.ifftshift(x, axis), np.fft.ifftshift(x, axes=axis))
            np.testing.assert_array_equal(mrkit.ifftshift(y, axis), x)


def test_shift_along_a_missing_axis_changes_nothing(rng):
    x = complex_data(rng, (6, 5))
    np.testing.assert_array_equal(mrkit.fftshift(x, 2), x)


@pytest.mark.parametrize("coil_axis", [0, 1, 3, 4])
def test_sos_is_root_sum_of_squares(rng, coil_axis):
    x = complex_data(rng, (9, 7, 3, 5, 2), scale=1e3)
    y = mrkit.sos(x, coil_axis)
    expected = np.sqrt(np.sum(np.abs(x.astype(np.complex128)) ** 2, axis=coil_axis,
                              keepdims=True))
    assert y.dtype == np.float32 and y.shape == expected.shape
    np.testing.assert_allclose(y, expected, rtol=2e-6)
    real = x.real.copy()
    np.testing.assert_allclose(mrkit.sos(real, coil_axis),
                               np.sqrt(np.sum(real.astype(np.float64) ** 2, axis=coil_axis,
                                              keepdims=True)), rtol=2e-6)


def test_pcsos_has_the_sos_magnitude_and_a_common_phase(rng):
    x = complex_data(rng, (8, 6, 1, 4))
    y = mrkit.pcsos(x, 3)
    assert y.dtype == np.complex64 and y.shape == (8, 6, 1, 1)
    np.testing.assert_allclose(np.abs(y), mrkit.sos(x, 3), rtol=1e-5)
    # The same object seen by every coil with one extra phase: pcsos keeps that phase.
    obj = np.abs(x[..., :1])
    turned = obj * np.exp(1j * np.array([0.3, 0.3, 0.3, 0.3]))
    np.testing.assert_allclose(np.angle(mrkit.pcsos(turned.astype(np.complex64), 3)), 0.3,
                               atol=1e-5)


@pytest.mark.parametrize("old, new", [((4, 6), (8, 9)), ((5, 3, 2), (5, 8, 7)),
                                      ((3, 4, 1, 2, 3), (6, 4, 3))])
def test_zeropad_is_centred_padding(rng, old, new):
    x = complex_data(rng, old)
    y = mrkit.zeropad(x, new)
    full_new = tuple(new) + tuple(x.shape[len(new):])
    widths = []
    for d, n in enumerate(x.shape):
        m = full_new[d] if d < len(new) else n
        widths.append(((m - n + 1) // 2, (m - n) // 2))
    np.testing.assert_array_equal(y.reshape(full_new, order="F"), np.pad(x, widths))


def _hamming_window(n, strength, width):
    """The ringing window of one axis in double precision."""
    a = 0.085 if strength > 0.915 else 1.0 - strength
    c = width * np.pi / np.arccos((a - 0.54) / 0.46)
    k = np.arange(n) - n // 2
    inside = (k >= -(width // 2)) & (k <= -(-width // 2) - 1)
    return np.where(inside, 0.54 + 0.46 * np.cos(k * 2 * np.pi / c), 0.0)


def test_ringing_is_a_separable_hamming_window(rng):
    x = complex_data(rng, (12, 9, 2))
    y = mrkit.ringing(x, [0.5, 0.8], [10, 7])
    w = _hamming_window(12, 0.5, 10)[:, None, None] * _hamming_window(9, 0.8, 7)[None, :, None]
    np.testing.assert_allclose(y, x * w, rtol=1e-5, atol=1e-7)
    assert y[6 - 5, 4, 0] != 0 and y[0, 4, 0] == 0  # the support ends where it should


def test_gradwarp_linear_gradients_keep_points_and_higher_terms_move_them(rng):
    cs = np.zeros((14, 12))
    cs[1, 1] = 1.0
    cz = np.zeros(17)
    cz[1] = 1.0
    pts = [rng.uniform(-100, 100, (5, 4)) for _ in range(3)]
    out = mrkit.gradwarp(*pts, cs, cs, cz, 250.0)
    for o, p in zip(out, pts):
        assert o.dtype == np.float32 and o.shape == p.shape
        np.testing.assert_allclose(o, p, atol=0.05)  # the Legendre table's sampling
    warped = cs.copy()
    warped[3, 1] = 0.05
    moved = mrkit.gradwarp(*pts, warped, cs, cz, 250.0)
    assert np.abs(moved[1] - out[1]).max() > 1e-3


def test_generic_call_reaches_every_listed_command():
    assert {"sense", "sos", "pcsos", "fftshift", "ifftshift", "zeropad", "ringing",
            "gradwarp"} <= set(mrkit.commands())
    (y,) = mrkit.call("sos", np.ones((2, 3), np.float32), 1)
    np.testing.assert_allclose(y, np.sqrt(3) * np.ones((2, 1)))
