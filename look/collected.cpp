// SPDX-License-Identifier: Apache-2.0

// Reads history, event folders and captures, and describes one entry of them.

#include "look/collected.h"

#include <android-base/strings.h>
#include <regex.h>
#include <zlib.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "event/tables.h"
#include "utils/util.h"

namespace look {

using namespace brevix;

namespace {

constexpr size_t kHeadBytes = 16 << 10;
constexpr size_t kWholeBytes = 64 << 20;

struct regex : regex_t {
    explicit regex(const char* expression) : regex_t() {
        regcomp(this, expression, REG_EXTENDED | REG_NEWLINE);
    }
    ~regex() { regfree(this); }
};

// Matches a POSIX extended regular expression, line by line: returns the first match and its
// groups, nothing when no line matches. std::regex recurses once per character and overflows the
// stack on long lines.
std::vector<std::string> match(const std::string& text, const char* expression) {
    static std::map<const char*, regex> compiled;
    const regex& wanted = compiled.try_emplace(expression, expression).first->second;
    regmatch_t groups[5] = {{0, static_cast<regoff_t>(text.size())}};
    std::vector<std::string> found;
    if (regexec(&wanted, text.c_str(), std::size(groups), groups, REG_STARTEND) == 0) {
        for (const regmatch_t& group : groups) {
            found.push_back(text.substr(std::max(group.rm_so, 0), group.rm_eo - group.rm_so));
        }
    }
    return found;
}

// Returns the first bytes of a regular file, unpacked when it is packed. Links are not followed,
// they may lead out of the folder; the end of a FIFO never comes.
std::string read_head(const fs::path& path, size_t max_bytes, std::string& damage) {
    const std::string name = path.filename();
    std::error_code error;
    const bool is_file = fs::symlink_status(path, error).type() == fs::file_type::regular;
    const gzFile file = is_file ? gzopen(path.c_str(), "rb") : nullptr;
    if (file == nullptr) {
        damage += "no " + name + "; ";
        return {};
    }
    std::string text;
    char buffer[4096];  // one large read would lose what comes before a broken part
    int bytes = 0;
    while (text.size() <= max_bytes && (bytes = gzread(file, buffer, sizeof(buffer))) > 0) {
        text.append(buffer, bytes);
    }
    int status = Z_OK;
    gzerror(file, &status);
    if (status != Z_OK) {
        damage += name + " is broken; ";
    } else if (name.ends_with(".gz") && gzdirect(file) != 0) {
        damage += name + " is no gzip; ";
    }
    gzclose(file);
    return text.size() <= max_bytes ? text : text.substr(0, max_bytes) + "\n[cut]\n";
}

fs::path crash_file(const fs::path& folder) {
    for (const fs::path& path : entries_of(folder)) {
        if (!match(path.filename(), "@|^tombstone|^ZQEvent_").empty()) {
            return path;
        }
    }
    return folder / "crash file";
}

std::string telling_line(const std::string& text) {
    for (const char* form : {"^([^[:space:]].*)?(Exception|Error)\\b.*", "^Subject:.*",
                             "^Abort message:.*", "^signal .*", ".+"}) {
        if (const auto found = match(text, form); !found.empty()) {
            return found[0];
        }
    }
    return {};
}

std::string first_frames(const std::string& text) {
    int left = 16;
    std::string frames;
    for (const std::string& line : android::base::Split(text, "\n")) {
        if (!match(line, "^[[:space:]]+(at |#[0-9])").empty() && left-- > 0) {
            frames += line + "\n";
        }
    }
    return frames;
}

std::string sizes_in(const fs::path& dir) {
    std::string list;
    for (const fs::path& path : entries_of(dir)) {
        std::error_code error;
        list += cut_format(kMaxPathBytes, "%12jd  %s\n", intmax_t(fs::file_size(path, error)),
                           path.filename().c_str());
    }
    return list;
}

moment time_in(const std::string& name) {
    return parse_moment(name.substr(name.rfind('_') + 1), kFileTimeFormat);
}

// Fills in what the name of the event's folder says and what the folder holds.
void read_folder(entry& event, const fs::path& logs) {
    const auto fields = match(event.name, "^([^_]*)_[0-9]+_([^_]*)_[^_]*$");
    if (fields.empty() || time_in(event.name) == 0) {
        event.damage += "its folder's name is cut; ";
        return;
    }
    event.type = fields[2];
    event.package = event.category == "CUSTOM" ? fields[1] : "";
    const fs::path folder = logs / event_settings.at(event.category).log_dir / event.name;
    std::error_code error;
    if (fs::symlink_status(folder, error).type() != fs::file_type::directory) {
        return;
    }
    event.folder = folder;
    const std::string report = read_head(folder / "eventfile", kHeadBytes, event.damage);
    if (!report.empty() && !report.ends_with("_END\n")) {
        event.damage += "eventfile is cut; ";
    }
    const std::string crash = read_head(crash_file(folder), kHeadBytes, event.damage);
    event.line = telling_line(crash);
    const auto header =
        match(crash, "^(Package|Process|Cmdline|Cmd line): ([^ ]+)|>>> ([^ ]+) <<<");
    if (event.package.empty() && !header.empty()) {
        event.package = header[2] + header[3];
    }
}

entry& add(collected& all, const std::string& category, moment time, const std::string& name = "",
           const std::string& damage = "") {
    const int number = static_cast<int>(all.entries.size()) + 1;
    return all.entries.emplace_back(entry{number, time, 0, category, "", "", "", name, {}, damage});
}

void read_history_line(collected& all, const std::string& line) {
    constexpr size_t kMaxBytes = 4096;
    if (line.empty()) {
        return;
    }
    const std::string head = line.substr(0, kMaxBytes);
    const auto parts =
        match(head, "^(.*)(REBOOT|CRASH|CUSTOM) +([-0-9]{10}/[:0-9]{8}) +(.*[^ ]) *$");
    if (parts.empty()) {
        const moment time = all.entries.empty() ? 0 : all.entries.back().time;
        add(all, "?", time, "", "its line is cut; ").line = head;
        return;
    }
    read_history_line(all, parts[1]);  // the next line is appended to one that was cut
    entry& event = add(all, parts[2], parse_moment(parts[3], "%Y-%m-%d/%H:%M:%S"));
    event.type = parts[4];
    const auto names = match(parts[4], "^(.*) (/.*)$");
    if (!names.empty() && event.category != "REBOOT") {
        event.type = names[1];
        event.name = fs::path(names[2]).filename();
        read_folder(event, all.logs);
    }
}

void read_history(collected& all) {
    std::string damage;  // captures and folders may have come without a history
    const std::string text = read_head(all.logs / "history.event", kWholeBytes, damage);
    for (const std::string& line : android::base::Split(text, "\n")) {
        read_history_line(all, line);
    }
}

// Adds the events that have lost their line in the history.
void read_event_folders(collected& all) {
    std::set<std::string> known;
    for (const entry& event : all.entries) {
        known.insert(event.name);
    }
    for (const auto& [category, settings] : event_settings) {
        for (const fs::path& path : entries_of(all.logs / settings.log_dir)) {
            const std::string name = path.filename();
            if (!known.contains(name)) {
                entry& event = add(all, category, time_in(name), name, "not in the history; ");
                event.folder = path;
                read_folder(event, all.logs);
            }
        }
    }
}

void read_captures(collected& all) {
    for (const fs::path& path : entries_of(all.logs / "general_log")) {
        const std::string name = path.filename();
        entry& capture = add(all, "CAPTURE", time_in(name), name);
        capture.number = 0;
        capture.folder = path;
        if (match(name, "^[^_]*_[0-9]+_[^_]*$").empty() || capture.time == 0) {
            capture.damage = "its name is cut; ";
            continue;
        }
        const size_t before = all.captured.size();
        open_log(path, "android", 'A', capture.time, all.captured, capture.damage);
        open_log(path, "kernel", 'K', capture.time, all.captured, capture.damage);
        for (size_t i = before; i < all.captured.size(); ++i) {
            capture.end = std::max(capture.end, all.captured[i].end);
        }
        capture.line = "until " + format_moment(capture.end);
    }
}

}  // namespace

std::vector<fs::path> entries_of(const fs::path& dir) {
    std::error_code error;
    const fs::directory_iterator found(dir, error);
    std::vector<fs::path> paths(begin(found), end(found));
    std::sort(paths.begin(), paths.end());
    return paths;
}

collected::collected(const fs::path& dir) {
    for (const fs::path& place : {dir, dir / "logs", dir / "data/logs"}) {
        for (const char* found : {"history.event", "general_log", "crashlog", "zqeventlog"}) {
            logs = logs.empty() && fs::exists(place / found) ? place : logs;
        }
    }
    if (logs.empty()) {
        throw std::runtime_error(dir.string() + " holds no history, events or captures");
    }
    read_history(*this);
    read_event_folders(*this);
    read_captures(*this);
    std::ranges::stable_sort(entries, {}, &entry::time);
}

std::string collected::describe(const entry& event, size_t max_bytes) const {
    std::string damage;  // is in the entry already
    std::string result;
    const auto add_part = [&](const std::string& title, const std::string& text) {
        result +=
            text.empty() ? "" : "== " + title + "\n" + text + (text.ends_with('\n') ? "" : "\n");
    };
    if (!event.folder.empty()) {
        const fs::path crash = crash_file(event.folder);
        add_part("Report", read_head(event.folder / "eventfile", max_bytes, damage));
        add_part("Head of " + crash.filename().string(), read_head(crash, max_bytes, damage));
        add_part("Stack", first_frames(read_head(crash, kHeadBytes, damage)));
        add_part("Files", sizes_in(event.folder));
    }
    damage.clear();
    std::vector<log_file> files = captured;
    open_log(event.folder, "pre_android", 'A', event.time, files, damage);
    open_log(event.folder, "pre_kernel", 'K', event.time, files, damage);
    add_part("Log, 10 seconds before and after (A android, K kernel)",
             lines_around(files, event.time, max_bytes) + damage);
    return result;
}

}  // namespace look
