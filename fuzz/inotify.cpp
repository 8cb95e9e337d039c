// SPDX-License-Identifier: Apache-2.0

// What the kernel, or anything else, may put into the watcher's buffer.

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "event/decisions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    alignas(inotify_event) char buffer[512];
    const size_t bytes = std::min(size, sizeof(buffer));
    memcpy(buffer, data, bytes);
    const char* position = buffer;
    const char* const end = buffer + bytes;
    while (position < end) {
        // Records of the kernel are padded to this; others end the walk here.
        if ((position - buffer) % alignof(inotify_event) != 0) {
            break;
        }
        const char* const before = position;
        const inotify_event* record = next_record(position, end);
        if (record == nullptr) {
            break;
        }
        if (position <= before || position > end || name_of(*record).size() > record->len) {
            abort();
        }
    }
    return 0;
}
