#include <cutils/properties.h>
#include <sys/mount.h>

#include "tests/device_fixture.h"
#include "utils/util.h"
#include "zq_event_log.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

const std::string kDropbox = "/data/system/dropbox/";
const std::string kTombstones = "/data/tombstones/";
const std::string kCrashlog = "/data/logs/crashlog/";
const std::string kStaging = "/data/brevix/eventTemp/";
const std::string kHistory = "/data/logs/history.event";
const std::string kNotices = "/data/brevix/queue.log";
const std::string kTime = "20..-..-..-..-..-..";

tm some_time() {
    tm time{};
    time.tm_year = 126;
    time.tm_mon = 10;
    time.tm_mday = 5;
    time.tm_hour = 9;
    return time;
}

// As the platform does it: another name first.
void move_into_dropbox(const std::string& name, const std::string& content = "content") {
    fixture::write_file(kDropbox + "drop1.tmp", content);
    fs::rename(kDropbox + "drop1.tmp", kDropbox + name);
}

size_t count_of(const std::vector<std::string>& lines, const std::string& text) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

class Events : public testing::Test {
  protected:
    void SetUp() override {
        for (const std::string& dir :
             {kDropbox, kTombstones, std::string("/data/brevix"), std::string("/data/logs")}) {
            fs::create_directories(dir);
        }
        event_num_limit = 10;
    }
};

// --- History -------------------------------------------------------------------------------------

TEST_F(Events, HistoryAndReportHaveTheirFrozenForm) {
    fs::create_directories("/data/e");
    write_history_event("REBOOT", "KERNELPANIC ", nullptr, nullptr, some_time());
    write_history_event("CRASH", "ANR", "/data/e", "", some_time());
    write_history_event("LONGCATEGORY", "Freeze", "/data/e", "com.example", some_time());
    write_history_event("CRASH", std::string(600, 'x').c_str(), nullptr, nullptr, some_time());
    EXPECT_EQ(fixture::read_file(kHistory),
              "REBOOT  2026-11-05/09:00:00 KERNELPANIC     \n"
              "CRASH   2026-11-05/09:00:00 ANR /data/e\n"
              "LONGCATEGORY2026-11-05/09:00:00 Freeze /data/e\n"
              "CRASH   2026-11-05/09:00:00 " +
                  std::string(483, 'x'));
    const std::string device =
        "BOARD=\nSWVersion=\nFINGERPRINT=\nVERIFIED_BOOT_STATE=\nDEBUGGABLE=\n";
    EXPECT_EQ(fixture::read_file("/data/e/eventfile"),
              "EVENT=CRASH\nDATE=2026-11-05/09:00:00\n" + device + "TYPE=ANR\n_END\n" +
                  "EVENT=LONGCATEGORY\nDATE=2026-11-05/09:00:00\n" + device +
                  "TYPE=Freeze\nNAME=com.example\n_END\n");
}

TEST_F(Events, WhatCannotBeOpenedIsSaid) {
    const fixture::log_lines log;
    write_history_event("CRASH", "ANR", "/data/none", "", some_time());
    EXPECT_THAT(fixture::read_file(kHistory), HasSubstr("ANR /data/none\n"));
    fs::remove(kHistory);
    fs::create_directories(kHistory);
    write_history_event("CRASH", "ANR", "/data/logs", "", some_time());
    EXPECT_FALSE(fs::exists("/data/logs/eventfile"));
    EXPECT_THAT(
        log.lines(),
        ElementsAre("E ZQ_EVENT_LOG: open to write eventfile failed /data/none/eventfile",
                    "E ZQ_EVENT_LOG: open to write history event failed /data/logs/history.event"));
}

// --- Base log dump -------------------------------------------------------------------------------

