#pragma once

#include "event/collection.h"
#include "event/history.h"
#include "event/tables.h"
#include "event/watcher.h"

// Event detection: files that the platform puts into the watched directories become event folders.

// Notes the reboot in the history, saves the preserved console log of the boot before, and
// subscribes detection and its categories to their switches. For the main thread, once, before any
// watcher. Returns 0. Throws std::invalid_argument or std::out_of_range when
// "persist.service.brevix.ev.num" is not an int.
int ZQEventDetect();

// Handler of "persist.service.event.detect" (see ZQSubscribe): starts a watcher thread, or has it
// end.
void event_detecting(const char* name, bool on);

// Handler of the categories' switches: opens or shuts every category whose property is `name`.
void available_changed(const char* name, bool on);
