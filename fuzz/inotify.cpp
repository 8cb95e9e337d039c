// SPDX-License-Identifier: Apache-2.0

// Bytes in the watcher's inotify buffer.

#include "event/records.h"
#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* position = reinterpret_cast<const char*>(data);
    const char* const end = position + size;
    while (const inotify_event* record = brevix::next_record(position, end)) {
        if (position > end || brevix::record_name(*record).size() > record->len) {
            abort();
        }
        // The kernel pads names, so that the next record is aligned.
        if (record->len % alignof(inotify_event) != 0) {
            break;
        }
    }
    return 0;
}
