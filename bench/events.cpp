// SPDX-License-Identifier: Apache-2.0

// Road and burst: from the tombstone that is linked into its directory to the notice to the app.

#include <memory>
#include <set>

#include "bench/figures.h"
#include "testing/device.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kCrash = "/data/crash";  // the one file that all tombstones are links to

// All sides have the same tools and keep as many folders, each in directories of its own.
struct side {
    const char* name;
    const char* command;
    std::string watched;
    std::string logs;
    std::string staging;
    std::vector<std::string> armed;  // what it says on standard error then
};

const side kSides[] = {
    {"daemon",
     "zq_brevix",
     "/data/tombstones",
     "/data/logs",
     "/data/brevix/eventTemp",
     {"tombstones has been snooped", "crashlog.enable changed to 1"}},
    {"script",
     "event_script /data/script",
     "/data/script/tombstones",
     "/data/script/logs",
     "/data/script/eventTemp",
     {"Watches established"}},
    {"floor",
     "/bench/floor /data/floor",
     "/data/floor/tombstones",
     "/data/floor/logs",
     "/data/floor/eventTemp",
     {"armed"}},
};

// The folders that earlier events have left.
void fill(const side& side, int kept) {
    const std::string dropbox = fs::path(side.watched).parent_path() / "dropbox";
    for (const std::string& dir : {side.watched, dropbox, side.logs + "/crashlog", side.staging}) {
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    for (int i = 0; i < kept; ++i) {
        const std::string name =
            "/crashlog_" + std::to_string(i) + "_TOMBSTONE_2026-11-21-09-30-05";
        for (const std::string& dir : {side.logs + "/crashlog" + name, side.staging + name}) {
            inside::write_file(dir + "/eventfile", "EVENT=CRASH\n_END\n");
            fs::copy_file(kCrash, dir + "/tombstone_00");
        }
    }
}

std::unique_ptr<side_process> start(const side& side) {
    const std::string errors = std::string("/data/") + side.name + ".log";
    auto process = std::make_unique<side_process>("exec " + std::string(side.command) +
                                                  " >/dev/null 2>" + errors);
    for (const std::string& line : side.armed) {
        require(inside::wait_for_text(errors, line), std::string(side.name) + " does not watch");
    }
    return process;
}

void deliver(const side& side, int number) {
    const std::string path = side.watched + "/tombstone_" + std::to_string(number);
    require(link(kCrash, path.c_str()) == 0, "cannot link " + path);
}

// The three sides at work, and the app that they tell.
class contest {
  public:
    explicit contest(int kept) {
        switch_detection_on();
        set_property("persist.service.brevix.ev.num", std::to_string(kept).c_str());
        inside::write_file(kCrash, std::string(4096, 'x'));
        for (const side& side : kSides) {
            fill(side, kept);
            processes_.push_back(start(side));
        }
    }

    // Takes the next notice, which must tell of a new folder of this side.
    void take_notice(const side& side) {
        const std::string notice = notices_.next();
        const size_t begin = notice.find("--es path ") + 10;
        const std::string folder = notice.substr(begin, notice.find(' ', begin) - begin);
        require(folder.starts_with(side.logs + "/crashlog/crashlog_"),
                std::string(side.name) + ": wrong notice: " + notice);
        require(told_.insert(folder).second, "told twice: " + folder);
    }

  private:
    line_fifo notices_{"/data/brevix/queue.log"};
    std::vector<std::unique_ptr<side_process>> processes_;
    std::set<std::string> told_;
};

void measure_road(int kept, int events) {
    make_phone_folders();
    contest contest(kept);
    for (int event = 0; event < events; ++event) {
        for (const side& side : kSides) {
            const stopwatch watch;
            deliver(side, event);
            contest.take_notice(side);
            print_sample("road", kept, side.name, watch.millis());
        }
    }
}

// Prints the time an event in groups of events, so that no pause between two of them is left out.
void measure_burst(contest& contest, const side& side, int events) {
    constexpr int kGroup = 50;
    stopwatch watch;
    double before = 0;
    for (int event = 0; event < events; ++event) {
        deliver(side, event);
    }
    for (int event = 1; event <= events; ++event) {
        contest.take_notice(side);
        if (event % kGroup == 0) {
            const double now = watch.millis();
            print_sample("burst", events, side.name, (now - before) / kGroup);
            before = now;
        }
    }
    for (const std::string& name : inside::names_in(side.watched)) {
        fs::remove(side.watched + "/" + name);
    }
}

}  // namespace

void road() {
    measure_road(10, 300);
    measure_road(100, 60);
}

void burst() {
    make_phone_folders();
    contest contest(10);
    for (const int events : {50, 500}) {
        for (int round = 0; round < 4; ++round) {
            for (const side& side : kSides) {
                measure_burst(contest, side, events);
            }
        }
    }
}
