// SPDX-License-Identifier: Apache-2.0

// The helpers below the daemon and the tools: retention, children, copies and the upgrade of
// settings; and the sub-commands of the executable.

#include "utils/util.h"

#include <climits>

#include "tests/device_fixture.h"
#include "utils/upgrade.h"

namespace {

using namespace brevix;
using namespace fixture;
using namespace testing;

constexpr int64_t kCeiling = 2147483648;

void make_dirs(const std::string& base, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        fs::create_directories(base + name);
    }
}

// --- Directories and times ---------------------------------------------------------------------

TEST(CreateDir, AFailureIsLogged) {
    write_file("/data/file", "x");
    const log_lines log;
    EXPECT_EQ(ZQCreateDir("/data/file/below"), 1);
    EXPECT_THAT(log.lines(),
                ElementsAre(MatchesRegex(
                    "E ZQ_UTIL: Cannot create: /data/file/below error: [a-z]+:[0-9]+")));
}

TEST(Times, FollowTheZoneThatIsSet) {
    for (const auto& [zone, hour] : {std::pair{"UTC0", 0}, std::pair{"JST-9", 9}}) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(local_time(0).tm_hour, hour) << zone;
    }
}

// --- Retention ---------------------------------------------------------------------------------

TEST(Retention, NextCountFollowsTheHighest) {
    make_dirs("/data/e/", {"ZQLog_x_1", "ZQLog_-5_t", "other_9_t"});
    const log_lines log;
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "ZQLog_", 3), 0);
    make_dirs("/data/e/", {"ZQLog_0_x", "ZQLog_5_y"});
    write_file("/data/e/ZQLog_5_z", "");
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "ZQLog_", 3), 6);
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "", 3), 10);
    make_dirs("/data/e/", {"int_2147483647_t", "long_9223372036854775807_t"});
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "int_", 3), INT_MIN);
    EXPECT_EQ(ZQGetNewLogCount("/data/e/", "long_", 3), 0);
    EXPECT_THROW(ZQGetNewLogCount("/data/none/", "", 3), fs::filesystem_error);
    EXPECT_EQ(ZQGetFileCount("/data/e"), 8);
    const std::string count = "I ZQ_UTIL: new count: ";
    EXPECT_THAT(log.lines(), ElementsAre(count + "0", count + "6", count + "10",
                                         count + "-2147483648", count + "0"));
}

// tmpfs lists entries in the order of their creation, or in reverse: the bad name is in the middle.
TEST(Retention, ANameThatThrowsEndsTheWalkAndSoDoesAFailure) {
    ASSERT_TRUE(mount_memory("/data"));
    make_dirs("/data/r/", {"ZQLog_0_a", "ZQLog__t", "ZQLog_0_b"});
    EXPECT_THROW(ZQRemoveOldFile("/data/r/", "ZQLog_", 3, 1, true, false), std::invalid_argument);
    EXPECT_THAT(names_in("/data/r"), AllOf(SizeIs(2), Contains("ZQLog__t")));
    make_dirs("/data/f/", {"ZQLog_0_a", "ZQLog_0_mounted", "ZQLog_0_b"});
    ASSERT_TRUE(mount_memory("/data/f/ZQLog_0_mounted"));
    EXPECT_TRUE(ZQRemoveOldFile("/data/f/", "ZQLog_", 3, 1, true, false));
    EXPECT_THAT(names_in("/data/f"), SizeIs(2));
}

TEST(Retention, CompressPacksTheEntriesThatAreKept) {
    write_file("/data/r/ZQLog_3_t/file", "content");
    write_file("/data/r/ZQLog_4_tar/file", "stays");
    const log_lines log;
    EXPECT_FALSE(ZQRemoveOldFile("/data/r/", "ZQLog_", 3, 3, true, true));
    EXPECT_THAT(log.lines(), ElementsAre(MatchesRegex("I ZQ_UTIL: tar_pid = [0-9]+")));
    EXPECT_THAT(names_in("/data/r"), ElementsAre("ZQLog_3_t.tar.gz", "ZQLog_4_tar"));
    EXPECT_EQ(mode_of("/data/r/ZQLog_3_t.tar.gz"), 0777);
    fs::create_directories("/data/out");
    // toybox tar may end a moment before the gzip that it writes through.
    EXPECT_TRUE(wait_until("/data/r", [] {
        run_shell("tar -xzf /data/r/ZQLog_3_t.tar.gz -C /data/out 2>/dev/null");
        return read_file("/data/out/file") == "content";
    }));
}

