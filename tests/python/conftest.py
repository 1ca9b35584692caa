"""Shared data builders for the Python tests: data that looks like scans (odd sizes, many coils,
masked maps, arbitrary scale) and the layouts and dtypes a NumPy user may pass."""

import os
import sys

import numpy as np
import pytest

EXAMPLES = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "python")
sys.path.insert(0, os.path.abspath(EXAMPLES))


@pytest.fixture
def rng():
    return np.random.default_rng(1234)


def complex_data(rng, shape, scale=1.0):
    return ((rng.standard_normal(shape) + 1j * rng.standard_normal(shape)) * scale).astype(
        np.complex64)


def layouts(x):
    """The same values in the memory layouts NumPy produces: C and Fortran order, strided
    views of both, a negative-stride view, a transposed view, and wider or narrower dtypes."""
    yield "C", np.ascontiguousarray(x)
    yield "F", np.asfortranarray(x)
    big = np.zeros(tuple(2 * n for n in x.shape), x.dtype)
    view = big[tuple(slice(None, None, 2) for _ in x.shape)]
    view[...] = x
    yield "strided", view
    yield "strided F", np.asfortranarray(big)[tuple(slice(None, None, 2) for _ in x.shape)]
    rev = np.ascontiguousarray(x[::-1])[::-1]
    yield "negative", rev
    yield "transposed", np.ascontiguousarray(x.T).T
    if np.iscomplexobj(x):
        yield "complex128", x.astype(np.complex128)
        yield "clongdouble", x.astype(np.clongdouble)
    else:
        yield "float64", x.astype(np.float64)
        yield "longdouble", x.astype(np.longdouble)


def bits(a):
    """The exact bits of an array (NaN payloads included) for bitwise comparison."""
    a = np.asarray(a)
    return a.shape, a.dtype, np.ascontiguousarray(a).view(np.uint8).tobytes()
