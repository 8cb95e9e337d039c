// SPDX-License-Identifier: Apache-2.0

// The audio HAL's dump files and commands.

#include <regex>

#include "platform/audio_toolkit.h"
#include "tests/device_fixture.h"
#include "tool/mtk/zq_audio_dump.h"

// The toolkit's encoder, which can be made to fail.
static bool encoder_fails = false;
extern "C" unsigned long __real__ZN7android13Base64_EncodeEPKhPcm(const unsigned char*, char*,
                                                                  unsigned long);
extern "C" unsigned long __wrap__ZN7android13Base64_EncodeEPKhPcm(const unsigned char* data,
                                                                  char* out, unsigned long length) {
    const unsigned long size = __real__ZN7android13Base64_EncodeEPKhPcm(data, out, length);
    return encoder_fails ? size - 1 : size;
}

// A clock that goes on by 1.7 seconds at each look: that is all between two looks in a row. The
// lines of the log look at it, too. Other clocks began at other times.
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    static long tenths = 0;
    tenths += 17;
    *now = {tenths / 10 + 1000 * clock, tenths % 10 * 100000000};
    return 0;
}

namespace {

using namespace fixture;
using namespace testing;

const std::string kDump = "/vendor/audiohal/dump/";
const std::string kCopy = "/data/logs/audiohal/audio_dump/";

// Runs the tool and returns its log lines as "W (), text", without the operation's name.
std::vector<std::string> copy() {
    set_property("sys.brevix.mtk.audio.dump", "1");
    const log_lines log;
    ZQCopyAudioHalDumpFiles();
    EXPECT_EQ(property("sys.brevix.mtk.audio.dump"), "0");
    std::vector<std::string> lines = log.lines();
    std::erase_if(lines, [](auto& line) { return line.find("ZQ_AUDIO_DUMP") != 2; });
    for (std::string& line : lines) {
        line =
            std::regex_replace(line, std::regex("ZQ_AUDIO_DUMP: (ZQCopyAudioHalDumpFiles)?"), "");
    }
    return lines;
}

TEST(AudioDump, CopiesWhatTheHalLists) {
    umask(0);
    // Its period divides no number of whole pieces, so a piece in the wrong place shows.
    std::string content;
    for (int i = 0; content.size() < 8900000; i = (i + 1) % 200003) {
        content += std::to_string(i);
    }
    write_file(kDump + "big.pcm", content);
    write_file(kDump + "empty.pcm", "");
    const std::string size = std::to_string(content.size() + 1);
    EXPECT_THAT(
        copy(),
        IsSupersetOf({"I (), etDumpFileList return big.pcm," + size + ",empty.pcm,1",
                      "D (), file name = big.pcm, size= " + size,
                      // Between the looks at the clock: two lines for each of 26 pieces.
                      std::string("D , Copy big.pcm(size: 8691 KB) spend 90100 ms(speed: "
                                  "8.87902e-08 MB/s, MAX_READ_SIZE: 350000"),
                      std::string("D , Copy empty.pcm(size: 0 KB) spend 1700 ms(speed: 0 MB/s, "
                                  "MAX_READ_SIZE: 350000"),
                      "D (), createDirectory " + kCopy,
                      std::string("I copy all AudioHalDumpFiles")}));
    EXPECT_EQ(mode_of("/data/logs/audiohal/audio_dump"), 0770);
    EXPECT_TRUE(read_file(kCopy + "big.pcm") == content);
    EXPECT_TRUE(fs::exists(kCopy + "empty.pcm"));
}

TEST(AudioDump, SizesCountOneByteMoreThanThereIsToRead) {
    struct {
        const char* size;
        size_t bytes;
        std::vector<std::string> reads;
        size_t copied;
    } const cases[] = {
        {"1", 10, {}, 0},
        {"2", 10, {"0 to 2"}, 2},
        {"0", 10, {"none"}, 0},
        {"100", 10, {"0 to 10", "none"}, 10},
        {"350001", 400000, {"0 to 350000"}, 350000},
        {"700002", 800000, {"0 to 350000", "350000 to 700000", "700000 to 700002"}, 700002},
    };
    const std::string read = "D (), read data from ";
    for (const auto& c : cases) {
        const std::string written =
            std::string("/") + c.size + " bytes to dump file (" + kCopy + "x.pcm)";
        write_file(kDump + "x.pcm", std::string(c.bytes, 'x'));
        write_file("/vendor/audiohal/dump_list", std::string("x.pcm,") + c.size + "\n");
        const std::vector<std::string> lines = copy();
        std::vector<std::string> reads;
        for (const std::string& line : lines) {
            if (line == "D (), Read data size 0") {
                reads.push_back("none");
            }
            if (line.starts_with(read)) {
                reads.push_back(line.substr(read.size()));
                EXPECT_THAT(lines,
                            Contains("D (), Write " + line.substr(line.rfind(' ') + 1) + written));
            }
        }
        EXPECT_EQ(reads, c.reads) << c.size << " of " << c.bytes;
        EXPECT_EQ(fs::file_size(kCopy + "x.pcm"), c.copied) << c.size;
    }
}

TEST(AudioDump, AMalformedListEndsTheCopy) {
    write_file(kDump + "x.pcm", "12345");
    write_file(kDump + "y.pcm", "12345");
    struct {
        const char* list;
        std::vector<std::string> copied;
        std::vector<std::string> warnings;
    } const cases[] = {
        {"x.pcm", {}, {"W (), no file size info ...(x.pcm)"}},
        {"x.pcm,6,y.pcm", {"x.pcm"}, {"W (), no file size info ...(y.pcm)"}},
        {",x.pcm,,6,", {"x.pcm"}, {}},
        {"x.pcm,abc,y.pcm,5", {}, {"W (), wrong file size info... (x.pcm)"}},
        {"sub/x.pcm,5,y.pcm,5",
         {},
         {"W (), Cannot open file " + kCopy + "sub/x.pcm",
          "W (), wrong file size info... (sub/x.pcm)"}},
        {"none.pcm,5,y.pcm,6", {"none.pcm", "y.pcm"}, {}},
    };
    for (const auto& c : cases) {
        fs::remove_all(kCopy);
        write_file("/vendor/audiohal/dump_list", c.list);
        std::vector<std::string> warnings = copy();
        std::erase_if(warnings, [](const std::string& line) { return line[0] != 'W'; });
        EXPECT_EQ(warnings, c.warnings) << c.list;
        EXPECT_EQ(names_in(kCopy), c.copied) << c.list;
    }
}

TEST(AudioDump, FailuresAreLogged) {
    write_file(kDump + "x.pcm", std::string(800000, 'x'));
    write_file(kDump + "y.pcm", "buffered until the close");
    fs::create_directories(kCopy);
    ASSERT_TRUE(mount_memory(kCopy, 0, "size=400k"));
    EXPECT_THAT(
        copy(),
        AllOf(
            Contains(MatchesRegex("W \\(\\), write size \\([0-9]+\\) but the size is not 350000")),
            IsSupersetOf({"D (), read data from 700000 to 800000", "D close file error"})));
    umount(kCopy.c_str());
    fs::remove_all("/data/logs");
    write_file("/data/logs", "");
    EXPECT_THAT(copy(), AllOf(Contains("E AudioDumpPCM: mkdir error! Not a directory").Times(1),
                              Contains("W (), Cannot open file " + kCopy + "x.pcm")));
}

TEST(AudioCommand, IsEncodedAndItsStatusPublished) {
    set_property("host.audio.status", "-38");
    const log_lines log;
    setAudioCommand(-1, 3);
    encoder_fails = true;  // what cannot be encoded is sent empty
    setAudioCommand(0, 0);
    const std::string tag = "D ZQ_AUDIO_DUMP: ";
    const std::string trace = tag + "print_hex_buffer: sum=40, ";
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            tag + "PrintEncodedString in, len= 8",
            trace + "0xff 0xff 0xff 0xff 0x03 0x00 0x00 0x00 ",
            tag + "PrintEncodedString(), after encode (/////wMAAAA=), len(8), sz_enc(12)",
            tag + "PrintEncodedString in, len= 8",
            trace + "0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x00 ",
            "E ZQ_AUDIO_DUMP: PrintEncodedString, Encode Error!! after encode (AAAAAAAAAAA=), "
            "len(8), sz_Needed(12), sz_enc(11)"));
    EXPECT_EQ(property("sys.brevix.mkt.audio.cmd"), "-38");
    EXPECT_EQ(read_file("/vendor/audiohal/parameters"), "0 SetCmd=/////wMAAAA=\n0 \n");
}

TEST(AudioCommand, IsReadFromItsArgument) {
    for (const char* arguments : {"12:34", "1:2:3", "5:", ":x", "7", "1:2 x", ""}) {
        EXPECT_EQ(run(std::string("zq_brevix audio_cmd ") + arguments).exit_status, 0);
    }
    EXPECT_THAT(read_lines("/vendor/audiohal/parameters"),
                ElementsAre("0 SetCmd=DAAAACIAAAA=", "0 SetCmd=AQAAAAIAAAA=",
                            "0 SetCmd=BQAAAAAAAAA=", "0 SetCmd=AAAAAAAAAAA="));
}

}  // namespace