TEST(Size, FoldersThatVanishDuringTheWalkAreLeftOut) {
    write_file("/data/s/stays", "12345");
    for (int i = 0; i < 3000; ++i) {
        fs::create_directory("/data/s/" + std::to_string(i));
    }
    const pid_t app = start("rmdir /data/s/[0-9]*");
    while (waitpid(app, nullptr, WNOHANG) == 0) {
        EXPECT_EQ(GetDirectorySize("/data/s"), 5);
    }
    // One that may not be read, by root without its capabilities, is not left out.
    fs::create_directory("/data/s/unreadable");
    fs::permissions("/data/s/unreadable", fs::perms::none);
    drop_capabilities();
    EXPECT_THROW(GetDirectorySize("/data/s"), fs::filesystem_error);
}

TEST(Ceiling, LowestCountsGoUntilTheRestIsBelow) {
    using folders = std::map<std::string, int64_t>;  // names and their bytes
    const struct {
        const char* what;
        folders before;
        std::vector<std::string> after;
        const char* aging_build = "";
    } cases[] = {
        {"exactly the ceiling",
         {{"2_t", 1000}, {"10_t", 1000}, {"11_t", kCeiling - 2001}},
         {"10_t", "11_t", "2_t"}},
        {"one byte more",
         {{"2_t", 1000}, {"9_t", 1}, {"10_t", 1000}, {"11_t", kCeiling - 2001}},
         {"10_t", "11_t", "9_t"}},
        {"a remainder of exactly the ceiling",
         {{"1_t", 1}, {"2_t", 1}, {"3_t", 1}, {"4_t", kCeiling - 3}},
         {"3_t", "4_t"}},
        {"the highest", {{"4_t", 10}, {"5_t", kCeiling + 10}}, {"5_t"}},
        {"two with one count", {{"7_t", kCeiling}, {"7_u", kCeiling}}, {"7_t", "7_u"}},
        {"aging build", {{"1_t", kCeiling}, {"2_t", kCeiling}}, {"1_t", "2_t"}, "true"},
        {"aging build by number", {{"1_t", kCeiling}, {"2_t", kCeiling}}, {"1_t", "2_t"}, "1"},
        {"no aging build", {{"1_t", kCeiling}, {"2_t", kCeiling}}, {"2_t"}, "TRUE"},
    };
    const log_lines log;
    const size_t descriptors = names_in("/proc/self/fd").size();
    for (const auto& c : cases) {
        const std::string base = std::string("/data/") + c.what + "/";
        for (const auto& [name, bytes] : c.before) {
            write_file(base + "ZQLog_" + name + "/android.log", "");
            fs::resize_file(base + "ZQLog_" + name + "/android.log", bytes);
        }
        write_file(base + "unrelated", "1");  // a byte of the total
        fs::remove("/dev/__properties__/ro.boot.aging.build");
        set_property("ro.boot.aging.build", c.aging_build);
        EXPECT_EQ(ZQRemoveFileWithCheckSize(base, 99, "ZQLog_", 3), 0);
        std::vector<std::string> after{"unrelated"};
        for (const std::string& name : c.after) {
            after.push_back("ZQLog_" + name);
        }
        EXPECT_THAT(names_in(base), UnorderedElementsAreArray(after)) << c.what;
    }
    // One that was taken away since its name was read.
    fs::create_symlink("gone", "/data/the highest/ZQLog_4_t");
    EXPECT_EQ(ZQRemoveFileWithCheckSize("/data/the highest/", 99, "ZQLog_", 3), 0);
    EXPECT_THAT(names_in("/data/the highest"), ElementsAre("ZQLog_5_t", "unrelated"));
    EXPECT_EQ(names_in("/proc/self/fd").size(), descriptors);
    EXPECT_THAT(
        log.lines(),
        IsSupersetOf({"I ZQ_UTIL: directory= ZQLog_2_t, size= 1000",
                      "I ZQ_UTIL: sum size=1000, total size=2147483649",
                      "I ZQ_UTIL: at least we keep 1 folder",
                      "E ZQ_UTIL: maximum size exceed, remove it /data/one byte more/ZQLog_2_t"}));
    EXPECT_EQ(log_lines::count("remove it "), 6U);
}

// --- Children and copies -------------------------------------------------------------------------

