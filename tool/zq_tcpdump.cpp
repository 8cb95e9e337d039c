// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_TCPDUMP"

#include "tool/zq_tcpdump.h"

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <sstream>

#include "utils/children.h"
#include "utils/property_value.h"
#include "utils/stop_signal.h"

using namespace brevix;

namespace {

// --- The line ------------------------------------------------------------------------------------

constexpr int kMaxFileMegabytes = 100;
constexpr int kMaxFiles = 10;
constexpr size_t kMaxLineBytes = 255;

struct file_ring {
    int megabytes = 0;
    int files = 0;
};

file_ring parse_size(const std::string& text) {
    file_ring result;
    std::istringstream fields(text);
    std::string field;
    if (std::getline(fields, field, ',')) {
        result.megabytes = std::min(std::stoi(field), kMaxFileMegabytes);
    }
    if (std::getline(fields, field, ',')) {
        result.files = std::min(std::stoi(field), kMaxFiles);
    }
    return result;
}

}  // namespace

std::string brevix::capture_command(const std::string& size, const std::string& file,
                                    const std::string& limitation) {
    const file_ring ring = parse_size(size);
    const char* packet_bytes = limitation == "0" ? "" : "-s 128 ";
    // The shell puts the start time into an unnamed file's name.
    const char* name = file.empty() ? "$(date +%Y.%m.%d.%H:%M:%S)" : file.c_str();
    char line[kMaxLineBytes] = {};
    snprintf(line, sizeof(line), "tcpdump -i any -p %s-C %d -W %d -w/data/tcpdump/%s.pcap",
             packet_bytes, ring.megabytes, ring.files, name);
    return line;
}

namespace {

// --- The recorder thread -------------------------------------------------------------------------

// The signals that end the process, and with it the capture. From the "1" on every thread blocks
// them but the recorder in its wait, so the recorder takes them, whichever thread they are for.
constexpr int kEndSignals[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT};

pthread_t tcpdump_thread = 0;  // 0 while there is no recorder
sem_t recorder_ended;

// The shell's pid, which is also its process group. Only the recorder uses it.
pid_t capture = -1;

// Guards `stop_requested`. stop_recorder holds it while it signals, so that the recorder, which
// another signal may end at the same time, is still alive then: bionic aborts on a dead thread.
std::mutex stop_mutex;
bool stop_requested = false;  // by "0"

// `how` is SIG_BLOCK or SIG_UNBLOCK. SIGCHLD is what end_capture waits for.
void mask_signals(int how) {
    sigset_t signals = set_of(kEndSignals);
    sigaddset(&signals, SIGCHLD);
    pthread_sigmask(how, &signals, nullptr);
}

// An ignored signal stays ignored, as under nohup, except SIGTERM, which stop_recorder sends.
void handle_end_signals() {
    for (const int sig : kEndSignals) {
        struct sigaction current {};
        sigaction(sig, nullptr, &current);
        if (sig == SIGTERM || current.sa_handler != SIG_IGN) {
            handle_signal(sig, tcpdump_sig_handler);
        }
    }
}

void start_capture(const char* line) {
    // As a child subreaper, this process also collects a tcpdump that outlives its shell.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    capture = start_shell_group(line);
}

// Collects the processes of the capture that have ended. Returns whether there are others.
bool collect_ended() {
    pid_t pid = 0;
    do {
        pid = waitpid(-capture, nullptr, WNOHANG);
    } while (pid > 0);
    return pid == 0;
}

// A shell that has not started tcpdump yet may handle SIGTERM and lose it, so the signal is
// repeated, at growing intervals for processes that need time to end. After three seconds SIGKILL
// ends them.
void end_capture() {
    if (capture <= 0) {
        return;
    }
    constexpr int kChildEnd[] = {SIGCHLD};
    constexpr std::chrono::milliseconds kLastPatience(3200);
    std::chrono::milliseconds patience(100);
    kill(-capture, SIGTERM);
    while (collect_ended()) {
        if (take_signal(kChildEnd, patience) != SIGCHLD) {
            patience *= 2;
            kill(-capture, patience < kLastPatience ? SIGTERM : SIGKILL);
        }
    }
}

std::string configured_command() {
    return capture_command(property_value("sys.tcpdump.size", "100,10"),
                           property_value("sys.tcpdump.file", ""),
                           property_value("sys.brevix.tcpdump.package.limitation", "1"));
}

}  // namespace

void tcpdump_sig_handler(int sig) {
    LOG(INFO) << "exit";
    end_capture();
    stop_mutex.lock();
    if (!stop_requested) {
        end_process_by(sig);
    }
    stop_mutex.unlock();  // not a lock_guard: bionic's pthread_exit runs no destructor
    sem_post(&recorder_ended);
    pthread_exit(nullptr);
}

void* record_tcpdump(void* /*unused*/) {
    {
        const std::string line = configured_command();
        handle_end_signals();
        start_capture(line.c_str());
    }  // the handler ends this thread, in bionic without a destructor
    while (true) {
        wait_unblocked(kEndSignals, -1);
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
    mask_signals(SIG_BLOCK);  // the thread inherits it
    if (pthread_create(&tcpdump_thread, nullptr, record_tcpdump, nullptr) != 0) {
        LOG(ERROR) << "thread create fail";
        tcpdump_thread = 0;  // a failed creation may leave anything here
        mask_signals(SIG_UNBLOCK);
        return;
    }
    pthread_detach(tcpdump_thread);
}

void stop_recorder() {
    if (tcpdump_thread == 0) {
        return;
    }
    {
        const std::lock_guard lock(stop_mutex);
        stop_requested = true;
        // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): its handler ends the thread alone
        pthread_kill(tcpdump_thread, SIGTERM);
    }
    TEMP_FAILURE_RETRY(sem_wait(&recorder_ended));
}

}  // namespace

int ZQTCPDumpDetect() {
    mask_signals(SIG_UNBLOCK);  // whoever started this may have left them blocked
    wait_for_switch("1");
    LOG(INFO) << "start recording";
    start_recorder();
    wait_for_switch("0");
    LOG(INFO) << "stop recording";
    stop_recorder();
    const ignored_terminal_signals ignored;
    run_shell("chmod 666 /data/tcpdump/*");
    return 0;
}
