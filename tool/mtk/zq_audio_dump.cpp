// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_AUDIO_DUMP"

#include "tool/mtk/zq_audio_dump.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <cutils/properties.h>
#include <media/AudioSystem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utils/String8.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/audio_toolkit.h"

// --- Dump copy -----------------------------------------------------------------------------------

namespace {

constexpr const char* kOutputDir = "/data/logs/audiohal/audio_dump/";
constexpr size_t kMaxReadBytes = 350000;

// Log lines name the operation they belong to.
constexpr const char* kCopy = "ZQCopyAudioHalDumpFiles";

void create_parents(const std::string& path) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string dir = path.substr(0, end);
        if (access(dir.c_str(), F_OK) != 0 && mkdir(dir.c_str(), 0770) != 0) {
            const int error = errno;
            LOG(ERROR) << "AudioDumpPCM: mkdir error! " << strerror(error);
            return;
        }
    }
}

void write_piece(const unsigned char* data, size_t bytes, size_t end, size_t size,
                 const std::string& path, FILE* file) {
    const size_t written = fwrite(data, 1, bytes, file);
    if (written == bytes) {
        LOG(DEBUG) << kCopy << "(), Write " << end << "/" << size << " bytes to dump file (" << path
                   << ")";
    } else {
        LOG(WARNING) << kCopy << "(), write size (" << written << ") but the size is not " << bytes;
    }
}

// Returns the bytes that the toolkit delivered. `size` counts one byte more than there is to read,
// so 1 is an empty file; a size of 0 wraps, and only the end of the deliveries is one.
size_t copy_content(char* name, size_t size, const std::string& path, FILE* file) {
    size_t offset = 0;
    while (offset < size - 1) {
        unsigned char* piece = nullptr;
        const size_t bytes = android::readAudioHalDumpFileContent(
            name, &piece, offset, std::min(size - offset, kMaxReadBytes));
        const std::unique_ptr<unsigned char[]> owned(piece);
        if (bytes == 0) {
            LOG(DEBUG) << kCopy << "(), Read data size 0";
            break;
        }
        LOG(DEBUG) << kCopy << "(), read data from " << offset << " to " << offset + bytes;
        write_piece(piece, bytes, offset + bytes, size, path, file);
        offset += bytes;
    }
    return offset;
}

double milliseconds_between(const timespec& start, const timespec& end) {
    return static_cast<double>(end.tv_nsec - start.tv_nsec) * 0.000001 +
           static_cast<double>(end.tv_sec - start.tv_sec) * 1000;
}

// The speed is whole MiB divided by a thousand times the milliseconds. Its unit is wrong, but
// devices have been compared by this figure.
void log_rate(const char* name, size_t bytes, double milliseconds) {
    const size_t mebibytes = bytes / 1048576;
    const double speed = static_cast<double>(mebibytes) / (milliseconds * 1000.0);
    LOG(DEBUG) << kCopy << ", Copy " << name << "(size: " << bytes / 1024 << " KB) spend "
               << milliseconds << " ms(speed: " << speed
               << " MB/s, MAX_READ_SIZE: " << kMaxReadBytes;
}

// Returns false when the local file cannot be opened.
bool copy_dump_file(char* name, size_t size) {
    LOG(DEBUG) << kCopy << "(), file name = " << name << ", size= " << size;
    timespec start{};
    clock_gettime(CLOCK_REALTIME, &start);
    const std::string path = std::string(kOutputDir) + name;
    FILE* const file = fopen(path.c_str(), "w");
    if (file == nullptr) {
        LOG(WARNING) << kCopy << "(), Cannot open file " << path;
        return false;
    }
    const size_t bytes = copy_content(name, size, path, file);
    if (fclose(file) != 0) {
        LOG(DEBUG) << "close file error";
    }
    timespec end{};
    clock_gettime(CLOCK_REALTIME, &end);
    log_rate(name, bytes, milliseconds_between(start, end));
    return true;
}

// Cuts `list` into its tokens.
void copy_dump_files(char* list) {
    char* rest = nullptr;
    char* name = strtok_r(list, ",", &rest);
    while (name != nullptr) {
        const char* size_text = strtok_r(nullptr, ",", &rest);
        if (size_text == nullptr) {
            LOG(WARNING) << kCopy << "(), no file size info ...(" << name << ")";
            return;
        }
        size_t size = 0;
        if (sscanf(size_text, "%zu", &size) != 1) {
            LOG(WARNING) << kCopy << "(), wrong file size info... (" << name << ")";
            return;
        }
        // Without advancing the name: the next token, a name, then fails to parse as a size, and
        // the log names the file that could not be opened.
        if (copy_dump_file(name, size)) {
            name = strtok_r(nullptr, ",", &rest);
        }
    }
}

}  // namespace

void ZQCopyAudioHalDumpFiles() {
    const android::String8 list = android::getAudioHalDumpFileList();
    LOG(INFO) << kCopy << "(), etDumpFileList return " << list.c_str();
    create_parents(kOutputDir);
    LOG(DEBUG) << kCopy << "(), createDirectory " << kOutputDir;
    copy_dump_files(std::string(list.c_str()).data());
    LOG(INFO) << "copy all AudioHalDumpFiles";
    property_set("sys.brevix.mtk.audio.dump", "0");
}

// --- Command -------------------------------------------------------------------------------------

namespace {

constexpr const char* kEncode = "PrintEncodedString";
const android::String8 kParameterPrefix("SetCmd=");

// What the HAL decodes: both numbers in the device's own byte order.
struct command_payload {
    int32_t command;
    int32_t value;
};

using payload_bytes = unsigned char[sizeof(command_payload)];

std::string hex_trace(const payload_bytes& bytes) {
    std::string trace;
    for (const unsigned char byte : bytes) {
        trace += android::base::StringPrintf("0x%02x ", byte);
    }
    return trace;
}

// "SetCmd=" and the bytes in Base64. Empty when the toolkit cannot encode them: the HAL is asked
// all the same, and its status tells.
android::String8 command_parameter(const payload_bytes& bytes) {
    android::String8 parameter;
    const size_t needed = android::Base64_OutputSize(true, sizeof(bytes));
    const auto text = std::make_unique<char[]>(needed + 1);
    const size_t written = android::Base64_Encode(bytes, text.get(), sizeof(bytes));
    if (written == needed) {
        LOG(DEBUG) << kEncode << "(), after encode (" << text.get() << "), len(" << sizeof(bytes)
                   << "), sz_enc(" << needed << ")";
        parameter.append(kParameterPrefix);
        parameter.append(text.get(), needed);
    } else {
        LOG(ERROR) << kEncode << ", Encode Error!! after encode (" << text.get() << "), len("
                   << sizeof(bytes) << "), sz_Needed(" << needed << "), sz_enc(" << written << ")";
    }
    return parameter;
}

}  // namespace

void setAudioCommand(int command, int value) {
    const command_payload payload{command, value};
    payload_bytes bytes;
    memcpy(bytes, &payload, sizeof(bytes));
    LOG(DEBUG) << kEncode << " in, len= " << sizeof(bytes);
    const std::string trace = hex_trace(bytes);
    LOG(DEBUG) << "print_hex_buffer: sum=" << trace.size() << ", " << trace;
    const int status = android::AudioSystem::setParameters(0, command_parameter(bytes));
    property_set("sys.brevix.mkt.audio.cmd", std::to_string(status).c_str());
}
