// SPDX-License-Identifier: Apache-2.0

// Delivers a crash file with the file operations of the platform; with --wait it prints the event
// that the daemon makes of it.

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <ctype.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "event/rules.h"
#include "event/tables.h"
#include "testing/device.h"
#include "utils/directories.h"

namespace {

namespace fs = std::filesystem;

using android::base::StringPrintf;
using namespace brevix;

constexpr const char* kUsage =
    "usage: crash [--wait] KIND [-]\n"
    "  KIND: one that `crash --kinds` lists, custom as custom PACKAGE EVENT,\n"
    "        or file NAME for a file of that very name\n"
    "  -     the content comes from standard input\n"
    "  --wait: instead of the delivered file says TYPE FOLDER of the event, once the history has "
    "it,\n"
    "        or why there is none";

const std::string kDropbox = "/data/system/dropbox/";
const std::string kTombstones = "/data/tombstones/";
constexpr int kMaxTombstones = 32;

// Without a tag the delivery composes the whole name.
struct crash_kind {
    const char* kind;
    const char* tag;
    const char* process;
    const char* text;
};

// clang-format off
constexpr crash_kind kKinds[] = {
    {"pre_watchdog", "system_server_pre_watchdog", "system_server",
     "Subject: Blocked in handler on main thread (main) for 30s"},
    {"watchdog",     "system_server_watchdog",     "system_server",
     "Subject: Blocked in handler on main thread (main)"},
    {"anr",          "data_app_anr",               "com.example.app",
     "Subject: Input dispatching timed out"},
    {"app_crash",    "data_app_crash",             "com.example.app",
     "java.lang.NullPointerException\n\tat com.example.app.Main.run(Main.java:7)"},
    {"system_crash", "system_server_crash",        "system_server",
     "java.lang.IllegalStateException\n\tat com.android.server.Loop.run(Loop.java:7)"},
    {"custom",       nullptr,                      nullptr, nullptr},
    {"tombstone",    nullptr,                      nullptr, nullptr},
};
// clang-format on

// As the dropbox encodes a tag, less what `also` lets through. A name that a shell would run cannot
// come about.
std::string encode(const std::string& text, const std::string& also = "") {
    std::string encoded;
    for (const unsigned char byte : text) {
        const bool is_plain = (byte < 0x80 && isalnum(byte) != 0) ||
                              (std::string("_-!.~'()*") + also).find(byte) != std::string::npos;
        encoded +=
            is_plain ? std::string(1, static_cast<char>(byte)) : StringPrintf("%%%02X", byte);
    }
    return encoded;
}

bool is_lost_entry(const std::string& name) {
    return name.ends_with(".lost");
}

// As tombstoned does: O_TMPFILE + linkat.
bool link_into_place(int unnamed, const std::string& path) {
    unlink(path.c_str());
    const std::string from = "/proc/self/fd/" + std::to_string(unnamed);
    return linkat(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

// The dropbox writes to dropN.tmp and renames; a lost entry is created under its own name. A file
// belongs to the owner of its directory, whatever user runs this program. Returns the path.
std::string deliver(const std::string& name, const std::string& content) {
    const bool is_tombstone = name.starts_with("tombstone");
    const std::string& dir = is_tombstone ? kTombstones : kDropbox;
    const std::string path = dir + name;
    const std::string temporary =
        is_lost_entry(name) ? path : dir + "drop" + std::to_string(getpid()) + ".tmp";
    const android::base::unique_fd fd(
        is_tombstone ? open(dir.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0640)
                     : open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    struct stat owner {};
    const bool is_written = fd >= 0 && android::base::WriteStringToFd(content, fd) &&
                            stat(dir.c_str(), &owner) == 0 &&
                            fchown(fd, owner.st_uid, owner.st_gid) == 0;
    if (!is_written || !(is_tombstone ? link_into_place(fd, path)
                                      : rename(temporary.c_str(), path.c_str()) == 0)) {
        const std::system_error error(errno, std::generic_category(), path);
        unlink(temporary.c_str());
        throw error;
    }
    return path;
}

// The first unused number, else that of the oldest tombstone.
std::string next_tombstone() {
    auto next = std::pair(fs::file_time_type::max(), std::string());
    for (int i = 0; i < kMaxTombstones; ++i) {
        const std::string name = StringPrintf("tombstone_%02d", i);
        std::error_code missing;  // its time is the minimum
        next = std::min(next, std::pair(fs::last_write_time(kTombstones + name, missing), name));
    }
    return next.second;
}

// As debuggerd writes it, with nanoseconds and the offset from UTC.
std::string timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::string format = StringPrintf("%%F %%T.%09ld%%z", now.tv_nsec);
    return format_time(format.c_str(), local_time(now.tv_sec));
}

// --- A real crash --------------------------------------------------------------------------------

int report_fd = -1;

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
    dprintf(report_fd,
            "*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***\n"
            "ABI: '%s'\nTimestamp: %s\nCmdline: crash tombstone\n"
            "pid: %d, tid: %d, name: crash  >>> crash <<<\nuid: %d\n"
            "signal %d (SIG%s), code %d, fault addr 0x%016zx\n",
            machine.machine, timestamp().c_str(), getpid(), gettid(), getuid(), sig,
            sigabbrev_np(sig), info->si_code, reinterpret_cast<uintptr_t>(info->si_addr));
    write_backtrace(report_fd);
}

[[noreturn]] void fault() {
    void* warm_up[1];
    backtrace(warm_up, 1);  // loads the unwinder, which the handler must not do
    struct sigaction action {};
    action.sa_sigaction = on_fault;
    action.sa_flags = SA_SIGINFO | SA_RESETHAND;  // the repeated fault ends the process
    sigaction(SIGSEGV, &action, nullptr);
    auto* nowhere = reinterpret_cast<volatile int*>(0xdead0);
    *nowhere = 1;
    _exit(0);
}

std::string deliver_real_crash() {
    const android::base::unique_fd report(memfd_create("report", MFD_CLOEXEC));
    const pid_t pid = fork();
    if (pid == 0) {
        report_fd = report;
        fault();
    }
    const int status = device::wait_status(pid);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) {
        throw std::runtime_error("the crashing process did not crash");
    }
    const std::string name = next_tombstone();
    // The protobuf companion, cut to its timestamp: field 4, a string.
    const std::string stamp = timestamp();
    deliver(name + ".pb", std::string("\x22") + static_cast<char>(stamp.size()) + stamp);
    return deliver(name, device::read_file("/proc/self/fd/" + std::to_string(report)));
}

// --- Kinds ---------------------------------------------------------------------------------------

std::string deliver_to_dropbox(const std::string& tag, const std::string& content) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto millis = std::chrono::floor<std::chrono::milliseconds>(now).count();
    return deliver(encode(tag) + "@" + std::to_string(millis) + ".txt", content);
}

