// SPDX-License-Identifier: Apache-2.0

// Counts in directory names: whatever stands there, and what the program composes itself.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "utils/util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // As the kernel gives names: without NUL.
    std::string name(reinterpret_cast<const char*>(data), size);
    name.erase(std::min(name.find('\0'), name.size()));
    for (uint64_t fields = 0; fields < 6; ++fields) {
        try {
            ZQGetCountByFileName(name, fields);
        } catch (const std::logic_error&) {
            // A count without digits or past 64 bits.
        }
    }
    int64_t count = 0;
    memcpy(&count, data, std::min(size, sizeof(count)));
    const auto fields = static_cast<uint64_t>(std::count(name.begin(), name.end(), '_')) + 3;
    if (ZQGetCountByFileName("p_" + std::to_string(count) + "_" + name, fields) != count) {
        abort();
    }
    return 0;
}
