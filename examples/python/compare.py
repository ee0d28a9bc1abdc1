#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Bicubic upscaling beside super-resolution on a real thermal burst.

Run with Debian's Python from the repository root after building (or after installing, without
PYTHONPATH):

    PYTHONPATH=build/python /usr/bin/python3 examples/python/compare.py [BURST_FOLDER] [-o compare.png]

It super-resolves the last five frames of the burst (by default one of the HIT-UAV bursts in
../shared/data), and draws the bicubic upscaling of the reference frame beside the result in a
thermal palette with a colour bar, a crop of both, each frame's estimated shift against the
reference frame, and the masks of the pixels each frame contributed.
"""

# %% Setup
import argparse
import glob
import os

import matplotlib

matplotlib.use("Agg")  # writes a file; no display needed
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import kelvo_superres as ksr  # noqa: E402

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../shared/data")
parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
parser.add_argument("burst", nargs="?",
                    default=os.path.join(DATA, "hit-uav/bursts/A_1_60_30_00047-00056"))
parser.add_argument("-o", "--output", default="compare.png")
parser.add_argument("--crop", type=int, nargs=4, default=(300, 300, 400, 260),
                    metavar=("X", "Y", "WIDTH", "HEIGHT"), help="crop in result pixels")
arguments = parser.parse_args()

# %% Super-resolve the burst
paths = sorted(glob.glob(os.path.join(arguments.burst, "*.*")))
frames = [ksr.read_frame(path) for path in paths]
result = ksr.super_resolve(frames)
# The reference frame is the fourth newest (reference=3): position 1 of the last five.
reference = frames[-5 + 1]
bicubic = ksr.upscale_bicubic(reference)
print(f"{len(frames)} frames of {reference.shape[1]}x{reference.shape[0]}: status "
      f"{result.status.name}, estimated resolution gain {result.factor:.2f}")

# %% Draw
# One colour scale for both images, over the range of most pixels, so that they compare.
low, high = np.percentile(result.image, [0.5, 99.5])
x, y, width, height = arguments.crop
crop = (slice(y, y + height), slice(x, x + width))
figure, axes = plt.subplots(2, 3, figsize=(16, 9), gridspec_kw={"width_ratios": [1, 1, 0.8]})
for column, (title, image) in enumerate([("bicubic", bicubic), ("super-resolution", result.image)]):
    shown = axes[0, column].imshow(image, cmap="inferno", vmin=low, vmax=high)
    axes[0, column].add_patch(plt.Rectangle((x, y), width, height, fill=False, color="cyan"))
    axes[0, column].set_title(title)
    axes[1, column].imshow(image[crop], cmap="inferno", vmin=low, vmax=high,
                           extent=(x, x + width, y + height, y))
    axes[1, column].set_title(f"{title}, crop")
figure.colorbar(shown, ax=axes[:, :2], shrink=0.6, label="pixel value (as stored)")

names = [os.path.basename(path) for path in paths[-5:]]
axes[0, 2].scatter(result.shifts[:, 0], result.shifts[:, 1], c=range(5), cmap="viridis")
for name, (dx, dy) in zip(names, result.shifts):
    axes[0, 2].annotate(name, (dx, dy), fontsize=7, xytext=(4, 4), textcoords="offset points")
axes[0, 2].set(title="shift of each frame against the reference", xlabel="x (input pixels)",
               ylabel="y (input pixels)", aspect="equal")
axes[0, 2].grid(True)

# Number of frames that contributed each input pixel.
axes[1, 2].imshow(result.masks.sum(axis=0), cmap="gray", vmin=0, vmax=5)
axes[1, 2].set_title(f"frames used per pixel (mean {result.masks.sum(axis=0).mean():.2f} of 5)")
for axis in (*axes[:, 0], *axes[:, 1], axes[1, 2]):
    axis.set_xticks([])
    axis.set_yticks([])
figure.suptitle(f"{os.path.basename(os.path.normpath(arguments.burst))}: bicubic and "
                "super-resolution (HIT-UAV, Suo et al., Scientific Data 2023, CC BY 4.0)")
figure.savefig(arguments.output, dpi=100)
print(f"wrote {arguments.output}")
