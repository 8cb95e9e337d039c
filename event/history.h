// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <time.h>

// The history file and the report file of each event folder.

namespace brevix {

// Reads the device information of the reports from the system properties. Main thread, before the
// first watcher.
void read_device_info();

}  // namespace brevix

// Appends a line to "/data/logs/history.event" and, when `dir` is not null, first a report to
// `dir`/eventfile. `name` may be null only when `dir` is; an empty one has no line in the report.
// `time` is local. A failed open is logged, write errors are not. Any thread: both files are opened
// with O_APPEND for each call.
void write_history_event(const char* event, const char* type, const char* dir, const char* name,
                         const tm& time);
