#include <cutils/properties.h>
#include <sys/mount.h>

#include "tests/device_fixture.h"
#include "utils/util.h"
#include "zq_general_log.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr const char* kGeneral = "/data/logs/general_log";
constexpr const char* kSwitch = "persist.service.start.capture";

// Every started child, its command line; in the order in which the children came to write it.
std::vector<std::string> commands_of_one_capture(size_t children) {
    fs::remove("/data/commands");
    fixture::write_program("/system/bin/logcat", "echo \"$*\" >>/data/commands; exec sleep 1000");
    capturing(nullptr, true);
    fixture::wait_until("/data",
                        [=] { return fixture::read_lines("/data/commands").size() >= children; });
    capturing(nullptr, false);
    std::vector<std::string> commands = fixture::read_lines("/data/commands");
    for (std::string& command : commands) {
        const size_t path = command.find(kGeneral);
        command.erase(path, command.find_last_of('/', command.find(".log ")) - path);
    }
    std::sort(commands.begin(), commands.end());
    return commands;
}

class GeneralLog : public testing::Test {
  protected:
    void SetUp() override { fs::create_directories("/data/logs"); }
};

TEST_F(GeneralLog, ChannelsGetTheirDefaults) {
    EXPECT_THAT(
        commands_of_one_capture(4),
        ElementsAre("-b events -v threadtime -f /event.log -r 2000 -n 2",
                    "-b kernel -v threadtime -f /kernel.log -r 6000 -n 2",
                    "-b radio -v threadtime -f /radio.log -r 6000 -n 2",
                    "-b system -b main -b crash -v threadtime -f /android.log -r 20000 -n 5"));
}

TEST_F(GeneralLog, TheBoostRaisesTheAndroidChannelOnly) {
    property_set("sys.brevix.dynamic.log", "1");
    property_set("persist.sys.apklogfs.size", "40");
    property_set("persist.sys.eventlogfs.size", "7");
    property_set("persist.service.radiologfs.enable", "true");
    const fixture::log_lines log;
    EXPECT_THAT(commands_of_one_capture(3), ElementsAre(HasSubstr("/event.log -r 2000 -n 7"),
                                                        HasSubstr("/kernel.log -r 6000 -n 2"),
                                                        HasSubstr("/android.log -r 50000 -n 40")));
    EXPECT_THAT(log.lines(), testing::Contains("I ZQ_GENERAL_LOG: record radio is not enabled"));
}

TEST_F(GeneralLog, AllChannelsOffLeavesNoDirectory) {
    for (const char* name : {"apklogfs", "eventlogfs", "radiologfs"}) {
        property_set((std::string("persist.service.") + name + ".enable").c_str(), "0");
    }
    const fixture::log_lines log;
    capturing(nullptr, true);
    capturing(nullptr, false);
    EXPECT_THAT(log.lines(),
                ElementsAre("I ZQ_GENERAL_LOG: start capturing", "I ZQ_UTIL: new count: 0",
                            "I ZQ_GENERAL_LOG: record android is not enabled",
                            "I ZQ_GENERAL_LOG: record event is not enabled",
                            "I ZQ_GENERAL_LOG: record radio is not enabled",
                            "I ZQ_GENERAL_LOG: record kernel is not enabled",
                            "I ZQ_GENERAL_LOG: no task to do", "I ZQ_GENERAL_LOG: stop capturing"));
    EXPECT_TRUE(fs::is_empty(kGeneral));
}

