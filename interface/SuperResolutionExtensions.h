/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Extensions of the plain-function interface (SuperResolutionInterface.h): what the frames hold,
 * known defective pixels, the details of the last pass, the sensor blur as a number, a reference
 * frame setter that cannot throw, where the timing lines go, and the library's version.
 *
 * Conventions, the same for every function declared here:
 * - The return value is a status: SR_OK (0) on success, a negative code otherwise; after a
 *   negative code, SuperResolution_getErrorMessage gives the reason.
 * - Invalid handles, null pointers and out-of-range values return SR_ERROR (-999) and change
 *   nothing; output parameters are written only on success.
 * - No C++ exception ever leaves these functions.
 * - Settings belong to one context and last until it is released; SuperResolution_init starts
 *   every context with the defaults named below.
 */
#ifndef KELVO_INTERFACE_SUPERRESOLUTIONEXTENSIONS_H
#define KELVO_INTERFACE_SUPERRESOLUTIONEXTENSIONS_H

#include "interface/SuperResolutionInterface.h"

#define KELVO_SUPERRES_VERSION_MAJOR 0
#define KELVO_SUPERRES_VERSION_MINOR 1
#define KELVO_SUPERRES_VERSION_PATCH 0
#define KELVO_SUPERRES_VERSION_TEXT "0.1.0"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Version ---------------------------------------------------------------------------- */

/* The version of the loaded library, which may differ from the macros above that a host was
   compiled with. */
int SuperResolution_getVersion(int* major, int* minor, int* patch);

/* The version of the loaded library as text ("0.1.0"), always terminated. A buffer too small for
   the text receives nothing and gives SR_ERROR. */
int SuperResolution_getVersionText(char* buffer, int size);

/* ---- What the frames hold --------------------------------------------------------------- */

/* A pixel whose value lies outside the valid range counts as defective and is repaired from its
   neighbours. */
enum SuperResolutionFrameValues {
    /* Temperatures; valid range -274 .. 5000 (the default). */
    SR_VALUES_TEMPERATURE = 0,
    /* Raw sensor counts; valid range -32768 .. 32767. Unsigned 16-bit counts above 32767 need
       SuperResolution_setValidRange(handle, 0, 65535). */
    SR_VALUES_COUNTS = 1
};

/* Chooses what the frames hold, and with it the valid range. */
int SuperResolution_setFrameValues(int handle, int values);

/* Sets the valid range explicitly: both ends finite, minimum below maximum. */
int SuperResolution_setValidRange(int handle, float minimum, float maximum);

int SuperResolution_getValidRange(int handle, float* minimum, float* maximum);

/* ---- Frames without a pass ------------------------------------------------------------- */

/* Takes a frame into the context's window like SuperResolution_addImage, with the same checks,
   repairs and codes, but runs no pass. How a frame registers depends on the frames the context
   took before it, so a host that wants the results of only some windows of a stream, or splits
   a stream among contexts, loads the other frames with this and gets for each window the result
   to the bit that a context given every frame with SuperResolution_addImage gives. */
int SuperResolution_loadImage(int handle, const float* image);

/* ---- Known defective pixels ------------------------------------------------------------- */

/* Names the sensor's known defective pixels: count (x, y) pairs, x0, y0, x1, y1, ..., each inside
   the frame, at most as many as the frame has pixels. From the next frame on, every frame handed to
   SuperResolution_addImage is repaired at these pixels from their neighbours (the host's buffer is
   not changed), and the result pixels they influence are refilled from the other frames. A defect
   without enough good neighbours (inside a cluster of defects) takes the frame's lowest valid value
   instead; that does not make SuperResolution_addImage report SR_BAD_PIXELS. A count of 0 forgets
   the list (positions may then be NULL). A rejected list leaves the previous one in place. */
int SuperResolution_setDefectivePixels(int handle, const int* positions, int count);

int SuperResolution_getDefectivePixelCount(int handle, int* count);

/* ---- The last pass ---------------------------------------------------------------------- */

/* The engine's own findings of the last pass, which SuperResolution_addImage folds into its
   status codes. Before the first pass of a context these functions return SR_ERROR. */

/* status: 0 when the pass succeeded; -3 when a frame's mask was at least half empty; -6 when a
   frame's displacement exceeded a tenth of the frame height (results of -3 and -6 are written
   and usable); -998 when registration failed (the previous result stays in place); -999 when the
   pass failed with an error, whose message SuperResolution_addImage set.
   factorEstimate: the super-resolution factor estimate, 0.75 .. 2 (0 when the pass stopped before
   it was computed). frameCount: the frames the pass used (window positions 0 .. frameCount - 1,
   oldest first). referencePosition: the window position of the reference frame. */
