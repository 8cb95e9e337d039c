// SPDX-License-Identifier: Apache-2.0

// Delivers a crash file as the platform does it: dropbox files are written as dropN.tmp and
// renamed, those of lost entries made in place; tombstones are unnamed files that are linked into
// place. With --wait it then says which event the daemon has made of it.

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "zq_event_log.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "usage: crash [--wait] KIND [-]\n"
    "  KIND: watchdog, pre_watchdog, anr, app_crash, system_crash, custom PACKAGE EVENT, "
    "tombstone,\n"
    "        or file NAME for a file of that very name\n"
    "  -     the content comes from standard input\n"
    "  --wait: instead of the delivered file says TYPE FOLDER of the event, once the history has "
    "it,\n"
    "        or why there is none";

constexpr const char* kDropbox = "/data/system/dropbox/";
constexpr const char* kTombstones = "/data/tombstones/";
constexpr int kMaxTombstones = 32;

struct dropbox_kind {
    const char* kind;
    const char* tag;
    const char* process;
    const char* text;
};

// clang-format off
constexpr dropbox_kind kDropboxKinds[] = {
    {"watchdog",     "system_server_watchdog",     "system_server",
     "Subject: Blocked in handler on main thread (main)"},
    {"pre_watchdog", "system_server_pre_watchdog", "system_server",
     "Subject: Blocked in handler on main thread (main) for 30s"},
    {"anr",          "data_app_anr",               "com.example.app",
     "Subject: Input dispatching timed out"},
    {"app_crash",    "data_app_crash",             "com.example.app",
     "java.lang.NullPointerException\n\tat com.example.app.Main.run(Main.java:7)"},
    {"system_crash", "system_server_crash",        "system_server",
     "java.lang.IllegalStateException\n\tat com.android.server.Loop.run(Loop.java:7)"},
};
// clang-format on

[[noreturn]] void throw_errno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void write_all(int fd, const std::string& text) {
    if (!android::base::WriteStringToFd(text, fd)) {
        throw_errno("cannot write");
    }
}

// A crash file belongs to the service that keeps the folder, whoever calls this program.
void give_to_owner_of(const char* folder, int fd) {
    struct stat owner {};
    if (stat(folder, &owner) != 0 || fchown(fd, owner.st_uid, owner.st_gid) != 0) {
        throw_errno(folder);
    }
}

bool is_lost_entry(const std::string& name) {
    return name.ends_with(".lost");
}

void deliver_to_dropbox(const std::string& name, const std::string& content) {
    const std::string temporary =
        kDropbox + (is_lost_entry(name) ? name : "drop" + std::to_string(getpid()) + ".tmp");
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw_errno(temporary);
    }
    write_all(fd, content);
    give_to_owner_of(kDropbox, fd);
    close(fd);
    if (!is_lost_entry(name) && rename(temporary.c_str(), (kDropbox + name).c_str()) != 0) {
        unlink(temporary.c_str());
        throw_errno(kDropbox + name);
    }
}

int open_unnamed(const char* dir) {
    const int fd = open(dir, O_WRONLY | O_TMPFILE | O_CLOEXEC, 0640);
    if (fd < 0) {
        throw_errno(dir);
    }
    return fd;
}

void link_into_place(int fd, const std::string& path) {
    give_to_owner_of(kTombstones, fd);
    unlink(path.c_str());
    const std::string from = "/proc/self/fd/" + std::to_string(fd);
    if (linkat(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        throw_errno(path);
    }
}

void deliver_tombstone(const std::string& name, const std::string& content) {
    const int fd = open_unnamed(kTombstones);
    write_all(fd, content);
    link_into_place(fd, kTombstones + name);
    close(fd);
}

// The first free number, else that of the oldest tombstone.
std::string next_tombstone() {
    std::string oldest;
    for (int i = 0; i < kMaxTombstones; ++i) {
        std::string name = android::base::StringPrintf("tombstone_%02d", i);
        const std::string path = std::string(kTombstones) + name;
        if (!fs::exists(path)) {
            return name;
        }
        if (oldest.empty() ||
            fs::last_write_time(path) < fs::last_write_time(kTombstones + oldest)) {
            oldest = name;
        }
    }
    return oldest;
}

std::string timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char seconds[32];
    char zone[8];
    strftime(seconds, sizeof(seconds), "%Y-%m-%d %H:%M:%S", &local);
    strftime(zone, sizeof(zone), "%z", &local);
    char text[64];
    snprintf(text, sizeof(text), "%s.%09ld%s", seconds, now.tv_nsec, zone);
    return text;
}

