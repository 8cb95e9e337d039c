// init [-f FILE]... [COMMAND [ARG]...]: the device's first process. Boots by the .rc files, then
// runs COMMAND on the console, whose end is the end of the device; without one a SIGTERM is.
#define LOG_TAG "init"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/init/launch.h"
#include "host/init/script.h"

namespace fs = std::filesystem;
using android::base::unique_fd;
using std::chrono::steady_clock;

namespace {

constexpr const char* kScriptFolders[] = {"/system/etc/init", "/system_ext/etc/init"};
constexpr const char* kPropertyFolder = "/dev/__properties__";
constexpr std::chrono::seconds kRestartPeriod(5);
constexpr std::chrono::seconds kShutdownPatience(2);

bool is_end_request(int signal) {
    return signal == SIGTERM || signal == SIGINT || signal == SIGHUP;
}

// As a shell gives it.
int exit_status(int wait_status) {
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

std::string property(const std::string& name) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name.c_str(), value, "");
    return value;
}

// --- Services ------------------------------------------------------------------------------------

// For whoever waits for it.
void publish(const std::string& service, const char* state) {
    property_set(("init.svc." + service).c_str(), state);
}

class services {
  public:
    explicit services(const std::map<std::string, init::service>& declared) {
        for (const auto& [name, service] : declared) {
            all_.emplace(name, state{service, {}, {}, {}, {}});
        }
    }

    void start(const std::string& name) { start(name, all_.at(name)); }
    void start_class(const std::string& name);
    void stop(const std::string& name);

    // Starts what is due; gives back when the next one is.
    std::optional<steady_clock::time_point> start_due();

    // To be told of every child that has ended.
    void ended(pid_t pid, int wait_status);

    // From now on nothing is started again. Signals every group; false: there is none left.
    bool shut_down(int signal);

  private:
    struct state {
        const init::service& declared;
        pid_t pid;
        steady_clock::time_point started;
        bool again;  // to be started once more when it ends
        std::optional<steady_clock::time_point> due;
    };

    void start(const std::string& name, state& one);

    std::map<std::string, state> all_;
};

void services::start(const std::string& name, state& one) {
    if (one.pid > 0) {
        one.again = true;  // a oneshot service that is asked for again while it works
        return;
    }
    one.due.reset();
    one.started = steady_clock::now();
    one.again = !one.declared.oneshot;
    one.pid = init::launch(one.declared);
    if (one.pid < 0) {
        PLOG(ERROR) << "cannot start service '" << name << "'";
        return;
    }
    LOG(INFO) << "service '" << name << "' started, pid " << one.pid;
    publish(name, "running");
}

void services::start_class(const std::string& name) {
    for (auto& [service_name, one] : all_) {
        if (one.declared.class_name == name && !one.declared.disabled && one.pid <= 0) {
            start(service_name, one);
        }
    }
}

void services::stop(const std::string& name) {
    state& one = all_.at(name);
    one.again = false;
    one.due.reset();
    if (one.pid > 0) {
        kill(-one.pid, SIGKILL);
    }
}

std::optional<steady_clock::time_point> services::start_due() {
    std::optional<steady_clock::time_point> next;
    const auto now = steady_clock::now();
    for (auto& [name, one] : all_) {
        if (one.due && *one.due <= now) {
            start(name, one);
        } else if (one.due) {
            next = next ? std::min(*next, *one.due) : *one.due;
        }
    }
    return next;
}

// What a service leaves behind ends with it; the daemon's captures would otherwise run on beside
// those of the next one.
void services::ended(pid_t pid, int wait_status) {
    for (auto& [name, one] : all_) {
        if (one.pid != pid) {
            continue;
        }
        kill(-pid, SIGKILL);
        one.pid = 0;
        LOG(INFO) << "service '" << name << "' ended, "
                  << (WIFEXITED(wait_status) ? "exit status " : "signal ")
                  << (WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : WTERMSIG(wait_status));
        if (one.again) {
            one.due = one.started + kRestartPeriod;
        }
        publish(name, one.again ? "restarting" : "stopped");
    }
}

bool services::shut_down(int signal) {
    bool is_any_left = false;
    for (auto& [name, one] : all_) {
        one.again = false;
        one.due.reset();
        if (one.pid > 0) {
            kill(-one.pid, signal);
            is_any_left = true;
        }
    }
    return is_any_left;
}

