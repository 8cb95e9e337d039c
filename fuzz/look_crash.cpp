// SPDX-License-Identifier: Apache-2.0

// Crash files, as whoever looks at what was collected reads them.

#include <cstdlib>

#include "fuzz/input.h"
#include "look/crash.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const look::crash found = look::read_crash(text);
    const std::string issue = look::issue_text(found, "Type", "");
    const bool has_cause = found.stack.empty() || found.cause < found.stack.size();
    const bool is_known = found.family.empty() == found.stack.empty() || found.family == "anr" ||
                          found.family == "watchdog";
    if (!has_cause || !is_known || look::stack_words(found, 512).size() > 512 ||
        issue != look::issue_text(look::read_crash(text), "Type", "") ||
        look::stack_text(found, 800).size() > 800 + 10 * 1100) {
        abort();
    }
    return 0;
}
