#include "utils/util.h"

#include <cutils/properties.h>
#include <sys/mount.h>

#include "tests/device_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr int64_t kCeiling = 2147483648;

void make_dirs(const std::string& base, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        fs::create_directories(base + name);
    }
}

void make_sparse_file(const std::string& path, int64_t bytes) {
    fixture::write_file(path, "");
    ASSERT_EQ(truncate(path.c_str(), bytes), 0);
}

// --- Directories and names ---------------------------------------------------------------------

TEST(Names, CountIsFieldOneOfAWellFormedName) {
    struct {
        const char* name;
        uint64_t fields;
        int64_t count;
    } const cases[] = {
        {"ZQLog_7_2025-01-02-03-04-05", 3, 7},
        {"ZQLog_7_2025-01-02-03-04-05", 4, -1},
        {"ZQLog_x7_2025", 3, -1},
        {"ZQLog_7X_2025", 3, -1},
        {"ZQLog_007_t", 3, 7},
        {"ZQLog_12-3_t", 3, 12},
        {"ZQLog_12-x_t", 3, -1},
        {"ZQLog_ +8_t", 3, 8},
        {"ZQLog_-5_t", 3, -5},
        {"ZQLog_9223372036854775807_t", 3, INT64_MAX},
        {"crashlog_5_UIWDT_2026-11-15-10-46-07", 4, 5},
        {"crashlog_5_UI_WDT_2026", 4, -1},
        {"a__b_c", 3, -1},
        {"_3", 2, 3},
        {"name", 1, -1},
        {"", 1, -1},
        {"", 0, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ZQGetCountByFileName(c.name, c.fields), c.count) << c.name << " " << c.fields;
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

TEST(CreateDir, OpensTheLastComponentAlone) {
    umask(022);
    EXPECT_EQ(ZQCreateDir("/data/a/b/"), 0);
    EXPECT_EQ(fixture::mode_of("/data/a"), 0755);
    EXPECT_EQ(ZQCreateDir("/data/a/c"), 0);
    EXPECT_EQ(fixture::mode_of("/data/a/c"), 0777);
    chmod("/data/a/c", 0700);
    EXPECT_EQ(ZQCreateDir("/data/a/c"), 0);
    EXPECT_EQ(fixture::mode_of("/data/a/c"), 0777);
}

TEST(CreateDir, AFileInThePlaceIsTakenUnlessThePathEndsInASlash) {
    fixture::write_file("/data/file", "x");
    EXPECT_EQ(ZQCreateDir("/data/file"), 0);
    EXPECT_EQ(fixture::mode_of("/data/file"), 0777);
    const fixture::log_lines log;
    EXPECT_EQ(ZQCreateDir("/data/file/"), 1);
    EXPECT_EQ(ZQCreateDir("/data/file/below"), 1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(MatchesRegex("E ZQ_UTIL: Cannot create: /data/file/ error: [a-z]+:[0-9]+"),
                    MatchesRegex("E ZQ_UTIL: Cannot create: /data/file/below error: "
                                 "[a-z]+:20")));
}

TEST(CreateDir, ComposedNamesAreCutToTheCallersBuffer) {
    char out[512];
    EXPECT_EQ(ZQCreateDirByFormat("/data/", "ZQLog_", 12, "%Y-%m-%d-%H-%M-%S", sizeof(out), out),
              0);
    EXPECT_THAT(out, MatchesRegex("/data/ZQLog_12_20..-..-..-..-..-.."));
    EXPECT_TRUE(fs::is_directory(out));
    EXPECT_EQ(ZQCreateDirByFormat("/data/", "ZQLog_", 12, "%Y", 8, out), 0);
    EXPECT_STREQ(out, "/data/Z");
    EXPECT_EQ(ZQCreateLogDir("/data/", "crashlog_", 5, "UIWDT", "t", sizeof(out), out), 0);
    EXPECT_STREQ(out, "/data/crashlog_5_UIWDT_t");
    EXPECT_THAT(fixture::names_in("/data"), testing::Contains("crashlog_5_UIWDT_t"));
}

// --- Retention ---------------------------------------------------------------------------------

TEST(Retention, NextCountFollowsTheHighest) {
    make_dirs("/data/e/", {});
    fs::create_directories("/data/e");
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "ZQLog_", 3), 0);
    make_dirs("/data/e/", {"ZQLog_x_1", "ZQLog_-5_t", "other_9_t"});
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "ZQLog_", 3), 0);
    make_dirs("/data/e/", {"ZQLog_0_x", "ZQLog_5_y", "ZQLog_5_z"});
    const fixture::log_lines log;
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "ZQLog_", 3), 6);
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "", 3), 10);
    EXPECT_THAT(log.lines(), ElementsAre("I ZQ_UTIL: new count: 6", "I ZQ_UTIL: new count: 10"));
    EXPECT_THROW(ZQGetNewLogCount("/data/none/", "", 3), fs::filesystem_error);
    EXPECT_EQ(ZQGetFileCount("/data/e"), 6);
}

