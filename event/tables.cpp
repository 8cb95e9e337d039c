#include "event/tables.h"

#include <sys/inotify.h>

std::map<std::string, customize_settings> event_settings = {
    {"CRASH", {"crashlog", "persist.service.crashlog.enable"}},
    {"CUSTOM", {"zqeventlog", "persist.service.custom.event"}},
};

// The first match wins, so the watchdog row stands before the generic "anr" and "crash".
event_watch event_watches[2] = {
    {0,
     IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF,
     "/data/system/dropbox",
     4,
     {"UIWDT", "ANR", "JAVACRASH", "CUSTOM"},
     {"system_server_watchdog", "anr", "crash", "ZQEvent_"},
     {"CRASH", "CRASH", "CRASH", "CUSTOM"}},
    {0,
     IN_CLOSE_WRITE | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF,
     "/data/tombstones",
     1,
     {"TOMBSTONE"},
     {"tombstone"},
     {"CRASH"}},
};

int event_num_limit = 0;
