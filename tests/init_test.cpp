// SPDX-License-Identifier: Apache-2.0

// The device's init: its language, and what it makes of services and triggers.

#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;

bool has_users() {
    return run("chown shell /data").exit_status == 0;
}

// --- The running device --------------------------------------------------------------------------

// Boots with `text` as the only script, runs a shell script on the console, and ends with its
// status.
outcome boot(const std::string& text, const std::string& command) {
    write_file("/data/test.rc", text);
    write_file("/data/command", command);
    return run("init -f /data/test.rc sh /data/command");
}

TEST(Init, StartsNothingWhenALineIsWrong) {
    const struct {
        const char* text;
        const char* error;
    } kCases[] = {
        {"mkdir /x", "1: 'mkdir' stands outside of a section"},
        {"on init\n mkdir /data/made 0755 root root\n\n frob 1", "4: unknown command 'frob'"},
        {"on boot\n mkdir /x 0755 root", "2: mkdir does not take 3 arguments"},
        {"on boot\n setprop a ${b}", "2: quotes, escapes and expansions are not known here: ${b}"},
        {"on boot\n start it", "2: start it: there is no service of that name"},
        {"on boot init", "1: a trigger is CONDITION [&& CONDITION]..."},
        {"on property:a=*", "1: 'property:a=*' is not property:NAME=VALUE"},
        {"service s /b\nservice s /c", "2: there is a service 's' already"},
        {"service s /b\n  critical", "2: unknown service option 'critical'"},
    };
    for (const auto& [text, error] : kCases) {
        const outcome refused = boot(text, "");
        EXPECT_EQ(refused.exit_status, 1);
        EXPECT_EQ(refused.output, std::string("/data/test.rc:") + error + "\n");
        EXPECT_FALSE(fs::exists("/data/made"));
    }
}

TEST(Init, BootsInOrderAndGoesOnAfterACommandThatFails) {
    const outcome ended = boot(
        "on boot\n  setprop test.order third\n"
        "on late-init\n  trigger boot\n"
        "on init\n  mkdir /data/none/x 0755 root root\n  mkdir /data 0710 root root\n"
        "  setprop test.order first\n"
        "on boot && property:test.order=first\n  setprop test.condition wrong\n",
        "getprop test.order; getprop test.condition; logcat -d | grep ' E init'; exit 9");
    EXPECT_EQ(ended.exit_status, 9);
    EXPECT_THAT(ended.output, AllOf(StartsWith("third\nwrong\n"),
                                    HasSubstr("/data/test.rc:6: mkdir /data/none/x 0755 root root: "
                                              "No such file or directory")));
    EXPECT_EQ(mode_of("/data"), 0710);
}

TEST(Init, APropertyTriggerFiresAtBootAndOnEverySetToItsValue) {
    write_program("/system/bin/note", "echo \"$1\" >>/data/notes");
    write_file("/dev/__properties__/test.early", "1");
    const outcome ended = boot(
        "service early /system/bin/note early\n  disabled\n  oneshot\n"
        "service both /system/bin/note both\n  disabled\n  oneshot\n"
        "on property:test.early=1\n  start early\n"
        "on property:test.a=1 && property:test.b=x\n  setprop test.both 1\n  start both\n",
        "waitprop init.svc.early stopped 30\n"
        "setprop test.a 1; setprop test.other 1; setprop test.b x\n"
        "waitprop init.svc.both stopped 30\n"
        "setprop test.both 0; setprop test.b x\n"  // once more the same
        "waitprop test.both 1 30 && echo again\n");
    EXPECT_EQ(ended.output, "again\n");
    EXPECT_THAT(read_lines("/data/notes"), AllOf(Contains("early").Times(1), Contains("both")));
}

// A start that comes while it still works is lost, as on a phone.
TEST(Init, AOneshotEndsOnceWithAllItLeavesBehind) {
    write_program("/system/bin/parent", "echo >>/data/starts; sleep 1000 & waitprop test.end 1 30");
    const outcome ended = boot(
        "service s /system/bin/parent\n  oneshot\n"
        "on init\n  class_start default\n"
        "on property:test.again=1\n  start s\n  setprop test.asked 1\n",
        "waitprop init.svc.s running 30; setprop test.again 1; waitprop test.asked 1 30\n"
        "setprop test.end 1; waitprop init.svc.s stopped 30 && echo stopped\n");
    EXPECT_EQ(ended.output, "stopped\n");
    EXPECT_THAT(read_lines("/data/starts"), SizeIs(1));
    EXPECT_THAT(processes_named("sleep"), IsEmpty());
}

TEST(Init, EndsServicesAndOrphansOnASignal) {
    write_program("/system/bin/parent",
                  "trap 'echo ended >/data/ended; exit' TERM; sleep 1000 & wait");
    write_file("/data/test.rc", "service s /system/bin/parent\non init\n  class_start default\n");
    const pid_t init = start("exec init -f /data/test.rc");
    ASSERT_EQ(run("waitprop init.svc.s running 30").exit_status, 0);
    ASSERT_TRUE(
        wait_until("/dev/__properties__", [] { return !processes_named("sleep").empty(); }));
    kill(init, SIGTERM);
    EXPECT_EQ(WEXITSTATUS(wait_status(init)), 128 + SIGTERM);
    EXPECT_EQ(read_file("/data/ended"), "ended\n");
    EXPECT_THAT(processes_named("sleep"), IsEmpty());
}

// --- The phone's own service file ----------------------------------------------------------------

