"""SENSE through Python: unfolding round trips at integer and non-integer reduction factors on
scan-like data (many coils, correlated noise, arbitrary scale, odd sizes)."""

import numpy as np
import pytest

import exams
import mrkit


def _case(nx, ny, ncoils, R, scale=1.0):
    rho = exams.phantom(nx, ny) * scale
    obj = rho * np.exp(1j * exams.smooth_phase(nx, ny))
    sens = exams.coil_maps(nx, ny, ncoils)
    folded = exams.fold(obj[:, :, None, None] * sens, 1, int(round(ny / R)))
    inside = np.abs(obj) > 0
    return obj, sens, folded.astype(np.complex64), inside


@pytest.mark.parametrize("R, scale", [(2.0, 1.0), (2.5, 1e-6), (2.5, 1e5)])
def test_round_trip(R, scale):
    obj, sens, folded, inside = _case(63, 80, 8, R, scale)
    image, info = mrkit.sense(folded, sens, (63, 80))
    assert info["status"] == 1.0
    assert image.dtype == np.complex64 and image.shape == (63, 80, 1, 1)
    got = image[:, :, 0, 0]
    err = np.linalg.norm(got - obj) / np.linalg.norm(obj)
    assert err < 1e-4


def test_noise_and_regularisation(rng):
    obj, sens, folded, inside = _case(48, 60, 12, 2.5)
    ncoils = sens.shape[3]
    mix = np.eye(ncoils) + 0.4 * np.tri(ncoils, k=-1) * rng.standard_normal((ncoils, ncoils))
    sigma = 0.02 * np.abs(folded).max()
    white = rng.standard_normal(folded.shape) + 1j * rng.standard_normal(folded.shape)
    noisy = (folded + sigma / np.sqrt(2) * np.einsum("cd,xyzd->xyzc", mix, white)).astype(
        np.complex64)
    psi = (sigma**2 * mix @ mix.T).astype(np.complex64)

    def error(image):
        return np.linalg.norm((image[:, :, 0, 0] - obj)[inside]) / np.linalg.norm(obj[inside])

    plain, _ = mrkit.sense(noisy, sens, (48, 60))
    whitened, _ = mrkit.sense(noisy, sens, (48, 60), noise=psi)
    prior = np.abs(obj).astype(np.float32)[:, :, None] + 0.05
    regularised, info = mrkit.sense(noisy, sens, (48, 60), noise=psi, reference=prior,
                                    regularization=prior, reg_scale=2.0)
    assert info["status"] == 1.0
    assert error(whitened) < error(plain)  # the covariance is used
    assert error(regularised) < error(whitened)  # the prior lowers the noise
    assert error(regularised) < 0.2
