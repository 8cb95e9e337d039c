// SPDX-License-Identifier: Apache-2.0

// The system dump's files, and what the touch panel dump takes from its controllers' nodes.

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <regex>
#include <thread>

#include "tests/device_fixture.h"
#include "tool/zq_touchpanel.h"
#include "utils/directories.h"

// Only the lowest bit of the answer counts.
extern "C" int __real_GetZqFeature(int feature);
extern "C" int __wrap_GetZqFeature(int feature) {
    return __real_GetZqFeature(feature) | 2;
}

namespace {

using namespace brevix;
using namespace fixture;
using namespace testing;

// --- System dump ---------------------------------------------------------------------------------

// A connection for the dumps to show, open until the test ends.
void connect_to_itself(uint16_t port) {
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    auto* const to = reinterpret_cast<sockaddr*>(&address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd, to, sizeof(address)), 0);
    ASSERT_EQ(connect(fd, to, sizeof(address)), 0);
}

TEST(SystemDump, LeavesSevenFilesWithTheStateOfTheSystem) {
    connect_to_itself(4242);
    // A file, what it shows, its command.
    const std::array<std::string, 3> dumps[] = {
        {"iotop.txt", "dump_test", "toybox iotop -n 1 -m 100\n"},
        {"lsof.txt", "127.0.0.1:4242->127.0.0.1:4242", "lsof\n"},
        {"netstate.txt", "127.0.0.1:4242", "netstat -nW\n"},
        {"procrank.txt", "dump_test", "procrank\n"},
        {"ps.txt", "LABEL.*TID.*dump_test", "ps -A -T -Z\n"},
        {"ss_eionptu.txt", "127.0.0.1:4242", "ss -eionptu\n"},
        {"storaged.txt", "root ", "storaged -u -p\n"},
    };
    const std::string dir = "/data/logs/dumpsys/";
    for (const auto& dump : dumps) {
        write_file(dir + dump[0], "of the last time");
    }
    const std::string request = "setprop sys.brevix.dumplog.enable 1; zq_brevix dump_info x && ";
    const std::string answer = "getprop sys.brevix.dumplog.enable";
    EXPECT_THAT(run(request + answer).output,
                AllOf(HasSubstr("I ZQ_DUMPINFO: dumpinfo\n"), EndsWith("\n0\n")));
    EXPECT_THAT(names_in(dir), SizeIs(std::size(dumps)));
    for (const auto& [file, text, command] : dumps) {
        EXPECT_THAT(read_file(dir + file),
                    AllOf(ContainsRegex(text), Not(HasSubstr("of the last time"))))
            << file;
        write_program("/system/bin/" + command.substr(0, command.find_first_of(" \n")),
                      "echo ${0##*/} $*");
    }
    run("zq_brevix dump_info");
    for (const auto& [file, text, command] : dumps) {
        EXPECT_EQ(read_file(dir + file), command);
    }

    fs::remove_all("/data/logs");
    write_file("/data/logs", "");  // no dump can be written
    EXPECT_THAT(run(request + answer).output, EndsWith("\n0\n"));
}

// --- Touch panel dump ----------------------------------------------------------------------------

const std::string kGoodix = "/sys/devices/platform/goodix_ts.0/";
const std::string kReplay = kGoodix + "enable_replay";
const std::string kReplayData = kGoodix + "replay_data";
const std::string kFts = "/sys/devices/platform/soc/11013000.spi3/spi_master/spi3/spi3.0/";
const std::string kDiffMode = kFts + "fts_fast_diff_mode";
const std::string kDiffData = kFts + "fts_diff_data";
const std::string kDiffs("1 2 3\n\0 4", 9);
const std::string kOutputDir = "/data/logs/touch_panel/";
const std::string kOwners = "/data/owners";
const std::string kRequest = "/dev/__properties__/sys.brevix.touchpanel.fetch";

const std::string kStart = "TouchPanel main start!!\n";
const std::string kEnd = "TouchPanel main end!!\n";
const std::string kHandOver = "chown -R system:system /data/logs/touch_panel/\n\n";
const std::string kUnowned = kHandOver + "TouchPanel Error\n";
const std::string kTimeIsOver = "TouchPanel polling!! break time\n";
const std::string kNoSource =
    "TouchPanel Error: Unable to open source file\n"
    "Error: Unable to open source file: " +
    kDiffData + "\n";
