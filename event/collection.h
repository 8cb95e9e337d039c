// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "event/tables.h"

// One file becomes one event folder, staged for the app and told to it.

enum class collect_result {
    done,      // handled, or abandoned
    next_row,  // no event folder could be made: the next matching row is tried
};

// Makes the event folder for the file `name` of the watched directory, stages a copy and notifies
// the app. `base` is the log directory, ending in "/". Blocks until its children have ended and,
// for watchdogs and system crashes, up to 10 seconds more for the log snapshot. Only for the
// watcher thread. Failures are logged. Throws std::filesystem::filesystem_error when the category's
// directory vanishes meanwhile, and child_left_alone (utils/stop_signal.h) when the watcher was
// stopped and a child does not end.
collect_result collect_event(const std::string& base, const event_watch& watch, int64_t row,
                             const std::string& name, const customize_settings& settings);
