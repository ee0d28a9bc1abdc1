# SPDX-License-Identifier: Apache-2.0
"""Bad pixels of 16-bit images, against the kelvo-sr tool on the same image."""
import os
import subprocess

import numpy as np
import pytest

import kelvo_superres as ksr


def sensor_image(dtype=np.uint16, offset=0):
    """A 14-bit texture of a few repeated values with a dead, a saturated and an isolated hot
    pixel (signed: only the hot one)."""
    rows, columns = np.mgrid[0:48, 0:64]
    image = (2000 + (rows + columns) % 50 + offset).astype(dtype)
    image[40, 60] = 9000
    if offset == 0:
        image[5, 7], image[20, 30] = 0, 16383
    return image


def test_finds_and_repairs_the_defects_as_the_tool_does(tmp_path):
    image = sensor_image()
    table = ksr.find_bad_pixels(image)
    assert table.dtype == np.uint16 and table.shape == (3, 10)
    assert sorted(map(tuple, table[:, :2])) == [(7, 5), (30, 20), (60, 40)]
    repaired = ksr.repair_bad_pixels(image, table)
    for x, y, *replacements in table.astype(np.int64):
        assert repaired[y, x] == sum(image[ry, rx] for rx, ry in zip(replacements[::2], replacements[1::2])) // 4
    untouched = np.ones(image.shape, bool)
    untouched[table[:, 1], table[:, 0]] = False
    assert np.array_equal(repaired[untouched], image[untouched])
    # Positions alone get their replacements chosen first.
    assert np.array_equal(ksr.repair_bad_pixels(image, table[:, :2].astype(np.int64)), repaired)

    tool = os.environ.get("KELVO_SR_TOOL")
    if tool:
        raw = tmp_path / "frame.raw"
        image.tofile(raw)
        subprocess.run([tool, "badpixels", str(raw), "--size", "64x48", "--type", "u16",
                        "--table", str(tmp_path / "table.csv"), "-o", str(tmp_path / "repaired.png"),
                        "--drawing", str(tmp_path / "drawing.png")], check=True, stdout=subprocess.DEVNULL)
        assert np.array_equal(np.loadtxt(tmp_path / "table.csv", delimiter=",", skiprows=1), table)
        assert np.array_equal(ksr.read_frame(str(tmp_path / "repaired.png")), repaired)


def test_signed_images_and_invalid_input():
    image = sensor_image(np.int16, offset=-4000)
    table = ksr.find_bad_pixels(image)
    assert sorted(map(tuple, table[:, :2])) == [(60, 40)]
    assert ksr.repair_bad_pixels(image, table).dtype == np.int16
    with pytest.raises(TypeError, match="uint16 or int16 images, not float32"):
        ksr.find_bad_pixels(image.astype(np.float32))
    with pytest.raises(ValueError, match=r"2-D array, not one of shape \(2, 48, 64\)"):
        ksr.find_bad_pixels(np.stack([image, image]))
    with pytest.raises(ValueError, match="more than 2 bad pixels: give a larger capacity"):
        ksr.find_bad_pixels(sensor_image(), capacity=2)
    with pytest.raises(ValueError, match="wider than the 32767 values"):
        ksr.find_bad_pixels(sensor_image(), low=-30000)
    with pytest.raises(ValueError, match="low .* must lie below high"):
        ksr.find_bad_pixels(sensor_image(), low=100, high=100)
    with pytest.raises(ValueError, match="outside the 64x48 image"):
        ksr.repair_bad_pixels(sensor_image(), [[64, 0]])
    with pytest.raises(ValueError, match="ten columns"):
        ksr.repair_bad_pixels(sensor_image(), np.zeros((1, 5), np.uint16))
