// SPDX-License-Identifier: Apache-2.0

// The Linux side's system properties: limits, concurrent writers, and waits that lose no change.
#include <android-base/properties.h>
#include <sys/resource.h>

#include <thread>

#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;
using android::base::WaitForProperty;
using std::chrono::steady_clock;

const std::string kFolder = "/dev/__properties__/";

TEST(Property, RejectsWhatDoesNotFitAndLeavesNothingOfIt) {
    EXPECT_EQ(run("setprop .a 1; setprop a '1 2'; getprop; setprop a ''; getprop a x").output,
              "setprop: failed to set property '.a' to '1'\n[a]: [1 2]\nx\n");
    for (const char* name : {"", ".a", "..", "a/b", "a\n", "\xc3\xa4", "a="}) {
        EXPECT_FALSE(set_property(name, "1")) << name;
    }
    EXPECT_FALSE(set_property("n", std::string(92, 'x')));
    EXPECT_FALSE(set_property(std::string(256, 'n'), "1")) << "longer than a file name can be";
    signal(SIGXFSZ, SIG_IGN);
    const rlimit no_room{4, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_room);
    EXPECT_FALSE(set_property("cut", "12345"));
    EXPECT_THAT(names_in(kFolder), ElementsAre("a"));
    EXPECT_TRUE(set_property("Az09._@:-x", "1"));
    EXPECT_EQ(property("../self/comm"), "(unset)");
    EXPECT_EQ(property("none", std::string(100, 'x')), std::string(91, 'x'));
}

TEST(Property, WritersAtOnceLeaveWholeValues) {
    constexpr int kRounds = 500;
    std::atomic<int> first_writes = 0;
    const auto write = [&](char letter) {
        for (int i = 0; i < kRounds; ++i) {
            first_writes += set_property("ro." + std::to_string(i), {letter}) ? 1 : 0;
            EXPECT_TRUE(set_property("p", std::string(91, letter)));
            EXPECT_THAT(property("p"), AnyOf(std::string(91, 'a'), std::string(91, 'b')));
        }
    };
    std::thread other(write, 'a');
    write('b');
    other.join();
    EXPECT_EQ(first_writes, kRounds);
    EXPECT_THAT(names_in(kFolder), SizeIs(kRounds + 1));
}

// --- Waiting -------------------------------------------------------------------------------------

// A forked child has its parent's descriptors and must not take the parent's events.
TEST(PropertyWait, EndsWithTheValueFromAnyProcess) {
    EXPECT_FALSE(WaitForProperty("w", "1", std::chrono::milliseconds(50)));
    const pid_t pid = fork();
    if (pid == 0) {
        set_property("ready", "1");
        _exit(WaitForProperty("w", "1", kPatience) ? 0 : 1);
    }
    ASSERT_TRUE(WaitForProperty("ready", "1", kPatience));
    start("setprop other 2; setprop w 0; setprop w 1");
    EXPECT_TRUE(WaitForProperty("w", "1"));
    EXPECT_EQ(wait_status(pid), 0);
    start("rm /dev/__properties__/w");
    EXPECT_TRUE(WaitForProperty("w", ""));
    start("printf %s 2 >/dev/__properties__/w");
    EXPECT_TRUE(WaitForProperty("w", "2"));
    EXPECT_THAT(run("ls -l /proc/self/fd").output, Not(HasSubstr("inotify")));
}

// The answer comes a little later in each turn, so that it meets each point of the wait.
TEST(PropertyWait, LosesNoChange) {
    constexpr int kTurns = 500;
    const std::jthread answers([] {
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
}

}  // namespace
