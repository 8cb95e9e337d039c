// SPDX-License-Identifier: Apache-2.0

// init [-f FILE]... [COMMAND [ARG]...]: the device's first process. It boots by the .rc files and
// runs COMMAND on the console; the device ends with COMMAND, or with SIGTERM when there is none.
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "host/init/device.h"

int main(int argc, char* argv[]) {
    init::words files;
    for (int option = 0; (option = getopt(argc, argv, "+f:")) != -1;) {
        if (option != 'f') {
            fputs("usage: init [-f FILE]... [COMMAND [ARG]...]\n", stderr);
            return 1;
        }
        files.emplace_back(optarg);
    }
    if (files.empty()) {
        files = {"/system/etc/init/device.rc", "/system_ext/etc/init/zq_brevix.rc"};
    }
    try {
        const init::words command(argv + optind, argv + argc);
        return init::device(files, command).run();
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
