// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

#include "event/tables.h"

// Pure functions: which file is an event, whose, and how its directory and its notice are named.

namespace brevix {

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
// false when the name has another form; `error` is what the log says then.
bool parse_app_event(const std::string& file_name, collected_event& out, const char*& error);

// Whether the event comes from an app (category "CUSTOM").
bool is_app_event(const collected_event& event);

// The prefix of the event's directory name, with its "_"; retention goes by it.
std::string name_prefix(const collected_event& event, const customize_settings& settings);

// The shell line of the notice to the app, cut at kMaxPathBytes.
std::string notice_command(const collected_event& event);

}  // namespace brevix
