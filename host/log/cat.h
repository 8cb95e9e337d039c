// SPDX-License-Identifier: Apache-2.0

// What logcat does once its options are read.
#pragma once

#include <log/log_id.h>
#include <log/logprint.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct cat_settings {
    std::vector<log_id_t> buffers;
    std::shared_ptr<AndroidLogFormat> format{android_log_format_new(), android_log_format_free};
    bool dump = false;           // ends with the entries that are there
    std::string file;            // "": standard output
    uint64_t rotate_kbytes = 0;  // 0: never
    unsigned rotated_files = 4;
};

// Writes the entries of the buffers in the order of their times, and goes on with what comes unless
// it is a dump. A SIGTERM ends the process; one that writes to a file first writes what was logged
// before the signal. Throws std::system_error when something cannot be read or written.
void show_log(const cat_settings& settings);
