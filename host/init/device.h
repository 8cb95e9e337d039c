// SPDX-License-Identifier: Apache-2.0

// Boots the device from its scripts and supervises it: services, property triggers, shutdown.
#pragma once

#include <android-base/unique_fd.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "host/init/script.h"
#include "host/init/services.h"

namespace init {

class device {
  public:
    // Reads the scripts, and throws as read_scripts does. `command` owns the console while the
    // device runs; empty: none.
    device(const words& files, words command);

    // Boots, and runs until `command` ends or SIGTERM, SIGINT or SIGHUP arrives. Returns the exit
    // status of either, as a shell reports it.
    int run();

    // Queues the actions of an event whose properties hold. Event "": the property triggers of
    // `property`, or of all properties when that is "", too.
    void queue(const std::string& event, const std::string& property = "");

    services& all_services() { return services_; }

  private:
    void watch();
    void boot();
    void run_queue();
    void wait(const std::optional<time_point>& deadline);
    void read_signals();
    void read_property_changes();
    bool reap();
    void shut_down();

    const script script_;
    services services_{script_.services};
    const words command_;
    pid_t command_pid_ = 0;
    std::optional<int> status_;  // set: the device shuts down with it
    android::base::unique_fd signals_;
    android::base::unique_fd properties_;
    std::deque<const action*> queue_;
};

}  // namespace init
