// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_EVENT_LOG"

#include "event/watcher.h"

#include <android-base/logging.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "event/collection.h"
#include "event/records.h"
#include "event/rules.h"
#include "event/tables.h"
#include "utils/children.h"
#include "utils/directories.h"
#include "utils/stop_signal.h"

using namespace brevix;

namespace {

const std::string pre_watchdog_tag = "pre_watchdog";
constexpr const char* sf_dump_cmd = "dumpsys SurfaceFlinger > %s/sf.log";

// --- Shared by all watchers ----------------------------------------------------------------------

// One inotify instance serves all watchers, one after the other, so that what is queued at a
// switch-off becomes the first work of the next one.
struct {
    std::mutex mutex;  // guards all that follows
    int inotify = -1;  // opened once, by the first watcher
    // Each watch until its last record, IN_IGNORED: records of removed watches may still be queued.
    std::map<int, event_watch*> watched;
    bool is_on = false;                // between switch-on and switch-off
    pthread_t event_thread{};          // of the last switch-on
    std::atomic<pthread_t> holder{0};  // of the turn, 0: none; a signal handler reads it unguarded
    std::condition_variable turn;      // `holder` has become 0, or a watcher has been stopped
} detection;

// Read and not handled yet. A watcher that is stopped leaves the rest to the next one whose turn it
// is.
struct {
    alignas(inotify_event) char buffer[512];
    const char* position = buffer;
    const char* end = buffer;
    bool is_logged = false;
} records;

// With the mutex held.
bool is_current_watcher() {
    return detection.is_on && pthread_equal(detection.event_thread, pthread_self()) != 0;
}

bool is_stopped() {
    const std::lock_guard lock(detection.mutex);
    return !is_current_watcher();
}

// Returns false, with errno, when there can be none.
bool open_inotify() {
    const std::lock_guard lock(detection.mutex);
    if (detection.inotify < 0) {
        detection.inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    }
    return detection.inotify >= 0;
}

// The watcher before may still be at its last event. Returns false when this one was stopped first.
bool take_turn() {
    std::unique_lock lock(detection.mutex);
    detection.turn.wait(lock, [] { return detection.holder == 0 || !is_current_watcher(); });
    if (is_current_watcher()) {
        detection.holder = pthread_self();
    }
    return is_current_watcher();
}

void give_turn() {
    const std::lock_guard lock(detection.mutex);
    if (detection.holder == pthread_self()) {
        detection.holder = 0;
        detection.turn.notify_all();
    }
}

[[noreturn]] void end_watcher() {
    LOG(INFO) << "exit";
    give_turn();
    pthread_exit(nullptr);
}

[[noreturn]] void idle_until_stopped() {
    wait_for_stop();
    end_watcher();
}

// --- Watches -------------------------------------------------------------------------------------

int current_wd(const event_watch& watch) {
    const std::lock_guard lock(detection.mutex);
    return watch.wd;
}

// With the mutex held. A directory that was moved away keeps its watch until that is removed.
void remove_watch(event_watch& watch) {
    inotify_rm_watch(detection.inotify, watch.wd);
    detection.watched.erase(watch.wd);
    watch.wd = -1;
}

// Watches what is at the path now; a watch of what was there before is removed. Returns false, with
// errno: ECANCELED while detection is off, which leaves no watch behind.
bool add_watch(event_watch& watch, uint32_t flags = 0) {
    const std::lock_guard lock(detection.mutex);
    if (!detection.is_on) {
        errno = ECANCELED;
        return false;
    }
    const int wd = inotify_add_watch(detection.inotify, watch.path, watch.mask | flags);
    const int error = errno;
    if (watch.wd > 0 && watch.wd != wd) {
        remove_watch(watch);
    }
    if (wd < 0) {
        watch.wd = -1;
        errno = error;
        return false;
    }
    watch.wd = wd;
    // Two paths may lead to one directory, which has one watch: its records are the first entry's.
    event_watch*& owner = detection.watched[wd];
    owner = owner == nullptr ? &watch : std::min(owner, &watch);
    return true;
}

bool start_watching() {
    bool any = false;
    for (event_watch& watch : event_watches) {
        if (add_watch(watch)) {
            LOG(INFO) << watch.path << " has been snooped";
            any = true;
        } else if (errno != ECANCELED) {
            PLOG(ERROR) << "Can't add watch for " << watch.path << ". wd is" << -1 << " error";
        }
    }
    return any;
}

// Under init's umask 077 the directory would shut out the platform's own writers.
bool make_directory(const event_watch& watch) {
    if (mkdir(watch.path, 0777) != 0) {
        return false;
    }
    const mode_t least = kLeastModes[&watch - event_watches];
    struct stat st {};
    if (stat(watch.path, &st) == 0 && (st.st_mode & least) != least) {
        chmod(watch.path, (st.st_mode & 07777) | least);
    }
    return true;
}

// Somebody else may have made the directory already, or moved it back: the same one keeps its
// watch, so that nothing is missed.
void watch_again(event_watch& watch) {
    const int mkdir_error = make_directory(watch) ? 0 : errno;
    if (mkdir_error == 0 || mkdir_error == EEXIST) {
        if (add_watch(watch, IN_ONLYDIR)) {
            LOG(INFO) << watch.path << "has been deleted or moved, we watch it again.";
            return;
        }
        if (errno == ECANCELED) {
            return;
        }
        if (mkdir_error == 0) {
            PLOG(ERROR) << "Can't add watch for " << watch.path << " error";
            return;
        }
    }
    LOG(ERROR) << "fail to mkdir " << watch.path << ", error: " << strerror(mkdir_error);
    const std::lock_guard lock(detection.mutex);
    remove_watch(watch);
}

bool is_watched_still(const event_watch& watch) {
    const std::lock_guard lock(detection.mutex);
    return watch.wd < 0 ||
           inotify_add_watch(detection.inotify, watch.path, watch.mask | IN_ONLYDIR) == watch.wd;
}

// A removal may be among the lost records.
void check_watches() {
    for (event_watch& watch : event_watches) {
        if (!is_watched_still(watch)) {
            watch_again(watch);
        }
    }
}

// With the mutex held. The queued records of these watches are the next watcher's.
void remove_all_watches() {
    for (const auto& [wd, watch] : detection.watched) {
        inotify_rm_watch(detection.inotify, wd);
    }
    for (event_watch& watch : event_watches) {
        watch.wd = -1;
    }
}

event_watch* watch_of(const inotify_event& record) {
    const std::lock_guard lock(detection.mutex);
    const auto found = detection.watched.find(record.wd);
    return found == detection.watched.end() ? nullptr : found->second;
}

// No record of this watch follows. A watch that ends by itself has lost its file system.
void note_watch_end(event_watch& watch, int wd) {
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

// Of other entries of that directory, too. An entry with another watch is one whose new directory
// the next watcher has found.
void watch_again_after(const inotify_event& record, const event_watch& owner) {
    for (event_watch& watch : event_watches) {
        const int wd = current_wd(watch);
        if (wd == record.wd || (wd < 0 && &watch == &owner)) {
            watch_again(watch);
        }
    }
}

void handle_record(const inotify_event& record) {
    if ((record.mask & IN_Q_OVERFLOW) != 0) {
        LOG(ERROR) << "the queue has overflowed, events were lost";
        check_watches();
    }
    event_watch* watch = watch_of(record);
    if (watch == nullptr) {
        return;
    }
    if ((record.mask & IN_IGNORED) != 0) {
        note_watch_end(*watch, record.wd);
    }
    if ((record.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        watch_again_after(record, *watch);
    }
    if ((record.mask & IN_ISDIR) == 0 && record.len != 0) {
        handle_file(*watch, record_name(record));
    }
}

// The last record of a watch that a switch-off removed.
bool is_stop_mark(const inotify_event& record) {
    const event_watch* watch = watch_of(record);
    return (record.mask & IN_IGNORED) != 0 && watch != nullptr && current_wd(*watch) != record.wd;
}

void log_first_record(const inotify_event& record) {
    if (records.is_logged || is_stop_mark(record)) {
        return;
    }
    records.is_logged = true;
    // The mask is decimal behind its "0x": log readers know the line like this.
    LOG(INFO) << "event[wd:" << record.wd << ", mask:0x" << record.mask
              << ", cookie:" << record.cookie << ", len:" << record.len
              << ", name:" << record_name(record) << "]";
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
        reap_ended_children();
    }
}

void watch_until_stopped() {
    if (!take_turn()) {
        return;
    }
    while (true) {
        handle_records();
        if (is_stopped()) {
            return;
        }
        wait_unblocked(kStopSignals, detection.inotify);
        read_records();
    }
}

}  // namespace

// The watcher whose turn it is unblocks SIGTERM in its wait for records alone, so on that thread
// nothing is held here. Any other thread has been chosen by the kernel for the process's SIGTERM.
void event_sig_handler(int sig) {
    if (detection.holder != pthread_self() || !is_stopped()) {
        end_process_by(sig);
        return;
    }
    end_watcher();
}

void* start_event_detecting(void* /*unused*/) {
    make_stoppable(event_sig_handler);
    if (!open_inotify()) {
        const int error = errno;
        LOG(ERROR) << "inotify_init failed. " << strerror(error);
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

void brevix::start_watcher() {
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

void brevix::stop_watcher() {
    const std::lock_guard lock(detection.mutex);
    if (detection.is_on) {
        detection.is_on = false;
        remove_all_watches();
        detection.turn.notify_all();
        // It is alive: a watcher ends only after this. Its handler ends the thread alone.
        // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
        pthread_kill(detection.event_thread, SIGTERM);
    }
}
