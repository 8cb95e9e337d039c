// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "HOST_LOG"

#include <android-base/logging.h>

#include <atomic>
#include <cstring>
#include <semaphore>
#include <thread>

#include "host/log/kernel.h"
#include "host/log/store.h"
#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;

constexpr char kMain[] = "/dev/log/main";
constexpr char kDivider[] = "--------- beginning of main\n";

int append(log_id_t buffer, const std::string& message, time_t seconds = 1) {
    AndroidLogEntry entry = log_entry_now(ANDROID_LOG_INFO, "tag", message.c_str());
    entry.tv_sec = seconds;
    entry.tv_nsec = 0;
    return append_log_entry(buffer, entry);
}

class follower {
  public:
    follower() { inotify_add_watch(inotify_, kLogFolder, IN_CREATE); }

    // The messages that there are now.
    std::vector<std::string> read_all() {
        std::vector<std::string> messages;
        for (; reader_.peek() != nullptr; reader_.pop()) {
            messages.emplace_back(reader_.peek()->message, reader_.peek()->messageLen);
        }
        return messages;
    }

    bool wait() const {
        char events[4096];
        return wait_for_input(inotify_) && read(inotify_, events, sizeof(events)) > 0;
    }

  private:
    android::base::unique_fd inotify_ = open_inotify();
    log_reader reader_{LOG_ID_MAIN, inotify_.get()};
};

TEST(Log, LinesGoToStandardErrorAndToTheStore) {
    const log_lines standard_error;
    fs::create_directory(kMain);  // a store that cannot be written
    errno = ENOTTY;
    LOG(VERBOSE) << "left out";
    LOG(DEBUG) << "one\ntwo";
    LOG(WARNING) << errno;
    EXPECT_EQ(errno, ENOTTY);
    fs::remove(kMain);
    fs::create_directory("/tmp");  // of EXPECT_EXIT
    EXPECT_EXIT(LOG(FATAL) << "bye", KilledBySignal(SIGABRT), "F HOST_LOG: bye");
    std::thread([] { LOG(ERROR) << "stored"; }).join();
    const std::string prefix = "[0-9-]+ [0-9:.]+ +" + std::to_string(getpid()) + " +";
    const std::string first = prefix + std::to_string(gettid());
    const std::vector<std::string> lines = read_lines(log_lines::kFile);
    EXPECT_THAT(lines, ElementsAre(MatchesRegex(first + " D HOST_LOG: one"),
                                   MatchesRegex(first + " D HOST_LOG: two"),
                                   MatchesRegex(first + " W HOST_LOG: 25"),
                                   MatchesRegex(prefix + "[0-9]+ E HOST_LOG: stored")));
    EXPECT_THAT(lines.back(), Not(MatchesRegex(first + " .*")));
    EXPECT_THAT(run("logcat -d").output,
                AllOf(StartsWith(kDivider), HasSubstr("F HOST_LOG: bye\n" + lines.back())));
}

// --- The store -----------------------------------------------------------------------------------

// The writers are at most half a segment ahead, so nothing may be missing, through ten rotations.
TEST(LogStore, AFollowerLosesNothingOfManyWriters) {
    constexpr size_t kWriters = 4;
    constexpr size_t kEntries = 5000;
    std::counting_semaphore<> room(kLogSegmentBytes / 2 / 1100);
    std::vector<std::thread> writers;
    for (size_t writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&, writer] {
            for (size_t i = 0; i < kEntries; ++i) {
                room.acquire();
                append(LOG_ID_MAIN, std::to_string(i * kWriters + writer) + std::string(1000, '.'));
            }
        });
    }
    follower reader;
    size_t next[kWriters] = {};
    for (size_t count = 0; count < kWriters * kEntries;) {
        for (const std::string& message : reader.read_all()) {
            const size_t number = std::stoul(message);
            EXPECT_EQ(next[number % kWriters]++, number / kWriters);
            room.release();
            ++count;
        }
        ASSERT_TRUE(count == kWriters * kEntries || reader.wait()) << count;
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    uintmax_t bytes = 0;
    for (const auto& entry : fs::directory_iterator(kLogFolder)) {
        bytes += entry.file_size();
    }
    EXPECT_LE(bytes, 2U * kLogSegmentBytes);
    EXPECT_GE(follower().read_all().size(), kLogSegmentBytes / 1100U) << "a full segment at least";
    append(LOG_ID_MAIN, std::string(10000, '.'));
    EXPECT_THAT(follower().read_all().back(), SizeIs(AllOf(Gt(4000U), Lt(4100U))));
}

// --- The kernel's log ---------------------------------------------------------------------------

