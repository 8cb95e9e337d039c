#include <android-base/properties.h>
#include <cutils/properties.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "tests/child.h"
#include "tests/device_fixture.h"

namespace {

using android::base::WaitForProperty;
using fixture::run;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kFolder[] = "/dev/__properties__";

std::string file_of(const std::string& name) {
    return std::string(kFolder) + "/" + name;
}

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
    EXPECT_EQ(get("a.b"), "unset");
    EXPECT_EQ(property_get("a.b", std::string(92, '?').data(), nullptr), 0);
    ASSERT_EQ(set("a.b", "one two"), 0);
    EXPECT_EQ(fixture::read_file(file_of("a.b")), "one two");
    EXPECT_EQ(get("a.b"), "one two");
    ASSERT_EQ(property_set("a.b", nullptr), 0);
    EXPECT_EQ(get("a.b"), "unset") << "an empty value is none";
    fixture::write_file(file_of("long"), std::string(200, 'x'));
    EXPECT_EQ(get("long"), std::string(91, 'x'));
    EXPECT_EQ(get("none", std::string(200, 'x').c_str()), std::string(91, 'x'));
    std::filesystem::create_directory(file_of("folder"));
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
    EXPECT_THAT(fixture::names_in(kFolder), testing::IsEmpty());

    EXPECT_EQ(set("Az09._@:-x", "1"), 0);
    EXPECT_EQ(set(std::string(255, 'n'), "1234"), 0);
    EXPECT_EQ(fixture::names_in(kFolder).size(), 2U);
}

TEST(Property, ReadOnlyTakesTheFirstOfManyWritersOnly) {
    std::atomic<int> written = 0;
    std::vector<std::thread> writers;
    for (int i = 0; i < 8; ++i) {
        writers.emplace_back([&written, i] {
            if (set("ro.one", std::to_string(i)) == 0) {
                ++written;
                EXPECT_EQ(get("ro.one"), std::to_string(i));
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(written, 1);
    EXPECT_LT(set("ro.one", get("ro.one")), 0);
    EXPECT_THAT(fixture::names_in(kFolder), ElementsAre("ro.one"));
}

TEST(Property, AReaderSeesWholeValuesOnly) {
    const std::string values[] = {std::string(91, 'a'), "b"};
    ASSERT_EQ(set("p", values[0]), 0);
    std::atomic<bool> done = false;
    std::thread writer([&] {
        for (int i = 0; i < 5000; ++i) {
            EXPECT_EQ(set("p", values[i % 2]), 0);
        }
        done = true;
    });
    while (!done) {
        ASSERT_THAT(get("p"), AnyOf(values[0], values[1]));
    }
    writer.join();
}

TEST(Property, ProgramsReadAndWrite) {
    EXPECT_EQ(run({"setprop", "b", "2"}).exit_status, 0);
    EXPECT_EQ(run({"setprop", "a", "1"}).exit_status, 0);
    EXPECT_EQ(run({"setprop", "empty", ""}).exit_status, 0);
    EXPECT_EQ(run({"getprop"}).output, "[a]: [1]\n[b]: [2]\n");
    EXPECT_EQ(run({"getprop", "b", "x"}).output, "2\n");
    EXPECT_EQ(run({"getprop", "empty", "x"}).output, "x\n");
    EXPECT_EQ(run({"getprop", "none"}).output, "\n");
    for (const std::vector<std::string>& bad : {std::vector<std::string>{"setprop", ".a", "1"},
                                                {"setprop", "a"},
                                                {"getprop", "a", "b", "c"}}) {
        const auto [exit_status, output] = run(bad);
        EXPECT_EQ(exit_status, 1);
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
    }
}

// --- Waiting -------------------------------------------------------------------------------------

TEST(PropertyWait, EndsWithTheValueFromAnotherProcess) {
    EXPECT_TRUE(WaitForProperty("w", "")) << "unset already";
    const fixture::child writer({"sh", "-c", "setprop other 2; setprop w 1; setprop w 2"});
    EXPECT_TRUE(WaitForProperty("w", "2"));
    EXPECT_TRUE(WaitForProperty("w", "2", milliseconds(0)));
    std::thread remover([] { std::filesystem::remove(file_of("w")); });
    EXPECT_TRUE(WaitForProperty("w", ""));
    remover.join();
    const fixture::child shell({"sh", "-c", "printf %s 3 >/dev/__properties__/w"});
    EXPECT_TRUE(WaitForProperty("w", "3"));
}

TEST(PropertyWait, TimesOutWithoutBusyWaiting) {
    for (const milliseconds none : {milliseconds::min(), milliseconds(-1), milliseconds(0)}) {
        EXPECT_FALSE(WaitForProperty("w", "1", none));
    }
    const auto start = steady_clock::now();
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_THREAD, &before);
    EXPECT_FALSE(WaitForProperty("w", "1", milliseconds(300)));
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_GE(steady_clock::now() - start, milliseconds(300));
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 2);
}

// Each turn is one change that the other side must not miss; the noise gives it events of others.
TEST(PropertyWait, LosesNoChange) {
    constexpr int kTurns = 2000;
    std::atomic<bool> done = false;
    std::thread noise([&] {
        while (!done) {
            set("noise", "1");
        }
    });
    const auto play = [](const char* mine, const char* theirs, bool begins) {
        for (int turn = 0; turn < kTurns; ++turn) {
            const std::string value = std::to_string(turn);
            if (begins) {
                set(mine, value);
            }
            ASSERT_TRUE(WaitForProperty(theirs, value, fixture::kPatience)) << turn;
            if (!begins) {
                set(mine, value);
            }
        }
    };
    std::thread pong(play, "pong", "ping", false);
    play("ping", "pong", true);
    pong.join();
    done = true;
    noise.join();
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
    EXPECT_THAT(run({"ls", "-l", "/proc/self/fd"}).output, Not(HasSubstr("inotify")));
}

size_t inotify_instances() {
    size_t count = 0;
    for (const std::string& name : fixture::names_in("/proc/self/fd")) {
        std::error_code error;
        const auto target = std::filesystem::read_symlink("/proc/self/fd/" + name, error);
        count += target.string().find("inotify") != std::string::npos ? 1 : 0;
    }
    return count;
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
    for (const int last_signal : {0, SIGUSR2}) {
        pthread_t thread{};
        set("w", "");
        set("waiting", "");
        set("waited", "");
        ASSERT_EQ(pthread_create(&thread, nullptr, wait_in_thread, nullptr), 0);
        ASSERT_TRUE(WaitForProperty("waiting", "1", fixture::kPatience));
        for (int i = 0; i < 100; ++i) {
            const int before = handled;
            pthread_kill(thread, SIGUSR1);
            handled.wait(before);
        }
        last_signal == 0 ? set("w", "1") : pthread_kill(thread, last_signal);
        pthread_join(thread, nullptr);
        EXPECT_EQ(get("waited"), last_signal == 0 ? "1" : "unset");
        EXPECT_EQ(inotify_instances(), 1U) << "this thread's own";
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
