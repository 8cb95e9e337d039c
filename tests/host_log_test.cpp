#define LOG_TAG "HOST_LOG"

#include <android-base/logging.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <cstring>
#include <random>
#include <semaphore>
#include <thread>

#include "host/kernel_log.h"
#include "host/log_store.h"
#include "tests/child.h"
#include "tests/device_fixture.h"

namespace {

using fixture::child;
using fixture::read_file;
using fixture::read_lines;
using fixture::run;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char kMain[] = "/dev/log/main";
constexpr char kDivider[] = "--------- beginning of main\n";

int append(log_id_t buffer, const std::string& message, time_t seconds = 1) {
    AndroidLogEntry entry{};
    entry.tv_sec = seconds;
    entry.priority = ANDROID_LOG_INFO;
    entry.tag = "tag";
    entry.tagLen = 3;
    entry.message = message.c_str();
    entry.messageLen = message.size();
    return append_log_entry(buffer, entry);
}

class follower {
  public:
    explicit follower(log_id_t buffer) : reader_(buffer, inotify_) {
        inotify_add_watch(inotify_, kLogFolder, IN_CREATE);
    }

    // What there is now.
    std::vector<std::string> read_all() {
        std::vector<std::string> messages;
        for (; reader_.peek() != nullptr; reader_.pop()) {
            messages.emplace_back(reader_.peek()->message, reader_.peek()->messageLen);
        }
        return messages;
    }

    // The next one, for which it waits; "" when it does not come.
    std::string next() {
        pollfd more{inotify_, POLLIN, 0};
        char events[4096];
        while (reader_.peek() == nullptr) {
            if (poll(&more, 1, std::chrono::milliseconds(fixture::kPatience).count()) != 1) {
                return "";
            }
            read(inotify_, events, sizeof(events));
        }
        const std::string message(reader_.peek()->message, reader_.peek()->messageLen);
        reader_.pop();
        return message;
    }

