"""Whole-volume unwarping through the keyword options. Coil maps and noise covariance are the
Octave tests' (test_mrkit_calibration.m), whose bits the cross-host test holds Python to."""

import numpy as np

import mrkit


def test_unwarp_then_warp_returns_the_volume(rng):
    cs = np.zeros((14, 12))
    cs[1, 1], cs[3, 1] = 1.0, 0.05
    cz = np.zeros(17)
    cz[1] = 1.0
    x = np.linspace(-1, 1, 24)
    vol = np.exp(-4 * (x[:, None, None] ** 2 + x[None, :, None] ** 2 + x[None, None, :] ** 2))
    affine = np.diag([2.0, 2.0, 2.0, 1.0])
    affine[:3, 3] = -23.0
    img, d = mrkit.unwarp(vol, affine, cs, cs, cz, 60.0, interp="cubic")
    assert img.shape == vol.shape and d.shape == vol.shape + (3,)
    assert np.abs(d).max() > 0.1  # the higher term moves samples
    back, _ = mrkit.unwarp(img, affine, cs, cs, cz, 60.0, interp="cubic", direction="warp")
    core = (slice(6, 18),) * 3
    assert np.abs(img[core] - vol[core]).max() > 5e-3
    assert np.abs(back[core] - vol[core]).max() < 1e-4
