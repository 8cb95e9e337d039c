// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

// What is kept of the log directories (utils/directories.h): decided by the counts in their names,
// never by file times. Any thread may call these functions.
//
// `prefix` picks the entries that take part, an empty one picks all. Functions that walk `dir`
// throw std::filesystem::filesystem_error when it cannot be read, and pass on what
// ZQGetCountByFileName throws.

// Removes a file or a whole tree. Returns 0, also when there is none; -1 (logged) on failure.
int ZQRemoveFile(const std::string& path);

// One more than the highest count in `dir`, cut to an int; 0 when there is none.
int ZQGetNewLogCount(const std::string& dir, const std::string& prefix, uint64_t fieldCount);

// Removes the entries with a count below `keepFrom` (at least 0, so malformed names always go).
// With `compress` each remaining entry becomes NAME.tar.gz with mode 0777; the call waits for tar.
// Each entry is dealt with as the walk meets it: a name that throws leaves those behind it as they
// are. Returns true when a failed removal ended the walk early, false otherwise. `ignoredFlag` has
// no effect.
bool ZQRemoveOldFile(const std::string& dir, const std::string& prefix, uint64_t fieldCount,
                     int64_t keepFrom, bool ignoredFlag, bool compress);

// The bytes of all regular files below the directory `path`. Symlinks to files count, symlinks to
// directories are not followed, entries that vanish during the walk count 0. Throws
// std::filesystem::filesystem_error when `path` or a directory below it cannot be read: ENOENT when
// there is no `path`, ENOTDIR when it is a file.
int64_t GetDirectorySize(const std::string& path);

// True when the count of name `a` is below that of name `b`.
bool compare(const std::string& a, const std::string& b, uint64_t fieldCount);

// While all of `dir` is larger than 2 GiB (2147483648 bytes), removes its lowest counts, but never
// the highest. Switched off by "ro.boot.aging.build" = "true" or "1". `newCount` has no effect.
// Returns 0; failed removals are logged.
int ZQRemoveFileWithCheckSize(const std::string& dir, int64_t newCount, const std::string& prefix,
                              uint64_t fieldCount);
