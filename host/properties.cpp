// System properties as files: one per property in one folder, the name of the file is the name of
// the property, its content the value. A missing or empty file is an unset property.
#define LOG_TAG "properties"

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
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/signals.h"

using android::base::unique_fd;

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

struct property_value {
    char text[PROP_VALUE_MAX] = {};
};

property_value read_value(std::string_view name) {
    property_value value;
    if (!is_name(name)) {
        return value;
    }
    // O_NONBLOCK: whatever else may stand under that name, a reader never waits for it.
    const unique_fd fd(open(path_of(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd >= 0 && TEMP_FAILURE_RETRY(read(fd, value.text, PROP_VALUE_MAX - 1)) < 0) {
        value = {};
    }
    return value;
}

bool fill(int fd, std::string_view value) {
    return fd >= 0 && fchmod(fd, 0644) == 0 &&
           TEMP_FAILURE_RETRY(write(fd, value.data(), value.size())) ==
               static_cast<ssize_t>(value.size());
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
    if (!fill(fd, value) ||
        renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path_of(name).c_str(), flags) != 0) {
        unlink(temporary.c_str());
        return false;
    }
    return true;
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
        constexpr uint32_t kChanges = IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM |
                                      IN_DELETE_SELF | IN_MOVE_SELF;
        if (inotify_add_watch(instance_, kFolder, kChanges) < 0) {
            PLOG(FATAL) << "cannot watch " << kFolder;
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

using steady_clock = std::chrono::steady_clock;

// No value: a time too far away for the clock, which never comes.
std::optional<steady_clock::time_point> deadline_after(std::chrono::milliseconds timeout) {
    using std::chrono::milliseconds;
    const auto now = steady_clock::now();
    if (timeout >= std::chrono::floor<milliseconds>(steady_clock::time_point::max() - now)) {
        return std::nullopt;
    }
    return now + std::max(timeout, milliseconds::zero());
}

timespec time_until(steady_clock::time_point deadline) {
    const auto left = std::max(deadline - steady_clock::now(), steady_clock::duration::zero());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    return {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
}

// Returns false when the deadline has passed without a change of the folder.
bool wait_for_change(int fd, const std::optional<steady_clock::time_point>& deadline) {
    pollfd change = {fd, POLLIN, 0};
    const timespec timeout = deadline ? time_until(*deadline) : timespec{};
    return ppoll(&change, 1, deadline ? &timeout : nullptr, nullptr) != 0;
}

}  // namespace

bool android::base::WaitForProperty(const std::string& key, const std::string& expected_value,
                                    std::chrono::milliseconds relative_timeout) {
    const auto deadline = deadline_after(relative_timeout);
    int fd = -1;
    // Armed before the comparison: a change after it is an event that ends the wait.
    const auto has_come = [&] {
        watch.arm();
        watch.drain();
        fd = watch.fd();
        return expected_value == read_value(key).text;
    };
    while (!with_signals_blocked(has_come)) {
        if (!wait_for_change(fd, deadline)) {
            return false;
        }
    }
    return true;
}

int property_get(const char* key, char* value, const char* default_value) {
    const property_value found = with_signals_blocked([key] { return read_value(key); });
    const char* text = found.text;
    if (text[0] == '\0' && default_value != nullptr) {
        text = default_value;
    }
    const size_t length = strnlen(text, PROP_VALUE_MAX - 1);
    memmove(value, text, length);
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
        const property_value value = read_value(entry->d_name);
        if (value.text[0] != '\0') {
            propfn(entry->d_name, value.text, cookie);
        }
    }
    return 0;
}
