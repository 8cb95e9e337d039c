// SPDX-License-Identifier: Apache-2.0

// What becomes of one file: history, report, event folder, log snapshot, notice; and the start-up
// of detection. The watcher that finds the files is tried in watcher_test.cpp.

#include <thread>

#include "tests/device_fixture.h"
#include "tests/failing_threads.h"
#include "utils/util.h"
#include "zq_event_log.h"

// Takes the place of the pause between two passes of the base log dump.
static std::function<void()> while_asleep;
static unsigned seconds_slept = 0;
extern "C" unsigned __wrap_sleep(unsigned seconds) {
    seconds_slept += seconds;
    while_asleep();
    return 0;
}

// As when the user has no instance left.
static bool inotify_fails = false;
extern "C" int __real_inotify_init1(int flags);
extern "C" int __wrap_inotify_init1(int flags) {
    errno = EMFILE;
    return inotify_fails ? -1 : __real_inotify_init1(flags);
}

namespace {

using namespace brevix;
using namespace fixture;
using namespace std::chrono_literals;
using namespace testing;

const std::string kStaging = "/data/brevix/eventTemp/";

constexpr const char* kDateFormat = "%Y-%m-%d/%H:%M:%S";
const tm kSomeTime{0, 0, 9, 5, 10, 126, 0, 0, 0, 0, nullptr};  // 2026-11-05 09:00:00

// Until only `count` children of the test still run.
void wait_for_ends_but(size_t count) {
    EXPECT_TRUE(wait_until("/data", [=] { return children_of(getpid()).size() == count; }));
}

class Events : public Test {
  protected:
    void SetUp() override {
        setenv("TZ", kZone, 1);
        make_event_folders();
        event_num_limit = 10;
        while_asleep = [] { wait_for_ends_but(0); };
    }
};

// --- History -------------------------------------------------------------------------------------

TEST_F(Events, HistoryAndReportHaveTheirFrozenForm) {
    umask(0);
    fs::create_directories("/data/e");
    write_history_event("REBOOT", "KERNELPANIC ", nullptr, nullptr, kSomeTime);
    write_history_event("CRASH", "ANR", "/data/e", "", kSomeTime);
    write_history_event("LONGCATEGORY", "Freeze", "/data/e", "com.example", kSomeTime);
    write_history_event("CRASH", std::string(600, 'x').c_str(), nullptr, nullptr, kSomeTime);
    EXPECT_EQ(read_file(kHistory),
              "REBOOT  2026-11-05/09:00:00 KERNELPANIC     \n"
              "CRASH   2026-11-05/09:00:00 ANR /data/e\n"
              "LONGCATEGORY2026-11-05/09:00:00 Freeze /data/e\n"
              "CRASH   2026-11-05/09:00:00 " +
                  std::string(483, 'x'));
    const std::string device =
        "BOARD=\nSWVersion=\nFINGERPRINT=\nVERIFIED_BOOT_STATE=\nDEBUGGABLE=\n";
    EXPECT_EQ(read_file("/data/e/eventfile"), "EVENT=CRASH\nDATE=2026-11-05/09:00:00\n" + device +
                                                  "TYPE=ANR\n_END\n" +
                                                  "EVENT=LONGCATEGORY\nDATE=2026-11-05/09:00:00\n" +
                                                  device + "TYPE=Freeze\nNAME=com.example\n_END\n");

    for (const std::string path : {kHistory.c_str(), "/data/e/eventfile"}) {
        EXPECT_EQ(mode_of(path), 0664) << path;
    }

    // The report is longer than the FIFO holds, so it ends after its reader has looked at the
    // history.
    fs::remove(kHistory);
    fs::remove("/data/e/eventfile");
    mkfifo("/data/e/eventfile", 0600);
    std::thread app([] {
        const std::ifstream report("/data/e/eventfile");
        EXPECT_THAT(read_lines(kHistory), IsEmpty()) << "the line comes after the whole report";
        std::ostringstream() << report.rdbuf();
    });
    write_history_event("CRASH", "ANR", "/data/e", std::string(100000, 'x').c_str(), kSomeTime);
    app.join();
    EXPECT_THAT(read_lines(kHistory), SizeIs(1));

    const log_lines log;
    write_history_event("CRASH", "ANR", "/none", "", kSomeTime);
    EXPECT_THAT(read_lines(kHistory), SizeIs(2));
    fs::remove(kHistory);
    mkfifo(kHistory.c_str(), 0600);
    fs::remove("/data/e/eventfile");
    write_history_event("CRASH", "ANR", "/data/e", "", kSomeTime);
    EXPECT_FALSE(fs::exists("/data/e/eventfile"));
    EXPECT_THAT(log.lines(),
                ElementsAre("E ZQ_EVENT_LOG: open to write eventfile failed /none/eventfile",
                            "E ZQ_EVENT_LOG: open to write history event failed " + kHistory));
}

// --- Base log dump -------------------------------------------------------------------------------

TEST_F(Events, BaseLogDumpTakesFourSnapshots) {
    // The first dump runs until the first pass has seen it: a pass that collected only some of the
    // four would make the dump wait for all ten.
    mkfifo("/data/gate", 0600);
    write_program("/system/bin/timeout",
                  "case $4 in *pre_android*) cat /data/gate ;; esac; echo \"$*\" >>/data/dumps");
    while_asleep = [] {
        write_file("/data/gate", "go on");
        wait_for_ends_but(0);
    };
    const log_lines log;
    const std::string logcat = "10 /system/bin/logcat -f /data/logs/";
    for (const size_t times : {1U, 2U}) {
        write_file("/data/dumps", "");
        ZQDumpBaseLog("/data/logs");
        EXPECT_THAT(read_lines("/data/dumps"),
                    UnorderedElementsAre(
                        logcat + "pre_android.log -b system -b main -b crash -v threadtime -d",
                        logcat + "pre_event.log -b events -v threadtime -d",
                        logcat + "pre_kernel.log -b kernel -v threadtime -d",
                        logcat + "pre_radio.log -b radio -v threadtime -d"));
        EXPECT_EQ(log_lines::count("dump base log not done"), times);
        EXPECT_EQ(log_lines::count("dump base log done"), 4 * times);
    }
}

TEST_F(Events, BaseLogDumpEndsWhatHangsAfterTenPasses) {
    write_program("/system/bin/timeout",
                  "case $4 in *_event*) kill -KILL $$ ;; "
                  "*_radio*) trap 'kill $!; wait' TERM; sleep 1000 & wait ;; esac");
    while_asleep = [] {
        wait_for_ends_but(1);
        EXPECT_TRUE(wait_until("/data", [] { return processes_named("sleep").size() == 1; }));
    };
    const log_lines log;
    ZQDumpBaseLog("/data/logs");
    EXPECT_EQ(seconds_slept, 10U);
    EXPECT_EQ(log_lines::count("dump base log not done"), 10U);
    EXPECT_EQ(log_lines::count("log done 0"), 1U) << "one collected by an earlier pass is not done";
    EXPECT_EQ(log_lines::count("log done 1"), 0U) << "a killed one is not done";
    EXPECT_THAT(log.lines(),
                Contains("W ZQ_UTIL: dump base log still have some work not done yet, skip"));
    EXPECT_EQ(log.lines().back(), "I ZQ_UTIL: dump base log finished");
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    EXPECT_THAT(processes_named("sleep"), IsEmpty()) << "timeout ends its command at SIGTERM alone";
}

// --- Collection ----------------------------------------------------------------------------------

collect_result collect(const std::string& type, const std::string& name) {
    for (const event_watch& watch : event_watches) {
        for (int64_t row = 0; row < watch.count; ++row) {
            if (type == watch.type[row]) {
                return collect_event("/data/logs/", watch, row, name,
                                     event_settings.at(watch.category[row]));
            }
        }
    }
    throw std::out_of_range("no row makes " + type);
}

TEST_F(Events, AppEventsAreNamedByTheirFiles) {
    struct {
        std::string name;
        std::string folder;
    } const cases[] = {
        {"ZQEvent_com.example.app_Freeze@1.txt", "com.example.app_0_Freeze_"},
        {"ZQEvent_com.example.app_Freeze", "com.example.app_1_Freeze_"},
        {"ZQEvent_other_Freeze@x@y_z", "other_0_Freeze_"},
        {"ZQEvent__e", "_0_e_"},
        {"ZQEvent_p_" + std::string(40, 'e'), "p_0_" + std::string(31, 'e') + "_"},
        {"ZQEvent_p_\xc3\xa4", "p_1_\xc3\xa4_"},
        {"ZQEvent_" + std::string(160, 'p') + "_e", std::string(160, 'p') + "_0_e_"},
        {"ZQEvent_com_example_Freeze", ""},
        {"ZQEvent_com@_Freeze", ""},
        {"x_ZQEvent_a_b", ""},
        {"ZQEvent_", ""},
    };
    const std::string dir = "/data/logs/zqeventlog/";
    std::vector<Matcher<std::string>> folders;
    const log_lines log;
    for (const auto& [name, folder] : cases) {
        write_file(kDropbox + name, "");
        EXPECT_EQ(collect("CUSTOM", name), collect_result::done);
        if (!folder.empty()) {
            folders.push_back(AllOf(StartsWith(folder), SizeIs(folder.size() + 19)));  // the time
        }
        EXPECT_THAT(names_in(dir), UnorderedElementsAreArray(folders)) << name;
    }
    run("cat " + dir + "com.example.app_1_*/eventfile >/data/report");
    EXPECT_THAT(
        read_file("/data/report"),
        AllOf(StartsWith("EVENT=CUSTOM\n"), EndsWith("TYPE=Freeze\nNAME=com.example.app\n_END\n")));
    std::vector<std::string> lines = log.lines();
    EXPECT_THAT(
        lines,
        Contains("I ZQ_EVENT_LOG: parse info from file pkg: com.example.app, eventname: Freeze")
            .Times(2));
    const std::string notice = "I ZQ_EVENT_LOG: notify eventreport ";
    EXPECT_THAT(lines, Contains(AllOf(StartsWith(notice), SizeIs(notice.size() + 511)))) << "cut";
    std::erase_if(lines, [](auto& line) { return line[0] != 'E'; });
    const std::string fields = "E ZQ_EVENT_LOG: parse info from filename split size incorrectly";
    const std::string refused = "E ZQ_EVENT_LOG: filename format incorrectly";
    EXPECT_THAT(lines, ElementsAre(fields, refused, fields, refused,
                                   "E ZQ_EVENT_LOG: parse info from filename prefix incorrectly",
                                   refused, fields, refused));
}

TEST_F(Events, TheLimitHoldsForFoldersOfAPrefixAndForStagedOnes) {
    fs::create_directories(kCrashlog + "crashlog_99997_ANR_t");
    fs::create_directories(kCrashlog + "crashlog_bad");
    event_num_limit = 3;
    // tmpfs lists entries by age: neither end of the list is the one to go.
    fs::create_directories(kStaging);
    ASSERT_TRUE(mount_memory(kStaging));
    for (const auto& [name, age] : {std::pair{"latest", -24h}, std::pair{"oldest", 24h}}) {
        const std::string file = kStaging + name + "/file";
        write_file(file, "");
        fs::last_write_time(file, fs::file_time_type::clock::now() - 48h);
        fs::last_write_time(kStaging + name, fs::file_time_type::clock::now() - age);
    }
    for (int i = 0; i < 4; ++i) {
        move_into_dropbox("app_anr@" + std::to_string(i));
        EXPECT_EQ(collect("ANR", "app_anr@" + std::to_string(i)), collect_result::done);
    }
    EXPECT_THAT(names_in(kCrashlog), ElementsAre(MatchesRegex("crashlog_100000_ANR_" + kTime),
                                                 MatchesRegex("crashlog_100001_ANR_" + kTime),
                                                 MatchesRegex("crashlog_99999_ANR_" + kTime)));
    EXPECT_THAT(names_in(kStaging), AllOf(SizeIs(3), Contains("latest"), Not(Contains("oldest"))));
    for (const int lowered : {1, 0}) {  // one staged entry goes for each that comes
        event_num_limit = lowered;
        EXPECT_EQ(collect("ANR", "app_anr@0"), collect_result::done);
        EXPECT_THAT(names_in(kCrashlog), SizeIs(1));
        EXPECT_THAT(names_in(kStaging), SizeIs(3));
    }
}

TEST_F(Events, AWatchdogTakesItsDiagnosticsAlong) {
    const std::string name = "system_server_watchdog@5.txt";
    move_into_dropbox(name, "blocked");
    for (const char* file : {"state", "transaction_log", "transactions"}) {
        write_file(std::string("/dev/binderfs/binder_logs/") + file, file);
    }
    write_file("/data/logs/sf.log", "flinger");
    const timespec then[2] = {{1000000000, 999999999}, {1000000000, 999999999}};
    utimensat(AT_FDCWD, "/data/logs/sf.log", then, 0);
    write_file("/data/logs/wdt_1.log.gz", "wdt");
    write_file("/data/logs/wdt_1.txt", "no");
    write_file("/data/logs/x_wdt_.log", "no");
    fs::create_directories("/data/logs/wdt_dir.log");
    const log_lines log;
    EXPECT_EQ(collect("UIWDT", name), collect_result::done);

    const std::string folder = kCrashlog + names_in(kCrashlog).at(0);
    const auto files =
        ElementsAre("eventfile", "pre_android.log", "pre_event.log", "pre_kernel.log",
                    "pre_radio.log", "sf_2001-09-09-11-16-40.log", "state", name, "transaction_log",
                    "transactions", "wdt_1.log.gz");
    EXPECT_THAT(names_in(folder), files);
    EXPECT_THAT(names_in(kStaging + fs::path(folder).filename().string()), files);
    for (const auto& [file, text] : {std::pair{name.c_str(), "blocked"},
                                     {"state", "state"},
                                     {"transaction_log", "transaction_log"},
                                     {"transactions", "transactions"},
                                     {"sf_2001-09-09-11-16-40.log", "flinger"},
                                     {"wdt_1.log.gz", "wdt"}}) {
        EXPECT_EQ(read_file(folder + "/" + file), text);
    }
    EXPECT_EQ(mode_of(folder + "/" + name), 0777);
    EXPECT_THAT(read_lines(kNotices),
                ElementsAre(MatchesRegex(
                    "startservice -a com\\.velmora\\.brevix\\.action\\.EVENT -n "
                    "com\\.velmora\\.brevix/\\.logoutput\\.QueueTaskService --es name null "
                    "--es type UIWDT --es path " +
                    folder + " --es time " + folder.substr(folder.size() - 19) + " --user 0")));
    EXPECT_TRUE(is_now(folder.substr(folder.size() - 19), kFileTimeFormat));
    EXPECT_THAT(read_lines(kHistory), ElementsAre(MatchesRegex("CRASH   .{19} UIWDT " + folder)));
    EXPECT_TRUE(is_now(read_lines(kHistory).at(0).substr(8), kDateFormat));
    std::vector<std::string> lines = log.lines();
    // Which pass finds which dump's end is left to the scheduler; logcat may miss a /dev/kmsg.
    std::erase_if(lines, [](const std::string& line) {
        return line.find("dump base") != line.npos || line.find("ZQ_") != 2;
    });
    const std::string tag = "I ZQ_UTIL: tag: ";
    EXPECT_THAT(lines,
                ElementsAre("I ZQ_UTIL: new count: 0", "I ZQ_EVENT_LOG: Dump for system wdt",
                            StartsWith(tag + "android, pid: "), StartsWith(tag + "events, pid: "),
                            StartsWith(tag + "radio, pid: "), StartsWith(tag + "kernel, pid: "),
                            "I ZQ_EVENT_LOG: notify eventreport am " + read_lines(kNotices).at(0)));
}

TEST_F(Events, OnlySystemServerCrashesGetASnapshotAndAllAreStagedBeforeTheNotice) {
    write_program("/system/bin/am", "ls /data/brevix/eventTemp >/data/staged");
    const log_lines log;
    for (const char* name : {"data_app_crash@1", "system_server_crash@2"}) {
        move_into_dropbox(name);
        EXPECT_EQ(collect("JAVACRASH", name), collect_result::done);
        EXPECT_EQ(read_lines("/data/staged"), names_in(kStaging));
    }
    const std::vector<std::string> folders = names_in(kCrashlog);
    EXPECT_THAT(names_in(kCrashlog + folders.at(0)), ElementsAre("data_app_crash@1", "eventfile"));
    EXPECT_THAT(names_in(kCrashlog + folders.at(1)), SizeIs(6));
    EXPECT_THAT(log.lines(), Contains("I ZQ_EVENT_LOG: Dump for system crash").Times(1));
}

TEST_F(Events, AFailedStepIsLoggedAndTheOthersFollow) {
    const log_lines log;
    write_file("/data/brevix/eventTemp", "a file in the way");
    const std::string gone = "system_server_crash_gone";
    EXPECT_EQ(collect("JAVACRASH", gone), collect_result::done);
    EXPECT_THAT(log.lines(), IsSupersetOf({"E ZQ_EVENT_LOG: state /data/system/dropbox/" + gone +
                                               " fail, error: No such file or directory",
                                           std::string("E ZQ_EVENT_LOG: unable to create event "
                                                       "temp dir ")}));
    EXPECT_EQ(log_lines::count("Dump for"), 0U);
    EXPECT_THAT(read_lines(kNotices), SizeIs(1));

    event_num_limit = 1;
    const std::string folder = kCrashlog + names_in(kCrashlog).at(0);
    ASSERT_TRUE(mount_memory(folder));
    EXPECT_EQ(collect("JAVACRASH", gone), collect_result::done);
    EXPECT_EQ(log.lines().back(), "E ZQ_EVENT_LOG: remove old file failed!");
    umount(folder.c_str());
    fs::rename(kCrashlog, "/data/moved");
    write_file("/data/logs/crashlog", "");
    EXPECT_EQ(collect("JAVACRASH", gone), collect_result::done);
    EXPECT_THAT(log.lines(),
                Contains(MatchesRegex("E ZQ_UTIL: remove failed: " + folder + "error: [a-z]+:16")));
    EXPECT_THAT(read_lines(kHistory), SizeIs(1));
}

// --- Switch and start-up -------------------------------------------------------------------------

TEST_F(Events, WithoutInotifyOrAThreadDetectionStaysOff) {
    {
        const log_lines log;
        const pid_t pid = fork();
        if (pid == 0) {
            inotify_fails = true;
            event_detecting("", true);
            while (log_lines::count("inotify_init failed") == 0) {
                sched_yield();
            }
            event_detecting("", false);
            pause();
        }
        EXPECT_TRUE(wait_for_text(log_lines::kFile, ": exit\n"));
        kill(pid, SIGKILL);
        EXPECT_THAT(log.lines(),
                    ElementsAre("I ZQ_EVENT_LOG: start detecting",
                                StartsWith("E ZQ_EVENT_LOG: inotify_init failed. "),
                                "I ZQ_EVENT_LOG: stop detecting", "I ZQ_EVENT_LOG: exit"));
    }
    const log_lines log;
    let_threads_fail();
    event_detecting("", true);
    event_detecting("", false);
    EXPECT_THAT(log.lines(),
                ElementsAre("I ZQ_EVENT_LOG: start detecting", "E ZQ_EVENT_LOG: thread create fail",
                            "I ZQ_EVENT_LOG: stop detecting"));
}

TEST_F(Events, StartUpNotesTheRebootAndSavesTheConsoleLog) {
    write_file("/data/config/console-ramoops-0-tmp", "panic");
    set_property("ro.boot.panicmode", "1");
    set_property("ro.product.name", "board");
    set_property("ro.build.display.id", "release");
    set_property("ro.build.fingerprint", "print");
    set_property("ro.boot.verifiedbootstate", "green");
    set_property("ro.debuggable", "1");
    set_property("persist.service.brevix.ev.num", "12");
    fs::create_directories("/data/e");
    const log_lines log;
    // In a process of its own, because observer threads never end.
    const pid_t pid = fork();
    if (pid == 0) {
        const int result = ZQEventDetect();
        write_history_event("CRASH", "ANR", "/data/e", "", kSomeTime);
        _exit(result == 0 && event_num_limit == 12 ? 0 : 1);
    }
    EXPECT_EQ(wait_status(pid), 0);
    EXPECT_FALSE(fs::exists("/data/config/console-ramoops-0-tmp"));
    EXPECT_THAT(names_in("/data/logs"),
                ElementsAre(MatchesRegex("console-ramoops-0-" + kTime), "history.event"));
    const std::string saved = "/data/logs/" + names_in("/data/logs").at(0);
    EXPECT_EQ(read_file(saved), "panic");
    EXPECT_EQ(mode_of(saved), 0777);
    EXPECT_THAT(read_lines(kHistory).at(0), MatchesRegex("REBOOT  .{19} KERNELPANIC     "));
    EXPECT_TRUE(is_now(read_lines(kHistory).at(0).substr(8), kDateFormat));
    EXPECT_TRUE(is_now(saved.substr(saved.size() - 19), kFileTimeFormat));
    EXPECT_THAT(read_file("/data/e/eventfile"),
                HasSubstr("\nBOARD=board\nSWVersion=release\nFINGERPRINT=print\n"
                          "VERIFIED_BOOT_STATE=green\nDEBUGGABLE=1\n"));
    EXPECT_THAT(log.lines(), ElementsAre("I ZQ_EVENT_LOG: panic mode: 1",
                                         "W ZQ_EVENT_LOG: reboot because of kernel panic !!!"));
}

}  // namespace
