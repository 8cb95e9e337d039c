#define LOG_TAG "ZQ_UTIL"

#include "utils/util.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <dirent.h>
#include <fcntl.h>
#include <paths.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace fs = std::filesystem;

std::string cut_format(size_t max_bytes, const char* format, ...) {
    std::string text;
    va_list arguments;
    va_start(arguments, format);
    android::base::StringAppendV(&text, format, arguments);
    va_end(arguments);
    return text.substr(0, max_bytes);
}

tm local_time(time_t time) {
    tzset();  // or a process that has once asked keeps its zone wherever the phone travels
    tm local{};
    localtime_r(&time, &local);
    return local;
}

// --- Children and copies -------------------------------------------------------------------------

namespace {

enum class process_group { inherited, own };

struct spawn_settings {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;

    spawn_settings() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&files);
    }
    ~spawn_settings() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    spawn_settings(const spawn_settings&) = delete;
    spawn_settings& operator=(const spawn_settings&) = delete;
};

// Children are most of what an event costs, and a spawn, unlike a fork, copies no page tables. It
// keeps every signal from the child until its dispositions are the default ones: a handler of the
// daemon would swallow it there, and the program would run on unstopped. Returns -1, with errno,
// when the program cannot be started; of that bionic says nothing, and the child ends with 127.
pid_t spawn(const char* const argv[], int standard_output = STDOUT_FILENO,
            process_group group = process_group::inherited) {
    spawn_settings settings;
    sigset_t signals;
    // Not sigfillset: it leaves out two that a spawn would then have the program ignore.
    memset(&signals, 0xff, sizeof(signals));
    sigdelset(&signals, SIGKILL);  // a refusal, as for these two, may end the child
    sigdelset(&signals, SIGSTOP);
    posix_spawnattr_setsigdefault(&settings.attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&settings.attributes, &signals);
    // Without the last one bionic forks when it is given attributes.
    int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_USEVFORK;
    if (group == process_group::own) {
        flags |= POSIX_SPAWN_SETPGROUP;
    }
    posix_spawnattr_setflags(&settings.attributes, static_cast<short>(flags));
    if (standard_output != STDOUT_FILENO) {
        posix_spawn_file_actions_adddup2(&settings.files, standard_output, STDOUT_FILENO);
    }
    pid_t pid = -1;
    errno = posix_spawn(&pid, argv[0], &settings.files, &settings.attributes,
                        const_cast<char* const*>(argv), environ);
    return errno == 0 ? pid : -1;
}

// As after a fork: -1, with errno, when there can be no child; a program that cannot be started
// gives 0, in a child of its own.
pid_t spawn_or_fork(const char* const argv[]) {
    const pid_t pid = spawn(argv);
    return pid < 0 && errno != EAGAIN && errno != ENOMEM ? fork() : pid;
}

pid_t start_shell(const char* command, int standard_output = STDOUT_FILENO,
                  process_group group = process_group::inherited) {
    const char* const argv[] = {_PATH_BSHELL, "-c", command, nullptr};
    return spawn(argv, standard_output, group);
}

pid_t start_shell_or_say(const char* command, process_group group) {
    const pid_t pid = start_shell(command, STDOUT_FILENO, group);
    if (pid < 0) {
        LOG(ERROR) << "fail to run " << command << ", error: " << strerror(errno);
    }
    return pid;
}

// The wait status, -1 when the event watcher's reaping came first.
int wait_for(pid_t pid) {
    int status = -1;
    return TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == pid ? status : -1;
}

constexpr size_t kMaxCommandBytes = 1023;

}  // namespace

int ZQRecordLog(const std::string& tag, char* const argv[]) {
    const pid_t pid = spawn_or_fork(argv);
    if (pid > 0) {
        LOG(INFO) << "tag: " << tag << ", pid: " << pid;
    } else if (pid < 0) {
        LOG(ERROR) << "tag: " << tag << ", error: " << strerror(errno);
    }
    return pid;
}

int run_shell(const char* command) {
    const pid_t pid = start_shell_or_say(command, process_group::inherited);
    return pid < 0 ? -1 : wait_for(pid);
}

pid_t start_shell_group(const char* command) {
    return start_shell_or_say(command, process_group::own);
}

void execute_cmd(const char* command) {
    if (strlen(command) > kMaxCommandBytes) {
        LOG(FATAL) << "command longer than " << kMaxCommandBytes << " bytes";
    }
    int pipe_fds[2];
    pid_t pid = -1;
    if (pipe2(pipe_fds, O_CLOEXEC) == 0) {
        close(pipe_fds[0]);
        pid = start_shell(command, pipe_fds[1]);
        close(pipe_fds[1]);
    }
    if (pid < 0) {
        LOG(WARNING) << "fail to dump " << command;
        return;
    }
    wait_for(pid);
}

