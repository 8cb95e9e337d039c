// SPDX-License-Identifier: Apache-2.0

// The services of the device: how they are started, and started again.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "host/init/script.h"

namespace init {

// False in a user namespace that knows one user alone: nothing can be given to another one there,
// and every service runs as that one.
bool has_users();

// Starts a command, found by PATH, with the standard input, output and this standard error, in
// init's process group, so that it may use the terminal. Returns its pid, or -1 with errno set.
pid_t start_on_console(const words& command, int standard_error);

// The property init.svc.NAME tells the state of each: running, restarting or stopped.
class services {
  public:
    using time_point = std::chrono::steady_clock::time_point;

    explicit services(const std::map<std::string, service>& declared) : declared_(declared) {}

    // As its user, with its groups, capabilities and oom score, umask 077, standard streams on
    // /dev/null, in a process group of its own. A service that runs already, if only to end, is
    // left alone, as the platform's init does.
    void start(const std::string& name);
    void start_class(const std::string& name);

    // Starts what is due; gives back when the next one is.
    std::optional<time_point> start_due();

    // To be told of every child that has ended.
    void ended(pid_t pid, int wait_status);

    // Signals the process group of each.
    void signal_all(int signal) const;

  private:
    struct state {
        pid_t pid;  // 0: does not run
        time_point started;
        std::optional<time_point> due;
    };

    const std::map<std::string, service>& declared_;
    std::map<std::string, state> states_;  // of those that have been started
};

}  // namespace init