TEST_F(Events, BaseLogDumpTakesFourSnapshots) {
    // The first one is the last to end: a scan that meets only some of them finished would go on to
    // the last pass.
    fixture::write_program(
        "/system/bin/timeout",
        "case $4 in *pre_android*) sleep 0.5 ;; esac; echo \"$*\" >>/data/dumps");
    const fixture::log_lines log;
    ZQDumpBaseLog("/data/logs");
    std::vector<std::string> dumps = fixture::read_lines("/data/dumps");
    std::sort(dumps.begin(), dumps.end());
    const std::string logcat = "10 /system/bin/logcat -f /data/logs/";
    EXPECT_THAT(dumps,
                ElementsAre(logcat + "pre_android.log -b system -b main -b crash -v threadtime -d",
                            logcat + "pre_event.log -b events -v threadtime -d",
                            logcat + "pre_kernel.log -b kernel -v threadtime -d",
                            logcat + "pre_radio.log -b radio -v threadtime -d"));
    const std::vector<std::string> lines = log.lines();
    EXPECT_EQ(lines.back(), "I ZQ_UTIL: dump base log finished");
    EXPECT_EQ(count_of(lines, "still have some work"), 0U);
    EXPECT_EQ(count_of(lines, "dump base log done"), 4U);
}

TEST_F(Events, BaseLogDumpEndsWhatHangsAfterTenPasses) {
    fixture::write_program("/system/bin/timeout",
                           "case $4 in *pre_radio*) exec sleep 1000 ;; esac");
    const fixture::log_lines log;
    ZQDumpBaseLog("/data/logs");
    const std::vector<std::string> lines = log.lines();
    EXPECT_EQ(count_of(lines, "dump base log not done"), 10U);
    EXPECT_THAT(lines,
                Contains("W ZQ_UTIL: dump base log still have some work not done yet, skip"));
    int status = 0;
    while (waitpid(-1, &status, 0) > 0) {
    }
    EXPECT_THAT(fixture::processes_named("sleep"), IsEmpty());
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
    for (const auto& c : cases) {
        fs::create_directories(dir);
        const std::vector<std::string> before = fixture::names_in(dir);
        const fixture::log_lines log;
        EXPECT_EQ(collect(0, 3, c.name), collect_result::done);
        std::vector<std::string> made;
        std::ranges::set_difference(fixture::names_in(dir), before, std::back_inserter(made));
        if (c.folder.empty()) {
            EXPECT_THAT(made, IsEmpty()) << c.name;
            EXPECT_THAT(log.lines().back(), EndsWith("filename format incorrectly"));
        } else {
            EXPECT_THAT(made, ElementsAre(MatchesRegex(c.folder + kTime))) << c.name;
        }
    }
}

TEST_F(Events, APackageTooLongForAFolderGetsItsHistoryLineAlone) {
    const fixture::log_lines log;
    EXPECT_EQ(collect(0, 3, "ZQEvent_" + std::string(235, 'p') + "_Freeze"),
              collect_result::next_row);
    EXPECT_THAT(log.lines().back(),
                HasSubstr("create new log dir failed! /data/logs/zqeventlog/ppp"));
    EXPECT_THAT(fixture::read_lines(kHistory), ElementsAre(MatchesRegex("CUSTOM  .* Freeze {10}")));
    EXPECT_FALSE(fs::exists(kNotices));
}

TEST_F(Events, TenFoldersOfAPrefixAreKept) {
    fs::create_directories(kCrashlog + "crashlog_7_ANR_t");
    fs::create_directories(kCrashlog + "crashlog_bad");
    event_num_limit = 3;
    for (int i = 0; i < 4; ++i) {
        move_into_dropbox("app_anr@" + std::to_string(i));
        EXPECT_EQ(collect(0, 1, "app_anr@" + std::to_string(i)), collect_result::done);
    }
    EXPECT_THAT(fixture::names_in(kCrashlog), ElementsAre(MatchesRegex("crashlog_10_ANR_" + kTime),
                                                          MatchesRegex("crashlog_11_ANR_" + kTime),
                                                          MatchesRegex("crashlog_9_ANR_" + kTime)));
    EXPECT_THAT(fixture::names_in(kStaging), SizeIs(3)) << "one goes for each that comes";
}