  private:
    android::base::unique_fd inotify_{inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
    log_reader reader_;
};

// --- The lines of LOG
// ------------------------------------------------------------------------------

TEST(Log, LinesGoToStandardErrorAndToTheStore) {
    const fixture::log_lines standard_error;
    std::filesystem::create_directory(kMain);  // a store that cannot be written
    errno = ENOTTY;
    LOG(VERBOSE) << "left out";
    LOG(DEBUG) << "one\ntwo";
    LOG(WARNING) << errno;
    EXPECT_EQ(errno, ENOTTY);
    std::filesystem::remove(kMain);
    LOG(ERROR) << "stored";
    const std::string prefix =
        "[0-9-]+ [0-9:.]+ +" + std::to_string(getpid()) + " +" + std::to_string(gettid());
    const std::vector<std::string> lines = read_lines(fixture::log_lines::kFile);
    EXPECT_THAT(lines, ElementsAre(MatchesRegex(prefix + " D HOST_LOG: one"),
                                   MatchesRegex(prefix + " D HOST_LOG: two"),
                                   MatchesRegex(prefix + " W HOST_LOG: 25"),
                                   MatchesRegex(prefix + " E HOST_LOG: stored")));
    EXPECT_EQ(run({"logcat", "-d"}).output, kDivider + lines.back() + "\n");
}

TEST(Log, AFatalLineIsStoredBeforeTheAbort) {
    std::filesystem::create_directory("/tmp");  // of EXPECT_EXIT
    EXPECT_EXIT(LOG(FATAL) << "bye", testing::KilledBySignal(SIGABRT), "F HOST_LOG: bye");
    EXPECT_THAT(run({"logcat", "-d"}).output, HasSubstr("F HOST_LOG: bye\n"));
}

TEST(Log, ProgramStoresALine) {
    EXPECT_EQ(run({"log", "-b", "radio", "-p", "W", "-t", "t", "two", "-words"}).exit_status, 0);
    EXPECT_EQ(run({"log", "-b", "radio", "-p", "error", "line"}).exit_status, 0);
    EXPECT_EQ(run({"logcat", "-d", "-b", "radio", "-v", "tag"}).output,
              "--------- beginning of radio\nW/t       : two -words\nE/log     : line\n");
    using command = std::vector<std::string>;
    for (const command& bad :
         {command{"log"}, {"log", "-p", "x", "m"}, {"log", "-b", "kernel", "m"}}) {
        EXPECT_EQ(run(bad).exit_status, 1);
    }
    umount2(kLogFolder, MNT_DETACH);
    rmdir(kLogFolder);
    const auto [exit_status, output] = run({"log", "m"});
    EXPECT_EQ(exit_status, 1);
    EXPECT_THAT(output, HasSubstr("No such file or directory"));
}

// --- The store -----------------------------------------------------------------------------------

TEST(LogStore, KeepsTheNewestWithinItsBound) {
    constexpr int kEntries = 3000;
    const std::string padding(2000, '.');
    for (int i = 0; i < kEntries; ++i) {
        ASSERT_EQ(append(LOG_ID_MAIN, std::to_string(i) + padding), 0);
    }
    uintmax_t bytes = 0;
    for (const std::string& name : fixture::names_in(kLogFolder)) {
        bytes += std::filesystem::file_size(std::string(kLogFolder) + "/" + name);
    }
    EXPECT_LE(bytes, 2U * kLogSegmentBytes);
    const std::vector<std::string> kept = follower(LOG_ID_MAIN).read_all();
    EXPECT_GE(kept.size(), kLogSegmentBytes / 2100U) << "a full segment at least";
    for (size_t i = 0; i < kept.size(); ++i) {
        ASSERT_EQ(std::stoul(kept[i]), kEntries - kept.size() + i);
    }
}

TEST(LogStore, LongEntriesAreCut) {
    ASSERT_EQ(append(LOG_ID_MAIN, std::string(10000, 'x')), 0);
    ASSERT_EQ(append(LOG_ID_MAIN, "next"), 0);
    const std::vector<std::string> messages = follower(LOG_ID_MAIN).read_all();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_GT(messages[0].size(), 4000U);
    EXPECT_LT(messages[0].size(), 4068U);
    EXPECT_EQ(messages[1], "next");
}

// The writers are at most half a segment ahead, so nothing may be missing, through ten rotations.
TEST(LogStore, AFollowerLosesNothingOfManyWriters) {
    constexpr int kWriters = 4;
    constexpr int kEntries = 5000;
    const std::string padding(1000, '.');
    std::counting_semaphore<> room(kLogSegmentBytes / 2 / 1100);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&, writer] {
            for (int i = 0; i < kEntries; ++i) {
                room.acquire();
                EXPECT_EQ(append(LOG_ID_MAIN, std::to_string(i * kWriters + writer) + padding), 0);
            }
        });
    }
    follower reader(LOG_ID_MAIN);
    int next[kWriters] = {};
    int wrong = 0;
    for (int i = 0; i < kWriters * kEntries; ++i) {
        const int number = std::atoi(reader.next().c_str());
        wrong += next[number % kWriters]++ == number / kWriters ? 0 : 1;
        room.release();
    }
    EXPECT_EQ(wrong, 0);
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_THAT(reader.read_all(), IsEmpty());
}

