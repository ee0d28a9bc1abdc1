/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A camera host in plain C: five frames of a warm scene, each seen by a camera that moved a
 * fraction of a pixel, go in one by one; one image twice as wide and twice as high comes out.
 * Every call is checked, and a failure prints the library's own message.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "interface/SuperResolutionInterface.h"

enum { kWidth = 80, kHeight = 64, kFrames = 5 };

/* Temperatures in degrees Celsius of a scene with a few warm blobs, sampled with the camera
   displaced by (dx, dy) pixels. */
static void renderFrame(float* frame, float dx, float dy) {
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const float u = (float)x + dx, v = (float)y + dy;
            frame[y * kWidth + x] =
                20.0f + 15.0f * expf(-((u - 25) * (u - 25) + (v - 20) * (v - 20)) / 60.0f) +
                10.0f * expf(-((u - 55) * (u - 55) + (v - 42) * (v - 42)) / 25.0f) +
                3.0f * sinf(u * 0.3f) * cosf(v * 0.2f);
        }
    }
}

static int fail(const char* call, int status) {
    char message[256] = {0};
    SuperResolution_getErrorMessage(message, (int)sizeof message - 1);
    fprintf(stderr, "%s returned %d: %s\n", call, status, message);
    return 1;
}

int main(void) {
    static const float shifts[kFrames][2] = {
        {0.0f, 0.0f}, {0.5f, 0.25f}, {-0.25f, 0.5f}, {0.75f, -0.5f}, {-0.5f, -0.25f}};
    float* frame = malloc(sizeof(float) * kWidth * kHeight);
    const int handle = SuperResolution_init(kWidth, kHeight);
    if (frame == NULL || handle < 0) {
        return fail("SuperResolution_init", handle);
    }
    for (int i = 0; i < kFrames; ++i) {
        renderFrame(frame, shifts[i][0], shifts[i][1]);
        const int status = SuperResolution_addImage(handle, frame);
        if (status != SR_OK) {
            return fail("SuperResolution_addImage", status);
        }
    }
    int width = 0, height = 0;
    int status = SuperResolution_queryOutputImageSize(handle, &width, &height);
    if (status != SR_OK) {
        return fail("SuperResolution_queryOutputImageSize", status);
    }
    float* result = malloc(sizeof(float) * (size_t)width * (size_t)height);
    status = result != NULL ? SuperResolution_getSuperresolutionImage(handle, result) : SR_ERROR;
    if (status != SR_OK) {
        return fail("SuperResolution_getSuperresolutionImage", status);
    }
    float low = result[0], high = result[0];
    for (int p = 1; p < width * height; ++p) {
        low = result[p] < low ? result[p] : low;
        high = result[p] > high ? result[p] : high;
    }
    printf("c-host: %d frames of %dx%d -> %dx%d, %.1f .. %.1f degrees C\n", kFrames, kWidth,
           kHeight, width, height, low, high);
    SuperResolution_release(handle);
    free(result);
    free(frame);
    return 0;
}
