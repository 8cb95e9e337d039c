// SPDX-License-Identifier: Apache-2.0

// Short texts that others choose: file names, which hold counts or app events, and the packet
// capture's size property.

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "event/rules.h"
#include "fuzz/input.h"
#include "tool/zq_tcpdump.h"
#include "utils/directories.h"

using namespace brevix;

static void check_counts(const std::string& name) {
    for (uint64_t fields = 0; fields < 6; ++fields) {
        try {
            ZQGetCountByFileName(name, fields);
        } catch (const std::logic_error&) {
            // A count without digits or past 64 bits.
        }
    }
    const auto fields = static_cast<uint64_t>(std::count(name.begin(), name.end(), '_')) + 3;
    if (ZQGetCountByFileName("p_-12_" + name, fields) != -12) {
        abort();
    }
}

static void check_app_event(const std::string& name) {
    collected_event event{};
    const char* error = nullptr;
    if (parse_app_event(name, event, error) &&
        (event.type.size() > kMaxTypeBytes || event.package.size() > kMaxPackageBytes ||
         event.package.find('_') != std::string::npos ||
         notice_command(event).size() > kMaxPathBytes)) {
        abort();
    }
}

static void check_capture_size(const std::string& size) {
    int file_size = 0;
    int files = 0;
    int end = 0;
    try {
        sscanf(capture_command(size, "x", "0").c_str(),
               "tcpdump -i any -p -C %d -W %d -w/data/tcpdump/x.pcap%n", &file_size, &files, &end);
    } catch (const std::logic_error&) {
        return;  // ends the tool
    }
    if (end == 0 || file_size > 100 || files > 10) {
        abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = to_text(data, size);
    check_counts(text);
    check_app_event(text);
    check_capture_size(text);
    return 0;
}
