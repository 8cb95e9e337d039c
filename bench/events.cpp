// SPDX-License-Identifier: Apache-2.0

// Road and burst: from tombstones that are linked into their directory to the notices to the app.

#include <list>
#include <set>

#include "bench/figures.h"
#include "testing/device.h"

namespace {

constexpr const char* kCrash = "/data/crash";  // every tombstone is a hard link to it

// All call the same tools and keep as many folders, each below a root of its own.
const struct collector {
    const char* name;
    const char* command;
    std::string root;
    std::vector<std::string> armed;  // the log once it collects
} kCollectors[] = {
    // clang-format off
    {"daemon", "zq_brevix", "/data", {"tombstones has been snooped", "crashlog.enable changed to 1"}},
    {"floor", "/bench/floor /data/floor", "/data/floor", {"armed"}},
    {"script", "event_script /data/script", "/data/script", {"Watches established"}},
    // clang-format on
};

// Delivers `count` tombstones at once and reads the notices of as many new folders. Returns the
// milliseconds per event.
double measure_events(const std::string& root, size_t count, std::istream& notices) {
    static int number = 0;
    std::set<std::string> told;
    const double millis = millis_of([&] {
        for (size_t i = 0; i < count; ++i) {
            const std::string path = root + "/tombstones/tombstone_" + std::to_string(number++);
            require(link(kCrash, path.c_str()) == 0, "cannot link " + path);
        }
        for (std::string notice; told.size() < count;) {
            std::getline(notices, notice);
            require(notice.find(" --es path " + root + "/logs/crashlog/") != std::string::npos &&
                        told.insert(notice).second,
                    "wrong notice: " + notice);
        }
    });
    return millis / static_cast<double>(count);
}

// Four times with new programs and folders, because where on the disk these are matters, too.
void measure(const std::string& figure, int work, int kept, size_t at_once, int rounds) {
    constexpr int kSeries = 4;
    const auto events = static_cast<double>(rounds * at_once);
    std::fstream notices = open_fifo("/data/brevix/queue.log");  // that the device's am writes
    device::write_file(kCrash, std::string(4096, 'x'));
    set_property("persist.service.brevix.ev.num", std::to_string(kept));
    for (int series = 0; series < kSeries; ++series) {
        std::list<program> programs;
        std::vector<side> sides;
        for (const collector& each : kCollectors) {
            make_folders(each.root);
            programs.emplace_back(each.name, each.command, each.armed);
            measure_events(each.root, kept, notices);  // leaves the folders of earlier events
            sides.push_back(
                {each.name, [&] { return measure_events(each.root, at_once, notices); }});
        }
        std::vector<cpu_millis> before;
        for (const program& each : programs) {
            before.push_back(cpu_of(each.pid()));
        }
        measure_in_turns(figure, work, rounds, sides);
        for (size_t i = 0; const program& each : programs) {
            const auto [own, children] = cpu_of(each.pid());
            print_sample(figure + "-own", work, sides[i].name, (own - before[i].own) / events);
            print_sample(figure + "-children", work, sides[i].name,
                         (children - before[i].children) / events);
            ++i;
        }
    }
}

}  // namespace

void measure_road(int kept_folders) {
    measure("road", kept_folders, kept_folders, 1, 800 / kept_folders);
}

void measure_burst(int tombstones_at_once) {
    measure("burst", tombstones_at_once, 10, tombstones_at_once, 1);
}
