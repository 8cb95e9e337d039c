// The system dump and the touch panel dump.

#include <arpa/inet.h>
#include <cutils/properties.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <thread>

#include "tests/device_fixture.h"
#include "tool/zq_touchpanel.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

std::string property(const char* name) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name, value, "(unset)");
    return value;
}

// --- System dump ---------------------------------------------------------------------------------

// A connection to itself on the loopback interface.
class connection {
  public:
    connection() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(kPort);
        auto* const to = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(fd_, to, sizeof(address)), 0);
        EXPECT_EQ(connect(fd_, to, sizeof(address)), 0);
    }
    ~connection() { close(fd_); }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    static constexpr int kPort = 4242;

  private:
    int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST(SystemDump, LeavesSevenFilesWithTheStateOfTheSystem) {
    const connection open;
    const std::string self = "dump_test";
    struct {
        const char* file;
        std::string text;
    } const dumps[] = {
        {"iotop.txt", self},
        {"lsof.txt", "127.0.0.1:4242->127.0.0.1:4242"},
        {"netstate.txt", "127.0.0.1:4242"},
        {"procrank.txt", self},
        {"ps.txt", self},
        {"ss_eionptu.txt", "127.0.0.1:4242"},
        {"storaged.txt", "root "},
    };
    const std::string dir = "/data/logs/dumpsys/";
    std::vector<std::string> names;
    for (const auto& dump : dumps) {
        fixture::write_file(dir + dump.file, "of the last time");
        names.push_back(dump.file);
    }
    property_set("sys.brevix.dumplog.enable", "1");
    const fixture::outcome tool = fixture::run("zq_brevix dump_info");
    EXPECT_EQ(tool.exit_status, 0);
    EXPECT_THAT(tool.output, HasSubstr("I ZQ_DUMPINFO: dumpinfo\n"));
    EXPECT_EQ(property("sys.brevix.dumplog.enable"), "0");
    EXPECT_EQ(fixture::names_in(dir), names);
    for (const auto& dump : dumps) {
        EXPECT_THAT(fixture::read_file(dir + dump.file),
                    AllOf(HasSubstr(dump.text), Not(HasSubstr("of the last time"))))
            << dump.file;
    }
}

TEST(SystemDump, EndsItsRequestWhateverFails) {
    fixture::write_file("/data/logs", "");
    property_set("sys.brevix.dumplog.enable", "1");
    EXPECT_EQ(fixture::run("zq_brevix dump_info").exit_status, 0);
    EXPECT_EQ(property("sys.brevix.dumplog.enable"), "0");
}

TEST(SystemDump, ItsFiguresAreTheKernels) {
    const auto field = [](const std::string& line, int index) {
        std::istringstream in(line);
        std::string word;
        for (int i = 0; i <= index; ++i) {
            in >> word;
        }
        return std::stoll(word);
    };
    constexpr long long kBytes = 32 << 20;
    const std::string held(kBytes, 'x');
    long long pss = 0;
    for (const std::string& line : fixture::read_lines("/proc/self/smaps_rollup")) {
        pss = line.starts_with("Pss:") ? field(line, 1) : pss;
    }
    const std::string ranks = fixture::run("procrank").output;
    std::istringstream in(ranks);
    std::string line;
    while (std::getline(in, line) && line.find("dump_test") == std::string::npos) {
    }
    EXPECT_EQ(field(line, 0), getpid());
    EXPECT_NEAR(static_cast<double>(field(line, 3)), static_cast<double>(pss), 4096);
    EXPECT_GT(pss, kBytes / 1024);

    fixture::write_file("/data/written", held);
    const std::string users = fixture::run("storaged -u").output;
    EXPECT_GT(field(users.substr(users.find("\nroot ")), 2), kBytes);
}

// --- Touch panel dump ----------------------------------------------------------------------------

const std::string kGoodix = "/sys/devices/platform/goodix_ts.0/";
const std::string kReplay = kGoodix + "enable_replay";
const std::string kReplayData = kGoodix + "replay_data";
const std::string kFts = "/sys/devices/platform/soc/11013000.spi3/spi_master/spi3/spi3.0/";
const std::string kDiffMode = kFts + "fts_fast_diff_mode";
const std::string kDiffData = kFts + "fts_diff_data";
const std::string kOutputDir = "/data/logs/touch_panel/";
constexpr char kRequest[] = "sys.brevix.touchpanel.fetch";

class TouchPanel : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(kOutputDir);
        fixture::write_file(kReplay, "");
        fixture::write_file(kReplayData, "never changes");
        fixture::write_file(kDiffMode, "");
        fixture::write_file(kDiffData, std::string("1 2 3\n\0 4", 9));
        fixture::write_program("/system/bin/chown", "echo \"$*\" >>/data/chown");
        property_set(kRequest, "1");
    }

    // Raw lines: log lines, and what goes to standard error as it is.
    static std::vector<std::string> dump(const char* features) {
        property_set("ro.zq.features", features);
        const fixture::log_lines log;
        EXPECT_EQ(ZQTouchPanelDump(), 0);
        std::vector<std::string> lines;
        for (const std::string& line : fixture::read_lines(fixture::log_lines::kFile)) {
            const size_t text = line.find("I ZQ_TOUCHPANEL: ");
            lines.push_back(text == std::string::npos ? line : line.substr(text + 17));
        }
        EXPECT_EQ(lines.front(), "TouchPanel main start!!");
        EXPECT_EQ(lines.back(), "TouchPanel main end!!");
        return {lines.begin() + 1, lines.end() - 1};
    }

    static std::string output(const std::string& suffix) {
        for (const std::string& name : fixture::names_in(kOutputDir)) {
            if (name.ends_with(suffix)) {
                return kOutputDir + name;
            }
        }
        return "";
    }
};

