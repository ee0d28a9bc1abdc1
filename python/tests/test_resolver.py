# SPDX-License-Identifier: Apache-2.0
"""The resolver against the C interface and the tool, dtypes, failures and threads."""
import ctypes
import math
import os
import subprocess
import threading
import time

import numpy as np
import pytest

import kelvo_superres as ksr
from conftest import DATA, burst_paths


def c_interface_run(frames, configure=lambda library, handle: None, loaded=0):
    """The burst through the C interface, as a C host calls it: statuses and final result.
    The first `loaded` frames are taken without a pass."""
    library = ctypes.CDLL(os.environ["KELVO_LIBRARY"])
    height, width = frames[0].shape
    handle = library.SuperResolution_init(width, height)
    configure(library, handle)
    pointer = ctypes.POINTER(ctypes.c_float)
    statuses = [(library.SuperResolution_loadImage if index < loaded else library.SuperResolution_addImage)(
                    handle, np.ascontiguousarray(frame).ctypes.data_as(pointer))
                for index, frame in enumerate(frames)]
    result = np.zeros((2 * height, 2 * width), np.float32)
    assert library.SuperResolution_getSuperresolutionImage(handle, result.ctypes.data_as(pointer)) == 0
    library.SuperResolution_release(handle)
    return statuses, result


def python_run(frames, **options):
    resolver = ksr.SuperResolver(frames[0].shape[1], frames[0].shape[0], **options)
    statuses = [resolver.add(frame) for frame in frames]
    return statuses, resolver


def test_same_bytes_as_the_c_interface_and_the_tool(real_burst, tmp_path):
    statuses, resolver = python_run(real_burst)
    c_statuses, c_result = c_interface_run(real_burst)
    assert statuses == c_statuses
    assert resolver.result.tobytes() == c_result.tobytes()
    library = ctypes.CDLL(os.environ["KELVO_LIBRARY"])
    version = ctypes.create_string_buffer(32)
    assert library.SuperResolution_getVersionText(version, 32) == 0
    assert ksr.__version__ == version.value.decode()
    assert resolver.status == ksr.Status.OK and 1.0 <= resolver.factor <= 2.0
    assert resolver.shifts.shape == (5, 2) and not resolver.shifts[1].any()  # reference frame
    assert resolver.masks.shape == (5, 512, 640) and resolver.masks[1].all()

    tool = os.environ.get("KELVO_SR_TOOL")
    if tool:
        output = tmp_path / "result.tiff"
        subprocess.run([tool, "burst", *burst_paths(), "-o", str(output)], check=True,
                       stdout=subprocess.DEVNULL)
        assert ksr.read_frame(str(output)).tobytes() == c_result.tobytes()


def test_options_give_the_bytes_of_the_c_interface_with_the_same_settings(small_burst):
    _, camera = python_run(small_burst, camera="625 FOV 22")
    assert camera.psf_sigma == np.float32(0.65)
    set_camera = lambda library, handle: library.SuperResolution_setCameraAndLensType(handle, b"625 FOV 22")
    assert camera.result.tobytes() == c_interface_run(small_burst, set_camera)[1].tobytes()
    default = python_run(small_burst)[1].result
    assert camera.result.tobytes() != default.tobytes()
    assert python_run(small_burst, psf_sigma=0.65)[1].result.tobytes() == camera.result.tobytes()
    # Counts make negative values valid pixels, where temperatures below -274 are defects.
    cold = small_burst - 1000.0
    assert not np.array_equal(python_run(cold, values="counts")[1].result,
                              python_run(cold)[1].result)
    # Known defective pixels, clustered so that some lack good neighbours, and a valid range.
    hot = small_burst.copy()
    positions = [(10, 10), (11, 10), (10, 11), (11, 11), (9, 10), (50, 40)]
    for x, y in positions:
        hot[:, y, x] = 255.0

    def defects_and_range(library, handle):
        flat = (ctypes.c_int * 12)(*np.ravel(positions))
        assert library.SuperResolution_setDefectivePixels(handle, flat, len(positions)) == 0
        assert library.SuperResolution_setValidRange(handle, ctypes.c_float(0), ctypes.c_float(250)) == 0

    statuses, resolver = python_run(hot, bad_pixels=positions, valid_range=(0, 250))
    c_statuses, c_result = c_interface_run(hot, defects_and_range)
    assert statuses == c_statuses and resolver.result.tobytes() == c_result.tobytes()
    assert resolver.result.tobytes() != python_run(hot)[1].result.tobytes()


