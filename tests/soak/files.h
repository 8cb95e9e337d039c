// SPDX-License-Identifier: Apache-2.0

// What the daemon and its tools leave on the device, against one table of known files.
#pragma once

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <regex>

#include "testing/device.h"

namespace soak {

inline constexpr const char* kStaging = "/data/brevix/eventTemp/";

// Returns the lines of output. Throws std::runtime_error unless the exit status is 0.
inline std::vector<std::string> run(const std::string& shell_line) {
    if (const device::outcome result = device::run(shell_line); result.exit_status != 0) {
        throw std::runtime_error("failed: " + shell_line + "\n" + result.output);
    }
    return device::read_lines("/data/output");
}

// Adds a fault that names the first line of `found` that is not the one of `expected`, if any.
inline void compare(const std::string& what, const std::vector<std::string>& found,
                    const std::vector<std::string>& expected, std::vector<std::string>& faults) {
    const auto [here, there] =
        std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
    if (here != found.end() || there != expected.end()) {
        faults.push_back(what + ": found " + (here == found.end() ? "nothing" : *here) +
                         ", expected " + (there == expected.end() ? "nothing" : *there));
    }
}

// Expressions of what find prints about a file.
struct known_file {
    std::string path;
    const char* mode = "[0-7]+";
    const char* bytes = "[0-9]+";
    int most = std::numeric_limits<int>::max();  // files of this row
};

inline const std::string kTime = "[0-9]{4}(-[0-9]{2}){5}";
inline const std::string kEventName = "/(crashlog_[0-9]+_[A-Z]+|[a-z.]+_[0-9]+_[a-z0-9]+)_" + kTime;
inline const std::string kEvent = "/data/logs/(crashlog|zqeventlog)" + kEventName;
inline const std::string kStaged = "/data/brevix/eventTemp" + kEventName;
inline const std::string kSource = "/([^/]*@[0-9]+\\.txt|tombstone_[a-z0-9]+)";
inline const std::string kDump = "/(state|transaction_log|transactions|sf_" + kTime +
                                 "\\.log|pre_(android|event|radio|kernel)\\.log)";
inline const std::string kCapture = "/data/logs/general_log/ZQLog_[0-9]+_" + kTime;

// Every file that may exist. Modes below 777 are what umask 077 of services leaves. A capture's
// file exceeds its 64 kB by at most one line, of some 4 kB. A written tombstone's first event
// copies it at its creation, perhaps before it has content. A second filler would exceed the
// ceiling of all captures.
// clang-format off
inline const known_file kKnownFiles[] = {
    {"/data/logs/(crashlog|zqeventlog|general_log)",                 "777"},
    {kEvent,                                                         "777"},
    {kEvent + "/eventfile",                                          "600", "[1-9][0-9]*"},
    {kEvent + kSource,                                               "777", "[1-9][0-9]*"},
    {kEvent + "/tombstone_written[0-9]+",                            "777"},
    {kEvent + kDump},
    {"/data/logs/history\\.event",                                   "600"},
    {"/data/logs/console-ramoops-0-" + kTime,                        "777"},
    {"/data/logs/sf\\.log"},
    {kCapture,                                                       "777", "[0-9]+", 3},
    {kCapture + "/[a-z]+\\.log(\\.[1-3])?",                        "600", "[0-9]{1,4}|[1-6][0-9]{4}"},
    {kCapture + "/filler",                                           "[0-7]+", "[0-9]+", 1},
    {"/data/logs/dumpsys",                                           "700"},
    {"/data/logs/dumpsys/(ps|iotop|ss_eionptu|lsof|storaged|procrank|netstate)\\.txt", "[0-7]+", "[1-9][0-9]*"},
    {"/data/logs/touch_panel",                                       "770"},
    {"/data/logs/touch_panel/tp_log_[0-9_-]+\\.rep",                 "600"},
    {"/data/logs/audiohal(/audio_dump)?",                            "700"},
    {"/data/logs/audiohal/audio_dump/record\\.pcm",                  "600", "1048576"},
    {"/data/tcpdump/soak\\.pcap[0-2]",                               "666"},
    {"/data/brevix/eventTemp",                                       "777"},
    {kStaged,                                                        "[0-7]+", "[0-9]+", 10},
    {kStaged + "(/eventfile|" + kSource + "|" + kDump + ")"},
};
// clang-format on

// Adds a fault for each file that is not in the table, or of another user than /data/logs. Nothing
// may change the files meanwhile.
inline void check_known(std::vector<std::string>& faults) {
    std::vector<std::string> files =
        run("/usr/bin/find /data/logs /data/brevix /data/tcpdump -mindepth 1 "
            "\\( ! -uid $(stat -c %u /data/logs) -printf 'of user %U: ' \\) , "
            "-printf '%p %m %s\\n'");
    for (const known_file& known : kKnownFiles) {
        const std::regex line(known.path + " (" + known.mode + ") (" + known.bytes + ")");
        int count = 0;
        std::erase_if(files, [&](const std::string& file) {
            return count < known.most && std::regex_match(file, line) && ++count > 0;
        });
    }
    for (const std::string& file : files) {
        faults.push_back("no known file, or one too many: " + file);
    }
}

// `crash_files` are the copies in the folders of all collected events, in the order of the history.
// Of each prefix exactly the last ten events are kept. Which ones are still staged is up to the
// app. All are complete.
inline void check_events(const std::vector<device::fs::path>& crash_files,
                         std::vector<std::string>& faults) {
    std::vector<std::string> expected;
    std::map<std::string, int> of_prefix;
    std::for_each(crash_files.rbegin(), crash_files.rend(), [&](const device::fs::path& file) {
        const std::string kept = file.parent_path();
        const std::string staged = kStaging + file.parent_path().filename().string();
        for (const std::string& folder : {kept, staged}) {
            if (folder == staged ? device::fs::exists(staged)
                                 : ++of_prefix[kept.substr(0, kept.find('_'))] <= 10) {
                expected.insert(expected.end(), {folder, folder + "/eventfile",
                                                 folder + "/" + file.filename().string()});
            }
        }
    });
    std::sort(expected.begin(), expected.end());
    compare("events kept and staged",
            run("/usr/bin/find /data/logs/crashlog /data/logs/zqeventlog " + std::string(kStaging) +
                " -mindepth 1 \\( -type d -o -name eventfile -o -name '*@*' -o -name 'tomb*' \\)"
                " | sort"),
            expected, faults);
}

}  // namespace soak