// --- Commands ------------------------------------------------------------------------------------

bool give(const std::string& path, const std::string& user, const std::string& group) {
    return !init::has_users() ||
           lchown(path.c_str(), *init::user_named(user), *init::group_named(group)) == 0;
}

// A folder that is there already gets the mode and the owner all the same.
bool make_folder(const std::vector<std::string>& arguments) {
    const std::string& path = arguments[0];
    const mode_t mode = *init::mode_of(arguments[1]);
    return (mkdir(path.c_str(), mode) == 0 || errno == EEXIST) && chmod(path.c_str(), mode) == 0 &&
           give(path, arguments[2], arguments[3]);
}

bool set_property(const std::string& name, const std::string& value) {
    errno = EINVAL;  // the platform's interface does not say why
    return property_set(name.c_str(), value.c_str()) >= 0;
}

// --- The device ----------------------------------------------------------------------------------

class device {
  public:
    device(const init::script& script, std::vector<std::string> command, int console_error)
        : script_(script),
          services_(script.services),
          command_(std::move(command)),
          console_error_(console_error) {}

    // Returns the exit status.
    int run();

  private:
    void watch();
    void boot();
    void run_queue();
    bool run_command(const init::command& line);
    void queue_event(const std::string& event);
    void queue_properties(const std::function<bool(const init::action&)>& wanted);
    void start_command();
    void wait(const std::optional<steady_clock::time_point>& deadline);
    void read_signals();
    void read_property_changes();
    void reap();
    void shut_down();

    const init::script& script_;
    services services_;
    std::vector<std::string> command_;
    int console_error_;
    pid_t command_pid_ = 0;
    std::optional<int> status_;  // a value: the device is to end with it
    unique_fd signals_;
    unique_fd properties_;
    std::deque<const init::action*> queue_;
};

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

bool hold(const init::action& action) {
    return std::all_of(action.properties.begin(), action.properties.end(),
                       [](const auto& wanted) { return property(wanted.name) == wanted.value; });
}

void device::queue_event(const std::string& event) {
    for (const init::action& action : script_.actions) {
        if (action.event == event && hold(action)) {
            queue_.push_back(&action);
        }
    }
}

void device::queue_properties(const std::function<bool(const init::action&)>& wanted) {
    for (const init::action& action : script_.actions) {
        if (action.event.empty() && wanted(action) && hold(action)) {
            queue_.push_back(&action);
        }
    }
}

bool device::run_command(const init::command& line) {
    const auto& arguments = line.arguments;
    switch (line.what) {
        case init::verb::chmod:
            return chmod(arguments[1].c_str(), *init::mode_of(arguments[0])) == 0;
        case init::verb::class_start:
            services_.start_class(arguments[0]);
            return true;
        case init::verb::mkdir:
            return make_folder(arguments);
        case init::verb::setprop:
            return set_property(arguments[0], arguments[1]);
        case init::verb::start:
            services_.start(arguments[0]);
            return true;
        case init::verb::stop:
            services_.stop(arguments[0]);
            return true;
        case init::verb::symlink:
            return symlink(arguments[0].c_str(), arguments[1].c_str()) == 0 || errno == EEXIST;
        case init::verb::trigger:
            queue_event(arguments[0]);
            return true;
    }
    return false;
}

void device::run_queue() {
    for (; !queue_.empty(); queue_.pop_front()) {
        for (const init::command& line : queue_.front()->commands) {
            if (!run_command(line)) {
                PLOG(ERROR) << line.text;
            }
        }
    }
}

// Property triggers come to life after the boot events, and then once for what is set already.
void device::boot() {
    for (const char* const event : {"early-init", "init", "late-init"}) {
        queue_event(event);
        run_queue();
    }
    char changes[4096];
    while (read(properties_, changes, sizeof(changes)) > 0) {
    }
    queue_properties([](const init::action&) { return true; });
    run_queue();
}

void device::start_command() {
    if (command_.empty()) {
        return;
    }
    command_pid_ = init::launch_on_console(command_, console_error_);
    if (command_pid_ < 0) {
        PLOG(FATAL) << "cannot start " << command_[0];
    }
}

void device::reap() {
    int wait_status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &wait_status, WNOHANG)) > 0;) {
        if (pid == command_pid_) {
            command_pid_ = 0;
            status_ = status_.value_or(exit_status(wait_status));
        }
        services_.ended(pid, wait_status);
    }
}

