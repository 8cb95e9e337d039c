#define LOG_TAG "ZQ_BREVIX"

#include <android-base/logging.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/system_property_observer.h"
#include "utils/upgrade.h"
#include "utils/util.h"
#include "zq_event_log.h"
#include "zq_general_log.h"

namespace {

[[noreturn]] void run_daemon() {
    LOG(INFO) << "ZQLog main start!!";
    ZQCheckUpgrade();
    ZQSubscribe("persist.service.start.capture", capturing);
    ZQEventDetect();
    while (true) {
        sleep(100000);
    }
}

void copy_folder(int /*argc*/, char* argv[]) {
    ZQCopyFolder(argv[2], argv[3]);
}

void cmd(int argc, char* argv[]) {
    std::string line;
    for (int i = 2; i < argc; ++i) {
        line.append(argv[i]).append(" ");  // the blank behind the last one belongs to the line
    }
    run_shell(line.c_str());
}

// Of a sub-command whose tool is not part of this build.
void no_tool(int /*argc*/, char* /*argv*/[]) {}

struct sub_command {
    const char* name;
    int min_argc;
    int max_argc;
    void (*run)(int argc, char* argv[]);
};

constexpr int kAny = INT_MAX;

// clang-format off
constexpr sub_command kSubCommands[] = {
    {"tcpdump",     2, kAny, no_tool},
    {"dump_info",   2, kAny, no_tool},
    {"copy_folder", 4, kAny, copy_folder},
    {"cmd",         2, kAny, cmd},
    {"touchpanel",  2, kAny, no_tool},
    {"audio_dump",  2, kAny, no_tool},
    {"audio_cmd",   3, 3,    no_tool},
};
// clang-format on

}  // namespace

// Every way to return gives 0: the service manager and the app look at what was written, never at
// the exit status.
int main(int argc, char* argv[]) {
    if (argc == 1) {
        run_daemon();
    }
    for (const sub_command& command : kSubCommands) {
        if (strcmp(argv[1], command.name) == 0) {
            if (argc >= command.min_argc && argc <= command.max_argc) {
                command.run(argc, argv);
            }
            return 0;
        }
    }
    return 0;
}