const std::string kNoGoodixTarget = "TouchPanel Error: Unable to create target file\n";
const std::string kNoFtsTarget =
    "Error: Unable to create target file: " + kOutputDir + "tp_log_.txt\n";
const std::string kNoTarget =
    kNoGoodixTarget + "Error: Unable to open file: " + kDiffMode + "\n" + kNoFtsTarget;

class TouchPanel : public Test {
  protected:
    void SetUp() override {
        umask(0);
        fs::remove_all("/data/logs");
        fs::create_directories(kOutputDir);
        write_file(kOwners, "");
        write_file(kReplay, "");
        write_file(kReplayData, "never changes");
        write_file(kDiffMode, "");
        write_file(kDiffData, kDiffs);
        // Ctrl-C and Ctrl-\ meanwhile, which also go to the tool.
        write_program(
            "/system/bin/chown",
            "kill -INT $PPID; kill -QUIT $PPID; test -e /data/owners && echo $* >/data/owners");
        write_file(kRequest, "1");
    }

    // Returns the texts of the log lines and of plain standard error, without times.
    static std::string dump(const char* features) {
        set_property("ro.zq.features", features);
        const log_lines log;
        EXPECT_EQ(ZQTouchPanelDump(), 0);
        const std::regex varying("[^\n]*I ZQ_TOUCHPANEL: |20..-..-.._..-..-..");
        return std::regex_replace(read_file(log_lines::kFile), varying, "");
    }

    static std::string output_path(time_t second, const char* suffix) {
        return kOutputDir + "tp_log_" + format_time("%Y-%m-%d_%H-%M-%S", local_time(second)) +
               suffix;
    }

    static std::string output(const std::string& suffix) {
        for (const std::string& name : names_in(kOutputDir)) {
            if (Matches(MatchesRegex("tp_log_20..-..-.._..-..-.." + suffix))(name)) {
                return read_file(kOutputDir + name);
            }
        }
        return "none";
    }
};

TEST_F(TouchPanel, EachControllerIsCapturedOrItsFailureLogged) {
    struct {
        std::vector<std::string> missing;
        std::string messages;
        std::string switches;  // what was written last to the two switch nodes
        std::string text;      // the second controller's output
        int captures;          // of two seconds each
    } const cases[] = {
        {{}, kTimeIsOver + kHandOver + kHandOver, "00", kDiffs, 2},
        {{kOwners}, kTimeIsOver + kUnowned + kUnowned, "00", kDiffs, 2},
        {{kReplayData, kDiffData}, kNoSource, "1", "", 0},
        {{kOutputDir, kDiffMode},
         kNoTarget,
         "(" + kDiffMode + ": No such file or directory)",
         "none",
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.messages);
        SetUp();
        for (const std::string& path : c.missing) {
            fs::remove_all(path);
        }
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(dump("62,63"), kStart + c.messages + kEnd);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        EXPECT_THAT(taken.count() / 2, AllOf(Ge(c.captures), Lt(c.captures + 1)));
        EXPECT_EQ(read_file(kReplay) + read_file(kDiffMode), c.switches);
        EXPECT_EQ(read_file(kRequest), c.captures > 0 ? "0" : "1");
        fs::create_directories(kOutputDir);
        EXPECT_EQ(output(".txt"), c.text);
        EXPECT_EQ(output(".rep"), c.captures == 2 ? "" : "none");
        if (c.captures == 2) {
            const std::vector<std::string> files = names_in(kOutputDir);
            EXPECT_EQ(mode_of(kOutputDir + files.at(0)), 0644);
            EXPECT_EQ(mode_of(kOutputDir + files.at(1)), 0666);
        }
        EXPECT_EQ(fs::exists(kOwners) ? read_file(kOwners) : "",
                  c.missing.empty() ? "-R system:system /data/logs/touch_panel/\n" : "");
    }
    const log_lines log;
    enableReplay("/dev/full");
    EXPECT_EQ(read_file(log.kFile), "Error: Failed to write content to file: /dev/full\n");
}