TEST(LogStore, AReaderWaitsForNoWriter) {
    append(LOG_ID_MAIN, "one");
    const int fd = open(kMain, O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_THAT(follower(LOG_ID_MAIN).read_all(), ElementsAre("one"));
    close(fd);
}

TEST(LogStore, AnEntryTakenBackHalfwayIsNeverSeen) {
    append(LOG_ID_MAIN, "one");
    const auto size = std::filesystem::file_size(kMain);
    follower reader(LOG_ID_MAIN);
    EXPECT_THAT(reader.read_all(), ElementsAre("one"));
    append(LOG_ID_MAIN, "two");
    std::filesystem::resize_file(kMain, size + 33);
    EXPECT_THAT(reader.read_all(), IsEmpty());
    std::filesystem::resize_file(kMain, size);
    append(LOG_ID_MAIN, "three");
    EXPECT_THAT(reader.read_all(), ElementsAre("three"));
    signal(SIGXFSZ, SIG_IGN);
    const rlimit no_room{std::filesystem::file_size(kMain) + 10, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_room);
    EXPECT_NE(append(LOG_ID_MAIN, "four"), 0);
    EXPECT_EQ(std::filesystem::file_size(kMain), no_room.rlim_cur - 10);
}

TEST(LogStore, SoundEntriesAreFoundBetweenDamage) {
    append(LOG_ID_MAIN, "model");
    const std::string whole = read_file(kMain);
    std::string long_header = whole;
    long_header[0] = 100;
    std::mt19937 random(1);
    std::string noise(5000, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
    std::string text;
    int sound = 0;
    for (const std::string& damage : {std::string(70, '\0'), std::string("plain text\n"), noise,
                                      long_header, whole.substr(0, 1), whole.substr(0, 27),
                                      whole.substr(0, 29), whole.substr(0, whole.size() - 1)}) {
        text.append(damage).append(whole);
        ++sound;
    }
    fixture::write_file(kMain, text + whole.substr(0, 30));
    EXPECT_THAT(follower(LOG_ID_MAIN).read_all(),
                ElementsAreArray(std::vector<std::string>(sound, "model")));
}

// --- The kernel's log
// ------------------------------------------------------------------------------

TEST(KernelLog, RecordsAreParsed) {
    const struct {
        const char* text;
        const char* expected;  // priority, microseconds, thread, tag, message; "" for none
    } kCases[] = {
        {"6,1,5000000,-;init: starting service\n", "4 5000000 0 [init] starting service"},
        {"0,1,0,-;no tag here\n SUBSYSTEM=usb\n DEVICE=x\n", "7 0 0 [] no tag here"},
        {"3,1,1,-;usb 1-1: reset\n", "6 1 0 [] usb 1-1: reset"},
        {"12,1,1,c,caller=T42;a: b: c", "5 1 42 [a] b: c"},
        {"5,1,1,-,caller=C0;t\\x5cn\\xc3\\xa4\\x00\\xg\\x1", "4 1 0 [] t\\n\xc3\xa4\\x00\\xg\\x1"},
        {"7,9,18446744073709551615,-;x", ""},
        {"7,9,-1,-;x", ""},
        {"x,9,1,-;x", ""},
        {"7,9,1", ""},
        {"7;x", ""},
        {";", ""},
        {"", ""},
        {"15,,1,;", "3 1 0 [] "},
    };
    for (const auto& [text, expected] : kCases) {
        std::ostringstream parsed;
        if (const auto record = parse_kernel_record(text)) {
            parsed << record->priority << " " << record->since_boot.count() << " " << record->tid
                   << " [" << record->tag << "] " << record->message;
        }
        EXPECT_EQ(parsed.str(), expected) << text;
    }
}

TEST(KernelLog, LogcatShowsIt) {
    const std::string marker = "marker " + std::to_string(time(nullptr));
    std::ofstream kmsg("/dev/kmsg");
    if (!(kmsg << "<4>host_test: " << marker << std::endl)) {
        GTEST_SKIP() << "THE KERNEL LOG OF THIS MACHINE CANNOT BE WRITTEN: nothing is tried";
    }
    const std::string output = run({"logcat", "-d", "-b", "kernel"}).output;
    EXPECT_THAT(output, testing::StartsWith("--------- beginning of kernel\n"));
    EXPECT_THAT(output, HasSubstr(" W host_test: " + marker));
}

TEST(KernelLog, LogcatGoesOnWithoutIt) {
    umount2("/dev/kmsg", MNT_DETACH);
    unlink("/dev/kmsg");
    append(LOG_ID_MAIN, "there");
    const auto [exit_status, output] = run({"logcat", "-d", "-b", "kernel,main"});
    EXPECT_EQ(exit_status, 0);
    EXPECT_THAT(output, HasSubstr("cannot open /dev/kmsg"));
    EXPECT_THAT(output, HasSubstr("tag     : there\n"));
}

// --- logcat
// ----------------------------------------------------------------------------------------

TEST(Logcat, RejectsWhatItCannotDo) {
    using command = std::vector<std::string>;
    for (const command& options : {command{"-x"},
                                   {"-b", "nope"},
                                   {"-b", "main,"},
                                   {"-b"},
                                   {"-v", "nope"},
                                   {"-v", "UTC"},
                                   {"-r", "5"},
                                   {"-r", "0", "-f", "/data/x"},
                                   {"-r", "1k", "-f", "/data/x"},
                                   {"-r", "-1", "-f", "/data/x"},
                                   {"-n", "0"},
                                   {"-n", "x"},
                                   {"-f", "/none/x"},
                                   {"tag:q"}}) {
        command words = {"logcat", "-d"};
        words.insert(words.end(), options.begin(), options.end());
        const auto [exit_status, output] = run(words);
        EXPECT_EQ(exit_status, 1) << options[0];
        EXPECT_THAT(output, MatchesRegex("logcat: [^\n]*\n")) << options[0];
    }
    append(LOG_ID_MAIN, "line");
    EXPECT_THAT(run({"logcat", "-d", "-f", "/dev/full"}).output, HasSubstr("No space left"));
}

TEST(Logcat, MergesBuffersByTime) {
    append(LOG_ID_MAIN, "m2", 2);
    append(LOG_ID_CRASH, "c2", 2);
    append(LOG_ID_SYSTEM, "s1\nmore", 1);
    append(LOG_ID_SYSTEM, "s3", 3);
    append(LOG_ID_MAIN, "m4", 4);
    append(LOG_ID_EVENTS, "e0", 0);
    const auto shown = [](std::vector<std::string> options) {
        options.insert(options.begin(), {"logcat", "-d", "-v", "raw"});
        std::string text = run(options).output;
        for (size_t at = 0; (at = text.find("--------- beginning of ")) != std::string::npos;) {
            text.replace(at, 23, "=");
        }
        std::replace(text.begin(), text.end(), '\n', ' ');
        return text;
    };
    EXPECT_EQ(shown({}), "=system s1 more =main m2 =crash c2 s3 m4 ");
    EXPECT_EQ(shown({"-b", "default", "-b", "main"}), shown({}));
    EXPECT_EQ(shown({"-b", "events,system"}), "=events e0 =system s1 more s3 ");
    EXPECT_THAT(shown({"-b", "all"}), HasSubstr("=events e0 =system s1 more =main m2 =crash c2"));
    EXPECT_EQ(shown({"-b", "radio"}), "");
    EXPECT_EQ(shown({"*:S"}), "");
}

// Lines of 100 bytes: 11 of them are past 1 KiB, and so are 8 with what is there before.
TEST(Logcat, RotatesItsFile) {
    for (int i = 0; i < 110; ++i) {
        append(LOG_ID_MAIN, std::to_string(1000 + i) + std::string(95, '.'));
    }
    fixture::write_file("/data/log", std::string(199, '-') + "\n");
    fixture::write_file("/data/log.10", "goes");
    const auto dump_to = [](const char* file, const char* count) {
        return run({"logcat", "-d", "-v", "raw", "-f", file, "-r", "1", "-n", count}).exit_status;
    };
    EXPECT_EQ(dump_to("/data/log", "10"), 0);
    EXPECT_THAT(fixture::names_in("/data"),
                ElementsAre("log", "log.01", "log.02", "log.03", "log.04", "log.05", "log.06",
                            "log.07", "log.08", "log.09", "log.10", "output"));
    EXPECT_EQ(std::filesystem::file_size("/data/log.10"), 200 + strlen(kDivider) + 8 * 100);
    EXPECT_EQ(std::filesystem::file_size("/data/log.01"), 1100U);
    EXPECT_THAT(read_file("/data/log"), testing::StartsWith("1107."));
    EXPECT_EQ(fixture::mode_of("/data/log"), 0640U & ~022U);

    std::filesystem::create_directory("/data/2");
    EXPECT_EQ(dump_to("/data/2/log", "2"), 0);
    EXPECT_THAT(fixture::names_in("/data/2"), ElementsAre("log", "log.1", "log.2"));
    EXPECT_THAT(read_file("/data/2/log.2"), testing::StartsWith("1087."));
}

TEST(Logcat, FollowsWithoutWakingUpInVain) {
    append(LOG_ID_MAIN, "before");
    child logcat({"logcat", "-v", "raw", "-f", "/data/log"});
    ASSERT_TRUE(fixture::wait_for_text("/data/log", "before\n"));
    append(LOG_ID_SYSTEM, "first of its buffer");
    ASSERT_TRUE(fixture::wait_for_text("/data/log", "first of its buffer\n"));
    append(LOG_ID_SYSTEM, "second");
    ASSERT_TRUE(fixture::wait_for_text("/data/log", "second\n"));

    const std::string status = "/proc/" + std::to_string(logcat.pid()) + "/status";
    const auto switches = [&] {
        const std::string text = read_file(status);
        return std::stoi(text.substr(text.find("\nvoluntary_ctxt_switches:") + 26));
    };
    const int before = switches();
    append(LOG_ID_RADIO, "one creates the file");
    append(LOG_ID_RADIO, "of another buffer");
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, logcat.pid(), 0)), POLLIN, 0};
    ASSERT_EQ(poll(&end, 1, 500), 0);
    EXPECT_LE(switches() - before, 2);
}