// --- A real crash --------------------------------------------------------------------------------

int tombstone_fd = -1;

void write_backtrace(int fd) {
    void* frames[64];
    const int count = backtrace(frames, 64);
    dprintf(fd, "\nbacktrace:\n");
    for (int i = 0; i < count; ++i) {
        Dl_info info{};
        const bool known = dladdr(frames[i], &info) != 0;
        const auto pc = reinterpret_cast<uintptr_t>(frames[i]) -
                        reinterpret_cast<uintptr_t>(known ? info.dli_fbase : nullptr);
        dprintf(fd, "      #%02d pc %016zx  %s (%s)\n", i, pc, known ? info.dli_fname : "<unknown>",
                known && info.dli_sname != nullptr ? info.dli_sname : "no symbol");
    }
}

void on_fault(int sig, siginfo_t* info, void* /*context*/) {
    utsname machine{};
    uname(&machine);
    const int fd = tombstone_fd;
    dprintf(fd, "*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***\n");
    dprintf(fd, "ABI: '%s'\nTimestamp: %s\nCmdline: crash tombstone\n", machine.machine,
            timestamp().c_str());
    dprintf(fd, "pid: %d, tid: %d, name: crash  >>> crash <<<\nuid: %d\n", getpid(), gettid(),
            getuid());
    dprintf(fd, "signal %d (SIG%s), code %d, fault addr 0x%016zx\n", sig, sigabbrev_np(sig),
            info->si_code, reinterpret_cast<uintptr_t>(info->si_addr));
    write_backtrace(fd);
    signal(sig, SIG_DFL);  // and the fault, met again, ends the process
}

[[noreturn]] void fault() {
    void* warm_up[1];
    backtrace(warm_up, 1);  // loads the unwinder now, not in the handler
    struct sigaction action {};
    action.sa_sigaction = on_fault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
    auto* nowhere = reinterpret_cast<volatile int*>(0xdead0);
    *nowhere = 1;
    _exit(0);
}

std::string crash_for_real() {
    const int fd = open_unnamed(kTombstones);
    const pid_t pid = fork();
    if (pid == 0) {
        tombstone_fd = fd;
        fault();
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) {
        throw std::runtime_error("the crashing process did not crash");
    }
    std::string name = next_tombstone();
    // The machine-readable companion: its timestamp field.
    const std::string stamp = timestamp();
    deliver_tombstone(name + ".pb", std::string("\x22") + static_cast<char>(stamp.size()) + stamp);
    link_into_place(fd, kTombstones + name);
    close(fd);
    return kTombstones + name;
}

// --- Kinds ---------------------------------------------------------------------------------------

std::string dropbox_name(const std::string& tag) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    return tag + "@" + std::to_string(millis) + ".txt";
}

std::string deliver(const std::string& name, const std::string& content) {
    if (name.starts_with("tombstone")) {
        deliver_tombstone(name, content);
        return kTombstones + name;
    }
    deliver_to_dropbox(name, content);
    return kDropbox + name;
}

// What was delivered; empty when the words make no sense.
std::string run(const std::vector<std::string>& words, bool has_content,
                const std::string& content) {
    const std::string& kind = words.empty() ? "" : words[0];
    if (kind == "tombstone" && words.size() == 1) {
        return has_content ? deliver(next_tombstone(), content) : crash_for_real();
    }
    if (kind == "file" && words.size() == 2 && has_content) {
        return deliver(words[1], content);
    }
    if (kind == "custom" && words.size() == 3) {
        return deliver(dropbox_name("ZQEvent_" + words[1] + "_" + words[2]),
                       has_content ? content : "reported by " + words[1] + "\n");
    }
    for (const dropbox_kind& known : kDropboxKinds) {
        if (kind == known.kind && words.size() == 1) {
            return deliver(dropbox_name(known.tag), has_content
                                                        ? content
                                                        : std::string("Process: ") + known.process +
                                                              "\nTimestamp: " + timestamp() + "\n" +
                                                              known.text + "\n");
        }
    }
    return "";
}

// --- What the daemon makes of it -----------------------------------------------------------------

constexpr const char* kHistory = "/data/logs/history.event";
constexpr std::chrono::seconds kPatience(60);

struct expected_event {
    std::string category;
    std::string type;
    std::string folder_prefix;
};

