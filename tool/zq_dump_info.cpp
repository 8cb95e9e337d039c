// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_DUMPINFO"

#include "tool/zq_dump_info.h"

#include <android-base/logging.h>
#include <cutils/properties.h>

#include "utils/children.h"

namespace {

// Paths without the leading "/": the tool runs in the root directory. The file names are what the
// app and the people who read the dumps know: frozen.
constexpr const char* kCommands[] = {
    "ps -A -T -Z > data/logs/dumpsys/ps.txt",
    "toybox iotop -n 1 -m 100 > data/logs/dumpsys/iotop.txt",
    "ss -eionptu > data/logs/dumpsys/ss_eionptu.txt",
    "lsof > data/logs/dumpsys/lsof.txt",
    "storaged -u -p > data/logs/dumpsys/storaged.txt",
    "procrank > data/logs/dumpsys/procrank.txt",
    "netstat -nW > data/logs/dumpsys/netstate.txt",
};

}  // namespace

int ZQDumpInfo() {
    LOG(INFO) << "dumpinfo";
    for (const char* command : kCommands) {
        execute_cmd(command);
    }
    property_set("sys.brevix.dumplog.enable", "0");
    return 0;
}
