"""Same bits on every host: identical inputs go through Octave's MEX modules and through Python,
and every output (or error message) must be identical. Python writes the inputs as raw
little-endian files with a small header, Octave (tests/python/crosshost_run.m) reads them, runs
each call and writes its outputs the same way."""

import json
import os
import shutil
import struct
import subprocess

import numpy as np
import pytest

import exams
import mrkit
from conftest import complex_data

OCTAVE = os.environ.get("MRKIT_OCTAVE") or shutil.which("octave-cli")
MEX_DIR = os.environ.get("MRKIT_MEX_DIR")
pytestmark = pytest.mark.skipif(not (OCTAVE and MEX_DIR), reason="needs octave-cli and the MEX modules")

CLASSES = {np.dtype(np.float32): 0, np.dtype(np.float64): 1, np.dtype(np.int32): 3}
DTYPES = {v: k for k, v in CLASSES.items()}


def write_raw(path, x):
    x = np.asarray(x)
    real = x.real if np.iscomplexobj(x) else x
    with open(path, "wb") as f:
        f.write(b"MRKT")
        f.write(struct.pack("<3I", CLASSES[real.dtype], int(np.iscomplexobj(x)), x.ndim))
        f.write(struct.pack("<%dQ" % x.ndim, *x.shape))
        f.write(np.asfortranarray(real).astype(real.dtype.newbyteorder("<")).tobytes("F"))
        if np.iscomplexobj(x):
            f.write(np.asfortranarray(x.imag).astype(real.dtype.newbyteorder("<")).tobytes("F"))


def read_raw(path):
    with open(path, "rb") as f:
        assert f.read(4) == b"MRKT"
        cls, is_complex, rank = struct.unpack("<3I", f.read(12))
        shape = struct.unpack("<%dQ" % rank, f.read(8 * rank))
        dtype = DTYPES[cls].newbyteorder("<")
        n = int(np.prod(shape))
        x = np.frombuffer(f.read(n * dtype.itemsize), dtype)
        if is_complex:
            x = x + 1j * np.frombuffer(f.read(n * dtype.itemsize), dtype)
            x = x.astype(np.complex64 if cls == 0 else np.complex128)
        return x.reshape(shape, order="F")


class Axis(int):
    """An axis argument: Python counts from 0, Octave from 1."""


