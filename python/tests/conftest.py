# SPDX-License-Identifier: Apache-2.0
import glob
import os

import numpy as np
import pytest

import kelvo_superres as ksr

DATA = os.environ.get("KELVO_SHARED_DATA_DIR",
                      os.path.join(os.path.dirname(__file__), "../../../shared/data"))


def burst_paths(name="A_1_60_30_00047-00056", count=7):
    return sorted(glob.glob(os.path.join(DATA, "hit-uav", "bursts", name, "*.jpg")))[:count]


@pytest.fixture(scope="session")
def real_burst():
    """Seven real 640x512 frames, oldest first, as float32."""
    return np.stack([ksr.read_frame(path) for path in burst_paths()])


@pytest.fixture(scope="session")
def small_burst(real_burst):
    """Seven 96x80 crops of the real frames: quick passes with real texture and motion."""
    return np.ascontiguousarray(real_burst[:, 200:280, 300:396])
