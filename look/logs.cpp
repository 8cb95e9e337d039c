// SPDX-License-Identifier: Apache-2.0

#include "look/logs.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <numeric>
#include <optional>
#include <set>

#include "look/files.h"

namespace look {

namespace {

constexpr moment kMonth = 31 * kDay;
constexpr off_t kBlockBytes = 32 << 10;
constexpr size_t kLineBytes = 8 << 10;  // more than logcat writes in one
constexpr int kEndlessBytes = 16 << 20;

struct stamp {
    std::chrono::month_day date;
    moment time_of_day = 0;
};

// Reads the digits of "12-31 23:59:59.999" where `kForm` has 0; nothing when the text has another
// form.
std::optional<stamp> read_stamp(std::string_view line) {
    constexpr std::string_view kForm = "00-00 00:00:00.000";
    unsigned digits[kForm.size()] = {};
    for (size_t i = 0; i < kForm.size(); ++i) {
        digits[i] = i < line.size() ? line[i] - '0' : 10;
        if (kForm[i] == '0' ? digits[i] > 9 : i >= line.size() || line[i] != kForm[i]) {
            return {};
        }
    }
    const auto two = [&](size_t at) { return digits[at] * 10 + digits[at + 1]; };
    const moment time =
        ((two(6) * 60 + two(9)) * 60 + two(12)) * kSecond + digits[15] * 100 + two(16);
    const std::chrono::month_day date{std::chrono::month(two(0)), std::chrono::day(two(3))};
    return date.ok() && time < kDay ? std::optional(stamp{date, time}) : std::nullopt;
}

// Midnight of the first such day that is not older than `origin`.
moment day_from(const stamp& line, moment origin) {
    using namespace std::chrono;
    const sys_time<milliseconds> begin{milliseconds(origin)};
    const year first = year_month_day(floor<days>(begin)).year();
    sys_time<milliseconds> day = sys_days(first / line.date);
    if (day + milliseconds(line.time_of_day) < begin) {
        day = sys_days((first + years(1)) / line.date);
    }
    return day.time_since_epoch().count();
}

// Gives the lines of one file their times. Successive lines mostly are of the same day.
class clock_of {
  public:
    explicit clock_of(const log_file& file) : file_(file) {}

    // 0 for a line without a time.
    moment time(std::string_view line) {
        const std::optional<stamp> found = read_stamp(line);
        if (!found) {
            return 0;
        }
        if (found->date != date_) {
            date_ = found->date;
            day_ = day_from(*found, file_.origin);
            const bool is_counted = day_ < file_.origin + kMonth + 2 * kDay;
            if (file_.origin < kClockIsSet && !is_counted && file_.set_origin != 0) {
                day_ = day_from(*found, file_.set_origin);
            }
        }
        return day_ + found->time_of_day;
    }

  private:
    const log_file& file_;
    std::chrono::month_day date_{};
    moment day_ = 0;
};

// A block ends where the clock jumps, so that its times tell what is in it.
void add_to_blocks(std::vector<log_block>& blocks, off_t at, moment time) {
    constexpr moment kBack = 60 * kSecond;
    constexpr moment kAhead = 3600 * kSecond;
    if (blocks.empty() || at - blocks.back().at >= kBlockBytes ||
        time < blocks.back().last - kBack || time > blocks.back().last + kAhead) {
        blocks.push_back({at, 0, time, time});
    }
    blocks.back().first = std::min(blocks.back().first, time);
    blocks.back().last = std::max(blocks.back().last, time);
}

std::string read_at(const fs::path& path, off_t at, off_t bytes) {
    std::string text(bytes, '\0');
    const android::base::unique_fd fd = open_file(path);
    const ssize_t size = fd.ok() ? pread(fd.get(), text.data(), bytes, at) : 0;
    text.resize(std::max<ssize_t>(size, 0));
    return text;
}

// The lines of one file around a time: of too many the nearest.
class window {
  public:
    window(moment time, size_t max_bytes) : middle_(time + kSecond), max_bytes_(max_bytes / 2) {}

    void add(moment time, std::string line) {
        half& to = time < middle_ ? before_ : behind_;
        if (&to == &behind_ && to.bytes >= max_bytes_) {
            to.is_cut = true;
            return;
        }
        to.bytes += line.size() - 1;  // as in the file: the letter and a blank for "\n"
        to.lines.emplace_back(time, std::move(line));
        for (; before_.bytes > max_bytes_; before_.lines.pop_front()) {
            before_.bytes -= before_.lines.front().second.size() - 1;
            before_.is_cut = true;
        }
    }

    // Inserts the lines that `is_new`.
    template <typename Test>
    void append_to(std::multimap<moment, std::string>& lines, Test is_new) {
        if (before_.is_cut) {
            before_.lines.emplace_front(before_.lines.empty() ? middle_ : before_.lines[0].first,
                                        "[more lines before: cut]");
        }
        if (behind_.is_cut) {
            behind_.lines.emplace_back(behind_.lines.back().first, "[more lines behind: cut]");
        }
        for (const half* some : {&before_, &behind_}) {
            for (const auto& [time, line] : some->lines) {
                if (is_new(line)) {
                    lines.emplace(time, line);
                }
            }
        }
    }

  private:
    struct half {
        std::deque<std::pair<moment, std::string>> lines;
        size_t bytes = 0;
        bool is_cut = false;
    };

