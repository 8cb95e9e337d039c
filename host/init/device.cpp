// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "init"

#include "host/init/device.h"

#include <android-base/logging.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace init {

namespace {

using std::chrono::steady_clock;

constexpr const char* kPropertyFolder = "/dev/__properties__";
constexpr std::chrono::seconds kShutdownPatience(2);

bool holds(const action& each) {
    return std::all_of(each.properties.begin(), each.properties.end(), [](const auto& wanted) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(wanted.first.c_str(), value, "");
        return wanted.second == value;
    });
}

// --- Commands; errno says why one has failed
// ------------------------------------------------------

bool change_mode(const std::string& octal, const std::string& path) {
    return chmod(path.c_str(), static_cast<mode_t>(strtoul(octal.c_str(), nullptr, 8))) == 0;
}

bool give(const std::string& path, const std::string& user, const std::string& group) {
    errno = EINVAL;
    const passwd* const owner = getpwnam(user.c_str());
    const ::group* const owners = getgrnam(group.c_str());
    return owner != nullptr && owners != nullptr &&
           (!has_users() || lchown(path.c_str(), owner->pw_uid, owners->gr_gid) == 0);
}

// A folder that is there already gets the mode and the owner all the same. A fifth word tells a
// phone how to encrypt it.
bool make_folder(device& /*target*/, const words& arguments) {
    const std::string& path = arguments[0];
    return (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) && change_mode(arguments[1], path) &&
           give(path, arguments[2], arguments[3]);
}

bool set_property(device& /*target*/, const words& arguments) {
    errno = EINVAL;  // the platform's interface does not say why
    return property_set(arguments[0].c_str(), arguments[1].c_str()) >= 0;
}

bool make_link(device& /*target*/, const words& arguments) {
    return symlink(arguments[0].c_str(), arguments[1].c_str()) == 0 || errno == EEXIST;
}

// Log lines go to the log alone from here on. Returns the console's standard error.
int leave_console() {
    const int console = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const android::base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null, STDERR_FILENO);
    return console;
}

}  // namespace

// clang-format off
const std::vector<command_row> kCommands = {
    {"chmod",       2, 2, [](device&, const words& w) { return change_mode(w[0], w[1]); }},
    {"class_start", 1, 1, [](device& d, const words& w) { d.all_services().start_class(w[0]); return true; }},
    {"mkdir",       4, 5, make_folder},
    {"setprop",     2, 2, set_property},
    {"start",       1, 1, [](device& d, const words& w) { d.all_services().start(w[0]); return true; }},
    {"symlink",     2, 2, make_link},
    {"trigger",     1, 1, [](device& d, const words& w) { d.queue(w[0]); return true; }},
};
// clang-format on

device::device(script all, words command)
    : script_(std::move(all)), services_(script_.services), command_(std::move(command)) {}

void device::watch() {
    sigset_t handled;
    sigemptyset(&handled);
    for (const int each : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&handled, each);
    }
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    signals_.reset(signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    properties_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    // A property is set by renaming a file over it.
    if (signals_ < 0 || inotify_add_watch(properties_, kPropertyFolder, IN_MOVED_TO) < 0) {
        PLOG(FATAL) << "cannot watch " << kPropertyFolder;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // orphans come here, also when somebody else is process 1
}

void device::queue(const std::string& event, const std::string& property) {
    for (const action& each : script_.actions) {
        const bool is_concerned = property.empty() || each.properties.contains(property);
        if (each.event == event && is_concerned && holds(each)) {
            queue_.push_back(&each);
        }
    }
}

void device::run_queue() {
    for (; !queue_.empty(); queue_.pop_front()) {
        for (const command& line : queue_.front()->commands) {
            if (!line.row->run(*this, line.arguments)) {
                PLOG(ERROR) << line.text;
            }
        }
    }
}

// Property triggers come to life after the boot events, and then once for what is set already.
void device::boot() {
    for (const char* const event : {"early-init", "init", "late-init"}) {
        queue(event);
        run_queue();
    }
    char changes[4096];
    while (read(properties_, changes, sizeof(changes)) > 0) {
    }
    queue("");
    run_queue();
}

// Returns whether there are children left, with the orphans that have come here.
bool device::reap() {
    int wait_status = 0;
    pid_t pid = 0;
    while ((pid = waitpid(-1, &wait_status, WNOHANG)) > 0) {
        if (pid == command_pid_) {
            // As a shell gives it.
            status_ = status_.value_or(WIFEXITED(wait_status) ? WEXITSTATUS(wait_status)
                                                              : 128 + WTERMSIG(wait_status));
            command_pid_ = 0;
        }
        services_.ended(pid, wait_status);
    }
    return pid == 0;
}

void device::read_signals() {
    signalfd_siginfo info{};
    while (read(signals_, &info, sizeof(info)) == sizeof(info)) {
        const int signal = static_cast<int>(info.ssi_signo);
        if (signal != SIGCHLD) {
            LOG(INFO) << "ending the device: " << strsignal(signal);
            status_ = status_.value_or(128 + signal);
        }
    }
}

// The kernel drops changes when they come too fast: then every trigger that holds is set off,
// rather once too often.
void device::read_property_changes() {
    alignas(inotify_event) char changes[16384];
    for (ssize_t size = 0; (size = read(properties_, changes, sizeof(changes))) > 0;) {
        for (const char* at = changes; at < changes + size;) {
            const auto* const change = reinterpret_cast<const inotify_event*>(at);
            queue("", change->len > 0 ? change->name : "");
            at += sizeof(*change) + change->len;
        }
    }
}

void device::wait(const std::optional<services::time_point>& deadline) {
    using std::chrono::milliseconds;
    const auto left = [&] {
        return std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
    };
    pollfd sources[] = {{signals_, POLLIN, 0}, {properties_, POLLIN, 0}};
    const int timeout = deadline ? static_cast<int>(std::max<int64_t>(left(), 0)) : -1;
    if (poll(sources, 2, timeout) < 0 && errno != EINTR) {
        PLOG(FATAL) << "poll";
    }
    read_signals();
    read_property_changes();
}

// Programs get a moment to end by themselves: a capture has something to write out. What a service
// leaves behind is signalled when its end is seen, so it is waited for, too.
void device::shut_down() {
    if (command_pid_ > 0) {
        kill(command_pid_, SIGTERM);
    }
    services_.signal_all(SIGTERM);
    const auto deadline = steady_clock::now() + kShutdownPatience;
    while (reap() && steady_clock::now() < deadline) {
        wait(deadline);
    }
    services_.signal_all(SIGKILL);
}

int device::run() {
    const int console_error = leave_console();
    watch();
    if (!has_users()) {
        LOG(WARNING) << "this user namespace has no other users: everything runs as, and belongs "
                        "to, root";
    }
    boot();
    LOG(INFO) << "booted";
    if (!command_.empty()) {
        command_pid_ = start_on_console(command_, console_error);
        if (command_pid_ < 0) {
            PLOG(FATAL) << "cannot start " << command_[0];
        }
    }
    while (!status_) {
        wait(services_.start_due());
        reap();
        run_queue();
    }
    shut_down();
    return *status_;
}

}  // namespace init
