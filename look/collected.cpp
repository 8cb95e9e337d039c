// SPDX-License-Identifier: Apache-2.0

// Reads history, event folders and captures, and describes one entry of them.

#include "look/collected.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iomanip>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>

#include "look/crash.h"
#include "look/files.h"

namespace look {

namespace {

constexpr size_t kReportBytes = 16 << 10;
constexpr size_t kCrashBytes = 16 << 20;
constexpr size_t kHistoryBytes = 64 << 20;
constexpr size_t kMaxEntries = 100'000;
constexpr size_t kWordBytes = 512;

// The directory of each category's event folders.
const std::map<std::string, std::string> kDirs = {{"CRASH", "crashlog"}, {"CUSTOM", "zqeventlog"}};

// Throws when the directory is there and cannot be listed: whole categories would be missing
// without a word.
std::vector<fs::path> list(const fs::path& dir) {
    int error = 0;
    const std::vector<fs::path> paths = entries_of(dir, &error);
    if (error != 0 && error != ENOENT) {
        throw std::runtime_error(dir.string() + ": " +
                                 (error == ELOOP ? "links are not followed" : strerror(error)));
    }
    return paths;
}

moment time_in(const std::string& name) {
    return parse_moment(name.substr(name.rfind('_') + 1), "%Y-%m-%d-%H-%M-%S");
}

// "crashlog_5_ANR_2026-01-01-00-09-30" in its fields; empty when it has another form.
std::vector<std::string> fields_of(const std::string& name, size_t count) {
    std::vector<std::string> fields;
    std::istringstream stream(name);
    for (std::string field; std::getline(stream, field, '_');) {
        fields.push_back(field);
    }
    const bool is_whole = fields.size() == count && !fields[1].empty() && time_in(name) != 0 &&
                          fields[1].find_first_not_of("0123456789") == name.npos;
    return is_whole ? fields : std::vector<std::string>();
}

fs::path crash_file(const fs::path& folder) {
    for (const fs::path& path : entries_of(folder)) {
        const std::string name = path.filename();
        if (name.find('@') != name.npos || name.starts_with("tombstone") ||
            name.starts_with("ZQEvent_")) {
            return path;
        }
    }
    return folder / "crash file";
}

// --- Events ------------------------------------------------------------------------------------

void read_crash_file(entry& event, symbols& names) {
    const std::string text = read_head(crash_file(event.folder), kCrashBytes, event.damage);
    const crash plain = read_crash(text);
    event.issue_text = issue_text(plain, event.type, event.package);  // the same with symbols
    event.issue = event.issue_text.empty() ? "" : issue_id(event.issue_text);
    event.package = event.package.empty() ? plain.package : event.package;
    event.process = plain.process;
    event.pid = plain.family == "native" ? plain.pid : 0;
    const crash named = read_crash(names.name_frames(text));
    event.line = named.title;
    event.words = stack_words(named, kWordBytes);
}

// Fills in what the name of the event's folder says and what the folder holds.
void read_folder(entry& event, const fs::path& parent, symbols& names) {
    const std::vector<std::string> fields = fields_of(event.name, 4);
    if (fields.empty()) {
        event.damage += "its folder's name is cut; ";
        return;
    }
    event.type = fields[2];
    event.package = event.category == "CUSTOM" ? fields[0] : "";
    const fs::path folder = parent / event.name;
    int error = 0;
    entries_of(folder, &error);
    if (error == ENOENT) {
        return;
    }
    event.folder = folder;
    if (error != 0) {
        event.damage += error == ELOOP ? "its folder is a link; " : "its folder cannot be read; ";
        return;
    }
    const std::string report = read_head(folder / "eventfile", kReportBytes, event.damage);
    if (!report.empty() && !report.ends_with("_END\n")) {
        event.damage += "eventfile is cut; ";
    }
    event.build = between("\n" + report, "\nSWVersion=", "\n");
    read_crash_file(event, names);
}

entry& add(std::vector<entry>& rows, const std::string& category, moment time,
           const std::string& name = "") {
    entry& made = rows.emplace_back();
    made.number = static_cast<int>(rows.size());
    made.time = time;
    made.category = category;
    made.name = name;
    return made;
}

// "CRASH   2026-01-01/00:09:30 ANR /data/logs/crashlog/crashlog_5_ANR_2026-01-01-00-09-30".
struct history_line {
    std::string category, rest;
    moment time = 0;
};

// Without category when no whole line begins there.
history_line read_line(const std::string& line, size_t at) {
    const char* text = &line[at];
    for (const std::string_view category : {"REBOOT", "CRASH", "CUSTOM"}) {
        char date[20] = "";
        int size = 0;
        if (strncmp(text, category.data(), category.size()) == 0 &&
            sscanf(text + category.size(), " %19[-0-9/:] %n", date, &size) == 1) {
            std::string rest = line.substr(at + category.size() + size);
            rest.resize(rest.find_last_not_of(' ') + 1);
            const moment time = parse_moment(date, "%Y-%m-%d/%H:%M:%S");
            return {rest.empty() || time == 0 ? "" : std::string(category), rest, time};
        }
    }
    return {};
}

// Appends one entry, and before it those of lines that were cut.
void read_history_line(std::vector<entry>& rows, const fs::path& logs, const std::string& line,
                       symbols& names) {
    history_line found;
    size_t at = line.size();
    while (at > 0 && found.category.empty()) {
        found = read_line(line, --at);
    }
    if (found.category.empty()) {
        entry& event = add(rows, "?", rows.empty() ? 0 : rows.back().time);
        event.line = line;
        event.damage = "its line is cut; ";
        return;
    }
    if (at > 0) {
        read_history_line(rows, logs, line.substr(0, at), names);
    }
    entry& event = add(rows, found.category, found.time);
    event.type = found.rest;
    const size_t path = found.rest.find(" /");
    if (path != found.rest.npos && event.category != "REBOOT") {
        event.type = found.rest.substr(0, path);
        event.name = fs::path(found.rest).filename();
        read_folder(event, logs / kDirs.at(event.category), names);
    }
}

void read_history(std::vector<entry>& rows, const fs::path& logs, symbols& names) {
    constexpr size_t kLineBytes = 4096;
    std::string damage;  // captures and folders may have come without a history
    const std::string text = read_head(logs / "history.event", kHistoryBytes, damage);
    if (!damage.empty() && !damage.starts_with("no ")) {
        throw std::runtime_error((logs / "history.event").string() + " cannot be read");
    }
    for (std::string_view rest = text; !rest.empty();) {
        const std::string line(take_line(rest).substr(0, kLineBytes));
        if (rows.size() >= kMaxEntries) {
            add(rows, "?", rows.back().time).damage =
                "the history is too long, its rest is left out; ";
            return;
        }
        if (!line.empty()) {
            read_history_line(rows, logs, line, names);
        }
    }
}

// Adds the events that have lost their line in the history.
void read_event_folders(std::vector<entry>& rows, const fs::path& logs, symbols& names) {
    std::set<std::string> known;
    for (const entry& event : rows) {
        known.insert(event.name);
    }
    for (const auto& [category, dir] : kDirs) {
        for (const fs::path& path : list(logs / dir)) {
            const std::string name = path.filename();
            if (!known.contains(name)) {
                entry& event = add(rows, category, time_in(name), name);
                event.damage = "not in the history; ";
                read_folder(event, logs / dir, names);
            }
        }
    }
}

long count_in(const std::string& name) {
    return atol(name.c_str() + name.find('_') + 1);
}

// Retention removes the lowest counts of each prefix. A folder that is missing above them was not
// pulled.
void mark_gone(std::vector<entry>& rows) {
    std::map<std::string, long> lowest;
    const auto prefix_of = [](const entry& e) { return e.name.substr(0, e.name.find('_')); };
    for (const entry& e : rows) {
        if (!e.folder.empty()) {
            long& count = lowest.try_emplace(prefix_of(e), LONG_MAX).first->second;
            count = std::min(count, count_in(e.name));
        }
    }
    for (entry& e : rows) {
        if (e.folder.empty() && !fields_of(e.name, 4).empty()) {
            e.is_gone = lowest.contains(prefix_of(e)) && count_in(e.name) < lowest[prefix_of(e)];
            e.damage += e.is_gone ? "" : "its folder is not in this copy; ";
        }
    }
}

// --- Captures ----------------------------------------------------------------------------------

// Opens the logs of all channels and notes what there is to be seen of them.
void open_channels(phone& from, capture& about, entry& row, moment set_start) {
    for (const auto& [letter, name] : kChannels) {
        std::string damage;
        for (log_file& file : open_log(row.folder, name, letter, row.time, set_start, damage)) {
            about.letters += letter;
            row.end = std::max(row.end, file.last);
            from.files.push_back(std::move(file));
        }
        if (damage.find("cannot be read") != damage.npos) {
            about.unreadable += letter;
        }
        row.damage += damage;
    }
}

// When the clock was set; 0 when it never was. The row is where its lines are, not in 1970.
moment first_set_time(std::span<log_file> files) {
    moment first = LLONG_MAX;
    for (log_file& file : files) {
        index_log(file);
        for (const log_block& block : file.blocks) {
            first = block.first >= kClockIsSet ? std::min(first, block.first) : first;
        }
    }
    return first == LLONG_MAX ? 0 : first;
}

// Fills in what the logs of a capture say.
void read_logs(phone& from, capture& about, entry& row, moment set_start) {
    const size_t before = from.files.size();
    open_channels(from, about, row, set_start);
    row.line = "until " + format_moment(row.end);
    if (row.time < kClockIsSet) {
        if (const moment set = first_set_time(std::span(from.files).subspan(before)); set != 0) {
            row.time = set;
            row.damage += "its clock began in 1970; ";
        }
    }
}

void read_capture(std::vector<entry>& rows, phone& from, const fs::path& path, moment set_start) {
    const std::string name = path.filename();
    const std::string stem = name.substr(0, name.find(".tar.gz"));
    entry& row = add(rows, "CAPTURE", time_in(stem), name);
    row.number = 0;
    row.folder = path;
    if (fields_of(stem, 3).empty()) {
        row.damage = "its name is cut; ";
        return;
    }
    capture about{name, 0, 0, "", "*"};
    int error = 0;
    entries_of(path, &error);
    if (stem != name) {
        row.damage = "it is packed; ";
    } else if (error != 0) {
        row.damage = error == ELOOP ? "it is a link; " : "it cannot be read; ";
    } else {
        about.unreadable = "";
        read_logs(from, about, row, set_start);
    }
    about.begin = row.time;
    about.end = row.end;
    from.captures.push_back(about);
}

void read_captures(std::vector<entry>& rows, phone& from) {
    moment set_start = 0;  // of the capture before, else the first time in the history
    for (const entry& e : rows) {
        const bool is_first = set_start == 0 || e.time < set_start;
        set_start = e.time >= kClockIsSet && is_first ? e.time : set_start;
    }
    std::vector<fs::path> paths = list(from.logs / "general_log");
    std::ranges::stable_sort(paths, {},
                             [](const fs::path& path) { return count_in(path.filename()); });
    for (const fs::path& path : paths) {
        read_capture(rows, from, path, set_start);
        const moment time = rows.back().time;
        set_start = time >= kClockIsSet ? time : set_start;
    }
}

// Why a channel has no line around a time.
std::string reason(const phone& from, const log_channel& channel, moment time) {
    const capture* before = nullptr;
    const capture* next = nullptr;
    for (const capture& one : from.captures) {
        before = one.begin <= time ? &one : before;
        next = one.begin > time && next == nullptr ? &one : next;
    }
    const bool holds = before != nullptr && before->end + 10 * kSecond >= time;
    if (before != nullptr &&
        (before->unreadable == "*" ||
         (holds && before->unreadable.find(channel.letter) != std::string::npos))) {
        return "cannot be read in " + before->name;
    }
    if (holds) {
        const bool is_on = before->letters.find(channel.letter) != std::string::npos;
        return is_on ? "no line then in " + before->name : "switched off in " + before->name;
    }
    const long first = before == nullptr ? 0 : count_in(before->name) + 1;
    if (next != nullptr && count_in(next->name) > first) {
        return "the capture before " + next->name + " is gone";
    }
    return from.captures.empty() ? "no capture is in this copy" : "not captured then";
}

std::string reasons(const phone& from, moment time, const std::string& lines) {
    std::map<std::string, std::string> channels;
    for (const log_channel& channel : kChannels) {
        if (("\n" + lines).find(std::string{'\n', channel.letter, ' '}) == lines.npos) {
            std::string& letters = channels[reason(from, channel, time)];
            letters += (letters.empty() ? "" : ", ") + std::string(1, channel.letter);
        }
    }
    std::string text;
    for (const auto& [why, letters] : channels) {
        text += "[" + letters + ": " + why + "]\n";
    }
    return text;
}

// --- Description -------------------------------------------------------------------------------

std::string sizes_in(const fs::path& dir) {
    std::ostringstream list;
    for (const fs::path& path : entries_of(dir)) {
        std::error_code code;
        const bool is_file = fs::symlink_status(path, code).type() == fs::file_type::regular;
        list << std::setw(12) << (is_file ? std::to_string(fs::file_size(path, code)) : "-") << "  "
             << path.filename().string() << '\n';
    }
    return list.str();
}

std::string times(size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string summary(const entry& event, const collected& all) {
    std::string text;
    const auto add = [&](const std::string& key, const std::string& value) {
        text += value.empty() ? "" : key + ": " + value + "\n";
    };
    add("Process", event.process);
    add("Build", event.build);
    const auto same = std::ranges::find(all.issues, event.issue, &issue::id);
    if (!event.issue.empty() && same != all.issues.end()) {
        add("Issue", same->id + (same->is_new ? ", new" : "") + ", " + times(same->count, "time") +
                         " on " + times(same->phones, "phone") + ", " + format_moment(same->first) +
                         " to " + format_moment(same->last));
        add("Equal", event.issue_text);
    }
    const auto counted = [](const entry& e) { return e.twin == 0 ? e.number : e.twin; };
    for (const entry& other : all.entries) {
        const bool is_same = event.pid != 0 && other.pid == event.pid &&
                             other.phone == event.phone && counted(other) == counted(event) &&
                             other.number != event.number;
        add("Same crash", is_same ? std::to_string(other.number) + ", " + other.name : "");
    }
    return text;
}

bool holds_logs(const fs::path& dir) {
    static const std::set<fs::path> kNames = {"history.event", "general_log", "crashlog",
                                              "zqeventlog"};
    int error = 0;
    const std::vector<fs::path> paths = entries_of(dir, &error);
    if (error == EACCES) {
        throw std::runtime_error(dir.string() + ": " + strerror(error));
    }
    return std::ranges::any_of(
        paths, [](const fs::path& path) { return kNames.contains(path.filename()); });
}

fs::path find_logs(const fs::path& dir) {
    for (const char* below : {"", "logs", "data/logs"}) {
        if (const fs::path place = dir / below; holds_logs(place)) {
            return place;
        }
    }
    throw std::runtime_error(dir.string() + " holds no history, events or captures");
}

// The directory's name or, where several have it, the path as it was given.
std::vector<phone> phones_in(const std::vector<fs::path>& dirs) {
    std::set<fs::path> known;  // one directory may be given twice
    std::map<std::string, int> names;
    std::vector<phone> phones;
    const auto real = [](const fs::path& dir) {
        return fs::weakly_canonical(fs::absolute(dir / "."));
    };
    for (const fs::path& dir : dirs) {
        if (known.insert(real(dir)).second) {
            ++names[real(dir).filename()];
            phones.push_back({dir, find_logs(real(dir))});
        }
    }
    for (phone& one : phones) {
        const std::string name = real(one.name).filename();
        one.name = names[name] == 1 ? name : one.name;
    }
    return phones;
}

}  // namespace

collected::collected(const std::vector<fs::path>& dirs, symbols& names) : names_(names) {
    phones = phones_in(dirs);
    for (size_t i = 0; i < phones.size(); ++i) {
        std::vector<entry> rows;
        read_history(rows, phones[i].logs, names_);
        read_event_folders(rows, phones[i].logs, names_);
        mark_gone(rows);
        read_captures(rows, phones[i]);
        for (entry& row : rows) {
            row.phone = i;
            entries.push_back(std::move(row));
        }
    }
    std::ranges::stable_sort(entries, {}, &entry::time);
    issues = group(entries);
}

std::string collected::log_at(size_t place, moment time, const fs::path& folder, size_t max_bytes) {
    if (time == 0) {
        return "[the time is unknown]\n";
    }
    phone& from = phones[place];
    std::string damage;
    std::vector<log_file> snapshot;
    std::vector<log_file*> files;
    for (const auto& [letter, name] : kChannels) {
        std::ranges::move(open_log(folder, std::string("pre_") + name, letter, time, 0, damage),
                          std::back_inserter(snapshot));
    }
    for (std::span<log_file> some : {std::span(from.files), std::span(snapshot)}) {
        std::ranges::transform(some, std::back_inserter(files), [](log_file& f) { return &f; });
    }
    const std::string lines = lines_around(files, time, max_bytes);
    return lines + (damage.empty() ? "" : "[" + damage.substr(0, damage.size() - 2) + "]\n") +
           reasons(from, time, lines);
}

std::vector<part> collected::describe(const entry& event, size_t max_bytes) {
    std::string damage;  // is in the entry already
    std::vector<part> parts;
    const auto add = [&](const std::string& title, const std::string& text) {
        parts.emplace_back(title, shortened(text, max_bytes));
    };
    add("Summary", summary(event, *this));
    const fs::path crash = event.folder.empty() ? "" : crash_file(event.folder);
    if (!crash.empty()) {
        const std::string text = names_.name_frames(read_head(crash, kCrashBytes, damage));
        parts.emplace_back("Stack", stack_text(read_crash(text), max_bytes));
    }
    parts.emplace_back("Log, 10 seconds before and after (A android, K kernel, E event, R radio)",
                       log_at(event.phone, event.time, event.folder, max_bytes));
    if (!crash.empty()) {
        add("Files", sizes_in(event.folder));
        add("Head of " + crash.filename().string(), read_head(crash, max_bytes, damage));
        add("Report", read_head(event.folder / "eventfile", max_bytes, damage));
    }
    std::erase_if(parts, [](const part& one) { return one.second.empty(); });
    return parts;
}

}  // namespace look
