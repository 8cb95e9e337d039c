#define LOG_TAG "ZQ_TOUCHPANEL"

#include "tool/zq_touchpanel.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <thread>

#include "platform/zq_feature.h"
#include "utils/util.h"

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
    // Returns false when the capture could not be made.
    bool (*capture)(const touch_controller& controller, const std::string& output);
};

void write_switch(const std::string& path, char value) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        std::cerr << "Error: Unable to open file: " << path << std::endl;
        return;
    }
    if (write(fd, &value, 1) != 1) {
        std::cerr << "Error: Failed to write content to file: " << path << std::endl;
    }
    close(fd);
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
        // Kernel files raise POLLERR beside it.
        if ((change.revents & POLLPRI) != 0) {
            const std::string snapshot = read_snapshot(node);
            android::base::WriteFully(output, snapshot.data(), snapshot.size());
        }
    } while (steady_clock::now() - start < kCaptureTime);
    LOG(INFO) << "TouchPanel polling!! break time";
}

bool capture_changes(const touch_controller& controller, const std::string& output) {
    const int node = open(controller.data_node, O_RDONLY | O_CLOEXEC);
    if (node < 0) {
        LOG(INFO) << "TouchPanel Error: Unable to open source file";
        return false;
    }
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0) {
        LOG(INFO) << "TouchPanel Error: Unable to create target file";
        close(node);
        return false;
    }
    read_snapshot(node);  // the driver tells of changes since the last read
    const steady_clock::time_point start = steady_clock::now();
    enableReplay(controller.switch_node);
    record_changes(node, file, start);
    disableReplay(controller.switch_node);
    close(node);
    close(file);
    return true;
}

// --- fts: one copy, with the mode held on --------------------------------------------------------

// Both streams are opened before either is looked at, and a capture that cannot be made leaves the
// mode on: whoever asked for it finds an empty file and the controller as the attempt left it.
bool capture_once(const touch_controller& controller, const std::string& output) {
    enableReplay(controller.switch_node);
    std::ifstream node(controller.data_node, std::ios::binary);
    std::ofstream file(output, std::ios::binary);
    if (!node) {
        std::cerr << "Error: Unable to open source file: " << controller.data_node << std::endl;
        return false;
    }
    if (!file) {
        std::cerr << "Error: Unable to create target file: " << output << std::endl;
        return false;
    }
    file << node.rdbuf();  // a node without data sets the fail bit: an empty capture is one, too
    std::this_thread::sleep_for(kCaptureTime);
    node.close();
    file.close();
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

std::string output_path(const char* suffix) {
    const std::string stamp = format_time("%Y-%m-%d_%H-%M-%S", local_time(time(nullptr)));
    return "/data/logs/touch_panel/tp_log_" + stamp + suffix;
}

void hand_over() {
    constexpr const char* kCommand = "chown -R system:system /data/logs/touch_panel/";
    LOG(INFO) << kCommand << "\n";
    if (run_shell(kCommand) != 0) {
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
        if (is_present && controller.capture(controller, output_path(controller.suffix))) {
            hand_over();
        }
    }
    LOG(INFO) << "TouchPanel main end!!";
    return 0;
}
