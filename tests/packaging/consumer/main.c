#include <stdio.h>
#include <string.h>

#include "interface/SuperResolutionInterface.h"

int main(void) {
    char message[64] = {0};
    const int handle = SuperResolution_init(32, 24);
    if (handle < 0) {
        fprintf(stderr, "SuperResolution_init failed: %d\n", handle);
        return 1;
    }
    if (SuperResolution_release(handle) != SR_OK || SuperResolution_release(handle) != SR_ERROR) {
        fprintf(stderr, "SuperResolution_release did not free the context once\n");
        return 1;
    }
    SuperResolution_getErrorMessage(message, (int)sizeof message - 1);
    if (strcmp(message, "Context invalid.") != 0) {
        fprintf(stderr, "unexpected message \"%s\"\n", message);
        return 1;
    }
    printf("consumer: context %d opened and released\n", handle);
    return 0;
}
