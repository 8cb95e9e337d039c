// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/mapped_file.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Reads what a phone has collected. Damage is marked in the entry that it concerns and never ends
// the reading.

namespace look {

namespace fs = std::filesystem;

// Milliseconds since 1970 of the phone's local time, taken as UTC: all of one phone's times compare
// as they stand, whatever the zone of this machine. 0 is unknown.
using moment = int64_t;

// `format` is strptime's for a text of 19 characters; returns 0 for a text of another form.
moment parse_moment(const std::string& text, const char* format);
std::string format_moment(moment time);

// The directory's entries, sorted; none when it cannot be read.
std::vector<fs::path> entries_of(const fs::path& dir);

// One file of a log in logcat's form threadtime, memory-mapped. A bisection finds its lines, so a
// search reads a few pages of a file of any size.
struct log_file {
    char channel;
    std::shared_ptr<android::base::MappedFile> map;
    std::string_view text;
    moment origin;      // no line is older; gives the lines their missing year
    moment begin, end;  // of the first line and of the last
};

// Appends NAME.log and its rotated files to `files`, oldest first, and what is missing to `damage`.
// `start` is when the log began, to within a month.
void open_log(const fs::path& dir, const std::string& name, char channel, moment start,
              std::vector<log_file>& files, std::string& damage);

// Returns the lines from 10 seconds before the second `time` to 10 seconds after it, in time order,
// each once. Of more than `max_bytes` in a file it keeps the nearest lines and marks the cut.
std::string lines_around(const std::vector<log_file>& files, moment time, size_t max_bytes);

// A reboot, event or capture. The texts are untrusted: any bytes, as they were found.
struct entry {
    int number = 0;  // place in the history or, without a line there, after it; 0 for a capture
    moment time = 0, end = 0;
    std::string category;  // "REBOOT", "CRASH", "CUSTOM", "CAPTURE"; "?": unreadable line
    std::string type;
    std::string package;  // or process
    std::string line;     // the line of the crash file that tells most
    std::string name;     // of its folder
    fs::path folder;      // empty when it is gone or there never was one
    std::string damage;   // each followed by "; "
};

struct collected {
    // `dir` is a copy of /data/logs, of /data or of /. Throws std::runtime_error when it holds
    // nothing that was collected.
    explicit collected(const fs::path& dir);

    // Returns report, head of the crash file, stack, files and the log lines around an entry, each
    // of about `max_bytes` at most, under lines that begin with "== ".
    std::string describe(const entry& event, size_t max_bytes) const;

    fs::path logs;
    std::vector<entry> entries;  // oldest first
    std::vector<log_file> captured;
};

}  // namespace look
