// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_UTIL"

#include "utils/children.h"

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <paths.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

#include "utils/directories.h"
#include "utils/stop_signal.h"

namespace fs = std::filesystem;
using namespace brevix;

namespace {

enum class process_group { inherited, own };

// bionic allocates these objects. When that fails it leaves a null pointer, which every further
// call, the destruction included, would dereference.
template <typename Setting, int (*Init)(Setting*), int (*Destroy)(Setting*)>
struct spawn_setting {
    Setting value;
    const int error = Init(&value);

    spawn_setting() = default;
    ~spawn_setting() {
        const int spawn_error = errno;
        if (error == 0) {
            Destroy(&value);
        }
        errno = spawn_error;
    }
    spawn_setting(const spawn_setting&) = delete;
    spawn_setting& operator=(const spawn_setting&) = delete;
};
using spawn_attributes =
    spawn_setting<posix_spawnattr_t, posix_spawnattr_init, posix_spawnattr_destroy>;
using spawn_files = spawn_setting<posix_spawn_file_actions_t, posix_spawn_file_actions_init,
                                  posix_spawn_file_actions_destroy>;

sigset_t given_back;  // signals that this process ignores and its children do not

// posix_spawn, because fork copies page tables, which is most of what an event costs. It also
// blocks all signals until the child has lost the daemon's handlers: one of them would swallow a
// SIGTERM there. Returns -1, with errno, when the program cannot be started; bionic does not report
// that, and its child ends with 127.
pid_t spawn(const char* program, const char* const argv[], int standard_output = STDOUT_FILENO,
            process_group group = process_group::inherited) {
    spawn_attributes attributes;
    spawn_files files;
    if (attributes.error != 0 || files.error != 0) {
        errno = ENOMEM;
        return -1;
    }
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes.value, &none);
    posix_spawnattr_setsigdefault(&attributes.value, &given_back);
    // POSIX_SPAWN_USEVFORK: given attributes, bionic forks without it.
    int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_USEVFORK;
    if (group == process_group::own) {
        flags |= POSIX_SPAWN_SETPGROUP;
    }
    posix_spawnattr_setflags(&attributes.value, static_cast<short>(flags));
    if (standard_output != STDOUT_FILENO) {
        posix_spawn_file_actions_adddup2(&files.value, standard_output, STDOUT_FILENO);
    }
    pid_t pid = -1;
    errno = posix_spawn(&pid, program, &files.value, &attributes.value,
                        const_cast<char* const*>(argv), environ);
    return errno == 0 ? pid : -1;
}

pid_t start_shell(const char* command, int standard_output = STDOUT_FILENO,
                  process_group group = process_group::inherited) {
    const char* const argv[] = {"sh", "-c", command, nullptr};
    return spawn(_PATH_BSHELL, argv, standard_output, group);
}

pid_t start_shell_logged(const char* command, process_group group) {
    const pid_t pid = start_shell(command, STDOUT_FILENO, group);
    if (pid < 0) {
        PLOG(ERROR) << "fail to run " << command << ", error";
    }
    return pid;
}

// Logs nothing when there can be no process: the missing copy tells.
void run_copy(const std::string& line) {
    const pid_t pid = start_shell(line.c_str());
    if (pid > 0) {
        wait_for(pid, line.c_str());
    }
}

struct sigaction ignore(int sig) {
    struct sigaction before {};
    struct sigaction ignoring {};
    ignoring.sa_handler = SIG_IGN;
    sigaction(sig, &ignoring, &before);
    if (before.sa_handler != SIG_IGN) {
        sigaddset(&given_back, sig);
    }
    return before;
}

constexpr size_t kMaxCommandBytes = 1023;
constexpr std::chrono::seconds kPatience(5);

// Guards `kept`. Held while a child is started or reaped: the kernel reuses a pid only after its
// process has been reaped, so a pid in `kept` never names another process.
std::mutex kept_mutex;
std::vector<pid_t> kept;

