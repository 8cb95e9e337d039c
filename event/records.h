// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/inotify.h>

#include <string>

// What the kernel writes into a buffer that is read from an inotify instance.

namespace brevix {

// Returns the record at `position` and advances `position` past it; null when fewer bytes than a
// whole record are left before `end`.
const inotify_event* next_record(const char*& position, const char* end);

// The record's file name without its NUL padding; empty when it has none.
std::string record_name(const inotify_event& record);

}  // namespace brevix
