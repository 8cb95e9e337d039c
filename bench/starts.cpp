// SPDX-License-Identifier: Apache-2.0

// Switch, armed and idle: how soon the daemon is at work, and what it takes while nothing happens.

#include <sched.h>

#include <thread>

#include "bench/figures.h"
#include "testing/device.h"
#include "utils/children.h"

namespace {

// --- Switch --------------------------------------------------------------------------------------

bool is_waitprop_asleep() {
    const std::vector<pid_t> pids = device::processes_named("waitprop");
    return !pids.empty() &&
           device::proc_field(device::proc(pids[0], "status"), "State").starts_with("S");
}

// The script starts a waitprop after each change. Waits until it sleeps, so that its start counts
// for neither side.
void wait_for_waitprop() {
    while (!is_waitprop_asleep()) {
        sched_yield();
    }
}

// Returns the milliseconds until all captures run.
double switch_on_and_off(const std::string& property, int channels, std::istream& started) {
    std::vector<pid_t> pids(channels);
    wait_for_waitprop();
    const double millis = millis_of([&] {
        set_property(property, "1");
        for (pid_t& pid : pids) {
            started >> pid;
        }
    });
    wait_for_waitprop();
    set_property(property, "0");
    for (const pid_t pid : pids) {
        require(device::wait_for_end(pid), "a capture does not end");
    }
    return millis;
}

// --- Armed ---------------------------------------------------------------------------------------

// Returns the milliseconds until the program writes a line with `text`. start_program needs no
// shell, whose start would count.
double measure_start(const char* side, const char* const argv[], const std::string& text,
                     std::istream& lines) {
    pid_t pid = -1;
    const double millis = millis_of([&] {
        pid = brevix::start_program(argv);
        require(pid > 0, std::string("cannot start ") + argv[0]);
        for (std::string line; line.find(text) == std::string::npos;) {
            std::getline(lines, line);
        }
    });
    print_sample("armed-own", 100, side, cpu_of(pid).own);
    kill(pid, SIGKILL);
    device::wait_status(pid);
    return millis;
}

// --- Idle ----------------------------------------------------------------------------------------

// Voluntary context switches of all threads.
long wakeups(pid_t pid) {
    long sum = 0;
    for (const std::string& task : device::names_in(device::proc(pid, "task"))) {
        sum += device::proc_number(device::proc(pid, "task/" + task + "/status"),
                                   "voluntary_ctxt_switches");
    }
    return sum;
}

}  // namespace

void measure_switch(int channels) {
    // A stand-in, because what a real logcat does after its start is not the switch.
    std::filesystem::remove("/system/bin/logcat");
    std::filesystem::create_symlink("/bench/started", "/system/bin/logcat");
    std::fstream started = open_fifo("/data/started");
    const program daemon("daemon", "zq_brevix", {"main start"});
    const program script("script", "capture_script bench.capture /data/script", {});
    measure_in_turns(
        "switch", channels, 30,
        {{"daemon",
          [&] { return switch_on_and_off("persist.service.start.capture", channels, started); }},
         {"script", [&] { return switch_on_and_off("bench.capture", channels, started); }}});
}

void measure_armed(int starts) {
    make_folders("/data/floor");
    std::fstream lines = open_fifo("/data/lines");
    // The programs inherit it; this process's own log is of no use here.
    require(freopen("/data/lines", "a", stderr) != nullptr, "cannot redirect standard error");
    const char* const daemon[] = {"/system/bin/zq_brevix", nullptr};
    const char* const floor[] = {"/bench/floor", "/data/floor", nullptr};
    measure_in_turns(
        "armed", starts, starts,
        {{"daemon",
          [&] { return measure_start("daemon", daemon, "tombstones has been snooped", lines); }},
         {"floor", [&] { return measure_start("floor", floor, "armed", lines); }}});
}

void measure_idle(int seconds) {
    set_property("persist.service.start.capture", "1");
    const program daemon("daemon", "zq_brevix",
                         {"tag: kernel, pid", "tombstones has been snooped",
                          "crashlog.enable changed to 1", "custom.event changed to 1"});
    const program watcher("inotifywait",
                          "inotifywait -m -e moved_to -e create -e close_write "
                          "/data/system/dropbox /data/tombstones",
                          {"established"});
    const auto sum = [&] { return wakeups(daemon.pid()) + wakeups(watcher.pid()); };
    for (long before = -1; before != sum();) {  // a second without wake-ups ends the start
        before = sum();
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    const long daemon_before = wakeups(daemon.pid());
    const long watcher_before = wakeups(watcher.pid());
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    print_sample("wakeups", seconds, "daemon", wakeups(daemon.pid()) - daemon_before);
    print_sample("wakeups", seconds, "inotifywait", wakeups(watcher.pid()) - watcher_before);
    print_sample("memory", seconds, "daemon", device::private_kbytes(daemon.pid()));
    print_sample("memory", seconds, "inotifywait", device::private_kbytes(watcher.pid()));
}
