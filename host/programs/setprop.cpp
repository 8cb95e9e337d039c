// SPDX-License-Identifier: Apache-2.0

// setprop NAME VALUE: sets a property; an empty VALUE unsets it.
#include <cutils/properties.h>

#include <cstdio>

int main(int argc, char* argv[]) {
    if (argc != 3) {
        fputs("usage: setprop NAME VALUE\n", stderr);
        return 1;
    }
    if (property_set(argv[1], argv[2]) < 0) {
        fprintf(stderr, "setprop: failed to set property '%s' to '%s'\n", argv[1], argv[2]);
        return 1;
    }
    return 0;
}