void ZQCopyFile(const char* from, const char* to) {
    try {
        if (!fs::copy_file(from, to)) {
            LOG(WARNING) << "copy file " << from << " failed";
        }
    } catch (const fs::filesystem_error& error) {
        LOG(ERROR) << "fail to copy file from " << from << " to " << to
                   << ", error: " << error.what();
    }
    chmod(to, 0777);
}

void ZQCopyFolder(const char* from, const char* to) {
    run_shell(cut_format(kMaxPathBytes, "cp -r %s %s ", from, to).c_str());
}

void ZQCopyCmd(const char* from, const char* to) {
    run_shell(cut_format(kMaxPathBytes, "cp %s %s ", from, to).c_str());
}

// --- Directories and names ---------------------------------------------------------------------

int ZQCreateDir(const std::string& path) {
    std::error_code ec;
    if (!fs::create_directories(path, ec)) {
        const fs::file_type type = fs::status(path).type();
        if (type == fs::file_type::none || type == fs::file_type::not_found) {
            LOG(ERROR) << "Cannot create: " << path << " error: " << ec;
            return 1;
        }
    }
    chmod(path.c_str(), 0777);
    return 0;
}

int ZQCreateDirByFormat(const std::string& base, const std::string& prefix, int64_t count,
                        const std::string& timeFormat, uint64_t outSize, char* out) {
    const tm local = local_time(time(nullptr));
    char text[64] = {};
    strftime(text, sizeof(text), timeFormat.c_str(), &local);
    snprintf(out, outSize, "%s%s%s_%s", base.c_str(), prefix.c_str(), std::to_string(count).c_str(),
             text);
    return ZQCreateDir(out);
}

int ZQCreateLogDir(const std::string& base, const std::string& prefix, int64_t count,
                   const char* field1, const char* field2, uint64_t outSize, char* out) {
    snprintf(out, outSize, "%s%s%s_%s_%s", base.c_str(), prefix.c_str(),
             std::to_string(count).c_str(), field1, field2);
    return ZQCreateDir(out);
}

namespace {

constexpr bool is_ascii_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// std::stoll without its copy: the conversion ends by itself at the "_" behind the field.
int64_t to_count(const char* digits) {
    const int saved_errno = errno;
    errno = 0;
    char* end = nullptr;
    const int64_t count = strtoll(digits, &end, 10);
    const bool out_of_range = errno == ERANGE;
    errno = saved_errno;
    if (end == digits) {
        throw std::invalid_argument("count without digits");
    }
    if (out_of_range) {
        throw std::out_of_range("count past 64 bits");
    }
    return count;
}

}  // namespace

int64_t ZQGetCountByFileName(const std::string& fileName, uint64_t fieldCount) {
    const auto fields =
        static_cast<uint64_t>(std::count(fileName.begin(), fileName.end(), '_')) + 1;
    if (fields != fieldCount || fields < 2) {
        return -1;
    }
    const size_t begin = fileName.find('_') + 1;
    const std::string_view field =
        std::string_view(fileName).substr(begin, fileName.find('_', begin) - begin);
    if (std::any_of(field.begin(), field.end(), is_ascii_letter)) {
        return -1;
    }
    return to_count(fileName.c_str() + begin);
}

void ZQSplitByDelim(std::vector<char*>& out, char* text, const char* delim) {
    char* position = nullptr;
    for (char* token = strtok_r(text, delim, &position); token != nullptr;
         token = strtok_r(nullptr, " ", &position)) {
        out.push_back(token);
    }
}

