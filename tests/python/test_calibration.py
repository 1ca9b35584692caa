"""Calibration and geometry commands that arrive with the layer: coil maps and noise covariance
feeding SENSE, and whole-volume unwarping (skipped where this build's layer lacks them)."""

import numpy as np
import pytest

import exams
import mrkit


def needs(command):
    return pytest.mark.skipif(command not in mrkit.commands(), reason="no '%s' here" % command)


@needs("coilmaps")
def test_estimated_maps_unfold_sense(rng):
    nx, ny, R = 48, 60, 2.0
    rho = exams.phantom(nx, ny)
    coils = rho[:, :, None, None] * exams.coil_maps(nx, ny, 8)
    k = np.fft.fftshift(np.fft.fft2(np.fft.ifftshift(coils, axes=(0, 1)), axes=(0, 1)),
                        axes=(0, 1))
    maps = mrkit.coilmaps(k, (nx, 16))
    assert maps.shape == (nx, ny, 1, 8) and maps.dtype == np.complex64
    image, info = mrkit.sense(exams.fold(coils, 1, int(ny / R)).astype(np.complex64), maps,
                              (nx, ny))
    assert info["status"] == 1.0
    # Unit-norm maps: the unfolded magnitude is the coils' root sum of squares.
    inside = rho > 0.1
    sos = mrkit.sos(coils, 3)[:, :, 0, 0]
    err = np.linalg.norm((np.abs(image[:, :, 0, 0]) - sos)[inside]) / np.linalg.norm(sos[inside])
    assert np.all(np.isfinite(image)) and err < 0.08


@needs("noisecov")
def test_noise_covariance_of_correlated_noise(rng):
    mix = np.eye(4) + 0.5 * np.tri(4, k=-1)
    white = rng.standard_normal((40000, 4)) + 1j * rng.standard_normal((40000, 4))
    noise = white @ mix.T
    psi = mrkit.noisecov(noise, 1)
    assert psi.shape == (4, 4)
    np.testing.assert_allclose(psi, 2 * mix @ mix.T, atol=0.06)
    np.testing.assert_array_equal(psi, mrkit.noisecov(np.asfortranarray(noise.T).T, 1))


@needs("unwarp")
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
