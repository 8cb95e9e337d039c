// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_GENERAL_LOG"

#include "zq_general_log.h"

#include <android-base/logging.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/children.h"
#include "utils/directories.h"
#include "utils/property_value.h"
#include "utils/retention.h"

using namespace brevix;

namespace {

// --- Channels ----------------------------------------------------------------------------------

struct log_settings {
    const char* name;         // also the base name of the file: NAME.log
    const char* enable_prop;  // on when exactly "1"
    const char* count_prop;   // rotated files
    const char* rotate_prop;  // rotation size in kilobytes
    const char* enable_default;
    const char* count_default;
    const char* rotate_default;
    bool dynamic = false;             // obeys "sys.brevix.dynamic.log"
    const char* dynamic_count = "";   // minimum of files while that is on
    const char* dynamic_rotate = "";  // minimum of kilobytes while that is on
    const char* command;              // file, kilobytes, count; ends in a blank
};

// "android" and "kernel" share a switch on purpose: they are read side by side.
// clang-format off
constexpr log_settings kChannels[] = {
    {.name = "android", .enable_prop = "persist.service.apklogfs.enable",
     .count_prop = "persist.sys.apklogfs.size", .rotate_prop = "persist.sys.apklogfs.rotate_kbytes",
     .enable_default = "1", .count_default = "5", .rotate_default = "20000",
     .dynamic = true, .dynamic_count = "30", .dynamic_rotate = "50000",
     .command = "/system/bin/logcat -b system -b main -b crash -v threadtime -f %s -r %s -n %s "},
    {.name = "event", .enable_prop = "persist.service.eventlogfs.enable",
     .count_prop = "persist.sys.eventlogfs.size", .rotate_prop = "persist.sys.eventlogfs.rotate_kbytes",
     .enable_default = "1", .count_default = "2", .rotate_default = "2000",
     .command = "/system/bin/logcat -b events -v threadtime -f %s -r %s -n %s "},
    {.name = "radio", .enable_prop = "persist.service.radiologfs.enable",
     .count_prop = "persist.sys.radiologfs.size", .rotate_prop = "persist.sys.radiologfs.rotate_kbytes",
     .enable_default = "1", .count_default = "2", .rotate_default = "6000",
     .command = "/system/bin/logcat -b radio -v threadtime -f %s -r %s -n %s "},
    {.name = "kernel", .enable_prop = "persist.service.apklogfs.enable",
     .count_prop = "persist.sys.kmsglogfs.size", .rotate_prop = "persist.sys.kmsglogfs.rotate_kbytes",
     .enable_default = "1", .count_default = "2", .rotate_default = "6000",
     .command = "/system/bin/logcat -b kernel -v threadtime -f %s -r %s -n %s "},
};
// clang-format on

bool is_on(const char* property, const char* fallback) {
    return property_value(property, fallback) == "1";
}

void raise_to(std::string& number, const char* minimum) {
    if (atoi(minimum) > atoi(number.c_str())) {
        number = minimum;
    }
}

pid_t start_channel(const log_settings& channel, const char* dir) {
    std::string count = property_value(channel.count_prop, channel.count_default);
    std::string rotate = property_value(channel.rotate_prop, channel.rotate_default);
    if (channel.dynamic && is_on("sys.brevix.dynamic.log", "0")) {
        raise_to(count, channel.dynamic_count);
        raise_to(rotate, channel.dynamic_rotate);
    }
    const std::string file = cut_format(kMaxPathBytes, "%s/%s.log", dir, channel.name);
    std::string command =
        cut_format(kMaxPathBytes, channel.command, file.c_str(), rotate.c_str(), count.c_str());
    std::vector<char*> argv;
    ZQSplitByDelim(argv, command.data(), " ");
    argv.push_back(nullptr);
    return start_kept_child(channel.name, argv.data());
}

// --- Switch --------------------------------------------------------------------------------------

const std::string kBase = "/data/logs/general_log/";
const std::string kPrefix = "ZQLog_";
constexpr uint64_t kNameFields = 3;

// Removes old captures by number and by total size, so that the capture `count` fits in.
bool prune(int count) {
    const int keep = std::stoi(property_value("persist.service.brevix.gl.num", "10"));
    if (ZQRemoveOldFile(kBase, kPrefix, kNameFields, int64_t{count} - keep + 1, true, false)) {
        LOG(ERROR) << "remove old file failed!";
        return false;
    }
    if (ZQRemoveFileWithCheckSize(kBase, count, kPrefix, kNameFields) != 0) {
        LOG(ERROR) << "remove file with check size failed!";
        return false;
    }
    return true;
}

void start_capturing() {
    LOG(INFO) << "start capturing";
    if (access("/data/logs/", R_OK) != 0) {
        LOG(ERROR) << "device mapper not exist! plz check dm & mount status!";
        return;
    }
    if (ZQCreateDir(kBase) != 0) {
        LOG(ERROR) << "create general dir failed!";
        return;
    }
    const int count = ZQGetNewLogCount(kBase, kPrefix, kNameFields);
    if (!prune(count)) {
        return;
    }
    char dir[kMaxPathBytes + 1] = {};
    if (ZQCreateDirByFormat(kBase, kPrefix, count, kFileTimeFormat, sizeof(dir), dir) != 0) {
        LOG(ERROR) << "create new general log dir failed!";
        return;
    }
    if (check_record_log(dir) != 0) {
        LOG(INFO) << "no task to do";
        ZQRemoveFile(dir);
    }
}

void stop_capturing() {
    LOG(INFO) << "stop capturing";
    signal_kept_children(SIGTERM);
}

}  // namespace

int check_record_log(const char* dir) {
    int result = 1;
    for (const log_settings& channel : kChannels) {
        if (!is_on(channel.enable_prop, channel.enable_default)) {
            LOG(INFO) << "record " << channel.name << " is not enabled";
            continue;
        }
        if (start_channel(channel, dir) > 0) {
            result = 0;
        }
    }
    return result;
}

void capturing(const char* /*name*/, bool on) {
    if (on) {
        start_capturing();
    } else {
        stop_capturing();
    }
}
