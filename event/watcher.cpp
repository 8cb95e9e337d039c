// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_EVENT_LOG"

#include "event/watcher.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
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

// --- Shared by all watchers ----------------------------------------------------------------------

// One inotify instance serves all watchers, one after the other, so that what is queued at a
// switch-off becomes the first work of the next one.
struct {
    int inotify = -1;  // both opened once, by the first watcher
    int turn = -1;     // eventfd, readable while no watcher handles records
    std::mutex mutex;  // guards what follows, and is never held while waiting
    // Each watch until its last record, IN_IGNORED: records of removed watches may still be queued.
    std::map<int, event_watch*> watched;
    bool is_on = false;        // between switch-on and switch-off
    pthread_t event_thread{};  // of the last switch-on
} detection;

// Read and not handled yet. A watcher that is stopped leaves the rest to the next one whose turn it
// is.
struct {
    alignas(inotify_event) char buffer[512];
    const char* position = buffer;
    const char* end = buffer;
    bool is_logged = false;
} records;

thread_local bool has_turn = false;

// With the mutex held, as remove_watches.
bool is_current_watcher() {
    return detection.is_on && pthread_equal(detection.event_thread, pthread_self()) != 0;
}

bool is_stopped() {
    const std::lock_guard lock(detection.mutex);
    return !is_current_watcher();
}

