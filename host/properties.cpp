// SPDX-License-Identifier: Apache-2.0

// System properties as files: one per property in one folder, the name of the file is the name of
// the property, its content the value. A missing or empty file is an unset property.
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
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/signals.h"

using android::base::unique_fd;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr char kFolder[] = "/dev/__properties__";

bool is_name(std::string_view name) {
    constexpr std::string_view kLetters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._@:-";
    return !name.empty() && !name.starts_with('.') && !name.ends_with('.') &&
           name.find_first_not_of(kLetters) == std::string_view::npos;
}

std::string path_of(std::string_view name) {
    return std::string(kFolder).append("/").append(name);
}

std::string read_value(std::string_view name) {
    if (!is_name(name)) {
        return "";
    }
    // O_NONBLOCK: whatever else may stand under that name, a reader never waits for it.
    const unique_fd fd(open(path_of(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    char text[PROP_VALUE_MAX] = {};
    const bool is_read = fd >= 0 && TEMP_FAILURE_RETRY(read(fd, text, PROP_VALUE_MAX - 1)) > 0;
    return is_read ? text : "";
}

// The file appears under its name with its whole content or not at all. Two first writers of a
// read-only name may come at once: the kernel decides between them.
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

// --- Waiting -------------------------------------------------------------------------------------

// The calling thread's view of the folder. The watch stays armed between waits: what it tells of
// the time before is read off at the start of the next one.
class folder_watch {
  public:
    // Watches the folder that stands there now; nothing changes when it is watched already.
    void arm() {
        if (process_ != getpid()) {
            // In a forked child the parent's instance would take the parent's events away.
            instance_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
            process_ = getpid();
        }
        if (instance_ < 0) {
            PLOG(FATAL) << "inotify_init1";
        }
        constexpr uint32_t kChanges = IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM |
                                      IN_DELETE_SELF | IN_MOVE_SELF;
        if (inotify_add_watch(instance_, kFolder, kChanges) < 0) {
            PLOG(FATAL) << "inotify_add_watch " << kFolder;
        }
    }

    // Forgets the changes so far; what they are about, and whether some were too many for the
    // kernel's queue, does not matter to a caller that looks at the values afterwards.
    void drain() const {
        alignas(inotify_event) char events[4096];
        while (read(instance_, events, sizeof(events)) > 0) {
        }
    }

    int fd() const { return instance_; }

  private:
    unique_fd instance_;
    pid_t process_ = -1;
};

thread_local folder_watch watch;

// Returns false when the deadline has passed without a change of the folder.
bool wait_for_change(int fd, const std::optional<steady_clock::time_point>& deadline) {
    const auto left = [&] {
        return std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
    };
    pollfd change = {fd, POLLIN, 0};
    return poll(&change, 1, deadline ? static_cast<int>(std::max<int64_t>(left(), 0)) : -1) != 0;
}

}  // namespace

bool android::base::WaitForProperty(const std::string& key, const std::string& expected_value,
                                    std::chrono::milliseconds relative_timeout) {
    std::optional<steady_clock::time_point> deadline;
    if (relative_timeout.count() <= std::numeric_limits<int>::max()) {
        deadline = steady_clock::now() + std::max(relative_timeout, milliseconds::zero());
    }
    int fd = -1;
    // Armed before the comparison: a change after it is an event that ends the wait.
    const auto has_come = [&] {
        watch.arm();
        watch.drain();
        fd = watch.fd();
        return expected_value == read_value(key);
    };
    while (!with_signals_blocked(has_come)) {
        if (!wait_for_change(fd, deadline)) {
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
    const size_t length = std::min<size_t>(text.size(), PROP_VALUE_MAX - 1);
    text.copy(value, length);
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
