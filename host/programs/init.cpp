// SPDX-License-Identifier: Apache-2.0

// init [-f FILE]... [COMMAND [ARG]...]: the device's first process. It boots by the .rc files and
// runs COMMAND on the console; the device ends with COMMAND, or with SIGTERM when there is none.
#include <glob.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "host/init/device.h"

namespace {

// Also what a test binds there. The platform's scripts come before those of the daemon's partition.
init::words script_files() {
    glob_t found{};
    glob("/system/etc/init/*", 0, nullptr, &found);
    glob("/system_ext/etc/init/*", GLOB_APPEND, nullptr, &found);
    init::words files(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return files;
}

}  // namespace

int main(int argc, char* argv[]) {
    init::words files;
    for (int option = 0; (option = getopt(argc, argv, "+f:")) != -1;) {
        if (option != 'f') {
            fputs("usage: init [-f FILE]... [COMMAND [ARG]...]\n", stderr);
            return 1;
        }
        files.emplace_back(optarg);
    }
    try {
        const init::words command(argv + optind, argv + argc);
        return init::device(files.empty() ? script_files() : files, command).run();
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
