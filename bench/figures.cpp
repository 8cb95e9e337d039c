// SPDX-License-Identifier: Apache-2.0

// figures NAME: prints the samples of one figure of the daemon in the virtual device.

#include "bench/figures.h"

#include <sys/stat.h>

#include <cstring>
#include <iostream>

#include "testing/device.h"
#include "utils/util.h"

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void print_sample(const char* figure, int work, const std::string& side, double value) {
    printf("%s\t%d\t%s\t%.4f\n", figure, work, side.c_str(), value);
}

side_process::side_process(const std::string& shell_line)
    : pid_(start_shell_group(shell_line.c_str())) {
    require(pid_ > 0, "cannot start " + shell_line);
}

side_process::~side_process() {
    kill(-pid_, SIGKILL);
    inside::wait_status(pid_);
}

pid_t start_program(const std::vector<std::string>& argv, int output, int error) {
    std::vector<char*> arguments;
    for (const std::string& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(output, STDOUT_FILENO);
        dup2(error, STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    require(pid > 0, "cannot start " + argv[0]);
    return pid;
}

line_fifo::line_fifo(const std::string& path) : path_(path) {
    require(mkfifo(path.c_str(), 0666) == 0, "cannot make " + path);
    fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);  // also for writing: it never ends
}

line_fifo::~line_fifo() {
    close(fd_);
    unlink(path_.c_str());
}

std::string line_fifo::next() {
    size_t end = 0;
    while ((end = rest_.find('\n')) == std::string::npos) {
        require(inside::wait_for_input(fd_), "a line that was waited for has not come");
        char bytes[4096];
        const ssize_t count = read(fd_, bytes, sizeof(bytes));
        require(count > 0, "cannot read the fifo");
        rest_.append(bytes, static_cast<size_t>(count));
    }
    std::string line = rest_.substr(0, end);
    rest_.erase(0, end + 1);
    return line;
}

void set_property(const char* name, const char* value) {
    require(inside::set_property(name, value), std::string("cannot set ") + name);
}

void make_phone_folders() {
    for (const char* dir : {"/data/logs/general_log", "/data/brevix/eventTemp",
                            "/data/system/dropbox", "/data/tombstones"}) {
        std::filesystem::create_directories(dir);
    }
}

void switch_detection_on() {
    for (const char* name : {"persist.service.crashlog.enable", "persist.service.custom.event",
                             "persist.service.event.detect"}) {
        set_property(name, "1");
    }
}

namespace {

constexpr struct {
    const char* name;
    void (*run)();
} kFigures[] = {{"road", road},  {"burst", burst},           {"count", count},
                {"size", size},  {"switch", capture_switch}, {"idle", idle},
                {"armed", armed}};

}  // namespace

int main(int argc, char* argv[]) {
    // What the product's own functions log here is part of their work, but not for the reader.
    const android::base::unique_fd terminal(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    require(freopen("/data/figures.log", "ae", stderr) != nullptr, "cannot redirect the log");
    for (const auto& figure : kFigures) {
        if (argc != 2 || strcmp(argv[1], figure.name) != 0) {
            continue;
        }
        try {
            figure.run();
        } catch (const std::exception& error) {
            dprintf(terminal, "%s: %s\n", figure.name, error.what());
            return 1;
        }
        return 0;
    }
    dprintf(terminal, "usage: figures NAME\n");
    return 1;
}
