# SPDX-License-Identifier: Apache-2.0
"""Sequences on a local Dask cluster of two worker processes give the serial bytes."""
import json
import os
import shutil

import numpy as np
import pytest

import kelvo_superres as ksr
from conftest import burst_paths

distributed = pytest.importorskip("distributed")
from kelvo_superres.dask import super_resolve_sequences  # noqa: E402


def test_two_workers_write_the_serial_results(small_burst, tmp_path):
    flight = tmp_path / "flight.npy"
    np.save(flight, small_burst)
    folder = tmp_path / "jpegs"  # a folder of image files, read as the tool reads them
    folder.mkdir()
    for path in burst_paths("B_1_60_30_00075-00083", 6):
        shutil.copy(path, folder)
    serial = {"flight": list(ksr.sequence(small_burst, camera="625 FOV 25")),
              "jpegs": list(ksr.sequence((ksr.read_frame(str(path)) for path in sorted(folder.iterdir())),
                                         camera="625 FOV 25"))}

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        summaries = super_resolve_sequences([flight, folder], tmp_path / "out", client=client,
                                            windows_per_task=1, camera="625 FOV 25")

    for summary, name in zip(summaries, serial):
        written = json.loads((tmp_path / "out" / name / "summary.json").read_text())
        assert written == json.loads(json.dumps(summary))
        assert [window["index"] for window in written["windows"]] == [r.index for r in serial[name]]
        assert written["results"] == len(serial[name]) and written["options"] == {"camera": "625 FOV 25"}
        for window, expected in zip(written["windows"], serial[name]):
            image = np.load(tmp_path / "out" / name / window["result"])
            assert image.tobytes() == expected.image.tobytes()
            assert window["factor"] == expected.factor and window["status"] == expected.status.name
    with pytest.raises(ValueError, match="holds 3 frames: a result needs 5"):
        np.save(tmp_path / "short.npy", small_burst[:3])
        super_resolve_sequences([tmp_path / "short.npy"], tmp_path / "out")
