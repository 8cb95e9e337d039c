// SPDX-License-Identifier: Apache-2.0
#include "event/records.h"

#include <cstring>

namespace brevix {

const inotify_event* next_record(const char*& position, const char* end) {
    const auto* record = reinterpret_cast<const inotify_event*>(position);
    const auto left = static_cast<size_t>(end - position);
    if (left < sizeof(*record) || left - sizeof(*record) < record->len) {
        return nullptr;
    }
    position += sizeof(*record) + record->len;
    return record;
}

std::string record_name(const inotify_event& record) {
    return {record.name, strnlen(record.name, record.len)};
}

}  // namespace brevix
