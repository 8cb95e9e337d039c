// SPDX-License-Identifier: Apache-2.0

// Entries of a log store, whose files every program may write to.

#include <cstdlib>
#include <cstring>
#include <system_error>

#include "host/log/store.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    try {
        while (const auto entry = take_log_entry(bytes)) {
            if (strlen(entry->tag) > entry->tagLen || strlen(entry->message) > entry->messageLen) {
                abort();
            }
        }
    } catch (const std::system_error&) {  // is no entry
    }
    return 0;
}
