/* SPDX-License-Identifier: Apache-2.0 */
/* The whole calling order of the C interface, from a C program, on a synthetic burst: a smooth
   scene with a few warm spots, seen five times by a camera that moves by fractions of a pixel.
   Then the same burst as a camera delivers it: 14-bit counts with dead and hot pixels, through
   the extension functions. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "interface/SuperResolutionExtensions.h"
#include "interface/SuperResolutionInterface.h"

enum { WIDTH = 64, HEIGHT = 48, FRAMES = 6 };

static const float cameraShifts[FRAMES][2] = {{0.0f, 0.0f},   {0.5f, 0.25f},   {-0.25f, 0.5f},
                                              {0.75f, -0.5f}, {-0.5f, -0.75f}, {0.25f, 0.75f}};

static float scene(float x, float y) {
    static const float spots[4][2] = {
        {15.0f, 12.0f}, {44.0f, 16.0f}, {22.0f, 34.0f}, {50.0f, 38.0f}};
    float value = 300.0f + 40.0f * sinf(0.45f * x + 0.2f * y) * cosf(0.35f * y - 0.15f * x);
    int spot;
    for (spot = 0; spot < 4; ++spot) {
        const float dx = x - spots[spot][0];
        const float dy = y - spots[spot][1];
        value += 60.0f * expf(-(dx * dx + dy * dy) / 12.5f);
    }
    return value;
}

static void renderFrame(int index, float* frame) {
    int row, column;
    for (row = 0; row < HEIGHT; ++row) {
        for (column = 0; column < WIDTH; ++column) {
            frame[row * WIDTH + column] =
                scene(column - cameraShifts[index][0], row - cameraShifts[index][1]);
        }
    }
}

static int failures = 0;

static void expectStatus(const char* call, int status, int expected) {
    if (status != expected) {
        char message[128] = {0};
        SuperResolution_getErrorMessage(message, (int)sizeof message - 1);
        fprintf(stderr, "FAILED: %s returned %d, expected %d (last message \"%s\")\n", call, status,
                expected, message);
        ++failures;
    }
}

/* Counts of a 14-bit sensor: 20 counts per kelvin around 8000. */
static float toCounts(float kelvin) {
    return floorf(8000.0f + 20.0f * (kelvin - 330.0f) + 0.5f);
}

enum { DEFECTS = 7 };
/* Lone defects, a pair and a 2 x 2 cluster; even entries are dead (0), odd ones hot (16383). */
static const int defects[DEFECTS][2] = {{10, 10}, {40, 8},  {25, 30}, {26, 30},
                                        {50, 20}, {51, 20}, {50, 21}};

/* Largest distance of the result from the scene's local range around each defect, in counts:
   a defect spread into the result as a blob shows as thousands of counts. */
static float worstDefectExcursion(const float* output) {
    float worst = 0.0f;
    int defect, dx, dy;
    for (defect = 0; defect < DEFECTS; ++defect) {
        float low = 1e9f, high = -1e9f;
        for (dy = -4; dy <= 4; ++dy) {
            for (dx = -4; dx <= 4; ++dx) {
                const float truth =
                    toCounts(scene(defects[defect][0] + 0.5f * dx - cameraShifts[1][0],
                                   defects[defect][1] + 0.5f * dy - cameraShifts[1][1]));
                low = truth < low ? truth : low;
                high = truth > high ? truth : high;
            }
        }
        for (dy = -4; dy <= 4; ++dy) {
            for (dx = -4; dx <= 4; ++dx) {
                const float value =
                    output[(2 * defects[defect][1] + dy) * 2 * WIDTH + 2 * defects[defect][0] + dx];
                const float excursion = value < low    ? low - value
                                        : value > high ? value - high
                                                       : 0.0f;
                worst = excursion > worst ? excursion : worst;
            }
        }
    }
    return worst;
}

/* Runs the raw burst without defects (0), with defects the library is told of (1), or with
   defects it is not told of (2), and returns the worst excursion around the defects. */
