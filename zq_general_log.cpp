// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_GENERAL_LOG"

#include "zq_general_log.h"

#include <android-base/logging.h>
#include <cutils/properties.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/children.h"
#include "utils/util.h"

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

struct property_value {
    char text[PROPERTY_VALUE_MAX] = {};

    property_value(const char* name, const char* fallback) { property_get(name, text, fallback); }
    bool is_on() const { return strcmp(text, "1") == 0; }
    // Keeps the greater number.
    void raise_to(const char* minimum) {
        if (atoi(minimum) > atoi(text)) {
            snprintf(text, sizeof(text), "%s", minimum);
        }
    }
};

pid_t start_channel(const log_settings& channel, const char* dir) {
    property_value count(channel.count_prop, channel.count_default);
    property_value rotate(channel.rotate_prop, channel.rotate_default);
    if (channel.dynamic && property_value("sys.brevix.dynamic.log", "0").is_on()) {
        count.raise_to(channel.dynamic_count);
        rotate.raise_to(channel.dynamic_rotate);
    }
    const std::string file = cut_format(kMaxPathBytes, "%s/%s.log", dir, channel.name);
    std::string command =
        cut_format(kMaxPathBytes, channel.command, file.c_str(), rotate.text, count.text);
    std::vector<char*> argv;
    ZQSplitByDelim(argv, command.data(), " ");
    argv.push_back(nullptr);
    const pid_t pid = start_kept_child(channel.name, argv.data());
    if (pid == 0) {
        _exit(127);
    }
    return pid;
}

// --- Switch --------------------------------------------------------------------------------------

const std::string kBase = "/data/logs/general_log/";
const std::string kPrefix = "ZQLog_";
constexpr uint64_t kNameFields = 3;

// Removes old captures by number and by total size, so that the capture `count` fits in.
bool prune(int count) {
    const int keep = std::stoi(property_value("persist.service.brevix.gl.num", "10").text);
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
    char dir[512] = {};
    if (ZQCreateDirByFormat(kBase, kPrefix, count, "%Y-%m-%d-%H-%M-%S", sizeof(dir), dir) != 0) {
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
        if (!property_value(channel.enable_prop, channel.enable_default).is_on()) {
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
