// SPDX-License-Identifier: Apache-2.0

// klogd: keeps a copy of the kernel's log in the store of the kernel buffer, for readers that the
// kernel does not admit to the log itself. Ends at once where it is not admitted either, which is
// no error: without the machine's root that is the rule.
#define LOG_TAG "klogd"

#include <android-base/logging.h>
#include <fcntl.h>
#include <poll.h>

#include <exception>

#include "host/log/kernel.h"
#include "host/log/store.h"

int main() {
    android::base::unique_fd kmsg(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (kmsg < 0) {
        PLOG(INFO) << "kernel.log stays empty: cannot open /dev/kmsg";
        return 0;
    }
    pollfd more{kmsg.get(), POLLIN, 0};
    try {
        kernel_reader reader(std::move(kmsg));
        while (poll(&more, 1, -1) >= 0 || errno == EINTR) {
            for (; const AndroidLogEntry* entry = reader.peek(); reader.pop()) {
                append_log_entry(LOG_ID_KERNEL, *entry);  // a full disk: the line is lost, as ever
            }
        }
        PLOG(ERROR) << "poll";
    } catch (const std::exception& error) {
        LOG(ERROR) << error.what();
    }
    return 1;
}
