"""The adapter's promises: any layout and floating dtype gives the same bits, inputs are never
written, the thread count changes nothing, errors carry the layer's kind, text and id."""

import signal
import sys
import threading

import numpy as np
import pytest

import exams
import mrkit
from conftest import bits, complex_data, layouts


def _gradwarp_coefficients():
    cs = np.zeros((14, 12))
    cs[1, 1] = 1.0
    cs[3, 1] = 0.02
    cz = np.zeros(17)
    cz[1] = 1.0
    cz[3] = -0.01
    return cs, cs.T.copy().T, cz


def _calls(rng):
    """(name, function, data arguments, other arguments) for every function."""
    k = complex_data(rng, (9, 16, 3, 2))
    real = rng.standard_normal((7, 6, 5)).astype(np.float32)
    sens = exams.coil_maps(12, 20, 4)
    folded = exams.fold(exams.phantom(12, 20)[:, :, None, None] * sens, 1, 8).astype(np.complex64)
    cs, cc, cz = _gradwarp_coefficients()
    pts = rng.uniform(-50, 50, (3, 4, 5)).astype(np.float32)
    wide = complex_data(rng, (70, 3, 2, 45))  # more than one conversion tile along both axes
    return [
        ("fftshift", lambda x: mrkit.fftshift(x, 1), [k]),
        ("fftshift wide", lambda x: mrkit.fftshift(x, 0), [wide]),
        ("ifftshift", lambda x: mrkit.ifftshift(x, 2), [real]),
        ("zeropad", lambda x: mrkit.zeropad(x, (10, 17, 4)), [k]),
        ("ringing", lambda x: mrkit.ringing(x, [0.3, 0.6, 0.1], [7, 12, 3]), [k]),
        ("sos", lambda x: mrkit.sos(x, 2), [k]),
        ("pcsos", lambda x: mrkit.pcsos(x, 1), [real]),
        ("gradwarp", lambda x, y, z: mrkit.gradwarp(x, y, z, cs, cc, cz, 200.0), [pts, pts * 0.5, pts[::-1].copy()]),
        ("sense", lambda f, s: mrkit.sense(f, s, (12, 20))[0], [folded, sens]),
        ("homodyne_filter", lambda x: mrkit.homodyne_filter(x, None, (-5, 7)), [k]),
        ("homodyne_multiply", lambda x, l: mrkit.homodyne_multiply(x, l), [k, k[:, :8] + 1]),
        ("homodyne_recon", lambda x: mrkit.homodyne_recon(x, None, (-5, 7)), [k]),
    ]


def _as_tuple(result):
    return result if isinstance(result, tuple) else (result,)


def test_every_layout_and_dtype_gives_the_same_bits_and_stays_unwritten(rng):
    for name, run, data in _calls(rng):
        expected = [bits(r) for r in _as_tuple(run(*data))]
        for i in range(len(data)):
            for layout, variant in layouts(data[i]):
                args = list(data)
                args[i] = variant
                before = [bits(a) for a in args]
                got = [bits(r) for r in _as_tuple(run(*args))]
                assert got == expected, f"{name}: argument {i} as {layout}"
                assert [bits(a) for a in args] == before, f"{name}: argument {i} as {layout} written"


def test_results_do_not_depend_on_the_thread_count(rng, monkeypatch):
    for name, run, data in _calls(rng):
        expected = None
        for threads in ("1", "2", "3"):
            monkeypatch.setenv("OMP_NUM_THREADS", threads)
            got = [bits(r) for r in _as_tuple(run(*data))]
            expected = expected or got
            assert got == expected, f"{name} with {threads} threads"
    x = complex_data(rng, (8, 8, 1, 16))
    assert bits(mrkit.sos(x, threads=1)) == bits(mrkit.sos(x, threads=4))


def test_threads_keyword_is_checked():
    x = np.ones((4, 4), np.float32)
    with pytest.raises(ValueError, match="threads must be a positive integer"):
        mrkit.sos(x, 1, threads=0)
    with pytest.raises(TypeError, match="threads must be a positive integer"):
        mrkit.fftshift(x, 1, threads=1.5)


def test_results_are_new_fortran_arrays(rng):
    x = complex_data(rng, (6, 4))
    y = mrkit.fftshift(x, 0)
    assert y.flags.f_contiguous and y.flags.writeable
    y[...] = 0  # a result is the caller's to change
    assert np.any(x != 0)


def test_layer_errors_become_python_exceptions():
    with pytest.raises(TypeError) as e:
        mrkit.sos(np.ones((3, 3), np.int32), 0)
    assert e.value.id == "mrkit:sos" and str(e.value).startswith("mrkit:sos: x ")
    with pytest.raises(ValueError) as e:
        mrkit.fftshift(np.ones((3, 3), np.float32), 3)
    assert e.value.id == "mrkit:fftshift"
    assert "from 0 to 2" in str(e.value)  # axes count from 0, in the message too
    with pytest.raises(ValueError) as e:
        mrkit.call("nope", 1)
    assert e.value.id == "mrkit:command" and "unknown command 'nope'" in str(e.value)


def test_the_library_runs_without_the_gil(rng):
    # With a long switch interval the interpreter never takes the GIL from a running thread:
    # the main thread runs during the call only if the call lets the GIL go.
    x = complex_data(rng, (256, 256, 1, 32))
    started, done = threading.Event(), threading.Event()

    def work():
        started.set()
        mrkit.ringing(x, [0.5, 0.5], [200, 200], threads=1)
        done.set()

    interval = sys.getswitchinterval()
    sys.setswitchinterval(30)
    try:
        t = threading.Thread(target=work)
        t.start()
        started.wait()
        ran_during_call = not done.is_set()
        t.join()
    finally:
        sys.setswitchinterval(interval)
    assert ran_during_call


def test_ctrl_c_during_calls_raises_keyboard_interrupt(rng):
    x = complex_data(rng, (256, 256, 1, 16))
    timer = threading.Timer(0.2, signal.raise_signal, (signal.SIGINT,))
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            for _ in range(2000):
                mrkit.ringing(x, [0.5, 0.5], [100, 100], threads=1)
    finally:
        timer.cancel()
