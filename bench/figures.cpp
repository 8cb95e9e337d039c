// SPDX-License-Identifier: Apache-2.0

// figures NAME: prints the samples of one figure.

#include "bench/figures.h"

#include <sys/stat.h>

#include <map>

#include "testing/device.h"
#include "utils/children.h"

void require(bool condition, const std::string& failure) {
    if (!condition) {
        throw std::runtime_error(failure);
    }
}

void set_property(const std::string& name, const std::string& value) {
    require(device::set_property(name, value), "cannot set " + name);
}

void make_folders(const std::string& root) {
    for (const char* dir : {"/tombstones", "/system/dropbox", "/brevix/eventTemp", "/logs/crashlog",
                            "/logs/general_log"}) {
        std::filesystem::remove_all(root + dir);
        std::filesystem::create_directories(root + dir);
    }
}

void print_sample(const std::string& figure, int work, const std::string& side, double value) {
    printf("%s\t%d\t%s\t%.4f\n", figure.c_str(), work, side.c_str(), value);
}

double millis_of(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const auto passed = std::chrono::steady_clock::now() - start;
    return std::chrono::duration<double, std::milli>(passed).count();
}

void measure_in_turns(const std::string& figure, int work, int rounds,
                      const std::vector<side>& sides) {
    for (int round = 0; round < rounds; ++round) {
        for (const side& each : sides) {
            print_sample(figure, work, each.name, each.measure());
        }
    }
}

program::program(const std::string& name, const std::string& command,
                 const std::vector<std::string>& texts) {
    const std::string log = "/data/" + name + ".log";
    std::filesystem::remove(log);  // an earlier program's texts count for nothing
    pid_ = brevix::start_shell_group(("exec " + command + " >/dev/null 2>" + log).c_str());
    require(pid_ > 0, "cannot start " + command);
    for (const std::string& text : texts) {
        require(device::wait_for_text(log, text), log + " does not get: " + text);
    }
}

program::~program() {
    kill(-pid_, SIGKILL);
    device::wait_status(pid_);
}

cpu_millis cpu_of(pid_t pid) {
    clockid_t clock{};
    timespec own{};
    require(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &own) == 0,
            "no CPU time of " + std::to_string(pid));
    const std::string stat = device::read_file(device::proc(pid, "stat"));
    unsigned long user = 0;
    unsigned long system = 0;
    // From the name's end on: the state, ten numbers, the own times.
    sscanf(stat.c_str() + stat.rfind(')'),
           ") %*c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lu %lu", &user, &system);
    return {own.tv_sec * 1e3 + own.tv_nsec / 1e6, (user + system) * 1e3 / sysconf(_SC_CLK_TCK)};
}

std::fstream open_fifo(const std::string& path) {
    std::filesystem::remove(path);
    require(mkfifo(path.c_str(), 0666) == 0, "cannot make " + path);
    std::fstream fifo(path);
    fifo.exceptions(std::ios::badbit | std::ios::failbit);
    return fifo;
}

namespace {

struct figure {
    std::vector<int> works;  // the second one shows how the first grows
    void (*measure)(int work);
};

const std::map<std::string, figure> kFigures = {
    {"road", {{10, 100}, measure_road}},       {"burst", {{50, 500}, measure_burst}},
    {"count", {{1000, 10000}, measure_count}}, {"size", {{5000, 50000}, measure_size}},
    {"switch", {{4}, measure_switch}},         {"idle", {{30}, measure_idle}},
    {"armed", {{100}, measure_armed}},
};

void switch_detection_on() {
    for (const char* detection : {"persist.service.crashlog.enable", "persist.service.custom.event",
                                  "persist.service.event.detect"}) {
        set_property(detection, "1");
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string name = argc == 2 ? argv[1] : "";
    // The product's functions log to standard error, which is not for the reader.
    const android::base::unique_fd terminal(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    try {
        require(kFigures.contains(name), "no such figure");
        require(freopen("/data/figures.log", "a", stderr) != nullptr, "cannot redirect the log");
        make_folders("/data");
        switch_detection_on();
        for (const int work : kFigures.at(name).works) {
            kFigures.at(name).measure(work);
        }
    } catch (const std::exception& error) {
        dprintf(terminal, "figures %s: %s\n", name.c_str(), error.what());
        return 1;
    }
}
