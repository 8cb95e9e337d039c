// SPDX-License-Identifier: Apache-2.0

// setprop NAME VALUE: sets a property; an empty VALUE unsets it.
#include <cutils/properties.h>
#include <err.h>

int main(int argc, char* argv[]) {
    if (argc != 3) {
        errx(1, "usage: setprop NAME VALUE");
    }
    if (property_set(argv[1], argv[2]) < 0) {
        errx(1, "failed to set property '%s' to '%s'", argv[1], argv[2]);
    }
    return 0;
}