// The look comes first, because bionic's posix_spawn does not tell what its child has met.
pid_t spawn_or_fork(const char* const argv[]) {
    return access(argv[0], X_OK) == 0 ? spawn(argv[0], argv) : fork();
}

pid_t end_child_of_failed_start(pid_t pid) {
    if (pid == 0) {
        _exit(127);
    }
    return pid;
}

}  // namespace

int ZQRecordLog(const std::string& tag, char* const argv[]) {
    const pid_t pid = spawn_or_fork(argv);
    if (pid > 0) {
        LOG(INFO) << "tag: " << tag << ", pid: " << pid;
    } else if (pid < 0) {
        PLOG(ERROR) << "tag: " << tag << ", error";
    }
    return pid;
}

namespace brevix {

pid_t start_program(const char* const argv[]) {
    return end_child_of_failed_start(spawn_or_fork(argv));
}

pid_t start_recording(const std::string& tag, const char* const argv[]) {
    return end_child_of_failed_start(ZQRecordLog(tag, const_cast<char* const*>(argv)));
}

int run_shell(const char* command) {
    const pid_t pid = start_shell_logged(command, process_group::inherited);
    return pid < 0 ? -1 : wait_for(pid, command);
}

pid_t start_shell_group(const char* command) {
    return start_shell_logged(command, process_group::own);
}

int wait_for(pid_t pid, const char* command) {
    if (is_stoppable() && !wait_for_end(pid, kPatience)) {
        LOG(ERROR) << "still running, no longer waited for: " << command;
        throw child_left_alone();
    }
    int status = -1;
    return TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == pid ? status : -1;
}

ignored_terminal_signals::ignored_terminal_signals()
    : interrupt_(ignore(SIGINT)), quit_(ignore(SIGQUIT)) {}

ignored_terminal_signals::~ignored_terminal_signals() {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGQUIT, &quit_, nullptr);
    sigemptyset(&given_back);
}

pid_t start_kept_child(const std::string& tag, const char* const argv[]) {
    const std::lock_guard lock(kept_mutex);
    const pid_t pid = start_recording(tag, argv);
    if (pid > 0) {
        kept.push_back(pid);
    }
    return pid;
}

void signal_kept_children(int sig) {
    const std::lock_guard lock(kept_mutex);
    for (const pid_t pid : kept) {
        kill(pid, sig);
    }
    kept.clear();
}

void reap_ended_children() {
    const std::lock_guard lock(kept_mutex);
    pid_t pid = 0;
    while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0) {
        std::erase(kept, pid);
    }
}

}  // namespace brevix

void execute_cmd(const char* command) {
    if (strlen(command) > kMaxCommandBytes) {
        LOG(FATAL) << "command longer than " << kMaxCommandBytes << " bytes";
    }
    pid_t pid = -1;
    android::base::unique_fd read_end;
    android::base::unique_fd write_end;
    if (android::base::Pipe(&read_end, &write_end)) {
        read_end.reset();
        pid = start_shell(command, write_end);
        write_end.reset();
    }
    if (pid < 0) {
        LOG(WARNING) << "fail to dump " << command;
        return;
    }
    wait_for(pid, command);
}

void ZQCopyFile(const char* from, const char* to) {
    try {
        if (!fs::copy_file(from, to)) {
            LOG(WARNING) << "copy file " << from << " failed";
        }
    } catch (const fs::filesystem_error& error) {
        LOG(ERROR) << "fail to copy file from " << from << " to " << to
                   << ", error: " << error.what();
    }
    chmod(to, 0777);
}

void ZQCopyFolder(const char* from, const char* to) {
    run_copy(cut_format(kMaxPathBytes, "cp -r %s %s ", from, to));
}

void ZQCopyCmd(const char* from, const char* to) {
    run_copy(cut_format(kMaxPathBytes, "cp %s %s ", from, to));
}
