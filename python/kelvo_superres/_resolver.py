# SPDX-License-Identifier: Apache-2.0
"""The resolver, whole bursts and sliding windows over recordings."""

import dataclasses
import enum
import math
import operator
import warnings
from dataclasses import dataclass
from typing import Iterable, Iterator, Optional

import numpy as np

from . import _core

FRAMES_PER_RESULT = 5
ENGINES = ("float", "phase", "reference", "lanes")
VALUES = ("temperature", "counts")


class Status(enum.IntEnum):
    """What a frame or a pass reports; the values are the C interface's return codes."""

    OK = 0
    #: A defective pixel of the frame could only be filled with a fallback value.
    BAD_PIXELS = -2
    #: At least half of some frame could not be matched to the reference frame.
    MASK_HALF_EMPTY = -3
    #: The frame has too little contrast (below 2 between its extremes); it was used anyway.
    LOW_STRUCTURE = -4
    #: Fewer than five frames have been added: no pass has run yet.
    TOO_FEW_FRAMES = -5
    #: Some frame moved by more than a tenth of the frame height; the result was written.
    LARGE_DISPLACEMENT = -6
    #: Registration failed; the result is the one of the pass before.
    REGISTRATION_FAILED = -998


@dataclass(frozen=True)
class Result:
    """One super-resolved image and what its pass found.

    image: (2 * rows, 2 * columns) float32 array.
    shifts: (frames, 2) float32 array, each frame's displacement (x, y) against the reference
        frame in input pixels, oldest frame first.
    masks: (frames, rows, columns) bool array, True where a frame's pixel was used.
    factor: the estimated gain in resolution (1 to 2), or None when `status` is not OK.
    status: the pass's Status (OK, LARGE_DISPLACEMENT, MASK_HALF_EMPTY or REGISTRATION_FAILED).
    frame_status: what `SuperResolver.add` returned for the newest frame.
    index: position of the newest frame of the window in the frames given (0-based).
    psf_sigma: the sensor blur the pass used (the estimate with psf_sigma="auto").
    """

    image: np.ndarray
    shifts: np.ndarray
    masks: np.ndarray
    factor: Optional[float]
    status: Status
    frame_status: Status
    index: int
    psf_sigma: Optional[float] = None


def _counts(name, counts):
    counts = np.asarray(counts)
    if counts.dtype.kind not in "iu":
        raise TypeError(f"{name} must hold integer sensor counts, not {counts.dtype}")
    if counts.size and (counts.min() < -32768 or counts.max() > 32767):
        raise ValueError(f"{name} hold values beyond the signed 16-bit counts the engine takes")
    return counts.astype(np.int16, copy=False)


def _radiance(name, radiance):
    radiance = np.asarray(radiance)
    if radiance.dtype.kind not in "fiu":
        raise TypeError(f"{name} must hold real numbers, not {radiance.dtype}")
    return radiance


class RadianceCalibration:
    """Two calibration points per pixel, for the reference engine's radiance from raw counts.

    Each pixel read counts_a while looking at radiance radiance_a, and counts_b at radiance_b;
    between them radiance is a straight line in the counts. The engine repairs pixels whose
    line is unusable (equal counts, or a gain or offset beyond +-1000) from their neighbours.
    All four are (rows, columns) arrays: counts of an integer dtype within signed 16 bits,
    radiance of any real dtype.
    """

    def __init__(self, counts_a, radiance_a, counts_b, radiance_b):
        self.counts_a = _counts("counts_a", counts_a)
        self.radiance_a = _radiance("radiance_a", radiance_a)
        self.counts_b = _counts("counts_b", counts_b)
        self.radiance_b = _radiance("radiance_b", radiance_b)
        shapes = {np.shape(image) for image in (self.counts_a, self.radiance_a, self.counts_b,
                                                self.radiance_b)}
        if len(shapes) != 1:
            raise ValueError(f"the calibration images differ in shape: {sorted(shapes)}")


def _integer(name, value):
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer, not {type(value).__name__}") from None


