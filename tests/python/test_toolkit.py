"""The toolkit's index arithmetic against NumPy's: centre shifts and zero padding on 1-D to 5-D
arrays with 0-based axes. Values and messages beyond these are the C++ and Octave tests' (the
cross-host test holds Python to Octave's bits)."""

import numpy as np
import pytest

import mrkit
from conftest import complex_data


@pytest.mark.parametrize("shape", [(7,), (6, 5), (5, 6, 3), (4, 5, 3, 2, 3)])
def test_shifts_are_numpys(rng, shape):
    for x in (complex_data(rng, shape), rng.standard_normal(shape).astype(np.float32)):
        for axis in range(min(3, len(shape))):
            y = mrkit.fftshift(x, axis)
            assert y.dtype == x.dtype and y.shape == x.shape
            np.testing.assert_array_equal(y, np.fft.fftshift(x, axes=axis))
            np.testing.assert_array_equal(mrkit.ifftshift(y, axis), x)
    if len(shape) == 2:  # an axis past the rank changes nothing
        np.testing.assert_array_equal(mrkit.fftshift(x, 2), x)


@pytest.mark.parametrize("old, new", [((4, 6), (8, 9)), ((5, 3, 2), (5, 8, 7)),
                                      ((3, 4, 1, 2, 3), (6, 4, 3))])
def test_zeropad_is_centred_padding(rng, old, new):
    x = complex_data(rng, old)
    full_new = tuple(new) + tuple(x.shape[len(new):])
    widths = [((m - n + 1) // 2, (m - n) // 2) for n, m in zip(x.shape, full_new)]
    np.testing.assert_array_equal(mrkit.zeropad(x, new).reshape(full_new, order="F"),
                                  np.pad(x, widths))
