#define LOG_TAG "ZQ_UTIL"

#include "utils/children.h"

#include <android-base/logging.h>
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

#include "utils/stop_signal.h"
#include "utils/util.h"

namespace fs = std::filesystem;

namespace {

enum class process_group { inherited, own };

struct spawn_settings {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;

    spawn_settings() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&files);
    }
    ~spawn_settings() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    spawn_settings(const spawn_settings&) = delete;
    spawn_settings& operator=(const spawn_settings&) = delete;
};

// Children are most of what an event costs, and a spawn, unlike a fork, copies no page tables. It
// keeps every signal from the child until its dispositions are the default ones: a handler of the
// daemon would swallow it there, and the program would run on unstopped. Returns -1, with errno,
// when the program cannot be started; of that bionic says nothing, and the child ends with 127.
pid_t spawn(const char* const argv[], int standard_output = STDOUT_FILENO,
            process_group group = process_group::inherited) {
    spawn_settings settings;
    sigset_t signals;
    // Not sigfillset: it leaves out two that a spawn would then have the program ignore.
    memset(&signals, 0xff, sizeof(signals));
    sigdelset(&signals, SIGKILL);  // a refusal, as for these two, may end the child
    sigdelset(&signals, SIGSTOP);
    posix_spawnattr_setsigdefault(&settings.attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&settings.attributes, &signals);
    // Without the last one bionic forks when it is given attributes.
    int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_USEVFORK;
    if (group == process_group::own) {
        flags |= POSIX_SPAWN_SETPGROUP;
    }
    posix_spawnattr_setflags(&settings.attributes, static_cast<short>(flags));
    if (standard_output != STDOUT_FILENO) {
        posix_spawn_file_actions_adddup2(&settings.files, standard_output, STDOUT_FILENO);
    }
    pid_t pid = -1;
    errno = posix_spawn(&pid, argv[0], &settings.files, &settings.attributes,
                        const_cast<char* const*>(argv), environ);
    return errno == 0 ? pid : -1;
}

pid_t start_shell(const char* command, int standard_output = STDOUT_FILENO,
                  process_group group = process_group::inherited) {
    const char* const argv[] = {_PATH_BSHELL, "-c", command, nullptr};
    return spawn(argv, standard_output, group);
}

pid_t start_shell_or_say(const char* command, process_group group) {
    const pid_t pid = start_shell(command, STDOUT_FILENO, group);
    if (pid < 0) {
        LOG(ERROR) << "fail to run " << command << ", error: " << strerror(errno);
    }
    return pid;
}

constexpr size_t kMaxCommandBytes = 1023;
constexpr std::chrono::seconds kPatience(5);

}  // namespace

pid_t spawn_or_fork(const char* const argv[]) {
    const pid_t pid = spawn(argv);
    return pid < 0 && errno != EAGAIN && errno != ENOMEM ? fork() : pid;
}

int wait_for(pid_t pid, const char* command) {
    if (is_stoppable() && !wait_for_end(pid, kPatience)) {
        LOG(ERROR) << "still running, no longer waited for: " << command;
        throw child_left_alone();
    }
    int status = -1;
    return TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == pid ? status : -1;
}

int ZQRecordLog(const std::string& tag, char* const argv[]) {
    const pid_t pid = spawn_or_fork(argv);
    if (pid > 0) {
        LOG(INFO) << "tag: " << tag << ", pid: " << pid;
    } else if (pid < 0) {
        LOG(ERROR) << "tag: " << tag << ", error: " << strerror(errno);
    }
    return pid;
}

int run_shell(const char* command) {
    const pid_t pid = start_shell_or_say(command, process_group::inherited);
    return pid < 0 ? -1 : wait_for(pid, command);
}

pid_t start_shell_group(const char* command) {
    return start_shell_or_say(command, process_group::own);
}

void execute_cmd(const char* command) {
    if (strlen(command) > kMaxCommandBytes) {
        LOG(FATAL) << "command longer than " << kMaxCommandBytes << " bytes";
    }
    int pipe_fds[2];
    pid_t pid = -1;
    if (pipe2(pipe_fds, O_CLOEXEC) == 0) {
        close(pipe_fds[0]);
        pid = start_shell(command, pipe_fds[1]);
        close(pipe_fds[1]);
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
    run_shell(cut_format(kMaxPathBytes, "cp -r %s %s ", from, to).c_str());
}

void ZQCopyCmd(const char* from, const char* to) {
    run_shell(cut_format(kMaxPathBytes, "cp %s %s ", from, to).c_str());
}