TEST(KernelLog, RecordsAreParsed) {
    const struct {
        const char* text;
        const char* expected;  // priority, microseconds, tag, message; "" for none
    } kCases[] = {
        {"6,1,5000000,-;init: starting service\n", "4 5000000 [init] starting service"},
        {"0,1,0,-;no tag here\n SUBSYSTEM=usb\n DEVICE=x\n", "7 0 [] no tag here"},
        {"12,1,1,c,caller=T42;a: b: c", "5 1 [a] b: c"},
        {"5,1,1,-,caller=C0;t\\x5cn\\xc3\\xa4\\x00\\xg\\x1", "4 1 [] t\\n\xc3\xa4\\x00\\xg\\x1"},
        {"7,9,-1,-;x", ""},
        {"x,9,1,-;x", ""},
        {"7,9,1", ""},
    };
    for (const auto& [text, expected] : kCases) {
        std::ostringstream parsed;
        if (const auto record = parse_kernel_record(text)) {
            parsed << record->priority << " " << record->since_boot.count() << " [" << record->tag
                   << "] " << record->message;
        }
        EXPECT_EQ(parsed.str(), expected) << text;
    }
}

// --- Programs ------------------------------------------------------------------------------------

TEST(Programs, RejectWhatTheyCannotDo) {
    append(LOG_ID_MAIN, "line");
    for (const char* line :
         {"logcat -x", "logcat -d -b main,", "logcat -d -v UTC", "logcat -d -f /data/x -r 1k",
          "logcat -d -f /none/x", "logcat -d -f /dev/full", "logcat -d tag:q", "log", "log -p x m",
          "log -b kernel m"}) {
        const auto [exit_status, output] = run(line);
        EXPECT_EQ(exit_status, 1) << line;
        EXPECT_THAT(output, MatchesRegex("(logcat|log|usage): [^\n]*\n")) << line;
    }
    umount2(kLogFolder, MNT_DETACH);
    rmdir(kLogFolder);
    EXPECT_EQ(run("log m").exit_status, 1);
}

TEST(Programs, LogcatMergesBuffersByTime) {
    run("log -b radio -p W -t t two -words; log -b radio -p error line");
    append(LOG_ID_MAIN, "m2", 2);
    append(LOG_ID_CRASH, "c2", 2);
    append(LOG_ID_SYSTEM, "s1\nmore", 1);
    append(LOG_ID_SYSTEM, "s3", 3);
    append(LOG_ID_EVENTS, "e0", 0);
    const auto shown = [](const std::string& options) {
        return run("logcat -d -v tag " + options +
                   " | sed 's/--------- beginning of /=/; s/.*: //' | tr '\n' ' '")
            .output;
    };
    EXPECT_EQ(shown(""), "=system s1 more =main m2 =crash c2 s3 ");
    EXPECT_EQ(shown("-b events,system"), "=events e0 =system s1 more s3 ");
    EXPECT_THAT(shown("-b all"), HasSubstr("=events e0 =system s1 more =main m2 =crash c2"));
    EXPECT_THAT(run("logcat -d -b radio -v tag").output,
                HasSubstr("\nW/t       : two -words\nE/log     : line\n"));
}

// Lines of 100 bytes: 11 of them are past 1 KiB, and so are 8 with what is there before.
TEST(Programs, LogcatRotatesItsFile) {
    for (int i = 0; i < 25; ++i) {
        append(LOG_ID_MAIN, std::to_string(1000 + i) + std::string(95, '.'));
    }
    write_file("/data/log", std::string(199, '-') + "\n");
    write_file("/data/log.2", "goes");
    run("logcat -d -v raw -f /data/log -r 1 -n 2");
    EXPECT_THAT(names_in("/data"), ElementsAre("log", "log.1", "log.2", "output"));
    EXPECT_EQ(fs::file_size("/data/log.2"), 200 + strlen(kDivider) + 8 * 100);
    EXPECT_EQ(fs::file_size("/data/log.1"), 1100U);
    EXPECT_THAT(read_file("/data/log"), StartsWith("1019."));
    fs::remove("/data/log");
    run("logcat -d -v raw -f /data/log -r 1 -n 10");
    EXPECT_THAT(names_in("/data"), IsSupersetOf({"log", "log.01", "log.02"}));
}

// Half of the lines are there before it starts, half come then; all the time there is a flood.
TEST(Programs, LogcatWritesEverythingBeforeItEnds) {
    std::atomic<bool> done = false;
    std::thread flood([&] {
        while (!done) {
            append(LOG_ID_CRASH, "flood");
        }
    });
    for (int round = 0; round < 10; ++round) {
        fs::remove("/data/log");
        std::vector<std::string> sent;
        const auto send = [&](int count) {
            for (int i = 0; i < count; ++i) {
                sent.push_back(std::to_string(round) + "." + std::to_string(i));
                append(i % 2 == 0 ? LOG_ID_MAIN : LOG_ID_SYSTEM, sent.back());
            }
        };
        send(2000);
        const pid_t logcat = start("exec logcat -v raw -f /data/log");
        ASSERT_TRUE(wait_until("/data", [] { return access("/data/log", F_OK) == 0; }));
        send(2000);
        kill(logcat, SIGTERM);
        EXPECT_EQ(wait_status(logcat), SIGTERM);
        std::vector<std::string> written = read_lines("/data/log");
        std::erase_if(written, [&](const std::string& line) {
            return !line.starts_with(std::to_string(round) + ".");
        });
        std::sort(written.begin(), written.end());
        std::sort(sent.begin(), sent.end());
        EXPECT_EQ(written, sent);
    }
    done = true;
    flood.join();
}

}  // namespace
