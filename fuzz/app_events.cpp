// SPDX-License-Identifier: Apache-2.0

// Names of app events, and the command lines that come of them: any app chooses them.

#include <cstdlib>

#include "event/decisions.h"
#include "utils/util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string name(reinterpret_cast<const char*>(data), size);
    name.erase(std::min(name.find('\0'), name.size()));
    collected_event event{};
    if (parse_app_event(name, event) == nullptr &&
        (event.type.size() > kMaxTypeBytes || event.package.size() > kMaxPackageBytes ||
         event.package.find('_') != std::string::npos ||
         notice_command(event).size() > kMaxPathBytes)) {
        abort();
    }
    return 0;
}