def test_every_real_dtype_and_layout_gives_the_float32_result(small_burst):
    expected = ksr.super_resolve(small_burst).image.tobytes()
    integers = np.round(small_burst).astype(np.int16)
    assert np.array_equal(integers, small_burst)  # JPEG frames hold whole values
    for burst in (small_burst.astype(np.float64), np.asfortranarray(small_burst),
                  [np.asfortranarray(frame) for frame in small_burst], integers,
                  integers.astype(np.uint8), np.repeat(small_burst, 2, axis=2)[:, :, ::2]):
        assert ksr.super_resolve(burst).image.tobytes() == expected


def test_the_four_lane_engine_gives_the_float_engine_bytes_on_finite_frames(small_burst):
    lanes = ksr.super_resolve(small_burst, engine="lanes")
    assert lanes.image.tobytes() == ksr.super_resolve(small_burst).image.tobytes()
    assert lanes.masks.dtype == bool and lanes.masks[1].all()
    resolver = ksr.SuperResolver(96, 80, engine="lanes")
    spotted = small_burst[0].copy()
    spotted[3, 4] = np.inf
    with pytest.raises(ksr.Error, match="^The four-lane engine takes finite pixels only"):
        resolver.add(spotted)
    assert resolver.frames_added == 0


def test_sequence_yields_every_window(small_burst):
    results = list(ksr.sequence(iter(small_burst)))
    assert [result.index for result in results] == [4, 5, 6]
    assert results[0].image.tobytes() == ksr.super_resolve(small_burst[:5]).image.tobytes()


def test_loaded_frames_give_the_bytes_of_the_c_interface_and_of_a_run(small_burst):
    resolver = ksr.SuperResolver(96, 80)
    statuses = [resolver.load(frame) for frame in small_burst[:6]]
    assert resolver.frames_added == 6 and resolver.result is None
    statuses.append(resolver.add(small_burst[6]))
    c_statuses, c_result = c_interface_run(small_burst, loaded=6)
    assert statuses == c_statuses and resolver.result.tobytes() == c_result.tobytes()
    in_run = list(ksr.sequence(small_burst))
    assert resolver.result.tobytes() == in_run[-1].image.tobytes()
    assert [(r.index, r.image.tobytes()) for r in ksr.sequence(small_burst, results_from=5)] == \
        [(r.index, r.image.tobytes()) for r in in_run[1:]]
    # The checks and repairs of add; what is refused is not taken, and the last pass stays.
    with pytest.raises(TypeError, match="real numbers .* not complex128"):
        resolver.load(small_burst[0].astype(np.complex128))
    with pytest.raises(ValueError, match=r"shape \(96, 80\) but the resolver takes frames of shape"):
        resolver.load(small_burst[0].T)
    with pytest.raises(ksr.Error, match="^Too many defect pixels. No processing possible.$"):
        resolver.load(np.full((80, 96), np.nan))
    assert resolver.load(np.full((80, 96), np.inf)) == ksr.Status.BAD_PIXELS
    assert resolver.load(np.full((80, 96), 7.0)) == ksr.Status.LOW_STRUCTURE
    assert resolver.frames_added == 9 and resolver.result.tobytes() == c_result.tobytes()
    with pytest.raises(ValueError, match="^results_from must be a frame position"):
        next(ksr.sequence(small_burst, results_from=-1))


def test_unusable_frames_are_refused_with_clear_errors(small_burst):
    resolver = ksr.SuperResolver(96, 80)
    assert resolver.result is None and resolver.status == ksr.Status.TOO_FEW_FRAMES
    with pytest.raises(TypeError, match="real numbers .* not complex128"):
        resolver.add(small_burst[0].astype(np.complex128))
    with pytest.raises(TypeError, match="not object"):
        resolver.add(np.full((80, 96), None, dtype=object))
    with pytest.raises(TypeError, match="not bool"):
        resolver.add(np.ones((80, 96), bool))
    with pytest.raises(ValueError, match=r"2-D array \(rows, columns\), not one of shape \(5, 80, 96\)"):
        resolver.add(small_burst[:5])
    with pytest.raises(ValueError, match=r"shape \(96, 80\) but the resolver takes frames of shape \(80, 96\)"):
        resolver.add(small_burst[0].T)
    with pytest.raises(ValueError, match="shape"):
        ksr.super_resolve([small_burst[0]] * 4 + [small_burst[0, :40]])
    with pytest.raises(ValueError, match="at least 5 frames, not 4"):
        ksr.super_resolve(small_burst[:4])
    with pytest.raises(ValueError, match=r"3-D array .* not an array of shape \(80, 96\)"):
        ksr.super_resolve(small_burst[0])
    assert resolver.frames_added == 0


