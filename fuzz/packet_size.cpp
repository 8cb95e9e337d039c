// SPDX-License-Identifier: Apache-2.0

// Sizes of a packet capture as somebody may have set them.

#include <cutils/properties.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "tool/zq_tcpdump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string value(reinterpret_cast<const char*>(data),
                            std::min<size_t>(size, PROPERTY_VALUE_MAX - 1));
    std::string line;
    try {
        line = capture_command(value.c_str(), "x", "0");
    } catch (const std::logic_error&) {
        return 0;  // ends the tool
    }
    int file_size = 0;
    int files = 0;
    int end = 0;
    sscanf(line.c_str(), "tcpdump -i any -p -C %d -W %d -w/data/tcpdump/x.pcap%n", &file_size,
           &files, &end);
    if (end == 0 || line[end] != '\0' || file_size > 100 || files > 10) {
        abort();
    }
    return 0;
}
