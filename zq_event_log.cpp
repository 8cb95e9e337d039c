// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_EVENT_LOG"

#include "zq_event_log.h"

#include <android-base/logging.h>
#include <sys/stat.h>

#include <filesystem>

#include "utils/children.h"
#include "utils/directories.h"
#include "utils/property_value.h"
#include "utils/retention.h"
#include "utils/system_property_observer.h"

using namespace brevix;

namespace {

const char* reboot_type() {
    struct stat st {};
    if (stat("/proc/cmdline", &st) != 0) {
        return "";
    }
    const std::string panic_mode = property_value("ro.boot.panicmode", "0");
    LOG(INFO) << "panic mode: " << panic_mode;
    if (panic_mode == "1") {
        LOG(WARNING) << "reboot because of kernel panic !!!";
        return "KERNELPANIC ";  // the blank belongs to the type
    }
    LOG(INFO) << "reboot not because of kernel panic";
    return "UNKNOWN";
}

void save_console_log(const tm& local) {
    constexpr const char* kStaged = "/data/config/console-ramoops-0-tmp";
    const std::string destination = cut_format(kMaxPathBytes, "%sconsole-ramoops-0-%s", kBaseLogDir,
                                               format_time(kFileTimeFormat, local).c_str());
    try {
        ZQCopyFile(kStaged, destination.c_str());
        ZQRemoveFile(kStaged);
    } catch (const std::filesystem::filesystem_error& error) {
        LOG(ERROR) << "fail to copy pstore error: " << error.what();
    }
}

}  // namespace

void event_detecting(const char* /*name*/, bool on) {
    if (!on) {
        LOG(INFO) << "stop detecting";
        stop_watcher();
        return;
    }
    LOG(INFO) << "start detecting";
    start_watcher();
}

void available_changed(const char* name, bool on) {
    for (auto& [category, settings] : event_settings) {
        if (settings.prop == name) {
            __atomic_store_n(&settings.available, on, __ATOMIC_RELAXED);
        }
    }
}

int ZQEventDetect() {
    event_num_limit = std::stoi(property_value("persist.service.brevix.ev.num", "10"));
    read_device_info();
    const char* type = reboot_type();
    const tm local = local_time(time(nullptr));
    write_history_event("REBOOT", type, nullptr, nullptr, local);
    save_console_log(local);
    ZQSubscribe("persist.service.event.detect", event_detecting);
    for (const auto& [category, settings] : event_settings) {
        ZQSubscribe(settings.prop.c_str(), available_changed);
    }
    return 0;
}
