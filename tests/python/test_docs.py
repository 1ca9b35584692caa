"""Every example in the package's docstrings runs and prints what it shows (examples of
functions whose command this build's layer lacks are left out)."""

import doctest

import mrkit

# Wrappers of commands that arrive with the layer from other branches.
COMMAND_OF = {"coilmaps": "coilmaps", "noisecov": "noisecov", "unwarp": "unwarp",
              "gradfile": "gradfile"}


def test_docstring_examples():
    available = set(mrkit.commands())
    runner = doctest.DocTestRunner(optionflags=doctest.NORMALIZE_WHITESPACE)
    ran = 0
    for test in doctest.DocTestFinder().find(mrkit):
        function = test.name.split(".")[-1]
        if COMMAND_OF.get(function, "sense") not in available or not test.examples:
            continue
        runner.run(test)
        ran += 1
    result = runner.summarize(verbose=False)
    assert result.failed == 0
    assert ran >= 13 and result.attempted >= 30
    for name in mrkit.__all__:
        assert "Examples" in getattr(mrkit, name).__doc__, name
