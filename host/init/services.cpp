// SPDX-License-Identifier: Apache-2.0

// Services: identity and streams of their processes, restarts and states.
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

// A process without root's id keeps a capability across exec only in the ambient set, which is a
// subset of the inheritable one. Root gets what the bounding set leaves.
void add_identity(const service& what, words& line) {
    const words& groups = what.options.at("group");
    const std::string others = android::base::Join(words(groups.begin() + 1, groups.end()), ',');
    line.insert(line.end(),
                {"setpriv", "--reuid=" + what.options.at("user")[0], "--regid=" + groups[0],
                 others.empty() ? "--clear-groups" : "--groups=" + others});
    if (what.options.contains("capabilities")) {
        words names = what.options.at("capabilities");
        names.insert(names.begin(), "-all");
        const std::string set = android::base::Join(names, ",+");
        for (const char* const kind : {"--bounding-set=", "--inh-caps=", "--ambient-caps="}) {
            line.push_back(kind + set);
        }
    }
    line.emplace_back("--");
}

// choom and setpriv exec the rest of their line, so the service keeps the forked pid.
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

// `prepare` runs in the child, which ends when the exec fails.
pid_t start_program(const words& line, const std::function<void()>& prepare) {
    std::vector<char*> argv;
    for (const std::string& word : line) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        PLOG(FATAL) << "fork";
    }
    if (pid == 0) {
        prepare();
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);  // init blocks what its signalfd reads
        execvp(argv[0], argv.data());
        PLOG(ERROR) << "cannot start " << argv[0];
        _exit(127);
    }
    return pid;
}

void become_service() {
    setpgid(0, 0);
    umask(077);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        dup2(null, stream);
    }
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

bool services::start(const std::string& name) {
    const auto found = services_.find(name);
    if (found == services_.end()) {
        errno = ENOENT;
        return false;
    }
    if (found->second.pid == 0) {
        start(name, found->second);
    }
    return true;
}

void services::start(const std::string& name, service& one) {
    one.restart.reset();
    one.started = steady_clock::now();
    one.pid = start_program(command_line(one), become_service);
    setpgid(one.pid, one.pid);  // parent and child both: no signal to the group comes too early
    LOG(INFO) << "service '" << name << "' started, pid " << one.pid;
    property_set(("init.svc." + name).c_str(), "running");
}

void services::start_class(const std::string& name) {
    for (const auto& [service_name, one] : services_) {
        if (one.options.at("class")[0] == name && !one.options.contains("disabled")) {
            start(service_name);
        }
    }
}

std::optional<time_point> services::start_due() {
    std::optional<time_point> next;
    for (auto& [name, one] : services_) {
        if (one.restart && *one.restart <= steady_clock::now()) {
            start(name, one);
        } else if (one.restart) {
            next = std::min(next.value_or(*one.restart), *one.restart);
        }
    }
    return next;
}

// The process group ends with its service: captures that outlive the daemon would write beside
// those of the restarted one.
void services::handle_end(pid_t pid, int wait_status) {
    for (auto& [name, one] : services_) {
        if (one.pid != pid) {
            continue;
        }
        kill(-pid, SIGKILL);
        one.pid = 0;
        const bool is_exit = WIFEXITED(wait_status);
        LOG(INFO) << "service '" << name << "' ended, " << (is_exit ? "exit status " : "signal ")
                  << (is_exit ? WEXITSTATUS(wait_status) : WTERMSIG(wait_status));
        if (!one.options.contains("oneshot")) {
            one.restart = one.started + kRestartPeriod;
        }
        property_set(("init.svc." + name).c_str(), one.restart ? "restarting" : "stopped");
    }
}

void services::signal_all(int signal) const {
    for (const auto& [name, one] : services_) {
        if (one.pid > 0) {
            kill(-one.pid, signal);
        }
    }
}

}  // namespace init
