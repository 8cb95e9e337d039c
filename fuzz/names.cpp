// Counts in directory names, and the count that follows them, beside a plain reading of the rules.

#include <android-base/logging.h>
#include <android-base/strings.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "utils/util.h"

namespace {

namespace fs = std::filesystem;

const std::string kDir = "/names/";

// No value: the name throws.
std::optional<int64_t> result_of(const auto& operation) {
    try {
        return operation();
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
    return result_of([&] { return std::stoll(fields[1], nullptr, 10); });
}

// What follows the highest count in 64 bits is the lowest, which the cut makes 0.
std::optional<int64_t> expected_next(std::optional<int64_t> count) {
    if (count) {
        count = *count == INT64_MAX ? 0 : static_cast<int>(std::max<int64_t>(*count, -1) + 1);
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::base::SetMinimumLogSeverity(android::base::ERROR);
    return fs::create_directory(kDir) ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // As the kernel gives names: without NUL.
    std::string name(reinterpret_cast<const char*>(data), size);
    name.erase(std::min(name.find('\0'), name.size()));
    std::error_code ec;
    const bool is_file_name =
        name.find('/') == std::string::npos && fs::create_directory(kDir + name, ec);
    for (uint64_t fields = 0; fields < 6; ++fields) {
        const std::optional<int64_t> count = expected_count(name, fields);
        if (result_of([&] { return ZQGetCountByFileName(name, fields); }) != count ||
            (is_file_name && result_of([&] { return ZQGetNewLogCount(kDir, "", fields); }) !=
                                 expected_next(count))) {
            abort();
        }
    }
    if (is_file_name) {
        fs::remove(kDir + name);
    }
    return 0;
}
