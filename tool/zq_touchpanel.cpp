// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_TOUCHPANEL"

#include "tool/zq_touchpanel.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include "platform/zq_feature.h"
#include "utils/children.h"
#include "utils/directories.h"

namespace fs = std::filesystem;
using android::base::unique_fd;
using namespace brevix;

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kCaptureTime(2);
constexpr int kPollMilliseconds = 1000;
constexpr size_t kMaxSnapshotBytes = 2500;

struct touch_controller {
    int feature;  // of GetZqFeature
    const char* switch_node;
    const char* data_node;
    const char* suffix;
    // Writes into the file `output` of the folder. Returns false when that could not be made.
    bool (*capture)(const touch_controller& controller, const std::string& output);
};

void write_switch(const std::string& path, char value) {
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (fd < 0) {
        std::cerr << "Error: Unable to open file: " << path << std::endl;
        return;
    }
    if (write(fd, &value, 1) != 1) {
        std::cerr << "Error: Failed to write content to file: " << path << std::endl;
    }
}

// --- Output --------------------------------------------------------------------------------------

// The folder belongs to the user system and this process is root: a planted link must lead neither
// a capture nor the change of owner to the files of others, and a planted FIFO must not hold it up.
constexpr const char* kOutputDir = "/data/logs/touch_panel";

unique_fd open_folder() {
    unique_fd folder(open(kOutputDir, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder < 0 && errno == ENOTDIR) {
        LOG(INFO) << "TouchPanel Error: " << kOutputDir << " is a link or a file";
    }
    return folder;
}

unique_fd open_output(const std::string& name, int flags, mode_t mode) {
    const unique_fd folder = open_folder();
    flags |= O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return unique_fd(openat(folder, name.c_str(), flags, mode));
}

// --- goodix_ts: every change of the node is a snapshot of its own --------------------------------

// What the node shows now; empty when it cannot be read.
std::string read_snapshot(int node) {
    char snapshot[kMaxSnapshotBytes];
    lseek(node, 0, SEEK_SET);
    const ssize_t bytes = read(node, snapshot, sizeof(snapshot));
    return {snapshot, static_cast<size_t>(std::max<ssize_t>(bytes, 0))};
}

void record_changes(int node, int output, steady_clock::time_point start) {
    pollfd change{node, POLLPRI, 0};
    do {
        if (poll(&change, 1, kPollMilliseconds) < 0) {
            LOG(INFO) << "TouchPanel polling!! break poll";
            return;
        }
        // Kernel files raise POLLERR with it.
        if ((change.revents & POLLPRI) != 0) {
            const std::string snapshot = read_snapshot(node);
            android::base::WriteFully(output, snapshot.data(), snapshot.size());
        }
    } while (steady_clock::now() - start < kCaptureTime);
    LOG(INFO) << "TouchPanel polling!! break time";
}

bool capture_changes(const touch_controller& controller, const std::string& output) {
    const unique_fd node(open(controller.data_node, O_RDONLY | O_CLOEXEC));
    if (node < 0) {
        LOG(INFO) << "TouchPanel Error: Unable to open source file";
        return false;
    }
    const unique_fd file = open_output(output, 0, 0644);
    if (file < 0) {
        LOG(INFO) << "TouchPanel Error: Unable to create target file";
        return false;
    }
    read_snapshot(node);  // the driver tells of changes since the last read
    const steady_clock::time_point start = steady_clock::now();
    enableReplay(controller.switch_node);
    record_changes(node, file, start);
    disableReplay(controller.switch_node);
    return true;
}

// --- fts: one copy, with the mode held on --------------------------------------------------------

// Opens both before it checks either, and a capture that fails leaves the mode on: an empty file
// and the controller's state show whoever asked that it was tried.
bool capture_once(const touch_controller& controller, const std::string& output) {
    enableReplay(controller.switch_node);
    std::ifstream node(controller.data_node, std::ios::binary);
    const unique_fd file = open_output(output, O_TRUNC, 0666);
    if (!node) {
        std::cerr << "Error: Unable to open source file: " << controller.data_node << std::endl;
        return false;
    }
    if (file < 0) {
        std::cerr << "Error: Unable to create target file: " << kOutputDir << "/" << output
                  << std::endl;
        return false;
    }
    const std::string diffs(std::istreambuf_iterator<char>(node), {});
    android::base::WriteFully(file, diffs.data(), diffs.size());
    std::this_thread::sleep_for(kCaptureTime);
    disableReplay(controller.switch_node);
    return true;
}

// --- Both ----------------------------------------------------------------------------------------

constexpr touch_controller kControllers[] = {
    {62, "/sys/devices/platform/goodix_ts.0/enable_replay",
     "/sys/devices/platform/goodix_ts.0/replay_data", ".rep", capture_changes},
    {63, "/sys/devices/platform/soc/11013000.spi3/spi_master/spi3/spi3.0/fts_fast_diff_mode",
     "/sys/devices/platform/soc/11013000.spi3/spi_master/spi3/spi3.0/fts_diff_data", ".txt",
     capture_once},
};

std::string output_name(const char* suffix) {
    return "tp_log_" + format_time("%Y-%m-%d_%H-%M-%S", local_time(time(nullptr))) + suffix;
}

// chown -R may enter a directory that has just been swapped for a link. A folder that cannot be
// listed may hold one.
bool may_hold_directory() {
    std::error_code error;
    const fs::directory_iterator entries(kOutputDir, error);
    if (error) {
        return true;
    }
    for (const fs::directory_entry& entry : entries) {
        if (entry.symlink_status(error).type() == fs::file_type::directory) {
            LOG(INFO) << "TouchPanel Error: " << entry.path().string() << " is a directory";
            return true;
        }
    }
    return false;
}

void hand_over() {
    constexpr const char* kCommand = "chown -R system:system /data/logs/touch_panel/";
    LOG(INFO) << kCommand << "\n";
    const ignored_terminal_signals ignored;
    // The command's trailing slash follows a link that replaced the folder meanwhile.
    if (open_folder() < 0 || may_hold_directory() || run_shell(kCommand) != 0) {
        LOG(INFO) << "TouchPanel Error";
    }
    property_set("sys.brevix.touchpanel.fetch", "0");
}

}  // namespace

void enableReplay(const std::string& path) {
    write_switch(path, '1');
}

void disableReplay(const std::string& path) {
    write_switch(path, '0');
}

int ZQTouchPanelDump() {
    LOG(INFO) << "TouchPanel main start!!";
    for (const touch_controller& controller : kControllers) {
        const bool is_present = (GetZqFeature(controller.feature) & 1) != 0;
        if (is_present && controller.capture(controller, output_name(controller.suffix))) {
            hand_over();
        }
    }
    LOG(INFO) << "TouchPanel main end!!";
    return 0;
}
