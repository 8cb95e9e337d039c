// SPDX-License-Identifier: Apache-2.0

// waitprop NAME VALUE SECONDS: waits until a property has a value; exit status 1 when it does not
// get that value in time.
#include <android-base/properties.h>
#include <err.h>

#include <chrono>
#include <cstdlib>

int main(int argc, char* argv[]) {
    const int seconds = argc == 4 ? atoi(argv[3]) : 0;
    if (seconds <= 0) {
        errx(1, "usage: waitprop NAME VALUE SECONDS");
    }
    return android::base::WaitForProperty(argv[1], argv[2], std::chrono::seconds(seconds)) ? 0 : 1;
}