TEST(Retention, RemovesBelowTheCountKeptAndMalformedNames) {
    make_dirs("/data/r/",
              {"ZQLog_0_a", "ZQLog_1_b/deep", "ZQLog_9_c", "ZQLog_bad", "ZQLog_-5_t", "other"});
    EXPECT_FALSE(ZQRemoveOldFile("/data/r/", "ZQLog_", 3, -7, true, false));
    EXPECT_THAT(fixture::names_in("/data/r"),
                ElementsAre("ZQLog_0_a", "ZQLog_1_b", "ZQLog_9_c", "other"));
    EXPECT_FALSE(ZQRemoveOldFile("/data/r/", "ZQLog_", 3, 2, true, false));
    EXPECT_THAT(fixture::names_in("/data/r"), ElementsAre("ZQLog_9_c", "other"));
    EXPECT_FALSE(ZQRemoveOldFile("/data/r/", "", 3, 0, true, false));
    EXPECT_THAT(fixture::names_in("/data/r"), ElementsAre("ZQLog_9_c"));
}

TEST(Retention, AFailedRemovalEndsTheWalk) {
    make_dirs("/data/r/", {"ZQLog_0_a"});
    ASSERT_EQ(mount("none", "/data/r/ZQLog_0_a", "tmpfs", 0, nullptr), 0);
    const fixture::log_lines log;
    EXPECT_TRUE(ZQRemoveOldFile("/data/r/", "ZQLog_", 3, 1, true, false));
    EXPECT_EQ(ZQRemoveFile("/data/none"), 0);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(MatchesRegex("E ZQ_UTIL: remove failed: /data/r/ZQLog_0_aerror: [a-z]+:16")));
}

TEST(Retention, CompressPacksWhatIsKept) {
    fixture::write_file("/data/r/ZQLog_3_t/file", "content");
    fixture::write_file("/data/r/ZQLog_4_tar/file", "stays");
    EXPECT_FALSE(ZQRemoveOldFile("/data/r/", "ZQLog_", 3, 3, true, true));
    EXPECT_THAT(fixture::names_in("/data/r"), ElementsAre("ZQLog_3_t.tar.gz", "ZQLog_4_tar"));
    EXPECT_EQ(fixture::mode_of("/data/r/ZQLog_3_t.tar.gz"), 0777);
    fs::create_directories("/data/out");
    EXPECT_EQ(run_shell("tar -xzf /data/r/ZQLog_3_t.tar.gz -C /data/out"), 0);
    EXPECT_EQ(fixture::read_file("/data/out/file"), "content");
}

TEST(Size, CountsRegularFilesOnceAndThroughLinks) {
    fixture::write_file("/data/s/a", "12345");
    fixture::write_file("/data/s/d/e/b", "123");
    fs::create_symlink("a", "/data/s/link");
    fs::create_symlink("nowhere", "/data/s/dangling");
    fs::create_directory_symlink("d", "/data/s/dirlink");
    mkfifo("/data/s/fifo", 0600);
    EXPECT_EQ(GetDirectorySize("/data/s"), 5 + 3 + 5);
    EXPECT_THROW(GetDirectorySize("/data/s/a"), fs::filesystem_error);
    EXPECT_THROW(GetDirectorySize("/data/none"), fs::filesystem_error);
}

