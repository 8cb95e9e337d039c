#define LOG_TAG "ZQ_EVENT_LOG"

#include "zq_event_log.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "utils/system_property_observer.h"
#include "utils/util.h"

namespace fs = std::filesystem;

// --- Tables --------------------------------------------------------------------------------------

std::map<std::string, customize_settings> event_settings = {
    {"CRASH", {"crashlog", "persist.service.crashlog.enable"}},
    {"CUSTOM", {"zqeventlog", "persist.service.custom.event"}},
};

// The order of the rows decides: the watchdog before the generic "anr" and "crash".
event_watch event_watches[2] = {
    {0,
     IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF,
     "/data/system/dropbox",
     4,
     {"UIWDT", "ANR", "JAVACRASH", "CUSTOM"},
     {"system_server_watchdog", "anr", "crash", "ZQEvent_"},
     {"CRASH", "CRASH", "CRASH", "CUSTOM"}},
    {0,
     IN_CLOSE_WRITE | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF,
     "/data/tombstones",
     1,
     {"TOMBSTONE"},
     {"tombstone"},
     {"CRASH"}},
};

int event_num_limit = 0;

namespace {

const std::string pre_watchdog_tag = "pre_watchdog";
constexpr const char* sf_dump_cmd = "dumpsys SurfaceFlinger > %s/sf.log";

constexpr const char* kBaseLogDir = "/data/logs/";
constexpr const char* kHistoryFile = "/data/logs/history.event";
constexpr const char* kStagingDir = "/data/brevix/eventTemp/";
constexpr const char* kTimeFormat = "%Y-%m-%d-%H-%M-%S";
constexpr uint64_t kEventNameFields = 4;

struct {
    char board[PROPERTY_VALUE_MAX];
    char sw_version[PROPERTY_VALUE_MAX];
    char fingerprint[PROPERTY_VALUE_MAX];
    char verified_boot_state[PROPERTY_VALUE_MAX];
    char debuggable[PROPERTY_VALUE_MAX];
} device_info;

// An event on its way into its folder.
struct collected_event {
    const char* category;
    std::string file_name;
    std::string package;  // empty but for app events
    std::string type;
    tm local;
    std::string time;
    std::string folder;
    std::string source;
};

constexpr size_t kMaxTypeBytes = 31;
constexpr size_t kMaxPackageBytes = 511;

// --- Decisions -----------------------------------------------------------------------------------

bool row_matches(const event_watch& watch, int64_t row, const std::string& name) {
    if (name.find(watch.pattern[row]) == std::string::npos) {
        return false;
    }
    // The companions of a tombstone are no events of their own.
    const bool is_companion = name.size() >= 4 && (name.ends_with(".pb") || name.ends_with(".tmp"));
    return strcmp(watch.type[row], "TOMBSTONE") != 0 || !is_companion;
}

// App events name themselves: "ZQEvent_" PACKAGE "_" EVENT, and from an "@" on whatever the dropbox
// adds. This contract with apps is frozen. Returns what is wrong with the name, null if nothing is.
const char* parse_app_event(const std::string& file_name, collected_event& out) {
    if (!file_name.starts_with("ZQEvent_")) {
        return "parse info from filename prefix incorrectly";
    }
    const std::vector<std::string> parts =
        android::base::Split(file_name.substr(0, file_name.find('@')), "_");
    if (parts.size() != 3) {
        return "parse info from filename split size incorrectly";
    }
    out.package = parts[1].substr(0, kMaxPackageBytes);
    out.type = parts[2].substr(0, kMaxTypeBytes);
    return nullptr;
}

bool is_app_event(const collected_event& event) {
    return strcmp(event.category, "CUSTOM") == 0;
}

// App events are numbered, and kept, per package.
std::string name_prefix(const collected_event& event, const customize_settings& settings) {
    return (is_app_event(event) ? event.package : settings.log_dir) + "_";
}

// The app parses this command's extras: frozen.
std::string report_command(const collected_event& event) {
    return cut_format(
        kMaxPathBytes,
        "am startservice -a %s -n %s --es name %s --es type %s --es path %s --es time %s --user 0",
        "com.velmora.brevix.action.EVENT", "com.velmora.brevix/.logoutput.QueueTaskService",
        event.package.empty() ? "null" : event.package.c_str(), event.type.c_str(),
        event.folder.c_str(), event.time.c_str());
}

std::string format_time(const char* format, const tm& time) {
    char text[32] = {};
    strftime(text, sizeof(text), format, &time);
    return text;
}

// One record of an inotify buffer, moving `position` behind it; null at the end and when what is
// left is no whole record.
const inotify_event* next_record(const char*& position, const char* end) {
    const auto* record = reinterpret_cast<const inotify_event*>(position);
    const auto left = static_cast<size_t>(end - position);
    if (left < sizeof(*record) || left - sizeof(*record) < record->len) {
        return nullptr;
    }
    position += sizeof(*record) + record->len;
    return record;
}

std::string name_of(const inotify_event& record) {
    return {record.name, strnlen(record.name, record.len)};
}

// --- History -------------------------------------------------------------------------------------

int open_for_appending(const char* path) {
    return TEMP_FAILURE_RETRY(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0664));
}

