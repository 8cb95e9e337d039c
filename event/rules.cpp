// SPDX-License-Identifier: Apache-2.0
#include "event/rules.h"

#include <android-base/strings.h>

#include <cstring>
#include <vector>

#include "utils/directories.h"

namespace brevix {

bool row_matches(const event_watch& watch, int64_t row, const std::string& name) {
    if (name.find(watch.pattern[row]) == std::string::npos) {
        return false;
    }
    // A tombstone's protobuf and temporary file make no event of their own.
    const bool is_companion = name.ends_with(".pb") || name.ends_with(".tmp");
    return strcmp(watch.type[row], "TOMBSTONE") != 0 || !is_companion;
}

// "ZQEvent_" PACKAGE "_" EVENT, then "@" and what the dropbox appends. Frozen: apps compose it.
bool parse_app_event(const std::string& file_name, collected_event& out, const char*& error) {
    if (!file_name.starts_with("ZQEvent_")) {
        error = "parse info from filename prefix incorrectly";
        return false;
    }
    const std::vector<std::string> parts =
        android::base::Split(file_name.substr(0, file_name.find('@')), "_");
    if (parts.size() != 3) {
        error = "parse info from filename split size incorrectly";
        return false;
    }
    out.package = parts[1].substr(0, kMaxPackageBytes);
    out.type = parts[2].substr(0, kMaxTypeBytes);
    return true;
}

bool is_app_event(const collected_event& event) {
    return strcmp(event.category, "CUSTOM") == 0;
}

// App events are numbered and retained per package.
std::string name_prefix(const collected_event& event, const customize_settings& settings) {
    return (is_app_event(event) ? event.package : settings.log_dir) + "_";
}

// Frozen: the app parses the extras.
std::string notice_command(const collected_event& event) {
    return cut_format(
        kMaxPathBytes,
        "am startservice -a %s -n %s --es name %s --es type %s --es path %s --es time %s --user 0",
        "com.velmora.brevix.action.EVENT", "com.velmora.brevix/.logoutput.QueueTaskService",
        event.package.empty() ? "null" : event.package.c_str(), event.type.c_str(),
        event.folder.c_str(), event.time.c_str());
}

}  // namespace brevix
