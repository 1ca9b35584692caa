"""Every example in the package's docstrings runs and prints what it shows."""

import doctest

import mrkit


def test_docstring_examples():
    runner = doctest.DocTestRunner(optionflags=doctest.NORMALIZE_WHITESPACE)
    ran = 0
    for test in doctest.DocTestFinder().find(mrkit):
        if not test.examples:
            continue
        runner.run(test)
        ran += 1
    result = runner.summarize(verbose=False)
    assert result.failed == 0
    assert ran >= 13 and result.attempted >= 30
    for name in mrkit.__all__:
        assert "Examples" in getattr(mrkit, name).__doc__, name
