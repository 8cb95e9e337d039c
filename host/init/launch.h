// How init starts programs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/init/script.h"

namespace init {

// False in a user namespace that knows one user alone: nothing can be given to another one there,
// and every service runs as that one.
bool has_users();

// Starts the service in a process group of its own, as its user, with its groups and capabilities,
// umask 077, standard streams on /dev/null, and in "/". Returns its pid, or -1 with errno set. What
// goes wrong after the fork is logged, and the process ends with 127.
pid_t launch(const service& what);

// Starts a command, found by PATH, with the standard input, output and this standard error, in
// init's process group, so that it may use the terminal.
pid_t launch_on_console(const std::vector<std::string>& command, int standard_error);

}  // namespace init