// Returns the path of the delivered file; empty for unknown words. Without `content` a kind's own
// is made up.
std::string deliver_kind(const std::vector<std::string>& words,
                         const std::optional<std::string>& content) {
    const std::string kind = words.empty() ? "" : words[0];
    if (kind == "tombstone" && words.size() == 1) {
        return content ? deliver(next_tombstone(), *content) : deliver_real_crash();
    }
    if (kind == "file" && words.size() == 2 && content) {
        if (const std::string encoded = encode(words[1], "@%"); encoded != words[1]) {
            throw std::runtime_error("refused, because the platform gives no such name: " +
                                     encoded);
        }
        return deliver(words[1], *content);
    }
    if (kind == "custom" && words.size() == 3) {
        return deliver_to_dropbox("ZQEvent_" + words[1] + "_" + words[2],
                                  content.value_or("reported by " + words[1] + "\n"));
    }
    for (const crash_kind& known : kKinds) {
        if (kind == known.kind && known.tag != nullptr && words.size() == 1) {
            return deliver_to_dropbox(
                known.tag,
                content.value_or(StringPrintf("Process: %s\nTimestamp: %s\n%s\n", known.process,
                                              timestamp().c_str(), known.text)));
        }
    }
    return "";
}

// --- What the daemon makes of it -----------------------------------------------------------------

