#define LOG_TAG "ZQ_TCPDUMP"

#include "tool/zq_tcpdump.h"

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <cutils/properties.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "utils/stop_signal.h"
#include "utils/util.h"

namespace {

// --- The line ------------------------------------------------------------------------------------

constexpr int kMaxFileSize = 100;
constexpr int kMaxFiles = 10;
constexpr size_t kMaxLineBytes = 255;

struct file_ring {
    int file_size = 0;
    int files = 0;
};

file_ring parse_size(const char* text) {
    file_ring result;
    std::istringstream fields(text);
    std::string field;
    if (std::getline(fields, field, ',')) {
        result.file_size = std::min(std::stoi(field), kMaxFileSize);
    }
    if (std::getline(fields, field, ',')) {
        result.files = std::min(std::stoi(field), kMaxFiles);
    }
    return result;
}

}  // namespace

std::string capture_command(const char* size, const char* file, const char* limitation) {
    const file_ring ring = parse_size(size);
    const char* packet_bytes = strcmp(limitation, "0") == 0 ? "" : "-s 128 ";
    const bool is_named = file[0] != '\0';
    // The shell puts the start time into an unnamed file's name.
    const char* name = is_named ? file : "$(date +%Y.%m.%d.%H:%M:%S)";
    char line[kMaxLineBytes] = {};
    snprintf(line, sizeof(line), "tcpdump -i any -p %s-C %d -W %d -w/data/tcpdump/%s.pcap",
             packet_bytes, ring.file_size, ring.files, name);
    return line;
}

namespace {

// --- The recorder thread -------------------------------------------------------------------------

pthread_t tcpdump_thread = 0;  // 0 while there is no recorder
sem_t recorder_ended;

// The shell and its group. The recorder's own, set before the one place where its handler may run.
pid_t capture = -1;

// The signal that ends the process once the capture has ended, 0 if none.
std::atomic<int> process_end{0};

void start_capture(const char* line) {
    // A tcpdump that outlives its shell becomes a child of this process then, to be waited for.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    capture = start_shell_group(line);
}

// Reaps the processes of the capture that have ended. Returns whether there are others.
bool is_capture_alive() {
    pid_t pid = 0;
    do {
        pid = waitpid(-capture, nullptr, WNOHANG);
    } while (pid > 0);
    return pid == 0;
}

// Returns false when no child of this process has ended in that time.
bool wait_for_child(std::chrono::milliseconds patience) {
    sigset_t child_end;
    sigemptyset(&child_end);
    sigaddset(&child_end, SIGCHLD);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(patience);
    const timespec timeout{static_cast<time_t>(seconds.count()),
                           static_cast<long>(std::chrono::nanoseconds(patience - seconds).count())};
    return sigtimedwait(&child_end, nullptr, &timeout) == SIGCHLD;
}

// A shell that is about to start tcpdump may handle a SIGTERM on its own and forget it: the signal
// is sent again, to whoever is there by then. Less and less often, for those that need their time;
// whoever takes more than three seconds is killed, so that the stop comes to an end.
void end_capture() {
    if (capture <= 0) {
        return;
    }
    constexpr std::chrono::milliseconds kLastPatience(3200);
    std::chrono::milliseconds patience(100);
    kill(-capture, SIGTERM);
    while (is_capture_alive()) {
        if (!wait_for_child(patience)) {
            patience *= 2;
            kill(-capture, patience < kLastPatience ? SIGTERM : SIGKILL);
        }
    }
}

void signal_recorder() {
    // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): its handler ends the thread alone
    pthread_kill(tcpdump_thread, SIGTERM);
}

}  // namespace

void tcpdump_sig_handler(int sig) {
    if (!is_stoppable()) {
        process_end = sig;
        if (tcpdump_thread == 0) {
            end_process_by(sig);
        } else {
            signal_recorder();
        }
        return;
    }
    LOG(INFO) << "exit";
    end_capture();
    if (process_end != 0) {
        end_process_by(process_end);
    }
    sem_post(&recorder_ended);
    pthread_exit(nullptr);
}

void* record_tcpdump(void* /*unused*/) {
    char limitation[PROPERTY_VALUE_MAX] = {};
    char size[PROPERTY_VALUE_MAX] = {};
    char file[PROPERTY_VALUE_MAX] = {};
    property_get("sys.brevix.tcpdump.package.limitation", limitation, "1");
    property_get("sys.tcpdump.size", size, "100,10");
    property_get("sys.tcpdump.file", file, "");
    const std::string line = capture_command(size, file, limitation);
    make_stoppable(tcpdump_sig_handler);
    start_capture(line.c_str());
    while (true) {
        wait_or_stop(-1);
    }
}

// --- Control -------------------------------------------------------------------------------------

namespace {

void wait_for_switch(const char* value) {
    while (
        !android::base::WaitForProperty("sys.tcpdump", value, std::chrono::milliseconds::max())) {
    }
}

void start_recorder() {
    sem_init(&recorder_ended, 0, 0);
    const blocked_signals blocked;  // the thread inherits it
    if (pthread_create(&tcpdump_thread, nullptr, record_tcpdump, nullptr) != 0) {
        LOG(ERROR) << "thread create fail";
        tcpdump_thread = 0;  // a failed creation may leave anything here
        return;
    }
    pthread_detach(tcpdump_thread);
}

void stop_recorder() {
    const blocked_signals blocked;  // the handler here must not meet a recorder that ends
    if (tcpdump_thread != 0) {
        signal_recorder();
        TEMP_FAILURE_RETRY(sem_wait(&recorder_ended));
        tcpdump_thread = 0;
    }
}

}  // namespace

int ZQTCPDumpDetect() {
    wait_for_switch("1");
    LOG(INFO) << "start recording";
    start_recorder();
    wait_for_switch("0");
    LOG(INFO) << "stop recording";
    stop_recorder();
    run_shell("chmod 666 /data/tcpdump/*");
    return 0;
}
