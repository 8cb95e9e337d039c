// logcat: shows the log buffers, or writes them to a file that it rotates.
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <limits.h>
#include <log/log_id.h>
#include <log/logprint.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "host/log/kernel.h"
#include "host/log/store.h"

using android::base::unique_fd;

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// --- Signals -------------------------------------------------------------------------------------

// A logcat that is told to end first writes what it was sent before. So these signals are blocked,
// and read like the other things that it waits for: a flood of lines does not keep them away.
constexpr int kEndSignals[] = {SIGTERM, SIGINT, SIGHUP};

unique_fd end_signals;
int end_signal = 0;

void block_end_signals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : kEndSignals) {
        struct sigaction inherited {};
        sigaction(signal, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN) {  // as nohup sets it
            sigaddset(&blocked, signal);
        }
    }
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    end_signals.reset(signalfd(-1, &blocked, SFD_NONBLOCK | SFD_CLOEXEC));
    if (end_signals < 0) {
        fail("signalfd");
    }
}

// Waits for one of `fds` or a signal to end, which is noted. Returns whether one of `fds` is ready.
bool wait_for(std::vector<pollfd> fds, int timeout_ms) {
    fds.push_back({end_signals.get(), POLLIN, 0});
    if (TEMP_FAILURE_RETRY(poll(fds.data(), fds.size(), timeout_ms)) < 0) {
        fail("poll");
    }
    signalfd_siginfo signal{};
    if (read(end_signals, &signal, sizeof(signal)) == sizeof(signal)) {
        end_signal = static_cast<int>(signal.ssi_signo);
    }
    return std::any_of(fds.begin(), fds.end() - 1,
                       [](const pollfd& fd) { return fd.revents != 0; });
}

// As the one who waits for this process expects it: the signal is how it ended.
[[noreturn]] void end_by_signal() {
    sigset_t unblocked;
    sigemptyset(&unblocked);
    sigaddset(&unblocked, end_signal);
    raise(end_signal);
    sigprocmask(SIG_UNBLOCK, &unblocked, nullptr);
    abort();  // not reached: nothing handles the signal
}

// --- Options -------------------------------------------------------------------------------------

struct format_deleter {
    void operator()(AndroidLogFormat* format) const { android_log_format_free(format); }
};

struct options {
    std::vector<log_id_t> buffers;
    std::unique_ptr<AndroidLogFormat, format_deleter> format{android_log_format_new()};
    bool dump = false;
    std::string file;            // "": standard output
    uint64_t rotate_kbytes = 0;  // 0: never
    unsigned rotated_files = 4;
};

[[noreturn]] void reject(const std::string& what) {
    throw std::invalid_argument(what);
}

void add_buffers(options& result, std::string_view name) {
    std::vector<log_id_t> named;
    if (name == "all") {
        named.assign(std::begin(kStoredBuffers), std::end(kStoredBuffers));
        named.push_back(LOG_ID_KERNEL);
    } else if (name == "default") {
        named = {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH};
    } else if (name == android_log_id_to_name(LOG_ID_KERNEL)) {
        named = {LOG_ID_KERNEL};
    } else if (const auto stored = stored_buffer_named(name)) {
        named = {*stored};
    } else {
        reject("unknown buffer '" + std::string(name) + "'");
    }
    for (const log_id_t buffer : named) {
        if (std::find(result.buffers.begin(), result.buffers.end(), buffer) ==
            result.buffers.end()) {
            result.buffers.push_back(buffer);
        }
    }
}

void add_buffer_list(options& result, std::string_view list) {
    while (true) {
        const size_t comma = list.find(',');
        add_buffers(result, list.substr(0, comma));
        if (comma == std::string_view::npos) {
            return;
        }
        list.remove_prefix(comma + 1);
    }
}

// liblog takes a name that it does not know for a time zone.
constexpr std::string_view kFormats[] = {
    "brief",      "process",   "tag",   "thread",      "raw",   "time",
    "threadtime", "long",      "color", "descriptive", "epoch", "monotonic",
    "nsec",       "printable", "uid",   "usec",        "year",  "zone",
};

void set_format(options& result, const char* name) {
    if (std::find(std::begin(kFormats), std::end(kFormats), name) == std::end(kFormats)) {
        reject("unknown format '" + std::string(name) + "'");
    }
    android_log_setPrintFormat(result.format.get(), android_log_formatFromString(name));
}

void add_filter(options& result, const char* filter) {
    if (android_log_addFilterRule(result.format.get(), filter) != 0) {
        reject("invalid filter '" + std::string(filter) + "'");
    }
}

template <typename T>
void set_number(T& number, const char* text, const char* option) {
    if (!android::base::ParseUint(text, &number) || number == 0) {
        reject(std::string(option) + " needs a number of at least 1, not '" + text + "'");
    }
}

void apply(options& result, int option) {
    switch (option) {
        case 'b':
            return add_buffer_list(result, optarg);
        case 'd':
            result.dump = true;
            return;
        case 'f':
            result.file = optarg;
            return;
        case 'n':
            return set_number(result.rotated_files, optarg, "-n");
        case 'r':
            return set_number(result.rotate_kbytes, optarg, "-r");
        case 'v':
            return set_format(result, optarg);
        case ':':
            reject(std::string("-") + static_cast<char>(optopt) + " needs an argument");
        default:
            reject(std::string("unknown option -") + static_cast<char>(optopt));
    }
}

