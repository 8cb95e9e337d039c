#pragma once

#include <cstdint>
#include <string>

#include "event/tables.h"

// One file becomes one event folder, staged for the app and told to it.

enum class collect_result {
    done,      // handled, or given up for good
    next_row,  // no event folder could be made: a later row may try
};

// Makes the event folder for the file `name` of the watched directory and tells the app. `base` is
// the log directory, ending in "/". Blocks for the copies and, for watchdogs and system crashes, up
// to 10 seconds more for the log snapshot. For watcher threads, one at a time. Failures are logged.
// Throws std::filesystem::filesystem_error when the category's directory vanishes meanwhile.
collect_result collect_event(const std::string& base, const event_watch& watch, int64_t row,
                             const std::string& name, const customize_settings& settings);