    moment middle_;
    size_t max_bytes_;
    half before_, behind_;
};

// Adds the lines of one block that are from `begin` up to `end`. A line without a time continues a
// message.
void add_lines(const log_file& file, const log_block& block, moment begin, moment end,
               window& lines) {
    constexpr off_t kMaxBytes = 256 << 10;
    const std::string text = read_at(file.path, block.at, std::min(block.bytes, kMaxBytes));
    clock_of clock(file);
    moment time = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = take_line(rest);
        const moment own = clock.time(line);
        time = own == 0 ? time : own;
        if (time >= begin && time < end) {
            lines.add(time, std::string{file.channel, ' '}.append(line.substr(0, kLineBytes)));
        }
    }
    if (block.bytes > kMaxBytes && time >= begin && time < end) {
        lines.add(time, "[a line or message too long: cut]");
    }
}

// Reads the end of the file: only a search needs all of it.
moment last_time(log_file& file) {
    constexpr off_t kTailBytes = 64 << 10;
    std::error_code error;
    const auto size = static_cast<off_t>(fs::file_size(file.path, error));
    const off_t at = error || size < kTailBytes ? 0 : size - kTailBytes;
    const std::string tail = read_at(file.path, at, kTailBytes);
    std::string_view rest = tail;
    clock_of clock(file);
    moment time = 0;
    if (at > 0) {
        take_line(rest);  // its start may be missing
    }
    for (; !rest.empty(); take_line(rest)) {
        const moment own = clock.time(rest);
        time = own == 0 ? time : own;
    }
    if (time == 0 && at > 0) {
        index_log(file);
        time = file.blocks.empty() ? 0 : file.blocks.back().last;
    }
    return time;
}

}  // namespace

moment parse_moment(const std::string& text, const char* format) {
    tm date{};
    const char* end = strptime(text.c_str(), format, &date);
    return end != text.c_str() + text.size() ? 0 : timegm(&date) * kSecond;
}

std::string format_moment(moment time) {
    const time_t seconds = time / kSecond;
    tm date{};
    char text[64] = "-";
    if (time != 0) {
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", gmtime_r(&seconds, &date));
    }
    return text;
}

std::vector<log_file> open_log(const fs::path& dir, const std::string& name, char channel,
                               moment start, moment set_start, std::string& damage) {
    int highest = 0;
    std::vector<log_file> files;
    std::vector<fs::path> paths = entries_of(dir);
    std::reverse(paths.begin(), paths.end());  // the highest number is the oldest
    for (const fs::path& path : paths) {
        const std::string file = path.filename();
        if (file.starts_with(name + ".log")) {
            highest = std::max(highest, atoi(path.extension().c_str() + 1));
            files.push_back(
                {channel, path, start - kMonth, set_start == 0 ? 0 : set_start - kMonth});
            if (!open_file(path).ok()) {
                damage += damage_of(file, errno);
            } else if (files.back().last = last_time(files.back()); files.back().last == 0) {
                damage += file + " holds no lines; ";
            }
            damage += files.back().is_endless ? file + " has a line without end; " : "";
        }
    }
    if (!files.empty() && highest >= static_cast<int>(files.size())) {
        // Numbers begin at 1, the file in use has none.
        damage += "a part of " + name + ".log is missing; ";
    }
    return files;
}

void index_log(log_file& file) {
    constexpr int kReadBytes = 1 << 20;
    const android::base::unique_fd fd = open_file(file.path);
    std::string buffer(kReadBytes, '\0');
    clock_of clock(file);
    off_t at = 0;
    int reads_inside = 0;  // of a line longer than the buffer
    ssize_t size = 0;
    file.is_indexed = true;
    while (fd.ok() && !file.is_endless &&
           (size = pread(fd.get(), buffer.data(), buffer.size(), at)) > 0) {
        std::string_view rest(buffer.data(), size);
        while (!rest.empty()) {
            const size_t end = rest.find('\n');
            if (end == rest.npos && rest.data() != buffer.data()) {
                break;  // read again from its start
            }
            const moment time = reads_inside > 0 ? 0 : clock.time(rest);
            if (time != 0) {
                add_to_blocks(file.blocks, at + (rest.data() - buffer.data()), time);
            }
            reads_inside = end == rest.npos ? reads_inside + 1 : 0;
            take_line(rest);
            if (!file.blocks.empty()) {
                file.blocks.back().bytes = at + size - rest.size() - file.blocks.back().at;
            }
        }
        at += size - static_cast<ssize_t>(rest.size());
        file.is_endless = reads_inside >= kEndlessBytes / kReadBytes;
    }
}

std::string lines_around(const std::vector<log_file*>& files, moment time, size_t max_bytes) {
    const moment begin = time - 10 * kSecond;
    const moment end = time + 11 * kSecond;
    std::multimap<moment, std::string> lines;
    std::set<std::string> notes;
    std::map<std::string, const log_file*> owners;  // a log snapshot repeats what the capture holds
    std::map<char, std::string> shown;  // an "x" for each block of the channel with lines
    for (log_file* file : files) {
        if (!file->is_indexed) {
            index_log(*file);
        }
        const std::string name = file->path.filename();
        window nearest(time, max_bytes);
        for (const log_block& block : file->blocks) {
            const bool is_near = block.first < end && block.last >= begin;
            shown[file->channel] += name.starts_with("pre_") ? "" : is_near ? "x" : " ";
            if (is_near) {
                add_lines(*file, block, begin, end, nearest);
            }
        }
        if (file->is_endless) {
            notes.insert("[" + name + " is read up to a line without end]\n");
        }
        nearest.append_to(lines, [&](const std::string& line) {
            return owners.try_emplace(line, file).first->second == file;
        });
    }
    for (const auto& [channel, blocks] : shown) {
        if (blocks.find(' ', blocks.find('x')) < blocks.find_last_not_of(' ') + 1) {
            notes.insert(std::string{'[', channel} +
                         ": the clock has shown this time more than once]\n");
        }
    }
    std::string text;
    for (const auto& [at, line] : lines) {
        text += line + "\n";
    }
    return std::accumulate(notes.begin(), notes.end(), text);
}

}  // namespace look
