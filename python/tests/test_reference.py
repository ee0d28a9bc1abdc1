# SPDX-License-Identifier: Apache-2.0
"""The reference engine, with and without a radiance calibration, against the kelvo-sr tool."""
import os
import struct
import subprocess
import zlib

import numpy as np
import pytest

import kelvo_superres as ksr

TOOL = os.environ.get("KELVO_SR_TOOL")


def write_png16(path, image):
    """A 16-bit grey PNG of non-negative whole values."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    rows = b"".join(b"\0" + row.astype(">u2").tobytes() for row in image)
    header = struct.pack(">IIBBBBB", image.shape[1], image.shape[0], 16, 0, 0, 0, 0)
    path.write_bytes(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows))
                     + chunk(b"IEND", b""))
    return str(path)


def tool_result(tmp_path, frames, *options):
    paths = [write_png16(tmp_path / f"frame{i}.png", frame) for i, frame in enumerate(frames)]
    output = tmp_path / "result.tiff"
    subprocess.run([TOOL, "burst", *paths, "--engine", "reference", *options, "-o", str(output)],
                   check=True, stdout=subprocess.DEVNULL)
    return ksr.read_frame(str(output))


@pytest.mark.skipif(not TOOL, reason="the kelvo-sr tool is not built")
def test_temperatures_give_the_bytes_of_the_tool(small_burst, tmp_path):
    result = ksr.super_resolve(small_burst, engine="reference")
    assert result.image.tobytes() == tool_result(tmp_path, small_burst[-5:].astype(np.uint16),
                                                 "--values", "temperature").tobytes()
    assert result.image.tobytes() != ksr.super_resolve(small_burst).image.tobytes()
    assert result.shifts.shape == (5, 2) and result.masks.shape == (5, 80, 96)


@pytest.mark.skipif(not TOOL, reason="the kelvo-sr tool is not built")
def test_counts_through_a_calibration_give_the_bytes_of_the_tool(small_burst, tmp_path):
    rng = np.random.default_rng(7)
    low = (1000 + rng.integers(-30, 30, (80, 96))).astype(np.int16)
    high = (low + 2000 + rng.integers(-50, 50, (80, 96))).astype(np.int16)
    # Radiance 20 at the low counts and 40 at the high ones; the scene spans about that range.
    counts = (low + (small_burst / 255.0 * (high - low))).round().astype(np.int16)
    calibration = ksr.RadianceCalibration(low, np.full((80, 96), 20.0), high, np.full((80, 96), 40.0))
    resolver = ksr.SuperResolver(96, 80, engine="reference", calibration=calibration)
    statuses = [resolver.process_counts(frame) for frame in counts[-5:]]
    assert statuses == [ksr.Status.TOO_FEW_FRAMES] * 4 + [ksr.Status.OK]
    assert np.allclose(resolver.radiance, 20.0 + 20.0 * (counts[-1] - low) / (high - low), atol=1e-3)
    assert resolver.quality.shape == (3, 3) and np.isclose(resolver.quality.sum(), 1.0)

    write_png16(tmp_path / "low.png", low)
    write_png16(tmp_path / "high.png", high)
    expected = tool_result(tmp_path, counts[-5:], "--calibration", str(tmp_path / "low.png"), "20",
                           str(tmp_path / "high.png"), "40")
    assert resolver.result.tobytes() == expected.tobytes()


def test_calibration_errors():
    flat = np.zeros((80, 96))
    with pytest.raises(TypeError, match="counts_a must hold integer sensor counts, not float64"):
        ksr.RadianceCalibration(flat, flat, flat, flat)
    counts = np.zeros((80, 96), np.int32)
    with pytest.raises(ValueError, match="beyond the signed 16-bit counts"):
        ksr.RadianceCalibration(counts + 40000, flat, counts, flat)
    with pytest.raises(ValueError, match="differ in shape"):
        ksr.RadianceCalibration(counts, flat[:10], counts, flat)
    calibration = ksr.RadianceCalibration(counts, flat, counts + 1, flat + 1)
    with pytest.raises(ValueError, match="needs engine='reference'"):
        ksr.SuperResolver(96, 80, calibration=calibration)
    with pytest.raises(ValueError, match=r"shape \(80, 96\) but the resolver takes frames of shape \(40, 48\)"):
        ksr.SuperResolver(48, 40, engine="reference", calibration=calibration)
    for engine in ("reference", "float"):
        with pytest.raises(ValueError, match="process_counts needs .*calibration="):
            ksr.SuperResolver(96, 80, engine=engine).process_counts(counts)