// The report's lines, order included, are read by the app: frozen.
void write_report(const std::string& path, const char* event, const std::string& date,
                  const char* type, const char* name) {
    const int fd = open_for_appending(path.c_str());
    if (fd < 0) {
        LOG(ERROR) << "open to write eventfile failed " << path;
        return;
    }
    const struct {
        const char* key;
        const char* value;
    } lines[] = {
        {"EVENT", event},
        {"DATE", date.c_str()},
        {"BOARD", device_info.board},
        {"SWVersion", device_info.sw_version},
        {"FINGERPRINT", device_info.fingerprint},
        {"VERIFIED_BOOT_STATE", device_info.verified_boot_state},
        {"DEBUGGABLE", device_info.debuggable},
        {"TYPE", type},
    };
    std::string text;
    for (const auto& line : lines) {
        text.append(line.key).append("=").append(line.value).append("\n");
    }
    if (name[0] != '\0') {
        text.append("NAME=").append(name).append("\n");
    }
    text.append("_END\n");
    android::base::WriteStringToFd(text, fd);
    close(fd);
}

}  // namespace

void write_history_event(const char* event, const char* type, const char* dir, const char* name,
                         const tm& time) {
    const int fd = open_for_appending(kHistoryFile);
    if (fd < 0) {
        LOG(ERROR) << "open to write history event failed " << kHistoryFile;
        return;
    }
    const std::string date = format_time("%Y-%m-%d/%H:%M:%S", time);
    // The columns are read by the app: frozen.
    std::string line;
    if (dir == nullptr) {
        line = cut_format(kMaxPathBytes, "%-8s%-20s%-16s\n", event, date.c_str(), type);
    } else {
        line = cut_format(kMaxPathBytes, "%-8s%-20s%s %s\n", event, date.c_str(), type, dir);
        write_report(cut_format(kMaxPathBytes, "%s/%s", dir, "eventfile"), event, date, type, name);
    }
    // Last, so that whoever sees the line finds the report complete.
    android::base::WriteStringToFd(line, fd);
    close(fd);
}

// --- Collection ----------------------------------------------------------------------------------

