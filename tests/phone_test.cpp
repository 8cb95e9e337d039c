// SPDX-License-Identifier: Apache-2.0

// The cases that run on a phone, too: they replace none of its programs, read no log lines from
// standard error, share one process and leave nothing behind.

#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "utils/system_property_observer.h"
#include "utils/util.h"

namespace {

namespace fs = std::filesystem;
using namespace testing;

// Each case has a fresh folder.
class Folder : public Test {
  protected:
    Folder() {
        fs::create_directories(TempDir());
        EXPECT_NE(mkdtemp(dir_.data()), nullptr);
        dir_ += "/";
    }
    ~Folder() override { fs::remove_all(dir_); }

    std::string dir_ = TempDir() + "zq_brevix_XXXXXX";
};

std::vector<std::string> names_in(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

TEST(Names, CountIsFieldOneOfAWellFormedName) {
    const std::tuple<const char*, uint64_t, int64_t> cases[] = {
        {"ZQLog_7_2025-01-02-03-04-05", 3, 7},
        {"ZQLog_7_2025-01-02-03-04-05", 4, -1},
        {"ZQLog_x7_2025", 3, -1},
        {"ZQLog_010_t", 3, 10},
        {"ZQLog_12-3_t", 3, 12},
        {"ZQLog_12-X_t", 3, -1},
        {"ZQLog_ +8_t", 3, 8},
        {"ZQLog_-5_t", 3, -5},
        {"ZQLog_9223372036854775807_t", 3, INT64_MAX},
        {"crashlog_5_UIWDT_2026-11-15-10-46-07", 4, 5},
        {"crashlog_5_UI_WDT_2026", 4, -1},
        {"a__b_c", 3, -1},
        {"_3", 2, 3},
        {"name", 1, -1},
        {"", 0, -1},
    };
    for (const auto& [text, fields, count] : cases) {
        const std::string name = text;
        errno = ERANGE;  // a caller's errno survives
        EXPECT_EQ(ZQGetCountByFileName(name, fields), count) << name << " " << fields;
        EXPECT_EQ(errno, ERANGE) << name;
    }
    for (const char* name : {"ZQLog__t", "ZQLog_-_t", "ZQLog_ _5", "ZQLog_._t"}) {
        EXPECT_THROW(ZQGetCountByFileName(name, 3), std::invalid_argument) << name;
    }
    EXPECT_THROW(ZQGetCountByFileName("ZQLog_9223372036854775808_t", 3), std::out_of_range);
}

TEST(Names, OnlyTheFirstTokenEndsAtTheDelimiter) {
    const auto split = [](std::string text, const char* delim) {
        std::vector<char*> tokens;
        ZQSplitByDelim(tokens, text.data(), delim);
        return std::vector<std::string>(tokens.begin(), tokens.end());
    };
    EXPECT_THAT(split("a,b c,d", ","), ElementsAre("a", "b", "c,d"));
    EXPECT_THAT(split("/bin/x  -f y ", " "), ElementsAre("/bin/x", "-f", "y"));
    EXPECT_THAT(split("", " "), IsEmpty());
}

TEST_F(Folder, IsMadeWithItsLastComponentOpenAndAComposedNameCut) {
    umask(022);
    EXPECT_EQ(ZQCreateDir(dir_ + "a/b/"), 0);
    EXPECT_EQ(fs::status(dir_ + "a").permissions(), fs::perms(0755));
    fs::permissions(dir_ + "a/b", fs::perms(0700));
    std::ofstream(dir_ + "file") << "x";
    for (const char* path : {"a/b", "a/c", "file"}) {
        EXPECT_EQ(ZQCreateDir(dir_ + path), 0) << path;
        EXPECT_EQ(fs::status(dir_ + path).permissions(), fs::perms(0777)) << path;
    }
    char out[512];
    EXPECT_EQ(
        ZQCreateDirByFormat(dir_, "ZQLog_", 4294967296, "%Y-%m-%d-%H-%M-%S", sizeof(out), out), 0);
    EXPECT_THAT(out, MatchesRegex(dir_ + "ZQLog_4294967296_20..-..-..-..-..-.."));
    EXPECT_TRUE(fs::is_directory(out));
    EXPECT_EQ(ZQCreateDirByFormat(dir_, "ZQLog_", 12, "%Y", dir_.size() + 2, out), 0);
    EXPECT_EQ(out, dir_ + "Z");
    EXPECT_EQ(ZQCreateLogDir(dir_, "crashlog_", 4294967296, "UIWDT", "t", sizeof(out), out), 0);
    EXPECT_EQ(out, dir_ + "crashlog_4294967296_UIWDT_t");
    EXPECT_THAT(names_in(dir_), Contains("crashlog_4294967296_UIWDT_t"));
}

TEST_F(Folder, IsRemovedBelowTheCountKeptAndWithAMalformedName) {
    for (const char* name : {"ZQLog_0_a", "ZQLog_1_b/deep", "ZQLog_9_c", "ZQLog_bad", "ZQLog_-5_t",
                             "ZQLogs_0_t", "other"}) {
        fs::create_directories(dir_ + name);
    }
    EXPECT_FALSE(ZQRemoveOldFile(dir_, "ZQLog_", 3, -7, true, false));
    EXPECT_THAT(names_in(dir_),
                UnorderedElementsAre("ZQLog_0_a", "ZQLog_1_b", "ZQLog_9_c", "ZQLogs_0_t", "other"));
    EXPECT_FALSE(ZQRemoveOldFile(dir_, "ZQLog_", 3, 2, true, false));
    EXPECT_THAT(names_in(dir_), UnorderedElementsAre("ZQLog_9_c", "ZQLogs_0_t", "other"));
    EXPECT_FALSE(ZQRemoveOldFile(dir_, "", 3, 1, true, false));
    EXPECT_THAT(names_in(dir_), ElementsAre("ZQLog_9_c"));
}

TEST_F(Folder, SizeCountsRegularFilesOnceAndThroughLinks) {
    fs::create_directories(dir_ + "d/e");
    std::ofstream(dir_ + "a") << "12345";
    std::ofstream(dir_ + "d/e/.b") << "123";
    fs::create_symlink("a", dir_ + "link");
    fs::create_symlink("nowhere", dir_ + "dangling");
    fs::create_directory_symlink("d", dir_ + "dirlink");
    mkfifo((dir_ + "fifo").c_str(), 0600);
    EXPECT_EQ(GetDirectorySize(dir_), 5 + 3 + 5);
    for (const auto& [name, reason] :
         {std::pair{"a", "Not a directory"}, std::pair{"none", "No such file or directory"}}) {
        EXPECT_THAT(([path = dir_ + name] { GetDirectorySize(path); }),
                    ThrowsMessage<fs::filesystem_error>(HasSubstr(reason)));
    }
}

std::mutex calls_mutex;
std::condition_variable calls_changed;
std::vector<std::string> calls;

template <char handler>
void note(const char* name, bool on) {
    const std::lock_guard lock(calls_mutex);
    calls.push_back(std::string{handler, ' '} + name + (on ? " on" : " off"));
    calls_changed.notify_all();
}

std::vector<std::string> calls_once_there_are(size_t count) {
    std::unique_lock lock(calls_mutex);
    calls_changed.wait_for(lock, std::chrono::seconds(60),
                           [count] { return calls.size() >= count; });
    return calls;
}

TEST(Observer, CallsHandlersInOrderAndInTurn) {
    ZQSubscribe("debug.zq.a", note<'1'>);
    property_set("debug.zq.a", "true");  // does not mean on
    property_set("debug.zq.a", "1");
    calls_once_there_are(1);
    ZQSubscribe("debug.zq.a", note<'2'>);         // misses this "on"
    using step = std::pair<const char*, size_t>;  // a value, and the calls by then
    for (const auto& [value, count] :
         {step{"0", 3}, step{"1", 5}, step{"2", 5}, step{"1", 5}, step{"0", 7}}) {
        property_set("debug.zq.a", value);
        calls_once_there_are(count);
    }
    EXPECT_THAT(
        calls_once_there_are(7),
        ElementsAre("1 debug.zq.a on", "1 debug.zq.a off", "2 debug.zq.a off", "1 debug.zq.a on",
                    "2 debug.zq.a on", "1 debug.zq.a off", "2 debug.zq.a off"));
}

// Waits before it notes its call, so that an overlapping call has the time to start.
void note_alone(const char* name, bool on) {
    static int running = 0;
    {
        std::unique_lock lock(calls_mutex);
        EXPECT_EQ(++running, 1);
        calls_changed.wait_for(lock, std::chrono::milliseconds(50));
        --running;
    }
    note<'1'>(name, on);
}

TEST(Observer, EachPointerIsASubscriptionOfItsOwnAndNoTwoHandlersOverlap) {
    static const char one[] = "debug.zq.b";
    static const char two[] = "debug.zq.b";
    calls.clear();
    ZQSubscribe(one, note_alone);
    ZQSubscribe(two, note_alone);
    property_set(one, "1");
    EXPECT_THAT(calls_once_there_are(2), AllOf(SizeIs(2), Each("1 debug.zq.b on")));
}

}  // namespace
