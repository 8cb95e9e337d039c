// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

// Finds lines in logs of logcat's form threadtime, in memory that does not grow with the files. The
// phone's clock may have been set to and fro within a file.

namespace look {

namespace fs = std::filesystem;

// Milliseconds since 1970 of the phone's local time, taken as UTC: all of one phone's times compare
// as they stand, whatever the zone of this machine. 0 is unknown.
using moment = int64_t;

constexpr moment kSecond = 1000;
constexpr moment kDay = 86400 * kSecond;
constexpr moment kClockIsSet = 30 * 365 * kDay;  // before 2000 the clock counts from its start

// `format` is strptime's, for all of the text; returns 0 for a text of another form.
moment parse_moment(const std::string& text, const char* format);
std::string format_moment(moment time);

// The letter that stands before a line, and the file NAME.log that it is from.
struct log_channel {
    char letter;
    const char* name;
};
constexpr log_channel kChannels[] = {
    {'A', "android"}, {'K', "kernel"}, {'E', "event"}, {'R', "radio"}};

// About 32 KiB of a log that begin at a line with a time, and end where the clock jumps.
struct log_block {
    off_t at;
    off_t bytes;
    moment first, last;  // earliest and latest time in it
};

struct log_file {
    char channel;
    fs::path path;
    // Lines have no year. They belong to the first year in which they are not older than `origin`
    // or, when that says 1970 and they are days younger, not older than `set_origin`.
    moment origin;
    moment set_origin;
    moment last = 0;  // time of the last line that has one
    std::vector<log_block> blocks = {};
    bool is_indexed = false;
    bool is_endless = false;  // a line has no end; what is behind it is not looked for
};

// The part of a log in one directory: NAME.log and its rotated files, oldest first.
// Appends what is missing to `damage`. `start` is when the log began, to within a month.
std::vector<log_file> open_log(const fs::path& dir, const std::string& name, char channel,
                               moment start, moment set_start, std::string& damage);

// Reads the whole file, once: finds its blocks.
void index_log(log_file& file);

// Returns the lines from 10 seconds before the second `time` to 10 seconds after it, in time order,
// each once. Of more than `max_bytes` it keeps the nearest lines and marks the cut.
std::string lines_around(const std::vector<log_file*>& files, moment time, size_t max_bytes);

}  // namespace look
