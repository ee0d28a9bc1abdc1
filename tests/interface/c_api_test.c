/* The whole calling order of the C interface, from a C program, on a synthetic burst: a smooth
   scene with a few warm spots, seen five times by a camera that moves by fractions of a pixel. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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

    if (failures == 0) {
        printf("c_api_test: every check passed\n");
    }
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