// A logcat that is ended has written all that it was sent before.
TEST(Logcat, WritesEverythingBeforeItEnds) {
    constexpr int kRounds = 30;
    constexpr int kLines = 300;
    for (int round = 0; round < kRounds; ++round) {
        std::filesystem::remove("/data/log");
        child logcat({"logcat", "-v", "raw", "-f", "/data/log"});
        ASSERT_TRUE(fixture::wait_until("/data", [] { return access("/data/log", F_OK) == 0; }));
        const std::string mark = std::to_string(round) + ".";
        std::vector<std::string> sent;
        for (int i = 0; i < kLines; ++i) {
            sent.push_back(mark + std::to_string(i));
            ASSERT_EQ(append(i % 2 == 0 ? LOG_ID_MAIN : LOG_ID_SYSTEM, sent.back()), 0);
        }
        kill(logcat.pid(), SIGTERM);
        const int status = logcat.wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
        std::vector<std::string> written = read_lines("/data/log");
        std::erase_if(written, [&](const std::string& line) { return !line.starts_with(mark); });
        ASSERT_THAT(written, testing::UnorderedElementsAreArray(sent)) << round;
    }
}

TEST(Logcat, EndsWhenNobodyReadsItsPipe) {
    for (int i = 0; i < 500; ++i) {
        append(LOG_ID_MAIN, std::string(1000, 'x'));
    }
    ASSERT_EQ(mkfifo("/data/pipe", 0600), 0);
    const int pipe = open("/data/pipe", O_RDWR | O_CLOEXEC);
    child logcat({"logcat"}, "/data/pipe");
    pollfd begun{pipe, POLLIN, 0};
    ASSERT_EQ(poll(&begun, 1, 60000), 1);
    kill(logcat.pid(), SIGTERM);
    const int status = logcat.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    close(pipe);
}

}  // namespace