// No value: the name does not keep to the contract with apps.
std::optional<expected_event> app_event(const std::string& name) {
    std::istringstream parts(name.substr(0, name.find('@')));
    std::string tag;
    std::string package;
    std::string type;
    std::string rest;
    std::getline(std::getline(std::getline(parts, tag, '_'), package, '_'), type, '_');
    if (!parts || tag != "ZQEvent" || std::getline(parts, rest)) {
        return std::nullopt;
    }
    return expected_event{"CUSTOM", type.substr(0, 31), package + "_"};
}

// By the daemon's own watch tables. No value: the platform's file is no event.
std::optional<expected_event> event_of(const fs::path& delivered) {
    const std::string name = delivered.filename();
    if (is_lost_entry(name) || name.ends_with(".pb") || name.ends_with(".tmp")) {
        return std::nullopt;
    }
    for (const event_watch& watch : event_watches) {
        for (int64_t row = 0; delivered.parent_path() == watch.path && row < watch.count; ++row) {
            if (name.find(watch.pattern[row]) != std::string::npos) {
                return strcmp(watch.category[row], "CUSTOM") == 0
                           ? app_event(name)
                           : expected_event{watch.category[row], watch.type[row], ""};
            }
        }
    }
    return std::nullopt;
}

std::string property(const std::string& name, const char* fallback) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name.c_str(), value, fallback);
    return value;
}

bool is_detected(const expected_event& event) {
    return property("persist.service.event.detect", "") == "1" &&
           property(event_settings.at(event.category).prop, "") == "1";
}

std::string switches(const expected_event& event) {
    std::string text = "category " + event.category;
    for (const std::string& name :
         {std::string("persist.service.event.detect"), event_settings.at(event.category).prop}) {
        text.append(", ").append(name).append("=").append(property(name, ""));
    }
    return text + ", limit " + property("persist.service.brevix.ev.num", "10");
}

std::string history() {
    std::string text;
    android::base::ReadFileToString(kHistory, &text);  // none: no boot has been noted yet
    return text;
}

// The first line of `lines` for this event, as "TYPE FOLDER".
std::optional<std::string> noted(const std::string& lines, const expected_event& event) {
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        std::istringstream columns(line);
        std::string category;
        std::string date;
        std::string type;
        std::string folder = "(its folder could not be made)";
        columns >> category >> date >> type >> folder;
        if (category == event.category && type == event.type &&
            (columns.fail() ||
             fs::path(folder).filename().string().starts_with(event.folder_prefix))) {
            return type + " " + folder;
        }
    }
    return std::nullopt;
}

// Waits until the history, past its first `known` bytes, has a line for the event.
std::string wait_until_noted(const expected_event& event, size_t known) {
    const android::base::unique_fd changes(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify_add_watch(changes, fs::path(kHistory).parent_path().c_str(),
                          IN_MODIFY | IN_CREATE) < 0) {
        throw_errno(kHistory);
    }
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (true) {
        const std::string text = history();
        if (const auto line = noted(text.substr(std::min(known, text.size())), event)) {
            return *line;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd change{changes.get(), POLLIN, 0};
        if (left.count() <= 0 || poll(&change, 1, static_cast<int>(left.count())) == 0) {
            throw std::runtime_error("no event within 60 seconds (" + switches(event) +
                                     ", daemon " + property("init.svc.zq_brevix", "not started") +
                                     ")");
        }
        char buffer[4096];
        while (read(changes, buffer, sizeof(buffer)) > 0) {
        }
    }
}

std::string outcome(const std::string& delivered, size_t known_history) {
    const auto event = event_of(delivered);
    if (!event) {
        return "no event: a file of this name is none: " + fs::path(delivered).filename().string();
    }
    if (!is_detected(*event)) {
        return "no event: detection is off (" + switches(*event) + ")";
    }
    return wait_until_noted(*event, known_history);
}

}  // namespace

int main(int argc, char* argv[]) {
    std::vector<std::string> words(argv + 1, argv + argc);
    const bool is_to_wait = !words.empty() && words.front() == "--wait";
    if (is_to_wait) {
        words.erase(words.begin());
    }
    const bool has_content = !words.empty() && words.back() == "-";
    std::string content;
    if (has_content) {
        words.pop_back();
        content.assign(std::istreambuf_iterator<char>(std::cin), {});
    }
    try {
        const size_t known_history = history().size();
        const std::string delivered = run(words, has_content, content);
        if (delivered.empty()) {
            std::cerr << kUsage << "\n";
            return 1;
        }
        std::cout << (is_to_wait ? outcome(delivered, known_history) : delivered) << "\n";
    } catch (const std::exception& error) {
        std::cerr << "crash: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
