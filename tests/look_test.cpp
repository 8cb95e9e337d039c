// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>

#include <algorithm>

#include "look/collected.h"
#include "tests/device_fixture.h"

namespace {

using namespace fixture;
using namespace testing;

// A zone that is not the phone's.
outcome look(const std::string& words) {
    return run("TZ=America/Anchorage /system/build/look/look " + words);
}

void make_folder() {
    ASSERT_EQ(run("/system/build/tests/look_folder /data/logs").exit_status, 0);
}

std::string described(int number) {
    return look("events /data " + std::to_string(number)).output;
}

std::vector<std::string> split(const std::string& text, const std::string& mark) {
    std::vector<std::string> parts;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find(mark, at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end + mark.size();
    }
    return parts;
}

TEST(Look, TableHasEventsRebootsAndCapturesByTimeAndMarksWhatIsDamaged) {
    make_folder();
    const char* const rows[] = {
        "N|TIME|CATEGORY|TYPE|PACKAGE|LINE|FOLDER",
        "15|-|CRASH|two\uFFFDlines [not in the history; its folder's name is cut]",
        "-|-|CAPTURE|ZQLog_x_cut [its name is cut]",
        "1|2025-12-31 23:49:00|REBOOT|KERNELPANIC",
        "-|2025-12-31 23:50:00|CAPTURE|until 2026-01-01 00:09:59|ZQLog_3_2025-12-31-23-50-00",
        "2|2025-12-31 23:55:00|CRASH|ANR|gone",
        "3|2026-01-01 00:00:03|CRASH|JAVACRASH|com.example.hostile|"
        "java.lang.Error: </script><script>document.title = \"broken\"</scr|"
        "crashlog_2_JAVACRASH_2026-01-01-00-00-03",
        "4|2026-01-01 00:05:00|CUSTOM|Freeze|com.example.app|frozen for 5 s|"
        "com.example.app_0_Freeze_2026-01-01-00-05-00",
        "5|2026-01-01 00:08:00|CRASH|UIWDT|system_server|"
        "Subject: Blocked in handler on main thread|"
        "crashlog_3_UIWDT_2026-01-01-00-08-00 [no eventfile]",
        "6|2026-01-01 00:09:00|CRASH|TOMBSTONE|/system/bin/netd|Abort message: 'told to'|"
        "crashlog_4_TOMBSTONE_2026-01-01-00-09-00",
        "7|2026-01-01 00:09:30|CRASH|ANR|com.example.late|Cmdline: com.example.late -x|"
        "crashlog_5_ANR_2026-01-01-00-09-30 [data_app_anr@5.txt.gz is no gzip]",
        "8|2026-01-01 00:09:40|CRASH|ANR|Subject: half|"
        "crashlog_6_ANR_2026-01-01-00-09-40 [no eventfile; data_app_anr@6.txt.gz is broken]",
        "9|2026-01-01 00:09:50|CRASH|ANR|"
        "crashlog_7_ANR_2026-01-01-00-09-50 [eventfile is cut; no data_app_anr@7.txt]",
        "-|2026-01-02 08:00:00|CAPTURE|until 2026-01-02 08:06:39|ZQLog_4_2026-01-02-08-00-00 "
        "[android.log.1 is left out up to where its clock jumps; a part of android.log is missing; "
        "kernel.log.1 holds no lines; kernel.log holds no lines]",
        "10|2026-01-02 08:05:00|CRASH|ANR|gone [its folder's name is cut]",
        "11|2026-01-02 08:06:00|REBOOT|UNKNOWN",
        "12|2026-01-02 08:06:00|?|\uFFFD garbage|[its line is cut]",
        "13|2026-01-02 08:06:00|?|CUSTOM|2026-01-0|[its line is cut]",
        "14|2026-01-02 08:06:45|CRASH|ANR|Subject: no line|"
        "crashlog_8_ANR_2026-01-02-08-06-45 [not in the history]",
    };
    std::string expected;
    for (const std::string row : rows) {
        expected += row + "\n";
    }
    for (const char* dir : {"/data/logs", "/data", "/"}) {
        const outcome table =
            look(std::string("events ") + dir + " | sed -E 's/^ +| +$//g; s/  +/|/g'");
        EXPECT_EQ(table.output, expected) << dir;
    }
}

TEST(Look, EventHasItsFilesAndTheLogAroundItAcrossYearsAndRotatedFiles) {
    make_folder();
    const std::string crash = described(3);
    EXPECT_THAT(crash, HasSubstr("== Report\nEVENT=CRASH\n"));
    EXPECT_THAT(crash,
                HasSubstr("== Head of data_app_crash@1.txt\nProcess: com.example.hostile\n"));
    EXPECT_THAT(crash, HasSubstr("== Stack\n\tat com.example.Main.run(Main.java:7)\n\tat "
                                 "com.example.Main.main(Main.java:1)\n"));
    EXPECT_THAT(crash, HasSubstr("== Files\n         229  data_app_crash@1.txt\n"));
    std::string log;  // a line each second, the kernel's each fourth
    for (int second = -7; second < 14; ++second) {
        const std::string stamp =
            (second < 0 ? "12-31 23:59:" : "01-01 00:00:") +
            android::base::StringPrintf("%02d.250  1000  1001 I Tag     : ", (second + 60) % 60);
        const std::string year = second < 0 ? " 2025\n" : " 2026\n";
        log += "A " + stamp + (second < -2 ? "old" : "new") + " android" + year;
        log += second % 4 == 0 ? "K " + stamp + "<script>kernel()</script>" + year : "";
    }
    EXPECT_THAT(crash, EndsWith("(A android, K kernel)\n" + log));

    EXPECT_THAT(described(6), HasSubstr("== Stack\n      #00 pc 000000000004f2a8"));
    EXPECT_THAT(described(7), HasSubstr("== Head of data_app_anr@5.txt.gz\nCmdline: com"));
    EXPECT_THAT(described(8), HasSubstr("== Head of data_app_anr@6.txt.gz\nSubject: half\n"));
    EXPECT_THAT(described(9), Not(HasSubstr("root:")));  // of the file that a link leads to
}

TEST(Look, SnapshotOfTheLogAddsWhatTheCaptureLacks) {
    make_folder();
    const std::string watchdog = described(5);
    EXPECT_THAT(split(watchdog, "new android"), SizeIs(1 + 21));
    EXPECT_THAT(watchdog,
                HasSubstr("A 01-01 00:07:59.250  1000  1001 I Tag     : new android 2026\n"
                          "K 01-01 00:07:59.250  1000  1001 I Tag     : snapshot 2026\n"));
}

TEST(Look, PageHoldsHostileTextAsTextAlone) {
    make_folder();
    ASSERT_EQ(look("report /data /data/page.html").output, "/data/page.html\n");
    const std::string page = read_file("/data/page.html");
    EXPECT_THAT(page, HasSubstr("\\u003c/script>\\u003cscript>document.title"));
    EXPECT_THAT(page, Not(HasSubstr("<script>document.title")));
    EXPECT_THAT(page, Not(HasSubstr("<script>kernel")));
    EXPECT_EQ(run("/usr/bin/iconv -f UTF-8 -t UTF-8 -o /data/copy /data/page.html").output, "");
    EXPECT_EQ(std::count_if(page.begin(), page.end(), [](char c) { return c < ' ' && c >= 0; }),
              std::count(page.begin(), page.end(), '\n'));
}

TEST(Look, WhatCannotBeDoneIsSaid) {
    make_folder();
    EXPECT_EQ(look("events /system").output,
              "look: /system holds no history, events or captures\n");
    EXPECT_EQ(look("events /data 16").output, "look: there is no event 16\n");
    const outcome unwritable = look("report /data /proc/page.html");
    EXPECT_EQ(unwritable.exit_status, 1);
    EXPECT_EQ(unwritable.output, "look: /proc/page.html cannot be written\n");
}

// Bisection against reading it all, at every second: lines of uneven distance, some without a time.
TEST(LogSearch, FindsTheSameLinesAsAFullRead) {
    constexpr look::moment kStart = 1767225600000;
    std::vector<std::pair<look::moment, std::string>> all;
    look::moment time = kStart;
    for (int part = 2; part >= 0; --part) {
        std::string text = "--------- beginning of main\n";
        for (int i = 0; i < 200; ++i) {
            time += i * 7919 % 1913 + (i % 50 == 0 ? 45000 : 0);
            const std::string seconds = look::format_moment(time).substr(5);
            const std::string line =
                i % 5 == 3
                    ? "no time " + std::to_string(i + part * 1000) + "\n"
                    : android::base::StringPrintf("%s.%03d part %d line %d\n", seconds.c_str(),
                                                  int(time % 1000), part, i);
            all.emplace_back(i % 5 == 3 ? all.back().first : time, line);
            text += line;
        }
        write_file("/data/x.log" + (part == 0 ? "" : "." + std::to_string(part)), text);
    }
    std::vector<look::log_file> files;
    std::string damage;
    look::open_log("/data", "x", 'X', kStart, files, damage);
    ASSERT_THAT(files, SizeIs(3));
    EXPECT_EQ(damage, "");
    for (look::moment second = kStart - 20000; second < time + 20000; second += 1000) {
        std::string expected;
        for (const auto& [stamp, line] : all) {
            const bool is_near = stamp >= second - 10000 && stamp < second + 11000;
            expected += is_near ? "X " + line : "";
        }
        ASSERT_EQ(look::lines_around(files, second, 1 << 20), expected) << second - kStart;
    }
}

TEST(LogSearch, OfTooManyLinesTheNearestStay) {
    constexpr look::moment kNoon = 1767268800000;
    std::string text;
    for (int i = 0; i < 60000; ++i) {
        text += look::format_moment(kNoon + i).substr(5) + "." +
                android::base::StringPrintf("%03d line\n", i % 1000);
    }
    write_file("/data/x.log", text);
    std::vector<look::log_file> files;
    std::string damage;
    look::open_log("/data", "x", 'X', kNoon, files, damage);
    const std::string found = look::lines_around(files, kNoon + 30000, 4096);
    EXPECT_THAT(found, StartsWith("[more lines before: cut]\n"));
    EXPECT_THAT(found, EndsWith("[more lines behind: cut]\n"));
    EXPECT_THAT(found, HasSubstr("X 01-01 12:00:30.999 line\nX 01-01 12:00:31.000 line\n"));
    EXPECT_LT(found.size(), 5000U);
}

}  // namespace
