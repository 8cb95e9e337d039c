// SPDX-License-Identifier: Apache-2.0

// floor DIR: what an event costs at least. Watches DIR/tombstones and DIR/dropbox and leaves the
// same on disk as the daemon, in as few system calls as it takes: one kept and one staged folder
// go, a folder with report and copy comes, the history gets its line. The two shell lines that no
// collector can do without stage it and tell the app.

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <string>

namespace {

struct kept_event {
    std::string folder;  // its name
    std::string file;    // of the crash, in it
};

std::string root;
std::deque<kept_event> kept;  // the oldest first
int history = -1;
int number = 1000000;  // no folder of this number is there

void remove_folder(const std::string& path, const std::string& file) {
    unlink((path + "/eventfile").c_str());
    unlink((path + "/" + file).c_str());
    rmdir(path.c_str());
}

void remove_oldest() {
    const auto [folder, file] = kept.front();
    kept.pop_front();
    remove_folder(root + "/logs/crashlog/" + folder, file);
    remove_folder(root + "/eventTemp/" + folder, file);
}

void write_file(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    dprintf(fd, "%s", text.c_str());
    close(fd);
}

void copy_file(const std::string& from, const std::string& to) {
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
    while (sendfile(out, in, nullptr, 1 << 20) > 0) {
    }
    close(in);
    close(out);
}

void collect(const std::string& file) {
    remove_oldest();
    const std::string name =
        "crashlog_" + std::to_string(number++) + "_TOMBSTONE_2026-11-21-09-30-05";
    const std::string folder = root + "/logs/crashlog/" + name;
    mkdir(folder.c_str(), 0777);
    write_file(folder + "/eventfile",
               "EVENT=CRASH\nDATE=2026-11-21/09:30:05\nBOARD=\nSWVersion=\nFINGERPRINT=\n"
               "VERIFIED_BOOT_STATE=\nDEBUGGABLE=\nTYPE=TOMBSTONE\n_END\n");
    dprintf(history, "CRASH   2026-11-21/09:30:05 TOMBSTONE %s\n", folder.c_str());
    copy_file(root + "/tombstones/" + file, folder + "/" + file);
    kept.push_back({name, file});
    system(("cp -r " + folder + " " + root + "/eventTemp/ ").c_str());
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
    if (inotify_add_watch(fd, (root + "/dropbox").c_str(), changes) < 0 ||
        inotify_add_watch(fd, (root + "/tombstones").c_str(), changes) < 0) {
        perror("floor");
        return 1;
    }
    fprintf(stderr, "armed\n");
    for (const auto& entry : std::filesystem::directory_iterator(root + "/eventTemp")) {
        kept.push_back({entry.path().filename(), "tombstone_00"});
    }
    history = open((root + "/logs/history.event").c_str(),
                   O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    collect_all(fd);
    perror("floor");
    return 1;
}
