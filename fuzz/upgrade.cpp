// Settings versions as somebody may have set them.

#include "utils/upgrade.h"

#include <android-base/logging.h>
#include <cutils/properties.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    std::string version(reinterpret_cast<const char*>(data), size);
    version.erase(std::min(version.find('\0'), version.size()));
    if (property_set("persist.service.brevix.version", version.c_str()) != 0) {
        return -1;  // no such value can be
    }
    std::optional<int> expected;  // no value: no number, which ends the daemon
    try {
        expected = std::stoi(version.empty() ? "0" : version);
    } catch (const std::logic_error&) {
    }
    std::optional<int> after;
    try {
        ZQCheckUpgrade();
        char value[PROPERTY_VALUE_MAX] = {};
        property_get("persist.service.brevix.version", value, "");
        after = std::stoi(value);
    } catch (const std::logic_error&) {
    }
    if (after != (expected == 0 ? 1 : expected)) {
        abort();
    }
    return 0;
}
