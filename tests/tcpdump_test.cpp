// SPDX-License-Identifier: Apache-2.0

// The packet capture: its command, what it records, and that nothing of it outlives its end.

#include <thread>

#include "tests/device_fixture.h"
#include "tests/failing_threads.h"
#include "tool/zq_tcpdump.h"

namespace {

using namespace brevix;
using namespace fixture;
using namespace testing;

constexpr char kSwitch[] = "sys.tcpdump";
constexpr char kOutput[] = "/data/tool_output";

TEST(CaptureCommand, IsMadeOfTheProperties) {
    struct {
        const char* size;
        const char* file;
        const char* limitation;
        std::string options;
        std::string name;
    } const cases[] = {
        {"100,10", "", "1", "-s 128 -C 100 -W 10", "$(date +%Y.%m.%d.%H:%M:%S)"},
        {"20,3", "net", "0", "-C 20 -W 3", "net"},
        {"500,50", "a b/c", "00", "-s 128 -C 100 -W 10", "a b/c"},
        {"-5,-3", "x", "", "-s 128 -C -5 -W -3", "x"},
        {" 7x,+2y,9", "x", "0 ", "-s 128 -C 7 -W 2", "x"},
        {"50", "x", "0", "-C 50 -W 0", "x"},
        {"5,", "x", "0", "-C 5 -W 0", "x"},
        {"", "x", "0", "-C 0 -W 0", "x"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(capture_command(c.size, c.file, c.limitation),
                  "tcpdump -i any -p " + c.options + " -w/data/tcpdump/" + c.name + ".pcap")
            << c.size;
    }
    EXPECT_EQ(capture_command("1,1", std::string(300, 'x').c_str(), "0").size(), 254U);
    for (const char* size : {"5,,", ",", " , ", ",5", "abc,3", "5,abc"}) {
        EXPECT_THROW(capture_command(size, "", "1"), std::invalid_argument) << size;
    }
    EXPECT_THROW(capture_command("2147483648,1", "", "1"), std::out_of_range);
}

// All but the device's init and the test itself, zombies included.
std::vector<std::string> other_processes() {
    std::vector<std::string> names;
    for (const process& each : processes()) {
        if (each.pid != 1 && each.pid != getpid()) {
            names.push_back(each.name);
        }
    }
    return names;
}

class Capture : public Test {
  protected:
    void SetUp() override {
        fs::create_directories("/data/tcpdump");
        chmod("/data/tcpdump", 0777);
    }

    void start() {
        set_property(kSwitch, "0");
        fs::remove(kOutput);
        tool_ = fixture::start("exec zq_brevix tcpdump x >/data/tool_output 2>&1");
        set_property(kSwitch, "1");
        ASSERT_TRUE(wait_for_text(kOutput, "start recording"));
    }

    void start_and_wait(const std::string& tcpdump) {
        fs::remove("/data/started");
        write_program("/system/bin/tcpdump", tcpdump);
        start();
        ASSERT_TRUE(wait_for_text("/data/started", "\n"));
    }

    void stop() {
        set_property(kSwitch, "0");
        EXPECT_EQ(wait_status(tool_), 0);
        EXPECT_THAT(other_processes(), IsEmpty());
        EXPECT_THAT(
            read_file(kOutput),
            ContainsRegex("I ZQ_TCPDUMP: start rec.*I ZQ_TCPDUMP: stop rec.*I ZQ_TCPDUMP: exit\n"));
    }

    // `later` comes while the tool handles `sig`; 0 is none.
    void expect_end_by(int sig, int later = 0) {
        kill(tool_, sig);
        EXPECT_TRUE(later == 0 || wait_for_text(kOutput, "exit"));
        kill(tool_, later);
        EXPECT_EQ(WTERMSIG(wait_status(tool_)), sig);
        EXPECT_THAT(other_processes(), IsEmpty()) << sig;
    }

    pid_t tool_ = -1;
};

TEST_F(Capture, LeavesReadablePacketsAndNoProcess) {
    if (chown("/data/tcpdump", 2900, 2900) != 0) {
        GTEST_SKIP() << "Debian's tcpdump changes its user, which only a real root may";
    }
    start();
    // tcpdump writes in blocks: the first one in the file shows that it records, and what it has
    // buffered by then is what a SIGKILL would lose.
    std::string file;
    ASSERT_TRUE(wait_until("/data/tcpdump", [&] {
        for (const std::string& name : names_in("/data/tcpdump")) {
            file = "/data/tcpdump/" + name;
            run("bash -c 'for i in {1..100}; do printf %1000s >/dev/udp/127.0.0.1/4242; done'");
        }
        return !file.empty() && fs::file_size(file) > 0;
    }));
    EXPECT_THAT(file, MatchesRegex("/data/tcpdump/20..\\...\\...\\...:..:..\\.pcap0"));
    stop();
    EXPECT_EQ(mode_of(file), 0666);
    EXPECT_THAT(run("tcpdump -n -r " + file).output,
                AllOf(HasSubstr("snapshot length 128"),
                      HasSubstr("127.0.0.1.4242: UDP, length 1000"), Not(HasSubstr("truncated"))));
}

TEST_F(Capture, AStopAtAnyMomentLeavesNoProcess) {
    const std::string endless = "echo $* >/data/started; exec sleep 1000";
    write_program("/system/bin/tcpdump", endless);
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        start();
        stop();
        start();
        expect_end_by(SIGTERM);
        start_and_wait(endless);
        stop();
    }
    EXPECT_THAT(read_file("/data/started"),
                StartsWith("-i any -p -s 128 -C 100 -W 10 -w/data/tcpdump/20"));
    set_property("sys.tcpdump.size", "1,2");
    set_property("sys.tcpdump.file", "x");
    set_property("sys.brevix.tcpdump.package.limitation", "0");
    start_and_wait(endless);
    stop();
    EXPECT_EQ(read_file("/data/started"), "-i any -p -C 1 -W 2 -w/data/tcpdump/x.pcap\n");
}

// Needs a moment to write its last block, and leaves a file when it had that moment.
constexpr char kEndsInItsOwnTime[] =
    "trap 'sleep 0.2; echo >/data/flushed; exit' TERM; echo >/data/started; "
    "while true; do sleep 1000; done";

TEST_F(Capture, AStopWaitsForTcpdumpAndKillsItAfterThreeSeconds) {
    start_and_wait("echo >/data/started; exit 1");
    stop();
    start_and_wait(std::string("kill -9 $PPID; ") + kEndsInItsOwnTime);  // the shell dies first
    stop();
    EXPECT_TRUE(fs::remove("/data/flushed"));
    start_and_wait("trap '' TERM; echo >/data/started; while true; do sleep 1000; done");
    const auto began = std::chrono::steady_clock::now();
    stop();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - began;
    EXPECT_THAT(taken.count(), AllOf(Ge(3), Lt(10)));
}

TEST_F(Capture, AnEndSignalEndsTheCaptureBeforeTheTool) {
    for (const int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        start_and_wait(kEndsInItsOwnTime);
        expect_end_by(sig, sig == SIGTERM ? SIGINT : SIGTERM);
        EXPECT_TRUE(fs::remove("/data/flushed")) << sig;
    }
    // A parent may have left them blocked, and SIGHUP ignored.
    sigset_t blocked;
    sigfillset(&blocked);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    start_and_wait(kEndsInItsOwnTime);
    expect_end_by(SIGTERM);
    set_property(kSwitch, "0");
    tool_ = fixture::start("exec zq_brevix tcpdump");
    EXPECT_TRUE(wait_until("/data", [] { return !processes_named("zq_brevix").empty(); }));
    EXPECT_TRUE(wait_until_idle(tool_));  // before the "1"
    expect_end_by(SIGTERM);
    // The switch comes while the capture ends.
    start_and_wait(
        "trap 'until test -e /data/go; do sleep 0.1; done; exit' TERM; "
        "echo >/data/started; while true; do sleep 1000; done");
    kill(tool_, SIGTERM);
    EXPECT_TRUE(wait_for_text(kOutput, "exit"));
    set_property(kSwitch, "0");
    EXPECT_TRUE(wait_until("/data", [&] {  // it waits for the recorder
        return read_file(proc(tool_, "wchan")).find("futex") != std::string::npos;
    }));
    write_file("/data/go", "");
    EXPECT_EQ(wait_status(tool_), 0);
    signal(SIGHUP, SIG_IGN);
    start_and_wait(kEndsInItsOwnTime);
    kill(tool_, SIGHUP);
    stop();
}

TEST_F(Capture, WithoutAThreadTheToolStillEndsAtTheStop) {
    write_file("/data/tcpdump/old.pcap", "");
    set_property(kSwitch, "1");
    const log_lines log;
    std::thread app([] {
        EXPECT_TRUE(wait_for_text(log_lines::kFile, "thread create fail"));
        set_property(kSwitch, "0");
    });
    let_threads_fail();
    EXPECT_EQ(ZQTCPDumpDetect(), 0);
    app.join();
    EXPECT_THAT(log.lines(),
                ElementsAre("I ZQ_TCPDUMP: start recording", "E ZQ_TCPDUMP: thread create fail",
                            "I ZQ_TCPDUMP: stop recording"));
    EXPECT_EQ(mode_of("/data/tcpdump/old.pcap"), 0666);
    EXPECT_THAT(proc_field("/proc/self/status", "SigBlk"), MatchesRegex(kNoneBlocked));
}

}  // namespace
