// SPDX-License-Identifier: Apache-2.0

// Reads history, event folders and captures, and describes one entry of them.

#include "look/collected.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>

#include "look/crash.h"
#include "look/files.h"

namespace look {

using namespace brevix;

namespace {

constexpr size_t kReportBytes = 16 << 10;
constexpr size_t kCrashBytes = 16 << 20;
constexpr size_t kHistoryBytes = 64 << 20;
constexpr int kMaxEntries = 100'000;
constexpr size_t kWordBytes = 512;

// The directory of each category's event folders.
struct category {
    const char* name;
    const char* dir;
};
constexpr category kCategories[] = {{"CRASH", "crashlog"}, {"CUSTOM", "zqeventlog"}};

// Throws when the directory is there and cannot be listed: whole categories would be missing
// without a word.
std::vector<fs::path> list(const fs::path& dir) {
    int error = 0;
    const std::vector<fs::path> paths = entries_of(dir, error);
    if (error != 0 && error != ENOENT) {
        throw std::runtime_error(dir.string() + ": " +
                                 (error == ELOOP ? "links are not followed" : strerror(error)));
    }
    return paths;
}

// "crashlog_5_ANR_2026-01-01-00-09-30" in its fields; empty when it has another form.
std::vector<std::string> fields_of(std::string name, size_t count) {
    std::vector<std::string> fields;
    for (size_t at = 0; at != name.npos && fields.size() <= count; name.erase(0, at + 1)) {
        at = name.find('_');
        fields.push_back(name.substr(0, at));
        if (at == name.npos) {
            break;
        }
    }
    const bool has_count = fields.size() == count && !fields[1].empty() &&
                           fields[1].find_first_not_of("0123456789") == name.npos;
    return has_count ? fields : std::vector<std::string>();
}

moment time_in(const std::string& name) {
    return parse_moment(name.substr(name.rfind('_') + 1), "%Y-%m-%d-%H-%M-%S");
}

fs::path crash_file(const fs::path& folder) {
    int error = 0;
    for (const fs::path& path : entries_of(folder, error)) {
        const std::string name = path.filename();
        if (name.find('@') != name.npos || name.starts_with("tombstone") ||
            name.starts_with("ZQEvent_")) {
            return path;
        }
    }
    return folder / "crash file";
}

// --- Events
// ------------------------------------------------------------------------------------------

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
    if (fields.empty() || time_in(event.name) == 0) {
        event.damage += "its folder's name is cut; ";
        return;
    }
    event.type = fields[2];
    event.package = event.category == "CUSTOM" ? fields[0] : "";
    const fs::path folder = parent / event.name;
    int error = 0;
    entries_of(folder, error);
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

// Reads one phone's directories into the entries of all.
class reader {
  public:
    reader(phone& from, size_t place, symbols& names, std::vector<entry>& entries)
        : phone_(from), place_(place), names_(names), entries_(entries) {}

    void read() {
        read_history();
        read_event_folders();
        mark_gone();
        read_captures();
    }

  private:
    entry& add(const std::string& category, moment time, const std::string& name = "") {
        entry& made = entries_.emplace_back();
        made.phone = place_;
        made.number = ++last_number_;
        made.time = time;
        made.category = category;
        made.name = name;
        return made;
    }

    void read_history();
    void read_history_line(std::string_view line);
    void read_event_folders();
    void mark_gone();
    void read_captures();
    void read_capture(const fs::path& path, moment set_start);

