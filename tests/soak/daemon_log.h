#pragma once

#include <log/log_id.h>
#include <sys/types.h>

#include <map>
#include <set>
#include <string>

#include "tests/soak/device.h"

namespace soak {

// What the soak keeps for itself.
inline constexpr const char* kFolder = "/data/soak/";

void write_log(log_id_t buffer, const char* tag, const std::string& text);

// What the daemon logs, as it comes, and what the device logs for each notice: whoever waits for
// either may watch kFolder.
class daemon_log {
  public:
    daemon_log();

    // Lines so far that are "TAG: TEXT".
    size_t count(const std::string& line);

    // Whether the file of this name has been left because its category is off.
    bool has_refused(const std::string& name);

    // Of the logcat that follows.
    pid_t pid() const { return logcat_; }

  private:
    void read();
    void take(const std::string& line);

    const pid_t logcat_;
    growing_file file_;
    std::map<std::string, size_t> lines_;
    std::string monitored_;
    std::set<std::string> refused_;
};

}  // namespace soak
