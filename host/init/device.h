// SPDX-License-Identifier: Apache-2.0

// The device that init boots and keeps going.
#pragma once

#include <android-base/unique_fd.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "host/init/script.h"
#include "host/init/services.h"

namespace init {

// What scripts may say, and what becomes of it.
extern const std::vector<command_row> kCommands;

class device {
  public:
    // Takes the console away from log lines: it belongs to `command`, which may be empty.
    device(script all, words command);

    // Boots, and runs until the command's end or a signal to end. Returns the exit status.
    int run();

    // Queues the actions of an event; "": of a change of this property, or, with "", of any.
    void queue(const std::string& event, const std::string& property = "");

    services& all_services() { return services_; }

  private:
    void watch();
    void boot();
    void run_queue();
    void wait(const std::optional<services::time_point>& deadline);
    void read_signals();
    void read_property_changes();
    bool reap();
    void shut_down();

    const script script_;
    services services_;
    const words command_;
    pid_t command_pid_ = 0;
    std::optional<int> status_;  // a value: the device is to end with it
    android::base::unique_fd signals_;
    android::base::unique_fd properties_;
    std::deque<const action*> queue_;
};

}  // namespace init