TEST_F(Events, AWatchdogTakesItsDiagnosticsAlong) {
    const std::string name = "system_server_watchdog@5.txt";
    move_into_dropbox(name, "blocked");
    for (const char* file : {"state", "transaction_log", "transactions"}) {
        fixture::write_file(std::string("/dev/binderfs/binder_logs/") + file, file);
    }
    fixture::write_file("/data/logs/sf.log", "flinger");
    const timespec then[2] = {{1000000000, 999999999}, {1000000000, 999999999}};
    utimensat(AT_FDCWD, "/data/logs/sf.log", then, 0);
    fixture::write_file("/data/logs/wdt_1.log.gz", "wdt");
    fixture::write_file("/data/logs/wdt_1.txt", "no");
    fixture::write_file("/data/logs/x_wdt_.log", "no");
    fs::create_directories("/data/logs/wdt_dir.log");
    EXPECT_EQ(collect(0, 0, name), collect_result::done);

    const std::string folder = kCrashlog + fixture::names_in(kCrashlog).at(0);
    const tm written = [&] {
        const time_t t = 1000000000;
        tm local{};
        localtime_r(&t, &local);
        return local;
    }();
    char sf_name[64];
    strftime(sf_name, sizeof(sf_name), "sf_%Y-%m-%d-%H-%M-%S.log", &written);
    const auto files = ElementsAre("eventfile", "pre_android.log", "pre_event.log",
                                   "pre_kernel.log", "pre_radio.log", sf_name, "state", name,
                                   "transaction_log", "transactions", "wdt_1.log.gz");
    EXPECT_THAT(fixture::names_in(folder), files);
    EXPECT_THAT(fixture::names_in(kStaging + fs::path(folder).filename().string()), files);
    EXPECT_EQ(fixture::read_file(folder + "/" + name), "blocked");
    EXPECT_EQ(fixture::mode_of(folder + "/" + name), 0777);
    EXPECT_THAT(fixture::read_lines(kNotices),
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
    const std::vector<std::string> folders = fixture::names_in(kCrashlog);
    EXPECT_THAT(fixture::names_in(kCrashlog + folders.at(0)),
                ElementsAre("data_app_crash@1", "eventfile"));
    EXPECT_THAT(fixture::names_in(kCrashlog + folders.at(1)), SizeIs(6));
}

TEST_F(Events, WhatFailsIsSaidAndTheRestGoesOn) {
    fixture::write_file(kStaging.substr(0, kStaging.size() - 1), "a file in the way");
    {
        const fixture::log_lines log;
        EXPECT_EQ(collect(0, 1, "gone_anr"), collect_result::done);
        EXPECT_THAT(log.lines(),
                    IsSupersetOf({"E ZQ_EVENT_LOG: state /data/system/dropbox/gone_anr fail, "
                                  "error: No such file or directory",
                                  "E ZQ_EVENT_LOG: unable to create event temp dir "}));
    }
    EXPECT_THAT(fixture::read_lines(kHistory), SizeIs(1));
    EXPECT_THAT(fixture::read_lines(kNotices), SizeIs(1));

    event_num_limit = 1;
    const std::string folder = kCrashlog + fixture::names_in(kCrashlog).at(0);
    ASSERT_EQ(mount("none", folder.c_str(), "tmpfs", 0, nullptr), 0);
    const fixture::log_lines log;
    EXPECT_EQ(collect(0, 1, "gone_anr"), collect_result::done);
    EXPECT_EQ(log.lines().back(), "E ZQ_EVENT_LOG: remove old file failed!");
    umount(folder.c_str());
    fs::remove_all(kCrashlog);
    fixture::write_file(kCrashlog.substr(0, kCrashlog.size() - 1), "");
    EXPECT_EQ(collect(0, 1, "gone_anr"), collect_result::done);
    EXPECT_THAT(fixture::read_lines(kHistory), SizeIs(1));
}

// --- Start-up ------------------------------------------------------------------------------------

TEST_F(Events, StartUpNotesTheRebootAndSavesTheConsoleLog) {
    fixture::write_file("/data/config/console-ramoops-0-tmp", "panic");
    property_set("ro.boot.panicmode", "1");
    property_set("ro.product.name", "board");
    property_set("ro.debuggable", "1");
    property_set("persist.service.brevix.ev.num", "12");
    fs::create_directories("/data/e");
    const pid_t pid = fork();
    if (pid == 0) {
        const int result = ZQEventDetect();
        write_history_event("CRASH", "ANR", "/data/e", "", some_time());
        _exit(result == 0 && event_num_limit == 12 ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(fs::exists("/data/config/console-ramoops-0-tmp"));
    EXPECT_THAT(fixture::names_in("/data/logs"),
                ElementsAre(MatchesRegex("console-ramoops-0-" + kTime), "history.event"));
    const std::string saved = "/data/logs/" + fixture::names_in("/data/logs").at(0);
    EXPECT_EQ(fixture::read_file(saved), "panic");
    EXPECT_EQ(fixture::mode_of(saved), 0777);
    EXPECT_THAT(fixture::read_lines(kHistory).at(0),
                MatchesRegex("REBOOT  .{19} KERNELPANIC     "));
    EXPECT_THAT(fixture::read_file("/data/e/eventfile"),
                AllOf(HasSubstr("BOARD=board\n"), HasSubstr("DEBUGGABLE=1\n")));
}

// --- The watcher, in the daemon ------------------------------------------------------------------

class Watcher : public Events {
  protected:
    void SetUp() override {
        Events::SetUp();
        for (const char* name : {"crashlog.enable", "custom.event", "event.detect"}) {
            set_switch(name, true);
        }
        start_daemon();
    }
    void TearDown() override {
        EXPECT_EQ(kill(daemon_, 0), 0) << "the daemon is gone";
        kill(daemon_, SIGKILL);
        waitpid(daemon_, nullptr, 0);
        if (HasFailure()) {
            std::cout << fixture::read_file(fixture::log_lines::kFile);
        }
    }
    void start_daemon() {
        const char* const argv[] = {"/system/bin/zq_brevix", nullptr};
        daemon_ = ZQRecordLog("daemon", const_cast<char* const*>(argv));
        if (daemon_ == 0) {
            _exit(127);
        }
        ASSERT_TRUE(wait_for_log("tombstones has been snooped", 1));
        ASSERT_TRUE(wait_for_log("persist.service.crashlog.enable changed to 1", 1));
        ASSERT_TRUE(wait_for_log("persist.service.custom.event changed to 1", 1));
    }
    static void set_switch(const std::string& name, bool on) {
        property_set(("persist.service." + name).c_str(), on ? "1" : "0");
    }
    bool wait_for_log(const std::string& text, size_t times) const {
        return fixture::wait_until("/data", [&] { return count_of(log_.lines(), text) >= times; });
    }
    static bool wait_for_notices(size_t count) {
        return fixture::wait_until("/data/brevix",
                                   [=] { return fixture::read_lines(kNotices).size() >= count; });
    }
    static std::vector<std::string> types_in_history() {
        std::vector<std::string> types;
        for (const std::string& line : fixture::read_lines(kHistory)) {
            std::istringstream in(line);
            std::string event, date, type;
            in >> event >> date >> type;
            types.push_back(type);
        }
        types.erase(types.begin());  // the reboot
        return types;
    }
    size_t daemon_entries(const char* kind) const {
        return fixture::names_in("/proc/" + std::to_string(daemon_) + "/" + kind).size();
    }

    pid_t daemon_ = -1;
    fixture::log_lines log_;
};

TEST_F(Watcher, ClassifiesByTheFirstRowThatMatches) {
    fs::create_directories(kDropbox + "dir_crash");
    fixture::write_file(kDropbox + "created_crash", "moved files only");
    for (const char* name :
         {"system_server_watchdog_crash@1", "anr_crash@2", "data_app_crash@3", "ZQEvent_pkg_Hang@4",
          "ZQEvent_pkg_anr@5", "boring@6", "with blank crash@7"}) {
        move_into_dropbox(name);
    }
    ASSERT_TRUE(wait_for_notices(6));
    EXPECT_THAT(types_in_history(),
                ElementsAre("UIWDT", "ANR", "JAVACRASH", "Hang", "ANR", "JAVACRASH"));
    EXPECT_THAT(log_.lines(),
                Contains(MatchesRegex("I ZQ_EVENT_LOG: event\\[wd:1, mask:0x128, cookie:[0-9]+, "
                                      "len:32, name:system_server_watchdog_crash@1\\]")));
}

TEST_F(Watcher, TombstonesCountAsTheyArrive) {
    const std::string other = "/data/elsewhere";
    fixture::write_file(other, "stone");
    ASSERT_EQ(link(other.c_str(), (kTombstones + "tombstone_01").c_str()), 0);
    link(other.c_str(), (kTombstones + "tombstone_01.pb").c_str());
    link(other.c_str(), (kTombstones + "tombstone_02.tmp").c_str());
    fixture::write_file(kTombstones + "tombstone_03", "created and written: two records");
    fs::rename(other, kTombstones + "tombstone_04");
    fixture::write_file(kTombstones + "other", "");
    ASSERT_EQ(link((kTombstones + "other").c_str(), (kTombstones + "tombstone_05").c_str()), 0);
    ASSERT_TRUE(wait_for_notices(4));
    EXPECT_THAT(types_in_history(),
                ElementsAre("TOMBSTONE", "TOMBSTONE", "TOMBSTONE", "TOMBSTONE"));
    const std::vector<std::string> lines = log_.lines();
    EXPECT_EQ(count_of(lines, "monitor a changed event: tombstone_01"), 1U);
    EXPECT_EQ(count_of(lines, "monitor a changed event: tombstone_03"), 2U);
    EXPECT_EQ(count_of(lines, "monitor a changed event: tombstone_05"), 1U);
}

TEST_F(Watcher, AFolderThatCannotBeMadeIsTheNextRowsChance) {
    const std::string package(235, 'p');
    move_into_dropbox("ZQEvent_" + package + "_x");
    move_into_dropbox("ZQEvent_a_b_crash");
    ASSERT_TRUE(wait_for_notices(1));
    EXPECT_THAT(types_in_history(), ElementsAre("x", "JAVACRASH"));
}

TEST_F(Watcher, ASwitchedOffCategoryMakesNothing) {
    set_switch("crashlog.enable", false);
    ASSERT_TRUE(wait_for_log("persist.service.crashlog.enable changed to 0", 1));
    move_into_dropbox("anr@1");
    move_into_dropbox("ZQEvent_p_e@2");
    ASSERT_TRUE(wait_for_notices(1));
    EXPECT_THAT(types_in_history(), ElementsAre("e"));
    EXPECT_THAT(log_.lines(), Contains("I ZQ_EVENT_LOG: disable detecting CRASH"));
}

TEST_F(Watcher, AWatchdogWarningDumpsSurfaceFlinger) {
    move_into_dropbox("system_server_pre_watchdog@1");
    ASSERT_TRUE(fixture::wait_for_text("/data/logs/sf.log", "SurfaceFlinger"));
    move_into_dropbox("pre_watchdog_anr@2");
    ASSERT_TRUE(wait_for_notices(1));
    EXPECT_THAT(types_in_history(), ElementsAre("ANR"));
}

TEST_F(Watcher, ARemovedDirectoryIsMadeAndWatchedAgain) {
    for (size_t i = 1; i <= 10; ++i) {
        const std::string text = "has been deleted or moved, we watch it again.";
        if (i % 2 == 0) {
            fs::rename(kTombstones, "/data/moved" + std::to_string(i));
        } else {
            fs::remove_all(kTombstones);
        }
        ASSERT_TRUE(wait_for_log("I ZQ_EVENT_LOG: /data/tombstones" + text, i));
        fixture::write_file("/data/stone", "");
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
    for (int i = 0; i < kFiles; ++i) {
        move_into_dropbox("ZQEvent_p" + std::to_string(i) + "_e@1");
    }
    ASSERT_TRUE(wait_for_notices(kFiles));
    std::set<std::string> packages;
    for (const std::string& line : fixture::read_lines(kNotices)) {
        packages.insert(line.substr(line.find("--es name "), 20));
    }
    EXPECT_THAT(packages, SizeIs(kFiles));
    EXPECT_THAT(types_in_history(), SizeIs(kFiles));
    EXPECT_THAT(fixture::read_lines(kNotices), SizeIs(kFiles));
    // The last child is collected with the next record.
    move_into_dropbox("boring");
    ASSERT_TRUE(wait_for_log("name:boring]", 1));
    fixture::wait_until("/data", [&] { return fixture::children_of(daemon_).empty(); });
    EXPECT_THAT(fixture::children_of(daemon_), IsEmpty());
}

TEST_F(Watcher, NothingQueuedIsLostByASwitchOff) {
    fixture::write_program("/system/bin/cp", "exec sleep 0.05");  // events take their time
    for (int i = 0; i < 30; ++i) {
        move_into_dropbox("ZQEvent_p" + std::to_string(i) + "_e@1");
    }
    set_switch("event.detect", false);
    ASSERT_TRUE(wait_for_log("stop detecting", 1));
    move_into_dropbox("ZQEvent_while_off@1");
    set_switch("event.detect", true);
    ASSERT_TRUE(wait_for_log("tombstones has been snooped", 2));
    for (int i = 30; i < 40; ++i) {
        move_into_dropbox("ZQEvent_p" + std::to_string(i) + "_e@1");
    }
    ASSERT_TRUE(wait_for_notices(40));
    ASSERT_TRUE(wait_for_log("I ZQ_EVENT_LOG: exit", 1));
    EXPECT_THAT(types_in_history(), AllOf(SizeIs(40), Not(Contains("off"))));
}

TEST_F(Watcher, SwitchesInAStormLeaveItWhole) {
    const auto threads = [&] { return daemon_entries("task"); };
    const size_t threads_before = threads();
    const size_t descriptors_before = daemon_entries("fd");
    for (int i = 0; i < 300; ++i) {
        set_switch("event.detect", false);
        move_into_dropbox("ZQEvent_p" + std::to_string(i) + "_e@1");
        set_switch("event.detect", true);
    }
    const size_t stops = [&] {
        fixture::wait_until("/data", [&] {
            const std::vector<std::string> lines = log_.lines();
            return count_of(lines, "I ZQ_EVENT_LOG: exit") == count_of(lines, "stop detecting") &&
                   count_of(lines, "start detecting") == count_of(lines, "stop detecting") + 1;
        });
        return count_of(log_.lines(), "stop detecting");
    }();
    EXPECT_GT(stops, 10U);
    move_into_dropbox("ZQEvent_last_e@1");
    ASSERT_TRUE(fixture::wait_for_text(kNotices, "--es name last "));
    fixture::wait_until("/data", [&] { return threads() == threads_before; });
    EXPECT_EQ(threads(), threads_before);
    EXPECT_LE(daemon_entries("fd"), descriptors_before + 1);
    const std::vector<std::string> types = types_in_history();
    const std::vector<std::string> notices = fixture::read_lines(kNotices);
    EXPECT_EQ(std::set<std::string>(notices.begin(), notices.end()).size(), types.size())
        << "none twice";
}

TEST_F(Watcher, SigtermForTheProcessEndsIt) {
    kill(daemon_, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(daemon_, &status, 0), daemon_);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    start_daemon();
}

TEST_F(Watcher, AFullDiskCostsFilesNotEvents) {
    ASSERT_EQ(mount("none", "/data/logs", "tmpfs", 0, "size=256k"), 0);
    fixture::write_file("/data/logs/fill", std::string(300000, 'x'));
    move_into_dropbox("anr@1", std::string(10000, 'y'));
    ASSERT_TRUE(wait_for_notices(1));
    fs::remove("/data/logs/fill");
    move_into_dropbox("anr@2", std::string(10000, 'y'));
    ASSERT_TRUE(wait_for_notices(2));
    const std::string folder = kCrashlog + fixture::names_in(kCrashlog).back();
    EXPECT_EQ(fs::file_size(folder + "/anr@2"), 10000U);
}

}  // namespace
