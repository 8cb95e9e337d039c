// SPDX-License-Identifier: Apache-2.0

// floor DIR: the lower bound of what an event costs. Watches DIR/tombstones and DIR/system/dropbox
// and leaves the same on disk as the daemon without looking at what is there: removes the oldest
// kept and staged folder, makes a folder with report and copy, and adds lines to history and log.
// Staging and the notice to the app are shell lines, as they are for every collector.

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

std::string root;
size_t limit;                  // of folders that are kept
std::deque<std::string> kept;  // their names, the oldest first
std::ofstream history;

void collect(const std::string& file) {
    static int number = 0;
    if (kept.size() == limit) {
        fs::remove_all(root + "/logs/crashlog/" + kept.front());
        fs::remove_all(root + "/brevix/eventTemp/" + kept.front());
        kept.pop_front();
    }
    kept.push_back("crashlog_" + std::to_string(number++) + "_TOMBSTONE_2026-11-21-09-30-05");
    const std::string folder = root + "/logs/crashlog/" + kept.back();
    for (int line = 0; line < 4; ++line) {
        LOG(INFO) << "collecting " << file << " into " << folder;
    }
    mkdir(folder.c_str(), 0777);
    std::ofstream(folder + "/eventfile")
        << "EVENT=CRASH\nDATE=2026-11-21/09:30:05\nBOARD=\nSWVersion=\nFINGERPRINT=\n"
           "VERIFIED_BOOT_STATE=\nDEBUGGABLE=\nTYPE=TOMBSTONE\n_END\n";
    history << "CRASH   2026-11-21/09:30:05 TOMBSTONE " << folder << std::endl;
    fs::copy_file(root + "/tombstones/" + file, folder + "/" + file);
    system(("cp -r " + folder + " " + root + "/brevix/eventTemp/ ").c_str());
    system(("am startservice -a com.velmora.brevix.action.EVENT -n "
            "com.velmora.brevix/.logoutput.QueueTaskService --es name null --es type TOMBSTONE "
            "--es path " +
            folder + " --es time 2026-11-21-09-30-05 --user 0")
               .c_str());
}

void collect_all(int fd) {
    alignas(inotify_event) char buffer[4096];
    ssize_t bytes = 0;
    while ((bytes = read(fd, buffer, sizeof(buffer))) > 0) {
        for (const char* position = buffer; position < buffer + bytes;) {
            const auto* record = reinterpret_cast<const inotify_event*>(position);
            if (record->len > 0 && strstr(record->name, "tombstone") != nullptr) {
                collect(record->name);
            }
            position += sizeof(*record) + record->len;
        }
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    root = argc == 2 ? argv[1] : "";
    umask(0);
    const int fd = inotify_init1(IN_CLOEXEC);
    const uint32_t changes = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO;
    for (const char* dir : {"/system/dropbox", "/tombstones"}) {
        if (inotify_add_watch(fd, (root + dir).c_str(), changes) < 0) {
            perror("floor");
            return 1;
        }
    }
    fprintf(stderr, "armed\n");
    limit = android::base::GetUintProperty<size_t>("persist.service.brevix.ev.num", 10);
    history.open(root + "/logs/history.event", std::ios::app);
    collect_all(fd);
    perror("floor");
    return 1;
}
