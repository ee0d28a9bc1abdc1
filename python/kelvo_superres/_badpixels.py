# SPDX-License-Identifier: Apache-2.0
"""Defective pixels of 16-bit raw images.

Bad pixels travel in a table: a (n, 10) uint16 array, one row per bad pixel holding its x and
y followed by x and y of the four good pixels whose mean replaces it. A row whose first
replacement lies outside the image (the image's width and height) found no good pixel nearby.
"""

import numpy as np

from . import _core

TABLE_COLUMNS = 10
# The search takes signed 16-bit values with its range shifted to start at 0.
WIDEST_RANGE = 32767
MOST_ROWS = 32767
SMALLEST_BIT_DEPTH = 8


def _raw_image(image):
    image = np.asarray(image)
    if image.dtype not in (np.uint16, np.int16):
        raise TypeError(f"bad pixels are searched in uint16 or int16 images, not {image.dtype}")
    if image.ndim != 2 or image.size == 0:
        raise ValueError(f"the image must be a non-empty 2-D array, not one of shape {image.shape}")
    return image


def _search_range(image, low, high):
    # Dead pixels read 0 (or the most negative value), saturated ones the full scale of the
    # smallest bit depth that holds the image.
    lowest, highest = int(image.min()), int(image.max())
    full_scale = 1 << SMALLEST_BIT_DEPTH
    while full_scale - 1 < highest or -full_scale > lowest:
        full_scale *= 2
    low = (-full_scale if lowest < 0 else 0) if low is None else int(low)
    high = full_scale - 1 if high is None else int(high)
    if low >= high:
        raise ValueError(f"low ({low}) must lie below high ({high})")
    if high - low > WIDEST_RANGE:
        raise ValueError(f"the search range {low}..{high} is wider than the {WIDEST_RANGE} "
                         "values the search covers: give low and high closer together")
    return low, high


def find_bad_pixels(image, *, low=None, high=None, max_neighbours=3, span=4, capacity=10000,
                    radius=3):
    """Finds the defective pixels of a uint16 or int16 image; returns the bad-pixel table.

    Defective are the pixels at or beyond low and high (by default the full scale of the
    image's bit depth, such as 0 and 16383 for a 14-bit sensor) and those whose value is
    isolated: fewer than `max_neighbours` pixels have values up to `span` below it, up to
    `span` above it, or within `span` / 2 on either side. Each gets the nearest good pixel
    below, left, above and right of it within `radius` as replacements. More than `capacity`
    bad pixels raise ValueError.
    """
    image = _raw_image(image)
    low, high = _search_range(image, low, high)
    if not 1 <= capacity <= MOST_ROWS:
        raise ValueError(f"capacity must lie in 1..{MOST_ROWS}, not {capacity}")
    if not 1 <= max_neighbours <= 65535 or not 2 <= span <= 65535 or radius < 0:
        raise ValueError("max_neighbours must be at least 1, span at least 2 and radius at "
                         "least 0")
    searched = np.clip(image.astype(np.int32) - low, -32768, 32767).astype(np.int16)
    table = _core._search_bad_pixels(searched, high - low, max_neighbours, span, capacity)
    if table is None:
        raise ValueError(f"more than {capacity} bad pixels: give a larger capacity, or check "
                         f"low and high ({low}..{high}): every value at or beyond them counts "
                         "as defective")
    table, _ = _core._choose_replacements(table, image.shape[1], image.shape[0], radius)
    return table


def repair_bad_pixels(image, table, *, radius=3):
    """Returns a copy of the image with every bad pixel of the table replaced.

    Each takes the mean, truncated toward zero, of its four replacement pixels; rows without
    replacements (such as positions of known bad pixels: a table may hold just x and y) get
    them chosen within `radius` first. Bad pixels without a good pixel nearby keep their value.
    """
    image = _raw_image(image)
    rows = np.asarray(table)
    if rows.size == 0:
        return image.copy()
    if rows.dtype.kind not in "iu" or rows.ndim != 2 or rows.shape[1] not in (2, TABLE_COLUMNS):
        raise ValueError("the table must be an integer array of (x, y) rows or a bad-pixel "
                         f"table of ten columns, not {rows.dtype} of shape {rows.shape}")
    height, width = image.shape
    if ((rows[:, 0] < 0) | (rows[:, 0] >= width) | (rows[:, 1] < 0) | (rows[:, 1] >= height)).any():
        raise ValueError(f"a bad pixel of the table lies outside the {width}x{height} image")
    if rows.shape[1] == 2:
        # Not replaced yet: the image size in place of the first replacement.
        rows = np.hstack([rows, np.tile([width, height] + [0] * 6, (len(rows), 1))])
    table, _ = _core._choose_replacements(rows.astype(np.uint16), width, height, radius)
    # The repair takes signed 16-bit values: unsigned images beyond them are shifted down by
    # their minimum, which keeps every value non-negative and the truncated means exact.
    offset = int(image.min()) if image.dtype == np.uint16 and image.max() > 32767 else 0
    if int(image.max()) - offset > 32767:
        raise ValueError("the image's values span more than 32767, which the repair cannot take")
    repaired = _core._remove_bad_pixels((image.astype(np.int32) - offset).astype(np.int16), table)
    return (repaired.astype(np.int32) + offset).astype(image.dtype)
