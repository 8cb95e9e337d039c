// Counts in directory names, beside a plain reading of the same rules.

#include <android-base/strings.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "utils/util.h"

namespace {

// No value: the name throws.
std::optional<int64_t> count_of(const std::string& name, uint64_t fields) {
    try {
        return ZQGetCountByFileName(name, fields);
    } catch (const std::logic_error&) {
        return std::nullopt;
    }
}

std::optional<int64_t> expected_count(const std::string& name, uint64_t field_count) {
    const std::vector<std::string> fields = android::base::Split(name, "_");
    if (fields.size() != field_count || fields.size() < 2) {
        return -1;
    }
    for (const char c : fields[1]) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
            return -1;
        }
    }
    try {
        return std::stoll(fields[1], nullptr, 10);
    } catch (const std::logic_error&) {
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // As the kernel gives names: without NUL.
    std::string name(reinterpret_cast<const char*>(data), size);
    name.erase(std::min(name.find('\0'), name.size()));
    for (uint64_t fields = 0; fields < 6; ++fields) {
        if (count_of(name, fields) != expected_count(name, fields)) {
            abort();
        }
    }
    return 0;
}
