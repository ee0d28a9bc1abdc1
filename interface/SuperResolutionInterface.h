/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The plain-function interface of kelvo-superres: a burst of low-resolution thermal frames in,
 * one image twice as wide and twice as high out.
 *
 * A context is named by an integer handle. Calling order for a host:
 *
 *   handle = SuperResolution_init(width, height);
 *   SuperResolution_setCameraAndLensType(handle, "... 625 ... FOV 25");   optional
 *   SuperResolution_setReferenceFrame(handle, 3);                           optional
 *   SuperResolution_addImage(handle, frame);          at least five times; from the fifth call
 *                                                     on, every call recomputes the result from
 *                                                     the five most recent frames
 *   SuperResolution_queryOutputImageSize(handle, &outputWidth, &outputHeight);
 *   SuperResolution_getSuperresolutionImage(handle, output);
 *   SuperResolution_getErrorMessage(text, sizeof text);     after any negative code
 *   SuperResolution_release(handle);
 *
 * Frames are `height` rows of `width` 32-bit floats, row-major, without padding; the output holds
 * (2 * width) * (2 * height) floats. Every function returns one of the codes below (init returns
 * the handle, or SR_INIT_FAILED). The message of the last failure is shared by all contexts and
 * stays until the next failure.
 *
 * Threads: different contexts may be used on different threads at the same time (each context
 * computes on the thread that calls it; opening, looking up and releasing contexts and the stored
 * message are guarded inside the library). The calls on one context must not overlap: a host
 * serialises them, and must not release a context while another thread still uses it. The stored
 * message is the last failure of any thread.
 *
 * The reference index given to SuperResolution_setReferenceFrame counts back from the newest frame and must lie in 0..4: an
 * index outside raises a C++ exception of type const char* ("Invalid reference index
 * specified."), which a C host cannot catch.
 */
#ifndef KELVO_INTERFACE_SUPERRESOLUTIONINTERFACE_H
#define KELVO_INTERFACE_SUPERRESOLUTIONINTERFACE_H

#ifdef __cplusplus
extern "C" {
#endif

enum SuperResolutionStatus {
    SR_OK = 0,
    /* SuperResolution_init could not create the engine. */
    SR_INIT_FAILED = -1,
    /* A defective pixel of the frame could not be repaired from its neighbours. */
    SR_BAD_PIXELS = -2,
    /* At least half of some frame could not be matched to the reference frame. */
    SR_MASK_HALF_EMPTY = -3,
    /* The frame has too little contrast ("  image has not enough structure"); it was added. */
    SR_LOW_STRUCTURE = -4,
    /* Fewer than five frames have been added; the result is computed from those held. */
    SR_TOO_FEW_IMAGES = -5,
    /* Invalid handle, unknown frame size, null pointer, or a failure inside the engine. */
    SR_ERROR = -999
};

/* Opens a context for frames of width x height pixels and returns its handle (the lowest free
   one), or SR_INIT_FAILED. */
int SuperResolution_init(int width, int height);

/* Adds one frame; from the fifth frame on also recomputes the result. */
int SuperResolution_addImage(int handle, const float* image);

/* Chooses the reference frame, counted back from the newest (0 = newest, default 3). */
int SuperResolution_setReferenceFrame(int handle, int index);

/* Sets the sensor blur from a camera and lens description holding a model number and the field
   of view after "FOV" (for example "625 FOV 25"); an unrecognised text sets the default. */
int SuperResolution_setCameraAndLensType(int handle, const char* cameraAndLensType);

/* Writes the result's width and height (twice the input's). With fewer than five frames added,
   first computes the result from the frames held and returns SR_TOO_FEW_IMAGES. */
int SuperResolution_queryOutputImageSize(int handle, int* width, int* height);

/* Copies the last computed result into output; never computes. */
int SuperResolution_getSuperresolutionImage(int handle, float* output);

/* Copies the last failure's message into buffer like strncpy: a message of size characters or
   more is not terminated. */
int SuperResolution_getErrorMessage(char* buffer, int size);

/* Closes the context; its handle is given to the next SuperResolution_init. */
int SuperResolution_release(int handle);

#ifdef __cplusplus
}
#endif

#endif