int SuperResolution_getLastPass(int handle, int* status, float* factorEstimate, int* frameCount,
                                int* referencePosition);

/* For window position `frame` of the last pass: its complete displacement (shiftX, shiftY) in
   input pixels, such that frame(p + shift) matches reference(p), and the fraction of its pixels
   that the mask lets the reconstruction use (0 .. 1). */
int SuperResolution_getLastPassFrame(int handle, int frame, float* shiftX, float* shiftY,
                                     float* validFraction);

/* ---- Sensor blur and reference frame ------------------------------------------------------ */

/* The standard deviation of the sensor's point-spread function in input pixels, besides the
   camera and lens text: finite and positive. */
int SuperResolution_setPsfSigma(int handle, float sigma);

int SuperResolution_getPsfSigma(int handle, float* sigma);

/* Like SuperResolution_setReferenceFrame, but an index outside 0 .. 4 returns SR_ERROR with the
   message "Invalid reference index specified." instead of throwing. */
int SuperResolution_setReferenceFrameChecked(int handle, int index);

int SuperResolution_getReferenceFrame(int handle, int* index);

/* ---- Timing lines ----------------------------------------------------------------------- */

/* Each pass reports the duration of its stages in a few lines of text. */
enum SuperResolutionTimingLines {
    /* Printed to standard output (the default). */
    SR_TIMING_STANDARD_OUTPUT = 0,
    /* Dropped. */
    SR_TIMING_NONE = 1,
    /* Handed to a callback, one line at a time. */
    SR_TIMING_CALLBACK = 2
};

/* Receives one timing line without its line end, and the host's pointer given with it. The line
   is valid during the call only. */
typedef void (*SuperResolutionLineCallback)(const char* line, void* user);

/* Chooses where the context's timing lines go. The callback is required for SR_TIMING_CALLBACK
   and must be NULL otherwise; it runs on the thread that adds the frames. */
int SuperResolution_setTimingLines(int handle, int destination,
                                   SuperResolutionLineCallback callback, void* user);

/* ---- Threads ---------------------------------------------------------------------------- */

/* Different contexts may be used on different threads at the same time: opening, looking up and
   releasing contexts and the stored message are guarded inside the library, and each context
   computes on the thread that calls it. The calls on one context must not overlap, and a context
   must not be released while another thread still uses it. The stored message is the last
   failure of any thread. */

/* The number of threads, 1 .. 64, that share each pass of the context (OpenCV's parallel_for_;
   OpenCV's own functions follow cv::setNumThreads). 1, the default, computes the whole pass on
   the thread that adds the frame. The result is the same to the bit for any count. */
int SuperResolution_setThreads(int handle, int threads);

int SuperResolution_getThreads(int handle, int* threads);

/* ---- Sized copies ----------------------------------------------------------------------- */

/* Like SuperResolution_getSuperresolutionImage, for a buffer of `capacity` floats: one too small
   for the (2 * width) * (2 * height) floats of the result receives nothing and gives SR_ERROR
   with the message "Buffer too small: N floats needed.". Otherwise the same codes,
   SR_TOO_FEW_IMAGES included. */
int SuperResolution_getSuperresolutionImageSized(int handle, float* output, int capacity);

/* Like SuperResolution_getErrorMessage, but the text always ends with its terminator within the
   `size` bytes of the buffer, cut to size - 1 characters if need be. A null buffer or a size below
   1 gives SR_ERROR and leaves the stored message as it was. */
int SuperResolution_getErrorMessageSized(char* buffer, int size);

/* ---- Sensor blur estimate --------------------------------------------------------------- */

/* Estimates the sensor blur from the frames the context holds (at least four, at distinct
   sub-pixel shifts, registered against the context's reference frame) and writes it to *sigma in
   the units of SuperResolution_setPsfSigma, without setting it. The scene is taken to be as sharp
   as real thermal scenes are, so a scene that is blurred itself (defocus, fog) reads as more
   sensor blur. Costs one registration of the frames and about 0.1 s besides, whatever the frame
   size; for a sequence, estimate once and set the value for every window. Fails with SR_ERROR
   and a message saying why when fewer than four frames are held, when they do not register,
   when a frame correlates poorly with the reference (another place, too little structure), or
   when they agree on too little fine detail (compressed frames, moving objects). */
int SuperResolution_estimatePsfSigma(int handle, float* sigma);

#ifdef __cplusplus
}
#endif

#endif