const std::string kHistory = "/data/logs/history.event";
const std::string kDetection = "persist.service.event.detect";

// Classifies the file with the daemon's own tables and decisions. No value: the daemon ignores it.
std::optional<collected_event> event_of(const fs::path& delivered) {
    collected_event event{};
    event.file_name = delivered.filename();
    for (const event_watch& watch : event_watches) {
        for (int64_t row = 0; delivered.parent_path() == watch.path && row < watch.count; ++row) {
            if (is_lost_entry(event.file_name) || !row_matches(watch, row, event.file_name)) {
                continue;
            }
            event.category = watch.category[row];
            event.type = watch.type[row];
            const char* error = nullptr;
            const bool is_known =
                !is_app_event(event) || parse_app_event(event.file_name, event, error);
            return is_known ? std::optional(event) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::string describe_switches(const collected_event& event) {
    std::string text = std::string("category ") + event.category;
    for (const std::string& name : {kDetection, event_settings.at(event.category).prop}) {
        text.append(", ").append(name).append("=").append(device::property(name, ""));
    }
    return text + ", limit " + device::property("persist.service.brevix.ev.num", "10");
}

// Returns the first history line past `known_lines` for the event, as "TYPE FOLDER".
std::optional<std::string> find_noted(const collected_event& event, size_t known_lines) {
    constexpr size_t kTypeColumn = 28;
    const customize_settings& settings = event_settings.at(event.category);
    const std::string noted =
        event.type + " " + kBaseLogDir + settings.log_dir + "/" + name_prefix(event, settings);
    const std::vector<std::string> lines = device::read_lines(kHistory);
    for (size_t i = known_lines; i < lines.size(); ++i) {
        if (!lines[i].starts_with(event.category) || lines[i].size() < kTypeColumn) {
            continue;
        }
        const std::string told = lines[i].substr(kTypeColumn);
        if (told.starts_with(noted)) {
            return told;
        }
        if (android::base::Trim(told) == event.type) {
            return event.type + " (its folder could not be made)";
        }
    }
    return std::nullopt;
}

// Waits for the daemon to note the event, unless there is a reason why it will not.
std::string wait_for_outcome(const fs::path& delivered, size_t known_lines) {
    const auto event = event_of(delivered);
    if (!event) {
        return "no event: a file of this name is none: " + delivered.filename().string();
    }
    if (device::property(kDetection) != "1" ||
        device::property(event_settings.at(event->category).prop) != "1") {
        return "no event: detection is off (" + describe_switches(*event) + ")";
    }
    std::optional<std::string> noted;
    if (!device::wait_until(fs::path(kHistory).parent_path(), [&] {
            noted = find_noted(*event, known_lines);
            return noted.has_value();
        })) {
        throw std::runtime_error("no event within 60 seconds (" + describe_switches(*event) +
                                 ", daemon " +
                                 device::property("init.svc.zq_brevix", "not started") + ")");
    }
    return *noted;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::vector<std::string> words(argv + 1, argv + argc);
    const bool is_to_wait = !words.empty() && words.front() == "--wait";
    if (is_to_wait) {
        words.erase(words.begin());
    }
    std::optional<std::string> content;
    if (!words.empty() && words.back() == "-") {
        words.pop_back();
        content.emplace(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    }
    if (words == std::vector<std::string>{"--kinds"}) {
        for (const crash_kind& each : kKinds) {
            std::cout << each.kind << "\n";
        }
        return 0;
    }
    try {
        // A switch is logged before it is obeyed: a file that comes in between is no event.
        for (const pid_t daemon : device::processes_named("zq_brevix")) {
            static_cast<void>(is_to_wait && device::wait_until_idle(daemon));
        }
        const size_t known_lines = device::read_lines(kHistory).size();
        const std::string delivered = deliver_kind(words, content);
        if (delivered.empty()) {
            std::cerr << kUsage << "\n";
            return 1;
        }
        std::cout << (is_to_wait ? wait_for_outcome(delivered, known_lines) : delivered) << "\n";
    } catch (const std::exception& error) {
        std::cerr << "crash: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
