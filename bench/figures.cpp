// Figures of the daemon in the virtual device: figures NAME... runs what is named, all when nothing
// is.

#include <cutils/properties.h>

#include <iostream>
#include <set>

#include "tests/device_fixture.h"
#include "utils/util.h"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;
using millis = std::chrono::duration<double, std::milli>;

constexpr const char* kCapture = "persist.service.start.capture";
constexpr const char* kDetect = "persist.service.event.detect";
constexpr const char* kNotices = "/data/brevix/queue.log";
constexpr const char* kHistory = "/data/logs/history.event";

double at(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    return values.at(static_cast<size_t>(fraction * static_cast<double>(values.size() - 1)));
}

size_t lines_in(const std::string& file) {
    return fixture::read_lines(file).size();
}

std::string field(const std::string& file, const std::string& name) {
    for (const std::string& line : fixture::read_lines(file)) {
        if (line.starts_with(name)) {
            return line.substr(line.find_first_not_of(" \t", name.size()));
        }
    }
    return "?";
}

class daemon_process {
  public:
    explicit daemon_process(bool detect) {
        for (const char* dir :
             {"/data/logs", "/data/brevix", "/data/system/dropbox", "/data/tombstones"}) {
            fs::create_directories(dir);
        }
        const char* const argv[] = {"/system/bin/sh", "-c", "exec zq_brevix >/dev/null", nullptr};
        pid_ = ZQRecordLog("daemon", const_cast<char* const*>(argv));
        if (pid_ == 0) {
            _exit(127);
        }
        if (detect) {
            for (const char* name :
                 {"persist.service.crashlog.enable", "persist.service.custom.event", kDetect}) {
                property_set(name, "1");
            }
            for (const char* text : {"tombstones has been snooped", "crashlog.enable changed",
                                     "custom.event changed"}) {
                fixture::wait_for_text(log_.kFile, text);
            }
        }
    }
    ~daemon_process() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    daemon_process(const daemon_process&) = delete;
    daemon_process& operator=(const daemon_process&) = delete;
    std::string proc(const std::string& file) const {
        return "/proc/" + std::to_string(pid_) + "/" + file;
    }
    pid_t pid() const { return pid_; }
    static constexpr const char* kLog = fixture::log_lines::kFile;

  private:
    fixture::log_lines log_;
    pid_t pid_ = -1;
};

