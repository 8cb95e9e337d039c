// SPDX-License-Identifier: Apache-2.0

// The watcher in the running daemon: which files become events, what switches, bursts and vanishing
// directories do to it, and what is left of an event when the system fails.

#include <set>
#include <thread>

#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;

void deliver(int first, int end) {
    for (int i = first; i < end; ++i) {
        move_into_dropbox("ZQEvent_p" + std::to_string(i) + "_e@1");
    }
}

std::vector<std::string> packages(int first, int end) {
    std::vector<std::string> names;
    for (int i = first; i < end; ++i) {
        names.push_back("p" + std::to_string(i));
    }
    return names;
}

class Watcher : public Test {
  protected:
    // Before the daemon starts, as init does.
    static void SetUpTestSuite() { make_event_folders(); }
    void SetUp() override {
        for (const char* name : {"crashlog.enable", "custom.event", "event.detect"}) {
            set_switch(name, true);
        }
        wait_until_armed(1);
    }
    // `starts` counts those of the daemon so far. A switch is logged before its handler is called.
    void wait_until_armed(size_t starts) const {
        for (const char* text : {"crashlog.enable changed to 1", "custom.event changed to 1",
                                 "tombstones has been snooped"}) {
            ASSERT_TRUE(wait_for_log(text, starts)) << text;
        }
        ASSERT_TRUE(wait_until_idle(daemon_.pid));
    }
    static void set_switch(const std::string& name, bool on) {
        set_property("persist.service." + name, on ? "1" : "0");
    }
    static bool wait_for_log(const std::string& text, size_t times = 1) {
        return wait_until("/data", [&] { return log_lines::count(text) >= times; });
    }
    static bool wait_for_notices(size_t count) {
        return wait_until("/data/brevix", [=] { return read_lines(kNotices).size() >= count; });
    }
    // In the order of the notices.
    static std::vector<std::string> packages_told() {
        run("sed 's/.* --es name //; s/ .*//' " + kNotices);
        return read_lines("/data/output");
    }
    static std::vector<std::string> types_in_history() {
        run("sed '/^REBOOT/d; s/^.\\{28\\}//; s/ .*//' " + kHistory);
        return read_lines("/data/output");
    }
    size_t daemon_entries(const char* kind) const {
        return names_in(proc(daemon_.pid, kind)).size();
    }

    // Those of the watched directories: the property waits have other masks.
    size_t watches() const {
        size_t count = 0;
        for (const std::string& fd : names_in(proc(daemon_.pid, "fdinfo"))) {
            for (const std::string& line : read_lines(proc(daemon_.pid, "fdinfo/" + fd))) {
                count += line.find("mask:c80") != line.npos || line.find("mask:d08") != line.npos;
            }
        }
        return count;
    }
    void switch_detection(bool on) const {
        set_switch("event.detect", on);
        ASSERT_TRUE(wait_until("/data", [&] { return watches() == (on ? 2 : 0); }));
    }

    // The last thread; the kernel may choose it, too, for a signal to the process.
    pid_t watcher_thread() const {
        pid_t last = 0;
        for (const std::string& thread : names_in(proc(daemon_.pid, "task"))) {
            last = std::max(last, std::stoi(thread));
        }
        return last;
    }

    // An event that is handled in full shows that nothing from before stands in its way.
    void expect_next_event() {
        const size_t told = read_lines(kNotices).size();
        move_into_dropbox("anr@" + std::to_string(++next_));
        ASSERT_TRUE(wait_for_notices(told + 1));
        const std::string folder = kCrashlog + "crashlog_" + std::to_string(count_++);
        EXPECT_THAT(read_lines(kNotices).back(), HasSubstr("--es path " + folder + "_ANR_"));
    }

    // By a program of the daemon's own user: others may not.
    bool limit(const std::string& user, const std::string& what) const {
        return run(user + "/usr/bin/prlimit --pid " + std::to_string(daemon_.pid) + " --" + what)
                   .exit_status == 0;
    }