namespace {

bool identify(collected_event& event, const event_watch& watch, int64_t row) {
    event.category = watch.category[row];
    if (!is_app_event(event)) {
        event.type = watch.type[row];
        return true;
    }
    if (const char* error = parse_app_event(event.file_name, event)) {
        LOG(ERROR) << error;
        LOG(ERROR) << "filename format incorrectly";
        return false;
    }
    LOG(INFO) << "parse info from file pkg: " << event.package << ", eventname: " << event.type;
    return true;
}

bool create_folder(collected_event& event, const std::string& dir, const std::string& prefix,
                   int count) {
    char folder[kMaxPathBytes + 1] = {};
    bool created = false;
    try {
        created = ZQCreateLogDir(dir, prefix, count, event.type.c_str(), event.time.c_str(),
                                 sizeof(folder), folder) == 0;
    } catch (const fs::filesystem_error&) {
        // A package name too long for a folder's name must not end the daemon.
    }
    event.folder = folder;
    return created;
}

// False when there is nothing to copy: the platform has removed the file already.
bool copy_source(const collected_event& event) {
    struct stat st {};
    if (stat(event.source.c_str(), &st) != 0) {
        LOG(ERROR) << "state " << event.source << " fail, error: " << strerror(errno);
        return false;
    }
    const std::string destination =
        cut_format(kMaxPathBytes, "%s/%s", event.folder.c_str(), event.file_name.c_str());
    ZQCopyFile(event.source.c_str(), destination.c_str());
    return true;
}

void copy_into_folder(const collected_event& event, const char* from, const std::string& name) {
    ZQCopyCmd(from, cut_format(kMaxPathBytes, "%s/%s", event.folder.c_str(), name.c_str()).c_str());
}

std::optional<time_t> modification_time(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? std::optional(st.st_mtime) : std::nullopt;
}

void copy_surface_flinger_dump(const collected_event& event) {
    constexpr const char* kDump = "data/logs/sf.log";
    if (const std::optional<time_t> written = modification_time(kDump)) {
        copy_into_folder(event, kDump,
                         "sf_" + format_time(kTimeFormat, local_time(*written)) + ".log");
    }
}

void copy_watchdog_logs(const collected_event& event) {
    for (const fs::directory_entry& entry : fs::directory_iterator("data/logs")) {
        const std::string name = entry.path().filename();
        if (entry.is_regular_file() && name.starts_with("wdt_") &&
            name.find(".log") != std::string::npos) {
            copy_into_folder(event, ("data/logs/" + name).c_str(), name);
        }
    }
}

// Paths without the leading "/": the daemon runs in the root directory.
constexpr const char* kBinderLogs[] = {
    "dev/binderfs/binder_logs/state",
    "dev/binderfs/binder_logs/transaction_log",
    "dev/binderfs/binder_logs/transactions",
};

void dump_for_watchdog(const collected_event& event) {
    try {
        for (const char* log : kBinderLogs) {
            copy_into_folder(event, log, strrchr(log, '/') + 1);
        }
        copy_surface_flinger_dump(event);
        copy_watchdog_logs(event);
        LOG(INFO) << "Dump for system wdt";
        ZQDumpBaseLog(event.folder.c_str());
    } catch (const fs::filesystem_error& error) {
        LOG(ERROR) << "fail to copy transaction error: " << error.what();
    }
}

void dump_diagnostics(const collected_event& event) {
    if (event.type == "UIWDT") {
        dump_for_watchdog(event);
    } else if (event.file_name.find("system_server_crash") != std::string::npos) {
        LOG(INFO) << "Dump for system crash";
        ZQDumpBaseLog(event.folder.c_str());
    }
}

// The app empties the staging folder as it pleases: what vanishes meanwhile is no candidate.
void remove_oldest_staged() {
    std::optional<time_t> oldest;
    std::string path;
    for (const fs::directory_entry& entry : fs::directory_iterator(kStagingDir)) {
        const std::optional<time_t> written = modification_time(entry.path());
        if (written && (!oldest || *written < *oldest)) {
            oldest = written;
            path = entry.path();
        }
    }
    if (oldest) {
        ZQRemoveFile(path);
    }
}

void stage(const collected_event& event) {
    if (ZQCreateDir(kStagingDir) != 0) {
        LOG(ERROR) << "unable to create event temp dir ";
        return;
    }
    if (ZQGetFileCount(kStagingDir) >= event_num_limit) {
        remove_oldest_staged();
    }
    ZQCopyFolder(event.folder.c_str(), kStagingDir);
}

void report(const collected_event& event) {
    const std::string command = report_command(event);
    LOG(INFO) << "notify eventreport " << command;
    run_shell(command.c_str());
}

}  // namespace

collect_result collect_event(const std::string& base, const event_watch& watch, int64_t row,
                             const std::string& name, const customize_settings& settings) {
    collected_event event{};
    event.file_name = name;
    if (!identify(event, watch, row)) {
        return collect_result::done;
    }
    const std::string category_dir = base + settings.log_dir + "/";
    if (ZQCreateDir(category_dir) != 0) {
        return collect_result::done;
    }
    event.local = local_time(time(nullptr));
    event.time = format_time(kTimeFormat, event.local);

    const std::string prefix = name_prefix(event, settings);
    const int count = ZQGetNewLogCount(category_dir, prefix, kEventNameFields);
    if (ZQRemoveOldFile(category_dir, prefix, kEventNameFields,
                        int64_t{count} - event_num_limit + 1, false, false)) {
        LOG(ERROR) << "remove old file failed!";
        return collect_result::done;
    }
    if (!create_folder(event, category_dir, prefix, count)) {
        LOG(ERROR) << "create new log dir failed! " << event.folder;
        write_history_event(event.category, event.type.c_str(), nullptr, nullptr, event.local);
        return collect_result::next_row;
    }
    write_history_event(event.category, event.type.c_str(), event.folder.c_str(),
                        event.package.c_str(), event.local);
    event.source = cut_format(kMaxPathBytes, "%s/%s", watch.path, name.c_str());
    if (copy_source(event)) {
        dump_diagnostics(event);
    }
    stage(event);
    report(event);
    return collect_result::done;
}

// --- Watcher -------------------------------------------------------------------------------------

