// SPDX-License-Identifier: Apache-2.0
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <set>

#include "look/collected.h"

namespace look {

namespace {

struct log_line {
    moment time;
    std::string text;
};

constexpr moment kSecond = 1000;
constexpr moment kMonth = 31 * 86400 * kSecond;

size_t next_line(std::string_view text, size_t at) {
    return std::min(text.find('\n', at), text.size() - 1) + 1;
}

// The begin of the first line from `at` on.
size_t line_from(std::string_view text, size_t at) {
    return at == 0 ? 0 : next_line(text, at - 1);
}

// The time of the line at `at`, 0 when it has none.
moment time_of(std::string_view text, size_t at, moment origin) {
    constexpr size_t kBytes = sizeof("12-31 23:59:59.999") - 1;
    const std::string stamp(text.substr(at, kBytes));
    const time_t seconds = origin / kSecond;
    tm date{};
    gmtime_r(&seconds, &date);
    const char* dot = strptime(stamp.c_str(), "%m-%d %H:%M:%S", &date);
    if (stamp.size() != kBytes || dot != &stamp[kBytes - 4] || *dot != '.') {
        return 0;
    }
    tm next_year = date;
    next_year.tm_year += 1;
    const moment time = timegm(&date) * kSecond + atoi(dot + 1);
    return time >= origin ? time : timegm(&next_year) * kSecond + atoi(dot + 1);
}

// The first line with a time that `is_reached`; all later ones are.
template <typename Test>
size_t first_line(const log_file& file, Test is_reached) {
    size_t low = 0;
    size_t high = file.text.size();
    size_t result = high;
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        size_t at = line_from(file.text, middle);
        moment time = 0;
        while (at < high && (time = time_of(file.text, at, file.origin)) == 0) {
            at = next_line(file.text, at);
        }
        if (time != 0 && !is_reached(time)) {
            low = next_line(file.text, at);
        } else {
            result = time != 0 ? at : result;
            high = middle;
        }
    }
    return result;
}

moment last_time(const log_file& file) {
    moment time = 0;
    for (size_t at = file.text.size(); at > 0 && time == 0;) {
        at = at == 1 ? 0 : file.text.rfind('\n', at - 2) + 1;  // none is -1
        time = time_of(file.text, at, file.origin);
    }
    return time;
}

// False when it holds no line with a time.
bool open_file(log_file& file, const fs::path& path, std::string& damage) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;  // a pipe has no end
    const android::base::unique_fd fd(open(path.c_str(), kFlags));
    const off_t size = lseek(fd, 0, SEEK_END);
    if (size > 0) {
        file.map = android::base::MappedFile::FromFd(fd, 0, size, PROT_READ);
    }
    if (file.map == nullptr) {
        return false;
    }
    file.text = {file.map->data(), file.map->size()};
    file.end = last_time(file);
    // A clock that is set while the phone boots jumps, and a bisection needs rising times.
    const size_t rising = first_line(file, [&](moment time) { return time <= file.end; });
    if (rising > first_line(file, [](moment) { return true; })) {
        damage += path.filename().string() + " is left out up to where its clock jumps; ";
    }
    file.text.remove_prefix(rising);
    file.begin = time_of(file.text, 0, file.origin);
    return file.begin != 0;
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
    char text[64] = "-";
    if (time != 0) {
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", gmtime_r(&seconds, &date));
    }
    return text;
}

void open_log(const fs::path& dir, const std::string& name, char channel, moment start,
              std::vector<log_file>& files, std::string& damage) {
    std::error_code error;
    std::vector<fs::path> paths;
    for (const auto& entry : fs::directory_iterator(dir, error)) {
        const std::string found = entry.path().filename();
        if (found == name + ".log" || found.starts_with(name + ".log.")) {
            paths.push_back(entry.path());
        }
    }
    std::sort(paths.rbegin(), paths.rend());  // the highest number is the oldest
    for (const fs::path& path : paths) {
        files.push_back({channel, nullptr, {}, start - kMonth, 0, 0});
        if (!open_file(files.back(), path, damage)) {
            files.pop_back();
            damage += path.filename().string() + " holds no lines; ";
        }
    }
    // NAME.log.2 is never without NAME.log.1 and NAME.log.
    if (!paths.empty() && atoi(paths[0].extension().c_str() + 1) >= std::ssize(paths)) {
        damage += "a part of " + name + ".log is missing; ";
    }
}

std::string lines_around(const std::vector<log_file>& files, moment time, size_t max_bytes) {
    const moment begin = time - 10 * kSecond;
    const moment end = time + 11 * kSecond;
    std::vector<log_line> lines;
    std::set<std::string> known;  // a log snapshot repeats what the capture holds
    for (const log_file& file : files) {
        if (file.begin >= end || file.end < begin) {
            continue;
        }
        const auto from = [&](moment wanted) {
            return first_line(file, [=](moment found) { return found >= wanted; });
        };
        const size_t middle = from(time + kSecond);
        const size_t first = from(begin);
        const size_t last = from(end);
        const size_t shown = std::max(first, middle - std::min(middle, max_bytes / 2));
        const size_t shown_end = std::min(last, middle + max_bytes / 2);
        std::vector<log_line> found;
        if (shown > first) {
            found.push_back({begin, "[more lines before: cut]"});
        }
        moment stamp = begin;
        for (size_t at = line_from(file.text, shown); at < shown_end;
             at = next_line(file.text, at)) {
            const moment own = time_of(file.text, at, file.origin);
            stamp = own == 0 ? stamp : own;  // a further line of the same message
            const std::string_view line = file.text.substr(at, file.text.find('\n', at) - at);
            found.push_back({stamp, std::string{file.channel, ' '}.append(line)});
        }
        if (shown_end < last) {
            found.push_back({stamp, "[more lines behind: cut]"});
        }
        std::copy_if(found.begin(), found.end(), std::back_inserter(lines),
                     [&](const log_line& line) { return !known.contains(line.text); });
        std::transform(found.begin(), found.end(), std::inserter(known, known.end()),
                       [](const log_line& line) { return line.text; });
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const log_line& a, const log_line& b) { return a.time < b.time; });
    std::string text;
    for (const log_line& line : lines) {
        text += line.text + "\n";
    }
    return text;
}

}  // namespace look
