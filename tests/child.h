#pragma once

// Programs that a test starts. What still runs in the end goes with the device.

#include "tests/device_fixture.h"

namespace fixture {

inline pid_t start(const std::string& shell_line) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/system/bin/sh", "sh", "-c", shell_line.c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

// The status of waitpid, -1 when the program does not end.
inline int wait(pid_t pid) {
    int status = -1;
    return wait_for_end(pid) && waitpid(pid, &status, 0) == pid ? status : -1;
}

struct outcome {
    int exit_status;     // -1: did not exit
    std::string output;  // standard error too
};

inline outcome run(const std::string& shell_line) {
    const int status = wait(start("exec >/data/output 2>&1; " + shell_line));
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file("/data/output")};
}

}  // namespace fixture