def _estimated_psf_sigma(psf_sigma):
    """True for "auto"; None or a positive finite number give False; anything else raises."""
    if isinstance(psf_sigma, str):
        if psf_sigma == "auto":
            return True
    elif psf_sigma is None:
        return False
    else:
        try:
            number = float(psf_sigma)
        except (TypeError, ValueError):
            number = math.nan
        if math.isfinite(number) and number > 0.0:
            return False
    raise ValueError(f"psf_sigma must be a positive number or 'auto', not {psf_sigma!r}")


def _bad_pixel_positions(bad_pixels):
    if bad_pixels is None:
        return []
    positions = np.asarray(bad_pixels)
    if positions.size == 0:
        return []
    if positions.dtype.kind not in "iu":
        raise TypeError(f"bad_pixels must hold integer positions, not {positions.dtype}")
    if positions.ndim != 2 or positions.shape[1] < 2:
        raise ValueError("bad_pixels must be a sequence of (x, y) positions or a bad-pixel table, "
                         f"not an array of shape {positions.shape}")
    return [(int(x), int(y)) for x, y in positions[:, :2]]


class SuperResolver:
    """Super-resolves frames as they arrive, from the fifth frame on.

    Holds the last five frames; every frame from the fifth on runs a pass over them, exactly as
    SuperResolution_addImage of the C interface does, so the same frames give the same bytes.
    A pass depends on every frame the resolver took before, not only on its window (see load).

    width, height: the frame size in pixels; frames are (height, width) arrays.
    camera: a camera and lens description such as "625 FOV 25", which sets the sensor blur.
    psf_sigma: the sensor blur (standard deviation of its Gaussian) directly, not with camera;
        or "auto": estimated once from the first five frames, before their pass, and kept for
        every later pass. Frames that do not allow an estimate (too little structure, too
        little agreement on fine detail) give a RuntimeWarning saying why, and the camera's
        blur (with camera) or the default stays.
    reference: the reference frame, counted back from the newest (0..4).
    values: "temperature" (valid pixels in -274..5000) or "counts" (raw sensor counts, valid
        in -32768..32767); pixels outside are repaired as defective.
    valid_range: (minimum, maximum) of the valid pixels instead, such as (0, 65535) for
        unsigned 16-bit counts.
    bad_pixels: (x, y) positions, or a table from find_bad_pixels, of pixels known to be
        defective in every frame; they are repaired like any other defect.
    engine: "float" (tracked corners, the C interface's engine), "phase" (phase correlation),
        "reference" (the slow, literal engine whose float results are the same on every build;
        it alone takes a calibration) or "lanes" (the four-lane vector engine: the float
        engine's results on finite frames, without a bad-pixel stage, so without values,
        valid_range or bad_pixels, and refusing NaN or infinite pixels).
    calibration: a RadianceCalibration, with which the reference engine takes raw counts in
        process_counts.
    threads: threads that share each pass (1..64, float engines only); the result is the same
        to the bit for any count.
    timings: print the engine's timing lines (one block per pass) on standard output.
    """

    def __init__(self, width, height, *, camera=None, psf_sigma=None, reference=3,
                 values="temperature", valid_range=None, bad_pixels=None, engine="float",
                 threads=1, timings=False, calibration=None):
        width = _integer("width", width)
        height = _integer("height", height)
        from_frames = _estimated_psf_sigma(psf_sigma)
        if camera is not None and psf_sigma is not None and not from_frames:
            raise ValueError("give the camera or the psf_sigma, not both")
        if camera is not None:
            if not isinstance(camera, str):
                raise TypeError(f"camera must be a text such as '625 FOV 25', "
                                f"not {type(camera).__name__}")
            psf_sigma = _core._psf_sigma_of_camera(camera)
        elif psf_sigma is None or from_frames:
            psf_sigma = _core._psf_sigma_of_camera("")
        if from_frames and calibration is not None:
            raise ValueError("psf_sigma='auto' estimates from the frames given to add, not from "
                             "counts: give the reference engine's calibration a number")
        if values not in VALUES:
            raise ValueError(f"values must be one of {VALUES}, not {values!r}")
        if engine not in ENGINES:
            raise ValueError(f"engine must be one of {ENGINES}, not {engine!r}")
        if calibration is not None:
            if not isinstance(calibration, RadianceCalibration):
                raise TypeError("calibration must be a RadianceCalibration, not "
                                f"{type(calibration).__name__}")
            if engine != "reference":
                raise ValueError("a calibration needs engine='reference'")
        if valid_range is not None:
            if np.shape(valid_range) != (2,):
                raise ValueError(f"valid_range must be (minimum, maximum), not {valid_range!r}")
            valid_range = tuple(float(end) for end in valid_range)
        self._engine = _core._Resolver(width, height, engine,
                                       values == "counts", valid_range,
                                       _integer("reference", reference), float(psf_sigma),
                                       from_frames,
                                       _bad_pixel_positions(bad_pixels),
                                       _integer("threads", threads), bool(timings))
        self._from_frames = from_frames
        self._warned_of_psf_sigma = False
        self._calibrated = calibration is not None
        if calibration is not None:
            self._engine.set_calibration(calibration.counts_a, calibration.radiance_a,
                                         calibration.counts_b, calibration.radiance_b)

    def process_counts(self, counts) -> Status:
        """Turns a frame of raw counts into radiance with the calibration and adds it; from the
        fifth frame on also runs a pass. Returns the pass's Status (TOO_FEW_FRAMES before the
        fifth frame). Needs engine='reference' and a calibration.
        """
        if not self._calibrated:
            raise ValueError("process_counts needs SuperResolver(..., engine='reference', "
                             "calibration=RadianceCalibration(...))")
        self._engine.process_counts(_counts("counts", counts))
        return self.status

    @property
    def radiance(self) -> np.ndarray:
        """The radiance of the last frame given to process_counts (float32)."""
        return self._engine.calibration_maps()[2]

    @property
    def gain(self) -> np.ndarray:
        """Per-pixel gain of the calibration, after the engine's repairs."""
        return self._engine.calibration_maps()[0]

    @property
    def offset(self) -> np.ndarray:
        """Per-pixel offset of the calibration, after the engine's repairs."""
        return self._engine.calibration_maps()[1]

    @property
    def quality(self) -> np.ndarray:
        """3 x 3 map of how the last pass's sub-pixel shifts cover the doubled grid (reference
        engine): all weight in the centre means the frames added no detail."""
        return self._engine.calibration_maps()[3]

    @property
    def width(self) -> int:
        return self._engine.width

    @property
    def height(self) -> int:
        return self._engine.height

    @property
    def output_shape(self):
        """(rows, columns) of the result: twice the frame's."""
        return self._engine.output_shape

    @property
    def frames_added(self) -> int:
        return self._engine.frames_added

    def add(self, frame) -> Status:
        """Adds a (height, width) frame of any real dtype; returns its Status.

        From the fifth frame on this runs a pass. The status is what SuperResolution_addImage
        returns: OK, BAD_PIXELS, MASK_HALF_EMPTY or LOW_STRUCTURE. A frame the library cannot
        repair (too many NaN or infinite pixels) raises Error and is not added.
        """
        return self._take(frame, True)

    def load(self, frame) -> Status:
        """Takes a (height, width) frame into the window as add does, with the same checks and
        repairs, but runs no pass: about 1.6 ms for 640x512 against some 50 ms with one.

        How a window's frames register depends on every frame taken before them, however long
        ago: corner tracking converts each frame to 8 bits over a range that changes only when
        a frame leaves it. So a window computed from its five frames alone may differ from the
        same window in a run (mostly where a pass warns). To compute only some windows of a
        recording, give every frame in order, loading those that end no wanted window: each
        pass is then the bytes of a resolver given every frame with add. Returns OK,
        BAD_PIXELS or LOW_STRUCTURE; result, status and the other findings stay those of the
        last pass. As SuperResolution_loadImage of the C interface.
        """
        return self._take(frame, False)

    def _take(self, frame, with_pass):
        status = Status(self._engine.add(frame, with_pass))
        refusal = self._engine.psf_sigma_refusal
        if refusal and not self._warned_of_psf_sigma:
            self._warned_of_psf_sigma = True
            warnings.warn(f"psf_sigma='auto': {refusal} The passes keep the sensor blur "
                          f"{self.psf_sigma:g}.", RuntimeWarning, stacklevel=3)
        return status

    @property
    def psf_sigma(self) -> Optional[float]:
        """The sensor blur the passes use; None while psf_sigma="auto" awaits the fifth frame."""
        sigma = self._engine.psf_sigma
        return sigma if sigma > 0.0 else None

    @property
    def psf_sigma_estimated(self) -> bool:
        """Whether psf_sigma was estimated from the frames."""
        return self._from_frames and self.psf_sigma is not None and \
            not self._engine.psf_sigma_refusal

    @property
    def result(self) -> Optional[np.ndarray]:
        """A new float32 array with the last pass's image, or None before the first pass."""
        return self._engine.result()

    @property
    def shifts(self) -> Optional[np.ndarray]:
        """(frames, 2) float32 displacements (x, y) of the last pass, or None."""
        return self._engine.shifts()

    @property
    def masks(self) -> Optional[np.ndarray]:
        """(frames, height, width) bool masks of the pixels the last pass used, or None."""
        return self._engine.masks()

    @property
    def status(self) -> Status:
        """Status of the last pass: TOO_FEW_FRAMES before the first one."""
        outcome = self._engine.pass_result
        return Status.OK if outcome > 0 else Status(int(outcome))

    @property
    def factor(self) -> Optional[float]:
        """The last pass's estimate of the gain in resolution, or None when it failed."""
        outcome = self._engine.pass_result
        return outcome if outcome > 0 else None

    def snapshot(self, frame_status=Status.OK, index=-1) -> Result:
        """The last pass as a Result."""
        if self.frames_added < FRAMES_PER_RESULT:
            raise _error(f"{self.frames_added} frames added: a result needs "
                         f"{FRAMES_PER_RESULT}", Status.TOO_FEW_FRAMES)
        return Result(self.result, self.shifts, self.masks, self.factor, self.status,
                      Status(frame_status), index, self.psf_sigma)


