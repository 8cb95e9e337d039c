// SPDX-License-Identifier: Apache-2.0

// Stand-in for logcat in the figure `switch`: writes its pid to the named pipe /data/started, then
// waits for a signal. Linked statically, so that its start costs as little as possible.

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
