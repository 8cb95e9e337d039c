#pragma once

#include <functional>
#include <map>
#include <string>

#include "tests/soak/daemon_log.h"
#include "tests/soak/ledger.h"

namespace soak {

inline constexpr const char* kCaptureSwitch = "persist.service.start.capture";
inline constexpr const char* kDetectionSwitch = "persist.service.event.detect";

struct category_switch {
    const char* category;
    const char* property;
};

inline constexpr category_switch kCategorySwitches[] = {
    {"CRASH", "persist.service.crashlog.enable"}, {"CUSTOM", "persist.service.custom.event"}};

struct crash_kind {
    const char* name;
    unsigned weight;
    const char* category;  // "": makes no event
    const char* type;      // of app events their own
    int events;
    const char* command;  // a shell line that prints the delivered file's path
};

inline constexpr crash_kind kAppEvent = {"app event", 8, "CUSTOM",
                                         "",          1, "crash custom $package e$serial"};
inline constexpr crash_kind kAnr = {"anr", 6, "CRASH", "ANR", 1, "crash anr"};

// Delivers and switches, and knows at any time what is sure about the daemon's state: each delivery
// is noted in the ledger with that. Whatever does not come about throws.
class steering {
  public:
    // Waits, as long as events go on being collected meanwhile, until `condition`, looked at again
    // when something changes in `dir`.
    void expect(const std::string& what, const std::function<bool()>& condition,
                const std::string& dir = kFolder);

    // Returns the id.
    std::string deliver(const crash_kind& kind, const std::string& package);

    // Until all that is sure to be collected has been.
    void drain();

    // How the daemon sees a switch. Not sure while a flurry of it goes on.
    bool is_on(const std::string& property);

    void switch_capture(bool on) { switch_to(kCaptureSwitch, on); }

    // Waits until the daemon watches, or has dealt with what was there and has ended watching.
    void switch_detection(bool on);
    // Does not: the next switch-on meets a watcher that is still busy.
    void start_detection_switch(bool on);

    // Waits until the daemon obeys, or, with detection off, leaves that in doubt.
    void switch_category(const category_switch& one, bool on);

    // Switches `times` times, calling `between`, without waiting for anything, to what is sure.
    void flurry(const std::string& property, unsigned times, const std::function<void()>& between);

    // What was logged before is known afterwards.
    void catch_up_with_log();

    daemon_log& log() { return log_; }
    const ledger& events() { return ledger_; }
    const std::map<std::string, size_t>& delivered() const { return delivered_; }

  private:
    void switch_to(const std::string& property, bool on);
    void settle(const category_switch& one);

    daemon_log log_;
    ledger ledger_;
    answer reported_ = answer::no;
    std::map<std::string, answer> wanted_ = {{"CRASH", answer::no}, {"CUSTOM", answer::no}};
    size_t serial_ = 0;
    size_t marks_ = 0;
    std::map<std::string, size_t> delivered_;  // by the kind's name
};

}  // namespace soak
