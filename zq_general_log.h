// SPDX-License-Identifier: Apache-2.0
#pragma once

// General log capture: one logcat child per enabled channel, all writing into one numbered
// directory ZQLog_COUNT_TIME under /data/logs/general_log/.

// Handler of the switch "persist.service.start.capture" (see ZQSubscribe; runs on its thread, under
// its mutex). On: prunes old captures, makes the next directory and starts the channels. Off: sends
// SIGTERM to the children it started, which are not waited for. `name` is not used. Failures are
// logged and end the handler. Throws std::invalid_argument or std::out_of_range when
// "persist.service.brevix.gl.num" is not an int, and what the retention functions throw.
void capturing(const char* name, bool on);

// Starts the enabled channels, writing into the directory `dir` (no "/" at its end), and notes
// them for the switch-off. Returns 0 when at least one child was started, 1 otherwise. Only for
// `capturing`.
int check_record_log(const char* dir);
