"""Every example in the package's docstrings runs and prints what it shows."""

import doctest

import mrkit


def test_docstring_examples():
    result = doctest.testmod(mrkit, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert result.failed == 0
    assert result.attempted >= 30
    for name in mrkit.__all__:
        assert "Examples" in getattr(mrkit, name).__doc__, name