// Returns false, with errno, when there can be no descriptor.
bool open_descriptors() {
    const std::lock_guard lock(detection.mutex);
    if (detection.turn < 0) {
        detection.turn = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (detection.turn >= 0 && detection.inotify < 0) {
        detection.inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    }
    return detection.inotify >= 0;
}

// The watcher before may still be at its last event.
void take_turn() {
    eventfd_t turn = 0;
    while (eventfd_read(detection.turn, &turn) != 0) {
        wait_or_stop(detection.turn);
    }
    has_turn = true;
}

[[noreturn]] void end_watcher() {
    LOG(INFO) << "exit";
    if (has_turn) {
        eventfd_write(detection.turn, 1);
    }
    pthread_exit(nullptr);
}

[[noreturn]] void idle_until_stopped() {
    while (true) {
        wait_or_stop(-1);
    }
}

// --- Watches -------------------------------------------------------------------------------------

// Returns 0 or the error: ECANCELED while detection is off, which leaves no watch behind.
int add_watch(event_watch& watch) {
    const std::lock_guard lock(detection.mutex);
    if (!detection.is_on) {
        return ECANCELED;
    }
    watch.wd = inotify_add_watch(detection.inotify, watch.path, watch.mask);
    if (watch.wd < 0) {
        return errno;
    }
    detection.watched[watch.wd] = &watch;
    return 0;
}

bool start_watching() {
    bool any = false;
    for (event_watch& watch : event_watches) {
        const int error = add_watch(watch);
        if (error == 0) {
            LOG(INFO) << watch.path << " has been snooped";
            any = true;
        } else if (error != ECANCELED) {
            LOG(ERROR) << "Can't add watch for " << watch.path << ". wd is" << -1
                       << " error: " << strerror(error);
        }
    }
    return any;
}

// A directory that was moved away keeps its watch until that is removed.
void drop_watch(event_watch& watch) {
    const std::lock_guard lock(detection.mutex);
    inotify_rm_watch(detection.inotify, watch.wd);
    detection.watched.erase(watch.wd);
    watch.wd = -1;
}

void watch_again(event_watch& watch) {
    drop_watch(watch);
    if (mkdir(watch.path, 0777) != 0) {
        LOG(ERROR) << "fail to mkdir " << watch.path << ", error: " << strerror(errno);
        return;
    }
    const int error = add_watch(watch);
    if (error == 0) {
        LOG(INFO) << watch.path << "has been deleted or moved, we watch it again.";
    } else if (error != ECANCELED) {
        LOG(ERROR) << "Can't add watch for " << watch.path << " error: " << strerror(error);
    }
}

// The queued records of these watches are the next watcher's.
void remove_watches() {
    for (const auto& [wd, watch] : detection.watched) {
        inotify_rm_watch(detection.inotify, wd);
        watch->wd = -1;
    }
}

event_watch* watch_of(const inotify_event& record) {
    const std::lock_guard lock(detection.mutex);
    const auto found = detection.watched.find(record.wd);
    return found == detection.watched.end() ? nullptr : found->second;
}

int present_wd(const event_watch& watch) {
    const std::lock_guard lock(detection.mutex);
    return watch.wd;
}

// No record of this watch follows. A watch that ends by itself has lost its file system.
void forget_watch(event_watch& watch, int wd) {
    const std::lock_guard lock(detection.mutex);
    detection.watched.erase(wd);
    if (watch.wd == wd) {
        LOG(ERROR) << watch.path << " is unmounted and no longer watched";
        watch.wd = -1;
    }
}

// --- Records -------------------------------------------------------------------------------------

void dump_surface_flinger_early(const std::string& name) {
    constexpr int kMaxDumps = 8;
    static std::atomic<int> dumps = 0;
    LOG(INFO) << "need extra dump: " << name;
    if (dumps >= kMaxDumps) {
        LOG(ERROR) << "skip extra dump, " << kMaxDumps << " have not ended: " << name;
        return;
    }
    ++dumps;
    std::thread([command = cut_format(kMaxPathBytes, sf_dump_cmd, "data/logs")] {
        execute_cmd(command.c_str());
        --dumps;
    }).detach();
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

void handle_file(const event_watch& watch, const std::string& name) {
    if (name.find(pre_watchdog_tag) != std::string::npos) {
        dump_surface_flinger_early(name);
    }
    classify(watch, name);
}

void handle_record(const inotify_event& record) {
    if ((record.mask & IN_Q_OVERFLOW) != 0) {
        LOG(ERROR) << "the queue has overflowed, events were lost";
    }
    event_watch* watch = watch_of(record);
    if (watch == nullptr) {
        return;
    }
    if ((record.mask & IN_IGNORED) != 0) {
        forget_watch(*watch, record.wd);
    }
    if ((record.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        const int wd = present_wd(*watch);
        if (wd == record.wd || wd < 0) {  // else the next watcher found a new directory there
            watch_again(*watch);
        }
    }
    if ((record.mask & IN_ISDIR) == 0 && record.len != 0) {
        handle_file(*watch, name_of(record));
    }
}

// The last record of a watch that a switch-off removed.
bool is_stop_mark(const inotify_event& record) {
    const event_watch* watch = watch_of(record);
    return (record.mask & IN_IGNORED) != 0 && watch != nullptr && present_wd(*watch) != record.wd;
}

void log_first_record(const inotify_event& record) {
    if (records.is_logged || is_stop_mark(record)) {
        return;
    }
    records.is_logged = true;
    // The mask is decimal behind its "0x": log readers know the line like this.
    LOG(INFO) << "event[wd:" << record.wd << ", mask:0x" << record.mask
              << ", cookie:" << record.cookie << ", len:" << record.len
              << ", name:" << name_of(record) << "]";
}

// Null when none is left, and when this watcher has been stopped.
const inotify_event* take_record() {
    const std::lock_guard lock(detection.mutex);
    return is_current_watcher() ? next_record(records.position, records.end) : nullptr;
}

void handle_records() {
    while (const inotify_event* record = take_record()) {
        log_first_record(*record);
        handle_record(*record);
    }
}

void read_records() {
    const ssize_t bytes = read(detection.inotify, records.buffer, sizeof(records.buffer));
    if (bytes == 0) {
        idle_until_stopped();
    }
    if (bytes > 0) {
        records.position = records.buffer;
        records.end = records.buffer + bytes;
        records.is_logged = false;
        collect_ended_children();
    }
}

void watch_until_stopped() {
    take_turn();
    while (true) {
        handle_records();
        if (is_stopped()) {
            return;
        }
        wait_or_stop(detection.inotify);
        read_records();
    }
}

}  // namespace

void event_sig_handler(int sig) {
    if (!is_stoppable() || !is_stopped()) {  // the kernel gives the process's signals to any thread
        end_process_by(sig);
        return;
    }
    interrupt_child_wait();
    end_watcher();
}

void* start_event_detecting(void* /*unused*/) {
    make_stoppable(event_sig_handler);
    if (!open_descriptors()) {
        LOG(ERROR) << "inotify_init failed. " << strerror(errno);
        idle_until_stopped();
    }
    if (!start_watching()) {
        idle_until_stopped();
    }
    try {
        watch_until_stopped();
    } catch (const child_left_alone&) {
        // Logged where it happened; its event ends here.
    }
    end_watcher();
}

void start_watcher() {
    const sigset_t stop = set_of(kStopSignals);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &stop, &previous);  // the thread inherits it
    const std::lock_guard lock(detection.mutex);
    detection.is_on =
        pthread_create(&detection.event_thread, nullptr, start_event_detecting, nullptr) == 0;
    if (detection.is_on) {
        pthread_detach(detection.event_thread);
    } else {
        LOG(ERROR) << "thread create fail";
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void stop_watcher() {
    const std::lock_guard lock(detection.mutex);
    if (detection.is_on) {
        detection.is_on = false;
        remove_watches();
        // It is alive: a watcher ends only after this. Its handler ends the thread alone.
        // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
        pthread_kill(detection.event_thread, SIGTERM);
    }
}
