// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// Captures about two seconds of raw data of each touch controller that this device has into
// /data/logs/touch_panel/tp_log_TIME.rep or .txt (the directory must be there), gives that
// directory to the user system and sets "sys.brevix.touchpanel.fetch" to "0". Blocks meanwhile. A
// capture whose node or file cannot be opened, or would be behind a link, is given up and leaves
// owner and property alone. Returns 0.
int ZQTouchPanelDump();

// Switch a controller's data on or off by writing "1" or "0" to its switch node. Failures go to
// standard error.
void enableReplay(const std::string& path);
void disableReplay(const std::string& path);
