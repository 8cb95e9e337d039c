// SPDX-License-Identifier: Apache-2.0
#include <android-base/properties.h>
#include <sys/resource.h>

#include <thread>

#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;
using android::base::WaitForProperty;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::string kFolder = "/dev/__properties__/";

TEST(Property, OneFileHoldsOneValue) {
    const std::string cut(91, 'x');
    write_file(kFolder + "long", cut + "more");
    EXPECT_EQ(property("long"), cut);
    EXPECT_EQ(property("none", cut + "more"), cut);
    EXPECT_EQ(property("../self/comm"), "(unset)");
    fs::remove(kFolder + "long");
    EXPECT_EQ(run("setprop a 'one two'; setprop empty ''; getprop; getprop empty x").output,
              "[a]: [one two]\nx\n");
    for (const char* bad : {"setprop .a 1", "setprop a", "getprop a b c"}) {
        const auto [exit_status, output] = run(bad);
        EXPECT_EQ(exit_status, 1) << bad;
        EXPECT_THAT(output, MatchesRegex("[^\n]+\n")) << bad;
    }
}

TEST(Property, AWriteThatFailsLeavesNothing) {
    for (const char* name : {"", ".a", "..", "a/b", "a\n", "\xc3\xa4", "a="}) {
        EXPECT_FALSE(set_property(name, "1")) << name;
    }
    EXPECT_FALSE(set_property("n", std::string(92, 'x')));
    EXPECT_FALSE(set_property(std::string(256, 'n'), "1")) << "longer than a file name can be";
    signal(SIGXFSZ, SIG_IGN);
    const rlimit no_room{4, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_room);
    EXPECT_FALSE(set_property("cut", "12345"));
    EXPECT_THAT(names_in(kFolder), IsEmpty());
    EXPECT_TRUE(set_property("Az09._@:-x", "1"));
    EXPECT_TRUE(set_property(std::string(255, 'n'), "1234"));
}

TEST(Property, WritersAtOnceLeaveWholeValues) {
    constexpr int kRounds = 500;
    std::atomic<int> first_writes = 0;
    const auto write = [&](char letter) {
        for (int i = 0; i < kRounds; ++i) {
            first_writes += set_property("ro." + std::to_string(i), {letter}) ? 1 : 0;
            EXPECT_TRUE(set_property("p", std::string(91, letter)));
            const std::string value = property("p");
            EXPECT_EQ(value, std::string(91, value[0]));
        }
    };
    std::thread other(write, 'a');
    write('b');
    other.join();
    EXPECT_EQ(first_writes, kRounds);
    EXPECT_THAT(names_in(kFolder), SizeIs(kRounds + 1));
}

// --- Waiting -------------------------------------------------------------------------------------

// A forked child has the descriptors of its parent, and must not take its events.
TEST(PropertyWait, EndsWithTheValueFromAnyProcess) {
    const auto begin = steady_clock::now();
    EXPECT_FALSE(WaitForProperty("w", "2", milliseconds(300)));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(300));
    const pid_t pid = fork();
    if (pid == 0) {
        set_property("ready", "1");
        _exit(WaitForProperty("w", "2", kPatience) ? 0 : 1);
    }
    ASSERT_TRUE(WaitForProperty("ready", "1", kPatience));
    start("setprop other 2; setprop w 1; setprop w 2");
    EXPECT_TRUE(WaitForProperty("w", "2"));
    EXPECT_EQ(wait_status(pid), 0);
    EXPECT_TRUE(WaitForProperty("w", "2", milliseconds(0)));
    start("rm /dev/__properties__/w");
    EXPECT_TRUE(WaitForProperty("w", ""));
    start("printf %s 3 >/dev/__properties__/w");
    EXPECT_TRUE(WaitForProperty("w", "3"));
    EXPECT_THAT(run("ls -l /proc/self/fd").output, Not(HasSubstr("inotify")));
}

// The answer comes a little later in each turn, to meet the question at every point of its way into
// the kernel.
TEST(PropertyWait, LosesNoChange) {
    constexpr int kTurns = 500;
    std::thread answers([] {
        for (int turn = 0; turn < kTurns; ++turn) {
            ASSERT_TRUE(WaitForProperty("question", std::to_string(turn), kPatience));
            const auto end = steady_clock::now() + std::chrono::nanoseconds(turn * 400);
            while (steady_clock::now() < end) {
            }
            set_property("answer", std::to_string(turn));
        }
    });
    for (int turn = 0; turn < kTurns; ++turn) {
        set_property("question", std::to_string(turn));
        ASSERT_TRUE(WaitForProperty("answer", std::to_string(turn), kPatience)) << turn;
    }
    answers.join();
}

}  // namespace
