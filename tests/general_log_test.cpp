// SPDX-License-Identifier: Apache-2.0

// General log captures: their commands, folders and children, called directly and in the daemon.

#include <linux/sched.h>
#include <spawn.h>

#include <map>

#include "tests/device_fixture.h"
#include "utils/util.h"
#include "zq_general_log.h"

// Bionic allocates these two objects: that can fail there, and what is not destroyed leaks. glibc
// only clears them.
int spawn_settings_left = -1;  // until a call fails; negative: none does
int attributes_held = 0;

extern "C" {
decltype(posix_spawn) __real_posix_spawn;
decltype(posix_spawnattr_init) __real_posix_spawnattr_init;
decltype(posix_spawn_file_actions_init) __real_posix_spawn_file_actions_init;
decltype(posix_spawnattr_destroy) __real_posix_spawnattr_destroy;

int __wrap_posix_spawnattr_init(posix_spawnattr_t* attributes) {
    if (spawn_settings_left-- == 0) {
        return ENOMEM;
    }
    ++attributes_held;
    return __real_posix_spawnattr_init(attributes);
}
int __wrap_posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) {
    return spawn_settings_left-- == 0 ? ENOMEM : __real_posix_spawn_file_actions_init(actions);
}
int __wrap_posix_spawnattr_destroy(posix_spawnattr_t* attributes) {
    --attributes_held;
    return __real_posix_spawnattr_destroy(attributes);
}

// Bionic does not tell that the program cannot be started: the child ends with 127.
int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[],
                       char* const environment[]) {
    if (access(path, X_OK) != 0) {
        path = "/system/bin/false";
    }
    return __real_posix_spawn(pid, path, actions, attributes, argv, environment);
}
}

