"""The batch example on a two-worker LocalCluster gives the serial loop's results bit for bit."""

import numpy as np
import pytest

import exams

pytest.importorskip("distributed")
import batch  # noqa: E402


def test_batch_on_two_local_workers_matches_a_serial_loop():
    parameters = exams.exam_parameters(4, base_seed=10)
    client = batch.connect(workers=2)
    try:
        assert len(client.scheduler_info()["workers"]) == 2
        distributed = batch.reconstruct_on(client, parameters, omp_threads=1)
    finally:
        batch.close(client)
    serial = batch.reconstruct_serially(parameters, omp_threads=2)
    assert [r["params"] for r in distributed] == parameters
    for d, s in zip(distributed, serial):
        for key in ("homodyne", "sense"):
            assert d[key].dtype == s[key].dtype and d[key].shape == s[key].shape
            assert d[key].tobytes() == s[key].tobytes(), (d["params"], key)
        assert d["status"] == s["status"] == 1.0
        assert d["nrmse_homodyne"] == s["nrmse_homodyne"] < 0.1
        assert d["nrmse_sense"] == s["nrmse_sense"] < 0.1