void device::read_signals() {
    signalfd_siginfo info{};
    while (read(signals_, &info, sizeof(info)) == sizeof(info)) {
        const int signal = static_cast<int>(info.ssi_signo);
        if (is_end_request(signal)) {
            LOG(INFO) << "ending the device: " << strsignal(signal);
            status_ = status_.value_or(128 + signal);
        }
    }
    reap();
}

// The kernel drops changes when they come too fast: then every trigger that holds is set off,
// rather once too often.
void device::read_property_changes() {
    alignas(inotify_event) char changes[16384];
    for (ssize_t size = 0; (size = read(properties_, changes, sizeof(changes))) > 0;) {
        for (const char* at = changes; at < changes + size;) {
            const auto* const change = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(*change) + change->len;
            const std::string name = change->len > 0 ? change->name : "";
            queue_properties([&](const init::action& action) {
                return name.empty() ||
                       std::any_of(action.properties.begin(), action.properties.end(),
                                   [&](const auto& wanted) { return wanted.name == name; });
            });
        }
    }
}

void device::wait(const std::optional<steady_clock::time_point>& deadline) {
    pollfd sources[] = {{signals_, POLLIN, 0}, {properties_, POLLIN, 0}};
    timespec timeout{};
    if (deadline) {
        const auto left = std::max(*deadline - steady_clock::now(), steady_clock::duration::zero());
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        timeout = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
    }
    if (ppoll(sources, 2, deadline ? &timeout : nullptr, nullptr) < 0 && errno != EINTR) {
        PLOG(FATAL) << "ppoll";
    }
    read_signals();
    read_property_changes();
}

// Programs get a moment to end by themselves: a capture has something to write out.
void device::shut_down() {
    if (command_pid_ > 0) {
        kill(command_pid_, SIGTERM);
    }
    const auto deadline = steady_clock::now() + kShutdownPatience;
    services_.shut_down(SIGTERM);
    while (services_.shut_down(0) && steady_clock::now() < deadline) {
        wait(deadline);
    }
    services_.shut_down(SIGKILL);
}

int device::run() {
    watch();
    if (!init::has_users()) {
        LOG(WARNING) << "this user namespace has no other users: everything runs as, and belongs "
                        "to, root";
    }
    boot();
    LOG(INFO) << "booted";
    start_command();
    while (!status_) {
        wait(services_.start_due());
        run_queue();
    }
    shut_down();
    return *status_;
}

// --- Start ---------------------------------------------------------------------------------------

std::vector<std::string> script_files() {
    std::vector<std::string> files;
    for (const char* const folder : kScriptFolders) {
        const auto first = static_cast<std::ptrdiff_t>(files.size());
        std::error_code missing;  // a device may have no scripts of one kind
        for (const auto& entry : fs::directory_iterator(folder, missing)) {
            files.push_back(entry.path());
        }
        std::sort(files.begin() + first, files.end());
    }
    return files;
}

// No value, the reasons on standard error, when anything is wrong with them.
std::optional<init::script> read_scripts(const std::vector<std::string>& files) {
    std::vector<init::source> sources;
    for (const std::string& file : files) {
        sources.push_back({file, ""});
        if (!android::base::ReadFileToString(file, &sources.back().text, true)) {
            fprintf(stderr, "%s: %s\n", file.c_str(), strerror(errno));
            return std::nullopt;
        }
    }
    init::parsed parsed = init::parse(sources);
    for (const std::string& error : parsed.errors) {
        fprintf(stderr, "%s\n", error.c_str());
    }
    return parsed.errors.empty() ? std::optional(std::move(parsed.result)) : std::nullopt;
}

// Log lines go to the log alone from here on: the console belongs to COMMAND. Returns the console's
// standard error.
int leave_console() {
    const int console = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null, STDERR_FILENO);
    return console;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::vector<std::string> files;
    for (int option = 0; (option = getopt(argc, argv, "+f:")) != -1;) {
        if (option != 'f') {
            fputs("usage: init [-f FILE]... [COMMAND [ARG]...]\n", stderr);
            return 1;
        }
        files.emplace_back(optarg);
    }
    const auto script = read_scripts(files.empty() ? script_files() : files);
    if (!script) {
        return 1;
    }
    return device(*script, {argv + optind, argv + argc}, leave_console()).run();
}
