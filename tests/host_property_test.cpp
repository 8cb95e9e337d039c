#include <android-base/properties.h>
#include <cutils/properties.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "tests/child.h"
#include "tests/device_fixture.h"

// Handlers here end their thread, as the daemon's do; the thread sanitizer takes no such handler.
extern "C" const char* __tsan_default_options() {  // NOLINT: the sanitizer's name
    return "report_signal_unsafe=0";
}

namespace {

using android::base::WaitForProperty;
using fixture::run;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::SizeIs;

constexpr char kFolder[] = "/dev/__properties__/";
constexpr milliseconds kSpan(300);

std::string get(const std::string& name, const char* fallback = "unset") {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(name.c_str(), value, fallback);
    EXPECT_EQ(static_cast<size_t>(length), strlen(value));
    return value;
}

int set(const std::string& name, const std::string& value) {
    return property_set(name.c_str(), value.c_str());
}

TEST(Property, OneFileHoldsOneValue) {
    EXPECT_EQ(property_get("a", std::string(92, '?').data(), nullptr), 0);
    ASSERT_EQ(set("a", "one two"), 0);
    EXPECT_EQ(fixture::read_file("/dev/__properties__/a"), "one two");
    EXPECT_EQ(get("a"), "one two");
    ASSERT_EQ(property_set("a", nullptr), 0);
    EXPECT_EQ(get("a"), "unset") << "an empty value is none";
    fixture::write_file("/dev/__properties__/long", std::string(200, 'x'));
    EXPECT_EQ(get("long"), std::string(91, 'x'));
    EXPECT_EQ(get("none", std::string(200, 'x').c_str()), std::string(91, 'x'));
    std::filesystem::create_directory("/dev/__properties__/folder");
    EXPECT_EQ(get("folder"), "unset");
    EXPECT_EQ(get("../self/comm"), "unset");
}

TEST(Property, AWriteThatFailsLeavesNothing) {
    for (const char* name : {"", ".a", "a.", ".", "..", "a/b", "a b", "a\n", "\xc3\xa4", "a="}) {
        EXPECT_LT(set(name, "1"), 0) << name;
    }
    EXPECT_LT(set("n", std::string(92, 'x')), 0);
    EXPECT_LT(set(std::string(256, 'n'), "1"), 0) << "longer than a file name can be";
    signal(SIGXFSZ, SIG_IGN);
    const rlimit no_room{4, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_room);
    EXPECT_LT(set("cut", "12345"), 0);
    EXPECT_THAT(fixture::names_in(kFolder), SizeIs(0));
    EXPECT_EQ(set("Az09._@:-x", "1"), 0);
    EXPECT_EQ(set(std::string(255, 'n'), "1234"), 0);
}

TEST(Property, WritersAtOnceLeaveWholeValues) {
    constexpr int kRounds = 500;
    std::atomic<int> first_writes = 0;
    const auto write = [&](char letter) {
        for (int i = 0; i < kRounds; ++i) {
            first_writes += set("ro." + std::to_string(i), {letter}) == 0 ? 1 : 0;
            EXPECT_EQ(set("p", std::string(91, letter)), 0);
            const std::string value = get("p");
            EXPECT_EQ(value, std::string(91, value[0]));
        }
    };
    std::thread other(write, 'a');
    write('b');
    other.join();
    EXPECT_EQ(first_writes, kRounds);
    EXPECT_THAT(fixture::names_in(kFolder), SizeIs(kRounds + 1));
}

TEST(Property, ProgramsReadAndWrite) {
    run("setprop b 2; setprop a 1; setprop empty ''");
    EXPECT_EQ(run("getprop; getprop b x; getprop empty x").output, "[a]: [1]\n[b]: [2]\n2\nx\n");
    for (const char* bad : {"setprop .a 1", "setprop a", "getprop a b c"}) {
        const auto [exit_status, output] = run(bad);
        EXPECT_EQ(exit_status, 1) << bad;
        EXPECT_THAT(output, testing::MatchesRegex("[^\n]+\n")) << bad;
    }
}

// --- Waiting -------------------------------------------------------------------------------------

TEST(PropertyWait, EndsWithTheValueFromAnotherProcess) {
    fixture::start("setprop other 2; setprop w 1; setprop w 2");
    EXPECT_TRUE(WaitForProperty("w", "2"));
    EXPECT_TRUE(WaitForProperty("w", "2", milliseconds(0)));
    fixture::start("rm /dev/__properties__/w");
    EXPECT_TRUE(WaitForProperty("w", ""));
    fixture::start("printf %s 3 >/dev/__properties__/w");
    EXPECT_TRUE(WaitForProperty("w", "3"));
}

TEST(PropertyWait, TimesOutWithoutBusyWaiting) {
    const auto wait = [](const char* name, milliseconds timeout) {
        rusage before{};
        rusage after{};
        getrusage(RUSAGE_THREAD, &before);
        EXPECT_EQ(WaitForProperty(name, "1", timeout), timeout == milliseconds::max());
        getrusage(RUSAGE_THREAD, &after);
        EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 3);
        EXPECT_LE(after.ru_utime.tv_usec + after.ru_stime.tv_usec,
                  kSpan / std::chrono::microseconds(2));
    };
    wait("none", milliseconds::min());
    const auto start = steady_clock::now();
    std::thread endless(wait, "w", milliseconds::max());
    wait("none", kSpan);
    EXPECT_GE(steady_clock::now() - start, kSpan);
    set("w", "1");
    endless.join();
}