TEST_F(TouchPanel, PlantedLinksAndFifosAreRefused) {
    const std::string dir = "/data/logs/touch_panel";
    const std::string secret = "/data/root/secret";
    write_file(secret, "kept");
    const time_t now = time(nullptr);
    for (time_t second = now; second < now + 10; ++second) {
        fs::create_symlink(secret, output_path(second, ".rep"));
        mkfifo(output_path(second, ".txt").c_str(), 0666);
    }
    EXPECT_EQ(dump("62,63"), kStart + kNoGoodixTarget + kNoFtsTarget + kEnd);

    fs::remove_all(dir);
    write_file(dir + "/planted/file", "");  // chown -R may meet a link in its place
    fs::remove("/dev/__properties__/ro.zq.features");
    EXPECT_EQ(dump("63"), kStart + kHandOver + "TouchPanel Error: " + dir +
                              "/planted is a directory\nTouchPanel Error\n" + kEnd);
    EXPECT_EQ(read_file(kOwners), "");
    fs::remove("/dev/__properties__/ro.zq.features");

    fs::remove_all(dir);
    fs::create_directory_symlink("/data/root", dir);
    const std::string link = "TouchPanel Error: " + dir + " is a link or a file\n";
    EXPECT_EQ(dump("62,63"), kStart + link + kNoGoodixTarget + link + kNoFtsTarget + kEnd);

    fs::remove(dir);
    fs::create_directory(dir);
    fs::remove("/dev/__properties__/ro.zq.features");
    std::thread planter([&] {
        EXPECT_TRUE(wait_until(dir, [] { return output(".txt") == kDiffs; }));
        fs::rename(dir, "/data/moved");
        fs::create_directory_symlink("/data/root", dir);
    });
    EXPECT_EQ(dump("63"), kStart + kHandOver + link + "TouchPanel Error\n" + kEnd);
    planter.join();

    EXPECT_EQ(read_file(secret), "kept");
    EXPECT_THAT(names_in("/data/root"), ElementsAre("secret"));

    fs::remove(dir);
    fs::create_directory(dir);
    fs::permissions(dir, fs::perms::owner_write | fs::perms::owner_exec);
    fs::remove("/dev/__properties__/ro.zq.features");
    drop_capabilities();
    EXPECT_EQ(dump("63"), kStart + kUnowned + kEnd) << "what cannot be listed";
    EXPECT_EQ(read_file(kOwners), "");
}

// The list of mounts stands in for the node: a kernel file whose changes raise POLLPRI, too.
TEST_F(TouchPanel, EveryChangeOfTheNodeIsASnapshot) {
    fs::remove(kReplayData);
    fs::create_symlink("/proc/self/mounts", kReplayData);
    for (char c = 'a'; read_file(kReplayData).size() <= 2500; ++c) {  // a snapshot's limit
        const std::string place = "/" + std::string(250, c);
        fs::create_directory(place);
        ASSERT_TRUE(mount_memory(place));
    }
    std::string expected;
    std::thread driver([&] {
        wait_until(kGoodix, [] { return read_file(kReplay) == "1"; });
        for (const char* place : {"/m0", "/m1", "/m2"}) {
            fs::create_directory(place);
            EXPECT_TRUE(mount_memory(place));
            expected += read_file("/proc/self/mounts").substr(0, 2500);
            wait_until(kOutputDir, [&] { return output(".rep") == expected; });
        }
    });
    EXPECT_THAT(dump("62"), HasSubstr(kTimeIsOver));
    driver.join();
    EXPECT_EQ(output(".rep"), expected);
    signal(SIGALRM, [](int) {});
    ualarm(100000, 100000);
    EXPECT_THAT(dump("62"), HasSubstr("TouchPanel polling!! break poll\n" + kHandOver));
}

TEST_F(TouchPanel, WithoutAControllerNothingIsTouched) {
    EXPECT_EQ(dump("6,2,620"), kStart + kEnd);
    EXPECT_EQ(read_file(kReplay) + read_file(kDiffMode), "");
}

}  // namespace