constexpr char kHandOver[] = "chown -R system:system /data/logs/touch_panel/";

TEST_F(TouchPanel, WithoutAControllerNothingIsTouched) {
    EXPECT_THAT(dump("6,2,620"), IsEmpty());
    EXPECT_EQ(fixture::read_file(kReplay) + fixture::read_file(kDiffMode), "");
    EXPECT_EQ(property(kRequest), "1");
    EXPECT_FALSE(fs::exists("/data/chown"));
}

TEST_F(TouchPanel, BothControllersAreCapturedInTurn) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(dump("62,63"),
                ElementsAre("TouchPanel polling!! break time", kHandOver, "", kHandOver, ""));
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    EXPECT_GE(seconds.count(), 4);
    EXPECT_LT(seconds.count(), 6);
    EXPECT_EQ(fixture::read_file(kReplay) + fixture::read_file(kDiffMode), "00");
    const std::string stamp = "tp_log_20..-..-.._..-..-..";
    EXPECT_THAT(output(".rep"), MatchesRegex(kOutputDir + stamp + ".rep"));
    EXPECT_THAT(output(".txt"), MatchesRegex(kOutputDir + stamp + ".txt"));
    EXPECT_EQ(fixture::read_file(output(".rep")), "");
    EXPECT_EQ(fixture::read_file(output(".txt")), fixture::read_file(kDiffData));
    EXPECT_EQ(property(kRequest), "0");
    const std::string owner = "-R system:system /data/logs/touch_panel/";
    EXPECT_THAT(fixture::read_lines("/data/chown"), ElementsAre(owner, owner));
}

// The list of mounts is a kernel file that raises a priority event whenever it changes.
TEST_F(TouchPanel, EveryChangeOfTheNodeIsASnapshot) {
    fs::remove(kReplayData);
    fs::create_symlink("/proc/self/mounts", kReplayData);
    std::string expected;
    std::thread driver([&] {
        fixture::wait_until(kGoodix, [] { return fixture::read_file(kReplay) == "1"; });
        for (int i = 0; i < 3; ++i) {
            const std::string place = "/m" + std::to_string(i);
            fs::create_directory(place);
            mount("none", place.c_str(), "tmpfs", 0, nullptr);
            expected += fixture::read_file("/proc/self/mounts").substr(0, 2500);
            fixture::wait_until(kOutputDir,
                                [&] { return fs::file_size(output(".rep")) == expected.size(); });
        }
    });
    EXPECT_THAT(dump("62"), Contains("TouchPanel polling!! break time"));
    driver.join();
    EXPECT_THAT(expected, HasSubstr("/m2"));
    EXPECT_EQ(fixture::read_file(output(".rep")), expected);
}

TEST_F(TouchPanel, AnInterruptedPollEndsTheCaptureAsUsual) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_THAT(dump("62"), ElementsAre("TouchPanel polling!! break poll", kHandOver, ""));
    EXPECT_EQ(fixture::read_file(kReplay), "0");
    EXPECT_EQ(property(kRequest), "0");
}

TEST_F(TouchPanel, WhatCannotBeOpenedEndsItsCaptureAlone) {
    fs::rename(kReplayData, kReplayData + "_away");
    fs::rename(kDiffData, kDiffData + "_away");
    EXPECT_THAT(dump("62,63"), ElementsAre("TouchPanel Error: Unable to open source file",
                                           "Error: Unable to open source file: " + kDiffData));
    EXPECT_EQ(fixture::read_file(kReplay), "");
    EXPECT_EQ(fixture::read_file(kDiffMode), "1");
    EXPECT_THAT(fixture::names_in(kOutputDir), ElementsAre(MatchesRegex("tp_log_.*txt")));
    EXPECT_EQ(fixture::read_file(output(".txt")), "");

    fs::rename(kReplayData + "_away", kReplayData);
    fs::rename(kDiffData + "_away", kDiffData);
    fs::remove_all(kOutputDir);
    fs::remove(kDiffMode);
    EXPECT_THAT(dump("62,63"),
                ElementsAre("TouchPanel Error: Unable to create target file",
                            "Error: Unable to open file: " + kDiffMode,
                            StartsWith("Error: Unable to create target file: " + kOutputDir)));
    EXPECT_EQ(property(kRequest), "1");
    EXPECT_FALSE(fs::exists("/data/chown"));
}

TEST_F(TouchPanel, AFailedHandOverStillEndsTheRequest) {
    fixture::write_program("/system/bin/chown", "exit 1");
    fixture::write_file(kDiffData, "");
    fs::remove(kDiffMode);
    fs::create_symlink("/dev/full", kDiffMode);
    const std::string unwritten = "Error: Failed to write content to file: " + kDiffMode;
    EXPECT_THAT(dump("63"), ElementsAre(unwritten, unwritten, kHandOver, "", "TouchPanel Error"));
    EXPECT_EQ(property(kRequest), "0");
}

}  // namespace
