// SPDX-License-Identifier: Apache-2.0

// Log files: opening them with their rotated parts, and finding the lines around a time.

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <map>

#include "look/collected.h"
#include "utils/util.h"

namespace look {

using namespace brevix;

namespace {

constexpr moment kSecond = 1000;
constexpr moment kMonth = 31 * 86400 * kSecond;

size_t next_line(std::string_view text, size_t at) {
    return std::min(text.find('\n', at), text.size() - 1) + 1;
}

// The start of the first line at or after `at`.
size_t line_from(std::string_view text, size_t at) {
    return at == 0 ? 0 : next_line(text, at - 1);
}

// The time of the line at `at`, 0 when it has none.
moment time_of(const log_file& file, size_t at) {
    constexpr size_t kBytes = sizeof("12-31 23:59:59.999") - 1;
    const std::string stamp(file.text.substr(at, kBytes));
    const time_t seconds = file.origin / kSecond;
    tm date{};
    gmtime_r(&seconds, &date);
    const char* dot = strptime(stamp.c_str(), "%m-%d %H:%M:%S", &date);
    if (stamp.size() != kBytes || dot != &stamp[kBytes - 4] || *dot != '.') {
        return 0;
    }
    tm next_year = date;
    next_year.tm_year += 1;
    const moment time = timegm(&date) * kSecond + atoi(dot + 1);
    return time >= file.origin ? time : timegm(&next_year) * kSecond + atoi(dot + 1);
}

// The first line with a time at or after `at`, the end of the text when there is none.
size_t stamped_from(const log_file& file, size_t at) {
    at = line_from(file.text, at);
    while (at < file.text.size() && time_of(file, at) == 0) {
        at = next_line(file.text, at);
    }
    return at;
}

// The first line with a time that `is_reached`, which holds for all later ones.
template <typename Test>
size_t first_line(const log_file& file, Test is_reached) {
    size_t low = 0;
    size_t high = file.text.size();
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        const size_t line = stamped_from(file, middle);
        if (line < file.text.size() && !is_reached(time_of(file, line))) {
            low = line + 1;
        } else {
            high = middle;
        }
    }
    return stamped_from(file, low);
}

// Walks backwards: bisection would read a file without any time several times over.
moment last_time(const log_file& file) {
    moment time = 0;
    for (size_t at = file.text.size(); at > 0 && time == 0;) {
        at = at == 1 ? 0 : file.text.rfind('\n', at - 2) + 1;  // npos + 1 is 0
        time = time_of(file, at);
    }
    return time;
}

// Returns false when the file holds no line with a time.
bool open_file(log_file& file, const fs::path& path, std::string& damage) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;  // a FIFO blocks open()
    const android::base::unique_fd fd(open(path.c_str(), kFlags));
    const off_t size = lseek(fd, 0, SEEK_END);
    file.map = size > 0 ? android::base::MappedFile::FromFd(fd, 0, size, PROT_READ) : nullptr;
    if (file.map == nullptr) {
        return false;
    }
    file.text = {file.map->data(), file.map->size()};
    file.end = last_time(file);
    if (file.end == 0) {
        return false;
    }
    // A clock that is set during boot jumps, and bisection needs rising times.
    const size_t rising = first_line(file, [&](moment time) { return time <= file.end; });
    if (rising > stamped_from(file, 0)) {
        damage += path.filename().string() + " is left out up to where its clock jumps; ";
    }
    file.text.remove_prefix(rising);
    file.begin = time_of(file, 0);
    return true;
}

}  // namespace

moment parse_moment(const std::string& text, const char* format) {
    tm date{};
    const char* end = text.size() == 19 ? strptime(text.c_str(), format, &date) : nullptr;
    return end == nullptr || *end != '\0' ? 0 : timegm(&date) * kSecond;
}

std::string format_moment(moment time) {
    const time_t seconds = time / kSecond;
    tm date{};
    return time == 0 ? "-" : format_time("%Y-%m-%d %H:%M:%S", *gmtime_r(&seconds, &date));
}

void open_log(const fs::path& dir, const std::string& name, char channel, moment start,
              std::vector<log_file>& files, std::string& damage) {
    int parts = 0;
    int highest = 0;
    std::vector<fs::path> paths = entries_of(dir);
    std::reverse(paths.begin(), paths.end());  // the highest number is the oldest
    for (const fs::path& path : paths) {
        if (!path.filename().string().starts_with(name + ".log")) {
            continue;
        }
        parts += 1;
        highest = std::max(highest, atoi(path.extension().c_str() + 1));
        log_file file{channel, nullptr, {}, start - kMonth, 0, 0};
        if (open_file(file, path, damage)) {
            files.push_back(file);
        } else {
            damage += path.filename().string() + " holds no lines; ";
        }
    }
    if (parts > 0 && highest >= parts) {  // numbers begin at 1, the file in use has none
        damage += "a part of " + name + ".log is missing; ";
    }
}

std::string lines_around(const std::vector<log_file>& files, moment time, size_t max_bytes) {
    const moment begin = time - 10 * kSecond;
    const moment end = time + 11 * kSecond;
    std::multimap<moment, std::string> lines;
    std::map<std::string, const log_file*> owners;  // a log snapshot repeats what the capture holds
    for (const log_file& file : files) {
        if (file.begin >= end || file.end < begin) {
            continue;
        }
        moment stamp = begin;
        const auto add = [&](const std::string& text) {
            if (owners.try_emplace(text, &file).first->second == &file) {
                lines.emplace(stamp, text);
            }
        };
        const auto from = [&](moment wanted) {
            return first_line(file, [=](moment found) { return found >= wanted; });
        };
        const size_t middle = from(time + kSecond);
        const size_t first = from(begin);
        const size_t last = from(end);
        const size_t shown = std::max(first, middle - std::min(middle, max_bytes / 2));
        const size_t shown_end = std::min(last, middle + max_bytes / 2);
        if (shown > first) {
            add("[more lines before: cut]");
        }
        for (size_t at = line_from(file.text, shown); at < shown_end;
             at = next_line(file.text, at)) {
            const moment own = time_of(file, at);
            stamp = own == 0 ? stamp : own;  // a line without a time continues a message
            const std::string_view line = file.text.substr(at, file.text.find('\n', at) - at);
            add(std::string{file.channel, ' '}.append(line));
        }
        if (shown_end < last) {
            add("[more lines behind: cut]");
        }
    }
    std::string text;
    for (const auto& [stamp, line] : lines) {
        text += line + "\n";
    }
    return text;
}

}  // namespace look
