#include <cutils/properties.h>
#include <sys/mount.h>

#include <set>

#include "tests/device_fixture.h"
#include "utils/util.h"
#include "zq_event_log.h"

namespace {

namespace fs = std::filesystem;
using namespace fixture;
using namespace testing;

const std::string kDropbox = "/data/system/dropbox/";
const std::string kTombstones = "/data/tombstones/";
const std::string kCrashlog = "/data/logs/crashlog/";
const std::string kStaging = "/data/brevix/eventTemp/";
const std::string kHistory = "/data/logs/history.event";
const std::string kNotices = "/data/brevix/queue.log";
const std::string kTime = "20..-..-..-..-..-..";

const tm kSomeTime = [] {
    tm time{};
    strptime("2026-11-05 09", "%Y-%m-%d %H", &time);
    return time;
}();

// As the platform does it: another name first.
void move_into_dropbox(const std::string& name, const std::string& content = "content") {
    write_file(kDropbox + "drop1.tmp", content);
    fs::rename(kDropbox + "drop1.tmp", kDropbox + name);
}

size_t count_in_log(const std::string& text) {
    const std::string log = read_file(log_lines::kFile);
    size_t count = 0;
    for (size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

void deliver(int first, int end) {
    for (int i = first; i < end; ++i) {
        move_into_dropbox("ZQEvent_p" + std::to_string(i) + "_e@1");
    }
}

class Events : public Test {
  protected:
    Events() {  // before a daemon that a case has as its member
        for (const char* dir : {"system/dropbox", "tombstones", "brevix", "logs"}) {
            fs::create_directories(std::string("/data/") + dir);
        }
        event_num_limit = 10;
    }
};

// --- History -------------------------------------------------------------------------------------

TEST_F(Events, HistoryAndReportHaveTheirFrozenForm) {
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
}

// --- Base log dump -------------------------------------------------------------------------------

TEST_F(Events, BaseLogDumpTakesFourSnapshots) {
    // The first one is the last to end: a scan that meets only some of them finished would go on to
    // the last pass.
    write_program("/system/bin/timeout",
                  "case $4 in *pre_android*) sleep 0.5 ;; esac; echo \"$*\" >>/data/dumps");
    const log_lines log;
    ZQDumpBaseLog("/data/logs");
    std::vector<std::string> dumps = read_lines("/data/dumps");
    std::sort(dumps.begin(), dumps.end());
    const std::string logcat = "10 /system/bin/logcat -f /data/logs/";
    EXPECT_THAT(dumps,
                ElementsAre(logcat + "pre_android.log -b system -b main -b crash -v threadtime -d",
                            logcat + "pre_event.log -b events -v threadtime -d",
                            logcat + "pre_kernel.log -b kernel -v threadtime -d",
                            logcat + "pre_radio.log -b radio -v threadtime -d"));
    EXPECT_EQ(count_in_log("still have some work"), 0U);
    EXPECT_EQ(count_in_log("dump base log done"), 4U);
}

TEST_F(Events, BaseLogDumpEndsWhatHangsAfterTenPasses) {
    write_program("/system/bin/timeout", "case $4 in *pre_radio*) exec sleep 1000 ;; esac");
    const log_lines log;
    ZQDumpBaseLog("/data/logs");
    EXPECT_EQ(count_in_log("dump base log not done"), 10U);
    EXPECT_EQ(count_in_log("still have some work not done yet, skip"), 1U);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    EXPECT_THAT(processes_named("sleep"), IsEmpty());
}

// --- Collection ----------------------------------------------------------------------------------

collect_result collect(int entry, int64_t row, const std::string& name) {
    return collect_event("/data/logs/", event_watches[entry], row, name,
                         event_settings.at(event_watches[entry].category[row]));
}

TEST_F(Events, AppEventsAreNamedByTheirFiles) {
    struct {
        std::string name;
        std::string folder;
    } const cases[] = {
        {"ZQEvent_com.example.app_Freeze@1.txt", "com\\.example\\.app_0_Freeze_"},
        {"ZQEvent_com.example.app_Freeze", "com\\.example\\.app_1_Freeze_"},
        {"ZQEvent_other_Freeze@x@y_z", "other_0_Freeze_"},
        {"ZQEvent__e", "_0_e_"},
        {"ZQEvent_p_" + std::string(40, 'e'), "p_0_" + std::string(31, 'e') + "_"},
        {"ZQEvent_p_\xc3\xa4", "p_1_\xc3\xa4_"},
        {"ZQEvent_com_example_Freeze", ""},
        {"ZQEvent_com@_Freeze", ""},
        {"x_ZQEvent_a_b", ""},
        {"ZQEvent_", ""},
    };
    const std::string dir = "/data/logs/zqeventlog/";
    std::vector<Matcher<std::string>> folders;
    for (const auto& [name, folder] : cases) {
        const log_lines log;
        EXPECT_EQ(collect(0, 3, name), collect_result::done);
        if (!folder.empty()) {
            folders.push_back(MatchesRegex(folder + kTime));
        }
        EXPECT_EQ(count_in_log("filename format incorrectly"), folder.empty() ? 1U : 0U) << name;
        EXPECT_THAT(names_in(dir), UnorderedElementsAreArray(folders)) << name;
    }
}

TEST_F(Events, TenFoldersOfAPrefixAreKept) {
    fs::create_directories(kCrashlog + "crashlog_7_ANR_t");
    fs::create_directories(kCrashlog + "crashlog_bad");
    event_num_limit = 3;
    for (int i = 0; i < 4; ++i) {
        move_into_dropbox("app_anr@" + std::to_string(i));
        EXPECT_EQ(collect(0, 1, "app_anr@" + std::to_string(i)), collect_result::done);
    }
    EXPECT_THAT(names_in(kCrashlog), ElementsAre(MatchesRegex("crashlog_10_ANR_" + kTime),
                                                 MatchesRegex("crashlog_11_ANR_" + kTime),
                                                 MatchesRegex("crashlog_9_ANR_" + kTime)));
    EXPECT_THAT(names_in(kStaging), SizeIs(3)) << "one goes for each that comes";
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
    EXPECT_EQ(collect(0, 0, name), collect_result::done);

    const std::string folder = kCrashlog + names_in(kCrashlog).at(0);
    const auto files =
        ElementsAre("eventfile", "pre_android.log", "pre_event.log", "pre_kernel.log",
                    "pre_radio.log", MatchesRegex("sf_2001-09-..-..-46-40.log"), "state", name,
                    "transaction_log", "transactions", "wdt_1.log.gz");
    EXPECT_THAT(names_in(folder), files);
    EXPECT_THAT(names_in(kStaging + fs::path(folder).filename().string()), files);
    EXPECT_EQ(read_file(folder + "/" + name), "blocked");
    EXPECT_EQ(mode_of(folder + "/" + name), 0777);
    EXPECT_THAT(read_lines(kNotices),
                ElementsAre(MatchesRegex(
                    "startservice -a com\\.velmora\\.brevix\\.action\\.EVENT -n "
                    "com\\.velmora\\.brevix/\\.logoutput\\.QueueTaskService --es name null "
                    "--es type UIWDT --es path " +
                    folder + " --es time " + kTime + " --user 0")));
}

TEST_F(Events, OnlySystemServerCrashesGetASnapshot) {
    for (const char* name : {"data_app_crash@1", "system_server_crash@2"}) {
        move_into_dropbox(name);
        EXPECT_EQ(collect(0, 2, name), collect_result::done);
    }
    const std::vector<std::string> folders = names_in(kCrashlog);
    EXPECT_THAT(names_in(kCrashlog + folders.at(0)), ElementsAre("data_app_crash@1", "eventfile"));
    EXPECT_THAT(names_in(kCrashlog + folders.at(1)), SizeIs(6));
}

TEST_F(Events, WhatFailsIsSaidAndTheRestGoesOn) {
    const log_lines log;
    write_file("/data/brevix/eventTemp", "a file in the way");
    EXPECT_EQ(collect(0, 1, "gone_anr"), collect_result::done);
    EXPECT_THAT(log.lines(), IsSupersetOf({"E ZQ_EVENT_LOG: state /data/system/dropbox/gone_anr "
                                           "fail, error: No such file or directory",
                                           "E ZQ_EVENT_LOG: unable to create event temp dir "}));
    EXPECT_THAT(read_lines(kNotices), SizeIs(1));

    event_num_limit = 1;
    const std::string folder = kCrashlog + names_in(kCrashlog).at(0);
    ASSERT_EQ(mount("none", folder.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(collect(0, 1, "gone_anr"), collect_result::done);
    EXPECT_EQ(log.lines().back(), "E ZQ_EVENT_LOG: remove old file failed!");
    EXPECT_THAT(read_lines(kHistory), SizeIs(1));
}

// --- Start-up ------------------------------------------------------------------------------------

TEST_F(Events, StartUpNotesTheRebootAndSavesTheConsoleLog) {
    write_file("/data/config/console-ramoops-0-tmp", "panic");
    property_set("ro.boot.panicmode", "1");
    property_set("ro.product.name", "board");
    property_set("ro.debuggable", "1");
    property_set("persist.service.brevix.ev.num", "12");
    fs::create_directories("/data/e");
    // Its observer threads have no end but that of their process.
    const pid_t pid = fork();
    if (pid == 0) {
        const int result = ZQEventDetect();
        write_history_event("CRASH", "ANR", "/data/e", "", kSomeTime);
        _exit(result == 0 && event_num_limit == 12 ? 0 : 1);
    }
    EXPECT_EQ(fixture::wait_status(pid), 0);
    EXPECT_FALSE(fs::exists("/data/config/console-ramoops-0-tmp"));
    EXPECT_THAT(names_in("/data/logs"),
                ElementsAre(MatchesRegex("console-ramoops-0-" + kTime), "history.event"));
    const std::string saved = "/data/logs/" + names_in("/data/logs").at(0);
    EXPECT_EQ(read_file(saved), "panic");
    EXPECT_EQ(mode_of(saved), 0777);
    EXPECT_THAT(read_lines(kHistory).at(0), MatchesRegex("REBOOT  .{19} KERNELPANIC     "));
    EXPECT_THAT(read_file("/data/e/eventfile"),
                AllOf(HasSubstr("BOARD=board\n"), HasSubstr("DEBUGGABLE=1\n")));
}

// --- The watcher, in the daemon ------------------------------------------------------------------

class Watcher : public Events {
  protected:
    void SetUp() override {
        for (const char* name : {"crashlog.enable", "custom.event", "event.detect"}) {
            set_switch(name, true);
            ASSERT_TRUE(wait_for_log(std::string(name) + " changed to 1", 1));
        }
        ASSERT_TRUE(wait_for_log("tombstones has been snooped", 1));
    }
    static void set_switch(const std::string& name, bool on) {
        property_set(("persist.service." + name).c_str(), on ? "1" : "0");
    }
    static bool wait_for_log(const std::string& text, size_t times) {
        return wait_until("/data", [&] { return count_in_log(text) >= times; });
    }
    static bool wait_for_notices(size_t count) {
        return wait_until("/data/brevix", [=] { return read_lines(kNotices).size() >= count; });
    }
    static std::set<std::string> packages_told() {
        std::set<std::string> packages;
        for (const std::string& line : read_lines(kNotices)) {
            packages.insert(line.substr(line.find("--es name "), 20));
        }
        return packages;
    }
    static std::vector<std::string> types_in_history() {
        std::vector<std::string> types;
        for (const std::string& line : read_lines(kHistory)) {
            types.push_back(line.substr(28, line.find(' ', 28) - 28));
        }
        types.erase(types.begin());  // the reboot
        return types;
    }
    size_t daemon_entries(const char* kind) const {
        return names_in("/proc/" + std::to_string(daemon_.pid) + "/" + kind).size();
    }

    daemon_process daemon_;
};

TEST_F(Watcher, ClassifiesByTheFirstRowThatMatches) {
    fs::create_directories(kDropbox + "dir_crash");
    write_file(kDropbox + "created_crash", "moved files only");
    const std::string no_folder = "ZQEvent_" + std::string(235, 'p');  // so the next row's chance
    const std::vector<std::string> names = {"system_server_watchdog_crash@1",
                                            "anr_crash@2",
                                            "data_app_crash@3",
                                            "ZQEvent_pkg_Hang@4",
                                            "ZQEvent_pkg_anr@5",
                                            "boring@6",
                                            "with blank crash@7",
                                            no_folder + "_x",
                                            "ZQEvent_a_b_crash",
                                            "system_server_pre_watchdog@8",
                                            "pre_watchdog_anr@9"};
    for (const std::string& name : names) {
        move_into_dropbox(name);
    }
    ASSERT_TRUE(wait_for_notices(8));
    EXPECT_THAT(types_in_history(), ElementsAre("UIWDT", "ANR", "JAVACRASH", "Hang", "ANR",
                                                "JAVACRASH", "x", "JAVACRASH", "ANR"));
    EXPECT_TRUE(wait_for_text("/data/logs/sf.log", "SurfaceFlinger"));
    EXPECT_THAT(daemon_.log.lines(),
                Contains(MatchesRegex("I ZQ_EVENT_LOG: event\\[wd:1, mask:0x128, cookie:[0-9]+, "
                                      "len:32, name:system_server_watchdog_crash@1\\]")));
}

TEST_F(Watcher, TombstonesCountAsTheyArrive) {
    const std::string other = "/data/elsewhere";
    write_file(other, "stone");
    ASSERT_EQ(link(other.c_str(), (kTombstones + "tombstone_01").c_str()), 0);
    link(other.c_str(), (kTombstones + "tombstone_01.pb").c_str());
    link(other.c_str(), (kTombstones + "tombstone_02.tmp").c_str());
    write_file(kTombstones + "tombstone_03", "created and written: two records");
    fs::rename(other, kTombstones + "tombstone_04");
    write_file(kTombstones + "other", "");
    ASSERT_EQ(link((kTombstones + "other").c_str(), (kTombstones + "tombstone_05").c_str()), 0);
    ASSERT_TRUE(wait_for_notices(4));
    EXPECT_THAT(types_in_history(), AllOf(SizeIs(4), Each("TOMBSTONE")));
    EXPECT_EQ(count_in_log("monitor a changed event: tombstone_01"), 1U);
    EXPECT_EQ(count_in_log("monitor a changed event: tombstone_03"), 2U);
    EXPECT_EQ(count_in_log("monitor a changed event: tombstone_05"), 1U);
}

TEST_F(Watcher, ASwitchedOffCategoryMakesNothing) {
    set_switch("crashlog.enable", false);
    ASSERT_TRUE(wait_for_log("persist.service.crashlog.enable changed to 0", 1));
    move_into_dropbox("anr@1");
    move_into_dropbox("ZQEvent_p_e@2");
    ASSERT_TRUE(wait_for_notices(1));
    EXPECT_THAT(types_in_history(), ElementsAre("e"));
    EXPECT_THAT(daemon_.log.lines(), Contains("I ZQ_EVENT_LOG: disable detecting CRASH"));
}

TEST_F(Watcher, ARemovedDirectoryIsMadeAndWatchedAgain) {
    for (size_t i = 1; i <= 10; ++i) {
        if (i % 2 == 0) {
            fs::rename(kTombstones, "/data/moved" + std::to_string(i));
        } else {
            fs::remove_all(kTombstones);
        }
        ASSERT_TRUE(wait_for_log("/data/tombstoneshas been deleted", i));
        write_file("/data/stone", "");
        ASSERT_EQ(link("/data/stone", (kTombstones + "tombstone_01").c_str()), 0);
        ASSERT_TRUE(wait_for_notices(i));
    }
    fs::remove_all(kDropbox);
    ASSERT_TRUE(wait_for_log("/data/system/dropboxhas been deleted", 1));
    move_into_dropbox("anr");
    ASSERT_TRUE(wait_for_notices(11));
    EXPECT_EQ(types_in_history().size(), 11U);
}

TEST_F(Watcher, ABurstIsCollectedOnceEach) {
    constexpr int kFiles = 300;
    deliver(0, kFiles);
    ASSERT_TRUE(wait_for_notices(kFiles));
    EXPECT_THAT(packages_told(), SizeIs(kFiles));
    EXPECT_THAT(read_lines(kNotices), SizeIs(kFiles));
    EXPECT_THAT(types_in_history(), SizeIs(kFiles));
    // The last child is collected with the next record.
    move_into_dropbox("boring");
    ASSERT_TRUE(wait_for_log("name:boring]", 1));
    EXPECT_TRUE(wait_until("/data", [&] { return children_of(daemon_.pid).empty(); }));
}

TEST_F(Watcher, NothingQueuedIsLostByASwitchOff) {
    write_program("/system/bin/cp", "exec sleep 0.05");  // events take their time
    deliver(0, 30);
    set_switch("event.detect", false);
    ASSERT_TRUE(wait_for_log("stop detecting", 1));
    move_into_dropbox("ZQEvent_while_off@1");
    set_switch("event.detect", true);
    ASSERT_TRUE(wait_for_log("tombstones has been snooped", 2));
    deliver(30, 40);
    ASSERT_TRUE(wait_for_notices(40));
    ASSERT_TRUE(wait_for_log("I ZQ_EVENT_LOG: exit", 1));
    EXPECT_THAT(types_in_history(), AllOf(SizeIs(40), Not(Contains("off"))));
}

TEST_F(Watcher, SwitchesInAStormLeaveItWhole) {
    const size_t threads = daemon_entries("task");
    const size_t descriptors = daemon_entries("fd");
    for (int i = 0; i < 300; ++i) {
        set_switch("event.detect", false);
        deliver(i, i + 1);
        set_switch("event.detect", true);
    }
    wait_until("/data", [] {
        const size_t stops = count_in_log("stop detecting");
        return count_in_log("I ZQ_EVENT_LOG: exit") == stops &&
               count_in_log("start detecting") == stops + 1;
    });
    EXPECT_GT(count_in_log("stop detecting"), 10U);
    move_into_dropbox("ZQEvent_last_e@1");
    ASSERT_TRUE(wait_for_text(kNotices, "--es name last "));
    EXPECT_TRUE(wait_until("/data", [&] { return daemon_entries("task") == threads; }));
    EXPECT_LE(daemon_entries("fd"), descriptors + 1);
    EXPECT_THAT(packages_told(), SizeIs(types_in_history().size())) << "none twice";
}

TEST_F(Events, SigtermForTheProcessEndsIt) {
    const log_lines log;
    property_set("persist.service.event.detect", "1");
    const pid_t daemon = start("exec zq_brevix");
    ASSERT_TRUE(wait_for_text(log.kFile, "tombstones has been snooped"));
    kill(daemon, SIGTERM);
    EXPECT_EQ(wait_status(daemon), SIGTERM);
}

TEST_F(Watcher, AFullDiskCostsFilesNotEvents) {
    ASSERT_EQ(mount("none", "/data/logs", "tmpfs", 0, "size=256k"), 0);
    write_file("/data/logs/fill", std::string(300000, 'x'));
    move_into_dropbox("anr@1", std::string(10000, 'y'));
    ASSERT_TRUE(wait_for_notices(1));
    fs::remove("/data/logs/fill");
    move_into_dropbox("anr@2", std::string(10000, 'y'));
    ASSERT_TRUE(wait_for_notices(2));
    const std::string folder = kCrashlog + names_in(kCrashlog).back();
    EXPECT_EQ(fs::file_size(folder + "/anr@2"), 10000U);
}

}  // namespace
