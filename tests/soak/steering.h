// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/stringprintf.h>
#include <sys/stat.h>

#include "host/log/store.h"
#include "tests/soak/ledger.h"

namespace soak {

inline constexpr const char* kProperties = "/dev/__properties__";
inline const std::string kCaptureSwitch = "persist.service.start.capture";
inline const std::string kDetectionSwitch = "persist.service.event.detect";

// Of the categories of events.
inline const std::map<std::string, std::string> kCategories = {
    {"persist.service.crashlog.enable", "CRASH"}, {"persist.service.custom.event", "CUSTOM"}};

struct crash_kind {
    const char* name;
    unsigned weight;
    const char* category;  // "": makes no event
    const char* type;      // "#" in it and in the path is a number, "*" a package
    const char* path;
};

inline constexpr crash_kind kAppEvent = {"app event", 8, "CUSTOM", "e#",
                                         "/data/system/dropbox/ZQEvent_*_e#@#.txt"};
inline constexpr crash_kind kAnr = {"anr", 6, "CRASH", "ANR",
                                    "/data/system/dropbox/data_app_anr@#.txt"};

// Throws when it cannot.
inline void set(const std::string& property, const std::string& value) {
    if (!inside::set_property(property, value)) {
        throw std::runtime_error("cannot set " + property);
    }
}

// What the daemon logs, as it comes.
class daemon_log {
  public:
    // Takes in what has been logged since; to be called before the store drops it.
    void read() {
        constexpr std::string_view kMonitored = "monitor a changed event: ";
        for (; const AndroidLogEntry* entry = reader_.peek(); reader_.pop()) {
            const std::string text(entry->message, entry->messageLen);
            ++lines_[std::string(entry->tag, entry->tagLen) + ": " + text];
            if (text.starts_with(kMonitored)) {
                monitored_ = text.substr(kMonitored.size());
            } else if (text.starts_with("disable detecting ")) {
                refused_.insert(monitored_);
            }
        }
    }

    // Lines so far that are "TAG: TEXT".
    size_t count(const std::string& line) {
        read();
        const auto found = lines_.find(line);
        return found == lines_.end() ? 0 : found->second;
    }

    // Whether the file of this name has been left because its category is off.
    bool has_refused(const std::string& name) {
        read();
        return refused_.contains(name);
    }

  private:
    android::base::unique_fd inotify_ = inside::open_inotify();
    log_reader reader_{LOG_ID_MAIN, inotify_.get()};
    std::map<std::string, size_t> lines_;
    std::string monitored_;
    std::set<std::string> refused_;
};

// Delivers and switches, and knows at any time what is sure about the daemon's state: each delivery
// is noted in the ledger with that. Whatever does not come about throws.
class steering {
  public:
    // Waits, as long as events go on being collected meanwhile, until `condition`, looked at again
    // when something is logged or changes in `dir`.
    void expect(const std::string& what, const std::function<bool()>& condition,
                const std::string& dir = kLogFolder) {
        bool is_met = false;
        size_t before = 0;
        do {
            events.read();
            before = events.folders().size();
            inside::wait_until(dir, [&] {
                log.read();
                events.read();
                is_met = condition();
                return is_met || events.folders().size() > before;
            });
        } while (!is_met && events.folders().size() > before);
        if (!is_met) {
            throw std::runtime_error("waited in vain for " + what);
        }
    }

    // Returns the id. As the platform does it: dropbox files are renamed, tombstones linked into
    // place. One that is written there is created and closed, an event each.
    std::string deliver(const crash_kind& kind, const std::string& package) {
        constexpr const char* kTemporary = "/data/system/dropbox/drop.tmp";
        const std::string serial = std::to_string(++serial_);
        const auto fill_in = [&](const std::string& text) {
            const std::string numbered = android::base::StringReplace(text, "#", serial, true);
            return android::base::StringReplace(numbered, "*", package, true);
        };
        const std::string path = fill_in(kind.path);
        const delivery one{inside::fs::path(path).filename(),
                           kind.category,
                           kind.category == std::string("CUSTOM") ? package : "null",
                           fill_in(kind.type),
                           reported_,
                           kind.category[0] == '\0' ? answer::no : wanted_.at(kind.category)};
        events.add(one);
        if (path.find("written") != std::string::npos) {
            events.add(one);
            inside::write_file(path, serial);
        } else {
            inside::write_file(kTemporary, serial);
            path.find("tombstones") == std::string::npos
                ? inside::fs::rename(kTemporary, path)
                : inside::fs::create_hard_link(kTemporary, path);
            inside::fs::remove(kTemporary);
        }
        ++delivered[kind.name];
        return one.id;
    }

