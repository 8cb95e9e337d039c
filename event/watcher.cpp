#define LOG_TAG "ZQ_EVENT_LOG"

#include "event/watcher.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "event/collection.h"
#include "event/decisions.h"
#include "event/tables.h"
#include "utils/children.h"
#include "utils/stop_signal.h"
#include "utils/util.h"

namespace {

const std::string pre_watchdog_tag = "pre_watchdog";
constexpr const char* sf_dump_cmd = "dumpsys SurfaceFlinger > %s/sf.log";

// One inotify instance serves all watchers of the process, one after the other. A switch-off takes
// its watches away, so that what is still queued then is what came before; the watch descriptors of
// those records stay known until the kernel says, with IN_IGNORED, that no more follow. Of two
// watchers, an old one that is busy with its last event and a new one, each record thus reaches
// exactly one, and none is lost.
struct {
    std::mutex mutex;  // of all below; held for single calls only
    int fd = -1;
    std::map<int, event_watch*> watched;
    bool thread_is_current = false;  // between switch-on and switch-off
    pthread_t event_thread{};
} detection;

// Held by the watcher that reads records and collects their events.
std::mutex turn;

bool is_current_watcher() {
    return detection.thread_is_current &&
           pthread_equal(detection.event_thread, pthread_self()) != 0;
}

bool is_superseded() {
    const std::lock_guard lock(detection.mutex);
    return detection.thread_is_current && !is_current_watcher();
}

[[noreturn]] void idle_until_stopped() {
    while (true) {
        wait_or_stop(-1);
    }
}

int open_inotify() {
    const std::lock_guard lock(detection.mutex);
    if (detection.fd < 0) {
        detection.fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    }
    if (detection.fd < 0) {
        LOG(ERROR) << "inotify_init failed. " << strerror(errno);
    }
    return detection.fd;
}

// Adds the watch and stores its descriptor, even a failed one, so that no old one matches. A
// watcher that is told to stop already adds nothing; it gives 0 all the same, so that each
// switch-on has its lines in the log. Returns 0 or the error.
int add_watch(event_watch& watch) {
    const std::lock_guard lock(detection.mutex);
    if (!is_current_watcher()) {
        return 0;
    }
    detection.watched.erase(watch.wd);
    watch.wd = inotify_add_watch(detection.fd, watch.path, watch.mask);
    if (watch.wd < 0) {
        return errno;
    }
    detection.watched[watch.wd] = &watch;
    return 0;
}

void remove_watches() {
    for (event_watch& watch : event_watches) {
        if (watch.wd > 0) {
            inotify_rm_watch(detection.fd, watch.wd);
        }
        watch.wd = -1;
    }
}

event_watch* watch_of(const inotify_event& record) {
    const std::lock_guard lock(detection.mutex);
    const auto found = detection.watched.find(record.wd);
    return found == detection.watched.end() ? nullptr : found->second;
}

// The kernel's last word on a watch that a switch-off took away.
bool is_stop_mark(const inotify_event& record) {
    if ((record.mask & IN_IGNORED) == 0) {
        return false;
    }
    const std::lock_guard lock(detection.mutex);
    const auto found = detection.watched.find(record.wd);
    if (found == detection.watched.end()) {
        return false;
    }
    const bool was_removed = found->second->wd != record.wd;
    detection.watched.erase(found);
    return was_removed;
}

bool start_watching() {
    bool any = false;
    for (event_watch& watch : event_watches) {
        if (const int error = add_watch(watch)) {
            LOG(ERROR) << "Can't add watch for " << watch.path << ". wd is" << -1
                       << " error: " << strerror(error);
        } else {
            LOG(INFO) << watch.path << " has been snooped";
            any = true;
        }
    }
    return any;
}

void watch_again(event_watch& watch) {
    if (mkdir(watch.path, 0777) != 0) {
        LOG(ERROR) << "fail to mkdir " << watch.path << ", error: " << strerror(errno);
    } else if (const int error = add_watch(watch)) {
        LOG(ERROR) << "Can't add watch for " << watch.path << " error: " << strerror(error);
    } else {
        LOG(INFO) << watch.path << "has been deleted or moved, we watch it again.";
    }
}

void dump_surface_flinger_early(const std::string& name) {
    LOG(INFO) << "need extra dump: " << name;
    const std::string command = cut_format(kMaxPathBytes, sf_dump_cmd, "data/logs");
    std::thread([command] { execute_cmd(command.c_str()); }).detach();
}

void classify(const event_watch& watch, const std::string& name) {
    for (int64_t row = 0; row < watch.count; ++row) {
        if (!row_matches(watch, row, name)) {
            continue;
        }
        LOG(INFO) << "monitor a changed event: " << name;
        const auto settings = event_settings.find(watch.category[row]);
        if (settings == event_settings.end()) {
            LOG(ERROR) << "can't find settings";
            return;
        }
        if (!__atomic_load_n(&settings->second.available, __ATOMIC_RELAXED)) {
            LOG(INFO) << "disable detecting " << watch.category[row];
            return;
        }
        if (collect_event(kBaseLogDir, watch, row, name, settings->second) ==
            collect_result::done) {
            return;
        }
    }
}

void handle_record(const inotify_event& record) {
    if ((record.mask & IN_Q_OVERFLOW) != 0) {
        LOG(ERROR) << "the queue has overflowed, events were lost";
    }
    event_watch* watch = watch_of(record);
    if (watch == nullptr) {
        return;
    }
    if ((record.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        watch_again(*watch);
    }
    if ((record.mask & IN_ISDIR) != 0 || record.len == 0) {
        return;
    }
    const std::string name = name_of(record);
    if (name.find(pre_watchdog_tag) != std::string::npos) {
        dump_surface_flinger_early(name);
    }
    classify(*watch, name);
}

void log_record(const inotify_event& record) {
    // The mask is decimal behind its "0x"; log readers know the line like this.
    LOG(INFO) << "event[wd:" << record.wd << ", mask:0x" << record.mask
              << ", cookie:" << record.cookie << ", len:" << record.len
              << ", name:" << name_of(record) << "]";
}

void handle_records(const char* position, const char* end) {
    bool is_first = true;
    while (const inotify_event* record = next_record(position, end)) {
        if (is_stop_mark(*record)) {
            continue;
        }
        if (is_first) {
            log_record(*record);
        }
        is_first = false;
        handle_record(*record);
    }
}

}  // namespace

void event_sig_handler(int sig) {
    if (!is_stoppable()) {
        end_process_by(sig);
        return;
    }
    LOG(INFO) << "exit";
    pthread_exit(nullptr);
}

void* start_event_detecting(void* /*unused*/) {
    make_stoppable(event_sig_handler);
    const int fd = open_inotify();
    if (fd < 0 || !start_watching()) {
        idle_until_stopped();
    }
    while (true) {
        wait_or_stop(fd);
        const std::lock_guard lock(turn);
        if (is_superseded()) {
            break;
        }
        alignas(inotify_event) char buffer[512];
        const ssize_t bytes = read(fd, buffer, sizeof(buffer));
        if (bytes == 0) {
            break;
        }
        if (bytes > 0) {
            collect_ended_children();
            handle_records(buffer, buffer + bytes);
        }
    }
    idle_until_stopped();
}

void start_watcher() {
    const blocked_signals blocked;  // the thread inherits it
    const std::lock_guard lock(detection.mutex);
    detection.thread_is_current =
        pthread_create(&detection.event_thread, nullptr, start_event_detecting, nullptr) == 0;
    if (detection.thread_is_current) {
        pthread_detach(detection.event_thread);
    } else {
        LOG(ERROR) << "thread create fail";
    }
}

void stop_watcher() {
    const std::lock_guard lock(detection.mutex);
    if (detection.thread_is_current) {
        remove_watches();
        // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): its handler ends the thread alone
        pthread_kill(detection.event_thread, SIGTERM);
        detection.thread_is_current = false;
    }
}
