// SPDX-License-Identifier: Apache-2.0

// The Linux side's log: the store, the kernel's records, and the programs log and logcat.

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <thread>

#include "host/log/kernel.h"
#include "host/log/store.h"
#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;

int append(log_id_t buffer, const std::string& message, time_t seconds = 1) {
    AndroidLogEntry entry = log_entry_now(ANDROID_LOG_INFO, "tag", message.c_str());
    entry.tv_sec = seconds;
    entry.tv_nsec = 0;
    return append_log_entry(buffer, entry);
}

std::vector<std::string> lines_of(const std::string& command) {
    return android::base::Split(run(command).output, "\n");
}

TEST(LogStore, AnEntryThatIsCutShortIsNeverRead) {
    ASSERT_TRUE(mount_memory(kLogFolder, 0, "size=8k"));
    EXPECT_EQ(append(LOG_ID_MAIN, "first"), 0);
    EXPECT_EQ(append(LOG_ID_MAIN, std::string(5000, 'x')), 0);
    EXPECT_EQ(append(LOG_ID_MAIN, std::string(5000, 'x')), ENOSPC);
    EXPECT_EQ(append(LOG_ID_MAIN, "last"), 0);
    EXPECT_THAT(lines_of("logcat -d -v raw"), ElementsAre(_, "first", SizeIs(3997), "last", ""));

    std::string stored = read_file("/dev/log/main").substr(16);  // behind the ring's ends
    std::string_view first = stored;
    EXPECT_TRUE(take_log_entry(first));
    for (const size_t nul : {stored.find("tag") + 3, stored.find("first") + 5}) {
        stored[nul] = 'x';
        first = stored;
        EXPECT_THROW(take_log_entry(first), std::system_error);
        stored[nul] = '\0';
    }
}

TEST(KernelLog, RecordsAreParsed) {
    const struct {
        const char* text;
        const char* expected;  // priority, microseconds, tag, message; "" for none
    } kCases[] = {
        {"6,1,5000000,-;init: starting service\n", "4 5000000 [init] starting service"},
        {"0,1,0,-;no tag here\n SUBSYSTEM=usb\n DEVICE=x\n", "7 0 [] no tag here"},
        {"12,1,1,c,caller=T42;a: b: \\x5cxc3\\xc3\\xa4\\x1", "5 1 [a] b: \\xc3\xc3\xa4\x01"},
        {"7,9,-1,-;x", ""},
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
    append(LOG_ID_MAIN, "m2", 2);
    append(LOG_ID_CRASH, "c2", 2);
    append(LOG_ID_SYSTEM, "s1\nmore", 1);
    append(LOG_ID_SYSTEM, "s3", 3);
    run("log -b radio -p W -t t two -words; log -b radio hidden");
    EXPECT_EQ(run("logcat -d -v tag -b main,radio,crash -b system t:V tag:I *:E").output,
              "--------- beginning of system\nI/tag     : s1\nI/tag     : more\n"
              "--------- beginning of main\nI/tag     : m2\n"
              "--------- beginning of crash\nI/tag     : c2\nI/tag     : s3\n"
              "--------- beginning of radio\nW/t       : two -words\n");
    EXPECT_EQ(run("logcat -d").output, run("logcat -d -b main,system,crash").output);
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
    EXPECT_EQ(fs::file_size("/data/log.2"), 200 + sizeof("--------- beginning of main") + 8 * 100);
    EXPECT_EQ(fs::file_size("/data/log.1"), 1100U);
    EXPECT_THAT(read_file("/data/log"), StartsWith("1019."));
}

// A round's lines fill half of the ring, so each of them is there until logcat has read it.
TEST(Programs, AStoppedLogcatHasWrittenEachLineOnce) {
    constexpr size_t kEntries = 2500;
    for (size_t round = 0; round < 10; ++round) {
        const pid_t logcat = start("exec logcat -v raw -f /data/log -r 100 -n 99");
        std::vector<size_t> next(4);
        std::vector<std::jthread> writers;
        for (size_t writer = 0; writer < next.size(); ++writer) {
            writers.emplace_back([=] {
                for (size_t i = 0; i < kEntries; ++i) {
                    append(LOG_ID_MAIN,
                           android::base::StringPrintf("%zu %zu %zu %0100d", round, writer, i, 0));
                }
            });
        }
        ASSERT_TRUE(wait_until("/data", [] { return access("/data/log", F_OK) == 0; }));
        writers.clear();
        kill(logcat, SIGTERM);
        EXPECT_EQ(wait_status(logcat), SIGTERM);
        for (const std::string& line : lines_of("cat $(ls -r /data/log*); rm /data/log*")) {
            size_t number[3] = {};
            sscanf(line.c_str(), "%zu %zu %zu", &number[0], &number[1], &number[2]);
            if (line.size() > 100 && number[0] == round) {
                EXPECT_EQ(next.at(number[1])++, number[2]);
            }
        }
        EXPECT_THAT(next, Each(kEntries)) << round;
    }
    EXPECT_EQ(fs::file_size("/dev/log/main"), kLogStoreBytes + 16);
}

}  // namespace