    // Until all that is sure to be collected has been. With detection off that waits for its next
    // watcher, and nothing is waited for.
    void drain() {
        if (reported_ == answer::yes) {
            expect("what was delivered", [&] { return !events.is_any_missing(); });
        }
    }

    // How the daemon sees a switch. Not sure while a flurry of it goes on.
    bool is_on(const std::string& property) {
        return log.count(change(property, true)) > log.count(change(property, false));
    }

    // Waits until the daemon has seen it, but not until a watcher that it concerns has begun or
    // ended: the next switch-on meets one that is still busy.
    void set_switch(const std::string& property, bool on) {
        if (property == kDetectionSwitch) {
            reported_ = answer::unknown;
        } else if (kCategories.contains(property) && is_on(property) != on) {
            doubt(property);
        }
        set(property, on ? "1" : "0");
        expect(change(property, on), [&] { return is_on(property) == on; });
    }

    // Waits until the daemon obeys: its watches tell that it watches, each watcher logs its end, an
    // event shows what a category's switch does. With detection off that stays in doubt.
    void switch_to(const std::string& property, bool on) {
        set_switch(property, on);
        if (property == kDetectionSwitch) {
            expect(on ? "the watches" : "the watcher's end", [&] {
                return on ? watched_folders() == 2
                          : watched_folders() == 0 && log.count("ZQ_EVENT_LOG: exit") ==
                                                          log.count(change(property, false));
            });
            reported_ = on ? answer::yes : answer::no;
        }
        for (const auto& [category_switch, category] : kCategories) {
            while (reported_ == answer::yes && wanted_[category] == answer::unknown) {
                probe(category, is_on(category_switch));
            }
        }
    }

    // Switches `times` times, calling `between`, without waiting for anything, to what is sure.
    // Which of the values the daemon sees is open. One that is neither makes it wait with what it
    // saw last; the opposite of that must show, whatever was still on its way.
    void flurry(const std::string& property, unsigned times, const std::function<void()>& between) {
        if (property == kDetectionSwitch) {
            reported_ = answer::unknown;
        } else if (kCategories.contains(property)) {
            doubt(property);
        }
        for (; times > 0; --times) {
            set(property, times % 2 != 0 ? "1" : "0");
            between();
        }
        set(property, "2");
        set_switch(property, !is_on(property));
    }

    daemon_log log;
    ledger events;
    std::map<std::string, size_t> delivered;  // by the kind's name
    pid_t daemon = -1;

  private:
    static std::string change(const std::string& property, bool on) {
        return "ZQ_OBSERVER: " + property + " changed to " + (on ? "1" : "0");
    }

    void doubt(const std::string& category_switch) {
        const std::string& category = kCategories.at(category_switch);
        events.doubt(category);
        wanted_[category] = answer::unknown;
    }

    // The daemon names a switch before it obeys it.
    void probe(const std::string& category, bool on) {
        const std::string id = deliver(category == "CUSTOM" ? kAppEvent : kAnr, "org.example");
        bool was_collected = false;
        expect("the fate of " + id, [&] {
            was_collected = events.is_collected(id);
            return was_collected || log.has_refused(id);
        });
        if (was_collected == on) {
            wanted_[category] = on ? answer::yes : answer::no;
        }
    }

    // "inotify wd:1 ino:2b1f sdev:..." for each watch, of all instances of the daemon.
    size_t watched_folders() const {
        std::string watches;
        for (const std::string& fd : inside::names_in(inside::proc(daemon, "fdinfo"))) {
            watches += inside::read_file(inside::proc(daemon, "fdinfo/" + fd));
        }
        size_t watched = 0;
        for (const char* folder : {"/data/system/dropbox", "/data/tombstones"}) {
            struct stat st {};
            stat(folder, &st);
            const std::string inode = android::base::StringPrintf(" ino:%lx ", st.st_ino);
            watched += watches.find(inode) == std::string::npos ? 0 : 1;
        }
        return watched;
    }

    answer reported_ = answer::no;
    std::map<std::string, answer> wanted_ = {{"CRASH", answer::no}, {"CUSTOM", answer::no}};
    size_t serial_ = 0;
};

}  // namespace soak
