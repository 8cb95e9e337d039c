// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "init"

#include "host/init/services.h"

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

namespace init {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kRestartPeriod(5);

const words& option(const service& of, const std::string& keyword, const words& otherwise) {
    const auto found = of.options.find(keyword);
    return found == of.options.end() ? otherwise : found->second;
}

// A user other than root keeps a capability over exec only as an ambient one, which has to be
// inheritable; root has all that the bounding set leaves.
void add_identity(const service& what, words& line) {
    const words groups = option(what, "group", {"root"});
    const words others(groups.begin() + 1, groups.end());
    line.insert(line.end(), {"setpriv", "--reuid", option(what, "user", {"root"})[0], "--regid",
                             groups[0], "--groups", android::base::Join(others, ',')});
    if (others.empty()) {
        line.erase(line.end() - 2, line.end());
        line.emplace_back("--clear-groups");
    }
    if (what.options.contains("capabilities")) {
        std::string set = "-all";
        for (const std::string& name : what.options.at("capabilities")) {
            set += ",+" + name;
        }
        for (const char* const kind : {"--bounding-set", "--inh-caps", "--ambient-caps"}) {
            line.insert(line.end(), {kind, set});
        }
    }
    line.emplace_back("--");
}

// Each program of the line runs the next one in its own place.
words command_line(const service& what) {
    words line;
    if (what.options.contains("oom_score_adjust")) {
        line = {"choom", "-n", what.options.at("oom_score_adjust")[0], "--"};
    }
    if (has_users()) {
        add_identity(what, line);
    }
    line.insert(line.end(), what.arguments.begin(), what.arguments.end());
    return line;
}

void default_signals() {
    for (int each = 1; each < NSIG; ++each) {
        signal(each, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// After a failed exec the child must not go on as a second init.
pid_t start_program(const words& line, const std::function<void()>& prepare) {
    std::vector<char*> argv;
    for (const std::string& word : line) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        prepare();
        default_signals();
        execvp(argv[0], argv.data());
        PLOG(ERROR) << "cannot start " << argv[0];
        _exit(127);
    }
    return pid;
}

void leave_console() {
    setpgid(0, 0);
    umask(077);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        dup2(null, stream);
    }
}

// For whoever waits for it.
void publish(const std::string& service, const char* state) {
    property_set(("init.svc." + service).c_str(), state);
}

}  // namespace

bool has_users() {
    uid_t inside = 0;
    uid_t outside = 0;
    uid_t count = 0;
    std::ifstream("/proc/self/uid_map") >> inside >> outside >> count;
    return count > 1;
}

pid_t start_on_console(const words& command, int standard_error) {
    return start_program(command, [=] { dup2(standard_error, STDERR_FILENO); });
}

void services::start(const std::string& name) {
    state& one = states_[name];
    if (one.pid > 0) {
        return;
    }
    one.due.reset();
    one.started = steady_clock::now();
    one.pid = start_program(command_line(declared_.at(name)), leave_console);
    if (one.pid < 0) {
        PLOG(ERROR) << "cannot start service '" << name << "'";
        return;
    }
    setpgid(one.pid, one.pid);  // on both sides: whoever signals the group next finds it
    LOG(INFO) << "service '" << name << "' started, pid " << one.pid;
    publish(name, "running");
}

void services::start_class(const std::string& name) {
    for (const auto& [service_name, one] : declared_) {
        if (option(one, "class", {"default"})[0] == name && !one.options.contains("disabled")) {
            start(service_name);
        }
    }
}

std::optional<services::time_point> services::start_due() {
    std::optional<time_point> next;
    for (auto& [name, one] : states_) {
        if (one.due && *one.due <= steady_clock::now()) {
            start(name);
        } else if (one.due) {
            next = next ? std::min(*next, *one.due) : *one.due;
        }
    }
    return next;
}

// What a service leaves behind ends with it; the daemon's captures would otherwise run on beside
// those of the next one.
void services::ended(pid_t pid, int wait_status) {
    for (auto& [name, one] : states_) {
        if (one.pid != pid) {
            continue;
        }
        kill(-pid, SIGKILL);
        one.pid = 0;
        const bool is_exit = WIFEXITED(wait_status);
        LOG(INFO) << "service '" << name << "' ended, " << (is_exit ? "exit status " : "signal ")
                  << (is_exit ? WEXITSTATUS(wait_status) : WTERMSIG(wait_status));
        const bool is_oneshot = declared_.at(name).options.contains("oneshot");
        if (!is_oneshot) {
            one.due = one.started + kRestartPeriod;
        }
        publish(name, is_oneshot ? "stopped" : "restarting");
    }
}

void services::signal_all(int signal) const {
    for (const auto& [name, one] : states_) {
        if (one.pid > 0) {
            kill(-one.pid, signal);
        }
    }
}

}  // namespace init