def test_a_frame_the_library_cannot_repair_is_not_added(small_burst):
    resolver = ksr.SuperResolver(96, 80)
    for frame in small_burst[:4]:
        resolver.add(frame)
    with pytest.raises(ksr.Error, match="^Too many defect pixels. No processing possible.$") as error:
        resolver.add(np.full((80, 96), np.nan, np.float32))
    assert error.value.code == -999 and isinstance(error.value, ValueError)
    assert resolver.frames_added == 4
    resolver.add(small_burst[4])
    assert resolver.result.tobytes() == ksr.super_resolve(small_burst[:5]).image.tobytes()
    # Infinite pixels are filled with the frame's extremes, which the status reports.
    assert ksr.SuperResolver(96, 80).add(np.full((80, 96), np.inf)) == ksr.Status.BAD_PIXELS
    # A few NaN pixels are repaired from their neighbours, as the engine does.
    spotted = small_burst.copy()
    spotted[2, 10, 10:13] = np.nan
    assert np.isfinite(ksr.super_resolve(spotted).image).all()


@pytest.mark.parametrize("options, error, message", [
    (dict(reference=5), ksr.Error, "^Invalid reference index specified.$"),
    (dict(psf_sigma=0.0), ValueError, "^psf_sigma must be a positive number or 'auto', not 0.0$"),
    (dict(psf_sigma=-1), ValueError, "not -1$"),
    (dict(psf_sigma=float("nan")), ValueError, "not nan$"),
    (dict(psf_sigma=float("inf")), ValueError, "not inf$"),
    (dict(psf_sigma="autox"), ValueError, "^psf_sigma must be a positive number or 'auto', not 'autox'$"),
    (dict(psf_sigma=[1.0]), ValueError, r"not \[1.0\]$"),
    (dict(engine="reference", psf_sigma="auto", calibration=ksr.RadianceCalibration(
        *[np.zeros((80, 96), np.int16)] * 4)), ValueError, "^psf_sigma='auto' estimates from the frames"),
    (dict(width=4), ksr.Error, "^Invalid image size specified.$"),
    (dict(width=96.0), TypeError, "width must be an integer, not float"),
    (dict(camera="625 FOV 25", psf_sigma=0.5), ValueError, "not both"),
    (dict(camera=625), TypeError, "camera must be a text"),
    (dict(values="kelvin"), ValueError, "values must be one of"),
    (dict(engine="fast"), ValueError, "engine must be one of"),
    (dict(engine="lanes", bad_pixels=[(1, 2)]), ksr.Error, "^The four-lane engine has no bad-pixel stage"),
    (dict(engine="lanes", values="counts"), ksr.Error, "no bad-pixel stage"),
    (dict(threads=0), ksr.Error, "^Invalid number of threads specified.$"),
    (dict(threads=65), ksr.Error, "^Invalid number of threads specified.$"),
    (dict(engine="lanes", threads=2), ksr.Error, "^Only the float engines share a pass among threads.$"),
    (dict(bad_pixels=[(0, 0), (96, 0)]), ksr.Error, r"^Defective pixel 1 at \(96, 0\) lies outside the 96 x 80 frame.$"),
    (dict(valid_range=(5, 5)), ksr.Error, "^Invalid range of valid values specified.$"),
    (dict(valid_range=5), ValueError, r"valid_range must be \(minimum, maximum\)"),
    (dict(bad_pixels=[(1.5, 2)]), TypeError, "integer positions"),
    (dict(bad_pixels=[1, 2]), ValueError, r"\(x, y\) positions"),
])
def test_invalid_options(options, error, message):
    arguments = dict(width=96, height=80) | options
    with pytest.raises(error, match=message):
        ksr.SuperResolver(arguments.pop("width"), arguments.pop("height"), **arguments)