namespace {

using namespace brevix;
using namespace fixture;
using namespace testing;

const std::string kGeneral = "/data/logs/general_log";
constexpr size_t kChannels = 4;

class GeneralLog : public Test {
  protected:
    void SetUp() override {
        setenv("TZ", kZone, 1);
        fs::create_directories("/data/logs");
    }
};

// Properties, kept for the settings that follow, and the commands of the channels.
const std::string kAndroid = "-b system -b main -b crash -v threadtime -f android.log -r ";
const std::string kEvent = "-b events -v threadtime -f event.log -r ";
const std::string kKernel = "-b kernel -v threadtime -f kernel.log -r ";
const std::string kRadio = "-b radio -v threadtime -f radio.log -r ";
const struct {
    const char* name;
    std::map<std::string, std::string> properties;
    std::vector<std::string> commands;
} kSettings[] = {
    {"defaults",
     {},
     {kEvent + "2000 -n 2", kKernel + "6000 -n 2", kRadio + "6000 -n 2", kAndroid + "20000 -n 5"}},
    {"boost",
     {{"sys.brevix.dynamic.log", "1"}},
     {kEvent + "2000 -n 2", kKernel + "6000 -n 2", kRadio + "6000 -n 2", kAndroid + "50000 -n 30"}},
    {"own settings, beyond the boost",
     {{"persist.sys.apklogfs.size", "40"},
      {"persist.sys.apklogfs.rotate_kbytes", "60000"},
      {"persist.sys.eventlogfs.size", "7"},
      {"persist.sys.eventlogfs.rotate_kbytes", "2001"},
      {"persist.sys.radiologfs.size", "8"},
      {"persist.sys.radiologfs.rotate_kbytes", "6001"},
      {"persist.sys.kmsglogfs.size", "9"},
      {"persist.sys.kmsglogfs.rotate_kbytes", "6002"}},
     {kEvent + "2001 -n 7", kKernel + "6002 -n 9", kRadio + "6001 -n 8", kAndroid + "60000 -n 40"}},
    {"all off",
     {{"persist.service.apklogfs.enable", "0"},
      {"persist.service.radiologfs.enable", "1x"},
      {"persist.service.eventlogfs.enable", "01"}},
     {}},
};

TEST_F(GeneralLog, ChannelsFollowTheirProperties) {
    // Without the folder, which holds the time.
    write_program("/system/bin/logcat",
                  "echo \"$*\" | sed 's|/data.*/||' >>/data/commands; exec sleep 1000");
    for (const auto& c : kSettings) {
        write_file("/data/commands", "");
        for (const auto& [name, value] : c.properties) {
            set_property(name, value);
        }
        const log_lines log;
        capturing(nullptr, true);
        const auto commands = [] { return read_lines("/data/commands"); };
        wait_until("/data", [&] { return commands().size() >= c.commands.size(); });
        capturing(nullptr, false);
        EXPECT_THAT(commands(), UnorderedElementsAreArray(c.commands)) << c.name;
        EXPECT_EQ(log.count(" is not enabled"), kChannels - c.commands.size());
        if (c.commands.empty()) {
            const std::string tag = "I ZQ_GENERAL_LOG: ";
            const std::string off = " is not enabled";
            EXPECT_THAT(log.lines(),
                        ElementsAre(tag + "start capturing", "I ZQ_UTIL: new count: 3",
                                    tag + "record android" + off, tag + "record event" + off,
                                    tag + "record radio" + off, tag + "record kernel" + off,
                                    tag + "no task to do", tag + "stop capturing"));
        }
    }
    EXPECT_THAT(names_in(kGeneral), SizeIs(3)) << "without a channel no directory stays";
}

TEST_F(GeneralLog, FailuresAreLogged) {
    const auto last_line = [] {
        const log_lines log;
        capturing(nullptr, true);
        return log.lines().back();
    };
    fs::remove_all("/data/logs");
    EXPECT_EQ(last_line(),
              "E ZQ_GENERAL_LOG: device mapper not exist! plz check dm & mount status!");
    write_file(kGeneral, "");
    EXPECT_EQ(last_line(), "E ZQ_GENERAL_LOG: create general dir failed!");
    fs::remove(kGeneral);

    const std::string oldest = kGeneral + "/ZQLog_0_t";
    fs::create_directories(oldest);
    set_property("persist.service.brevix.gl.num", "1");
    ASSERT_TRUE(mount_memory(oldest));
    EXPECT_EQ(last_line(), "E ZQ_GENERAL_LOG: remove old file failed!");
    umount(oldest.c_str());

    set_property("persist.service.brevix.gl.num", "3");
    ASSERT_TRUE(mount_memory(kGeneral, MS_RDONLY));
    EXPECT_EQ(last_line(), "E ZQ_GENERAL_LOG: create new general log dir failed!");
}

TEST_F(GeneralLog, AChannelThatFailsForMemoryIsLoggedAndNotSignalled) {
    const pid_t stranger = start("exec sleep 1000");
    for (const int settings : {0, 1}) {
        const log_lines log;
        spawn_settings_left = settings;
        capturing(nullptr, true);
        capturing(nullptr, false);
        EXPECT_THAT(log.lines(),
                    Contains(std::string("E ZQ_UTIL: tag: android, error: ") + strerror(ENOMEM)));
        EXPECT_EQ(log.count(", pid: "), kChannels - 1);
        EXPECT_EQ(attributes_held, 0);
    }
    kill(stranger, SIGKILL);
    EXPECT_EQ(wait_status(stranger), SIGKILL)
        << "the failed start's -1 was signalled: all processes";
    for (size_t i = 0; i < 2 * (kChannels - 1); ++i) {
        EXPECT_NE(wait_status(-1), SIGKILL);
    }
}

TEST_F(GeneralLog, TenCapturesAreKeptBelowTheCeiling) {
    write_program("/system/bin/logcat", "exec sleep 1000");
    for (int i = 0; i < 12; ++i) {
        capturing(nullptr, true);
        capturing(nullptr, false);
    }
    EXPECT_THAT(names_in(kGeneral), SizeIs(10));
    const std::string tenth = names_in(kGeneral).front();
    EXPECT_TRUE(tenth.starts_with("ZQLog_10_") && is_now(tenth.substr(9), kFileTimeFormat))
        << tenth;
    write_file(kGeneral + "/" + tenth + "/android.log", "");
    fs::resize_file(kGeneral + "/" + tenth + "/android.log", int64_t{3} << 30);
    // Something that cannot be removed stops neither the others' removal nor the capture.
    const std::string third = kGeneral + "/" + names_in(kGeneral).at(3);
    fs::create_directory(third + "/mounted");
    ASSERT_TRUE(mount_memory(third + "/mounted"));
    const log_lines log;
    capturing(nullptr, true);
    EXPECT_THAT(names_in(kGeneral), ElementsAre(StartsWith("ZQLog_11_"), StartsWith("ZQLog_12_"),
                                                StartsWith("ZQLog_3_")));
    EXPECT_THAT(log.lines(), Contains("E ZQ_UTIL: maximum size exceed, remove it " + third));
}

TEST_F(GeneralLog, AProgramThatCannotBeStartedIsTheChildsMatter) {
    write_file("/data/not_executable", "");
    for (const char* program : {"/none", "/data/not_executable"}) {
        const char* const argv[] = {program, nullptr};
        const int pid = ZQRecordLog("test", const_cast<char* const*>(argv));
        if (pid == 0) {
            _exit(3);
        }
        EXPECT_EQ(wait_status(pid), 3 << 8) << program;
    }
}

// The kernel gives the pid of a collected child to another process.
TEST_F(GeneralLog, AChildThatWasCollectedIsNotSignalled) {
    const char* const argv[] = {"/system/bin/true", nullptr};
    const char* const running[] = {"/system/bin/sleep", "1000", nullptr};
    const pid_t kept = start_kept_child("test", running);
    pid_t pid = start_kept_child("test", argv);
    ASSERT_TRUE(wait_for_end(pid));
    ASSERT_TRUE(wait_for_end(start("exit")));  // of another's
    reap_ended_children();
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<uintptr_t>(&pid);
    arguments.set_tid_size = 1;
    const auto stranger = static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof(arguments)));
    while (stranger == 0) {
        pause();
    }
    ASSERT_EQ(stranger, pid);
    signal_kept_children(SIGTERM);
    EXPECT_EQ(wait_status(kept), SIGTERM);
    kill(stranger, SIGKILL);
    EXPECT_EQ(wait_status(stranger), SIGKILL);
}