def _cases():
    rng = np.random.default_rng(99)
    k = complex_data(rng, (9, 16, 3, 2), scale=1e4)
    real = rng.standard_normal((7, 6, 5, 3)).astype(np.float32)
    nx, ny = 24, 30
    sens = exams.coil_maps(nx, ny, 6)
    rho = exams.phantom(nx, ny).astype(np.float32)
    folded = exams.fold(rho[:, :, None, None] * sens, 1, 12).astype(np.complex64)
    folded += complex_data(rng, folded.shape, scale=0.01)
    psi = np.eye(6, dtype=np.complex64) + np.float32(0.1)
    prior = (rho + np.float32(0.05))[:, :, None]
    cs = np.zeros((14, 12))
    cs[1, 1], cs[3, 1], cs[2, 2] = 1.0, 0.02, -0.01
    cz = np.zeros(17)
    cz[1], cz[3] = 1.0, 0.015
    pts = [rng.uniform(-120, 120, (5, 7)).astype(np.float32) for _ in range(3)]
    img = complex_data(rng, (12, 10, 2))
    m = "mrkit"
    return [
        (m, "fftshift", [k, Axis(1)], 1),
        (m, "ifftshift", [real, Axis(2)], 1),
        (m, "zeropad", [k, [12.0, 21.0, 4.0]], 1),
        (m, "zeropad", [real, [8.0, 9.0]], 1),
        (m, "ringing", [k, [0.3, 0.6, 0.1], [7.0, 12.0, 3.0]], 1),
        (m, "sos", [k, Axis(3)], 1),
        (m, "sos", [real, Axis(1)], 1),
        (m, "pcsos", [k, Axis(1)], 1),
        (m, "gradwarp", pts + [cs, cs, cz, 250.0], 3),
        (m, "sense", [folded, sens, [float(nx), float(ny)]], 2),
        (m, "sense", [folded, sens, [float(nx), float(ny)], "noise", psi, "reference", prior,
                      "regularization", prior, "regScale", 2.0], 2),
        ("homodyne", "filter", [k, None, np.array([-5.0, 7.0]), None], 2),
        ("homodyne", "filter", [real, np.array([-2.0, 3.0]), None, None], 2),
        ("homodyne", "multiply", [img, img[:5, :4] + 1], 1),
        # Refused calls: the same message on both hosts.
        (m, "sos", [np.ones((3, 3), np.int32), Axis(0)], 1),
        (m, "zeropad", [k, [2.0, 2.0]], 1),
        (m, "zeropad", [k, [12.5, 20.0]], 1),
        (m, "ringing", [k, [np.nan], [3.0]], 1),
        (m, "ringing", [k, [0.5], [3.0, 1.0, 2.0, 4.0]], 1),
        (m, "gradwarp", pts[:2] + [pts[2][:, :3], cs, cs, cz, 250.0], 3),
        (m, "gradwarp", pts + [cs[:13], cs, cz, 250.0], 3),
        (m, "gradwarp", pts + [cs, cs, cz, -1.0], 3),
        (m, "sense", [folded, sens[:, :, :, :5], [float(nx), float(ny)]], 2),
        (m, "sense", [folded, sens, [float(nx + 1), float(ny)]], 2),
        (m, "sense", [folded, sens, [float(nx), 4.0]], 2),
        (m, "sense", [folded, sens, [float(nx), float(ny)], "noise", psi[:5]], 2),
        (m, "sense", [folded, sens, [float(nx), float(ny)], "reference", prior], 2),
        (m, "sense", [folded, sens, [float(nx), float(ny)], "bogus", 1.0], 2),
        (m, "sense", [folded, sens, [float(nx), float(ny)], "noise"], 2),
        (m, "sense", [folded, sens, [float(nx), float(ny)], "regScale", -1.0], 2),
        ("homodyne", "filter", [np.zeros((0, 4), np.float32), None, None, None], 2),
        ("homodyne", "filter", [k, None, np.array([1.0, 2.0, 3.0]), None], 2),
        ("homodyne", "filter", [k, np.ones((2, 2)), None, None], 2),
        ("homodyne", "filter", [k, None, np.ones((1, 2, 2)), None], 2),
        ("homodyne", "filter", [k, None, None, np.array([[1.0], [2.0], [3.0]])], 2),
        ("homodyne", "multiply", [img, np.zeros((0, 3), np.complex64)], 1),
        ("homodyne", "multiply", [img, img[:, :, 0]], 1),
        ("homodyne", "multiply", [img, np.ones((4, 4, 3), np.float32)], 1),
    ] + _later_cases(rng, folded, sens, nx, ny, cs, cz)


def _later_cases(rng, folded, sens, nx, ny, cs, cz):
    """Coil maps, noise covariance, unwarping and the validity option of sense."""
    k = np.fft.fftshift(np.fft.fft2(exams.phantom(nx, ny)[:, :, None, None] * sens,
                                    axes=(0, 1)), axes=(0, 1)).astype(np.complex64)
    noise = complex_data(rng, (500, 6))
    vol = rng.standard_normal((10, 9, 4)).astype(np.float32)
    affine = np.diag([2.0, 2.0, 3.0, 1.0])
    affine[:3, 3] = [-9.0, -8.0, -4.5]
    m = "mrkit"
    return [(m, "coilmaps", [k, [float(nx), 12.0]], 1),
            (m, "coilmaps", [k, [float(nx), 12.0], "threshold", 0.0], 1),
            (m, "noisecov", [noise, Axis(1)], 1),
            (m, "unwarp", [vol, affine, cs, cs, cz, 50.0], 2),
            (m, "unwarp", [vol, affine, cs, cs, cz, 50.0, "interp", "cubic"], 2),
            (m, "sense", [folded, sens, [float(nx), float(ny)], "validity", "exact"], 2)]


