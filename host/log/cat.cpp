// SPDX-License-Identifier: Apache-2.0
#include "host/log/cat.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include "host/log/kernel.h"
#include "host/log/store.h"

using android::base::unique_fd;

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Lines on their way to standard output or to a file. A failure to write ends logcat: what it
// throws away in silence would be taken for lines that never were.
class output {
  public:
    explicit output(const cat_settings& settings) : settings_(settings) { open_file(); }

    // Rotation comes between two texts only.
    void write(std::string_view text) {
        buffer_.append(text);
        bytes_ += text.size();
        if (settings_.rotate_kbytes != 0 && bytes_ / 1024 >= settings_.rotate_kbytes) {
            flush();
            rotate();
        }
    }

    void flush() {
        if (!android::base::WriteFully(fd_, buffer_.data(), buffer_.size())) {
            fail("cannot write " + (settings_.file.empty() ? "standard output" : settings_.file));
        }
        buffer_.clear();
    }

  private:
    void open_file() {
        const std::string& file = settings_.file;
        fd_.reset(file.empty()
                      ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                      : open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
        if (fd_ < 0) {
            fail("cannot open " + file);
        }
        bytes_ = static_cast<uint64_t>(std::max<off_t>(lseek(fd_, 0, SEEK_END), 0));
    }

    // FILE becomes FILE.1, FILE.1 becomes FILE.2 and so on.
    void rotate() {
        for (unsigned number = settings_.rotated_files; number > 0; --number) {
            const std::string to = rotated_name(number);
            if (rename(rotated_name(number - 1).c_str(), to.c_str()) != 0 && errno != ENOENT) {
                fail("cannot rotate to " + to);
            }
        }
        open_file();
    }

    // As many digits for each number as the highest one has.
    std::string rotated_name(unsigned number) const {
        const std::string digits = std::to_string(number);
        const size_t width = std::to_string(settings_.rotated_files).size();
        return settings_.file +
               (number == 0 ? "" : "." + std::string(width - digits.size(), '0') + digits);
    }

    const cat_settings& settings_;
    unique_fd fd_;
    uint64_t bytes_ = 0;  // in the file, with those still in the buffer
    std::string buffer_;
};

// A descriptor to read the signal from: read like the other things that are waited for, no flood of
// lines keeps it away.
int hold_back_sigterm() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    const int fd = signalfd(-1, &blocked, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        fail("signalfd");
    }
    return fd;
}

struct shown_buffer {
    log_id_t id;
    std::unique_ptr<log_source> source;
    bool is_announced = false;
};

class logcat {
  public:
    explicit logcat(const cat_settings& settings)
        : settings_(settings),
          sigterm_(settings.file.empty() ? -1 : hold_back_sigterm()),
          output_(settings),
          inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (inotify_ < 0) {
            fail("inotify_init1");
        }
        fds_ = {{inotify_.get(), POLLIN, 0}, {sigterm_.get(), POLLIN, 0}};
        for (const log_id_t buffer : settings_.buffers) {
            buffer == LOG_ID_KERNEL ? add_kernel() : add_store(buffer);
        }
    }

    // Returns whether SIGTERM has come.
    bool run() {
        if (settings_.dump) {
            stop_at_present_end();
        }
        bool has_more = true;
        while (!settings_.dump || has_more) {
            has_more = write_some();
            output_.flush();
            if (!settings_.dump && wait(has_more)) {
                write_rest();
                return true;
            }
        }
        return false;
    }

  private:
    void add_store(log_id_t buffer) {
        if (inotify_add_watch(inotify_, kLogFolder, IN_CREATE) < 0) {
            fail(kLogFolder);
        }
        buffers_.push_back({buffer, std::make_unique<log_reader>(buffer, inotify_.get())});
    }

    void add_kernel() {
        unique_fd kmsg(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (kmsg < 0) {
            perror("logcat: cannot open /dev/kmsg, going on with klogd's copy");
            add_store(LOG_ID_KERNEL);
            return;
        }
        fds_.push_back({kmsg.get(), POLLIN, 0});
        buffers_.push_back({LOG_ID_KERNEL, std::make_unique<kernel_reader>(std::move(kmsg))});
    }

    void stop_at_present_end() {
        for (shown_buffer& buffer : buffers_) {
            buffer.source->stop_at_present_end();
        }
    }

    void write_rest() {
        stop_at_present_end();
        while (write_some()) {
        }
        output_.flush();
    }

    // Writes entries of all buffers by their times, but not for so long that a flood of them keeps
    // a signal away. Returns whether there may be more.
    bool write_some() {
        constexpr int kMaxEntries = 1024;
        std::vector<shown_buffer*> waiting;
        for (shown_buffer& buffer : buffers_) {
            waiting.push_back(&buffer);
        }
        for (int i = 0; i < kMaxEntries; ++i) {
            std::erase_if(waiting, [](auto* buffer) { return buffer->source->peek() == nullptr; });
            if (waiting.empty()) {
                return false;
            }
            write_entry(**std::min_element(waiting.begin(), waiting.end(), comes_before));
        }
        return true;
    }

    static bool comes_before(const shown_buffer* a, const shown_buffer* b) {
        const AndroidLogEntry& first = *a->source->peek();
        const AndroidLogEntry& second = *b->source->peek();
        return std::tie(first.tv_sec, first.tv_nsec) < std::tie(second.tv_sec, second.tv_nsec);
    }

    void write_entry(shown_buffer& buffer) {
        const AndroidLogEntry& entry = *buffer.source->peek();
        if (android_log_shouldPrintLine(settings_.format.get(), entry.tag, entry.priority) != 0) {
            if (!std::exchange(buffer.is_announced, true)) {
                output_.write(std::string("--------- beginning of ")
                                  .append(android_log_id_to_name(buffer.id))
                                  .append("\n"));
            }
            write_formatted(entry);
        }
        buffer.source->pop();
    }

    void write_formatted(const AndroidLogEntry& entry) {
        char line[1024];
        size_t size = 0;
        char* const text =
            android_log_formatLogLine(settings_.format.get(), line, sizeof(line), &entry, &size);
        if (text == nullptr) {
            fail("cannot format a line");
        }
        const std::unique_ptr<char, decltype(&free)> owned(text == line ? nullptr : text, free);
        output_.write({text, size});
    }

    // Returns whether SIGTERM has come.
    bool wait(bool has_more) {
        if (TEMP_FAILURE_RETRY(poll(fds_.data(), fds_.size(), has_more ? 0 : -1)) < 0) {
            fail("poll");
        }
        // What the events say does not matter, only that the stores are looked at after them.
        alignas(inotify_event) char events[4096];
        while (read(inotify_, events, sizeof(events)) > 0) {
        }
        signalfd_siginfo signal{};
        return sigterm_ >= 0 && read(sigterm_, &signal, sizeof(signal)) == sizeof(signal);
    }

    const cat_settings& settings_;
    unique_fd sigterm_;  // -1: not held back
    output output_;
    unique_fd inotify_;
    std::vector<pollfd> fds_;
    std::vector<shown_buffer> buffers_;
};

}  // namespace

void show_log(const cat_settings& settings) {
    if (logcat(settings).run()) {
        // As the one who waits for this process expects it: the signal is how it ended.
        signal(SIGTERM, SIG_DFL);
        raise(SIGTERM);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
}
