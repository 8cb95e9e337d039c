// The toolkit's calls go through wrappers here (see the linker's --wrap), which note what is asked
// for and can be made to fail.

#include <cutils/properties.h>
#include <sys/mount.h>

#include "platform/audio_toolkit.h"
#include "tests/device_fixture.h"
#include "tool/mtk/zq_audio_dump.h"

namespace {

std::vector<std::pair<size_t, size_t>> requests;  // offset, length
bool encoder_fails = false;

}  // namespace

extern "C" {

unsigned long __real__ZN7android27readAudioHalDumpFileContentEPcPPhmm(char*, unsigned char**,
                                                                      unsigned long, unsigned long);
unsigned long __real__ZN7android13Base64_EncodeEPKhPcm(const unsigned char*, char*, unsigned long);

unsigned long __wrap__ZN7android27readAudioHalDumpFileContentEPcPPhmm(char* name,
                                                                      unsigned char** data,
                                                                      unsigned long offset,
                                                                      unsigned long length) {
    EXPECT_EQ(*data, nullptr);
    requests.emplace_back(offset, length);
    return __real__ZN7android27readAudioHalDumpFileContentEPcPPhmm(name, data, offset, length);
}

unsigned long __wrap__ZN7android13Base64_EncodeEPKhPcm(const unsigned char* data, char* out,
                                                       unsigned long length) {
    const unsigned long size = __real__ZN7android13Base64_EncodeEPKhPcm(data, out, length);
    return encoder_fails ? size - 1 : size;
}
}

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Pair;

const std::string kDump = "/vendor/audiohal/dump/";
const std::string kCopy = "/data/logs/audiohal/audio_dump/";

std::string property(const char* name) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name, value, "(unset)");
    return value;
}

class AudioDump : public testing::Test {
  protected:
    // Log lines without the operation's name.
    static std::vector<std::string> copy() {
        requests.clear();
        property_set("sys.brevix.mtk.audio.dump", "1");
        const fixture::log_lines log;
        ZQCopyAudioHalDumpFiles();
        EXPECT_EQ(property("sys.brevix.mtk.audio.dump"), "0");
        std::vector<std::string> lines;
        for (const std::string& line : log.lines()) {
            const std::string tag = " ZQ_AUDIO_DUMP: ";
            const std::string operation = "ZQCopyAudioHalDumpFiles";
            if (line.substr(1, tag.size()) == tag) {
                const std::string text = line.substr(1 + tag.size());
                lines.push_back(line.substr(0, 2) +
                                text.substr(text.starts_with(operation) ? operation.size() : 0));
            }
        }
        return lines;
    }
};

TEST_F(AudioDump, CopiesWhatTheHalLists) {
    umask(0);
    EXPECT_THAT(copy(),
                ElementsAre("I (), etDumpFileList return ", "D (), createDirectory " + kCopy,
                            "I copy all AudioHalDumpFiles"));
    EXPECT_EQ(fixture::mode_of("/data/logs/audiohal/audio_dump"), 0770);

    // Repeats itself in steps that no number of whole pieces makes.
    std::string block;
    for (int i = 0; block.size() < 1000003; ++i) {
        block += std::to_string(i);
    }
    std::string content;
    while (content.size() < (64U << 20)) {
        content += block;
    }
    fixture::write_file(kDump + "big.pcm", content);
    fixture::write_file(kDump + "empty.pcm", "");
    fixture::write_file(kCopy + "empty.pcm", "old");
    const std::string size = std::to_string(content.size() + 1);
    const std::string kilobytes = std::to_string(content.size() / 1024);
    EXPECT_THAT(copy(),
                AllOf(Contains("I (), etDumpFileList return big.pcm," + size + ",empty.pcm,1"),
                      Contains(MatchesRegex("D , Copy big.pcm\\(size: " + kilobytes +
                                            " KB\\) spend [0-9.]+ ms\\(speed: [0-9.e-]+ MB/s, "
                                            "MAX_READ_SIZE: 350000"))));
    EXPECT_EQ(fixture::run("cmp " + kDump + "big.pcm " + kCopy + "big.pcm").exit_status, 0);
    EXPECT_EQ(fixture::read_file(kCopy + "empty.pcm"), "");
    EXPECT_THAT(requests, testing::Each(Pair(testing::_, testing::Le(350000U))));
    EXPECT_THAT(requests, testing::SizeIs((content.size() + 349999) / 350000));
}