namespace {

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

thread_local bool is_watcher = false;

bool is_current_watcher() {
    return detection.thread_is_current &&
           pthread_equal(detection.event_thread, pthread_self()) != 0;
}

bool is_superseded() {
    const std::lock_guard lock(detection.mutex);
    return detection.thread_is_current && !is_current_watcher();
}

// The only place where a watcher takes SIGTERM: it holds no lock here and no event is half done.
// While `fd` (none if negative) has something to read, the signal waits.
void wait_for_record_or_stop(int fd) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigdelset(&mask, SIGTERM);
    pollfd waiting{fd, POLLIN, 0};
    const timespec idle{10000, 0};
    ppoll(&waiting, 1, fd < 0 ? &idle : nullptr, &mask);
}

[[noreturn]] void idle_until_stopped() {
    while (true) {
        wait_for_record_or_stop(-1);
    }
}

void install_stop_handler() {
    struct sigaction action {};
    action.sa_handler = event_sig_handler;
    sigfillset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
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

void reap_children() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
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
    if (!is_watcher) {
        signal(sig, SIG_DFL);
        raise(sig);
        return;
    }
    LOG(INFO) << "exit";
    pthread_exit(nullptr);
}

void* start_event_detecting(void* /*unused*/) {
    is_watcher = true;
    install_stop_handler();
    const int fd = open_inotify();
    if (fd < 0 || !start_watching()) {
        idle_until_stopped();
    }
    while (true) {
        wait_for_record_or_stop(fd);
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
            reap_children();
            handle_records(buffer, buffer + bytes);
        }
    }
    idle_until_stopped();
}

// --- Control -------------------------------------------------------------------------------------

namespace {

void start_watcher() {
    sigset_t stop;
    sigset_t previous;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, &previous);  // the thread inherits it
    {
        const std::lock_guard lock(detection.mutex);
        detection.thread_is_current =
            pthread_create(&detection.event_thread, nullptr, start_event_detecting, nullptr) == 0;
        if (detection.thread_is_current) {
            pthread_detach(detection.event_thread);
        } else {
            LOG(ERROR) << "thread create fail";
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
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

void read_device_info() {
    property_get("ro.build.fingerprint", device_info.fingerprint, "");
    property_get("ro.product.name", device_info.board, "");
    property_get("ro.build.display.id", device_info.sw_version, "");
    property_get("ro.boot.verifiedbootstate", device_info.verified_boot_state, "");
    property_get("ro.debuggable", device_info.debuggable, "");
}

const char* reboot_type() {
    struct stat st {};
    if (stat("/proc/cmdline", &st) != 0) {
        return "";
    }
    char panic_mode[PROPERTY_VALUE_MAX] = {};
    property_get("ro.boot.panicmode", panic_mode, "0");
    LOG(INFO) << "panic mode: " << panic_mode;
    if (strcmp(panic_mode, "1") == 0) {
        LOG(WARNING) << "reboot because of kernel panic !!!";
        return "KERNELPANIC ";  // the blank belongs to the type
    }
    LOG(INFO) << "reboot not because of kernel panic";
    return "UNKNOWN";
}

void save_console_log(const tm& local) {
    constexpr const char* kStaged = "/data/config/console-ramoops-0-tmp";
    const std::string destination = cut_format(kMaxPathBytes, "%sconsole-ramoops-0-%s", kBaseLogDir,
                                               format_time(kTimeFormat, local).c_str());
    try {
        ZQCopyFile(kStaged, destination.c_str());
        ZQRemoveFile(kStaged);
    } catch (const fs::filesystem_error& error) {
        LOG(ERROR) << "fail to copy pstore error: " << error.what();
    }
}

}  // namespace

void event_detecting(const char* /*name*/, bool on) {
    if (!on) {
        LOG(INFO) << "stop detecting";
        stop_watcher();
        return;
    }
    LOG(INFO) << "start detecting";
    start_watcher();
}

void available_changed(const char* name, bool on) {
    for (auto& [category, settings] : event_settings) {
        if (settings.prop == name) {
            __atomic_store_n(&settings.available, on, __ATOMIC_RELAXED);
        }
    }
}

int ZQEventDetect() {
    char limit[PROPERTY_VALUE_MAX] = {};
    property_get("persist.service.brevix.ev.num", limit, "10");
    event_num_limit = std::stoi(limit);
    read_device_info();
    const char* type = reboot_type();
    const tm local = local_time(time(nullptr));
    write_history_event("REBOOT", type, nullptr, nullptr, local);
    save_console_log(local);
    ZQSubscribe("persist.service.event.detect", event_detecting);
    for (const auto& [category, settings] : event_settings) {
        ZQSubscribe(settings.prop.c_str(), available_changed);
    }
    return 0;
}
