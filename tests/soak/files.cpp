// SPDX-License-Identifier: Apache-2.0

// The files on the device against the contract.
#include "tests/soak/files.h"

#include <android-base/stringprintf.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "testing/device.h"

namespace soak {

namespace {

namespace fs = std::filesystem;

constexpr int kEventsKept = 10;
constexpr mode_t kAnyMode = 0;

struct known_file {
    std::regex path;
    mode_t mode;
};

const std::string kTime = "[0-9]{4}(-[0-9]{2}){5}";
const std::string kEventName =
    "(crashlog_[0-9]+_(UIWDT|ANR|JAVACRASH|TOMBSTONE)|[a-z.]+_[0-9]+_[a-z0-9]+)_" + kTime;
const std::string kEvent = "/data/logs/(crashlog|zqeventlog)/" + kEventName;
const std::string kStaged = "/data/brevix/eventTemp/" + kEventName;
const std::string kCapture = "/data/logs/general_log/ZQLog_[0-9]+_" + kTime;
const std::string kSource = "([^/]*@[0-9]+\\.txt|tombstone_[a-z0-9]+)";
const std::string kDumped = "(state|transaction_log|transactions|sf_" + kTime +
                            "\\.log|pre_(android|event|radio|kernel)\\.log)";

// Every file there may be; a temporary one is none of them. What is made with less than 0777 has
// the umask of services, 077, taken off.
// clang-format off
const known_file kKnownFiles[] = {
    {std::regex("/data/logs/(crashlog|zqeventlog|general_log)"),                    0777},
    {std::regex(kEvent),                                                            0777},
    {std::regex(kEvent + "/eventfile"),                                             0600},
    {std::regex(kEvent + "/" + kSource),                                            0777},
    {std::regex(kEvent + "/" + kDumped),                                            kAnyMode},
    {std::regex("/data/logs/history\\.event"),                                      0600},
    {std::regex("/data/logs/console-ramoops-0-" + kTime),                     0777},
    {std::regex("/data/logs/sf\\.log"),                                             kAnyMode},
    {std::regex(kCapture),                                                          0777},
    {std::regex(kCapture + "/(android|event|radio|kernel)\\.log(\\.[1-3])?"),       0600},
    {std::regex(kCapture + "/filler"),                                              kAnyMode},
    {std::regex("/data/logs/dumpsys"),                                              0770},
    {std::regex("/data/logs/dumpsys/(ps|iotop|ss_eionptu|lsof|storaged|procrank|netstate)\\.txt"), kAnyMode},
    {std::regex("/data/logs/touch_panel"),                                          0770},
    {std::regex("/data/logs/touch_panel/tp_log_[0-9_-]+\\.rep"),                    0600},
    {std::regex("/data/logs/audiohal(/audio_dump)?"),                               0700},
    {std::regex("/data/logs/audiohal/audio_dump/record\\.pcm"),                     0600},
    {std::regex("/data/tcpdump/soak\\.pcap[0-2]"),                                  0666},
    {std::regex("/data/brevix/eventTemp"),                                          0777},
    {std::regex(kStaged),                                                           kAnyMode},
    {std::regex(kStaged + "/(eventfile|" + kSource + "|" + kDumped + ")"),          kAnyMode},
};
// clang-format on

void check_trees(std::vector<std::string>& faults) {
    struct stat owner {};
    stat("/data/logs", &owner);
    for (const char* tree : {"/data/logs", "/data/brevix", "/data/tcpdump"}) {
        for (const auto& entry : fs::recursive_directory_iterator(tree)) {
            const std::string path = entry.path();
            struct stat st {};
            lstat(path.c_str(), &st);
            const mode_t mode = st.st_mode & 07777;
            const bool is_known = std::any_of(
                std::begin(kKnownFiles), std::end(kKnownFiles), [&](const known_file& known) {
                    return (known.mode == kAnyMode || known.mode == mode) &&
                           std::regex_match(path, known.path);
                });
            if (!is_known || st.st_uid != owner.st_uid) {
                faults.push_back(android::base::StringPrintf(
                    "%s of user %u with mode %04o is none of the known files", path.c_str(),
                    st.st_uid, mode));
            }
        }
    }
}

void check_complete(const std::string& folder, std::vector<std::string>& faults) {
    const std::vector<std::string> names = inside::names_in(folder);
    static const std::regex source(kSource);
    const auto sources = std::count_if(names.begin(), names.end(), [](const std::string& name) {
        return std::regex_match(name, source);
    });
    if (sources != 1 || !inside::read_file(folder + "/eventfile").ends_with("\n_END\n")) {
        faults.push_back(folder + " has " + std::to_string(sources) +
                         " crash files, or no whole report");
    }
}

// Of each prefix exactly the last ones of the history are kept; staged is what the app has left.
void check_events(const std::vector<std::string>& events, std::vector<std::string>& faults) {
    std::map<std::string, int> of_prefix;
    std::set<std::string> kept;
    std::set<std::string> staged;
    std::for_each(events.rbegin(), events.rend(), [&](const std::string& folder) {
        if (of_prefix[folder.substr(0, folder.find('_'))]++ < kEventsKept) {
            kept.insert(folder);
        }
        staged.insert(kStaging + fs::path(folder).filename().string());
    });
    for (const std::string dir : {"/data/logs/crashlog/", "/data/logs/zqeventlog/", kStaging}) {
        for (const std::string& name : inside::names_in(dir)) {
            if ((dir == kStaging ? staged : kept).erase(dir + name) == 0) {
                faults.push_back(dir + name + " should not be there any more");
            }
            check_complete(dir + name, faults);
        }
    }
    for (const std::string& folder : kept) {
        faults.push_back(folder + " has gone too early");
    }
    if (const size_t count = inside::names_in(kStaging).size(); count > size_t{kEventsKept}) {
        faults.push_back(std::to_string(count) + " entries are staged");
    }
}

void check_captures(std::vector<std::string>& faults) {
    constexpr uintmax_t kLongestLine = 8 << 10;
    constexpr uintmax_t kCeilingBytes = 2147483648;
    if (const size_t count = inside::names_in(kCaptures).size(); count > size_t{kCapturesKept}) {
        faults.push_back(std::to_string(count) + " captures are kept");
    }
    uintmax_t total = 0;
    for (const auto& entry : fs::recursive_directory_iterator(kCaptures)) {
        const uintmax_t bytes = entry.is_regular_file() ? entry.file_size() : 0;
        total += bytes;
        if (entry.path().filename() != "filler" && bytes > (kRotateKbytes << 10) + kLongestLine) {
            faults.push_back(entry.path().string() + " has " + std::to_string(bytes) + " bytes");
        }
    }
    if (total > kCeilingBytes) {
        faults.push_back("the captures have " + std::to_string(total) + " bytes");
    }
}

void check_tools(std::vector<std::string>& faults) {
    for (const std::string& name : inside::names_in("/data/logs/dumpsys")) {
        if (inside::read_file("/data/logs/dumpsys/" + name).empty()) {
            faults.push_back(name + " is empty");
        }
    }
    if (inside::read_file("/data/logs/audiohal/audio_dump/record.pcm") !=
        inside::read_file("/vendor/audiohal/dump/record.pcm")) {
        faults.emplace_back("the audio HAL's dump is not what was copied");
    }
}

}  // namespace

std::vector<std::string> check_files(const std::vector<std::string>& events) {
    std::vector<std::string> faults;
    check_trees(faults);
    check_events(events, faults);
    check_captures(faults);
    check_tools(faults);
    return faults;
}

}  // namespace soak