class Ceiling : public testing::Test {
  protected:
    void capture(int count, int64_t bytes) {
        make_sparse_file(kBase + "ZQLog_" + std::to_string(count) + "_t/android.log", bytes);
    }
    static std::vector<std::string> trim() {
        EXPECT_EQ(ZQRemoveFileWithCheckSize(kBase, 99, "ZQLog_", 3), 0);
        return fixture::names_in(kBase);
    }
    static inline const std::string kBase = "/data/c/";
};

TEST_F(Ceiling, IsExceededByOneByteAndTrimmedBelow) {
    capture(2, 1000);
    capture(10, 1000);
    capture(11, kCeiling - 2000);
    EXPECT_THAT(trim(), testing::SizeIs(3)) << "exactly the ceiling";

    capture(9, 1);
    const fixture::log_lines log;
    EXPECT_THAT(trim(), UnorderedElementsAre("ZQLog_10_t", "ZQLog_11_t", "ZQLog_9_t"));
    EXPECT_THAT(log.lines(),
                ElementsAre("I ZQ_UTIL: directory= ZQLog_2_t, size= 1000",
                            "I ZQ_UTIL: sum size=1000, total size=2147483649",
                            "E ZQ_UTIL: maximum size exceed, remove it /data/c/ZQLog_2_t"));
}

TEST_F(Ceiling, ARemainderOfExactlyTheCeilingLosesOneMore) {
    capture(1, 1);
    capture(2, 1);
    capture(3, kCeiling - 1);
    EXPECT_THAT(trim(), ElementsAre("ZQLog_3_t"));
}

TEST_F(Ceiling, TheHighestCountIsNeverRemoved) {
    capture(4, 10);
    capture(5, kCeiling + 10);
    fixture::write_file(kBase + "unrelated", "x");
    const fixture::log_lines log;
    EXPECT_THAT(trim(), ElementsAre("ZQLog_5_t", "unrelated"));
    EXPECT_EQ(log.lines().at(2), "I ZQ_UTIL: at least we keep 1 folder");
}

TEST_F(Ceiling, OfTwoWithOneCountOneIsNoCandidate) {
    capture(7, kCeiling);
    make_sparse_file(kBase + "ZQLog_7_u/android.log", kCeiling);
    EXPECT_THAT(trim(), ElementsAre("ZQLog_7_t", "ZQLog_7_u"));
}

TEST_F(Ceiling, IsSwitchedOffOnAgingBuildsOnly) {
    capture(1, kCeiling);
    capture(2, kCeiling);
    property_set("ro.boot.aging.build", "true");
    EXPECT_THAT(trim(), testing::SizeIs(2));
    fs::remove("/dev/__properties__/ro.boot.aging.build");
    property_set("ro.boot.aging.build", "TRUE");
    EXPECT_THAT(trim(), ElementsAre("ZQLog_2_t"));
}

TEST_F(Ceiling, AFileWithThePrefixThrows) {
    capture(2, kCeiling + 1);
    fixture::write_file(kBase + "ZQLog_1_t", "x");
    EXPECT_THROW(trim(), fs::filesystem_error);
}

// --- Children and copies -------------------------------------------------------------------------

int wait_status(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}

int record(std::vector<const char*> argv) {
    argv.push_back(nullptr);
    const int pid = ZQRecordLog("test", const_cast<char* const*>(argv.data()));
    if (pid == 0) {
        _exit(127);
    }
    return pid;
}

TEST(Children, StartWithDefaultSignalsAndNoDescriptorOfTheParent) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGUSR1, [](int) {});
    sigset_t blocked;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    fixture::write_file("/data/held", "");
    ASSERT_GE(open("/data/held", O_RDONLY | O_CLOEXEC), 0);
    const char* line =
        "grep -E 'Sig(Blk|Ign|Cgt)' /proc/self/status >/data/signals; "
        "ls -l /proc/self/fd >/data/fds";
    const std::function<void()> ways[] = {
        [=] {
            wait_status(record({"/system/bin/sh", "-c", line}));
        },
        [=] { run_shell(line); },
        [=] { wait_status(start_shell_group(line)); },
        [=] { execute_cmd(line); },
    };
    for (const auto& start : ways) {
        std::filesystem::remove("/data/signals");
        start();
        const std::string none = "\t0000000000000000";
        EXPECT_THAT(fixture::read_lines("/data/signals"),
                    ElementsAre("SigBlk:" + none, "SigIgn:" + none, "SigCgt:" + none));
        EXPECT_THAT(fixture::read_file("/data/fds"),
                    AllOf(HasSubstr("/data/fds"), Not(HasSubstr("/data/held"))));
    }
}

