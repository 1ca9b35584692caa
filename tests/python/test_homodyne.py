"""Homodyne from Python: the whole reconstruction, and which exception each message comes as.
The filter's and multiply's bits and every message's text are the cross-host test's and the
Octave tests'."""

import numpy as np
import pytest

import exams
import mrkit


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
    (TypeError, "homodyne: LowRes must be of type single.",
     lambda: mrkit.homodyne_multiply(np.ones((4, 4), np.float32), np.ones((4, 4), bool))),
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
