// SPDX-License-Identifier: Apache-2.0

// Commands, triggers, the event loop and the shutdown of the device.
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

#include "host/system.h"

namespace init {

namespace {

using std::chrono::steady_clock;

constexpr const char* kPropertyFolder = "/dev/__properties__";
constexpr std::chrono::seconds kShutdownPatience(2);

bool is_met(const action& each) {
    return std::all_of(each.properties.begin(), each.properties.end(), [](const auto& wanted) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(wanted.first.c_str(), value, "");
        return wanted.second == value;
    });
}

// --- Commands: false with errno ------------------------------------------------------------------

bool change_mode(const std::string& octal, const std::string& path) {
    return chmod(path.c_str(), static_cast<mode_t>(strtoul(octal.c_str(), nullptr, 8))) == 0;
}

bool change_owner(const std::string& path, const std::string& user, const std::string& group) {
    errno = EINVAL;
    const passwd* const owner = getpwnam(user.c_str());
    const ::group* const owners = getgrnam(group.c_str());
    return owner != nullptr && owners != nullptr &&
           (!has_users() || lchown(path.c_str(), owner->pw_uid, owners->gr_gid) == 0);
}

// An existing directory gets mode and owner, too. The optional encryption word has no effect here.
bool make_folder(device& /*target*/, const words& arguments) {
    const std::string& path = arguments[0];
    return (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) && change_mode(arguments[1], path) &&
           change_owner(path, arguments[2], arguments[3]);
}

bool set_property(device& /*target*/, const words& arguments) {
    errno = EINVAL;  // property_set sets none
    return property_set(arguments[0].c_str(), arguments[1].c_str()) >= 0;
}

bool make_link(device& /*target*/, const words& arguments) {
    return symlink(arguments[0].c_str(), arguments[1].c_str()) == 0 || errno == EEXIST;
}

// Log lines go to the log only from here on. Returns the console's standard error.
int leave_console() {
    const int console = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const android::base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null, STDERR_FILENO);
    return console;
}

// clang-format off
const std::vector<keyword_row> kCommands = {
    {"chmod",       2, 2, [](device&, const words& w) { return change_mode(w[0], w[1]); }},
    {"class_start", 1, 1, [](device& d, const words& w) { d.all_services().start_class(w[0]); return true; }},
    {"mkdir",       4, 5, make_folder},
    {"setprop",     2, 2, set_property},
    {"start",       1, 1, [](device& d, const words& w) { return d.all_services().start(w[0]); }},
    {"symlink",     2, 2, make_link},
    {"trigger",     1, 1, [](device& d, const words& w) { d.queue(w[0]); return true; }},
};
// clang-format on

}  // namespace

device::device(const words& files, words command)
    : script_(read_scripts(files, kCommands)), command_(std::move(command)) {}

void device::watch() {
    sigset_t handled;
    sigemptyset(&handled);
    for (const int each : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
        signal(each, SIG_DFL);  // children inherit it; an ignored SIGINT comes from host/device
        sigaddset(&handled, each);
    }
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    signals_.reset(signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    properties_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    // A property is written by write-then-rename.
    if (signals_ < 0 || inotify_add_watch(properties_, kPropertyFolder, IN_MOVED_TO) < 0) {
        PLOG(FATAL) << "cannot watch " << kPropertyFolder;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // adopts orphans also when it is not process 1
}

void device::queue(const std::string& event, const std::string& property) {
    for (const action& each : script_.actions) {
        const bool is_concerned = property.empty() || each.properties.contains(property);
        if (each.event == event && is_concerned && is_met(each)) {
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

// The platform enables property triggers after the boot events, first for the present values.
void device::boot() {
    for (const char* const event : {"early-init", "init", "late-init"}) {
        queue(event);
        run_queue();
    }
    drain_inotify(properties_);
    queue("");
    run_queue();
}

// Returns whether children are left, adopted orphans included.
bool device::reap() {
    int wait_status = 0;
    pid_t pid = 0;
    while ((pid = waitpid(-1, &wait_status, WNOHANG)) > 0) {
        if (pid == command_pid_) {
            // As a shell reports it.
            status_ = status_.value_or(WIFEXITED(wait_status) ? WEXITSTATUS(wait_status)
                                                              : 128 + WTERMSIG(wait_status));
            command_pid_ = 0;
        }
        services_.handle_end(pid, wait_status);
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

// An overflow record has no name: every trigger whose properties hold runs, because the dropped
// changes may include its own.
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

void device::wait(const std::optional<time_point>& deadline) {
    pollfd sources[] = {{signals_, POLLIN, 0}, {properties_, POLLIN, 0}};
    if (poll(sources, 2, milliseconds_until(deadline)) < 0 && errno != EINTR) {
        PLOG(FATAL) << "poll";
    }
    read_signals();
    read_property_changes();
}

// SIGTERM first, so that captures flush their files. handle_end kills the orphans of a service,
// which the loop reaps as well.
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