TEST(ServiceFile, AKilledDaemonComesBackAndGoesOnWithTheNextCount) {
    const std::string dir = "/data/logs/general_log";
    write_file("/dev/__properties__/persist.service.start.capture", "1");
    start("exec init");
    // Each file of a capture is a logcat's, which is no copy of the daemon any more then.
    const auto there_is = [&](size_t index, const char* prefix, size_t files) {
        return wait_until("/dev/log", [&] {
            const auto names = fs::exists(dir) ? names_in(dir) : std::vector<std::string>();
            return names.size() == index + 1 && names[index].starts_with(prefix) &&
                   names_in(dir + "/" + names[index]).size() >= files;
        });
    };
    ASSERT_TRUE(there_is(0, "ZQLog_0_", 4));
    const std::vector<pid_t> daemons = processes_named("zq_brevix");
    ASSERT_EQ(daemons.size(), 1U);
    const std::vector<pid_t> children = processes_named("logcat");
    const auto killed = std::chrono::steady_clock::now();
    kill(daemons[0], SIGKILL);
    ASSERT_TRUE(there_is(1, "ZQLog_1_", 0));
    EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(6));
    for (const pid_t old : children) {
        EXPECT_TRUE(wait_for_end(old));
    }
}

TEST(ServiceFile, TheDaemonIsSystemAndReadsWhatIsSystems) {
    if (!has_users()) {
        GTEST_SKIP() << "this user namespace has one user alone";
    }
    write_file("/dev/__properties__/persist.service.event.detect", "1");
    write_file("/dev/__properties__/persist.service.crashlog.enable", "1");
    start("exec init");
    ASSERT_TRUE(wait_for_text("/dev/log/main", "/data/tombstones has been snooped"));
    ASSERT_TRUE(wait_for_text("/dev/log/main", "crashlog.enable changed to 1"));
    const pid_t daemon = processes_named("zq_brevix").at(0);
    EXPECT_THAT(read_file("/proc/" + std::to_string(daemon) + "/status"),
                AllOf(HasSubstr("Uid:\t1000\t1000\t1000\t1000\n"), HasSubstr("Groups:\t1007 \n"),
                      HasSubstr("CapBnd:\t0000000000000000\n")));
    const std::string dropbox_file = run("crash anr").output;
    EXPECT_EQ(mode_of(dropbox_file.substr(0, dropbox_file.size() - 1)), 0600);
    ASSERT_EQ(run("crash tombstone").exit_status, 0);
    ASSERT_TRUE(wait_until("/data/brevix",
                           [] { return read_lines("/data/brevix/queue.log").size() == 2; }));
    struct stat folder {};
    for (const std::string& name : names_in("/data/logs/crashlog")) {
        const std::string path = "/data/logs/crashlog/" + name;
        EXPECT_EQ(stat(path.c_str(), &folder), 0);
        EXPECT_EQ(folder.st_uid, 1000U) << name;
        EXPECT_EQ(names_in(path).size(), 2U) << name;  // the report and the copy
    }
}

TEST(ServiceFile, ADeliveredCrashIsToldWithItsEventOrWhyThereIsNone) {
    write_file("/dev/__properties__/persist.service.event.detect", "1");
    write_file("/dev/__properties__/persist.service.crashlog.enable", "1");
    start("exec init");
    ASSERT_TRUE(wait_for_text("/dev/log/main", "/data/tombstones has been snooped"));
    ASSERT_TRUE(wait_for_text("/dev/log/main", "crashlog.enable changed to 1"));
    const struct {
        std::string words;
        std::string told;
    } cases[] = {
        {"tombstone", "TOMBSTONE /data/logs/crashlog/crashlog_0_TOMBSTONE_.*"},
        {"pre_watchdog", "no event: a file of this name is none: .*"},
        {"file data_app_anr@1.lost - </dev/null", "no event: a file of this name is none: .*"},
        {"anr", "ANR /data/logs/crashlog/crashlog_1_ANR_.*"},
        {"custom com.example.app Freeze",
         "no event: detection is off \\(category CUSTOM, persist.service.event.detect=1, "
         "persist.service.custom.event=, limit 10\\)\n"},
    };
    // The made-up crash is a real SIGSEGV, whose handler writes the tombstone.
    const std::string crash = "TSAN_OPTIONS=report_signal_unsafe=0 crash --wait ";
    for (const auto& c : cases) {
        EXPECT_THAT(run(crash + c.words).output, MatchesRegex(c.told)) << c.words;
    }
}

TEST(Launch, AServiceHasTheCapabilitiesItNamesAlone) {
    if (!has_users()) {
        GTEST_SKIP() << "this user namespace has one user alone";
    }
    write_program("/system/bin/show", "cat /proc/self/status >/tmp/s; umask >>/tmp/s");
    const outcome ended = boot(
        "service s /system/bin/show\n  user shell\n  group log\n  capabilities NET_RAW\n"
        "  oneshot\n"
        "on init\n  mkdir /tmp 0777 root root\n  class_start default\n",
        "waitprop init.svc.s stopped 30");
    EXPECT_EQ(ended.exit_status, 0);
    EXPECT_THAT(read_file("/tmp/s"),
                AllOf(HasSubstr("Uid:\t2000"), HasSubstr("Gid:\t1007"),
                      HasSubstr("CapEff:\t0000000000002000"),
                      HasSubstr("CapBnd:\t0000000000002000"), EndsWith("\n077\n")));
}

}  // namespace
