// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "look/logs.h"
#include "look/symbols.h"

// Reads what phones have collected. Damage is marked in the entry that it concerns and never ends
// the reading; only a directory or history that cannot be opened does.

namespace look {

// A reboot, event or capture. The texts are untrusted: any bytes, as they were found.
struct entry {
    size_t phone = 0;  // place in collected::phones
    int number = 0;    // place in the history or, without a line there, after it; 0 for a capture
    moment time = 0, end = 0;
    std::string category = {};  // "REBOOT", "CRASH", "CUSTOM", "CAPTURE"; "?": unreadable line
    std::string type = {};
    std::string package = {};  // or program
    std::string process = {};
    std::string build = {};   // SWVersion of its report
    std::string line = {};    // the line of the crash file that tells most
    std::string name = {};    // of its folder
    fs::path folder = {};     // empty when there is none here
    bool is_gone = false;     // retention has removed the folder
    std::string damage = {};  // each followed by "; "

    std::string issue = {};       // its id; empty when there is nothing to compare
    std::string issue_text = {};  // what makes it that issue
    std::string words = {};       // of the stack, for a search
    int pid = 0;                  // of a native crash
    int twin = 0;                 // number of the entry that the same crash is counted with
};

// Equal crashes.
struct issue {
    std::string id;
    size_t count = 0, phones = 0;
    moment first = 0, last = 0;
    std::string first_build = {}, last_build = {};
    std::string type = {}, package = {}, line = {};  // of the last event
    bool is_new = false;                             // first seen in the newest of several builds
};

// A capture, for why it has no line of a time.
struct capture {
    std::string name;
    moment begin, end;
    std::string letters;     // of the channels that it holds
    std::string unreadable;  // of those that cannot be read; "*" for all
};

struct phone {
    std::string name;  // of the directory, with parents as far as it takes to tell it apart
    fs::path logs;
    std::vector<capture> captures = {};  // oldest first
    std::vector<log_file> files = {};    // of all captures
};

// A piece of an event's description: title and text.
using part = std::pair<std::string, std::string>;

struct collected {
    // Each directory is a copy of /data/logs, of /data or of /. `names` finds the names of native
    // frames. Throws std::runtime_error when one holds nothing that was collected or cannot be
    // read.
    collected(const std::vector<fs::path>& dirs, symbols& names);

    // What there is to say of an entry, in reading order, each part of about `max_bytes` at most.
    std::vector<part> describe(const entry& event, size_t max_bytes);

    // The lines of all four logs around a time, and why channels have none.
    std::string log_at(size_t phone, moment time, const fs::path& folder, size_t max_bytes);

    std::vector<phone> phones;
    std::vector<entry> entries;  // oldest first
    std::vector<issue> issues;   // most frequent first

  private:
    symbols& names_;
};

// Marks native crashes that were collected twice, as tombstone and as dropbox entry, gives both the
// same issue, and returns the issues, most frequent first.
std::vector<issue> group(std::vector<entry>& entries);

}  // namespace look
