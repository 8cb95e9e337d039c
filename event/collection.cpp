// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_EVENT_LOG"

#include "event/collection.h"

#include <android-base/logging.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <optional>

#include "event/history.h"
#include "event/rules.h"
#include "utils/base_log.h"
#include "utils/children.h"
#include "utils/directories.h"
#include "utils/retention.h"

namespace fs = std::filesystem;
using namespace brevix;

namespace {

constexpr const char* kStagingDir = "/data/brevix/eventTemp/";
constexpr uint64_t kEventNameFields = 4;

bool identify(collected_event& event, const event_watch& watch, int64_t row) {
    event.category = watch.category[row];
    if (!is_app_event(event)) {
        event.type = watch.type[row];
        return true;
    }
    const char* error = nullptr;
    if (!parse_app_event(event.file_name, event, error)) {
        LOG(ERROR) << error;
        LOG(ERROR) << "filename format incorrectly";
        return false;
    }
    LOG(INFO) << "parse info from file pkg: " << event.package << ", eventname: " << event.type;
    return true;
}

bool create_folder(collected_event& event, const std::string& dir, const std::string& prefix,
                   int count) {
    char folder[kMaxPathBytes + 1] = {};
    bool created = false;
    try {
        created = ZQCreateLogDir(dir, prefix, count, event.type.c_str(), event.time.c_str(),
                                 sizeof(folder), folder) == 0;
    } catch (const fs::filesystem_error&) {
        // ENAMETOOLONG: any app can choose an overlong package name, which must not end the daemon.
    }
    event.folder = folder;
    return created;
}

// Returns false when the platform has removed the file already.
bool copy_source(const collected_event& event) {
    struct stat st {};
    if (stat(event.source.c_str(), &st) != 0) {
        PLOG(ERROR) << "state " << event.source << " fail, error";
        return false;
    }
    const std::string destination =
        cut_format(kMaxPathBytes, "%s/%s", event.folder.c_str(), event.file_name.c_str());
    ZQCopyFile(event.source.c_str(), destination.c_str());
    return true;
}

void copy_into_folder(const collected_event& event, const char* from, const std::string& name) {
    ZQCopyCmd(from, cut_format(kMaxPathBytes, "%s/%s", event.folder.c_str(), name.c_str()).c_str());
}

std::optional<time_t> modification_time(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? std::optional(st.st_mtime) : std::nullopt;
}

void copy_surface_flinger_dump(const collected_event& event) {
    constexpr const char* kDump = "data/logs/sf.log";
    if (const std::optional<time_t> written = modification_time(kDump)) {
        copy_into_folder(event, kDump,
                         "sf_" + format_time(kFileTimeFormat, local_time(*written)) + ".log");
    }
}

void copy_watchdog_logs(const collected_event& event) {
    for (const fs::directory_entry& entry : fs::directory_iterator("data/logs")) {
        const std::string name = entry.path().filename();
        if (entry.is_regular_file() && name.starts_with("wdt_") &&
            name.find(".log") != std::string::npos) {
            copy_into_folder(event, ("data/logs/" + name).c_str(), name);
        }
    }
}

// Relative paths: the daemon's working directory is the root directory.
constexpr const char* kBinderLogs[] = {
    "dev/binderfs/binder_logs/state",
    "dev/binderfs/binder_logs/transaction_log",
    "dev/binderfs/binder_logs/transactions",
};

void dump_for_watchdog(const collected_event& event) {
    try {
        for (const char* log : kBinderLogs) {
            copy_into_folder(event, log, strrchr(log, '/') + 1);
        }
        copy_surface_flinger_dump(event);
        copy_watchdog_logs(event);
        LOG(INFO) << "Dump for system wdt";
        ZQDumpBaseLog(event.folder.c_str());
    } catch (const fs::filesystem_error& error) {
        LOG(ERROR) << "fail to copy transaction error: " << error.what();
    }
}

void dump_diagnostics(const collected_event& event) {
    if (event.type == "UIWDT") {
        dump_for_watchdog(event);
    } else if (event.file_name.find("system_server_crash") != std::string::npos) {
        LOG(INFO) << "Dump for system crash";
        ZQDumpBaseLog(event.folder.c_str());
    }
}

// The app removes staged entries at any time, so an entry may be gone by its stat.
void remove_oldest_staged() {
    std::optional<time_t> oldest;
    std::string path;
    for (const fs::directory_entry& entry : fs::directory_iterator(kStagingDir)) {
        const std::optional<time_t> written = modification_time(entry.path());
        if (written && (!oldest || *written < *oldest)) {
            oldest = written;
            path = entry.path();
        }
    }
    if (oldest) {
        ZQRemoveFile(path);
    }
}

void stage(const collected_event& event) {
    if (ZQCreateDir(kStagingDir) != 0) {
        LOG(ERROR) << "unable to create event temp dir ";
        return;
    }
    if (ZQGetFileCount(kStagingDir) >= event_num_limit) {
        remove_oldest_staged();
    }
    ZQCopyFolder(event.folder.c_str(), kStagingDir);
}

void notify_app(const collected_event& event) {
    const std::string command = notice_command(event);
    LOG(INFO) << "notify eventreport " << command;
    run_shell(command.c_str());
}

}  // namespace

collect_result collect_event(const std::string& base, const event_watch& watch, int64_t row,
                             const std::string& name, const customize_settings& settings) {
    collected_event event{};
    event.file_name = name;
    if (!identify(event, watch, row)) {
        return collect_result::done;
    }
    const std::string category_dir = base + settings.log_dir + "/";
    if (ZQCreateDir(category_dir) != 0) {
        return collect_result::done;
    }
    event.local = local_time(time(nullptr));
    event.time = format_time(kFileTimeFormat, event.local);

    const std::string prefix = name_prefix(event, settings);
    const int count = ZQGetNewLogCount(category_dir, prefix, kEventNameFields);
    if (ZQRemoveOldFile(category_dir, prefix, kEventNameFields,
                        int64_t{count} - event_num_limit + 1, false, false)) {
        LOG(ERROR) << "remove old file failed!";
        return collect_result::done;
    }
    if (!create_folder(event, category_dir, prefix, count)) {
        LOG(ERROR) << "create new log dir failed! " << event.folder;
        write_history_event(event.category, event.type.c_str(), nullptr, nullptr, event.local);
        return collect_result::next_row;
    }
    write_history_event(event.category, event.type.c_str(), event.folder.c_str(),
                        event.package.c_str(), event.local);
    event.source = cut_format(kMaxPathBytes, "%s/%s", watch.path, name.c_str());
    if (copy_source(event)) {
        dump_diagnostics(event);
    }
    stage(event);
    notify_app(event);
    return collect_result::done;
}
