// SPDX-License-Identifier: Apache-2.0

// Makes a folder as it is pulled from a phone: look_folder DIR [EVENTS BYTES]
// Alone a small one with hostile and damaged entries; with numbers a large one with that many
// events and captures of that many bytes.

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <sys/stat.h>
#include <time.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;
using android::base::StringPrintf;

fs::path logs;

void write(const fs::path& path, const std::string& text) {
    fs::create_directories((logs / path).parent_path());
    std::ofstream out(logs / path, std::ios::binary);
    out.exceptions(std::ios::failbit | std::ios::badbit);
    out << text << std::flush;
}

void write_gzip(const fs::path& path, const std::string& text) {
    write(path, "");
    const gzFile file = gzopen((logs / path).c_str(), "wb");
    gzwrite(file, text.data(), text.size());
    gzclose(file);
}

std::string stamp(time_t time, const char* format) {
    char text[64];
    tm date{};
    strftime(text, sizeof(text), format, gmtime_r(&time, &date));
    return text;
}

std::string log_lines(time_t begin, time_t end, time_t step, const char* text) {
    std::string lines = "--------- beginning of main\n";
    for (time_t time = begin; time < end; time += step) {
        lines += stamp(time, "%m-%d %H:%M:%S.250") + "  1000  1001 I Tag     : " + text + " " +
                 stamp(time, "%Y") + "\n";
    }
    return lines;
}

// --- The small one ------------------------------------------------------------------------------

constexpr time_t kNewYear = 1767225600;  // 2026-01-01 00:00:00

void add_captures() {
    write("general_log/ZQLog_3_2025-12-31-23-50-00/android.log.1",
          log_lines(kNewYear - 660, kNewYear - 2, 1, "old android"));
    write("general_log/ZQLog_3_2025-12-31-23-50-00/android.log",
          log_lines(kNewYear - 2, kNewYear + 600, 1, "new android"));
    write("general_log/ZQLog_3_2025-12-31-23-50-00/kernel.log",
          log_lines(kNewYear - 600, kNewYear + 600, 4, "<script>kernel()</script>"));
    // A part is missing; the clock is set behind the first lines; the kernel's log is no log.
    const std::string damaged = "general_log/ZQLog_4_2026-01-02-08-00-00/";
    write(damaged + "android.log.3", log_lines(kNewYear + 115200, kNewYear + 115300, 1, "third"));
    write(damaged + "android.log.1",
          log_lines(kNewYear + 15552000, kNewYear + 15552100, 1, "unset") +
              log_lines(kNewYear + 115400, kNewYear + 115500, 1, "first"));
    write(damaged + "android.log", log_lines(kNewYear + 115500, kNewYear + 115600, 1, "last"));
    write(damaged + "kernel.log.1", std::string(5000, '\0'));
    mkfifo((logs / (damaged + "kernel.log")).c_str(), 0600);
    write("general_log/ZQLog_x_cut", "no folder");
}

void add_event(const std::string& folder, const std::string& file, const std::string& content) {
    write(folder + "/eventfile", "EVENT=CRASH\nDATE=2026\nTYPE=<b>x</b>\n_END\n");
    write(folder + "/" + file, content);
}

