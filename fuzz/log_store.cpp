// SPDX-License-Identifier: Apache-2.0

// What may stand in the log store.

#include <cstdlib>
#include <cstring>

#include "host/log/store.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    while (const auto entry = take_log_entry(bytes)) {
        if (strlen(entry->tag) != entry->tagLen || strlen(entry->message) != entry->messageLen) {
            abort();
        }
    }
    return 0;
}
