// SPDX-License-Identifier: Apache-2.0

// Switch, armed and idle: how soon the daemon is at work, and what it takes while nothing happens.

#include <sched.h>

#include "bench/figures.h"
#include "testing/device.h"

namespace {

namespace fs = std::filesystem;

// --- Switch --------------------------------------------------------------------------------------

constexpr int kChannels = 4;

bool waits_in_inotify(pid_t pid) {
    const std::string dir = inside::proc(pid, "fdinfo");
    const std::vector<std::string> fds = inside::names_in(dir);
    return std::any_of(fds.begin(), fds.end(), [&](const std::string& fd) {
        return inside::read_file(dir + "/" + fd).find("inotify wd") != std::string::npos;
    });
}

// The script's program for that; it is a new one after each change, and its start shall not count.
void wait_for_waitprop() {
    const stopwatch watch;
    while (true) {
        const std::vector<pid_t> pids = inside::processes_named("waitprop");
        if (!pids.empty() && waits_in_inotify(pids[0])) {
            return;
        }
        require(watch.millis() < 10000, "the script does not wait for its property");
        sched_yield();
    }
}

void switch_on_and_off(const char* side, const char* property, line_fifo& started) {
    wait_for_waitprop();
    const stopwatch watch;
    set_property(property, "1");
    std::vector<pid_t> pids;
    for (int channel = 0; channel < kChannels; ++channel) {
        pids.push_back(std::stoi(started.next()));
    }
    print_sample("switch", kChannels, side, watch.millis());
    wait_for_waitprop();
    set_property(property, "0");
    for (const pid_t pid : pids) {
        require(inside::wait_for_end(pid), "a capture has not ended");
    }
}

// --- Idle ----------------------------------------------------------------------------------------

// Voluntary switches of all threads.
long wakeups(pid_t pid) {
    long sum = 0;
    for (const std::string& task : inside::names_in(inside::proc(pid, "task"))) {
        sum += inside::proc_number(inside::proc(pid, "task/" + task + "/status"),
                                   "voluntary_ctxt_switches");
    }
    return sum;
}

// --- Armed ---------------------------------------------------------------------------------------

void measure_armed(const char* side, const std::vector<std::string>& argv,
                   const std::string& line) {
    int fds[2];
    require(pipe2(fds, O_CLOEXEC) == 0, "no pipe");
    const android::base::unique_fd errors(fds[0]);
    android::base::unique_fd writer(fds[1]);
    const android::base::unique_fd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const stopwatch watch;
    const pid_t pid = start_program(argv, nowhere, writer);
    writer.reset();
    std::string text;
    while (text.find(line) == std::string::npos) {
        char bytes[4096];
        const ssize_t count =
            inside::wait_for_input(errors) ? read(errors, bytes, sizeof(bytes)) : 0;
        require(count > 0, std::string(side) + " does not watch: " + text);
        text.append(bytes, static_cast<size_t>(count));
    }
    print_sample("armed", 1, side, watch.millis());
    kill(pid, SIGKILL);
    inside::wait_status(pid);
}

}  // namespace

void capture_switch() {
    make_phone_folders();
    // Says its pid as soon as it runs: what a real one does after that is not the switch.
    fs::remove("/system/bin/logcat");
    fs::create_symlink("/bench/started", "/system/bin/logcat");
    line_fifo started("/data/started");
    const side_process daemon("exec zq_brevix 2>/data/daemon.log");
    const side_process script("exec capture_script bench.capture /data/script");
    require(inside::wait_for_text("/data/daemon.log", "main start"), "no daemon");
    for (int round = 0; round < 30; ++round) {
        switch_on_and_off("daemon", "persist.service.start.capture", started);
        switch_on_and_off("script", "bench.capture", started);
    }
}

void idle() {
    make_phone_folders();
    switch_detection_on();
    set_property("persist.service.start.capture", "1");
    const side_process daemon("exec zq_brevix >/dev/null 2>/data/daemon.log");
    const side_process watcher(
        "exec inotifywait -m -e moved_to -e create -e close_write /data/system/dropbox "
        "/data/tombstones >/dev/null 2>/data/inotifywait.log");
    for (const char* line : {"tag: kernel, pid", "tombstones has been snooped",
                             "crashlog.enable changed to 1", "custom.event changed to 1"}) {
        require(inside::wait_for_text("/data/daemon.log", line), "the daemon is not at work");
    }
    require(inside::wait_for_text("/data/inotifywait.log", "established"), "nothing watches");
    // The first second that wakes nobody ends the start.
    constexpr int kSeconds = 30;
    long daemon_before = 0;
    long watcher_before = 0;
    for (long before = -1; before != daemon_before + watcher_before;) {
        before = daemon_before + watcher_before;
        poll(nullptr, 0, 1000);
        daemon_before = wakeups(daemon.pid());
        watcher_before = wakeups(watcher.pid());
    }
    poll(nullptr, 0, kSeconds * 1000);
    const auto print = [](const char* side, pid_t pid, long before) {
        print_sample("wakeups", kSeconds, side, static_cast<double>(wakeups(pid) - before));
        print_sample("memory", kSeconds, side, static_cast<double>(inside::private_kbytes(pid)));
    };
    print("daemon", daemon.pid(), daemon_before);
    print("inotifywait", watcher.pid(), watcher_before);
}

void armed() {
    make_phone_folders();
    switch_detection_on();
    for (const char* dir : {"tombstones", "dropbox", "eventTemp"}) {
        fs::create_directories(fs::path("/data/floor") / dir);
    }
    for (int round = 0; round < 100; ++round) {
        measure_armed("daemon", {"/system/bin/zq_brevix"}, "/data/tombstones has been snooped");
        measure_armed("floor", {"/bench/floor", "/data/floor"}, "armed");
    }
}
