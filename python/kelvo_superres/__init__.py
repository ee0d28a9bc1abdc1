# SPDX-License-Identifier: Apache-2.0
"""Super-resolution of thermal-camera bursts on numpy arrays.

Five low-resolution frames of a scene, taken while the camera moves slightly, give one image
twice as wide and twice as high::

    import kelvo_superres as ksr

    result = ksr.super_resolve(frames)          # (5, H, W) array or a list of (H, W) arrays
    result.image                                # (2H, 2W) float32
    result.shifts, result.masks, result.factor  # what the pass found
    ksr.super_resolve(frames, psf_sigma="auto")  # the sensor blur estimated from the frames

`SuperResolver` takes frames one by one as a camera delivers them; `sequence` runs a sliding
window over a recording; `find_bad_pixels` and `repair_bad_pixels` work on 16-bit raw images;
`RadianceCalibration` lets the reference engine turn raw counts into radiance;
`kelvo_superres.dask` spreads many recordings over a Dask cluster.

Engines release the GIL while they work, so resolvers on separate threads run in parallel.
Failures of the library raise `Error` (a ValueError) with the library's message and `code`,
the C interface's return code for the failure; unusable arguments raise TypeError or
ValueError before anything reaches the library.
"""

from ._core import Error, __version__, read_frame, upscale_bicubic
from ._resolver import (FRAMES_PER_RESULT, RadianceCalibration, Result, Status, SuperResolver,
                        sequence, super_resolve)
from ._badpixels import find_bad_pixels, repair_bad_pixels

__all__ = [
    "Error",
    "FRAMES_PER_RESULT",
    "RadianceCalibration",
    "Result",
    "Status",
    "SuperResolver",
    "find_bad_pixels",
    "read_frame",
    "repair_bad_pixels",
    "sequence",
    "super_resolve",
    "upscale_bicubic",
]
