// SPDX-License-Identifier: Apache-2.0

// System properties as files of one folder: the file's name is the property's name, its content the
// value. A property without a file, or with an empty one, is unset.
#define LOG_TAG "properties"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/signals.h"
#include "host/system.h"

using android::base::unique_fd;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr char kFolder[] = "/dev/__properties__/";

bool is_name(std::string_view name) {
    constexpr std::string_view kLetters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._@:-";
    return !name.empty() && !name.starts_with('.') && !name.ends_with('.') &&
           name.find_first_not_of(kLetters) == std::string_view::npos;
}

std::string path_of(std::string_view name) {
    return std::string(kFolder).append(name);
}

std::string read_value(std::string_view name) {
    if (!is_name(name)) {
        return "";
    }
    // O_NONBLOCK keeps a FIFO under that name from blocking the reader.
    const unique_fd fd(open(path_of(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    char text[PROP_VALUE_MAX] = {};
    const bool is_read = fd >= 0 && TEMP_FAILURE_RETRY(read(fd, text, PROP_VALUE_MAX - 1)) > 0;
    return is_read ? text : "";
}

// Write-then-rename: readers see the old value or the new one, never a part. RENAME_NOREPLACE lets
// one of two concurrent first writers of a "ro." property win.
bool write_value(std::string_view name, std::string_view value) {
    std::string temporary = path_of(".new.XXXXXX");
    const unique_fd fd(mkostemp(temporary.data(), O_CLOEXEC));
    if (fd < 0) {
        return false;
    }
    const unsigned flags = name.starts_with("ro.") ? RENAME_NOREPLACE : 0;
    const bool is_set =
        fchmod(fd, 0644) == 0 && android::base::WriteFully(fd, value.data(), value.size()) &&
        renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path_of(name).c_str(), flags) == 0;
    if (!is_set) {
        unlink(temporary.c_str());
    }
    return is_set;
}

// Arms the calling thread's inotify instance on the folder that stands there now, drops the events
// so far and returns it. A thread keeps its instance, because one per wait could meet the user's
// limit of instances at any wait.
int arm_folder_watch() {
    thread_local unique_fd instance;
    thread_local pid_t process = -1;
    if (process != getpid()) {
        // A forked child shares the parent's instance and would take the parent's events away.
        instance.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        process = getpid();
    }
    if (instance < 0) {
        PLOG(FATAL) << "inotify_init1";
    }
    constexpr uint32_t kChanges =
        IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF;
    if (inotify_add_watch(instance, kFolder, kChanges) < 0) {
        PLOG(FATAL) << "inotify_add_watch " << kFolder;
    }
    drain_inotify(instance);
    return instance;
}

}  // namespace

bool android::base::WaitForProperty(const std::string& key, const std::string& expected_value,
                                    std::chrono::milliseconds relative_timeout) {
    std::optional<steady_clock::time_point> deadline;
    if (relative_timeout.count() <= std::numeric_limits<int>::max()) {
        deadline = steady_clock::now() + std::max(relative_timeout, milliseconds::zero());
    }
    pollfd changes{-1, POLLIN, 0};
    // Arms before it compares: a change after the comparison is an event that ends the poll.
    const auto has_come = [&] {
        changes.fd = arm_folder_watch();
        return expected_value == read_value(key);
    };
    while (!with_signals_blocked(has_come)) {
        if (poll(&changes, 1, milliseconds_until(deadline)) == 0) {
            return false;
        }
    }
    return true;
}

int property_get(const char* key, char* value, const char* default_value) {
    std::string text = with_signals_blocked([key] { return read_value(key); });
    if (text.empty() && default_value != nullptr) {
        text = default_value;
    }
    const size_t length = text.copy(value, PROP_VALUE_MAX - 1);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) {
    const std::string_view text = value == nullptr ? "" : value;
    if (key == nullptr || !is_name(key) || text.size() >= PROP_VALUE_MAX) {
        return -1;
    }
    return with_signals_blocked([=] { return write_value(key, text); }) ? 0 : -1;
}

int property_list(void (*propfn)(const char* key, const char* value, void* cookie), void* cookie) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kFolder), closedir);
    if (folder == nullptr) {
        return -1;
    }
    while (const dirent* entry = readdir(folder.get())) {
        if (const std::string value = read_value(entry->d_name); !value.empty()) {
            propfn(entry->d_name, value.c_str(), cookie);
        }
    }
    return 0;
}
