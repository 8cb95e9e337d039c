// SPDX-License-Identifier: Apache-2.0

// Lists of dump files as a HAL may give them.

#include <android-base/file.h>
#include <android-base/logging.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tool/mtk/zq_audio_dump.h"

namespace fs = std::filesystem;

static constexpr size_t kDumpBytes = 400000;  // more than one piece

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    fs::create_directories("/vendor/audiohal/dump");
    android::base::WriteStringToFile(std::string(kDumpBytes, 'x'), "/vendor/audiohal/dump/x");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string list(reinterpret_cast<const char*>(data), size);
    if (list.find("..") != std::string::npos) {
        return -1;  // the HAL is trusted with the place; here it must not leave the folder
    }
    const std::string copies = "/data/logs/audiohal/audio_dump";
    fs::remove_all(copies);
    android::base::WriteStringToFile(list, "/vendor/audiohal/dump_list");
    ZQCopyAudioHalDumpFiles();
    for (const auto& entry : fs::directory_iterator(copies)) {
        if (entry.file_size() > (entry.path().filename() == "x" ? kDumpBytes : 0)) {
            abort();
        }
    }
    return 0;
}
