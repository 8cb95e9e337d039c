// SPDX-License-Identifier: Apache-2.0

// The audio toolkit over plain files: a folder of the device has the HAL's dump files.
#define LOG_TAG "audiotoolkit"

#include "platform/audio_toolkit.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr const char* kDumpFolder = "/vendor/audiohal/dump/";
// Overrides the list, so that a test can return one that does not match the files.
constexpr const char* kDumpList = "/vendor/audiohal/dump_list";

}  // namespace

android::String8 android::getAudioHalDumpFileList() {
    std::string list;
    if (base::ReadFileToString(kDumpList, &list)) {
        if (list.ends_with('\n')) {
            list.pop_back();
        }
        return String8(list.c_str());
    }
    std::error_code ec;  // without the folder the list is empty
    const std::set<fs::directory_entry> sorted(fs::directory_iterator(kDumpFolder, ec), {});
    for (const fs::directory_entry& entry : sorted) {
        if (entry.is_regular_file(ec)) {
            list.append(list.empty() ? "" : ",").append(entry.path().filename());
            list.append(",").append(std::to_string(entry.file_size(ec) + 1));
        }
    }
    return String8(list.c_str());
}

unsigned long android::readAudioHalDumpFileContent(char* name, unsigned char** data,
                                                   unsigned long offset, unsigned long length) {
    const base::unique_fd fd(open((std::string(kDumpFolder) + name).c_str(), O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        PLOG(ERROR) << "cannot open dump file " << name;
        return 0;
    }
    auto piece = std::make_unique<unsigned char[]>(length);
    const ssize_t bytes =
        TEMP_FAILURE_RETRY(pread(fd, piece.get(), length, static_cast<off_t>(offset)));
    if (bytes < 0) {
        PLOG(ERROR) << "cannot read dump file " << name;
        return 0;
    }
    *data = piece.release();  // at the end, too, with nothing in it
    return static_cast<unsigned long>(bytes);
}

unsigned long android::Base64_OutputSize(bool encode, unsigned long length) {
    return encode ? (length + 2) / 3 * 4 : length / 4 * 3;
}

unsigned long android::Base64_Encode(const unsigned char* data, char* out, unsigned long length) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* const begin = out;
    for (size_t i = 0; i < length; i += 3) {
        const size_t bytes = std::min<size_t>(3, length - i);
        unsigned group = 0;
        for (size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < bytes ? data[i + k] : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            const unsigned digit = group >> (18 - 6 * k) & 63;
            *out++ = k <= bytes ? kAlphabet[digit] : '=';
        }
    }
    return static_cast<unsigned long>(out - begin);
}