options parse_options(int argc, char* argv[]) {
    options result;
    set_format(result, "threadtime");
    for (int option = 0; (option = getopt(argc, argv, ":b:df:n:r:v:")) != -1;) {
        apply(result, option);
    }
    for (int i = optind; i < argc; ++i) {
        add_filter(result, argv[i]);
    }
    if (result.buffers.empty()) {
        add_buffers(result, "default");
    }
    if (result.rotate_kbytes != 0 && result.file.empty()) {
        reject("-r needs -f");
    }
    return result;
}

// --- Output --------------------------------------------------------------------------------------

// Lines on their way to standard output or to a file. A failure to write ends logcat: what it
// throws away in silence would be taken for lines that never were.
class output {
  public:
    explicit output(const options& settings)
        : file_(settings.file),
          rotate_kbytes_(settings.rotate_kbytes),
          rotated_files_(settings.rotated_files) {
        open_file();
    }

    // Rotation comes between two texts only.
    void write(std::string_view text) {
        constexpr size_t kBufferBytes = 64 << 10;
        buffer_.append(text);
        bytes_ += text.size();
        if (buffer_.size() >= kBufferBytes) {
            flush();
        }
        if (rotate_kbytes_ != 0 && bytes_ / 1024 >= rotate_kbytes_) {
            flush();
            rotate();
        }
    }

    void flush() {
        for (std::string_view rest = buffer_; !rest.empty();) {
            const size_t size = is_regular_ ? rest.size() : wait_for_room(rest.size());
            const ssize_t written = ::write(fd_, rest.data(), size);
            if (written < 0 && errno != EAGAIN && errno != EINTR) {
                fail("cannot write " + name());
            }
            rest.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
        }
        buffer_.clear();
    }

  private:
    std::string name() const { return file_.empty() ? "standard output" : file_; }

    void open_file() {
        if (file_.empty()) {
            fd_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        } else {
            fd_.reset(open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
        }
        struct stat status {};
        if (fd_ < 0 || fstat(fd_, &status) != 0) {
            fail("cannot open " + name());
        }
        is_regular_ = S_ISREG(status.st_mode);
        bytes_ = static_cast<uint64_t>(status.st_size);
    }

    // A pipe that nobody empties must not keep logcat from ending. Returns how many of `size` bytes
    // can be written without blocking.
    size_t wait_for_room(size_t size) const {
        constexpr int kForEver = -1;
        constexpr int kLastChanceMs = 1000;
        while (true) {
            const bool is_ending = end_signal != 0;
            if (wait_for({{fd_.get(), POLLOUT, 0}}, is_ending ? kLastChanceMs : kForEver)) {
                return std::min<size_t>(size, PIPE_BUF);
            }
            if (is_ending) {
                end_by_signal();
            }
        }
    }

    // FILE becomes FILE.1, FILE.1 becomes FILE.2 and so on.
    void rotate() {
        for (unsigned number = rotated_files_; number > 0; --number) {
            const std::string to = rotated_name(number);
            if (rename(rotated_name(number - 1).c_str(), to.c_str()) != 0 && errno != ENOENT) {
                fail("cannot rotate to " + to);
            }
        }
        open_file();
    }

    // As many digits for each number as the highest one has.
    std::string rotated_name(unsigned number) const {
        if (number == 0) {
            return file_;
        }
        const std::string digits = std::to_string(number);
        const size_t width = std::to_string(rotated_files_).size();
        return file_ + "." + std::string(width - digits.size(), '0') + digits;
    }

    const std::string file_;
    const uint64_t rotate_kbytes_;
    const unsigned rotated_files_;
    unique_fd fd_;
    bool is_regular_ = false;
    uint64_t bytes_ = 0;  // in the file, with those still in the buffer
    std::string buffer_;
};

// --- Buffers -------------------------------------------------------------------------------------

struct shown_buffer {
    log_id_t id;
    std::unique_ptr<log_source> source;
    bool is_announced = false;
};

class logcat {
  public:
    explicit logcat(options settings)
        : settings_(std::move(settings)),
          output_(settings_),
          inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (inotify_ < 0) {
            fail("inotify_init1");
        }
        fds_.push_back({inotify_.get(), POLLIN, 0});
        for (const log_id_t buffer : settings_.buffers) {
            buffer == LOG_ID_KERNEL ? add_kernel() : add_store(buffer);
        }
    }

    // Returns when everything is dumped, or after a signal to end.
    void run() {
        if (settings_.dump) {
            stop_at_present_end();
        }
        while (end_signal == 0) {
            const bool has_more = write_some();
            output_.flush();
            if (!has_more && settings_.dump) {
                return;
            }
            wait(has_more);
        }
        stop_at_present_end();
        while (write_some()) {
        }
        output_.flush();
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

    void wait(bool has_more) {
        wait_for(fds_, has_more ? 0 : -1);
        // What the events say does not matter, only that the stores are looked at after them.
        alignas(inotify_event) char events[4096];
        while (read(inotify_, events, sizeof(events)) > 0) {
        }
    }

    const options settings_;
    output output_;
    unique_fd inotify_;
    std::vector<pollfd> fds_;
    std::vector<shown_buffer> buffers_;
};

}  // namespace

int main(int argc, char* argv[]) {
    try {
        block_end_signals();
        logcat(parse_options(argc, argv)).run();
    } catch (const std::exception& error) {
        fprintf(stderr, "logcat: %s\n", error.what());
        return EXIT_FAILURE;
    }
    if (end_signal != 0) {
        end_by_signal();
    }
    return EXIT_SUCCESS;
}
