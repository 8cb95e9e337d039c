#pragma once

// What the tests of the product share. Every case runs in a fresh virtual device: files, properties
// and programs may be put where the phone has them.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace fixture {

constexpr std::chrono::seconds kPatience{60};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::vector<std::string> read_lines(const std::string& path) {
    std::istringstream in(read_file(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline void write_file(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Puts a stand-in in the place of one of the device's programs.
inline void write_program(const std::string& path, const std::string& shell_text) {
    std::filesystem::remove(path);
    write_file(path, "#!/system/bin/sh\n" + shell_text + "\n");
    chmod(path.c_str(), 0755);
}

inline mode_t mode_of(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

inline std::vector<std::string> names_in(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Waits in the kernel until `condition`, looked at again whenever something changes in `dir`.
inline bool wait_until(const std::string& dir, const std::function<bool()>& condition) {
    const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    inotify_add_watch(fd, dir.c_str(),
                      IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    bool met = condition();
    while (!met && std::chrono::steady_clock::now() < deadline) {
        pollfd waiting{fd, POLLIN, 0};
        poll(&waiting, 1, 1000);
        char events[4096];
        while (read(fd, events, sizeof(events)) > 0) {
        }
        met = condition();
    }
    close(fd);
    return met;
}

inline bool wait_for_text(const std::string& file, const std::string& text) {
    return wait_until(std::filesystem::path(file).parent_path(),
                      [&] { return read_file(file).find(text) != std::string::npos; });
}

// Also of a process that is not a child of the test.
inline bool wait_for_end(pid_t pid) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        return errno == ESRCH;
    }
    pollfd waiting{fd, POLLIN, 0};
    const bool ended = poll(&waiting, 1, std::chrono::milliseconds(kPatience).count()) == 1;
    close(fd);
    return ended;
}

// The processes whose /proc status holds `line` and not `without`.
inline std::vector<pid_t> processes_with(const std::string& line, const std::string& without) {
    std::vector<pid_t> pids;
    for (const std::string& entry : names_in("/proc")) {
        const std::string status = read_file("/proc/" + entry + "/status");
        if (status.find(line + "\n") != std::string::npos &&
            (without.empty() || status.find(without) == std::string::npos)) {
            pids.push_back(std::stoi(entry));
        }
    }
    return pids;
}

// The processes that run a program of this name, without those that have ended and wait for their
// parent.
inline std::vector<pid_t> processes_named(const std::string& name) {
    return processes_with("Name:\t" + name, "\nState:\tZ");
}

// Of all threads of a process, those that have ended and wait for it included.
inline std::vector<pid_t> children_of(pid_t parent) {
    return processes_with("\nPPid:\t" + std::to_string(parent), "");
}

// Standard error, where the device's log lines go, kept in a file: a pipe would stay open in
// children that outlive the test.
class log_lines {
  public:
    log_lines() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        const int fd = open(kFile, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    // What a sanitizer has to say about a program under test stands there too.
    ~log_lines() {
        const std::string text = read_file(kFile);
        EXPECT_EQ(text.find("Sanitizer"), std::string::npos) << text;
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    log_lines(const log_lines&) = delete;
    log_lines& operator=(const log_lines&) = delete;

    // As "I ZQ_UTIL: text": priority, tag, text.
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        for (const std::string& line : read_lines(kFile)) {
            result.push_back(without_columns(line));
        }
        return result;
    }

    static constexpr const char* kFile = "/data/standard_error";

  private:
    // "11-21 09:30:05.123  4242  4243 I ZQ_UTIL : text": the fifth column begins the rest.
    static std::string without_columns(const std::string& line) {
        std::istringstream in(line);
        std::string column;
        for (int i = 0; i < 4; ++i) {
            in >> column;
        }
        std::string rest;
        std::getline(in >> std::ws, rest);
        const size_t colon = rest.find(": ");
        const size_t tag_end = rest.find_last_not_of(' ', colon - 1);
        return colon == std::string::npos ? line : rest.erase(tag_end + 1, colon - tag_end - 1);
    }

    int saved_;
};

}  // namespace fixture