void make_small() {
    add_captures();
    std::string history = "REBOOT  2025-12-31/23:49:00 KERNELPANIC     \n";
    const auto event = [&](const char* category, const char* date, const std::string& rest) {
        history += StringPrintf("%-8s%-20s", category, date) + rest + "\n";
    };
    const std::string folder = "/data/logs/crashlog/crashlog_";

    event("CRASH", "2025-12-31/23:55:00", "ANR " + folder + "1_ANR_2025-12-31-23-55-00");

    event("CRASH", "2026-01-01/00:00:03",
          "JAVACRASH " + folder + "2_JAVACRASH_2026-01-01-00-00-03");
    add_event("crashlog/crashlog_2_JAVACRASH_2026-01-01-00-00-03", "data_app_crash@1.txt",
              "Process: com.example.hostile\nPackage: com.example.hostile v1 (1.0)\nBuild: x\n\n"
              "java.lang.Error: </script><script>document.title = \"broken\"</script>\x1b[31m\xff\n"
              "\tat com.example.Main.run(Main.java:7)\n\tat com.example.Main.main(Main.java:1)\n");

    event("CUSTOM", "2026-01-01/00:05:00",
          "Freeze /data/logs/zqeventlog/com.example.app_0_Freeze_2026-01-01-00-05-00");
    add_event("zqeventlog/com.example.app_0_Freeze_2026-01-01-00-05-00",
              "ZQEvent_com.example.app_Freeze@2.txt", "frozen for 5 s\n");

    // No report; a snapshot of the log repeats the capture's lines and has some of its own.
    event("CRASH", "2026-01-01/00:08:00", "UIWDT " + folder + "3_UIWDT_2026-01-01-00-08-00");
    const std::string watchdog = "crashlog/crashlog_3_UIWDT_2026-01-01-00-08-00/";
    write_gzip(watchdog + "system_server_watchdog@3.txt.gz",
               "Process: system_server\nSubject: Blocked in handler on main thread\n" +
                   std::string(30, '\n') +
                   "\"main\" prio=5 tid=1 Native\n  at android.os.Looper.loop\n");
    write(watchdog + "pre_android.log",
          log_lines(kNewYear + 470, kNewYear + 481, 1, "new android"));
    write(watchdog + "pre_kernel.log", log_lines(kNewYear + 479, kNewYear + 481, 1, "snapshot"));

    event("CRASH", "2026-01-01/00:09:00",
          "TOMBSTONE " + folder + "4_TOMBSTONE_2026-01-01-00-09-00");
    add_event("crashlog/crashlog_4_TOMBSTONE_2026-01-01-00-09-00", "tombstone_00",
              "*** ***\npid: 7, tid: 8, name: netd  >>> /system/bin/netd <<<\n"
              "signal 6 (SIGABRT), code -1\nAbort message: 'told to'\nbacktrace:\n"
              "      #00 pc 000000000004f2a8  libc.so (abort+168)\n");

    event("CRASH", "2026-01-01/00:09:30", "ANR " + folder + "5_ANR_2026-01-01-00-09-30");
    add_event("crashlog/crashlog_5_ANR_2026-01-01-00-09-30", "data_app_anr@5.txt.gz",
              "Cmdline: com.example.late -x\n");

    event("CRASH", "2026-01-01/00:09:40", "ANR " + folder + "6_ANR_2026-01-01-00-09-40");
    const std::string broken = "crashlog/crashlog_6_ANR_2026-01-01-00-09-40/data_app_anr@6.txt.gz";
    std::string noise = "Subject: half\n";
    for (int i = 0; i < 20000; ++i) {
        noise += std::to_string(i * 7919 % 104729);
    }
    write_gzip(broken, noise);
    fs::resize_file(logs / broken, 6000);

    event("CRASH", "2026-01-01/00:09:50", "ANR " + folder + "7_ANR_2026-01-01-00-09-50");
    write("crashlog/crashlog_7_ANR_2026-01-01-00-09-50/eventfile", "EVENT=CRASH\nDATE=20");
    fs::create_symlink("/etc/passwd",
                       logs / "crashlog/crashlog_7_ANR_2026-01-01-00-09-50/data_app_anr@7.txt");

    // Its line is lost; the history goes on with a line that is glued to a cut one, and ends in
    // one.
    add_event("crashlog/crashlog_8_ANR_2026-01-02-08-06-45", "anr@8", "Subject: no line\n");
    fs::create_directories(logs / "crashlog/two\nlines");
    history +=
        "CRASH   2026-01-02/08:05:00 ANR /data/logs/crashlog/crashlog_9_ANREBOOT  "
        "2026-01-02/08:06:00 UNKNOWN         \n\x01 garbage\nCUSTOM  2026-01-0";
    write("history.event", history);
}

// --- The large one ------------------------------------------------------------------------------

