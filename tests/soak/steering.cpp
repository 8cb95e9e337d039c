#include "tests/soak/steering.h"

#include <cstring>
#include <stdexcept>

#include "testing/device.h"
#include "tests/soak/device.h"

namespace soak {

namespace {

constexpr size_t kMaxWaiting = 24;  // fewer than the tombstones that the platform keeps

std::string change(const std::string& property, bool on) {
    return "ZQ_OBSERVER: " + property + " changed to " + (on ? "1" : "0");
}

std::string timestamp_in(const std::string& file) {
    for (const std::string& line : inside::read_lines(file)) {
        if (line.starts_with("Timestamp: ")) {
            return line;
        }
    }
    return "";
}

}  // namespace

// --- Waiting -------------------------------------------------------------------------------------

void steering::expect(const std::string& what, const std::function<bool()>& condition,
                      const std::string& dir) {
    bool is_met = false;
    size_t before = 0;
    do {
        ledger_.read();
        before = ledger_.folders().size();
        inside::wait_until(dir, [&] {
            ledger_.read();
            is_met = condition();
            return is_met || ledger_.folders().size() > before;
        });
    } while (!is_met && ledger_.folders().size() > before);
    if (!is_met) {
        throw std::runtime_error("waited in vain for " + what);
    }
}

void steering::catch_up_with_log() {
    const std::string mark = "mark " + std::to_string(++marks_);
    write_log(LOG_ID_MAIN, "SOAK", mark);
    expect("the log", [&] { return log_.count("SOAK: " + mark) > 0; });
}

void steering::drain() {
    expect("what was delivered", [&] { return ledger_.missing().empty(); });
}

// --- Deliveries ----------------------------------------------------------------------------------

std::string steering::deliver(const crash_kind& kind, const std::string& package) {
    expect("room", [&] { return ledger_.missing().size() < kMaxWaiting; });
    const std::string serial = std::to_string(++serial_);
    const inside::outcome outcome =
        inside::run("package=" + package + " serial=" + serial + "; " + kind.command);
    if (outcome.exit_status != 0) {
        throw std::runtime_error(std::string("no ") + kind.name + ": " + outcome.output);
    }
    const std::string path = outcome.output.substr(0, outcome.output.find('\n'));
    const bool is_app_event = strcmp(kind.category, "CUSTOM") == 0;
    const auto wanted = wanted_.find(kind.category);
    const delivery one{path.substr(path.rfind('/') + 1) + " " + timestamp_in(path),
                       kind.category,
                       is_app_event ? package : "",
                       is_app_event ? "e" + serial : kind.type,
                       reported_,
                       wanted == wanted_.end() ? answer::no : wanted->second};
    for (int i = 0; i < kind.events; ++i) {
        ledger_.add(one);
    }
    ++delivered_[kind.name];
    return one.id;
}

// --- Switches ------------------------------------------------------------------------------------

bool steering::is_on(const std::string& property) {
    return log_.count(change(property, true)) > log_.count(change(property, false));
}

void steering::switch_to(const std::string& property, bool on) {
    set(property, on ? "1" : "0");
    expect(change(property, on), [&] { return is_on(property) == on; });
}

// Which of the values the daemon sees is open. One that is neither makes it wait with what it saw
// last; the opposite of that must show, whatever was still on its way.
void steering::flurry(const std::string& property, unsigned times,
                      const std::function<void()>& between) {
    for (const category_switch& one : kCategorySwitches) {
        if (one.property == property) {
            ledger_.doubt(one.category);
            wanted_[one.category] = answer::unknown;
        }
    }
    if (property == kDetectionSwitch) {
        reported_ = answer::unknown;
    }
    for (; times > 0; --times) {
        set(property, times % 2 != 0 ? "1" : "0");
        between();
    }
    set(property, "2");
    catch_up_with_log();
    switch_to(property, !is_on(property));
}

void steering::start_detection_switch(bool on) {
    reported_ = answer::unknown;
    switch_to(kDetectionSwitch, on);
}

// A watcher says at its start what it watches, and at last that it ends.
void steering::switch_detection(bool on) {
    start_detection_switch(on);
    const std::string sign =
        std::string("ZQ_EVENT_LOG: ") + (on ? "/data/tombstones has been snooped" : "exit");
    const size_t switches = log_.count(change(kDetectionSwitch, on));
    expect(sign, [&] { return log_.count(sign) == switches; });
    reported_ = on ? answer::yes : answer::no;
    for (const category_switch& one : kCategorySwitches) {
        settle(one);
    }
}

void steering::switch_category(const category_switch& one, bool on) {
    if (is_on(one.property) != on) {
        ledger_.doubt(one.category);
        wanted_[one.category] = answer::unknown;
        switch_to(one.property, on);
    }
    settle(one);
}

// The daemon names a switch before it obeys it: that it does, an event must show.
void steering::settle(const category_switch& one) {
    const bool on = is_on(one.property);
    while (reported_ == answer::yes && wanted_[one.category] == answer::unknown) {
        const bool is_custom = strcmp(one.category, "CUSTOM") == 0;
        const std::string id = deliver(is_custom ? kAppEvent : kAnr, "org.example");
        bool was_collected = false;
        expect("the fate of " + id, [&] {
            was_collected = ledger_.is_collected(id);
            return was_collected || log_.has_refused(id.substr(0, id.find(' ')));
        });
        if (was_collected == on) {
            wanted_[one.category] = on ? answer::yes : answer::no;
        }
    }
}

}  // namespace soak
