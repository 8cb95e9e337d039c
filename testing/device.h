// SPDX-License-Identifier: Apache-2.0
#pragma once

// What programs share that run inside the virtual device to try it: its files and properties, its
// processes, and waits that sleep in the kernel. Waits give up after kPatience unless another span
// is given, and say by their result whether what they waited for is there.

#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace inside {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{60};

// Empty also when it vanishes meanwhile, as files of processes do.
std::string read_file(const std::string& path);
std::vector<std::string> read_lines(const std::string& path);
void write_file(const std::string& path, const std::string& text);
// Puts a stand-in in the place of one of the device's programs.
void write_program(const std::string& path, const std::string& shell_text);
int mode_of(const std::string& path);
// Sorted.
std::vector<std::string> names_in(const std::string& dir);
// Another file system at this place, with `options` like "size=256k".
bool mount_memory(const std::string& dir, unsigned long flags = 0, const char* options = nullptr);

bool set_property(const std::string& name, const std::string& value);
std::string property(const std::string& name, const std::string& fallback = "(unset)");

// --- Waiting -------------------------------------------------------------------------------------

// A user has 128 inotify instances in all, those of all devices that run at once included.
struct inotify_limit : std::runtime_error {
    inotify_limit()
        : std::runtime_error("inotify_init1: the user's fs.inotify.max_user_instances are in use") {
    }
};

// Throws inotify_limit.
android::base::unique_fd open_inotify();

bool wait_for_input(int fd, std::chrono::milliseconds span = kPatience);
// Waits in the kernel until `condition`, looked at again whenever something changes in `dir`, and
// each second for what is in no directory. Throws inotify_limit.
bool wait_until(const std::string& dir, const std::function<bool()>& condition);
bool wait_for_text(const std::string& file, const std::string& text);

// --- Processes; what still runs in the end goes with the device ----------------------------------

// "/proc/PID/FILE".
std::string proc(pid_t pid, const std::string& file);
// Of a file in /proc with a "NAME: VALUE" in each line; empty when the process has gone.
std::string proc_field(const std::string& file, const std::string& name);
// Throws std::invalid_argument when there is none.
long proc_number(const std::string& file, const std::string& name);
long private_kbytes(pid_t pid);

struct process {
    pid_t pid;
    pid_t parent;
    std::string name;
    bool has_ended;  // and waits for its parent
};

std::vector<process> processes();
// Those that run a program of this name, without those that have ended and wait for their parent.
std::vector<pid_t> processes_named(const std::string& name);
pid_t start(const std::string& shell_line);
int wait_status(pid_t child);
// Also of a process that is not a child of the test.
bool wait_for_end(pid_t pid);

struct outcome {
    int exit_status;     // -1: did not exit
    std::string output;  // standard error too
};

outcome run(const std::string& shell_line);

}  // namespace inside