constexpr int kCaptures = 10;
constexpr int kFiles = 5;  // of a capture's android log

// Lines of 100 bytes, spread evenly over the file's part of time.
void write_log(const fs::path& path, time_t begin, time_t span, size_t bytes) {
    const size_t lines = bytes / 100;
    std::string text;
    text.reserve(lines * 100);
    for (size_t i = 0; i < lines; ++i) {
        const uint64_t millis = i * span * 1000 / lines;
        const std::string head = stamp(begin + millis / 1000, "%m-%d %H:%M:%S");
        std::string line =
            head + StringPrintf(".%03d  1000  1001 I Tag     : line %zu ", int(millis % 1000), i);
        text += line + std::string(99 - line.size(), '.') + "\n";
    }
    write(path, text);
}

void make_large(int events, size_t bytes) {
    constexpr time_t kSpan = 3 * 86400;  // of a capture
    for (int i = 0; i < kCaptures; ++i) {
        const time_t begin = kNewYear + i * kSpan;
        const std::string dir =
            StringPrintf("general_log/ZQLog_%d_", i) + stamp(begin, "%Y-%m-%d-%H-%M-%S/");
        for (int file = 0; file < kFiles; ++file) {
            write_log(dir + (file == 0 ? "android.log" : "android.log." + std::to_string(file)),
                      begin + (kFiles - 1 - file) * kSpan / kFiles, kSpan / kFiles,
                      bytes / kCaptures / (kFiles + 1));
        }
        write_log(dir + "kernel.log", begin, kSpan, bytes / kCaptures / (kFiles + 1));
    }
    const char* const types[] = {"TOMBSTONE", "JAVACRASH", "ANR",  "Freeze", "UIWDT",
                                 "Slow",      "LowMemory", "Leak", "Jank"};
    std::string history;
    std::string trace = "\n\njava.lang.IllegalStateException: the state is not legal\n";
    for (int i = 0; i < 300; ++i) {
        trace += StringPrintf("\tat com.example.app.Some.method%d(Some.java:%d)\n", i, i);
    }
    for (int i = 0; i < events; ++i) {
        // A tenth of them comes in bursts.
        const time_t time =
            kNewYear + (i % 10 == 0 ? i / 1000 * 1000 : i) * (kCaptures * kSpan) / events;
        const std::string type = types[(i * 7 + i / 13) % 40 * 9 / 40];
        const bool is_custom = type.find_first_of("abcdefghijklmnopqrstuvwxyz") != type.npos;
        const std::string owner = StringPrintf("com.example.app%d", i % 23 * (i % 7));
        const std::string category = is_custom ? "zqeventlog/" + owner : "crashlog/crashlog";
        const std::string folder =
            category + StringPrintf("_%d_", i) + type + stamp(time, "_%Y-%m-%d-%H-%M-%S");
        history += StringPrintf("%-8s%-20s", is_custom ? "CUSTOM" : "CRASH",
                                stamp(time, "%Y-%m-%d/%H:%M:%S").c_str()) +
                   type + " /data/logs/" + folder + "\n";
        write(folder + "/eventfile", "EVENT=CRASH\nTYPE=" + type + "\n_END\n");
        write(folder + (is_custom             ? "/ZQEvent_a_b@1.txt"
                        : type == "TOMBSTONE" ? "/tombstone_00"
                                              : "/data_app_crash@1.txt"),
              "Package: " + owner + " v1 (1.0)\n" + trace);
        if (i % 500 == 499) {
            history += StringPrintf("%-8s%-20s%-16s\n", "REBOOT",
                                    stamp(time + 60, "%Y-%m-%d/%H:%M:%S").c_str(), "UNKNOWN");
        }
    }
    write("history.event", history);
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2 && argc != 4) {
        fprintf(stderr, "usage: look_folder DIR [EVENTS BYTES]\n");
        return EXIT_FAILURE;
    }
    logs = argv[1];
    argc == 2 ? make_small() : make_large(atoi(argv[2]), strtoull(argv[3], nullptr, 10));
    return EXIT_SUCCESS;
}