    phone& phone_;
    size_t place_;
    symbols& names_;
    std::vector<entry>& entries_;
    int last_number_ = 0;
};

// "CRASH   2026-01-01/00:09:30 ANR /data/logs/crashlog/crashlog_5_ANR_2026-01-01-00-09-30".
struct history_line {
    std::string_view before, category, rest;  // `before`: a line that was cut
    moment time = 0;
};

history_line read_line_at(std::string_view line, size_t at) {
    for (const std::string_view category : {"REBOOT", "CRASH", "CUSTOM"}) {
        std::string_view rest = line.substr(at);
        if (!rest.starts_with(category)) {
            continue;
        }
        rest.remove_prefix(category.size());
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
        const moment time = parse_moment(std::string(rest.substr(0, 19)), "%Y-%m-%d/%H:%M:%S");
        rest.remove_prefix(std::min<size_t>(rest.size(), 19));
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
        rest = rest.substr(0, rest.find_last_not_of(' ') + 1);
        if (time != 0 && !rest.empty()) {
            return {line.substr(0, at), category, rest, time};
        }
    }
    return {};
}

void reader::read_history_line(std::string_view line) {
    constexpr size_t kMaxBytes = 4096;
    line = line.substr(0, kMaxBytes);
    history_line found;
    for (size_t at = line.size(); at-- > 0 && found.time == 0;) {
        found = read_line_at(line, at);
    }
    if (found.time == 0) {
        entry& event = add("?", entries_.empty() ? 0 : entries_.back().time);
        event.line = line;
        event.damage = "its line is cut; ";
        return;
    }
    if (!found.before.empty()) {
        read_history_line(found.before);
    }
    entry& event = add(std::string(found.category), found.time);
    event.type = found.rest;
    const size_t path = found.rest.find(" /");
    if (path != found.rest.npos && event.category != "REBOOT") {
        event.type = found.rest.substr(0, path);
        event.name = fs::path(found.rest).filename();
        const bool is_crash = event.category == kCategories[0].name;
        read_folder(event, phone_.logs / kCategories[is_crash ? 0 : 1].dir, names_);
    }
}

void reader::read_history() {
    const fs::path path = phone_.logs / "history.event";
    std::string damage;  // captures and folders may have come without a history
    const std::string text = read_head(path, kHistoryBytes, damage);
    if (!damage.empty() && !damage.starts_with("no ")) {
        throw std::runtime_error(path.string() + " cannot be read");
    }
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = take_line(rest);
        if (last_number_ >= kMaxEntries) {
            add("?", entries_.back().time).damage =
                "the history is too long, its rest is left out; ";
            return;
        }
        if (!line.empty()) {
            read_history_line(line);
        }
    }
}

// Adds the events that have lost their line in the history.
void reader::read_event_folders() {
    std::set<std::string> known;
    for (const entry& event : entries_) {
        known.insert(event.phone == place_ ? event.name : "");
    }
    for (const auto& [category, dir] : kCategories) {
        for (const fs::path& path : list(phone_.logs / dir)) {
            const std::string name = path.filename();
            if (!known.contains(name)) {
                entry& event = add(category, time_in(name), name);
                event.damage = "not in the history; ";
                read_folder(event, phone_.logs / dir, names_);
            }
        }
    }
}

// Retention removes the lowest counts of each prefix. A folder that is missing above them was not
// pulled.
void reader::mark_gone() {
    std::map<std::string, long> lowest;
    const auto prefix_of = [](const entry& e) { return e.name.substr(0, e.name.find('_')); };
    const auto count_of = [](const entry& e) {
        return atol(e.name.c_str() + e.name.find('_') + 1);
    };
    for (const entry& e : entries_) {
        if (e.phone == place_ && !e.folder.empty()) {
            long& count = lowest.try_emplace(prefix_of(e), count_of(e)).first->second;
            count = std::min(count, count_of(e));
        }
    }
    for (entry& e : entries_) {
        if (e.phone == place_ && e.folder.empty() && !fields_of(e.name, 4).empty() &&
            time_in(e.name) != 0) {
            const auto kept = lowest.find(prefix_of(e));
            e.is_gone = kept != lowest.end() && count_of(e) < kept->second;
            e.damage += e.is_gone ? "" : "its folder is not in this copy; ";
        }
    }
}

// --- Captures
// ----------------------------------------------------------------------------------------

long count_in(const std::string& name) {
    return atol(name.c_str() + name.find('_') + 1);
}

// Opens the logs of all channels and notes what there is to be seen of them.
void open_channels(phone& from, capture& about, entry& row, moment set_start) {
    for (const log_channel& channel : kChannels) {
        std::string damage;
        for (log_file& file :
             open_log(row.folder, channel.name, channel.letter, row.time, set_start, damage)) {
            about.letters += channel.letter;
            row.end = std::max(row.end, file.last);
            from.files.push_back(std::move(file));
        }
        about.unreadable +=
            damage.find("cannot be read") == damage.npos ? "" : std::string(1, channel.letter);
        row.damage += damage;
    }
}

// When the clock was set. The row is where its lines are, not in 1970.
moment first_set_time(std::vector<log_file>& files, size_t from) {
    moment first = 0;
    for (size_t i = from; i < files.size(); ++i) {
        index_log(files[i]);
        for (const log_block& block : files[i].blocks) {
            const bool is_set = block.first >= kClockIsSet;
            first = is_set && (first == 0 || block.first < first) ? block.first : first;
        }
    }
    return first;
}

void reader::read_capture(const fs::path& path, moment set_start) {
    const std::string name = path.filename();
    const bool is_packed = name.ends_with(".tar.gz");
    int error = 0;
    entry& row = add("CAPTURE", time_in(is_packed ? name.substr(0, name.size() - 7) : name), name);
    row.number = 0;
    row.folder = path;
    if (fields_of(name, 3).empty() || row.time == 0) {
        row.damage = "its name is cut; ";
        return;
    }
    capture about{name, row.time, 0, "", ""};
    entries_of(path, error);
    if (is_packed || error != 0) {
        row.damage = is_packed        ? "it is packed; "
                     : error == ELOOP ? "it is a link; "
                                      : "it cannot be read; ";
        about.unreadable = "*";
    } else {
        const size_t before = phone_.files.size();
        open_channels(phone_, about, row, set_start);
        row.line = "until " + format_moment(row.end);
        const moment set = row.time < kClockIsSet ? first_set_time(phone_.files, before) : 0;
        row.damage += set == 0 ? "" : "its clock began in 1970; ";
        row.time = set == 0 ? row.time : set;
    }
    about.begin = row.time;
    about.end = row.end;
    phone_.captures.push_back(about);
}

void reader::read_captures() {
    moment set_start = 0;  // of the capture before, else the first time in the history
    for (const entry& e : entries_) {
        const bool is_set = e.phone == place_ && e.time >= kClockIsSet;
        set_start = is_set && (set_start == 0 || e.time < set_start) ? e.time : set_start;
    }
    std::vector<fs::path> paths = list(phone_.logs / "general_log");
    std::ranges::stable_sort(paths, {},
                             [](const fs::path& path) { return count_in(path.filename()); });
    for (const fs::path& path : paths) {
        read_capture(path, set_start);
        const moment time = entries_.back().time;
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

// --- Description
// -------------------------------------------------------------------------------------

std::string sizes_in(const fs::path& dir) {
    int error = 0;
    std::string list;
    for (const fs::path& path : entries_of(dir, error)) {
        std::error_code code;
        const fs::file_status status = fs::symlink_status(path, code);
        const std::string size = fs::is_symlink(status) ? "link"
                                 : fs::is_regular_file(status)
                                     ? std::to_string(fs::file_size(path, code))
                                     : "-";
        list += std::string(12 - std::min<size_t>(12, size.size()), ' ') + size + "  " +
                path.filename().string() + "\n";
    }
    return list;
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
    for (const entry& other : all.entries) {
        const bool is_twin = other.phone == event.phone && other.number != event.number &&
                             event.pid != 0 && other.pid == event.pid &&
                             (other.twin == event.number || event.twin == other.number ||
                              (event.twin != 0 && event.twin == other.twin));
        add("Same crash", is_twin ? std::to_string(other.number) + ", " + other.name : "");
    }
    return text;
}

bool holds_logs(const fs::path& dir) {
    int error = 0;
    for (const fs::path& path : entries_of(dir, error)) {
        const std::string name = path.filename();
        if (name == "history.event" || name == "general_log" || name == kCategories[0].dir ||
            name == kCategories[1].dir) {
            return true;
        }
    }
    if (error != 0 && error != ENOENT && error != ELOOP && error != ENOTDIR) {
        throw std::runtime_error(dir.string() + ": " + strerror(error));
    }
    return false;
}

fs::path find_logs(const fs::path& dir) {
    for (const char* below : {"", "logs", "data/logs"}) {
        if (const fs::path place = dir / below; holds_logs(place)) {
            return place;
        }
    }
    throw std::runtime_error(dir.string() + " holds no history, events or captures");
}

// The last components of each path, as many as tell it from all others.
std::vector<std::string> names_of(const std::vector<fs::path>& dirs) {
    const auto last = [](const fs::path& path, size_t count) {
        fs::path name;
        for (auto at = path.end(); at != path.begin() && count > 0; --count) {
            name = name.empty() ? *--at : *--at / name;
        }
        return name.string();
    };
    std::vector<std::string> names(dirs.size());
    for (size_t i = 0; i < dirs.size(); ++i) {
        size_t count = 1;
        const auto is_same = [&](const fs::path& other) {
            return other != dirs[i] && last(other, count) == last(dirs[i], count);
        };
        while (std::ranges::any_of(dirs, is_same)) {
            ++count;
        }
        names[i] = last(dirs[i], count);
    }
    return names;
}

std::vector<fs::path> without_repeats(const std::vector<fs::path>& dirs) {
    std::vector<fs::path> result;
    for (const fs::path& dir : dirs) {
        const fs::path canonical = fs::weakly_canonical(dir);
        const fs::path path = canonical.has_filename() ? canonical : canonical.parent_path();
        if (std::ranges::find(result, path) == result.end()) {
            result.push_back(path);
        }
    }
    return result;
}

}  // namespace

collected::collected(const std::vector<fs::path>& dirs, symbols& names) : names_(names) {
    const std::vector<fs::path> places = without_repeats(dirs);
    const std::vector<std::string> phone_names = names_of(places);
    for (size_t i = 0; i < places.size(); ++i) {
        phones.push_back({phone_names[i], find_logs(places[i])});
    }
    for (size_t i = 0; i < phones.size(); ++i) {
        reader(phones[i], i, names_, entries).read();
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
    for (const log_channel& channel : kChannels) {
        for (log_file& file : open_log(folder, std::string("pre_") + channel.name, channel.letter,
                                       time, 0, damage)) {
            snapshot.push_back(std::move(file));
        }
    }
    for (std::vector<log_file>* some : {&from.files, &snapshot}) {
        for (log_file& file : *some) {
            files.push_back(&file);
        }
    }
    const std::string lines = lines_around(files, time, max_bytes);
    return lines + (damage.empty() ? "" : "[" + damage.substr(0, damage.size() - 2) + "]\n") +
           reasons(from, time, lines);
}

std::vector<part> collected::describe(const entry& event, size_t max_bytes) {
    std::string damage;  // is in the entry already
    std::vector<part> parts;
    const auto add = [&](const std::string& title, const std::string& text) {
        if (!text.empty()) {
            parts.emplace_back(title, shortened(text, max_bytes));
        }
    };
    const fs::path crash = event.folder.empty() ? "" : crash_file(event.folder);
    add("Summary", summary(event, *this));
    if (!event.folder.empty()) {
        const std::string text = names_.name_frames(read_head(crash, kCrashBytes, damage));
        parts.emplace_back("Stack", stack_text(read_crash(text), max_bytes));
    }
    parts.emplace_back("Log, 10 seconds before and after (A android, K kernel, E event, R radio)",
                       log_at(event.phone, event.time, event.folder, max_bytes));
    if (!event.folder.empty()) {
        add("Files", sizes_in(event.folder));
        add("Head of " + crash.filename().string(), read_head(crash, max_bytes, damage));
        add("Report", read_head(event.folder / "eventfile", max_bytes, damage));
    }
    std::erase_if(parts, [](const part& one) { return one.second.empty(); });
    return parts;
}

}  // namespace look
