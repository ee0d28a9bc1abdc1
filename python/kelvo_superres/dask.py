# SPDX-License-Identifier: Apache-2.0
"""Recorded sequences on a Dask cluster.

Each sequence is cut into chunks of consecutive windows, which run as independent tasks on the
workers; the workers write the results, and one JSON summary per sequence gathers them. Every
result is the bytes of a serial run (kelvo_superres.sequence over all the frames), warning
windows included: a pass depends not only on its five frames but on every frame before them
(corner tracking converts frames to 8 bits over a range that changes only when a frame leaves
it, however long ago). So each chunk reads the sequence from its first frame and loads the
frames before its own windows without a pass (SuperResolver.load).

That costs each chunk about 1.6 ms per earlier 640x512 frame (loading, measured through
Python), plus reading it (a .npy file is mapped; a JPEG file takes about 1.2 ms to decode): the
last chunk of a long recording loads almost all of it. Over a sequence of n frames in chunks of
w windows the chunks load about n * n / (2 * w) frames in all, against n passes of some 50 ms:
the loading stays under a tenth of the passes' time while n / w is below about 4 (image files)
or 6 (.npy). For long recordings give windows_per_task of n / 4 or more, and let many sequences
keep the workers busy.

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

from . import FRAMES_PER_RESULT, Status, read_frame, sequence

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


def _frames(collection, last):
    if isinstance(collection, np.ndarray):
        return collection[:last]
    return (read_frame(name) for name in collection[:last])


def run_chunk(path, first, last, folder, options):
    """Writes the results of the windows whose newest frame is first..last - 1, after loading
    the frames before them; returns their summaries. A window whose registration failed has no
    result or shifts of its own (a serial run repeats those of the pass before, which a task
    may not have run): it is summarised, not written.
    """
    collection = sequence_frames(path)
    os.makedirs(folder, exist_ok=True)
    windows = []
    for result in sequence(_frames(collection, last), results_from=first, **options):
        written = result.status != Status.REGISTRATION_FAILED
        if written:
            np.save(os.path.join(folder, result_name(result.index)), result.image)
        windows.append({
            "index": result.index,
            "result": result_name(result.index) if written else None,
            "status": result.status.name,
            "frame_status": result.frame_status.name,
            "factor": result.factor,
            "shifts": result.shifts.tolist() if written else None,
        })
    return windows


def write_summary(path, folder, frame_count, options, started, *chunks):
    """Writes the sequence's JSON summary from the summaries of its chunks; returns it."""
    windows = [window for chunk in chunks for window in chunk]
    factors = [window["factor"] for window in windows if window["factor"] is not None]
    # A pass that warned still wrote its result; only a failed registration left none.
    failed = Status.REGISTRATION_FAILED.name
    warned = [window["status"] for window in windows if window["status"] not in ("OK", failed)]
    summary = {
        "sequence": path,
        "frames": frame_count,
        "results": len(windows),
        "failed_passes": sum(window["status"] == failed for window in windows),
        "warned_passes": {status: warned.count(status) for status in sorted(set(warned))},
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
    is one, else Dask's local scheduler. windows_per_task: windows per task; smaller spreads a
    sequence over more workers, but each task first loads every frame before its windows
    (about 1.6 ms per 640x512 frame, plus reading it), so the loading grows with the square
    of a sequence's length over windows_per_task (see the module's description). Options are
    those of kelvo_superres.SuperResolver. Every result is the bytes of a serial run, warning
    windows included; one whose registration failed is summarised with "result" and "shifts"
    null.
    Returns the summaries, in the order of the paths.
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
