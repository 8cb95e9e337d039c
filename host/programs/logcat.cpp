// SPDX-License-Identifier: Apache-2.0

// logcat: shows the log buffers, or writes them to a file that it rotates.
#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <err.h>
#include <fcntl.h>
#include <log/log_id.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

#include "host/log/kernel.h"
#include "host/log/store.h"
#include "host/system.h"

using android::base::unique_fd;

namespace {

// --- Options -------------------------------------------------------------------------------------

struct options {
    std::set<log_id_t> buffers;
    // Lives as long as the process: liblog's free leaks the filters.
    AndroidLogFormat* format = android_log_format_new();
    bool is_dump = false;        // ends with the entries that are there
    std::string file;            // "": standard output
    unsigned rotate_kbytes = 0;  // 0: never
    unsigned rotated_files = 4;
};

void add_buffers(options& result, const std::string& list) {
    for (const std::string& name : android::base::Split(list, ",")) {
        const auto stored = stored_buffer_named(name);
        if (name == "all") {
            add_buffers(result, "default,events,radio,kernel");
        } else if (name == "default") {
            add_buffers(result, "main,system,crash");
        } else if (stored || name == "kernel") {
            result.buffers.insert(stored.value_or(LOG_ID_KERNEL));
        } else {
            errx(EXIT_FAILURE, "unknown buffer '%s'", name.c_str());
        }
    }
}

// liblog takes a name that it does not know for a time zone, so "zone" cannot be told from a slip.
void set_format(options& result, const char* name) {
    const AndroidLogPrintFormat format = android_log_formatFromString(name);
    if (format == FORMAT_OFF || format == FORMAT_MODIFIER_ZONE) {
        errx(EXIT_FAILURE, "unknown format '%s'", name);
    }
    android_log_setPrintFormat(result.format, format);
}

void set_number(unsigned& number, int option) {
    if (!android::base::ParseUint(optarg, &number) || number == 0) {
        errx(EXIT_FAILURE, "-%c needs a number of at least 1, not '%s'", option, optarg);
    }
}

void apply(options& result, int option) {
    switch (option) {
        case 'b':
            return add_buffers(result, optarg);
        case 'd':
            result.is_dump = true;
            return;
        case 'f':
            result.file = optarg;
            return;
        case 'n':
            return set_number(result.rotated_files, option);
        case 'r':
            return set_number(result.rotate_kbytes, option);
        case 's':
            android_log_addFilterRule(result.format, "*:s");
            return;
        case 'v':
            return set_format(result, optarg);
        default:
            exit(EXIT_FAILURE);  // getopt has said why
    }
}

options parse_options(int argc, char* argv[]) {
    options result;
    set_format(result, "threadtime");
    for (int option = 0; (option = getopt(argc, argv, "b:df:n:r:sv:")) != -1;) {
        apply(result, option);
    }
    for (int i = optind; i < argc; ++i) {
        if (android_log_addFilterRule(result.format, argv[i]) != 0) {
            errx(EXIT_FAILURE, "invalid filter '%s'", argv[i]);
        }
    }
    if (result.buffers.empty()) {
        add_buffers(result, "default");
    }
    if (result.rotate_kbytes != 0 && result.file.empty()) {
        errx(EXIT_FAILURE, "-r needs -f");
    }
    return result;
}

// --- Output --------------------------------------------------------------------------------------

// Collects text for standard output or a file. A failed write ends logcat with a message: lines
// that it dropped would look like lines that were never logged.
class output {
  public:
    explicit output(const options& how) : how_(how) { open_file(); }

    // Rotates between two calls only, so no line is split.
    void write(std::string_view text) {
        buffer_.append(text);
        bytes_ += text.size();
        if (how_.rotate_kbytes != 0 && bytes_ / 1024 >= how_.rotate_kbytes) {
            flush();
            rotate();
        }
    }

    void flush() {
        if (!android::base::WriteFully(fd_, buffer_.data(), buffer_.size())) {
            err(EXIT_FAILURE, "cannot write %s", how_.file.empty() ? "output" : how_.file.c_str());
        }
        buffer_.clear();
    }