def test_resolvers_on_two_threads_give_the_serial_results(small_burst):
    for engine in ("float", "phase"):
        assert (ksr.super_resolve(small_burst, engine=engine, threads=3).image.tobytes()
                == ksr.super_resolve(small_burst, engine=engine).image.tobytes())
    bursts = [small_burst, small_burst[::-1].copy()]
    expected = [ksr.super_resolve(burst).image for burst in bursts]
    results = [None, None]

    def run(index):
        results[index] = ksr.super_resolve(bursts[index]).image

    threads = [threading.Thread(target=run, args=(index,)) for index in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert all(np.array_equal(result, wanted) for result, wanted in zip(results, expected))

    # One resolver shared by threads serialises their calls instead of crashing.
    shared = ksr.SuperResolver(96, 80)
    threads = [threading.Thread(target=lambda: [shared.add(frame) for frame in small_burst])
               for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert shared.frames_added == 14 and shared.result.shape == (160, 192)


def test_a_pass_lets_other_python_threads_run(real_burst):
    # While one thread is inside a pass, this thread keeps running Python: the longest pause it
    # sees during the pass is short next to the pass, which it could not be if the pass held the
    # interpreter lock.
    resolver = ksr.SuperResolver(640, 512)
    for frame in real_burst[:4]:
        resolver.add(frame)
    window = []

    def last_frame():
        window.append(time.perf_counter())
        resolver.add(real_burst[4])
        window.append(time.perf_counter())

    ticks = []
    thread = threading.Thread(target=last_frame)
    thread.start()
    while thread.is_alive():
        ticks.append(time.perf_counter())
    enter, leave = window
    inside = [enter] + [tick for tick in ticks if enter < tick < leave] + [leave]
    assert max(np.diff(inside)) < 0.5 * (leave - enter)


def blurred_still_burst(sigma, noise=0.5, seed=1):
    """Five 160x128 frames of a real still blurred by a Gaussian of `sigma` high-resolution
    pixels (integrated over each pixel, two taps either side of the sample), moved by whole
    high-resolution pixels, decimated by two and made noisy: a burst with a known sensor blur."""
    scene = ksr.read_frame(os.path.join(DATA, "hit-uav", "hr_stills", "0_120_40_0_05370.jpg"))
    edges = np.arange(-2.0, 3.0) / (math.sqrt(2.0) * sigma)
    taps = np.diff([math.erf(edge) for edge in edges])
    taps /= taps.sum()
    blurred = np.apply_along_axis(np.convolve, 1, scene.astype(float), taps, "same")
    blurred = np.apply_along_axis(np.convolve, 0, blurred, taps, "same")
    rng = np.random.default_rng(seed)
    return np.stack([blurred[128 + dy:384 + dy:2, 160 + dx:480 + dx:2]
                     + rng.normal(0.0, noise, (128, 160))
                     for dx, dy in [(0, 0), (1, 0), (0, 1), (1, 1), (3, 2)]]).astype(np.float32)


@pytest.mark.parametrize("sigma", [1.1, 1.7])
def test_auto_psf_sigma_is_estimated_once_from_the_first_window(sigma):
    burst = blurred_still_burst(sigma)
    resolver = ksr.SuperResolver(160, 128, psf_sigma="auto")
    for frame in burst[:4]:
        resolver.add(frame)
    assert resolver.psf_sigma is None and not resolver.psf_sigma_estimated
    resolver.add(burst[4])
    estimate = resolver.psf_sigma
    assert resolver.psf_sigma_estimated and abs(estimate - sigma) <= 0.2 * sigma
    assert resolver.result.tobytes() == ksr.super_resolve(burst, psf_sigma=estimate).image.tobytes()
    # Later windows keep it, whatever they show.
    resolver.add(burst[0])
    assert resolver.psf_sigma == estimate
    assert ksr.super_resolve(burst, psf_sigma="auto").psf_sigma == estimate
    # Frames loaded without a pass give the same estimate, for the passes after them.
    loaded = ksr.SuperResolver(160, 128, psf_sigma="auto")
    for frame in burst:
        loaded.load(frame)
    assert loaded.psf_sigma == estimate


def test_auto_psf_sigma_says_why_the_frames_give_none(small_burst):
    # Crops of real frames, JPEG-compressed: their fine detail drowns in their disagreement.
    with pytest.warns(RuntimeWarning, match=r"^psf_sigma='auto': The frames agree on detail only up "
                      r"to 0\.\d+ cycles per result pixel \(0\.18 needed\), too little to estimate "
                      r"the PSF sigma: finer detail is weaker than their disagreement of about "
                      r"\d(\.\d)? \(root mean square, frame units\), from noise, compression or "
                      r"motion the shifts do not describe\. The passes keep the sensor blur "
                      r"0\.65\.$") as caught:
        results = list(ksr.sequence(small_burst, psf_sigma="auto", camera="625 FOV 22"))
    assert len(caught) == 1 and all(result.psf_sigma == np.float32(0.65) for result in results)
    assert results[-1].image.tobytes() == ksr.super_resolve(small_burst, camera="625 FOV 22").image.tobytes()
