# SPDX-License-Identifier: Apache-2.0
"""Recorded sequences on a Dask cluster.

Each sequence is cut into chunks of consecutive windows; a chunk reads its frames together with
the four before its first window, so every window sees the same five frames as in a serial run
and gives the same bytes. Chunks run as independent tasks on the workers, which write the
results; one JSON summary per sequence gathers them.

Sequences are folders of image files (read in name order, as the kelvo-sr tool reads them) or
.npy files holding a (frames, rows, columns) array. Paths must name the same files on the
client and on every worker (a shared or network file system)::

    from dask.distributed import Client
    from kelvo_superres.dask import super_resolve_sequences

    client = Client("tcp://scheduler:8786")
    summaries = super_resolve_sequences(paths, "results/", client=client, camera="625 FOV 25")
"""

import json
import os
import time

import numpy as np

from . import FRAMES_PER_RESULT, read_frame, sequence

IMAGE_EXTENSIONS = (".png", ".tif", ".tiff", ".jpg", ".jpeg")
SUMMARY_NAME = "summary.json"


def sequence_frames(path):
    """The frames of a sequence as an indexable collection: an array or a list of file names."""
    if os.path.isdir(path):
        return sorted(os.path.join(path, name) for name in os.listdir(path)
                      if name.lower().endswith(IMAGE_EXTENSIONS))
    if path.endswith(".npy"):
        frames = np.load(path, mmap_mode="r")
        if frames.ndim != 3:
            raise ValueError(f"'{path}' holds an array of shape {frames.shape}, not "
                             "(frames, rows, columns)")
        return frames
    raise ValueError(f"'{path}' is neither a folder of images nor a .npy file")


def result_name(index):
    return f"result_{index:05d}.npy"


def output_folder(output, path):
    name = os.path.splitext(os.path.basename(os.path.normpath(path)))[0]
    return os.path.join(output, name)


def _frames(collection, first, last):
    if isinstance(collection, np.ndarray):
        return collection[first:last]
    return (read_frame(name) for name in collection[first:last])


def run_chunk(path, first, last, folder, options):
    """Writes the results of the windows whose newest frame is first..last - 1; returns their
    summaries."""
    start = first - (FRAMES_PER_RESULT - 1)
    collection = sequence_frames(path)
    os.makedirs(folder, exist_ok=True)
    windows = []
    for result in sequence(_frames(collection, start, last), **options):
        index = start + result.index
        np.save(os.path.join(folder, result_name(index)), result.image)
        windows.append({
            "index": index,
            "result": result_name(index),
            "status": result.status.name,
            "frame_status": result.frame_status.name,
            "factor": result.factor,
            "shifts": result.shifts.tolist(),
        })
    return windows


def write_summary(path, folder, frame_count, options, started, *chunks):
    """Writes the sequence's JSON summary from the summaries of its chunks; returns it."""
    windows = [window for chunk in chunks for window in chunk]
    factors = [window["factor"] for window in windows if window["factor"] is not None]
    summary = {
        "sequence": path,
        "frames": frame_count,
        "results": len(windows),
        "failed_passes": sum(window["status"] != "OK" for window in windows),
        "mean_factor": sum(factors) / len(factors) if factors else None,
        "options": {name: value if isinstance(value, (str, int, float, type(None))) else str(value)
                    for name, value in options.items()},
        "elapsed_seconds": time.time() - started,
        "windows": windows,
    }
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, SUMMARY_NAME), "w") as file:
        json.dump(summary, file, indent=1)
    return summary


def super_resolve_sequences(paths, output, *, client=None, windows_per_task=64, **options):
    """Super-resolves every sequence, window by window, on a Dask cluster.

    paths: sequence folders or .npy files; output: the folder that receives one folder per
    sequence (named after it) with result_NNNNN.npy for the window ending at frame NNNNN and
    summary.json. client: a dask.distributed Client; without one, the current client if there
    is one, else Dask's local scheduler. windows_per_task: windows per task (smaller spreads
    short sequences over more workers, each task re-reads four frames). Options are those of
    kelvo_superres.SuperResolver. Returns the summaries, in the order of the paths.
    """
    import dask

    if windows_per_task < 1:
        raise ValueError(f"windows_per_task must be at least 1, not {windows_per_task}")
    if client is None:
        try:
            from distributed import get_client
            client = get_client()
        except (ImportError, ValueError):
            client = None
    started = time.time()
    summaries = []
    for path in paths:
        path = os.fspath(path)
        frame_count = len(sequence_frames(path))
        if frame_count < FRAMES_PER_RESULT:
            raise ValueError(f"'{path}' holds {frame_count} frames: a result needs "
                             f"{FRAMES_PER_RESULT}")
        folder = output_folder(os.fspath(output), path)
        first_window = FRAMES_PER_RESULT - 1
        chunks = [dask.delayed(run_chunk, pure=False)(path, first, min(first + windows_per_task, frame_count),
                                                      folder, options)
                  for first in range(first_window, frame_count, windows_per_task)]
        summaries.append(dask.delayed(write_summary, pure=False)(path, folder, frame_count, options,
                                                                 started, *chunks))
    if client is not None:
        return client.gather(client.compute(summaries))
    return list(dask.compute(*summaries))
