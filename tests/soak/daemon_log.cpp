#include "tests/soak/daemon_log.h"

#include <sstream>
#include <stdexcept>

#include "host/log/store.h"
#include "testing/device.h"

namespace soak {

namespace {

const std::string kFile = std::string(kFolder) + "daemon.log";

}  // namespace

void write_log(log_id_t buffer, const char* tag, const std::string& text) {
    if (append_log_entry(buffer, log_entry_now(ANDROID_LOG_INFO, tag, text.c_str())) != 0) {
        throw std::runtime_error("cannot write to the log");
    }
}

daemon_log::daemon_log()
    : logcat_(inside::start("exec logcat -b main -b system -f " + kFile +
                            " ZQ_EVENT_LOG:I ZQ_OBSERVER:I ZQ_GENERAL_LOG:I ZQ_TCPDUMP:I "
                            "ActivityManager:I SOAK:I '*:S'")),
      file_(kFile) {}

size_t daemon_log::count(const std::string& line) {
    read();
    const auto found = lines_.find(line);
    return found == lines_.end() ? 0 : found->second;
}

bool daemon_log::has_refused(const std::string& name) {
    read();
    return refused_.count(name) != 0;
}

void daemon_log::read() {
    for (const std::string& line : file_.read()) {
        take(line);
    }
}

// "11-21 09:30:05.123  4242  4243 I TAG   : text"
void daemon_log::take(const std::string& line) {
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) {
        return;
    }
    std::istringstream in(line);
    std::string day, time, pid, tid, priority, tag;
    in >> day >> time >> pid >> tid >> priority >> tag;
    const std::string text = line.substr(colon + 2);
    ++lines_[tag.substr(0, tag.find(':')) + ": " + text];
    constexpr std::string_view kMonitored = "monitor a changed event: ";
    if (text.starts_with(kMonitored)) {
        monitored_ = text.substr(kMonitored.size());
    } else if (text.starts_with("disable detecting ")) {
        refused_.insert(monitored_);
    }
}

}  // namespace soak
