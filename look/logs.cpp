// SPDX-License-Identifier: Apache-2.0

#include "look/logs.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <numeric>
#include <set>

#include "look/files.h"

namespace look {

namespace {

constexpr moment kMonth = 31 * kDay;
constexpr off_t kBlockBytes = 32 << 10;
constexpr size_t kLineBytes = 8 << 10;  // more than logcat writes in one
constexpr int kEndlessBytes = 16 << 20;
constexpr size_t kStampBytes = sizeof("12-31 23:59:59.999") - 1;

struct stamp {
    int month = 0, day = 0;
    moment time_of_day = 0;
};

// The digits of "12-31 23:59:59.999" where `form` has 0; false when the text has another form.
bool read_stamp(std::string_view line, stamp& result) {
    constexpr std::string_view kForm = "00-00 00:00:00.000";
    if (line.size() < kStampBytes) {
        return false;
    }
    int digits[kStampBytes] = {};
    for (size_t i = 0; i < kStampBytes; ++i) {
        digits[i] = line[i] - '0';
        if (kForm[i] == '0' ? digits[i] < 0 || digits[i] > 9 : line[i] != kForm[i]) {
            return false;
        }
    }
    const auto two = [&](size_t at) { return digits[at] * 10 + digits[at + 1]; };
    result = {two(0), two(3),
              ((two(6) * 60 + two(9)) * 60 + two(12)) * kSecond + digits[15] * 100 + two(16)};
    return result.month >= 1 && result.month <= 12 && result.day >= 1 && result.day <= 31 &&
           result.time_of_day < kDay;
}

// Midnight of the first such day that is not older than `origin`.
moment day_from(const stamp& line, moment origin) {
    const time_t seconds = origin / kSecond;
    tm date{};
    gmtime_r(&seconds, &date);
    const int year = date.tm_year;
    moment day = 0;
    for (int i = 0; i < 2 && (i == 0 || day + line.time_of_day < origin); ++i) {
        date = {};
        date.tm_year = year + i;
        date.tm_mon = line.month - 1;
        date.tm_mday = line.day;
        day = timegm(&date) * kSecond;
    }
    return day;
}

// Gives the lines of one file their times. Successive lines mostly are of the same day.
class clock_of {
  public:
    explicit clock_of(const log_file& file) : file_(file) {}

    // 0 for a line without a time.
    moment time(std::string_view line) {
        stamp found;
        if (!read_stamp(line, found)) {
            return 0;
        }
        if (found.month != known_.month || found.day != known_.day) {
            known_ = found;
            day_ = day_from(found, file_.origin);
            const bool is_counted = day_ < file_.origin + kMonth + 2 * kDay;
            if (file_.origin < kClockIsSet && !is_counted && file_.set_origin != 0) {
                day_ = day_from(found, file_.set_origin);
            }
        }
        return day_ + found.time_of_day;
    }

  private:
    const log_file& file_;
    stamp known_;
    moment day_ = 0;
};

void end_block(std::vector<log_block>& blocks, off_t at) {
    if (!blocks.empty()) {
        blocks.back().bytes = at - blocks.back().at;
    }
}

// A block ends where the clock jumps, so that its times tell what is in it.
void add_to_blocks(std::vector<log_block>& blocks, off_t at, moment time) {
    constexpr moment kBack = 60 * kSecond;
    constexpr moment kAhead = 3600 * kSecond;
    if (blocks.empty() || at - blocks.back().at >= kBlockBytes ||
        time < blocks.back().last - kBack || time > blocks.back().last + kAhead) {
        end_block(blocks, at);
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
        const size_t bytes = line.size() - 1;  // as in the file: the letter and a blank for "\n"
        if (time < middle_) {
            bytes_before_ += bytes;
            before_.emplace_back(time, std::move(line));
        } else if (bytes_behind_ < max_bytes_) {
            bytes_behind_ += bytes;
            behind_.emplace_back(time, std::move(line));
        } else {
            is_cut_behind_ = true;
        }
        for (; bytes_before_ > max_bytes_; before_.pop_front()) {
            bytes_before_ -= before_.front().second.size() - 1;
            is_cut_before_ = true;
        }
    }

    // Inserts the lines that `is_new`.
    template <typename Test>
    void append_to(std::multimap<moment, std::string>& lines, Test is_new) {
        if (is_cut_before_) {
            before_.emplace_front(before_.empty() ? middle_ : before_.front().first,
                                  "[more lines before: cut]");
        }
        if (is_cut_behind_) {
            behind_.emplace_back(behind_.back().first, "[more lines behind: cut]");
        }
        for (const auto* some : {&before_, &behind_}) {
            for (const auto& [time, line] : *some) {
                if (is_new(line)) {
                    lines.emplace(time, line);
                }
            }
        }
    }

  private:
    moment middle_;
    size_t max_bytes_;
    std::deque<std::pair<moment, std::string>> before_, behind_;
    size_t bytes_before_ = 0, bytes_behind_ = 0;
    bool is_cut_before_ = false, is_cut_behind_ = false;
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
    for (bool is_whole = at == 0; !rest.empty(); is_whole = true) {
        const moment own = clock.time(is_whole ? rest : rest.substr(0, 0));
        take_line(rest);
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
    int error = 0;
    int highest = 0;
    std::vector<log_file> files;
    std::vector<fs::path> paths = entries_of(dir, error);
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
            rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
        }
        at += size - static_cast<ssize_t>(rest.size());
        file.is_endless = reads_inside >= kEndlessBytes / kReadBytes;
    }
    end_block(file.blocks, at);
}

std::string lines_around(const std::vector<log_file*>& files, moment time, size_t max_bytes) {
    const moment begin = time - 10 * kSecond;
    const moment end = time + 11 * kSecond;
    std::multimap<moment, std::string> lines;
    std::set<std::string> notes;
    std::map<std::string, const log_file*> owners;  // a log snapshot repeats what the capture holds
    std::map<char, int> place;                      // of the block in its channel, from 1 on
    std::map<char, int> last;                       // place of the last one with lines
    for (log_file* file : files) {
        if (!file->is_indexed) {
            index_log(*file);
        }
        const std::string name = file->path.filename();
        const char channel = file->channel;
        window nearest(time, max_bytes);
        for (const log_block& block : file->blocks) {
            ++place[channel];
            if (block.first < end && block.last >= begin) {
                if (last[channel] != 0 && place[channel] > last[channel] + 1 &&
                    !name.starts_with("pre_")) {
                    notes.insert(std::string{'[', channel} +
                                 ": the clock has shown this time more than once]\n");
                }
                last[channel] = place[channel];
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
    std::string text;
    for (const auto& [at, line] : lines) {
        text += line + "\n";
    }
    return std::accumulate(notes.begin(), notes.end(), text);
}

}  // namespace look
