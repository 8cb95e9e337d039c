// SPDX-License-Identifier: Apache-2.0

// Looks into the virtual device from a program inside it.
#include "testing/device.h"

namespace device {

std::string read_file(const std::string& path) {
    const std::ifstream in(path, std::ios::binary);
    if (!in && !path.starts_with("/proc/")) {
        return "(" + path + ": " + strerror(errno) + ")";
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> read_lines(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void write_file(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void write_program(const std::string& path, const std::string& shell_text) {
    fs::remove(path);
    write_file(path, "#!/system/bin/sh\n" + shell_text + "\n");
    fs::permissions(path, fs::perms(0755));
}

int mode_of(const std::string& path) {
    return static_cast<int>(fs::status(path).permissions());
}

std::vector<std::string> names_in(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool mount_memory(const std::string& dir, unsigned long flags, const char* options) {
    return mount("none", dir.c_str(), "tmpfs", flags, options) == 0;
}

bool set_property(const std::string& name, const std::string& value) {
    return property_set(name.c_str(), value.c_str()) == 0;
}

std::string property(const std::string& name, const std::string& fallback) {
    char value[PROPERTY_VALUE_MAX];
    property_get(name.c_str(), value, fallback.c_str());
    return value;
}

android::base::unique_fd open_inotify() {
    android::base::unique_fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (fd < 0) {
        throw std::runtime_error(std::string("inotify_init1: ") + strerror(errno));
    }
    return fd;
}

bool wait_for_input(int fd, std::chrono::milliseconds span) {
    pollfd waiting{fd, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(span.count())) == 1;
}

bool wait_until(const std::string& dir, const std::function<bool()>& condition) {
    const android::base::unique_fd fd = open_inotify();
    inotify_add_watch(fd, dir.c_str(),
                      IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        wait_for_input(fd, std::chrono::seconds(1));
        char events[4096];
        while (read(fd, events, sizeof(events)) > 0) {
        }
    }
    return true;
}

bool wait_for_text(const std::string& file, const std::string& text) {
    return wait_until(fs::path(file).parent_path(),
                      [&] { return read_file(file).find(text) != std::string::npos; });
}

std::string proc(pid_t pid, const std::string& file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

std::string proc_field(const std::string& file, const std::string& name) {
    for (const std::string& line : read_lines(file)) {
        if (line.starts_with(name + ":")) {
            const size_t begin = line.find_first_not_of(" \t", name.size() + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

long proc_number(const std::string& file, const std::string& name) {
    return std::stol(proc_field(file, name));
}

long private_kbytes(pid_t pid) {
    const std::string file = proc(pid, "smaps_rollup");
    return proc_number(file, "Private_Clean") + proc_number(file, "Private_Dirty");
}

std::vector<process> processes() {
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

static std::vector<pid_t> running(const auto& is_meant) {
    std::vector<pid_t> pids;
    for (const process& each : processes()) {
        if (is_meant(each) && !each.has_ended) {
            pids.push_back(each.pid);
        }
    }
    return pids;
}

std::vector<pid_t> processes_named(const std::string& name) {
    return running([&](const process& each) { return each.name == name; });
}

std::vector<pid_t> children_of(pid_t parent) {
    return running([=](const process& each) { return each.parent == parent; });
}

// By the kernel functions that its threads wait in.
bool wait_until_idle(pid_t pid) {
    const std::string threads = proc(pid, "task");
    return wait_until("/data", [&] {
        return std::ranges::all_of(names_in(threads), [&](const std::string& thread) {
            const std::string function = read_file(threads + "/" + thread + "/wchan");
            return function.find("poll") != function.npos ||
                   function.find("sleep") != function.npos;
        });
    });
}

pid_t start(const std::string& shell_line) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/system/bin/sh", "sh", "-c", shell_line.c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

int wait_status(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

bool wait_for_end(pid_t pid) {
    const android::base::unique_fd fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return fd < 0 ? errno == ESRCH : wait_for_input(fd);
}

outcome run(const std::string& shell_line) {
    const int status = wait_status(start("exec >/data/output 2>&1; " + shell_line));
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file("/data/output")};
}

}  // namespace device