int record(std::vector<const char*> argv) {
    argv.push_back(nullptr);
    const int pid = ZQRecordLog("test", const_cast<char* const*>(argv.data()));
    if (pid == 0) {
        _exit(127);
    }
    return pid;
}

TEST(Children, StartWithTheSignalsOfTheParentsStartAndNoDescriptorOfIt) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGUSR1, [](int) {});
    sigset_t blocked;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    write_file("/data/held", "");
    ASSERT_GE(open("/data/held", O_RDONLY | O_CLOEXEC), 0);
    // Without a shell: it would unblock the signals itself.
    wait_status(record({"/system/bin/cp", "/proc/self/status", "/data/status"}));
    EXPECT_THAT(proc_field("/data/status", "SigBlk"), MatchesRegex(kNoneBlocked));
    wait_status(
        start_shell_group("cat /proc/self/status >/data/status; ls -l /proc/self/fd >/data/fds"));
    // What was ignored before stays ignored. glibc's spawn adds two signals of its own, 32 and 33.
    const auto is_only_pipe = EndsWith("0001000");
    EXPECT_THAT(proc_field("/data/status", "SigIgn"), is_only_pipe);
    {
        const ignored_terminal_signals ignored;
        EXPECT_THAT(proc_field("/proc/self/status", "SigIgn"), EndsWith("0001006"));
        wait_status(start_shell_group("cat /proc/self/status >/data/status"));
    }
    EXPECT_THAT(proc_field("/proc/self/status", "SigIgn"), is_only_pipe);
    EXPECT_THAT(proc_field("/data/status", "SigIgn"), is_only_pipe);
    signal(SIGINT, SIG_IGN);
    {
        const ignored_terminal_signals ignored;
        wait_status(start_shell_group("cat /proc/self/status >/data/status"));
    }
    EXPECT_THAT(proc_field("/data/status", "SigIgn"), EndsWith("0001002"));
    EXPECT_THAT(read_file("/data/fds"),
                AllOf(HasSubstr("/data/fds"), Not(HasSubstr("/data/held"))));
}

TEST(Children, AStopRightAfterTheStartEndsTheChild) {
    signal(SIGTERM, [](int) {});
    for (int i = 0; i < 300; ++i) {
        const int pid = record({"/system/bin/sleep", "1000"});
        kill(pid, SIGTERM);
        ASSERT_EQ(wait_status(pid), SIGTERM) << i;
    }
}

TEST(ShellLines, AreBoundedAndTheirOutputIsNotRead) {
    const log_lines log;
    const std::string line = "date >/data/ran #";
    execute_cmd((line + std::string(1023 - line.size(), 'x')).c_str());
    EXPECT_TRUE(fs::exists("/data/ran"));
    const size_t descriptors = names_in("/proc/self/fd").size();
    execute_cmd("yes");  // ends by SIGPIPE
    EXPECT_EQ(names_in("/proc/self/fd").size(), descriptors);
    const pid_t pid = fork();
    if (pid == 0) {
        execute_cmd(std::string(1024, 'x').c_str());
        _exit(0);
    }
    EXPECT_EQ(wait_status(pid) & 0x7f, SIGABRT);
    EXPECT_EQ(run_shell("exit 7"), 7 << 8);
    // What a terminal's Ctrl-C goes to: the process group.
    const std::string show = "echo $0 $(cut -d ' ' -f 5 /proc/self/stat)";
    run_shell((show + " >/data/ran").c_str());
    execute_cmd((show + " >>/data/ran").c_str());
    const std::string shown = "sh " + std::to_string(getpgrp());
    EXPECT_THAT(read_lines("/data/ran"), ElementsAre(shown, shown));
    execute_cmd("echo seen >&2; echo not read");
    // Without a shell nothing is started, and so nothing is waited for.
    const pid_t stranger = start("exit 3");
    ASSERT_TRUE(wait_for_end(stranger));
    fs::remove("/system/bin/sh");
    EXPECT_EQ(run_shell("true"), -1);
    execute_cmd("true");
    ZQCopyFolder("/a", "/b");
    EXPECT_THAT(log.lines(),
                ElementsAre("F ZQ_UTIL: command longer than 1023 bytes", "seen",
                            "E ZQ_UTIL: fail to run true, error: No such file or directory",
                            "W ZQ_UTIL: fail to dump true"));
    EXPECT_EQ(wait_status(stranger), 3 << 8);
}