def _error(message, code):
    """An Error carrying the C interface's code for the failure."""
    error = _core.Error(message)
    error.code = int(code)
    return error


def _frame_shape(frame):
    shape = np.shape(frame)
    if len(shape) != 2:
        raise ValueError(f"a frame must be a 2-D array (rows, columns), not one of shape {shape}")
    return shape


def sequence(frames: Iterable, *, results_from=0, **options) -> Iterator[Result]:
    """Yields one Result per frame from the fifth on, each a pass over the last five frames
    after all the frames before them.

    frames: any iterable of (rows, columns) arrays (a 3-D array, a list, a generator reading
    files); options: those of SuperResolver. Results own their arrays.
    results_from: position of the first frame whose window gives a result; the frames before it
    are only loaded (SuperResolver.load, no pass), so every result is the bytes of a run over
    all the frames. Windows cannot simply be cut out with their five frames: a pass depends on
    every frame before its window.
    """
    results_from = _integer("results_from", results_from)
    if results_from < 0:
        raise ValueError(f"results_from must be a frame position (0 or more), not {results_from}")
    resolver = None
    for index, frame in enumerate(frames):
        if resolver is None:
            rows, columns = _frame_shape(frame)
            resolver = SuperResolver(columns, rows, **options)
        if index < results_from:
            resolver.load(frame)
            continue
        frame_status = resolver.add(frame)
        if resolver.frames_added >= FRAMES_PER_RESULT:
            yield resolver.snapshot(frame_status, index)


def super_resolve(frames, **options) -> Result:
    """Super-resolves a burst: a (frames, rows, columns) array or a list of 2-D arrays.

    At least five frames; the last five alone make the result, as with a SuperResolver given
    only them (kelvo-sr burst too passes over the last five). A resolver given every frame may
    differ, since its passes depend on all the frames before their window:
    sequence(frames, results_from=len(frames) - 1) gives that result. Options are those of
    SuperResolver.
    """
    if isinstance(frames, np.ndarray) and frames.ndim != 3:
        raise ValueError("a burst is a 3-D array (frames, rows, columns) or a list of 2-D "
                         f"frames, not an array of shape {frames.shape}")
    if not isinstance(frames, np.ndarray):
        frames = list(frames)
    count = len(frames)
    if count < FRAMES_PER_RESULT:
        raise ValueError(f"a burst needs at least {FRAMES_PER_RESULT} frames, not {count}")
    (result,) = sequence(frames[-FRAMES_PER_RESULT:], **options)
    return dataclasses.replace(result, index=count - 1)