// --- The daemon, switched by its property --------------------------------------------------------

class Daemon : public GeneralLog {
  protected:
    static void set_switch(bool on) {
        set_property("persist.service.start.capture", on ? "1" : "0");
    }

    // Until the switch's last line in the log is this one and, after an "on", the last channel
    // runs.
    static bool wait_for(bool on) {
        return wait_until("/data", [=] {
            const std::string text = read_file(log_lines::kFile);
            const size_t start = text.rfind(": start capturing") + 1;  // 0 without one
            const size_t stop = text.rfind(": stop capturing") + 1;
            return on ? start > stop && text.find(": tag: kernel, pid", start) != text.npos
                      : stop > start;
        });
    }
    static bool flip(bool on) {
        set_switch(on);
        return wait_for(on);
    }

    daemon_process daemon_;
};

TEST_F(Daemon, ACaptureIsOpenToAllAndEndsWithItsSwitch) {
    ASSERT_TRUE(flip(true));
    const std::string capture = kGeneral + "/" + names_in(kGeneral).at(0);
    EXPECT_EQ(mode_of(capture), 0777);
    EXPECT_TRUE(wait_for_text(capture + "/android.log", "I ZQ_BREVIX: ZQLog main start!!"));
    const std::vector<pid_t> children = children_of(daemon_.pid);
    EXPECT_THAT(children, SizeIs(kChannels));
    set_switch(false);
    EXPECT_TRUE(std::ranges::all_of(children, [](pid_t pid) { return wait_for_end(pid); }));
}

TEST_F(Daemon, AfterRapidSwitchesTheLastStateHolds) {
    for (const bool on : {true, false}) {
        for (int i = 0; i < 500; ++i) {
            set_switch((i % 2 == 1) == on);
        }
        ASSERT_TRUE(wait_for(on));
        // SIGTERM ends every channel of the earlier captures; those of the last one run on.
        const size_t left = on ? kChannels : 0;
        EXPECT_TRUE(wait_until("/data", [&] { return children_of(daemon_.pid).size() == left; }));
    }
}

TEST_F(Daemon, WithoutLogcatNothingIsLeftRunning) {
    fs::remove("/system/bin/logcat");
    ASSERT_TRUE(flip(true));
    ASSERT_TRUE(flip(false));
    EXPECT_TRUE(wait_until("/data", [&] { return children_of(daemon_.pid).empty(); }));
}

TEST_F(GeneralLog, AMalformedNumberEndsTheDaemon) {
    const log_lines log;
    set_property("persist.service.brevix.gl.num", "ten");
    set_property("persist.service.start.capture", "1");
    EXPECT_EQ(WTERMSIG(wait_status(start("exec zq_brevix"))), SIGABRT);
    set_property("persist.service.start.capture", "0");
    set_property("persist.service.brevix.ev.num", "many");
    EXPECT_EQ(WTERMSIG(wait_status(start("exec zq_brevix"))), SIGABRT);
    // The upgrade comes before the first subscription.
    set_property("persist.service.start.capture", "1");
    set_property("persist.service.brevix.version", "new");
    EXPECT_EQ(WTERMSIG(wait_status(start("exec zq_brevix"))), SIGABRT);
    EXPECT_EQ(log_lines::count("start.capture changed to 1"), 1U);
}

}  // namespace
