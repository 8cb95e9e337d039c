// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/inotify.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "event/tables.h"

// What events are decided by: functions from values to values, without side effects.

// An event while it is collected.
struct collected_event {
    const char* category;
    std::string file_name;
    std::string package;  // of an app event, else empty
    std::string type;
    tm local;
    std::string time;    // `local` in kFileTimeFormat
    std::string folder;  // its path, without a trailing "/"
    std::string source;
};

inline constexpr size_t kMaxTypeBytes = 31;
inline constexpr size_t kMaxPackageBytes = 511;

// Whether a file of that name is an event of the row.
bool row_matches(const event_watch& watch, int64_t row, const std::string& name);

// Parses package and type out of an app event's file name, cut to their maximum sizes. Returns
// null, or the text of the error.
const char* parse_app_event(const std::string& file_name, collected_event& out);

// Whether the event comes from an app (category "CUSTOM").
bool is_app_event(const collected_event& event);

// The prefix of the event's folder name, with its "_"; retention goes by it.
std::string name_prefix(const collected_event& event, const customize_settings& settings);

// The shell line of the notice to the app, cut at kMaxPathBytes.
std::string notice_command(const collected_event& event);

// Returns the inotify record at `position` and advances `position` past it; null when fewer bytes
// than a whole record are left.
const inotify_event* next_record(const char*& position, const char* end);

// The record's file name without its NUL padding.
std::string name_of(const inotify_event& record);
