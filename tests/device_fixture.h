// SPDX-License-Identifier: Apache-2.0

// What the tests of the product share. Every case runs in a virtual device of its own, so it may
// put files, properties and programs where the phone has them.
#pragma once

#include <gmock/gmock.h>
#include <linux/capability.h>

#include "testing/device.h"

namespace fixture {

using namespace device;

// GoogleTest knows no place of an exception: adds the case and where it begins.
struct exception_place : testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override { test_ = &test; }
    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (result.file_name() == nullptr && test_ != nullptr) {
            std::cout << test_->file() << ":" << test_->line() << ": in "
                      << test_->test_suite_name() << "." << test_->name() << "\n";
        }
    }
    const testing::TestInfo* test_ = nullptr;
};
inline const bool is_place_told =
    (testing::UnitTest::GetInstance()->listeners().Append(new exception_place), true);

// --- Where events come from and go to ------------------------------------------------------------

const std::string kDropbox = "/data/system/dropbox/";
const std::string kTombstones = "/data/tombstones/";
const std::string kCrashlog = "/data/logs/crashlog/";
const std::string kHistory = "/data/logs/history.event";
const std::string kNotices = "/data/brevix/queue.log";
const std::string kTime = "20..-..-..-..-..-..";  // regular expression of a file name's time
constexpr const char* kZone = "TEST-9:30";        // where local time differs from UTC
// Regular expression of an empty SigBlk in /proc: bionic keeps the signal of its timers blocked.
const std::string kNoneBlocked = "0{8}[08]0{7}";

inline void make_event_folders() {
    for (const char* dir :
         {"/data/system/dropbox", "/data/tombstones", "/data/brevix", "/data/logs"}) {
        fs::create_directories(dir);
    }
}

// Whether `text` begins with the local time of a moment ago, in this format of strptime(3).
inline bool is_now(const std::string& text, const char* format) {
    tm local{};
    return strptime(text.c_str(), format, &local) != nullptr &&
           std::abs(mktime(&local) - time(nullptr)) < 60;
}

// From now on permissions hold for root, too.
inline void drop_capabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2]{};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
}

// As the platform does: writes under another name and renames, so no reader sees a partial file.
inline void move_into_dropbox(const std::string& name, const std::string& content = "content") {
    write_file(kDropbox + "drop1.tmp", content);
    fs::rename(kDropbox + "drop1.tmp", kDropbox + name);
}

// Redirects standard error, where the log lines of the device go, into a file for as long as it
// lives. A pipe would stay open in children that outlive the test. Fails the test when a sanitizer
// of a program under test has reported, and prints the log when the test has failed.
class log_lines {
  public:
    static constexpr const char* kFile = "/data/standard_error";

    log_lines() {
        dup2(android::base::unique_fd(open(kFile, O_RDWR | O_CREAT | O_TRUNC | O_APPEND, 0600)),
             STDERR_FILENO);
    }
    ~log_lines() {
        const std::string text = read_file(kFile);
        EXPECT_EQ(text.find("Sanitizer"), std::string::npos);
        dup2(saved_, STDERR_FILENO);
        std::cerr << (testing::Test::HasFailure() ? text : "");
    }

    // Lines so far, "11-21 09:30:05.123  4242  4243 I ZQ_UTIL : text" as "I ZQ_UTIL: text".
    static std::vector<std::string> lines() {
        std::vector<std::string> result = read_lines(kFile);
        for (std::string& line : result) {
            int text = 0;
            sscanf(line.c_str(), "%*s %*s %*s %*s %n", &text);
            line.erase(0, text);
            if (const size_t colon = line.find(": "); colon != std::string::npos) {
                const size_t tag_end = line.find_last_not_of(' ', colon - 1) + 1;
                line.erase(tag_end, colon - tag_end);
            }
        }
        return result;
    }

    // Number of lines that contain `text`.
    static size_t count(const std::string& text) {
        const std::vector<std::string> all = read_lines(kFile);
        return std::ranges::count_if(
            all, [&](const std::string& line) { return line.find(text) != line.npos; });
    }

  private:
    const android::base::unique_fd saved_{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
};

// The daemon as a child of the test, and its log. Fails the test when the daemon has ended by the
// end of this object, which kills it.
struct daemon_process {
    ~daemon_process() {
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the daemon is gone";
        kill(pid, SIGKILL);
        wait_status(pid);
    }
    // Waits for the daemon's end and starts it again, as init does. Returns the wait status.
    int start_again_after_its_end(const std::string& shell_line = kShellLine) {
        const int status = wait_status(pid);
        pid = start(shell_line);
        return status;
    }

    static constexpr const char* kShellLine = "exec zq_brevix";
    const log_lines log;
    pid_t pid = start(kShellLine);
};

}  // namespace fixture
