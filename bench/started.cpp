// SPDX-License-Identifier: Apache-2.0

// Stands where logcat does when only its start matters: says its pid, then waits to be ended.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

int main() {
    const int fd = open("/data/started", O_WRONLY | O_CLOEXEC);
    if (fd < 0 || dprintf(fd, "%d\n", getpid()) < 0) {
        return 1;
    }
    while (true) {
        pause();
    }
}
