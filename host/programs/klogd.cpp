// SPDX-License-Identifier: Apache-2.0

// klogd: copies the kernel's log to the store of the kernel buffer, for readers without CAP_SYSLOG.
// Ends without an error when it may not read the kernel's log itself, the usual case on a machine
// where the device is not started by root.
#define LOG_TAG "klogd"

#include <android-base/logging.h>
#include <fcntl.h>

#include <exception>

#include "host/log/kernel.h"
#include "host/log/store.h"

int main() {
    android::base::unique_fd kmsg(open("/dev/kmsg", O_RDONLY | O_CLOEXEC));
    if (kmsg < 0) {
        PLOG(INFO) << "kernel.log stays empty: cannot open /dev/kmsg";
        return 0;
    }
    try {
        kernel_reader reader(std::move(kmsg));
        for (; const AndroidLogEntry* entry = reader.peek(); reader.pop()) {
            append_log_entry(LOG_ID_KERNEL, *entry);  // a line is lost while the disk is full
        }
        LOG(ERROR) << "/dev/kmsg has ended";
    } catch (const std::exception& error) {
        LOG(ERROR) << error.what();
    }
    return 1;
}