TEST_F(AudioDump, SizesCountOneByteMoreThanThereIsToRead) {
    struct {
        const char* size;
        size_t bytes;
        std::vector<std::pair<size_t, size_t>> requests;
    } const cases[] = {
        {"1", 10, {}},
        {"2", 10, {{0, 2}}},
        {"0", 10, {{0, 0}}},
        {" 11 bytes", 10, {{0, 11}}},
        {"100", 10, {{0, 100}, {10, 90}}},
        {"100", 0, {{0, 100}}},
        {"700000", 700000, {{0, 350000}, {350000, 350000}}},
        {"700000", 699999, {{0, 350000}, {350000, 350000}}},
        {"700001", 700001, {{0, 350000}, {350000, 350000}}},
        {"700002", 700001, {{0, 350000}, {350000, 350000}, {700000, 2}}},
    };
    for (const auto& c : cases) {
        fixture::write_file(kDump + "x.pcm", std::string(c.bytes, 'x'));
        fixture::write_file("/vendor/audiohal/dump_list", std::string("x.pcm,") + c.size + "\n");
        const std::vector<std::string> lines = copy();
        EXPECT_EQ(requests, c.requests) << c.size;
        const bool ran_dry = !c.requests.empty() && c.requests.back().first == c.bytes;
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "D (), Read data size 0") > 0,
                  ran_dry || strcmp(c.size, "0") == 0)
            << c.size;
        EXPECT_TRUE(fs::exists(kCopy + "x.pcm"));
    }
}

TEST_F(AudioDump, ListsThatMakeNoSenseAreGivenUp) {
    fixture::write_file(kDump + "x.pcm", "12345");
    fixture::write_file(kDump + "y.pcm", "12345");
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
        fixture::write_file("/vendor/audiohal/dump_list", c.list);
        std::vector<std::string> warnings = copy();
        std::erase_if(warnings, [](const std::string& line) { return line[0] != 'W'; });
        EXPECT_EQ(warnings, c.warnings) << c.list;
        EXPECT_EQ(fixture::names_in(kCopy), c.copied) << c.list;
    }
}

TEST_F(AudioDump, WhatStandsInTheWayIsSaid) {
    fixture::write_file(kDump + "x.pcm", std::string(800000, 'x'));
    fs::create_directories(kCopy);
    ASSERT_EQ(mount("none", kCopy.c_str(), "tmpfs", 0, "size=400k"), 0);
    EXPECT_THAT(copy(), AllOf(Contains(MatchesRegex(
                                  "W \\(\\), write size \\([0-9]+\\) but the size is not 350000")),
                              Contains("D (), read data from 700000 to 800000")));
    umount(kCopy.c_str());
    fs::remove_all("/data/logs");
    fixture::write_file("/data/logs", "");
    EXPECT_THAT(
        copy(),
        ElementsAre("I (), etDumpFileList return x.pcm,800001",
                    "E AudioDumpPCM: mkdir error! Not a directory",
                    "D (), createDirectory " + kCopy, "D (), file name = x.pcm, size= 800001",
                    "W (), Cannot open file " + kCopy + "x.pcm",
                    "W (), no file size info ...(x.pcm)", "I copy all AudioHalDumpFiles"));
}

TEST(AudioCommand, IsEncodedAndItsStatusPublished) {
    struct {
        int command;
        int value;
        const char* trace;
        const char* encoded;
        const char* status;
    } const cases[] = {
        {3, 1, "0x03 0x00 0x00 0x00 0x01 0x00 0x00 0x00 ", "AwAAAAEAAAA=", "0"},
        {-1, 0, "0xff 0xff 0xff 0xff 0x00 0x00 0x00 0x00 ", "/////wAAAAA=", "-38"},
    };
    std::string sent;
    for (const auto& c : cases) {
        property_set("host.audio.status", c.status);
        const fixture::log_lines log;
        setAudioCommand(c.command, c.value);
        const std::string encoded = c.encoded;
        EXPECT_THAT(
            log.lines(),
            ElementsAre("D ZQ_AUDIO_DUMP: PrintEncodedString in, len= 8",
                        std::string("D ZQ_AUDIO_DUMP: print_hex_buffer: sum=40, ") + c.trace,
                        "D ZQ_AUDIO_DUMP: PrintEncodedString(), after encode (" + encoded +
                            "), len(8), sz_enc(12)"));
        sent += "0 SetCmd=" + encoded + "\n";
        EXPECT_EQ(property("sys.brevix.mkt.audio.cmd"), c.status);
    }
    EXPECT_EQ(fixture::read_file("/vendor/audiohal/parameters"), sent);
}

TEST(AudioCommand, OneThatCannotBeEncodedIsSentEmpty) {
    encoder_fails = true;
    const fixture::log_lines log;
    setAudioCommand(0, 0);
    EXPECT_EQ(log.lines().back(),
              "E ZQ_AUDIO_DUMP: PrintEncodedString, Encode Error!! after encode (AAAAAAAAAAA=), "
              "len(8), sz_Needed(12), sz_enc(11)");
    EXPECT_EQ(fixture::read_file("/vendor/audiohal/parameters"), "0 \n");
    EXPECT_EQ(property("sys.brevix.mkt.audio.cmd"), "0");
}

TEST(AudioCommand, IsReadFromItsArgument) {
    for (const char* argument : {"12:34", "1:2:3", "5:", ":x"}) {
        fixture::run(std::string("zq_brevix audio_cmd ") + argument);
    }
    EXPECT_THAT(fixture::read_lines("/vendor/audiohal/parameters"),
                ElementsAre("0 SetCmd=DAAAACIAAAA=", "0 SetCmd=AQAAAAIAAAA=",
                            "0 SetCmd=BQAAAAAAAAA=", "0 SetCmd=AAAAAAAAAAA="));
}

}  // namespace
