// SPDX-License-Identifier: Apache-2.0
#include "event/tables.h"

#include <sys/inotify.h>

#include <initializer_list>

std::map<std::string, customize_settings> event_settings = {
    {"CRASH", {"crashlog", "persist.service.crashlog.enable"}},
    {"CUSTOM", {"zqeventlog", "persist.service.custom.event"}},
};

namespace {

struct watch_row {
    const char* type;
    const char* pattern;
    const char* category;
};

constexpr event_watch make_watch(const char* path, uint32_t mask,
                                 std::initializer_list<watch_row> rows) {
    event_watch watch{
        .wd = 0, .mask = mask, .path = path, .count = 0, .type = {}, .pattern = {}, .category = {}};
    for (const watch_row& row : rows) {
        watch.type[watch.count] = row.type;
        watch.pattern[watch.count] = row.pattern;
        watch.category[watch.count] = row.category;
        ++watch.count;
    }
    return watch;
}

}  // namespace

// The first match wins, so the watchdog row stands before the generic "anr" and "crash".
// clang-format off
constinit event_watch event_watches[2] = {
    make_watch("/data/system/dropbox", IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF, {
        {"UIWDT",     "system_server_watchdog", "CRASH"},
        {"ANR",       "anr",                    "CRASH"},
        {"JAVACRASH", "crash",                  "CRASH"},
        {"CUSTOM",    "ZQEvent_",               "CUSTOM"},
    }),
    make_watch("/data/tombstones", IN_CLOSE_WRITE | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF, {
        {"TOMBSTONE", "tombstone",              "CRASH"},
    }),
};
// clang-format on

int event_num_limit = 0;