TEST(Copies, NeverOverwriteAndAlwaysOpenTheMode) {
    write_file("/data/from", "new");
    write_file("/data/old", "old");
    chmod("/data/old", 0600);
    const log_lines log;
    for (const char* to : {"/data/to", "/data/old"}) {
        ZQCopyFile("/data/from", to);
        EXPECT_EQ(mode_of(to), 0777) << to;
    }
    EXPECT_EQ(read_file("/data/to"), "new");
    EXPECT_EQ(read_file("/data/old"), "old");
    ZQCopyFile("/data/none", "/data/x");
    EXPECT_THAT(log.lines(),
                ElementsAre(AllOf(StartsWith("E ZQ_UTIL: fail to copy file from /data/from to "
                                             "/data/old, error: "),
                                  HasSubstr("File exists")),
                            HasSubstr("No such")));
}

TEST(Copies, ShellCopiesRunTheLineAsItIs) {
    write_program("/system/bin/cp", "echo \"$#:$*\" >>/data/cp");
    ZQCopyFolder("/a/b", "/c");
    ZQCopyCmd("/a b", "/c");
    ZQCopyCmd(std::string(500, 'a').c_str(), "/0123456789");
    EXPECT_THAT(read_lines("/data/cp"), ElementsAre("3:-r /a/b /c", "3:/a b /c",
                                                    "2:" + std::string(500, 'a') + " /012345"));
}

// --- Upgrade and dispatch ------------------------------------------------------------------------

TEST(Upgrade, MovesOldDefaultsAlone) {
    // Version and size before; version, size and rotate_kbytes after.
    const std::array<const char*, 5> cases[] = {
        {"", "", "1", "5", "20000"},     {"0", "2", "1", "5", "20000"},
        {"", "3", "1", "3", "20000"},    {"1", "2", "1", "2", "6000"},
        {"01", "2", "01", "2", "6000"},  {"07", "2", "7", "2", "6000"},
        {"-3x", "2", "-3", "2", "6000"},
    };
    const log_lines log;
    set_property("persist.sys.kmsglogfs.rotate_kbytes", "2000");
    for (const auto& [version, size, version_after, size_after, rotate_after] : cases) {
        set_property("persist.service.brevix.version", version);
        set_property("persist.sys.apklogfs.size", size);
        set_property("persist.sys.apklogfs.rotate_kbytes", "6000");
        EXPECT_EQ(ZQCheckUpgrade(), 0);
        EXPECT_EQ(property("persist.service.brevix.version"), version_after) << version;
        EXPECT_EQ(property("persist.sys.apklogfs.size"), size_after) << version;
        EXPECT_EQ(property("persist.sys.apklogfs.rotate_kbytes"), rotate_after) << version;
    }
    EXPECT_EQ(property("persist.sys.kmsglogfs.rotate_kbytes"), "6000");
    const std::string from_0 = "I ZQ_UPGRADE: upgrade from 0 to 1";
    EXPECT_THAT(log.lines(),
                ElementsAre(from_0, from_0, from_0, "I ZQ_UPGRADE: upgrade from 07 to 1",
                            "I ZQ_UPGRADE: upgrade from -3x to 1"));
    set_property("persist.service.brevix.version", "new");
    EXPECT_THROW(ZQCheckUpgrade(), std::invalid_argument);
}

TEST(Dispatch, ToolsAnswerToTheirArgumentsAndAlwaysEndWithZero) {
    write_program("/system/bin/cp", "echo \"cp $*\" >>/data/ran; kill -INT $PPID");
    write_program("/system/bin/touch", "echo \"touch $#\" >>/data/ran");
    for (const char* arguments :
         {"unknown", "CMD 'touch x'", "cmdx", "''", "copy_folder", "copy_folder /a", "cmd",
          "copy_folder /a /b /c", "cmd touch 'a b' c 4 5 6 7 8 9 10 11 12", "cmd 'exit 9'",
          "cmd 'kill -INT $PPID'"}) {
        EXPECT_EQ(run(std::string("zq_brevix ") + arguments).exit_status, 0) << arguments;
    }
    EXPECT_THAT(read_lines("/data/ran"), ElementsAre("cp -r /a /b", "touch 12"));
    EXPECT_THAT(run("zq_brevix cmd 'cat /proc/$$/cmdline;' true").output, HasSubstr("; true "));
    EXPECT_THAT(run("zq_brevix touchpanel x").output, HasSubstr("TouchPanel main end!!"));
    EXPECT_THAT(run("zq_brevix audio_dump x").output, HasSubstr("copy all AudioHalDumpFiles"));
}

}  // namespace
