// SPDX-License-Identifier: Apache-2.0

// Count and size: the walks that retention makes over the folders that are kept.

#include "bench/figures.h"
#include "testing/device.h"
#include "utils/util.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRounds = 20;

std::function<double()> timed(const std::function<void()>& work) {
    return [work] { return millis_of(work); };
}

std::function<double()> timed_line(const std::string& shell_line) {
    return timed(
        [=] { require(brevix::run_shell(shell_line.c_str()) == 0, "failed: " + shell_line); });
}

}  // namespace

void measure_count(int folders) {
    const std::string dir = "/data/count_" + std::to_string(folders) + "/";
    for (int i = 0; i < folders; ++i) {
        fs::create_directories(dir + "crashlog_" + std::to_string(i) + "_ANR_2026-11-21-09-30-05");
    }
    // Two listings, because the daemon, too, walks the folders once to count and once to remove.
    const std::string sorted = "/usr/bin/ls | /usr/bin/sort -t_ -k2n | ";
    measure_in_turns(
        "count", folders, kRounds,
        {{"daemon", timed([&] {
              require(ZQGetNewLogCount(dir, "crashlog_", 4) == folders, "wrong count");
              require(!ZQRemoveOldFile(dir, "crashlog_", 4, 0, false, false), "removal failed");
          })},
         {"coreutils",
          timed_line("cd " + dir + "; " + sorted + "/usr/bin/tail -n 1 >/data/last; " + sorted +
                     "/usr/bin/head -n -" + std::to_string(folders) + " >/data/old")}});
    const std::string last = "crashlog_" + std::to_string(folders - 1) + "_";
    require(
        device::read_file("/data/last").starts_with(last) && device::read_file("/data/old").empty(),
        "the shell line is wrong");
    require(ZQGetFileCount(dir) == folders, "folders were removed");
}

// A capture has 20 files: those of four channels, rotated.
void measure_size(int files) {
    constexpr int kFilesOfCapture = 20;
    const std::string dir = "/data/size_" + std::to_string(files);
    for (int i = 0; i < files; ++i) {
        device::write_file(dir + "/ZQLog_" + std::to_string(i / kFilesOfCapture) +
                               "_2026-11-21-09-30-05/android.log." +
                               std::to_string(i % kFilesOfCapture),
                           "x");
    }
    measure_in_turns(
        "size", files, kRounds,
        {{"daemon", timed([&] { require(GetDirectorySize(dir) == files, "wrong size"); })},
         {"du", timed_line("/usr/bin/du -sb " + dir + " >/data/du")}});
}
