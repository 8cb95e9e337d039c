// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_EVENT_LOG"

#include "event/history.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "utils/directories.h"
#include "utils/property_value.h"

using namespace brevix;

namespace {

using android::base::unique_fd;

constexpr const char* kHistoryFile = "/data/logs/history.event";

struct {
    std::string board;
    std::string sw_version;
    std::string fingerprint;
    std::string verified_boot_state;
    std::string debuggable;
} device_info;

unique_fd open_for_appending(const char* path, int flags = 0) {
    flags |= O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    return unique_fd(TEMP_FAILURE_RETRY(open(path, flags, 0664)));
}

// Frozen: the app reads these lines in this order.
void write_report(const std::string& path, const char* event, const std::string& date,
                  const char* type, const char* name) {
    const unique_fd fd = open_for_appending(path.c_str());
    if (fd < 0) {
        LOG(ERROR) << "open to write eventfile failed " << path;
        return;
    }
    const struct {
        const char* key;
        const std::string& value;
    } lines[] = {
        {"EVENT", event},
        {"DATE", date},
        {"BOARD", device_info.board},
        {"SWVersion", device_info.sw_version},
        {"FINGERPRINT", device_info.fingerprint},
        {"VERIFIED_BOOT_STATE", device_info.verified_boot_state},
        {"DEBUGGABLE", device_info.debuggable},
        {"TYPE", type},
    };
    std::string text;
    for (const auto& line : lines) {
        text.append(line.key).append("=").append(line.value).append("\n");
    }
    if (name[0] != '\0') {
        text.append("NAME=").append(name).append("\n");
    }
    text.append("_END\n");
    android::base::WriteStringToFd(text, fd);
}

}  // namespace

void brevix::read_device_info() {
    device_info = {
        .board = property_value("ro.product.name", ""),
        .sw_version = property_value("ro.build.display.id", ""),
        .fingerprint = property_value("ro.build.fingerprint", ""),
        .verified_boot_state = property_value("ro.boot.verifiedbootstate", ""),
        .debuggable = property_value("ro.debuggable", ""),
    };
}

void write_history_event(const char* event, const char* type, const char* dir, const char* name,
                         const tm& time) {
    // A FIFO in its place must not hold up the watcher: without a reader its open fails.
    const unique_fd fd = open_for_appending(kHistoryFile, O_NONBLOCK);
    if (fd < 0) {
        LOG(ERROR) << "open to write history event failed " << kHistoryFile;
        return;
    }
    const std::string date = format_time("%Y-%m-%d/%H:%M:%S", time);
    // Frozen: the app reads these columns.
    std::string line;
    if (dir == nullptr) {
        line = cut_format(kMaxPathBytes, "%-8s%-20s%-16s\n", event, date.c_str(), type);
    } else {
        line = cut_format(kMaxPathBytes, "%-8s%-20s%s %s\n", event, date.c_str(), type, dir);
        write_report(cut_format(kMaxPathBytes, "%s/%s", dir, "eventfile"), event, date, type, name);
    }
    // Last: a reader that sees the line finds the report complete.
    android::base::WriteStringToFd(line, fd);
}
