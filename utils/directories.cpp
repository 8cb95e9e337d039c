// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_UTIL"

#include "utils/directories.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace fs = std::filesystem;

namespace brevix {

std::string cut_format(size_t max_bytes, const char* format, ...) {
    std::string text;
    va_list arguments;
    va_start(arguments, format);
    android::base::StringAppendV(&text, format, arguments);
    va_end(arguments);
    return text.substr(0, max_bytes);
}

tm local_time(time_t time) {
    tzset();  // localtime_r alone keeps the zone of its first call, wherever the phone travels
    tm local{};
    localtime_r(&time, &local);
    return local;
}

std::string format_time(const char* format, const tm& time) {
    char text[64] = {};
    strftime(text, sizeof(text), format, &time);
    return text;
}

}  // namespace brevix

using namespace brevix;

int ZQCreateDir(const std::string& path) {
    std::error_code ec;
    if (!fs::create_directories(path, ec)) {
        const fs::file_type type = fs::status(path).type();
        if (type == fs::file_type::none || type == fs::file_type::not_found) {
            LOG(ERROR) << "Cannot create: " << path << " error: " << ec;
            return 1;
        }
    }
    chmod(path.c_str(), 0777);
    return 0;
}

int ZQCreateDirByFormat(const std::string& base, const std::string& prefix, int64_t count,
                        const std::string& timeFormat, uint64_t outSize, char* out) {
    const std::string text = format_time(timeFormat.c_str(), local_time(time(nullptr)));
    snprintf(out, outSize, "%s%s%s_%s", base.c_str(), prefix.c_str(), std::to_string(count).c_str(),
             text.c_str());
    return ZQCreateDir(out);
}

int ZQCreateLogDir(const std::string& base, const std::string& prefix, int64_t count,
                   const char* field1, const char* field2, uint64_t outSize, char* out) {
    snprintf(out, outSize, "%s%s%s_%s_%s", base.c_str(), prefix.c_str(),
             std::to_string(count).c_str(), field1, field2);
    return ZQCreateDir(out);
}

namespace {

constexpr bool is_ascii_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// std::stoll without a copy of the field: strtoll stops at the "_" behind it.
int64_t to_count(const char* digits) {
    const int saved_errno = errno;
    errno = 0;
    char* end = nullptr;
    const int64_t count = strtoll(digits, &end, 10);
    const bool out_of_range = errno == ERANGE;
    errno = saved_errno;
    if (end == digits) {
        throw std::invalid_argument("count without digits");
    }
    if (out_of_range) {
        throw std::out_of_range("count past 64 bits");
    }
    return count;
}

}  // namespace

int64_t ZQGetCountByFileName(const std::string& fileName, uint64_t fieldCount) {
    const auto fields =
        static_cast<uint64_t>(std::count(fileName.begin(), fileName.end(), '_')) + 1;
    if (fields != fieldCount || fields < 2) {
        return -1;
    }
    const size_t begin = fileName.find('_') + 1;
    const std::string_view field =
        std::string_view(fileName).substr(begin, fileName.find('_', begin) - begin);
    if (std::any_of(field.begin(), field.end(), is_ascii_letter)) {
        return -1;
    }
    return to_count(fileName.c_str() + begin);
}

void ZQSplitByDelim(std::vector<char*>& out, char* text, const char* delim) {
    char* position = nullptr;
    for (char* token = strtok_r(text, delim, &position); token != nullptr;
         token = strtok_r(nullptr, " ", &position)) {
        out.push_back(token);
    }
}

int ZQGetFileCount(const std::string& dir) {
    return static_cast<int>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}
