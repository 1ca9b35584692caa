#!/usr/bin/python3
"""What the Python binding adds to the library's own time, per call.

    PYTHONPATH=build/python python3 bench/bench_python.py [--volumes N] [--repeat N]

For each function the binding times the library call inside it (the library on the converted
data, the same work a C++ caller does) and the whole call; the difference is the binding's
cost: the conversion of the inputs, the output allocation and, for complex results, their
interleaving. It is printed against one memory copy (np.copyto into arrays already touched)
of the call's input and output bytes: a ratio of 1 is one pass over them. The last column is
NumPy's own reordering of the inputs to Fortran order, for comparison. Inputs come in C
order (NumPy's default: the conversion transposes), in Fortran order, and as float32 in
Fortran order (handed to the library without a copy). Best of --repeat calls: on a shared
machine a descheduled thread adds whole time slices to a call, which the minimum leaves out.
"""

import argparse
import os
import sys
import time

import numpy as np

import mrkit
from mrkit import _mrkit


def best_ms(f, repeat):
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        f()
        times.append((time.perf_counter() - start) * 1e3)
    return min(times)


def copy_ms(arrays, repeat):
    """One copy of these bytes between buffers that are already mapped."""
    sources = [np.ascontiguousarray(a).view(np.uint8).ravel() for a in arrays]
    targets = [np.empty_like(s) for s in sources]
    for t, s in zip(targets, sources):
        np.copyto(t, s)

    def run():
        for t, s in zip(targets, sources):
            np.copyto(t, s)

    return best_ms(run, repeat)


def layout_ms(arrays, repeat):
    """NumPy's own change of these arrays to Fortran order (np.asfortranarray into arrays
    already touched): what reordering costs without any binding."""
    targets = [np.empty(a.shape, a.dtype, order="F") for a in arrays]

    def run():
        for t, a in zip(targets, arrays):
            np.copyto(t, a)

    run()
    return best_ms(run, repeat)


def measure(name, f, inputs, repeat):
    outputs = f()
    outputs = outputs if isinstance(outputs, tuple) else (outputs,)
    arrays = [a for a in outputs if isinstance(a, np.ndarray)]
    spans = []
    for _ in range(repeat):
        start = time.perf_counter()
        f()
        wall = (time.perf_counter() - start) * 1e3
        spans.append((_mrkit.last_spans()[0], wall))
    library = min(s[0] for s in spans)
    overhead = min(s[1] - s[0] for s in spans)
    copy = copy_ms(list(inputs) + arrays, repeat)
    layout = layout_ms(inputs, repeat)
    mib = sum(a.nbytes for a in list(inputs) + arrays) / 2**20
    print("  %-34s %7.1f %9.2f %9.2f %8.2f %7.2f %10.2f" % (name, mib, library, overhead, copy,
                                                            overhead / copy, layout))
    return overhead / copy


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[1])
    ap.add_argument("--volumes", type=int, default=32, help="256 x 256 x 1 x N complex data")
    ap.add_argument("--repeat", type=int, default=7)
    ap.add_argument("--threads", type=int, default=1)
    args = ap.parse_args(argv)
    rng = np.random.default_rng(0)
    shape = (256, 256, 1, args.volumes)
    c_order = (rng.standard_normal(shape) + 1j * rng.standard_normal(shape)).astype(np.complex64)
    variants = [("C complex64", c_order), ("F complex64", np.asfortranarray(c_order)),
                ("F float32", np.asfortranarray(c_order.real))]
    print("times in ms; library: inside the binding call; binding: the rest of the call")
    t = args.threads
    cs = np.zeros((14, 12))
    cs[1, 1] = 1
    cz = np.zeros(17)
    cz[1] = 1
    pts = [rng.uniform(-100, 100, (256, 256, 16)).astype(np.float32) for _ in range(3)]
    folded = np.asfortranarray(c_order[:, :128, :, :8])
    sens = np.asfortranarray(c_order[:, :, :, :8] + 3)

    print("binding cost per call, %s threads, glibc tunables: %s" % (
        t, os.environ.get("GLIBC_TUNABLES", "none")))
    print("  %-34s %7s %9s %9s %8s %7s %10s" % ("call", "MiB", "library", "binding", "copy",
                                                 "x copy", "NumPy to F"))
    ratios = []
    for label, x in variants:
        cases = [
            ("fftshift", lambda: mrkit.fftshift(x, 1, threads=t)),
            ("zeropad 320x320", lambda: mrkit.zeropad(x, (320, 320), threads=t)),
            ("ringing", lambda: mrkit.ringing(x, [0.5, 0.5], [200, 200], threads=t)),
            ("sos", lambda: mrkit.sos(x, 3, threads=t)),
            ("homodyne_filter", lambda: mrkit.homodyne_filter(x, None, (-60, 127), threads=t)),
            ("homodyne_multiply", lambda: mrkit.homodyne_multiply(x, x, threads=t)),
        ]
        for name, f in cases:
            inputs = [x, x] if name == "homodyne_multiply" else [x]
            ratios.append(measure("%s, %s" % (name, label), f, inputs, args.repeat))
    ratios.append(measure("sense R=2, 8 coils", lambda: mrkit.sense(folded, sens, (256, 256),
                                                                     threads=t),
                          [folded, sens], args.repeat))
    ratios.append(measure("gradwarp 1 M points", lambda: mrkit.gradwarp(
        *pts, cs, cs, cz, 250.0, threads=t), pts, args.repeat))
    print("largest binding cost: %.2f x one copy of the call's inputs and outputs" % max(ratios))
    return 0


if __name__ == "__main__":
    sys.exit(main())
