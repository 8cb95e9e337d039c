#pragma once

#include <time.h>

// The history file and the report file of each event folder.

// Fills the device information of the reports from the system properties. For the main thread,
// before the first report.
void read_device_info();

// Appends a line to "/data/logs/history.event" and, with a directory, first a report to its
// "eventfile". `dir` is null for a line alone, and only then may `name` be null; an empty `name`
// has no line in the report. `time` is local. A file that cannot be opened is logged; write errors
// are not reported. Any thread: files are opened anew, for appending.
void write_history_event(const char* event, const char* type, const char* dir, const char* name,
                         const tm& time);