def _python(module, command, args):
    if module == "homodyne":
        run = mrkit.homodyne_filter if command == "filter" else mrkit.homodyne_multiply
        out = run(*args)
        return out if isinstance(out, tuple) else (out,)
    return mrkit.call(command, *args)


def _octave_shape(shape):
    shape = list(shape)
    while len(shape) > 2 and shape[-1] == 1:
        shape.pop()
    return tuple(shape + [1] * (2 - len(shape)))


def _same(py, oc):
    """Bitwise equality up to Octave's conventions: trailing ones dropped from the shape, a
    complex result with no imaginary part narrowed to real, a scalar as a double."""
    py = np.asarray(py)
    if _octave_shape(py.shape) != _octave_shape(oc.shape):
        return False
    if np.iscomplexobj(py) and not np.iscomplexobj(oc):
        if np.any(py.imag != 0):
            return False
        py = py.real
    py = py.astype(oc.dtype) if py.dtype != oc.dtype and py.size == 1 else py
    # Octave hands back the imaginary zeros of arrays of three or more dimensions as +0 where
    # the library wrote -0 (x * 0 for negative x); all other bits must match.
    return py.dtype == oc.dtype and _unsigned_zeros(py) == _unsigned_zeros(oc)


def _unsigned_zeros(a):
    a = np.asarray(a).ravel(order="F")
    parts = [a.real, a.imag] if np.iscomplexobj(a) else [a]
    return b"".join(np.where(p == 0, np.zeros_like(p), p).tobytes() for p in parts)


def test_octave_and_python_agree_bit_for_bit(tmp_path):
    cases = _cases()
    manifest = []
    for i, (module, command, args, nargout) in enumerate(cases):
        entries = []
        for j, a in enumerate(args):
            if isinstance(a, str):
                entries.append({"kind": "text", "value": a})
            elif a is None:
                entries.append({"kind": "empty", "value": ""})
            else:
                value = np.asarray(a + 1 if isinstance(a, Axis) else a)
                if value.dtype == np.int64:
                    value = value.astype(np.float64)
                if value.ndim < 2 and not isinstance(a, np.ndarray):
                    value = value.reshape(1, -1)  # numbers as Octave rows
                name = "in_%d_%d.bin" % (i, j)
                write_raw(tmp_path / name, value)
                entries.append({"kind": "file", "value": name})
        manifest.append({"id": i, "module": module, "command": command, "args": entries,
                         "nargout": nargout})
    (tmp_path / "cases.json").write_text(json.dumps(manifest))
    here = os.path.dirname(os.path.abspath(__file__))
    subprocess.run([OCTAVE, "--norc", "--quiet", "--no-window-system", "--no-history", "--eval",
                    "addpath('%s', '%s'); crosshost_run('%s');" % (MEX_DIR, here, tmp_path)],
                   check=True, timeout=300, env=dict(os.environ, OMP_NUM_THREADS="2"))

    compared = refused = 0
    for i, (module, command, args, nargout) in enumerate(cases):
        label = "case %d: %s %s" % (i, module, command)
        err = tmp_path / ("err_%d.txt" % i)
        try:
            outputs = _python(module, command, args)
        except (TypeError, ValueError) as e:
            assert err.exists(), "%s: Python refused (%s), Octave did not" % (label, e)
            assert str(e) == err.read_text(), label
            refused += 1
            continue
        assert not err.exists(), "%s: Octave refused: %s" % (label, err.read_text())
        for k in range(nargout):
            oc = read_raw(tmp_path / ("out_%d_%d.bin" % (i, k)))
            py = outputs[k]
            if isinstance(py, dict):
                py = py["status"]
            assert _same(py, oc), "%s: output %d differs" % (label, k)
            compared += 1
    assert compared >= 15 and refused >= 15