size_t count_in_log(const std::string& text) {
    size_t count = 0;
    for (const std::string& line : fixture::read_lines(daemon_process::kLog)) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

void deliver_app_event(const std::string& package) {
    fixture::write_file("/data/system/dropbox/drop1.tmp", "content");
    fs::rename("/data/system/dropbox/drop1.tmp",
               "/data/system/dropbox/ZQEvent_" + package + "_e@1");
}

bool wait_for_notices(size_t count) {
    return fixture::wait_until("/data/brevix", [=] { return lines_in(kNotices) >= count; });
}

// Voluntary switches of all threads of the daemon.
long switches(const daemon_process& daemon) {
    long sum = 0;
    for (const std::string& task : fixture::names_in(daemon.proc("task"))) {
        sum +=
            std::stol(field(daemon.proc("task/" + task + "/status"), "voluntary_ctxt_switches:"));
    }
    return sum;
}

void idle() {
    const daemon_process daemon(true);
    property_set(kCapture, "1");
    fixture::wait_for_text(daemon_process::kLog, "tag: kernel, pid");
    // The span is the measurement.
    poll(nullptr, 0, 2000);
    const long before = switches(daemon);
    poll(nullptr, 0, 60000);
    std::cout << "idle, capture and detection on, 60 s: " << switches(daemon) - before
              << " voluntary context switches; Pss " << field(daemon.proc("smaps_rollup"), "Pss:")
              << ", private "
              << std::stol(field(daemon.proc("smaps_rollup"), "Private_Clean:")) +
                     std::stol(field(daemon.proc("smaps_rollup"), "Private_Dirty:"))
              << " kB\n";
}

void capture_switch() {
    const daemon_process daemon(false);
    fixture::wait_for_text(daemon_process::kLog, "main start");
    std::vector<double> latencies;
    for (int i = 0; i < 20; ++i) {
        const auto start = clock_type::now();
        property_set(kCapture, "1");
        const std::string base = "/data/logs/general_log/";
        fs::create_directories(base);
        std::string dir;
        fixture::wait_until(base, [&] {
            for (const std::string& name : fixture::names_in(base)) {
                if (name.starts_with("ZQLog_" + std::to_string(i) + "_")) {
                    dir = base + name;
                }
            }
            return !dir.empty();
        });
        fixture::wait_until(dir, [&] { return !fixture::read_file(dir + "/android.log").empty(); });
        latencies.push_back(millis(clock_type::now() - start).count());
        property_set(kCapture, "0");
        fixture::wait_until("/data",
                            [=] { return count_in_log("stop capturing") == size_t(i) + 1; });
    }
    std::cout << "capture switched on -> first line in android.log, 20 times: median "
              << at(latencies, 0.5) << " ms, max " << at(latencies, 1) << " ms\n";
}

// The walk behind the ceiling's decision, over 1,000 captures of 20 files, beside du -sb.
void ceiling() {
    const std::string base = "/data/c/";
    for (int i = 0; i < 1000; ++i) {
        for (int j = 0; j < 20; ++j) {
            fixture::write_file(base + "ZQLog_" + std::to_string(i) + "_t/" + std::to_string(j),
                                "x");
        }
    }
    std::vector<double> own;
    std::vector<double> du;
    for (int i = 0; i < 11; ++i) {
        auto start = clock_type::now();
        ZQRemoveFileWithCheckSize(base, 1000, "ZQLog_", 3);
        own.push_back(millis(clock_type::now() - start).count());
        start = clock_type::now();
        run_shell(("/usr/bin/du -sb " + base + " >/dev/null").c_str());
        du.push_back(millis(clock_type::now() - start).count());
    }
    std::cout << "size ceiling over 1,000 captures of 20 files, 11 times: median " << at(own, 0.5)
              << " ms; du -sb " << at(du, 0.5) << " ms\n";
}

void burst() {
    const daemon_process daemon(true);
    const auto start = clock_type::now();
    for (int i = 0; i < 1000; ++i) {
        deliver_app_event("p" + std::to_string(i));
    }
    const millis delivered = clock_type::now() - start;
    wait_for_notices(1000);
    const millis all = clock_type::now() - start;
    std::set<std::string> packages;
    for (const std::string& line : fixture::read_lines(kNotices)) {
        packages.insert(line.substr(line.find("--es name "), 18));
    }
    deliver_app_event("_");  // no event, but the last child is collected with it
    fixture::wait_until("/data", [&] { return fixture::children_of(daemon.pid()).empty(); });
    std::cout << "burst of 1,000 files moved in within " << delivered.count()
              << " ms: " << lines_in(kHistory) - 1 << " history lines, " << lines_in(kNotices)
              << " notices of " << packages.size() << " packages, " << all.count() / 1000
              << " ms an event, " << fixture::children_of(daemon.pid()).size()
              << " children left\n";
}

void road() {
    fixture::write_program("/system/bin/am", "echo x >>/data/brevix/queue.log");
    const daemon_process daemon(true);
    std::vector<double> latencies;
    for (size_t i = 1; i <= 200; ++i) {
        const auto start = clock_type::now();
        deliver_app_event("p");
        wait_for_notices(i);
        latencies.push_back(millis(clock_type::now() - start).count());
    }
    std::cout << "event road, rename -> am has run, 200 events: median " << at(latencies, 0.5)
              << " ms, p99 " << at(latencies, 0.99) << " ms\n";
}

void storm() {
    const daemon_process daemon(true);
    const auto entries = [&](const char* kind) {
        return fixture::names_in(daemon.proc(kind)).size();
    };
    const size_t threads = entries("task");
    const size_t descriptors = entries("fd");
    for (int i = 0; i < 1000; ++i) {
        property_set(kDetect, "0");
        fixture::wait_until("/data", [=] { return count_in_log("stop detecting") > size_t(i); });
        deliver_app_event("p" + std::to_string(i));
        property_set(kDetect, "1");
        fixture::wait_until(
            "/data", [=] { return count_in_log("tombstones has been snooped") > size_t(i) + 1; });
        deliver_app_event("q" + std::to_string(i));
    }
    deliver_app_event("last");
    fixture::wait_for_text(kNotices, "--es name last ");
    fixture::wait_until("/data", [&] { return entries("task") == threads; });
    const std::vector<std::string> notices = fixture::read_lines(kNotices);
    std::cout << "1,000 switches off and on under events: " << count_in_log("exit")
              << " watchers ended, threads " << threads << " -> " << entries("task")
              << ", descriptors " << descriptors << " -> " << entries("fd") << ", "
              << notices.size() << " notices, "
              << std::set<std::string>(notices.begin(), notices.end()).size()
              << " different, the next event collected\n";
}

constexpr struct {
    const char* name;
    void (*run)();
} kFigures[] = {{"idle", idle},       {"switch", capture_switch},
                {"ceiling", ceiling}, {"burst", burst},
                {"road", road},       {"storm", storm}};

}  // namespace

int main(int argc, char* argv[]) {
    const std::set<std::string> wanted(argv + 1, argv + argc);
    for (const auto& figure : kFigures) {
        if (wanted.empty() || wanted.count(figure.name) != 0) {
            figure.run();
        }
    }
}