static float rawBurst(int defectsPlanted) {
    static float frame[WIDTH * HEIGHT];
    static float output[4 * WIDTH * HEIGHT];
    int positions[2 * DEFECTS];
    int index, pixel, defect, status = 1, frameCount = 0, reference = -1;
    float factor = 0.0f;
    const int handle = SuperResolution_init(WIDTH, HEIGHT);

    expectStatus("SuperResolution_setFrameValues",
                 SuperResolution_setFrameValues(handle, SR_VALUES_COUNTS), SR_OK);
    expectStatus("SuperResolution_setTimingLines",
                 SuperResolution_setTimingLines(handle, SR_TIMING_NONE, NULL, NULL), SR_OK);
    for (defect = 0; defect < DEFECTS; ++defect) {
        positions[2 * defect] = defects[defect][0];
        positions[2 * defect + 1] = defects[defect][1];
    }
    if (defectsPlanted == 1) {
        expectStatus("SuperResolution_setDefectivePixels",
                     SuperResolution_setDefectivePixels(handle, positions, DEFECTS), SR_OK);
    }
    for (index = 0; index < 5; ++index) {
        renderFrame(index, frame);
        for (pixel = 0; pixel < WIDTH * HEIGHT; ++pixel) {
            frame[pixel] = toCounts(frame[pixel]);
        }
        for (defect = 0; defect < DEFECTS && defectsPlanted; ++defect) {
            frame[defects[defect][1] * WIDTH + defects[defect][0]] = defect % 2 ? 16383.0f : 0.0f;
        }
        expectStatus("SuperResolution_addImage (counts)", SuperResolution_addImage(handle, frame),
                     SR_OK);
    }
    expectStatus("SuperResolution_getLastPass",
                 SuperResolution_getLastPass(handle, &status, &factor, &frameCount, &reference),
                 SR_OK);
    if (status != 0 || frameCount != 5 || reference != 1 || !(factor > 1.5f)) {
        fprintf(stderr, "FAILED: last pass status %d, factor %g, %d frames, reference %d\n", status,
                factor, frameCount, reference);
        ++failures;
    }
    expectStatus("SuperResolution_getSuperresolutionImage (counts)",
                 SuperResolution_getSuperresolutionImage(handle, output), SR_OK);
    SuperResolution_release(handle);
    return worstDefectExcursion(output);
}

int main(void) {
    static float frame[WIDTH * HEIGHT];
    static float output[4 * WIDTH * HEIGHT];
    int outputWidth = 0, outputHeight = 0, index, pixel;
    double inputSum = 0.0, outputSum = 0.0;
    char message[64];

    const int handle = SuperResolution_init(WIDTH, HEIGHT);
    if (handle < 0) {
        fprintf(stderr, "FAILED: SuperResolution_init returned %d\n", handle);
        return 1;
    }
    expectStatus("SuperResolution_setCameraAndLensType",
                 SuperResolution_setCameraAndLensType(handle, "625 FOV 25"), SR_OK);
    expectStatus("SuperResolution_setReferenceFrame", SuperResolution_setReferenceFrame(handle, 3),
                 SR_OK);
    for (index = 0; index < FRAMES; ++index) {
        renderFrame(index, frame);
        for (pixel = 0; pixel < WIDTH * HEIGHT; ++pixel) {
            inputSum += frame[pixel];
        }
        expectStatus("SuperResolution_addImage", SuperResolution_addImage(handle, frame), SR_OK);
    }
    expectStatus("SuperResolution_queryOutputImageSize",
                 SuperResolution_queryOutputImageSize(handle, &outputWidth, &outputHeight), SR_OK);
    if (outputWidth != 2 * WIDTH || outputHeight != 2 * HEIGHT) {
        fprintf(stderr, "FAILED: output size %d x %d\n", outputWidth, outputHeight);
        ++failures;
    }
    expectStatus("SuperResolution_getSuperresolutionImage",
                 SuperResolution_getSuperresolutionImage(handle, output), SR_OK);
    for (pixel = 0; pixel < 4 * WIDTH * HEIGHT; ++pixel) {
        if (!(output[pixel] > 250.0f && output[pixel] < 450.0f)) {
            fprintf(stderr, "FAILED: output pixel %d is %g\n", pixel, output[pixel]);
            ++failures;
            break;
        }
        outputSum += output[pixel];
    }
    /* The result keeps the scene's mean level. */
    if (fabs(outputSum / 4.0 - inputSum / FRAMES) > 0.02 * inputSum / FRAMES) {
        fprintf(stderr, "FAILED: output mean %g, input mean %g\n", outputSum / (4 * WIDTH * HEIGHT),
                inputSum / (FRAMES * WIDTH * HEIGHT));
        ++failures;
    }

    expectStatus("SuperResolution_release", SuperResolution_release(handle), SR_OK);
    expectStatus("SuperResolution_addImage after release", SuperResolution_addImage(handle, frame),
                 SR_ERROR);
    memset(message, 0, sizeof message);
    SuperResolution_getErrorMessage(message, (int)sizeof message - 1);
    if (strcmp(message, "Context invalid.") != 0) {
        fprintf(stderr, "FAILED: message \"%s\"\n", message);
        ++failures;
    }

    {
        /* Told of them, the library repairs the defects so that the result around them is as
           good as without them (within a kelvin); untold, dead and hot pixels are valid counts that
           leave blobs. */
        const float clean = rawBurst(0);
        const float repaired = rawBurst(1);
        const float unrepaired = rawBurst(2);
        if (!(repaired < clean + 20.0f) || !(unrepaired > 1000.0f)) {
            fprintf(stderr, "FAILED: defects leave %g counts (%g without defects, %g untold)\n",
                    repaired, clean, unrepaired);
            ++failures;
        }
    }

    if (failures == 0) {
        printf("c_api_test: every check passed\n");
    }
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
