// File names in the watched directories: which rows they match, what an app event's name carries,
// and the command line that comes of it.

#include <cstdlib>

#include "event/decisions.h"
#include "utils/util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string name(reinterpret_cast<const char*>(data), size);
    name.erase(std::min(name.find('\0'), name.size()));
    for (const event_watch& watch : event_watches) {
        for (int64_t row = 0; row < watch.count; ++row) {
            if (row_matches(watch, row, name) &&
                name.find(watch.pattern[row]) == std::string::npos) {
                abort();
            }
        }
    }
    collected_event event{};
    event.file_name = name;
    if (parse_app_event(name, event) == nullptr) {
        const std::string begin = "ZQEvent_" + event.package + "_" + event.type;
        const bool is_cut =
            event.type.size() == kMaxTypeBytes || event.package.size() == kMaxPackageBytes;
        if ((!is_cut && name.substr(0, name.find('@')) != begin) ||
            event.type.size() > kMaxTypeBytes || event.package.find('_') != std::string::npos ||
            notice_command(event).size() > kMaxPathBytes) {
            abort();
        }
    }
    return 0;
}
