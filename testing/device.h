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
#include <string>
#include <vector>

namespace inside {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{60};

// Empty also when it vanishes meanwhile, as files of processes do.
inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline std::vector<std::string> read_lines(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline void write_file(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Puts a stand-in in the place of one of the device's programs.
inline void write_program(const std::string& path, const std::string& shell_text) {
    fs::remove(path);
    write_file(path, "#!/system/bin/sh\n" + shell_text + "\n");
    fs::permissions(path, fs::perms(0755));
}

inline int mode_of(const std::string& path) {
    return static_cast<int>(fs::status(path).permissions());
}

inline std::vector<std::string> names_in(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Another file system at this place, with `options` like "size=256k".
inline bool mount_memory(const std::string& dir, unsigned long flags = 0,
                         const char* options = nullptr) {
    return mount("none", dir.c_str(), "tmpfs", flags, options) == 0;
}

inline bool set_property(const std::string& name, const std::string& value) {
    return property_set(name.c_str(), value.c_str()) == 0;
}

inline std::string property(const std::string& name, const std::string& fallback = "(unset)") {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(name.c_str(), value, fallback.c_str());
    return {value, static_cast<size_t>(length)};
}

// --- Waiting -------------------------------------------------------------------------------------

inline bool wait_for_input(int fd, std::chrono::milliseconds span = kPatience) {
    pollfd waiting{fd, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(span.count())) == 1;
}

// Waits in the kernel until `condition`, looked at again whenever something changes in `dir`, and
// each second for what is in no directory.
inline bool wait_until(const std::string& dir, const std::function<bool()>& condition) {
    const android::base::unique_fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    inotify_add_watch(fd, dir.c_str(),
                      IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    bool met = condition();
    while (!met && std::chrono::steady_clock::now() < deadline) {
        wait_for_input(fd, std::chrono::seconds(1));
        char events[4096];
        while (read(fd, events, sizeof(events)) > 0) {
        }
        met = condition();
    }
    return met;
}

inline bool wait_for_text(const std::string& file, const std::string& text) {
    return wait_until(fs::path(file).parent_path(),
                      [&] { return read_file(file).find(text) != std::string::npos; });
}

// --- Processes; what still runs in the end goes with the device ----------------------------------

// Of a file in /proc with a "NAME: VALUE" in each line; empty when the process has gone.
inline std::string proc_field(const std::string& file, const std::string& name) {
    for (const std::string& line : read_lines(file)) {
        if (line.starts_with(name + ":")) {
            const size_t begin = line.find_first_not_of(" \t", name.size() + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

struct process {
    pid_t pid;
    pid_t parent;
    std::string name;
    bool has_ended;  // and waits for its parent
};

inline std::vector<process> processes() {
    std::vector<process> found;
    for (const std::string& entry : names_in("/proc")) {
        const std::string status = "/proc/" + entry + "/status";
        const std::string parent = proc_field(status, "PPid");
        const std::string state = proc_field(status, "State");
        if (isdigit(entry[0]) != 0 && !parent.empty() && !state.empty()) {
            found.push_back(
                {std::stoi(entry), std::stoi(parent), proc_field(status, "Name"), state[0] == 'Z'});
        }
    }
    return found;
}

// Those that run a program of this name, without those that have ended and wait for their parent.
inline std::vector<pid_t> processes_named(const std::string& name) {
    std::vector<pid_t> pids;
    for (const process& each : processes()) {
        if (each.name == name && !each.has_ended) {
            pids.push_back(each.pid);
        }
    }
    return pids;
}

inline pid_t start(const std::string& shell_line) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/system/bin/sh", "sh", "-c", shell_line.c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

inline int wait_status(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// Also of a process that is not a child of the test.
inline bool wait_for_end(pid_t pid) {
    const android::base::unique_fd fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return fd < 0 ? errno == ESRCH : wait_for_input(fd);
}

struct outcome {
    int exit_status;     // -1: did not exit
    std::string output;  // standard error too
};

inline outcome run(const std::string& shell_line) {
    const int status = wait_status(start("exec >/data/output 2>&1; " + shell_line));
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file("/data/output")};
}

}  // namespace inside
