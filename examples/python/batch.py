#!/usr/bin/python3
"""Reconstruct many exams on a Dask cluster (dask.distributed).

    python3 examples/python/batch.py [--exams N] [--workers N] [--scheduler ADDRESS]
                                     [--omp-threads N] [--out FILE.npz]

Without --scheduler a LocalCluster of --workers processes starts on this machine; with
--scheduler tcp://host:8786 the same tasks go to a running cluster, whose workers need numpy
and the mrkit package importable (this script ships exams.py to them). Each task builds one
exam from its parameters and returns its homodyne and SENSE images and their NRMSE; mrkit runs
with --omp-threads OpenMP threads per task (default 1, one task per worker thread).
"""

import argparse
import os
import sys
import time

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import exams  # noqa: E402


def reconstruct_on(client, parameters, omp_threads=1):
    """Results of every exam, in the order of `parameters`, computed on the client's cluster."""
    futures = client.map(exams.run_exam, parameters, threads=omp_threads, pure=False)
    return client.gather(futures)


def reconstruct_serially(parameters, omp_threads=1):
    return [exams.run_exam(p, threads=omp_threads) for p in parameters]


def connect(scheduler=None, workers=2, threads_per_worker=1):
    """A client of the given scheduler, or of a new LocalCluster of worker processes."""
    from dask.distributed import Client, LocalCluster

    if scheduler:
        client = Client(scheduler)
    else:
        # Workers are separate processes: the package and exams.py reach them by PYTHONPATH.
        here = os.path.dirname(os.path.abspath(__file__))
        os.environ["PYTHONPATH"] = os.pathsep.join(
            p for p in [here, os.environ.get("PYTHONPATH", "")] if p)
        cluster = LocalCluster(n_workers=workers, threads_per_worker=threads_per_worker,
                               processes=True, dashboard_address=None)
        client = Client(cluster)
    client.upload_file(exams.__file__)
    return client


def close(client):
    cluster = client.cluster
    client.close()
    if cluster is not None:
        cluster.close()


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[1])
    ap.add_argument("--exams", type=int, default=8)
    ap.add_argument("--workers", type=int, default=2, help="LocalCluster worker processes")
    ap.add_argument("--scheduler", help="address of a running scheduler, e.g. tcp://host:8786")
    ap.add_argument("--omp-threads", type=int, default=1, help="mrkit threads per task")
    ap.add_argument("--out", help="write the images and figures to this .npz file")
    args = ap.parse_args(argv)

    parameters = exams.exam_parameters(args.exams)
    client = connect(args.scheduler, args.workers)
    try:
        start = time.perf_counter()
        results = reconstruct_on(client, parameters, args.omp_threads)
        seconds = time.perf_counter() - start
    finally:
        close(client)

    print("%d exams on %s in %.1f s" % (len(results), args.scheduler or
                                        "%d local workers" % args.workers, seconds))
    print("  %-5s %-9s %14s %12s" % ("exam", "size", "NRMSE homodyne", "NRMSE SENSE"))
    for r in results:
        p = r["params"]
        print("  %-5d %-9s %14.3e %12.3e" % (p["seed"], "%dx%d" % p["shape"],
                                              r["nrmse_homodyne"], r["nrmse_sense"]))
    if args.out:
        arrays = {}
        for r in results:
            s = r["params"]["seed"]
            arrays["homodyne_%d" % s] = r["homodyne"]
            arrays["sense_%d" % s] = r["sense"]
        np.savez(args.out, **arrays)
    return 0


if __name__ == "__main__":
    sys.exit(main())
