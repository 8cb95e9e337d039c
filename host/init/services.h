// SPDX-License-Identifier: Apache-2.0

// Starts, restarts and signals the services of the device.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "host/init/script.h"

namespace init {

// False in a user namespace that maps one user only: no file or process can change its owner
// there, and every service runs as root.
bool has_users();

// Starts a command, found by PATH, with the standard input and output of init and this standard
// error. It stays in init's process group, which owns the terminal. Returns its pid; a failed fork
// is fatal, a failed exec ends the child with 127.
pid_t start_on_console(const words& command, int standard_error);

// The property init.svc.NAME has the state of each: running, restarting or stopped.
class services {
  public:
    explicit services(std::map<std::string, service> declared) : services_(std::move(declared)) {}

    // Starts a service with its user, groups, capabilities and OOM score, umask 077, standard
    // streams on /dev/null, in its own process group. A service that still runs is left alone, as
    // on a phone. Returns false with ENOENT for an unknown name.
    bool start(const std::string& name);
    void start_class(const std::string& name);

    // Restarts what is due. Returns the time of the next restart.
    std::optional<time_point> start_due();

    // Takes every reaped child of init; those that are no service have no effect.
    void handle_end(pid_t pid, int wait_status);

    // Signals the process group of each running service.
    void signal_all(int signal) const;

  private:
    void start(const std::string& name, service& one);

    std::map<std::string, service> services_;
};

}  // namespace init
