// SPDX-License-Identifier: Apache-2.0
#include "look/collected.h"

#include <android-base/strings.h>
#include <regex.h>
#include <zlib.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "utils/util.h"
#include "zq_event_log.h"

namespace look {

namespace {

constexpr size_t kHeadBytes = 16 << 10;
constexpr size_t kWholeBytes = 64 << 20;

// -1 for a name of another form.
int64_t count_of(const std::string& name, uint64_t fields) try {
    return ZQGetCountByFileName(name, fields);
} catch (const std::logic_error&) {
    return -1;
}

moment time_in(const std::string& name) {
    return parse_moment(name.substr(name.rfind('_') + 1), "%Y-%m-%d-%H-%M-%S");
}

struct form : regex_t {
    explicit form(const char* expression) : regex_t() {
        regcomp(this, expression, REG_EXTENDED | REG_NEWLINE);
    }
    ~form() { regfree(this); }
};

// The extended regular expression's parts, the whole first, in the first line that it fits; empty
// when it fits none.
std::vector<std::string> match(const std::string& text, const char* expression) {
    static std::map<const char*, form> compiled;
    const form& wanted = compiled.try_emplace(expression, expression).first->second;
    regmatch_t parts[5] = {{0, static_cast<regoff_t>(text.size())}};
    std::vector<std::string> found;
    if (regexec(&wanted, text.c_str(), std::size(parts), parts, REG_STARTEND) == 0) {
        for (const regmatch_t& part : parts) {
            found.push_back(part.rm_so < 0 ? "" : text.substr(part.rm_so, part.rm_eo - part.rm_so));
        }
    }
    return found;
}

// The first bytes of a regular file, unpacked where it is packed: a link could lead out of the
// folder, a pipe would never end.
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
    char buffer[4096];
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

std::vector<fs::path> entries_of(const fs::path& dir) {
    std::error_code error;
    const fs::directory_iterator found(dir, error);
    std::vector<fs::path> paths(begin(found), end(found));
    std::sort(paths.begin(), paths.end());
    return paths;
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

// What is there of an event's folder, and what its name says.
void read_folder(entry& event, const fs::path& logs) {
    if (count_of(event.name, 4) < 0 || time_in(event.name) == 0) {
        event.damage += "its folder's name is cut; ";
        return;
    }
    const std::vector<std::string> fields = android::base::Split(event.name, "_");
    event.type = fields[2];
    event.package = event.category == "CUSTOM" ? fields[0] : "";
    const fs::path folder = logs / event_settings[event.category].log_dir / event.name;
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

entry& add(std::vector<entry>& entries, const std::string& category, moment time) {
    entry& added = entries.emplace_back();
    added.number = static_cast<int>(entries.size());
    added.category = category;
    added.time = time;
    return added;
}

void read_history_line(std::vector<entry>& entries, const fs::path& logs, const std::string& line) {
    constexpr size_t kMaxBytes = 4096;
    if (line.empty()) {
        return;
    }
    const auto parts = match(line.substr(0, kMaxBytes),
                             "^(.*)(REBOOT|CRASH|CUSTOM) +([-0-9]{10}/[:0-9]{8}) +(.*)$");
    if (parts.empty()) {
        entry& cut = add(entries, "?", entries.empty() ? 0 : entries.back().time);
        cut.line = line.substr(0, kMaxBytes);
        cut.damage = "its line is cut; ";
        return;
    }
    read_history_line(entries, logs, parts[1]);  // one that was cut has the next one glued to it
    entry& event = add(entries, parts[2], parse_moment(parts[3], "%Y-%m-%d/%H:%M:%S"));
    event.type = android::base::Trim(parts[4]);
    if (const auto names = match(parts[4], "^(.*) (/.*)$"); !names.empty()) {
        event.type = names[1];
        event.name = fs::path(names[2]).filename();
        read_folder(event, logs);
    }
}

void read_history(std::vector<entry>& entries, const fs::path& logs) {
    std::string damage;
    const std::string text = read_head(logs / "history.event", kWholeBytes, damage);
    for (const std::string& line : android::base::Split(text, "\n")) {
        read_history_line(entries, logs, line);
    }
}

// What has lost its line in the history is an event all the same.
void read_event_folders(std::vector<entry>& entries, const fs::path& logs) {
    std::set<std::string> known;
    for (const entry& event : entries) {
        known.insert(event.name);
    }
    for (const auto& [category, settings] : event_settings) {
        for (const fs::path& path : entries_of(logs / settings.log_dir)) {
            if (!known.contains(path.filename())) {
                entry& event = add(entries, category, time_in(path.filename()));
                event.name = path.filename();
                event.folder = path;
                event.damage = "not in the history; ";
                read_folder(event, logs);
            }
        }
    }
}

void read_captures(collected& all) {
    for (const fs::path& path : entries_of(all.logs / "general_log")) {
        entry& capture = add(all.entries, "CAPTURE", time_in(path.filename()));
        capture.number = 0;
        capture.name = path.filename();
        capture.folder = path;
        if (count_of(capture.name, 3) < 0 || capture.time == 0) {
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

collected::collected(const fs::path& dir) {
    for (const char* below : {"", "logs", "data/logs"}) {
        for (const char* found : {"history.event", "general_log", "crashlog", "zqeventlog"}) {
            logs = logs.empty() && fs::exists(dir / below / found) ? dir / below : logs;
        }
    }
    if (logs.empty()) {
        throw std::runtime_error(dir.string() + " holds no history, events or captures");
    }
    read_history(entries, logs);
    read_event_folders(entries, logs);
    read_captures(*this);
    std::stable_sort(entries.begin(), entries.end(),
                     [](const entry& a, const entry& b) { return a.time < b.time; });
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
