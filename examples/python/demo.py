#!/usr/bin/python3
"""mrkit from Python: homodyne and SENSE reconstructions of several synthetic exams.

    python3 examples/python/demo.py [--exams N] [--out DIR]

Prints an NRMSE table (reconstruction against the object) and writes one picture per exam
into DIR (default out/python). Needs the mrkit package on the path (PYTHONPATH=build/python, or
`cmake --install`) and matplotlib.
"""

import argparse
import os
import sys
import time

import matplotlib

matplotlib.use("Agg")  # files only, no display
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import exams  # noqa: E402
import mrkit  # noqa: E402


def picture(path, exam, result):
    rho = exam["rho"]
    top = float(rho.max())
    panels = [
        (rho, "object", top),
        (np.abs(result["homodyne"]), "homodyne 5/8", top),
        (10 * np.abs(np.abs(result["homodyne"]) - rho), "error x10", top),
        (mrkit.sos(exam["folded"])[:, :, 0, 0], "folded R=%.1f (sos)" % exam["params"]["R"], None),
        (result["sense"], "SENSE", top),
        (10 * np.abs(result["sense"] - rho), "error x10", top),
    ]
    fig, axes = plt.subplots(2, 3, figsize=(9, 6.4))
    for ax, (img, title, vmax) in zip(axes.ravel(), panels):
        ax.imshow(img.T, cmap="gray", vmin=0, vmax=vmax if vmax else float(img.max()),
                  origin="lower")
        ax.set_title(title, fontsize=9)
        ax.axis("off")
    fig.suptitle("exam %d: %dx%d, %d coils" % (exam["params"]["seed"], *rho.shape,
                                               exam["params"]["coils"]))
    fig.tight_layout()
    fig.savefig(path, dpi=80)
    plt.close(fig)


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[1])
    ap.add_argument("--exams", type=int, default=4)
    ap.add_argument("--out", default=os.path.join("out", "python"))
    args = ap.parse_args(argv)
    os.makedirs(args.out, exist_ok=True)

    print("\nmrkit from Python: %d synthetic exams, homodyne (5/8 of ky) and SENSE with "
          "correlated coil noise" % args.exams)
    print("  %-5s %-9s %-6s %-5s %-8s %14s %12s %9s" % (
        "exam", "size", "coils", "R", "scale", "NRMSE homodyne", "NRMSE SENSE", "time [s]"))
    worst = 0.0
    for p in exams.exam_parameters(args.exams):
        exam = exams.make_exam(p)
        start = time.perf_counter()
        result = exams.reconstruct(exam)
        seconds = time.perf_counter() - start
        print("  %-5d %-9s %-6d %-5.1f %-8.0e %14.3e %12.3e %9.2f" % (
            p["seed"], "%dx%d" % p["shape"], p["coils"], p["R"], p["scale"],
            result["nrmse_homodyne"], result["nrmse_sense"], seconds))
        worst = max(worst, result["nrmse_homodyne"], result["nrmse_sense"])
        path = os.path.join(args.out, "exam_%d.png" % p["seed"])
        picture(path, exam, result)
    print("  pictures: %s/exam_*.png" % args.out)
    return 0 if worst < 0.2 else 1


if __name__ == "__main__":
    sys.exit(main())