    daemon_process daemon_;
    int next_ = 0;
    int count_ = 0;  // of the next folder
};

// Replaces that program of the device during its life; the program itself is at PATH.kept
// meanwhile.
struct replaced_program {
    replaced_program(const std::string& name, const std::string& shell_text)
        : path("/system/bin/" + name) {
        fs::rename(path, path + ".kept");
        write_program(path, shell_text);
    }
    ~replaced_program() { fs::rename(path + ".kept", path); }

    const std::string path;
};

// The first call of `am` hangs until let_go, and then does nothing; the others do their work.
struct hanging_am : replaced_program {
    hanging_am()
        : replaced_program("am",
                           "if mkdir /data/gates/reached; then exec cat /data/gates/gate; fi 2>&-; "
                           "exec /system/bin/am.kept \"$@\"") {
        fs::create_directories("/data/gates");
        mkfifo("/data/gates/gate", 0600);
    }
    static bool wait_until_it_hangs() {
        return wait_until("/data/gates", [] { return fs::exists("/data/gates/reached"); });
    }
    static void let_go() { write_file("/data/gates/gate", "go on"); }
};

TEST_F(Watcher, ClassifiesByTheFirstRowThatMatches) {
    // The first dump ends last: the pass that finds it running is not the last one.
    const replaced_program dumps("timeout", "case $4 in *pre_android*) sleep 0.5 ;; esac");
    write_file(kDropbox + "created_crash", "moved files only");
    const std::string no_folder = "ZQEvent_" + std::string(235, 'p');
    const std::vector<std::string> names = {"system_server_watchdog_crash@1",
                                            "anr_crash@2.tmp",
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
    EXPECT_THAT(read_lines(kHistory).front(), HasSubstr(" UNKNOWN "));
    EXPECT_THAT(
        daemon_.log.lines(),
        AllOf(IsSupersetOf({"I ZQ_EVENT_LOG: panic mode: 0",
                            "I ZQ_EVENT_LOG: reboot not because of kernel panic"}),
              Contains(MatchesRegex("I ZQ_EVENT_LOG: event\\[wd:1, mask:0x128, cookie:[0-9]+, "
                                    "len:32, name:system_server_watchdog_crash@1\\]"))));
}

TEST_F(Watcher, ATombstoneIsAnEventWhenCreatedAndWhenWritten) {
    const std::string other = "/data/elsewhere";
    write_file(other, "stone");
    ASSERT_EQ(link(other.c_str(), (kTombstones + "tombstone_31").c_str()), 0);
    link(other.c_str(), (kTombstones + "tombstone_31.pb").c_str());
    link(other.c_str(), (kTombstones + "tombstone_02.tmp").c_str());
    write_file(kTombstones + "tombstone_03", "created and written: two records");
    fs::rename(other, kTombstones + "tombstone_04");
    fs::create_directory(kTombstones + "tombstone_06");
    write_file(kTombstones + "other", "");
    ASSERT_EQ(link((kTombstones + "other").c_str(), (kTombstones + "tombstone_05").c_str()), 0);
    ASSERT_TRUE(wait_for_notices(4));
    EXPECT_THAT(types_in_history(), AllOf(SizeIs(4), Each("TOMBSTONE")));
    EXPECT_EQ(log_lines::count("monitor a changed event: tombstone_31"), 1U);
    EXPECT_EQ(log_lines::count("monitor a changed event: tombstone_03"), 2U);
    EXPECT_EQ(log_lines::count("monitor a changed event: tombstone_05"), 1U);
}

TEST_F(Watcher, ASwitchedOffCategoryMakesNoEvents) {
    set_switch("crashlog.enable", false);
    ASSERT_TRUE(wait_for_log("I ZQ_OBSERVER: persist.service.crashlog.enable changed to 0"));
    ASSERT_TRUE(wait_until_idle(daemon_.pid));
    move_into_dropbox("ZQEvent_p_crash@1");  // also of the other category's row
    move_into_dropbox("ZQEvent_p_e@2");
    ASSERT_TRUE(wait_for_notices(1));
    EXPECT_THAT(types_in_history(), ElementsAre("e"));
    const std::string disabled = "I ZQ_EVENT_LOG: disable detecting CRASH";
    EXPECT_THAT(daemon_.log.lines(), Contains(disabled));
    kill(daemon_.pid, SIGKILL);
    daemon_.start_again_after_its_end();
    ASSERT_TRUE(wait_for_log("/data/tombstones has been snooped", 2));
    move_into_dropbox("anr");
    ASSERT_TRUE(wait_for_log(disabled, 2));
}

TEST_F(Watcher, ARemovedDirectoryIsMadeAndWatchedAgain) {
    // As init runs it; a device without a real root knows no other user.
    const std::string user = run("/usr/bin/setpriv --reuid=1000 true").exit_status == 0
                                 ? "/usr/bin/setpriv --reuid=1000 --regid=1000 --groups=1007 "
                                 : "";
    run("chown -R system:system /data");
    kill(daemon_.pid, SIGKILL);
    daemon_.start_again_after_its_end("umask 077; trap '' CHLD; exec " + user + "zq_brevix");
    wait_until_armed(2);
    for (size_t i = 1; i <= 10; ++i) {
        kill(daemon_.pid, SIGSTOP);
        if (i % 3 == 0) {
            fs::remove_all(kTombstones);
        } else {
            fs::rename(kTombstones, "/data/moved" + std::to_string(i));
        }
        if (i % 4 == 0) {  // somebody else is first
            run("mkdir /data/tombstones && chown system:system /data/tombstones");
        }
        kill(daemon_.pid, SIGCONT);
        ASSERT_TRUE(wait_for_log(
            "I ZQ_EVENT_LOG: /data/tombstoneshas been deleted or moved, we watch it again.", i));
        EXPECT_EQ(watches(), 2U) << "none stays behind with a directory that was moved";
        write_file("/data/stone", "");
        ASSERT_EQ(link("/data/stone", (kTombstones + "tombstone_01").c_str()), 0);
        ASSERT_TRUE(wait_for_notices(i));
    }
    EXPECT_EQ(mode_of(kTombstones), 0771) << "open to the platform's writers under init's umask";
    fs::rename(kDropbox, "/data/system/moved");
    ASSERT_TRUE(wait_for_log("/data/system/dropboxhas been deleted"));
    move_into_dropbox("anr");
    ASSERT_TRUE(wait_for_notices(11));
    kill(daemon_.pid, SIGSTOP);
    fs::rename(kDropbox, "/data/system/moved2");
    fs::rename("/data/system/moved2", kDropbox);
    kill(daemon_.pid, SIGCONT);
    move_into_dropbox("anr@back");
    ASSERT_TRUE(wait_for_notices(12));
    EXPECT_EQ(types_in_history().size(), 12U);
    EXPECT_THAT(names_in(kCrashlog), SizeIs(10)) << "kept unless set otherwise";
    kill(daemon_.pid, SIGSTOP);
    fs::remove_all("/data/system");
    fs::remove_all(kTombstones);
    write_file("/data/tombstones", "");
    kill(daemon_.pid, SIGCONT);
    ASSERT_TRUE(wait_for_log(
        "E ZQ_EVENT_LOG: fail to mkdir /data/system/dropbox, error: No such file or directory"));
    ASSERT_TRUE(wait_for_log("E ZQ_EVENT_LOG: fail to mkdir /data/tombstones, error: File exists"));
    EXPECT_EQ(watches(), 0U);
}

TEST_F(Watcher, ADirectoryRemovedBeforeASwitchOffIsWatchedAfterTheNextSwitchOn) {
    const hanging_am am;
    kill(daemon_.pid, SIGSTOP);  // one read takes both
    move_into_dropbox("anr@in_hand");
    fs::remove(kTombstones);
    kill(daemon_.pid, SIGCONT);
    ASSERT_TRUE(am.wait_until_it_hangs());
    switch_detection(false);
    set_switch("event.detect", true);
    ASSERT_TRUE(wait_for_log("Can't add watch for /data/tombstones. wd is-1 error: No such"));
    am.let_go();
    ASSERT_TRUE(wait_for_log("/data/tombstoneshas been deleted"));
    EXPECT_EQ(mode_of(kTombstones), 0775);
    write_file(kTombstones + "tombstone_01", "");
    ASSERT_TRUE(wait_for_notices(2));
}

TEST_F(Watcher, AnUnmountedDirectoryIsLoggedAndWatchedAtTheNextSwitchOn) {
    switch_detection(false);
    ASSERT_TRUE(mount_memory(kTombstones));
    switch_detection(true);
    ASSERT_EQ(umount(kTombstones.c_str()), 0);
    ASSERT_TRUE(
        wait_for_log("E ZQ_EVENT_LOG: /data/tombstones is unmounted and no longer watched"));
    switch_detection(false);
    fs::remove(kTombstones);
    fs::create_directory_symlink("/data/system/dropbox", "/data/tombstones");
    set_switch("event.detect", true);
    ASSERT_TRUE(wait_for_log("/data/tombstones has been snooped", 3));
    write_file(kDropbox + "tombstone_crash", "created and written, of the first entry's kind");
    ASSERT_TRUE(wait_for_notices(2));
    EXPECT_THAT(types_in_history(), Each("JAVACRASH"));
    set_switch("event.detect", false);
    ASSERT_TRUE(wait_for_log("exit", 3));
    fs::remove("/data/tombstones");
    fs::create_directory(kTombstones);
    fs::remove_all(kDropbox);  // without which the other is watched all the same
    set_switch("event.detect", true);
    ASSERT_TRUE(wait_for_log("/data/tombstones has been snooped", 4));
    write_file(kTombstones + "tombstone_01", "");
    ASSERT_TRUE(wait_for_notices(3));
    fs::remove_all(kTombstones);
    ASSERT_TRUE(wait_for_log("/data/tombstoneshas been deleted"));
    EXPECT_FALSE(fs::exists(kDropbox)) << "what was not watched is not made";
}

// The app may remove staged folders at any time, also between the listing and the stat of them.
TEST_F(Watcher, ABurstIsCollectedOnceEachWhileTheAppEmptiesItsFolder) {
    constexpr int kFiles = 100;
    fs::create_directories("/data/brevix/eventTemp");
    start("while :; do rm -rf /data/brevix/eventTemp/*; done");
    deliver(0, kFiles);
    ASSERT_TRUE(wait_for_notices(kFiles));
    EXPECT_THAT(packages_told(), ElementsAreArray(packages(0, kFiles)));
    EXPECT_THAT(types_in_history(), SizeIs(kFiles));
    EXPECT_LT(log_lines::count("event[wd:"), kFiles) << "only the first record of a read is logged";
}

TEST_F(Watcher, WhatIsQueuedAtASwitchOffIsCollectedByTheNextWatcher) {
    const hanging_am am;
    deliver(0, 30);
    ASSERT_TRUE(am.wait_until_it_hangs());
    EXPECT_EQ(log_lines::count("notify eventreport"), 1U) << "before the notice";
    switch_detection(false);
    move_into_dropbox("ZQEvent_off_e@1");
    const auto let_go = std::chrono::steady_clock::now();
    am.let_go();
    ASSERT_TRUE(wait_for_log("ZQ_EVENT_LOG: exit"));
    EXPECT_LT(std::chrono::steady_clock::now() - let_go, std::chrono::seconds(3))
        << "the patience with the child";
    EXPECT_THAT(types_in_history(), SizeIs(1)) << "the event in hand";
    switch_detection(true);
    deliver(30, 32);
    ASSERT_TRUE(wait_for_notices(31));  // the first one hung instead
    EXPECT_THAT(packages_told(), ElementsAreArray(packages(1, 32)));
}

TEST_F(Watcher, AHangingChildBlocksNoSwitch) {
    const size_t threads = daemon_entries("task");
    const size_t descriptors = daemon_entries("fd");
    constexpr int kSwitches = 80;
    const hanging_am am;
    deliver(0, 1);
    ASSERT_TRUE(am.wait_until_it_hangs());
    constexpr int kEvents = kSwitches / 4;
    const std::string given_up = "E ZQ_UTIL : still running, no longer waited for: am startservice";
    std::chrono::duration<double> patience;
    std::thread app([&, began = std::chrono::steady_clock::now()] {
        EXPECT_TRUE(wait_for_log(given_up));
        patience = std::chrono::steady_clock::now() - began;
    });
    for (int i = 1; i <= kSwitches; ++i) {
        switch_detection(false);
        if (i == 2) {  // the one that waits for its turn
            EXPECT_TRUE(wait_for_log("ZQ_EVENT_LOG: exit"));
            EXPECT_EQ(log_lines::count(given_up), 0U);
        }
        switch_detection(true);
        if (i % 4 == 0) {
            deliver(i / 4, i / 4 + 1);
        }
    }
    app.join();
    EXPECT_THAT(patience.count(), AllOf(Ge(5), Lt(9)));
    ASSERT_TRUE(wait_for_notices(kEvents));
    EXPECT_EQ(log_lines::count(given_up), 1U);
    EXPECT_EQ(log_lines::count("ZQ_EVENT_LOG: exit"), kSwitches);
    EXPECT_EQ(log_lines::count("mask:0x32768"), 0U) << "the last record of a removed watch";
    EXPECT_THAT(packages_told(), ElementsAreArray(packages(1, kEvents + 1)));
    EXPECT_THAT(types_in_history(), SizeIs(kEvents + 1));
    EXPECT_EQ(daemon_entries("task"), threads);
    EXPECT_EQ(daemon_entries("fd"), descriptors);
    am.let_go();
    EXPECT_TRUE(wait_until("/data", [] { return processes_named("cat").empty(); }));
    move_into_dropbox("boring");
    EXPECT_TRUE(wait_until("/data", [&] {
        return std::ranges::none_of(
            processes(), [&](const process& each) { return each.parent == daemon_.pid; });
    }));
}

TEST_F(Watcher, EarlyDumpsThatHangAreBounded) {
    {
        const replaced_program dumpsys("dumpsys", "exec cat /data/gate");
        mkfifo("/data/gate", 0600);
        for (int i = 0; i < 10; ++i) {
            move_into_dropbox("pre_watchdog@" + std::to_string(i));
        }
        ASSERT_TRUE(wait_for_log("I ZQ_EVENT_LOG: need extra dump: pre_watchdog@9"));
        ASSERT_TRUE(
            wait_for_log("E ZQ_EVENT_LOG: skip extra dump, 8 have not ended: pre_watchdog@", 2));
        EXPECT_TRUE(wait_until("/data", [] { return processes_named("cat").size() == 8; }));
        const std::string child = std::to_string(processes_named("cat").front());
        EXPECT_THAT(run("ls -l /proc/" + child + "/fd").output, Not(HasSubstr("anon_inode")));
        for (const pid_t dump : processes_named("cat")) {
            kill(dump, SIGKILL);
        }
        EXPECT_TRUE(wait_until("/data", [] { return processes_named("cat").empty(); }));
    }
    move_into_dropbox("pre_watchdog@again");
    EXPECT_TRUE(wait_for_text("/data/logs/sf.log", "SurfaceFlinger"));
}

TEST_F(Watcher, RapidSwitchesLeakNothingAndCollectNothingTwice) {
    const size_t threads = daemon_entries("task");
    const size_t descriptors = daemon_entries("fd");
    for (int i = 0; i < 300; ++i) {
        set_switch("event.detect", false);
        deliver(i, i + 1);
        set_switch("event.detect", true);
    }
    wait_until("/data", [] {
        const size_t stops = log_lines::count("stop detecting");
        return log_lines::count("I ZQ_EVENT_LOG: exit") == stops &&
               log_lines::count("start detecting") == stops + 1;
    });
    EXPECT_GT(log_lines::count("stop detecting"), 10U);
    EXPECT_EQ(log_lines::count("Can't add watch"), 0U) << "by a watcher that is off already";
    move_into_dropbox("ZQEvent_last_e@1");
    ASSERT_TRUE(wait_for_text(kNotices, "--es name last "));
    EXPECT_TRUE(wait_until("/data", [&] { return daemon_entries("task") == threads; }));
    EXPECT_LE(daemon_entries("fd"), descriptors + 1);
    const std::vector<std::string> told = packages_told();
    EXPECT_THAT(std::set(told.begin(), told.end()), SizeIs(types_in_history().size()));
}

TEST_F(Watcher, SigtermForTheProcessEndsItWhicheverThreadTakesIt) {
    kill(daemon_.pid, SIGTERM);
    EXPECT_EQ(daemon_.start_again_after_its_end(), SIGTERM);
    wait_until_armed(2);
    {
        const hanging_am am;  // the same while a child is waited for
        move_into_dropbox("anr@1");
        ASSERT_TRUE(am.wait_until_it_hangs());
        tgkill(daemon_.pid, watcher_thread(), SIGTERM);
        EXPECT_EQ(daemon_.start_again_after_its_end(), SIGTERM);
        am.let_go();
    }
    wait_until_armed(3);
    tgkill(daemon_.pid, watcher_thread(), SIGTERM);
    EXPECT_EQ(daemon_.start_again_after_its_end(), SIGTERM);
    wait_until_armed(4);
    switch_detection(false);
    kill(daemon_.pid, SIGTERM);
    EXPECT_EQ(daemon_.start_again_after_its_end(), SIGTERM);
}

// --- Faults --------------------------------------------------------------------------------------

TEST_F(Watcher, AFullOrReadOnlyDiskCostsFilesNotTheDaemon) {
    ASSERT_TRUE(mount_memory("/data/logs", 0, "size=256k"));
    write_file("/data/logs/fill", std::string(300000, 'x'));
    move_into_dropbox("anr@full", std::string(10000, 'y'));
    ASSERT_TRUE(wait_for_notices(1));
    fs::remove("/data/logs/fill");
    ++count_;
    expect_next_event();
    EXPECT_THAT(names_in(kCrashlog + names_in(kCrashlog).back()),
                ElementsAre("anr@1", "eventfile"));

    ASSERT_TRUE(mount_memory("/data/logs", MS_REMOUNT | MS_RDONLY));
    move_into_dropbox("anr_crash@read-only");  // matches two rows
    EXPECT_TRUE(wait_for_log("open to write history event failed /data/logs/history.event"));
    for (const char* type : {"ANR_", "JAVACRASH_"}) {
        EXPECT_TRUE(wait_for_log("create new log dir failed! " + kCrashlog + "crashlog_2_" + type));
    }
    ASSERT_TRUE(mount_memory("/data/logs", MS_REMOUNT));
    expect_next_event();
}

TEST_F(Watcher, WithoutDescriptorsAnEventIsMadeOrTheDaemonStartsAnew) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "with the undefined behaviour sanitizer, which needs descriptors itself";
#endif
    size_t starts = 1;
    // From below, because the daemon may close one or two of its own a moment later.
    for (int spare = -4; spare < 6; ++spare) {
        ASSERT_TRUE(limit("", "nofile=" + std::to_string(int(daemon_entries("fd")) + spare) + ":"));
        const size_t ends = log_lines::count("terminate called");
        const size_t told = log_lines::count("notify eventreport");
        move_into_dropbox("anr@spare" + std::to_string(spare));
        ASSERT_TRUE(wait_until("/data", [=] {
            return log_lines::count("terminate called") + log_lines::count("notify eventreport") >
                   ends + told;
        }));
        if (log_lines::count("terminate called") > ends) {
            EXPECT_EQ(WTERMSIG(daemon_.start_again_after_its_end()), SIGABRT);
            wait_until_armed(++starts);
        } else {
            ASSERT_TRUE(limit("", "nofile=1024:"));
            ++count_;
        }
        move_into_dropbox("anr@spare" + std::to_string(spare) + "after");
        ASSERT_TRUE(wait_for_text(kNotices, "crashlog_" + std::to_string(count_++) + "_ANR_"));
    }
    EXPECT_GT(starts, 1U);
    EXPECT_GT(types_in_history().size(), 8U);
}

