// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "event/collection.h"
#include "event/history.h"
#include "event/tables.h"
#include "event/watcher.h"

// Event detection: files that the platform puts into the watched directories become event folders.

// Writes the REBOOT line to the history, moves the previous boot's console log into the log
// directory, and subscribes detection and its categories to their switches. Main thread, once.
// Returns 0. Throws std::invalid_argument or std::out_of_range when "persist.service.brevix.ev.num"
// is not an int.
int ZQEventDetect();

// Handler of "persist.service.event.detect" (see ZQSubscribe): starts a watcher thread, or stops
// it without waiting for its end.
void event_detecting(const char* name, bool on);

// Handler of the category switches: sets `available` of every category whose property is `name`.
void available_changed(const char* name, bool on);