int ZQGetFileCount(const std::string& dir) {
    return static_cast<int>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

// --- Retention ---------------------------------------------------------------------------------

namespace {

constexpr int64_t kMaxTotalBytes = 2147483648;

struct dir_closer {
    void operator()(DIR* dir) const { closedir(dir); }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

[[noreturn]] void throw_filesystem_error(const char* what, const std::string& path) {
    throw fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
}

// Calls `look` with each entry but "." and "..". The library's iterator makes a path of every name,
// a third of what counting them cost.
void for_each_entry(DIR* dir, const std::string& path, const auto& look) {
    errno = 0;
    while (const dirent* entry = readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            look(*entry);
        }
        errno = 0;
    }
    if (errno != 0) {
        throw_filesystem_error("cannot read directory", path);
    }
}

// Calls `look` with each name that starts with `prefix`, in a string that the next name replaces.
void for_each_name(const std::string& path, std::string_view prefix, const auto& look) {
    const unique_dir dir(opendir(path.c_str()));
    if (dir == nullptr) {
        throw_filesystem_error("cannot open directory", path);
    }
    std::string name;
    for_each_entry(dir.get(), path, [&](const dirent& entry) {
        name = entry.d_name;
        if (name.starts_with(prefix)) {
            look(name);
        }
    });
}

int64_t directory_size(int parent_fd, const char* name, const std::string& path, bool top);

bool is_directory(int dir_fd, const dirent& entry) {
    struct stat st {};
    return entry.d_type == DT_DIR ||
           (entry.d_type == DT_UNKNOWN &&
            fstatat(dir_fd, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode));
}

// 0 for what is neither a regular file nor a directory, and for what has vanished meanwhile.
int64_t entry_size(int dir_fd, const dirent& entry, const std::string& dir) {
    if (is_directory(dir_fd, entry)) {
        return directory_size(dir_fd, entry.d_name, dir + "/" + entry.d_name, false);
    }
    struct stat st {};
    const bool may_be_file =
        entry.d_type == DT_REG || entry.d_type == DT_LNK || entry.d_type == DT_UNKNOWN;
    return may_be_file && fstatat(dir_fd, entry.d_name, &st, 0) == 0 && S_ISREG(st.st_mode)
               ? st.st_size
               : 0;
}

// A walk of its own: logcat children that were just stopped may still rename files below, and the
// library's iterator throws for each that has gone when its size is asked for.
int64_t directory_size(int parent_fd, const char* name, const std::string& path, bool top) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (top ? 0 : O_NOFOLLOW);
    const unique_dir dir(
        android::base::Fdopendir(android::base::unique_fd(openat(parent_fd, name, flags))));
    if (dir == nullptr) {
        if (!top && errno == ENOENT) {
            return 0;
        }
        throw_filesystem_error("cannot open directory", path);
    }
    int64_t sum = 0;
    for_each_entry(dir.get(), path,
                   [&](const dirent& entry) { sum += entry_size(dirfd(dir.get()), entry, path); });
    return sum;
}

void pack(const std::string& path) {
    const std::string archive = path + ".tar.gz";
    const char* const argv[] = {"/system/bin/tar", "-czf", archive.c_str(), "-C",
                                path.c_str(),      ".",    nullptr};
    const pid_t pid = spawn_or_fork(argv);
    if (pid == 0) {
        _exit(127);
    }
    if (pid < 0) {
        LOG(ERROR) << "tar fork fail " << strerror(errno);
        return;
    }
    LOG(INFO) << "tar_pid = " << pid;
    wait_for(pid);
    ZQRemoveFile(path);
    chmod(archive.c_str(), 0777);
}

// The lowest counts whose removal brings `total` bytes below the ceiling; never the last of
// `names`.
std::vector<std::string> beyond_ceiling(const std::string& dir, const auto& names, int64_t total) {
    std::vector<std::string> paths;
    int64_t sum = 0;
    for (const std::string& name : names) {
        const std::string path = dir + name;
        const int64_t size = GetDirectorySize(path);
        LOG(INFO) << "directory= " << path.substr(path.rfind('/') + 1) << ", size= " << size;
        if (name == *names.rbegin()) {
            LOG(INFO) << "at least we keep 1 folder";
            break;
        }
        paths.push_back(path);
        sum += size;
        // Strictly below, unlike the test that starts the trimming: a remainder of exactly the
        // ceiling loses one more directory.
        if (total - sum < kMaxTotalBytes) {
            LOG(INFO) << "sum size=" << sum << ", total size=" << total;
            break;
        }
    }
    return paths;
}

bool is_aging_build() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("ro.boot.aging.build", value, "0");
    return strcmp(value, "true") == 0 || strcmp(value, "1") == 0;
}

}  // namespace

int ZQRemoveFile(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec) {
        LOG(ERROR) << "remove failed: " << path << "error: " << ec;
        return -1;
    }
    return 0;
}

int ZQGetNewLogCount(const std::string& dir, const std::string& prefix, uint64_t fieldCount) {
    int64_t best = -1;
    for_each_name(dir, prefix, [&](const std::string& name) {
        best = std::max(best, ZQGetCountByFileName(name, fieldCount));
    });
    const int count = static_cast<int>(best + 1);
    LOG(INFO) << "new count: " << count;
    return count;
}

