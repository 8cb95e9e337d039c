// SPDX-License-Identifier: Apache-2.0

// Count and size: the walks that retention makes over the folders that are kept.

#include "bench/figures.h"
#include "testing/device.h"
#include "utils/util.h"

namespace {

namespace fs = std::filesystem;

// A fresh device's disk cache is cold once; the first round is not printed.
constexpr int kRounds = 21;

void measure(const char* figure, int work, const std::string& side, int round, const auto& walk) {
    const stopwatch watch;
    walk();
    if (round > 0) {
        print_sample(figure, work, side, watch.millis());
    }
}

void measure_count(int folders) {
    const std::string dir = "/data/count_" + std::to_string(folders) + "/";
    for (int i = 0; i < folders; ++i) {
        fs::create_directories(dir + "crashlog_" + std::to_string(i) + "_ANR_2026-11-21-09-30-05");
    }
    const std::string last = "crashlog_" + std::to_string(folders - 1) + "_";
    // The keep-N comes later and lists the folders again, as in scripts and in the daemon.
    const std::string sorted = "/usr/bin/ls | /usr/bin/sort -t_ -k2n | ";
    const std::string command = "cd " + dir + "; " + sorted + "/usr/bin/tail -n 1 >/data/last; " +
                                sorted + "/usr/bin/head -n -" + std::to_string(folders) +
                                " >/data/old";
    for (int round = 0; round < kRounds; ++round) {
        measure("count", folders, "daemon", round, [&] {
            require(ZQGetNewLogCount(dir, "crashlog_", 4) == folders, "wrong count");
            require(!ZQRemoveOldFile(dir, "crashlog_", 4, 0, false, false), "removal failed");
        });
        measure("count", folders, "coreutils", round, [&] { run_shell(command.c_str()); });
        require(inside::read_file("/data/last").starts_with(last) &&
                    inside::read_file("/data/old").empty(),
                "the shell line is wrong");
    }
    require(ZQGetFileCount(dir) == folders, "folders were removed");
}

void disk_usage(const std::string& dir) {
    const android::base::unique_fd output(open("/data/du", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    require(
        inside::wait_status(start_program({"/usr/bin/du", "-sb", dir}, output, STDERR_FILENO)) == 0,
        "du failed");
}

// Captures of 20 files, as four channels with their rotated files leave them.
void measure_size(int files) {
    constexpr int kFilesOfCapture = 20;
    const std::string dir = "/data/size_" + std::to_string(files);
    for (int i = 0; i < files; ++i) {
        inside::write_file(dir + "/ZQLog_" + std::to_string(i / kFilesOfCapture) +
                               "_2026-11-21-09-30-05/android.log." +
                               std::to_string(i % kFilesOfCapture),
                           "x");
    }
    for (int round = 0; round < kRounds; ++round) {
        measure("size", files, "daemon", round,
                [&] { require(GetDirectorySize(dir) == files, "wrong size"); });
        measure("size", files, "du", round, [&] { disk_usage(dir); });
    }
}

}  // namespace

void count() {
    measure_count(1000);
    measure_count(10000);
}

void size() {
    measure_size(5000);
    measure_size(50000);
}
