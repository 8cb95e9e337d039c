// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/unique_fd.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

// Reading what others wrote. Every name and byte is untrusted: no link is followed, no FIFO waited
// for, and nothing is read without a limit.

namespace look {

namespace fs = std::filesystem;

// Removes the first line from `text` and returns it without its line end.
std::string_view take_line(std::string_view& text);

// The part of `text` behind the first `mark`, up to the next `end`; empty when there is no mark.
std::string_view between(std::string_view text, std::string_view mark, std::string_view end);

// Replaces what is no UTF-8, and control characters and direction overrides, which steer a terminal
// or disguise a text, except those in `kept`.
std::string printable(std::string_view text, std::string_view kept = "\n\t");

// The start of `text` up to `max_bytes`, with "[cut]" on a line of its own when there is more.
std::string shortened(std::string text, size_t max_bytes);

// Opens a regular file for reading; on failure returns -1 and sets errno.
android::base::unique_fd open_file(const fs::path& path);

// "no NAME; " or "NAME cannot be read; ".
std::string damage_of(const std::string& name, int error);

// The paths in a directory, sorted. `error`: an errno, 0 when it could be listed.
std::vector<fs::path> entries_of(const fs::path& dir, int* error = nullptr);

// Returns the first bytes of a file, unpacked when it is packed. Appends to `damage` what is wrong
// with it, each followed by "; ".
std::string read_head(const fs::path& path, size_t max_bytes, std::string& damage);

}  // namespace look
