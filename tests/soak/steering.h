// SPDX-License-Identifier: Apache-2.0

// Delivers crash files and switches the daemon, and keeps what is certain about its state.
#pragma once

#include "host/log/store.h"
#include "tests/soak/ledger.h"

namespace soak {

inline const std::string kCaptureSwitch = "persist.service.start.capture";
inline const std::string kDetectionSwitch = "persist.service.event.detect";

// The daemon's main thread, and an observer for each of its four switches.
inline constexpr size_t kOtherThreads = 5;

// In these rows "#" stands for a serial number and "*" for a package.
struct crash_category {
    const char* name;
    const char* enable;   // its switch
    const char* package;  // in the notice
    const char* folder;   // path of an event's folder up to the count
};
struct crash_kind {
    const char* name;
    unsigned weight;
    const crash_category* category;  // null: makes no event
    const char* type;
    const char* file;  // its name
};

// clang-format off
inline constexpr crash_category kCategories[] = {
    {"CRASH",  "persist.service.crashlog.enable", "null", "/data/logs/crashlog/crashlog_"},
    {"CUSTOM", "persist.service.custom.event",    "*",    "/data/logs/zqeventlog/*_"},
};
inline constexpr auto* kCrash = &kCategories[0];
inline constexpr auto* kCustom = &kCategories[1];
inline constexpr crash_kind kAnr = {"anr", 6, kCrash, "ANR", "data_app_anr@#.txt"};
inline constexpr crash_kind kAppEvent = {"app event", 8, kCustom, "e", "ZQEvent_*_e@#.txt"};
inline constexpr crash_kind kMisnamed = {"misnamed event", 1, nullptr, "", "ZQEvent_a_b_c@#.txt"};
// clang-format on

// The functions throw std::runtime_error when what they wait for does not come about.
class steering {
  public:
    // Waits until `condition` for as long as events are collected meanwhile. It is asked at each
    // log line, and each second.
    void expect(const std::string& what, const std::function<bool()>& condition) {
        for (size_t before = events.read(); !device::wait_until(kLogFolder, condition);) {
            if (events.read() == before) {
                throw std::runtime_error("waited in vain for " + what);
            }
            before = events.read();
        }
    }

    // How often this line has been logged. To be called before the store drops lines.
    size_t logged(const std::string& line) {
        for (; const AndroidLogEntry* entry = log_.peek(); log_.pop()) {
            ++lines_[std::string(entry->message, entry->messageLen)];
        }
        return lines_[line];
    }

    // Delivers one file as the platform does. A tombstone named "written" is created in its place
    // and closed, which makes two events. Returns its name.
    std::string deliver(const crash_kind& kind, const std::string& package) {
        const std::string serial = std::to_string(++serial_);
        const auto fill_in = [&](const std::string& text) {
            const std::string numbered = android::base::StringReplace(text, "#", serial, true);
            return android::base::StringReplace(numbered, "*", package, true);
        };
        const std::string id = fill_in(kind.file);
        const bool is_written = id.find("written") != std::string::npos;
        if (kind.category != nullptr && known_[kDetectionSwitch] != answer::no) {
            const crash_category& of = *kind.category;
            const delivery event{id + "|" + kind.type + "|" + fill_in(of.package) + "|",
                                 fill_in(of.folder), of.name, kind.type,
                                 std::min(known_[kDetectionSwitch], known_[of.enable])};
            events.add(event, is_written ? 2 : 1);
        }
        run(is_written ? "echo >/data/tombstones/" + id : "echo | crash file " + id + " -");
        return id;
    }

    // Waits until the daemon has dealt with everything delivered, unless detection is off: the
    // queue then waits for the next watcher.
    void settle() {
        if (known_[kDetectionSwitch] == answer::yes) {
            // The daemon logs the name of each file that it takes from the queue.
            const std::string marker = deliver(kMisnamed, "");
            expect("the turn of " + marker,
                   [&] { return logged("monitor a changed event: " + marker) > 0; });
            events.settle();
        }
    }

    // Sets the switch without waiting. Whether the daemon obeys is unknown until switch_to.
    void set_switch(const std::string& property, const std::string& value) {
        known_[property] = answer::unknown;
        for (const crash_category& category : kCategories) {
            if (category.enable == property) {
                events.doubt(category.name);
            }
        }
        if (!device::set_property(property, value)) {
            throw std::runtime_error("cannot set " + property);
        }
    }

    // Sets the switch and waits until the daemon obeys. The daemon logs a value before it obeys, so
    // a watch or an event has to show it, and a category stays unknown until detection is on. Of
    // the capture switch it waits for the log line alone.
    void switch_to(const std::string& property, bool on) {
        const answer wanted = on ? answer::yes : answer::no;
        if (known_[property] == wanted) {
            return;
        }
        // The daemon may still be about to see an earlier value. It ignores a "2", so its last log
        // line is final or about to be, and the opposite of that line must appear.
        set_switch(property, "2");
        for (const bool value : {!sees(property), on}) {
            set_switch(property, value ? "1" : "0");
            expect(change(property, value), [&] { return sees(property) == value; });
        }
        if (property == kDetectionSwitch) {
            expect(on ? "the watches" : "the watcher's end", [&] {
                const size_t threads = device::names_in(device::proc(daemon, "task")).size();
                return watches().size() == (on ? 2 : 0) && (on || threads == kOtherThreads);
            });
        }
        if (property == kDetectionSwitch || property == kCaptureSwitch) {
            known_[property] = wanted;
        }
        for (const crash_kind& kind : {kAnr, kAppEvent}) {
            if (known_[kDetectionSwitch] == answer::yes &&
                known_[kind.category->enable] == answer::unknown) {
                try_out(kind, sees(kind.category->enable));
            }
        }
    }

    ledger events;
    pid_t daemon = -1;

  private:
    static std::string change(const std::string& property, bool on) {
        return property + " changed to " + (on ? "1" : "0");
    }

    bool sees(const std::string& property) {
        return logged(change(property, true)) > logged(change(property, false));
    }

    void try_out(const crash_kind& kind, bool on) {
        const bool is_obeyed = device::wait_until(kLogFolder, [&] {
            settle();
            const size_t before = events.read();
            deliver(kind, "org.example");
            settle();
            return (events.read() > before) == on;
        });
        if (!is_obeyed) {
            throw std::runtime_error(std::string("not obeyed: ") + kind.category->enable);
        }
        known_[kind.category->enable] = on ? answer::yes : answer::no;
    }

    // fdinfo of an inotify instance has a line "inotify wd:1 ino:2b1f ..." per watch.
    std::vector<std::string> watches() const {
        return run("for folder in /data/system/dropbox /data/tombstones; do cat " +
                   device::proc(daemon, "fdinfo/*") +
                   " | grep \" ino:$(printf %x $(stat -c %i $folder)) \"; done; true");
    }

    android::base::unique_fd inotify_ = device::open_inotify();
    log_reader log_{LOG_ID_MAIN, inotify_.get()};
    std::map<std::string, size_t> lines_;  // times logged
    // By switch: whether the daemon obeys a "1".
    std::map<std::string, answer> known_ = {{kCaptureSwitch, answer::unknown}};
    size_t serial_ = 0;
};

}  // namespace soak
