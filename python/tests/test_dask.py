# SPDX-License-Identifier: Apache-2.0
"""Sequences on a local Dask cluster of two worker processes give the bytes of a serial run."""
import glob
import json
import os

import numpy as np
import pytest

import kelvo_superres as ksr
from conftest import DATA

distributed = pytest.importorskip("distributed")
from kelvo_superres.dask import super_resolve_sequences  # noqa: E402


def test_two_workers_write_the_serial_results(small_burst, tmp_path):
    # Two frames of noise: the window they end matches nothing and has no result of its own
    # (serially it repeats the one before, which a task starting there never computed).
    noisy = small_burst.copy()
    noisy[[5, 6]] = np.random.default_rng(1).uniform(0.0, 255.0, (2, 80, 96))
    flight = tmp_path / "flight.npy"
    np.save(flight, noisy)
    # Real frames whose windows warn, and whose results depend on frames before their window:
    # each task must take the whole sequence up to its windows to give the serial bytes.
    burst = os.path.join(DATA, "hit-uav", "bursts", "E_1_60_60_00524-00532")
    frames = np.stack([ksr.read_frame(path) for path in sorted(glob.glob(os.path.join(burst, "*.jpg")))])
    serial = {"flight": list(ksr.sequence(noisy, camera="625 FOV 25")),
              "E_1_60_60_00524-00532": list(ksr.sequence(frames, camera="625 FOV 25"))}
    assert len(frames) == 9 and {"MASK_HALF_EMPTY", "LARGE_DISPLACEMENT"} <= \
        {result.status.name for result in serial["E_1_60_60_00524-00532"]}
    cut_out = [list(ksr.sequence(frames[end - 4:end + 1], camera="625 FOV 25"))[0].image.tobytes()
               for end in range(4, 9)]
    assert cut_out != [result.image.tobytes() for result in serial["E_1_60_60_00524-00532"]]

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        summaries = super_resolve_sequences([flight, burst], tmp_path / "out", client=client,
                                            windows_per_task=1, camera="625 FOV 25")

    for summary, name in zip(summaries, serial):
        written = json.loads((tmp_path / "out" / name / "summary.json").read_text())
        assert written == json.loads(json.dumps(summary))
        assert [window["index"] for window in written["windows"]] == [r.index for r in serial[name]]
        assert written["results"] == len(serial[name]) and written["options"] == {"camera": "625 FOV 25"}
        for window, expected in zip(written["windows"], serial[name]):
            assert window["factor"] == expected.factor and window["status"] == expected.status.name
            if expected.status == ksr.Status.REGISTRATION_FAILED:
                assert window["result"] is None and window["shifts"] is None
                continue
            assert window["shifts"] == expected.shifts.tolist()
            image = np.load(tmp_path / "out" / name / window["result"])
            assert image.tobytes() == expected.image.tobytes()
    assert [window["status"] for window in summaries[0]["windows"]][1] == "REGISTRATION_FAILED"
    warned = [r.status.name for r in serial["E_1_60_60_00524-00532"] if r.status != ksr.Status.OK]
    assert (summaries[0]["failed_passes"], summaries[1]["failed_passes"]) == (1, 0)
    assert summaries[1]["warned_passes"] == {status: warned.count(status) for status in set(warned)}
    assert sorted(os.listdir(tmp_path / "out" / "flight")) == \
        ["result_00004.npy", "result_00006.npy", "summary.json"]
    with pytest.raises(ValueError, match="holds 3 frames: a result needs 5"):
        np.save(tmp_path / "short.npy", small_burst[:3])
        super_resolve_sequences([tmp_path / "short.npy"], tmp_path / "out")
