// SPDX-License-Identifier: Apache-2.0

// The Linux side's log: LOG(...), the store, the kernel's records, and the programs log and logcat.
#define LOG_TAG "HOST_LOG"

#include <android-base/logging.h>
#include <sys/resource.h>

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
    std::thread([] { LOG(FATAL_WITHOUT_ABORT) << "stored"; }).join();
    const std::string prefix = "[0-9-]+ [0-9:.]+ +" + std::to_string(getpid()) + " +";
    const std::string first = prefix + std::to_string(gettid());
    const std::vector<std::string> lines = read_lines(log_lines::kFile);
    EXPECT_THAT(lines, ElementsAre(MatchesRegex(first + " D HOST_LOG: one"),
                                   MatchesRegex(first + " D HOST_LOG: two"),
                                   MatchesRegex(first + " W HOST_LOG: 25"),
                                   MatchesRegex(prefix + "[0-9]+ F HOST_LOG: stored")));
    EXPECT_THAT(lines.back(), Not(MatchesRegex(first + " .*")));
    EXPECT_EQ(run("logcat -d").output, kDivider + lines.back() + "\n");
}

// --- The store -----------------------------------------------------------------------------------

// The writers are at most half a ring ahead, so the reader may miss nothing, through ten rounds.
TEST(LogStore, AFollowerLosesNothingOfManyWriters) {
    constexpr size_t kWriters = 4;
    constexpr size_t kEntries = 10000;
    std::counting_semaphore<> room(kLogStoreBytes / 2 / 1100);
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
    EXPECT_LE(fs::file_size(kMain), kLogStoreBytes + 16);
    EXPECT_GE(follower().read_all().size(), kLogStoreBytes / 1100) << "a full ring";
}

// At first the store may not grow, as on a full disk, and then overwrites its oldest entries.
TEST(LogStore, AnEntryThatIsCutShortIsNeverRead) {
    EXPECT_EQ(append(LOG_ID_MAIN, "first"), 0);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit no_room{fs::file_size(kMain) + 500, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_room);
    EXPECT_EQ(append(LOG_ID_MAIN, std::string(1000, 'x')), EFBIG);
    EXPECT_EQ(append(LOG_ID_MAIN, "second"), 0);
    EXPECT_THAT(follower().read_all(), ElementsAre("first", "second"));
    const rlimit no_limit{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_limit);
    follower late;
    for (int i = 0; i < 3000; ++i) {
        append(LOG_ID_MAIN, std::string(10000, 'x'));
    }
    EXPECT_THAT(late.read_all(), AllOf(SizeIs(AllOf(Gt(1000U), Lt(1100U))), Each(SizeIs(3997))));
}

// --- The kernel's log ----------------------------------------------------------------------------

TEST(KernelLog, RecordsAreParsed) {
    const struct {
        const char* text;
        const char* expected;  // priority, microseconds, tag, message; "" for none
    } kCases[] = {
        {"6,1,5000000,-;init: starting service\n", "4 5000000 [init] starting service"},
        {"0,1,0,-;no tag here\n SUBSYSTEM=usb\n DEVICE=x\n", "7 0 [] no tag here"},
        {"12,1,1,c,caller=T42;a: b: c", "5 1 [a] b: c"},
        {"5,1,1,-,caller=C0;t\\x5cxc3\\xc3\\xa4\\x1", "4 1 [] t\\xc3\xc3\xa4\x01"},
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
         {"logcat -x", "logcat -d -b main,", "logcat -d -v x", "logcat -d -f /data/x -r 0",
          "logcat -d -f /none/x", "logcat -d -f /dev/full", "logcat -d tag:q", "log -p x m",
          "log -b kernel m", "mv /dev/log/main /data; mkdir /dev/log/main; log m"}) {
        const auto [exit_status, output] = run(line);
        EXPECT_EQ(exit_status, 1) << line;
        EXPECT_THAT(output, MatchesRegex("log(cat)?: [^\n]*\n")) << line;
    }
}

TEST(Programs, LogcatMergesBuffersByTime) {
    run("log -b radio -p W -t t two -words; log -b radio -p error line");
    append(LOG_ID_MAIN, "m2", 2);
    append(LOG_ID_CRASH, "c2", 2);
    append(LOG_ID_SYSTEM, "s1\nmore", 1);
    append(LOG_ID_SYSTEM, "s3", 3);
    append(LOG_ID_EVENTS, "e0", 0);
    EXPECT_EQ(run("logcat -d -v raw").output,
              "--------- beginning of system\ns1\nmore\n--------- beginning of main\nm2\n"
              "--------- beginning of crash\nc2\ns3\n");
    EXPECT_EQ(run("logcat -d -b events,radio -b radio -v tag t:V *:E").output,
              "--------- beginning of radio\nW/t       : two -words\nE/log     : line\n");
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
