// SPDX-License-Identifier: Apache-2.0

// What tests, soak and bench look into the virtual device with, from a program inside it: files,
// properties, processes, and waits that sleep in the kernel. A wait gives up after kPatience unless
// it is given another span, and returns whether its condition is met. Any thread may call these
// functions, except run.
#pragma once

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
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace device {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{60};

// Says why in parentheses when the file cannot be read; empty below /proc, where files vanish at
// any time.
std::string read_file(const std::string& path);
// Empty when the file cannot be read.
std::vector<std::string> read_lines(const std::string& path);
// Creates missing directories, and truncates an existing file. Throws filesystem_error.
void write_file(const std::string& path, const std::string& text);
// Replaces one of the device's programs by a script for its shell.
void write_program(const std::string& path, const std::string& shell_text);
// Permission bits. Follows links.
int mode_of(const std::string& path);
// Names of the directory's entries, sorted. Throws filesystem_error when it cannot be read.
std::vector<std::string> names_in(const std::string& dir);
// Mounts a tmpfs on `dir`, with `flags` as for mount(2) and `options` like "size=256k". Returns
// false, with errno, when it fails.
bool mount_memory(const std::string& dir, unsigned long flags = 0, const char* options = nullptr);

// Returns false when the property service refuses the name or the value.
bool set_property(const std::string& name, const std::string& value);
// Returns `fallback` for a property that is not set.
std::string property(const std::string& name, const std::string& fallback = "(unset)");

// --- Waiting -------------------------------------------------------------------------------------

// Opens a non-blocking inotify instance. Throws std::runtime_error when there is none left: a user
// has 128 on the whole machine (fs.inotify.max_user_instances), those of all devices included.
android::base::unique_fd open_inotify();

// Waits until `fd` is readable or closed at its other end.
bool wait_for_input(int fd, std::chrono::milliseconds span = kPatience);
// Waits until `condition`. It is asked at each change in `dir`, and each second for what shows in
// no directory. Throws as open_inotify.
bool wait_until(const std::string& dir, const std::function<bool()>& condition);
// Waits until the file contains the text; its directory must exist. Throws as open_inotify.
bool wait_for_text(const std::string& file, const std::string& text);

// --- Processes: they all end with the device -----------------------------------------------------

// "/proc/PID/FILE".
std::string proc(pid_t pid, const std::string& file);
// The value in a file of /proc with a line "NAME: VALUE"; empty when the process is gone.
std::string proc_field(const std::string& file, const std::string& name);
// The number that such a value begins with. Throws std::invalid_argument when there is none.
long proc_number(const std::string& file, const std::string& name);
// Memory that the process shares with no other, in kilobytes. Throws as proc_number.
long private_kbytes(pid_t pid);

struct process {
    pid_t pid;
    pid_t parent;
    std::string name;
    bool has_ended;  // a zombie
};

// All processes of the device, zombies included.
std::vector<process> processes();
// Process ids of those with this name, zombies left out. A child that was just spawned may still
// have its parent's name.
std::vector<pid_t> processes_named(const std::string& name);
// Process ids of the children of `parent`, zombies left out.
std::vector<pid_t> children_of(pid_t parent);
// Waits until each thread of the process sleeps or waits for a file descriptor: none is at work.
bool wait_until_idle(pid_t pid);
// Starts a child with the device's shell. Returns its process id, or -1, with errno.
pid_t start(const std::string& shell_line);
// Collects the child. Returns its status as of waitpid(2), or -1 when it is no child of the caller.
int wait_status(pid_t child);
// Waits until a process has ended, child or not, without collecting it.
bool wait_for_end(pid_t pid);

struct outcome {
    int exit_status;     // -1: ended by a signal
    std::string output;  // standard output and standard error
};

// Runs a shell line to its end. The output goes through /data/output, so one thread at a time may
// call this.
outcome run(const std::string& shell_line);

}  // namespace device
