// SPDX-License-Identifier: Apache-2.0

// The device's init: its parser, boot order, triggers, services and shutdown.

#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;

bool has_users() {
    return run("chown shell /data").exit_status == 0;
}

// --- The running device --------------------------------------------------------------------------

// Boots with `text` as the only script and runs the shell script `command` on the console.
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
        {"service s /b\n  user root root", "2: user does not take 2 arguments"},
        {"on boot\n setprop a ${b}", "2: quotes, escapes and expansions are not known here: ${b}"},
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
        "on init\n  mkdir /data/none/x 0755 root root\n  start it\n  mkdir /data 0710 root root\n"
        "  setprop test.order first\n"
        "on boot && property:test.order=first\n  setprop test.condition wrong\n",
        "getprop test.order; getprop test.condition; logcat -d | grep ' E init'; exit 9");
    EXPECT_EQ(ended.exit_status, 9);
    const std::string error = ": No such file or directory\n";
    EXPECT_THAT(ended.output,
                AllOf(StartsWith("third\nwrong\n"),
                      HasSubstr("test.rc:6: mkdir /data/none/x 0755 root root" + error),
                      HasSubstr("test.rc:7: start it" + error)));
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

// A start of a running service has no effect, as on a phone.
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
    write_program(
        "/system/bin/parent",
        "trap 'echo ended >/data/ended; exit' TERM; sleep 1000 & setprop test.up 1; wait");
    write_file("/data/test.rc", "service s /system/bin/parent\non init\n  class_start default\n");
    const pid_t init = start("exec init -f /data/test.rc");
    ASSERT_EQ(run("waitprop test.up 1 30").exit_status, 0);
    kill(init, SIGTERM);
    EXPECT_EQ(WEXITSTATUS(wait_status(init)), 128 + SIGTERM);
    EXPECT_EQ(read_file("/data/ended"), "ended\n");
    EXPECT_THAT(processes_named("sleep"), IsEmpty());
}

// --- The phone's own service file ----------------------------------------------------------------

// Of its first start.
pid_t daemon_pid() {
    const std::string text = "service 'zq_brevix' started, pid ";
    EXPECT_TRUE(wait_for_text("/dev/log/main", text));
    return std::stoi(run("logcat -d -v raw | sed -n \"s/" + text + "//p\"").output);
}

TEST(ServiceFile, AKilledDaemonComesBackAfterFiveSecondsAndGoesOnWithTheNextCount) {
    const std::string dir = "/data/logs/general_log";
    set_property("persist.service.start.capture", "1");
    const auto began = std::chrono::steady_clock::now();
    start("exec init");
    ASSERT_TRUE(wait_for_text("/dev/log/main", "tag: kernel, pid"));
    const pid_t daemon = daemon_pid();
    const std::vector<pid_t> children = children_of(daemon);
    EXPECT_THAT(children, Not(IsEmpty()));
    kill(daemon, SIGKILL);
    ASSERT_TRUE(wait_until(dir, [&] { return names_in(dir).size() == 2; }));
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_GE(took, std::chrono::seconds(5));
    EXPECT_THAT(names_in(dir), ElementsAre(StartsWith("ZQLog_0_"), StartsWith("ZQLog_1_")));
    for (const pid_t old : children) {
        EXPECT_TRUE(wait_for_end(old));
    }
}

TEST(ServiceFile, ADeliveredCrashBecomesAnEventOfTheUserSystemOrIsNoneForAReason) {
    set_property("persist.service.event.detect", "1");
    set_property("persist.service.crashlog.enable", "1");
    start("exec init");
    ASSERT_TRUE(wait_for_text("/dev/log/main", "/data/tombstones has been snooped"));
    ASSERT_TRUE(wait_for_text("/dev/log/main", "crashlog.enable changed to 1"));
    const pid_t daemon = daemon_pid();
    ASSERT_TRUE(wait_until_idle(daemon));  // a switch is logged before it is obeyed
    EXPECT_THAT(run("crash --wait pre_watchdog").output,
                StartsWith("no event: a file of this name is none: system_server_pre_watchdog@"));
    EXPECT_EQ(run("crash --wait custom com.example.app Freeze").output,
              "no event: detection is off (category CUSTOM, persist.service.event.detect=1, "
              "persist.service.custom.event=, limit 10)\n");
    EXPECT_THAT(run("crash --wait anr").output, StartsWith("ANR " + kCrashlog + "crashlog_0_ANR_"));
    ASSERT_TRUE(wait_until("/data/brevix", [] { return read_lines(kNotices).size() == 1; }));
    const std::string status = proc(daemon, "status");
    if (!has_users()) {
        GTEST_SKIP() << "this user namespace has one user alone";
    }
    EXPECT_EQ(proc_field(status, "Uid"), "1000\t1000\t1000\t1000");
    EXPECT_EQ(proc_field(status, "Groups"), "1007 ");
    EXPECT_EQ(proc_field(status, "CapBnd"), "0000000000000000");
    const std::string folder = kCrashlog + names_in(kCrashlog).at(0);
    struct stat report {};
    EXPECT_EQ(stat((folder + "/eventfile").c_str(), &report), 0);
    EXPECT_EQ(report.st_uid, 1000U);
    EXPECT_EQ(report.st_mode & 0777, 0600U);  // by the umask of services
    EXPECT_EQ(names_in(folder).size(), 2U);   // the report and the copy
}

}  // namespace
