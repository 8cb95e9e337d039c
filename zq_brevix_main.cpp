// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_BREVIX"

#include <android-base/logging.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tool/mtk/zq_audio_dump.h"
#include "tool/zq_dump_info.h"
#include "tool/zq_tcpdump.h"
#include "tool/zq_touchpanel.h"
#include "utils/children.h"
#include "utils/stop_signal.h"
#include "utils/system_property_observer.h"
#include "utils/upgrade.h"
#include "zq_event_log.h"
#include "zq_general_log.h"

#define TEXT(macro) TEXT_OF(macro)
#define TEXT_OF(value) #value

namespace {

// For `strings`: bug reports ask which release an executable is. Volatile and read by main, because
// compiler and linker drop what no code uses.
const char* volatile version = "zq_brevix " TEXT(ZQ_VERSION);

[[noreturn]] void run_daemon() {
    LOG(INFO) << "ZQLog main start!!";
    brevix::receive_child_ends();
    ZQCheckUpgrade();
    ZQSubscribe("persist.service.start.capture", capturing);
    ZQEventDetect();
    while (true) {
        sleep(100000);
    }
}

void copy_folder(int /*argc*/, char* argv[]) {
    const brevix::ignored_terminal_signals ignored;
    ZQCopyFolder(argv[2], argv[3]);
}

void cmd(int argc, char* argv[]) {
    std::string line;
    for (int i = 2; i < argc; ++i) {
        line.append(argv[i]).append(" ");  // the blank behind the last one belongs to the line
    }
    [[maybe_unused]] const int status = system(line.c_str());
}

// "COMMAND:VALUE"; without a colon there is nothing to send.
void audio_cmd(int /*argc*/, char* argv[]) {
    if (const char* colon = strchr(argv[2], ':')) {
        setAudioCommand(atoi(argv[2]), atoi(colon + 1));
    }
}

// A tool that takes no arguments.
template <auto Tool>
void run_tool(int /*argc*/, char* /*argv*/[]) {
    Tool();
}

struct sub_command {
    const char* name;
    int min_arguments;  // behind the name
    int max_arguments;
    void (*run)(int argc, char* argv[]);
};

constexpr int kAny = INT_MAX;

// clang-format off
constexpr sub_command kSubCommands[] = {
    {"tcpdump",     0, kAny, run_tool<ZQTCPDumpDetect>},
    {"dump_info",   0, kAny, run_tool<ZQDumpInfo>},
    {"copy_folder", 2, kAny, copy_folder},
    {"cmd",         0, kAny, cmd},
    {"touchpanel",  0, kAny, run_tool<ZQTouchPanelDump>},
    {"audio_dump",  0, kAny, run_tool<ZQCopyAudioHalDumpFiles>},
    {"audio_cmd",   1, 1,    audio_cmd},
};
// clang-format on

}  // namespace

// Always returns 0: the service manager and the app look at what was written, never at the exit
// status.
int main(int argc, char* argv[]) {
    static_cast<void>(version);
    if (argc == 1) {
        run_daemon();
    }
    for (const sub_command& command : kSubCommands) {
        if (strcmp(argv[1], command.name) == 0) {
            const int arguments = argc - 2;
            if (arguments >= command.min_arguments && arguments <= command.max_arguments) {
                command.run(argc, argv);
            }
            return 0;
        }
    }
    return 0;
}