TEST_F(Watcher, WithoutProcessesAnEventIsKeptWithoutANotice) {
    // The limit counts for users without rights alone; a device without a real root has only those.
    for (const char* dir : {"/data/logs", "/data/brevix", kDropbox.c_str(), kTombstones.c_str()}) {
        fs::permissions(dir, fs::perms::all);
    }
    fs::remove(kHistory);
    kill(daemon_.pid, SIGKILL);
    // It counts what runs anywhere on the machine: an id that neither Debian nor systemd hands out.
    const std::string app = "/usr/bin/setpriv --reuid=60999 --clear-groups ";
    const std::string user = run(app + "true").exit_status == 0 ? app : "";
    daemon_.start_again_after_its_end("exec " + user + "zq_brevix");
    wait_until_armed(2);
    ASSERT_TRUE(limit(user, "nproc=0:"));
    set_switch("start.capture", true);
    move_into_dropbox("system_server_crash@1");
    EXPECT_TRUE(wait_for_log("tag: kernel, error: ", 2));
    EXPECT_THAT(
        daemon_.log.lines(),
        Contains(MatchesRegex(".* kernel, error: (Resource temporarily unavailable|Try again)"))
            .Times(2));
    EXPECT_TRUE(wait_for_log("no task to do"));
    EXPECT_TRUE(wait_for_log("fail to run am startservice"));
    EXPECT_EQ(log_lines::count("fail to run"), 1U) << "copies report no failure";
    EXPECT_EQ(log_lines::count("not done yet"), 0U) << "nothing to wait for";
    EXPECT_EQ(log_lines::count("Invalid argument"), 0U) << "errno was read after an allocation";
    EXPECT_THAT(types_in_history(), ElementsAre("JAVACRASH"));
    ASSERT_TRUE(limit(user, "nproc=1024:"));
    ++count_;
    expect_next_event();
}

