// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/mapped_file.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// What a phone has collected, read as far as it goes: damage is marked and stops nothing.

namespace look {

namespace fs = std::filesystem;

// Milliseconds of the phone's local time, counted as if it were UTC: what one phone has written is
// compared as it stands, whatever the zone of this machine. 0 is unknown.
using moment = int64_t;

// By formats of strptime that take 19 characters; texts of another form are 0.
moment parse_moment(const std::string& text, const char* format);
std::string format_moment(moment time);

// One file of a log in logcat's form threadtime. It is mapped and searched by bisection, so a look
// into it costs a few pages, whatever its size.
struct log_file {
    char channel;
    std::shared_ptr<android::base::MappedFile> map;
    std::string_view text;
    moment origin;      // no line is older: lines have no year
    moment begin, end;  // of the first line and of the last
};

// Adds NAME.log and its rotated files, oldest first. `start` is when the log began, give or take a
// month. What is missing is added to `damage`.
void open_log(const fs::path& dir, const std::string& name, char channel, moment start,
              std::vector<log_file>& files, std::string& damage);

// The lines from 10 seconds before the second `time` to 10 seconds after it, in time order, each
// once. Of more than `max_bytes` in a file the nearest stay, and a mark says so.
std::string lines_around(const std::vector<log_file>& files, moment time, size_t max_bytes);

// A reboot, event or capture. Texts are as they were found: of any bytes, and hostile.
struct entry {
    int number = 0;  // its place in the history, or behind it; 0: a capture
    moment time = 0, end = 0;
    std::string category;  // "REBOOT", "CRASH", "CUSTOM", "CAPTURE"; "?": cannot be read
    std::string type;
    std::string package;  // or process
    std::string line;     // the one that tells most
    std::string name;     // of its folder
    fs::path folder;      // empty: gone, or there was none
    std::string damage;   // words with "; " behind them
};

struct collected {
    // `dir` is a copy of /data/logs, of /data or of /; throws std::runtime_error when it is none.
    explicit collected(const fs::path& dir);

    // Report, head of the crash file, stack, files and the log lines around an entry, each of about
    // `max_bytes` at most, under lines that begin with "== ".
    std::string describe(const entry& event, size_t max_bytes) const;

    fs::path logs;
    std::vector<entry> entries;  // oldest first
    std::vector<log_file> captured;
};

}  // namespace look
