#include "event/tables.h"

#include <sys/inotify.h>

std::map<std::string, customize_settings> event_settings = {
    {"CRASH", {"crashlog", "persist.service.crashlog.enable"}},
    {"CUSTOM", {"zqeventlog", "persist.service.custom.event"}},
};

namespace {

constexpr int64_t rows_in(const char* const (&column)[event_watch::kMaxRows]) {
    int64_t rows = 0;
    while (rows < event_watch::kMaxRows && column[rows] != nullptr) {
        ++rows;
    }
    return rows;
}

constexpr bool counts_its_rows(const event_watch& watch) {
    return rows_in(watch.type) == watch.count && rows_in(watch.pattern) == watch.count &&
           rows_in(watch.category) == watch.count;
}

// The first match wins, so the watchdog row stands before the generic "anr" and "crash".
constexpr event_watch kDropbox = {0,
                                  IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF,
                                  "/data/system/dropbox",
                                  4,
                                  {"UIWDT", "ANR", "JAVACRASH", "CUSTOM"},
                                  {"system_server_watchdog", "anr", "crash", "ZQEvent_"},
                                  {"CRASH", "CRASH", "CRASH", "CUSTOM"}};
static_assert(counts_its_rows(kDropbox));

constexpr event_watch kTombstones = {0,
                                     IN_CLOSE_WRITE | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF,
                                     "/data/tombstones",
                                     1,
                                     {"TOMBSTONE"},
                                     {"tombstone"},
                                     {"CRASH"}};
static_assert(counts_its_rows(kTombstones));

}  // namespace

event_watch event_watches[2] = {kDropbox, kTombstones};

int event_num_limit = 0;