// The answer comes a little later in each turn, to meet the question at every point of its way into
// the kernel.
TEST(PropertyWait, LosesNoChange) {
    constexpr int kTurns = 4000;
    std::thread answers([] {
        for (int turn = 0; turn < kTurns; ++turn) {
            ASSERT_TRUE(WaitForProperty("question", std::to_string(turn), fixture::kPatience));
            const auto end = steady_clock::now() + std::chrono::nanoseconds(turn * 50);
            while (steady_clock::now() < end) {
            }
            set("answer", std::to_string(turn));
        }
    });
    for (int turn = 0; turn < kTurns; ++turn) {
        set("question", std::to_string(turn));
        ASSERT_TRUE(WaitForProperty("answer", std::to_string(turn), fixture::kPatience)) << turn;
    }
    answers.join();
}

// A forked child has the descriptors of its parent, and must not take its events.
TEST(PropertyWait, ForkedChildrenWaitForThemselves) {
    ASSERT_FALSE(WaitForProperty("w", "1", milliseconds(0)));
    const pid_t pid = fork();
    if (pid == 0) {
        set("ready", "1");
        _exit(WaitForProperty("w", "1", fixture::kPatience) ? 0 : 1);
    }
    ASSERT_TRUE(WaitForProperty("ready", "1", fixture::kPatience));
    std::thread writer([] { set("w", "1"); });
    EXPECT_TRUE(WaitForProperty("w", "1", fixture::kPatience));
    writer.join();
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(run("ls -l /proc/self/fd").output, Not(HasSubstr("inotify")));
}

TEST(PropertyWait, GoesOnAfterSignalsAndEndsWithItsThread) {
    static std::atomic<int> handled = 0;
    signal(SIGUSR1, [](int) {
        ++handled;
        handled.notify_all();
    });
    signal(SIGUSR2, [](int) { pthread_exit(nullptr); });
    const auto wait_in_thread = [](void*) -> void* {
        set("waiting", "1");
        EXPECT_TRUE(WaitForProperty("w", "1"));
        set("waited", "1");
        return nullptr;
    };
    for (const bool is_ended : {true, false}) {
        pthread_t thread{};
        set("waiting", "");
        ASSERT_EQ(pthread_create(&thread, nullptr, wait_in_thread, nullptr), 0);
        ASSERT_TRUE(WaitForProperty("waiting", "1", fixture::kPatience));
        for (int i = 0; i < 100; ++i) {
            const int before = handled;
            pthread_kill(thread, SIGUSR1);
            handled.wait(before);
        }
        is_ended ? pthread_kill(thread, SIGUSR2) : set("w", "1");
        pthread_join(thread, nullptr);
        EXPECT_EQ(get("waited"), is_ended ? "unset" : "1");
        EXPECT_EQ(run("ls -l /proc/$PPID/fd | grep -c inotify").output, "1\n") << "this thread's";
    }
}

TEST(PropertyWait, AbortsWithoutAFolder) {
    ASSERT_EQ(umount2(kFolder, MNT_DETACH), 0);
    ASSERT_EQ(rmdir(kFolder), 0);
    EXPECT_EQ(get("a"), "unset");
    EXPECT_LT(set("a", "1"), 0);
    std::filesystem::create_directory("/tmp");  // of EXPECT_EXIT
    EXPECT_EXIT(WaitForProperty("a", "1"), testing::KilledBySignal(SIGABRT),
                "F properties: cannot watch /dev/__properties__: No such file or directory");
}

}  // namespace
