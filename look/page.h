// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "look/collected.h"

// What was collected as JSON, and the page for a browser: one file, look/page.html with its style
// and script, and the data at its end in two script elements.
//
// <script type="application/json" id="rows"> holds one object:
//
//   {"phones": ["name", ...],
//    "rows": [{"t": ms, "e": ms, "n": "17", "phone": "...", "build": "...",
//              "time": "YYYY-MM-DD HH:MM:SS", "category": "CRASH", "type": "ANR", "package": "...",
//              "line": "...", "folder": "NAME", "gone": true, "damage": "...", "issue": "8hex",
//              "twin": "12", "stack": "words"}, ...],
//    "issues": [{"id": "8hex", "count": N, "phones": N, "first": ms, "last": ms,
//                "first_build": "...", "last_build": "...", "type": "...", "package": "...",
//                "line": "...", "new": true}, ...]}
//
// - Rows are oldest first, issues most frequent first. What is empty, false or 0 is left out.
// - "t" and "e" are milliseconds since 1970 of the phone's local time, taken as UTC; "e", the end,
//   only for captures. A capture has no "n".
// - "n" is unique for each phone only: among several the place in "rows" tells a row.
// - "twin" is the n of the entry of the same crash with which this one is counted.
// - "stack" holds words of the stack for a search, at most 512 bytes.
//
// <script type="text/plain" id="details"> holds a line for each row, in their order: a JSON array
// [["title", "text"], ...], the parts of that event in reading order; empty for captures and lines
// that cannot be parsed. A line is parsed when it is opened: all at once would take a second.
//
// In both "<" is written as \u003c.

namespace look {

// Throws std::runtime_error when the file cannot be written.
void write_page(collected& all, const std::string& file);

// An event's parts as a line of "details" holds them.
nlohmann::ordered_json parts_json(const std::vector<part>& parts);

}  // namespace look