TEST_F(GeneralLog, WhatStandsInTheWayIsSaid) {
    const auto last_line = [] {
        const fixture::log_lines log;
        capturing(nullptr, true);
        return log.lines().back();
    };
    fs::remove_all("/data/logs");
    EXPECT_EQ(last_line(),
              "E ZQ_GENERAL_LOG: device mapper not exist! plz check dm & mount status!");
    fixture::write_file(kGeneral, "");
    EXPECT_EQ(last_line(), "E ZQ_GENERAL_LOG: create general dir failed!");
    fs::remove(kGeneral);

    const std::string oldest = std::string(kGeneral) + "/ZQLog_0_t";
    fs::create_directories(oldest);
    property_set("persist.service.brevix.gl.num", "1");
    ASSERT_EQ(mount("none", oldest.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(last_line(), "E ZQ_GENERAL_LOG: remove old file failed!");
    umount(oldest.c_str());

    property_set("persist.service.brevix.gl.num", "many");
    EXPECT_THROW(capturing(nullptr, true), std::invalid_argument);
    property_set("persist.service.brevix.gl.num", "3");
    ASSERT_EQ(mount("none", kGeneral, "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(last_line(), "E ZQ_GENERAL_LOG: create new general log dir failed!");
}

TEST_F(GeneralLog, TenCapturesAreKept) {
    fixture::write_program("/system/bin/logcat", "exec sleep 1000");
    for (int i = 0; i < 12; ++i) {
        capturing(nullptr, true);
        capturing(nullptr, false);
    }
    EXPECT_THAT(fixture::names_in(kGeneral), SizeIs(10));
    EXPECT_THAT(fixture::names_in(kGeneral).front(), MatchesRegex("ZQLog_10_20..-..-..-..-..-.."));
}

// --- The daemon, switched by its property --------------------------------------------------------

class Daemon {
  public:
    Daemon() {
        const char* const argv[] = {"/system/bin/zq_brevix", nullptr};
        pid_ = ZQRecordLog("daemon", const_cast<char* const*>(argv));
        if (pid_ == 0) {
            _exit(127);
        }
    }
    ~Daemon() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    bool is_alive() const { return kill(pid_, 0) == 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

  private:
    pid_t pid_;
};

// Until the daemon's last word on the switch is `text` and, after an "on", the last channel
// started.
bool wait_for_switch(const fixture::log_lines& log, const std::string& text) {
    return fixture::wait_until("/data", [&] {
        std::string last;
        bool started = text == "stop capturing";
        for (const std::string& line : log.lines()) {
            if (line.ends_with(" capturing")) {
                last = line.substr(line.find(": ") + 2);
                started = text == "stop capturing";
            }
            started = started || line.find(": tag: kernel, pid") != std::string::npos;
        }
        return last == text && started;
    });
}

TEST_F(GeneralLog, RealLogsEndUpInTheCapture) {
    const fixture::log_lines log;
    const Daemon daemon;
    property_set(kSwitch, "1");
    ASSERT_TRUE(wait_for_switch(log, "start capturing"));
    const std::string capture = std::string(kGeneral) + "/" + fixture::names_in(kGeneral).at(0);
    EXPECT_EQ(fixture::mode_of(capture), 0777);
    struct {
        const char* buffer;
        const char* file;
    } const rows[] = {{"main", "android.log"},
                      {"system", "android.log"},
                      {"crash", "android.log"},
                      {"events", "event.log"},
                      {"radio", "radio.log"}};
    for (const auto& row : rows) {
        run_shell((std::string("log -t demo -b ") + row.buffer + " to " + row.buffer).c_str());
    }
    for (const auto& row : rows) {
        EXPECT_TRUE(fixture::wait_for_text(capture + "/" + row.file,
                                           std::string("demo    : to ") + row.buffer));
    }
    EXPECT_TRUE(fixture::wait_for_text(capture + "/android.log", "ZQLog main start!!"));

    const std::vector<pid_t> children = fixture::processes_named("logcat");
    EXPECT_THAT(children, SizeIs(4));
    property_set(kSwitch, "0");
    for (const pid_t child : children) {
        EXPECT_TRUE(fixture::wait_for_end(child));
    }
}

TEST_F(GeneralLog, FlippedAsFastAsItGoesTheLastStateHolds) {
    const fixture::log_lines log;
    const Daemon daemon;
    for (const bool on : {true, false}) {
        for (int i = 0; i < 500; ++i) {
            property_set(kSwitch, (i % 2 == 1) == on ? "1" : "0");
        }
        ASSERT_TRUE(wait_for_switch(log, on ? "start capturing" : "stop capturing"));
        // Whatever was sent a SIGTERM ends; only those of the present capture stay.
        fixture::wait_until(
            "/data", [=] { return fixture::processes_named("logcat").size() == (on ? 4U : 0U); });
        EXPECT_THAT(fixture::processes_named("logcat"), SizeIs(on ? 4 : 0));
    }
    EXPECT_TRUE(daemon.is_alive());
}

TEST_F(GeneralLog, WithoutLogcatNothingIsLeftRunning) {
    fs::remove("/system/bin/logcat");
    const fixture::log_lines log;
    const Daemon daemon;
    property_set(kSwitch, "1");
    ASSERT_TRUE(wait_for_switch(log, "start capturing"));
    property_set(kSwitch, "0");
    ASSERT_TRUE(wait_for_switch(log, "stop capturing"));
    EXPECT_THAT(fixture::processes_named("zq_brevix"), SizeIs(1));
    EXPECT_THAT(log.lines(), testing::Not(testing::Contains(HasSubstr("no task to do"))));
}

TEST_F(GeneralLog, ANumberThatIsNoneEndsTheDaemon) {
    property_set("persist.service.brevix.gl.num", "ten");
    property_set(kSwitch, "1");
    const fixture::log_lines log;
    const char* const argv[] = {"/system/bin/zq_brevix", nullptr};
    const int pid = ZQRecordLog("daemon", const_cast<char* const*>(argv));
    if (pid == 0) {
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

TEST_F(GeneralLog, AFullDiskEndsCapturesNotTheDaemon) {
    ASSERT_EQ(mount("none", "/data/logs", "tmpfs", 0, "size=64k"), 0);
    const fixture::log_lines log;
    const Daemon daemon;
    property_set(kSwitch, "1");
    ASSERT_TRUE(wait_for_switch(log, "start capturing"));
    run_shell("head -c 200000 /dev/zero >/data/logs/fill; log -t demo full");
    property_set(kSwitch, "0");
    ASSERT_TRUE(wait_for_switch(log, "stop capturing"));
    fs::remove("/data/logs/fill");
    property_set(kSwitch, "1");
    ASSERT_TRUE(wait_for_switch(log, "start capturing"));
    EXPECT_THAT(fixture::names_in(kGeneral), SizeIs(2));
    EXPECT_TRUE(daemon.is_alive());
}

}  // namespace
