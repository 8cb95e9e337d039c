// SPDX-License-Identifier: Apache-2.0

// Records of the kernel's log.

#include <cstdlib>

#include "host/log/kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto record = parse_kernel_record({reinterpret_cast<const char*>(data), size});
    if (record &&
        (record->priority < ANDROID_LOG_DEBUG || record->priority > ANDROID_LOG_FATAL ||
         record->since_boot.count() < 0 || record->tag.size() + record->message.size() > size)) {
        abort();
    }
    return 0;
}
