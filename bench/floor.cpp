// floor DIR: the least that an event costs. Watches DIR/tombstones, and for each tombstone makes a
// folder in DIR/logs/crashlog and runs the two shell lines that no collector can do without: the
// copy to DIR/eventTemp and the notice to the app.

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int count = 1000000;  // no folder of this number is there

void collect(const std::string& dir) {
    const std::string folder = dir + "/logs/crashlog/crashlog_" + std::to_string(count++) +
                               "_TOMBSTONE_2026-11-21-09-30-05";
    mkdir(folder.c_str(), 0777);
    system(("cp -r " + folder + " " + dir + "/eventTemp/ ").c_str());
    system(("am startservice -a com.velmora.brevix.action.EVENT -n "
            "com.velmora.brevix/.logoutput.QueueTaskService --es name null --es type TOMBSTONE "
            "--es path " +
            folder + " --es time 2026-11-21-09-30-05 --user 0")
               .c_str());
}

void collect_all(int fd, const std::string& dir) {
    alignas(inotify_event) char buffer[4096];
    ssize_t bytes = 0;
    while ((bytes = read(fd, buffer, sizeof(buffer))) > 0) {
        for (const char* position = buffer; position < buffer + bytes;) {
            const auto* record = reinterpret_cast<const inotify_event*>(position);
            if (record->len > 0 && strstr(record->name, "tombstone") != nullptr) {
                collect(dir);
            }
            position += sizeof(*record) + record->len;
        }
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string dir = argc == 2 ? argv[1] : "";
    const int fd = inotify_init1(IN_CLOEXEC);
    if (inotify_add_watch(fd, (dir + "/tombstones").c_str(), IN_CREATE | IN_CLOSE_WRITE) < 0) {
        perror("floor");
        return 1;
    }
    fprintf(stderr, "armed\n");
    collect_all(fd, dir);
    perror("floor");
    return 1;
}
