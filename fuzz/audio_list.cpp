// SPDX-License-Identifier: Apache-2.0

// Lists of dump files as a HAL may give them.

#include <android-base/logging.h>

#include <filesystem>
#include <fstream>

#include "fuzz/input.h"
#include "tool/mtk/zq_audio_dump.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kDumpBytes = 400000;  // more than one piece
    const std::string list = to_text(data, size);
    if (list.find("..") != std::string::npos) {
        return -1;  // the tool trusts the HAL's names; this one would leave the folder
    }
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    fs::create_directories("/vendor/audiohal/dump");
    std::ofstream("/vendor/audiohal/dump/x").close();
    fs::resize_file("/vendor/audiohal/dump/x", kDumpBytes);
    std::ofstream("/vendor/audiohal/dump_list") << list;
    const std::string copies = "/data/logs/audiohal/audio_dump";
    fs::remove_all(copies);
    ZQCopyAudioHalDumpFiles();
    for (const auto& entry : fs::directory_iterator(copies)) {
        if (entry.file_size() > (entry.path().filename() == "x" ? kDumpBytes : 0)) {
            abort();
        }
    }
    return 0;
}