  private:
    void open_file() {
        const char* const file = how_.file.c_str();
        fd_.reset(how_.file.empty() ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                    : open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
        if (fd_ < 0) {
            err(EXIT_FAILURE, "cannot open %s", file);
        }
        bytes_ = static_cast<uint64_t>(std::max<off_t>(lseek(fd_, 0, SEEK_END), 0));
    }

    // FILE becomes FILE.1, FILE.1 becomes FILE.2 and so on.
    void rotate() {
        for (unsigned number = how_.rotated_files; number > 0; --number) {
            const std::string to = rotated_name(number);
            if (rename(rotated_name(number - 1).c_str(), to.c_str()) != 0 && errno != ENOENT) {
                err(EXIT_FAILURE, "cannot rotate to %s", to.c_str());
            }
        }
        open_file();
    }

    // All numbers have as many digits as the highest one.
    std::string rotated_name(unsigned number) const {
        const int width = static_cast<int>(std::to_string(how_.rotated_files).size());
        return number == 0
                   ? how_.file
                   : android::base::StringPrintf("%s.%0*u", how_.file.c_str(), width, number);
    }

    const options& how_;
    unique_fd fd_;
    uint64_t bytes_ = 0;  // in the file and in buffer_
    std::string buffer_;
};

// --- Reading -------------------------------------------------------------------------------------

// SIG_BLOCK or SIG_UNBLOCK for SIGTERM. Returns the set that holds it alone.
sigset_t mask_sigterm(int how) {
    sigset_t sigterm;
    sigemptyset(&sigterm);
    sigaddset(&sigterm, SIGTERM);
    sigprocmask(how, &sigterm, nullptr);
    return sigterm;
}

// A blocked SIGTERM is noticed through the signalfd alone, between two batches of lines.
int open_signalfd() {
    const sigset_t sigterm = mask_sigterm(SIG_BLOCK);
    const int fd = signalfd(-1, &sigterm, SFD_CLOEXEC);
    if (fd < 0) {
        err(EXIT_FAILURE, "signalfd");
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
    explicit logcat(const options& how)
        : how_(how),
          sigterm_(how.file.empty() ? -1 : open_signalfd()),
          output_(how),
          inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (inotify_ < 0) {
            err(EXIT_FAILURE, "inotify_init1");
        }
        fds_ = {{sigterm_.get(), POLLIN, 0}, {inotify_.get(), POLLIN, 0}};
        for (const log_id_t id : how_.buffers) {
            buffers_.push_back({id, open_source(id)});
        }
    }

    void run() {
        if (how_.is_dump) {
            stop_at_present_end();
        }
        for (bool has_more = true; has_more || !is_ending_;) {
            has_more = write_some();
            output_.flush();
            if (!is_ending_ && wait(has_more)) {
                stop_at_present_end();
                has_more = true;
            }
        }
        // A pending SIGTERM ends the process here, so its parent sees the signal as the cause.
        mask_sigterm(SIG_UNBLOCK);
    }

  private:
    std::unique_ptr<log_source> open_source(log_id_t id) {
        if (id == LOG_ID_KERNEL) {
            unique_fd kmsg(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            if (kmsg >= 0) {
                fds_.push_back({kmsg.get(), POLLIN, 0});
                return std::make_unique<kernel_reader>(std::move(kmsg));
            }
            warn("cannot open /dev/kmsg, going on with klogd's copy");
        }
        return std::make_unique<log_reader>(id, inotify_.get());
    }

    void stop_at_present_end() {
        is_ending_ = true;
        for (shown_buffer& buffer : buffers_) {
            buffer.source->stop_at_present_end();
        }
    }

    // Merges the buffers by time. The limit lets SIGTERM through while lines come faster than they
    // are written. Returns whether there may be more.
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
        if (android_log_shouldPrintLine(how_.format, entry.tag, entry.priority) != 0) {
            if (!std::exchange(buffer.is_announced, true)) {
                output_.write(std::string("--------- beginning of ") +
                              android_log_id_to_name(buffer.id) + "\n");
            }
            write_formatted(entry);
        }
        buffer.source->pop();
    }

    void write_formatted(const AndroidLogEntry& entry) {
        char line[1024];
        size_t size = 0;
        char* const text =
            android_log_formatLogLine(how_.format, line, sizeof(line), &entry, &size);
        if (text == nullptr) {
            err(EXIT_FAILURE, "cannot format a line");
        }
        const std::unique_ptr<char, decltype(&free)> owned(text == line ? nullptr : text, free);
        output_.write({text, size});
    }

    // Returns whether SIGTERM is pending.
    bool wait(bool has_more) {
        if (TEMP_FAILURE_RETRY(poll(fds_.data(), fds_.size(), has_more ? 0 : -1)) < 0) {
            err(EXIT_FAILURE, "poll");
        }
        drain_inotify(inotify_);
        return fds_[0].revents != 0;
    }

    const options& how_;
    unique_fd sigterm_;  // -1: SIGTERM ends the process at once
    output output_;
    unique_fd inotify_;
    std::vector<pollfd> fds_;
    std::vector<shown_buffer> buffers_;
    bool is_ending_ = false;
};

}  // namespace

// Ends with the last entry of a dump, at SIGTERM, or when something cannot be read or written. With
// -f it writes the entries logged before the signal first.
int main(int argc, char* argv[]) {
    try {
        static const options how = parse_options(argc, argv);
        logcat(how).run();
    } catch (const std::exception& error) {
        errx(EXIT_FAILURE, "%s", error.what());
    }
    return EXIT_SUCCESS;
}
