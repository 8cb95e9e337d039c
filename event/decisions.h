#pragma once

#include <sys/inotify.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "event/tables.h"

// Decisions on events: values to values, without a file or a log line.

// An event on its way into its folder.
struct collected_event {
    const char* category;
    std::string file_name;
    std::string package;  // empty but for app events
    std::string type;
    tm local;
    std::string time;    // `local` as file names have it
    std::string folder;  // without a "/" at its end
    std::string source;
};

inline constexpr size_t kMaxTypeBytes = 31;
inline constexpr size_t kMaxPackageBytes = 511;

// Whether the row makes an event of a file of that name.
bool row_matches(const event_watch& watch, int64_t row, const std::string& name);

// Takes package and type out of an app event's file name. Returns what is wrong with the name, null
// if nothing is.
const char* parse_app_event(const std::string& file_name, collected_event& out);

// Whether the event names itself (category "CUSTOM").
bool is_app_event(const collected_event& event);

// What the names of the event's folder and its siblings begin with.
std::string name_prefix(const collected_event& event, const customize_settings& settings);

// The shell line that tells the app, at most 511 bytes.
std::string notice_command(const collected_event& event);

// The inotify record at `position`, which moves behind it. Null at the end, and when what is left
// is no whole record.
const inotify_event* next_record(const char*& position, const char* end);

// The file name that the record carries, without its padding.
std::string name_of(const inotify_event& record);
