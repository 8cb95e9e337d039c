// SPDX-License-Identifier: Apache-2.0

// waitprop NAME VALUE SECONDS: waits until a property has a value; exit status 1 when it has not
// got it in time.
#include <android-base/properties.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char* argv[]) {
    const int seconds = argc == 4 ? atoi(argv[3]) : 0;
    if (seconds <= 0) {
        fputs("usage: waitprop NAME VALUE SECONDS\n", stderr);
        return 1;
    }
    return android::base::WaitForProperty(argv[1], argv[2], std::chrono::seconds(seconds)) ? 0 : 1;
}