TEST(Children, AShellGroupIsReachedAsAWhole) {
    const pid_t group = start_shell_group("sleep 1000 & echo >/data/up; sleep 1000; true");
    ASSERT_TRUE(fixture::wait_until("/data", [] { return fs::exists("/data/up"); }));
    EXPECT_EQ(getpgid(group), group);
    const std::vector<pid_t> sleepers = fixture::processes_named("sleep");
    kill(-group, SIGKILL);
    EXPECT_EQ(wait_status(group), SIGKILL);
    for (const pid_t sleeper : sleepers) {
        EXPECT_TRUE(fixture::wait_for_end(sleeper));
    }
}

volatile sig_atomic_t handled = 0;

TEST(Children, AStopBetweenForkAndExecEndsTheChild) {
    signal(SIGTERM, [](int) { handled = 1; });
    for (int i = 0; i < 300; ++i) {
        const int pid = record({"/system/bin/sleep", "1000"});
        ASSERT_GT(pid, 0);
        kill(pid, SIGTERM);
        const int status = wait_status(pid);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << i;
    }
}

TEST(Children, AProgramThatCannotBeStartedGivesZeroInTheChild) {
    const fixture::log_lines log;
    const int pid = record({"/system/bin/none", "x"});
    EXPECT_EQ(wait_status(pid), 127 << 8);
    EXPECT_THAT(log.lines(), ElementsAre("I ZQ_UTIL: tag: test, pid: " + std::to_string(pid)));
}

TEST(ShellLines, AreBoundedAndTheirOutputIsNotRead) {
    const std::string line = "date >/data/ran #";
    execute_cmd((line + std::string(1023 - line.size(), 'x')).c_str());
    EXPECT_TRUE(fs::exists("/data/ran"));
    execute_cmd("yes");  // ends by SIGPIPE
    const pid_t pid = fork();
    if (pid == 0) {
        execute_cmd(std::string(1024, 'x').c_str());
        _exit(0);
    }
    EXPECT_EQ(wait_status(pid) & 0x7f, SIGABRT);
    EXPECT_EQ(run_shell("exit 7"), 7 << 8);
}

TEST(Copies, NeverOverwriteAndAlwaysOpenTheMode) {
    fixture::write_file("/data/from", "new");
    fixture::write_file("/data/old", "old");
    chmod("/data/old", 0600);
    const fixture::log_lines log;
    ZQCopyFile("/data/from", "/data/to");
    EXPECT_EQ(fixture::read_file("/data/to"), "new");
    EXPECT_EQ(fixture::mode_of("/data/to"), 0777);
    ZQCopyFile("/data/from", "/data/old");
    EXPECT_EQ(fixture::read_file("/data/old"), "old");
    EXPECT_EQ(fixture::mode_of("/data/old"), 0777);
    ZQCopyFile("/data/none", "/data/x");
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            MatchesRegex("E ZQ_UTIL: fail to copy file from /data/from to /data/old, error: .*File "
                         "exists.*"),
            MatchesRegex(
                "E ZQ_UTIL: fail to copy file from /data/none to /data/x, error: .*No such.*")));
}

TEST(Copies, ShellCopiesRunTheLineAsItIs) {
    fixture::write_program("/system/bin/cp", "echo \"$#:$*\" >>/data/cp");
    ZQCopyFolder("/a/b", "/c");
    ZQCopyCmd("/a b", "/c");
    ZQCopyCmd(std::string(500, 'a').c_str(), "/0123456789");
    EXPECT_THAT(
        fixture::read_lines("/data/cp"),
        ElementsAre("3:-r /a/b /c", "3:/a b /c", "2:" + std::string(500, 'a') + " /012345"));
}

}  // namespace