bool ZQRemoveOldFile(const std::string& dir, const std::string& prefix, uint64_t fieldCount,
                     int64_t keepFrom, bool /*ignoredFlag*/, bool compress) {
    const int64_t lowest_kept = std::max<int64_t>(keepFrom, 0);
    std::vector<std::string> old;
    std::vector<std::string> unpacked;
    for_each_name(dir, prefix, [&](const std::string& name) {
        if (ZQGetCountByFileName(name, fieldCount) < lowest_kept) {
            old.push_back(dir + name);
        } else if (compress && name.find("tar") == std::string::npos) {
            unpacked.push_back(dir + name);
        }
    });
    for (const std::string& path : old) {
        if (ZQRemoveFile(path) != 0) {
            return true;
        }
    }
    std::for_each(unpacked.begin(), unpacked.end(), pack);
    return false;
}

int64_t GetDirectorySize(const std::string& path) {
    return directory_size(AT_FDCWD, path.c_str(), path, true);
}

bool compare(const std::string& a, const std::string& b, uint64_t fieldCount) {
    return ZQGetCountByFileName(a, fieldCount) < ZQGetCountByFileName(b, fieldCount);
}

int ZQRemoveFileWithCheckSize(const std::string& dir, int64_t /*newCount*/,
                              const std::string& prefix, uint64_t fieldCount) {
    if (is_aging_build()) {
        return 0;
    }
    const auto by_count = [fieldCount](const std::string& a, const std::string& b) {
        return compare(a, b, fieldCount);
    };
    // A set on purpose: of several names with one count only the first met is a candidate.
    std::set<std::string, decltype(by_count)> names(by_count);
    for_each_name(dir, prefix, [&](const std::string& name) { names.insert(name); });
    if (names.empty()) {
        return 0;
    }
    const int64_t total = GetDirectorySize(dir);
    if (total <= kMaxTotalBytes) {
        return 0;
    }
    for (const std::string& path : beyond_ceiling(dir, names, total)) {
        LOG(ERROR) << "maximum size exceed, remove it " << path;
        ZQRemoveFile(path);
    }
    return 0;
}

// --- Base log dump -------------------------------------------------------------------------------

namespace {

struct base_log {
    const char* tag;
    const char* file;
    std::vector<const char*> buffers;
};

// clang-format off
const base_log kBaseLogs[] = {
    {"android", "pre_android.log", {"system", "main", "crash"}},
    {"events",  "pre_event.log",   {"events"}},
    {"radio",   "pre_radio.log",   {"radio"}},
    {"kernel",  "pre_kernel.log",  {"kernel"}},
};
// clang-format on

constexpr const char* kDumpSeconds = "10";
constexpr int kDumpPasses = 10;

pid_t start_dump(const base_log& log, const char* dir) {
    const std::string file = cut_format(kMaxPathBytes, "%s/%s", dir, log.file);
    std::vector<const char*> argv = {"/system/bin/timeout", kDumpSeconds, "/system/bin/logcat",
                                     "-f", file.c_str()};
    for (const char* buffer : log.buffers) {
        argv.insert(argv.end(), {"-b", buffer});
    }
    argv.insert(argv.end(), {"-v", "threadtime", "-d", nullptr});
    const pid_t pid = ZQRecordLog(log.tag, const_cast<char* const*>(argv.data()));
    if (pid == 0) {
        _exit(127);
    }
    return pid;
}

// One scan from the first child on: true when all of them are seen to have exited. A child
// collected by an earlier scan counts as not done, so only a scan that meets all of them finished
// ends early.
bool all_done(const std::vector<pid_t>& children) {
    for (size_t i = 0; i < children.size(); ++i) {
        int status = 0;
        if (waitpid(children[i], &status, WNOHANG) != children[i] || !WIFEXITED(status)) {
            LOG(INFO) << "dump base log not done " << i;
            return false;
        }
        LOG(INFO) << "dump base log done " << i;
    }
    return true;
}

void wait_for_dumps(const std::vector<pid_t>& children) {
    for (int pass = 0; pass < kDumpPasses; ++pass) {
        if (all_done(children)) {
            return;
        }
        sleep(1);
    }
    LOG(WARNING) << "dump base log still have some work not done yet, skip";
}

}  // namespace

void ZQDumpBaseLog(const char* dir) {
    std::vector<pid_t> children;
    for (const base_log& log : kBaseLogs) {
        const pid_t pid = start_dump(log, dir);
        if (pid > 0) {
            children.push_back(pid);
        }
    }
    wait_for_dumps(children);
    for (const pid_t child : children) {
        kill(child, SIGTERM);
    }
    LOG(INFO) << "dump base log finished";
}