TEST_F(Watcher, ADaemonKilledAtAnyStepGoesOnWithTheNextCount) {
    size_t starts = 1;
    for (const std::string step : {"cp", "timeout", "am"}) {  // what an event runs
        {
            const replaced_program killer(step, "kill -KILL " + std::to_string(daemon_.pid));
            // Alone there a snapshot is taken: it may wait ten seconds for its dumps.
            move_into_dropbox((step == "timeout" ? "system_server_crash@" : "anr@") + step);
            EXPECT_EQ(daemon_.start_again_after_its_end(), SIGKILL);
        }
        wait_until_armed(++starts);
        ++count_;
        expect_next_event();
    }
    EXPECT_THAT(types_in_history(), SizeIs(6));
}

TEST_F(Watcher, AnOverflowIsLoggedAndALostRemovalFound) {
    const size_t queued = std::stoul(read_file("/proc/sys/fs/inotify/max_queued_events"));
    {
        const hanging_am am;
        move_into_dropbox("anr@blocks");
        ASSERT_TRUE(am.wait_until_it_hangs());
        // Two names in turn, because the kernel merges equal records that follow each other.
        write_file(kDropbox + "a", "");
        for (size_t i = 0; i <= queued / 2; ++i) {
            fs::rename(kDropbox + "a", kDropbox + "b");
            fs::rename(kDropbox + "b", kDropbox + "a");
        }
        fs::remove(kTombstones);
        am.let_go();
        ASSERT_TRUE(wait_for_log("E ZQ_EVENT_LOG: the queue has overflowed, events were lost"));
    }
    ASSERT_TRUE(wait_for_log("/data/tombstoneshas been deleted or moved"));
    EXPECT_EQ(watches(), 2U);
    EXPECT_EQ(log_lines::count("has been deleted or moved"), 1U);
    ++count_;
    expect_next_event();
}

}  // namespace
