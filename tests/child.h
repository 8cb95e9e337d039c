#pragma once

// Programs that a test starts.

#include <gtest/gtest.h>
#include <spawn.h>

#include <utility>

#include "tests/device_fixture.h"

namespace fixture {

using command = std::vector<std::string>;

// A running program; one that has not been waited for is killed in the end.
class child {
  public:
    // Standard output and standard error go to the file `output`, anew.
    explicit child(command words, const char* output = "/dev/null") {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output,
                                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        EXPECT_EQ(posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    child(const child&) = delete;
    child& operator=(const child&) = delete;

    pid_t pid() const { return pid_; }

    // The status of waitpid, -1 when the program does not end.
    int wait() {
        int status = -1;
        return wait_for_end(pid_) && waitpid(std::exchange(pid_, -1), &status, 0) > 0 ? status : -1;
    }

  private:
    pid_t pid_ = -1;
};

struct outcome {
    int exit_status;  // -1: did not exit
    std::string output;
};

inline outcome run(command words) {
    const int status = child(std::move(words), "/data/output").wait();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file("/data/output")};
}

}  // namespace fixture
