// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

// Names, times and directories of what is collected. Any thread may call these functions.
//
// A log directory is named PREFIX COUNT "_" FIELDS. The prefix ends in its own "_", so the count is
// field 1 of the name split at "_". General captures have 3 fields
// ("ZQLog_12_2025-03-01-09-30-05"), event directories 4. A `base` or `dir` ends in "/": names are
// appended as they are.

namespace brevix {

// What a 512-byte buffer holds: the limit of composed paths, shell lines and history lines.
constexpr size_t kMaxPathBytes = 511;

// snprintf into a string: silently truncates at `max_bytes`.
std::string cut_format(size_t max_bytes, const char* format, ...)
    __attribute__((__format__(__printf__, 2, 3)));

// localtime_r in the zone that is set at the time of the call.
tm local_time(time_t time);

// strftime, at most 63 bytes.
std::string format_time(const char* format, const tm& time);

inline constexpr const char* kFileTimeFormat = "%Y-%m-%d-%H-%M-%S";

}  // namespace brevix

// Creates `path` with its missing parents. Sets mode 0777 on the last component; parents keep the
// process's default. Returns 0, also when `path` exists, even as a regular file; 1 (logged) on
// failure. Throws std::filesystem::filesystem_error when `path` cannot be examined.
int ZQCreateDir(const std::string& path);

// Composes base + prefix + count + "_" + the local time by strftime's `timeFormat` (at most 63
// bytes) into `out`, silently truncated to `outSize` bytes with the NUL, and creates that
// directory. Returns the result of ZQCreateDir.
int ZQCreateDirByFormat(const std::string& base, const std::string& prefix, int64_t count,
                        const std::string& timeFormat, uint64_t outSize, char* out);

// The same with "_" + field1 + "_" + field2 behind the count.
int ZQCreateLogDir(const std::string& base, const std::string& prefix, int64_t count,
                   const char* field1, const char* field2, uint64_t outSize, char* out);

// Returns the count in a bare file name; -1 unless the name has exactly `fieldCount` fields and no
// ASCII letter in field 1. Parses field 1 as std::stoll does, and throws as it does:
// std::invalid_argument without digits, std::out_of_range past 64 bits. Does not allocate.
int64_t ZQGetCountByFileName(const std::string& fileName, uint64_t fieldCount);

// Tokenises `text` in place and appends a pointer to each token to `out`. The first token ends at
// one of `delim`, all others at a blank. `text` must outlive `out`; no null pointer is appended.
void ZQSplitByDelim(std::vector<char*>& out, char* text, const char* delim);

// Returns the number of entries, of any type, directly in `dir`. Throws
// std::filesystem::filesystem_error when it cannot be read.
int ZQGetFileCount(const std::string& dir);
