// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_UTIL"

#include "utils/base_log.h"

#include <android-base/logging.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "utils/children.h"
#include "utils/directories.h"

using namespace brevix;

namespace {

struct base_log {
    const char* tag;
    const char* file;
    std::vector<const char*> buffers;
};

// clang-format off
const base_log kBaseLogs[] = {
    {"android", "pre_android.log", {"system", "main", "crash"}},
    {"events",  "pre_event.log",   {"events"}},
    {"radio",   "pre_radio.log",   {"radio"}},
    {"kernel",  "pre_kernel.log",  {"kernel"}},
};
// clang-format on

constexpr const char* kDumpSeconds = "10";
constexpr int kDumpPasses = 10;

pid_t start_dump(const base_log& log, const char* dir) {
    const std::string file = cut_format(kMaxPathBytes, "%s/%s", dir, log.file);
    std::vector<const char*> argv = {"/system/bin/timeout", kDumpSeconds, "/system/bin/logcat",
                                     "-f", file.c_str()};
    for (const char* buffer : log.buffers) {
        argv.insert(argv.end(), {"-b", buffer});
    }
    argv.insert(argv.end(), {"-v", "threadtime", "-d", nullptr});
    return start_recording(log.tag, argv.data());
}

// Reaps the children in order and returns whether all have exited. A child that an earlier scan
// reaped counts as not done, so the wait ends early only when one scan finds all of them finished.
bool collect_all(const std::vector<pid_t>& children) {
    for (size_t i = 0; i < children.size(); ++i) {
        int status = 0;
        if (waitpid(children[i], &status, WNOHANG) != children[i] || !WIFEXITED(status)) {
            LOG(INFO) << "dump base log not done " << i;
            return false;
        }
        LOG(INFO) << "dump base log done " << i;
    }
    return true;
}

void wait_for_dumps(const std::vector<pid_t>& children) {
    for (int pass = 0; pass < kDumpPasses; ++pass) {
        if (collect_all(children)) {
            return;
        }
        sleep(1);
    }
    LOG(WARNING) << "dump base log still have some work not done yet, skip";
}

}  // namespace

void ZQDumpBaseLog(const char* dir) {
    std::vector<pid_t> children;
    for (const base_log& log : kBaseLogs) {
        const pid_t pid = start_dump(log, dir);
        if (pid > 0) {
            children.push_back(pid);
        }
    }
    wait_for_dumps(children);
    for (const pid_t child : children) {
        kill(child, SIGTERM);
    }
    LOG(INFO) << "dump base log finished";
}
