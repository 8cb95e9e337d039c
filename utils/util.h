// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

// Log directories are named PREFIX COUNT "_" FIELDS, the prefix ending in its own "_", so that the
// count is always field 1 of the name split at "_". General captures have 3 fields
// ("ZQLog_12_2025-03-01-09-30-05"), event folders 4. Retention goes by these counts alone, never by
// file times.
//
// All functions but ZQDumpBaseLog may be called from any thread at once. Paths of directories whose
// entries are looked at (`dir`, `base`) end in "/": names are appended as they are.

// snprintf into a string: silently truncates at `max_bytes`.
std::string cut_format(size_t max_bytes, const char* format, ...)
    __attribute__((__format__(__printf__, 2, 3)));

// What a 512-byte buffer holds: the limit of composed paths, shell lines and history lines.
constexpr size_t kMaxPathBytes = 511;

// localtime_r in the zone that is set at the time of the call.
tm local_time(time_t time);

// strftime, at most 63 bytes.
std::string format_time(const char* format, const tm& time);

inline constexpr const char* kFileTimeFormat = "%Y-%m-%d-%H-%M-%S";

// --- Directories and names ---------------------------------------------------------------------

// Creates `path` with its missing parents and sets mode 0777 on the last component (parents keep
// the process's default). Returns 0, also when `path` exists, even as a regular file; 1 (logged) on
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

// Returns the count in a bare file name, -1 unless the name has exactly `fieldCount` fields and no
// ASCII letter in field 1. Parses field 1 as std::stoll does, and throws as it does:
// std::invalid_argument without digits, std::out_of_range past 64 bits. Does not allocate.
int64_t ZQGetCountByFileName(const std::string& fileName, uint64_t fieldCount);

// Tokenises `text` in place and appends a pointer to each token to `out`. The first token ends at
// one of `delim`, all others at a blank. `text` must outlive `out`; no null pointer is appended.
void ZQSplitByDelim(std::vector<char*>& out, char* text, const char* delim);

// Returns the number of entries, of any type, directly in `dir`. Throws
// std::filesystem::filesystem_error when it cannot be read.
int ZQGetFileCount(const std::string& dir);

// --- Retention ---------------------------------------------------------------------------------
// `prefix` picks the entries that take part, an empty one picks all. Functions that walk `dir`
// throw std::filesystem::filesystem_error when it cannot be read and pass on what
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

// The bytes of all regular files below the directory `path`; links to files count, links to
// directories are not followed, entries that vanish during the walk are left out. Throws
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

// --- Children and copies -------------------------------------------------------------------------
// Children start with the default signal mask and dispositions.

// Starts the program argv[0] with `argv`, whose last element is null. Returns its pid, or -1
// (logged) when there is no new process. In a child whose program cannot be started the call
// returns 0, and the caller ends that child at once with _exit. The child is not waited for. `tag`
// is for the log.
int ZQRecordLog(const std::string& tag, char* const argv[]);

// Runs a shell line as system() does and waits for it. Returns its wait status; -1 when it could
// not be started (logged) or somebody else has collected it.
int run_shell(const char* command);

// Starts a shell line in a process group of its own, so that a signal to the group reaches the
// shell and all that the line runs. Returns the shell's pid, which is also the group's id; -1
// (logged) when it could not be started. The caller waits for it.
pid_t start_shell_group(const char* command);

// Runs a shell line of at most 1023 bytes to its end; a longer one aborts the process. Its standard
// output is a pipe that nobody reads: a line redirects what it wants to keep.
void execute_cmd(const char* command);

// Copies a regular file to a path that does not exist yet (failures are logged) and gives whatever
// stands at `to` mode 0777, also after a failure.
void ZQCopyFile(const char* from, const char* to);

// "cp -r FROM TO " and "cp FROM TO " through the shell, unquoted, the line cut at 511 bytes.
// Failures are not reported.
void ZQCopyFolder(const char* from, const char* to);
void ZQCopyCmd(const char* from, const char* to);

// --- Base log dump -------------------------------------------------------------------------------

// Writes a snapshot of the log buffers into the directory `dir` (no "/" at its end):
// pre_android.log, pre_event.log, pre_radio.log, pre_kernel.log. Blocks until the dumps are seen
// finished, at most about 10 seconds, then sends SIGTERM to all of them; what has not ended yet is
// not waited for. No other thread may collect children meanwhile: a dump that it collects counts as
// unfinished, and its pid, a stranger's perhaps by then, gets the SIGTERM.
void ZQDumpBaseLog(const char* dir);
