#include "tests/soak/device.h"

#include <android-base/stringprintf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>

#include "testing/device.h"

namespace soak {

namespace fs = std::filesystem;

// --- Properties ----------------------------------------------------------------------------------

void set(const std::string& property, const std::string& value) {
    if (!inside::set_property(property, value)) {
        throw std::runtime_error("cannot set " + property);
    }
}

// --- Processes -----------------------------------------------------------------------------------

static long kbytes(const std::string& file, const std::string& name) {
    return std::stol(inside::proc_field(file, name));
}

figures figures_of(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string memory = proc + "/smaps_rollup";
    figures found{inside::names_in(proc + "/task").size(),
                  {},
                  kbytes(memory, "Pss"),
                  kbytes(memory, "Private_Clean") + kbytes(memory, "Private_Dirty"),
                  kbytes(memory, "Anonymous")};
    for (const std::string& descriptor : inside::names_in(proc + "/fd")) {
        found.descriptors.push_back(fs::read_symlink(proc + "/fd/" + descriptor));
    }
    std::sort(found.descriptors.begin(), found.descriptors.end());
    return found;
}

// --- Files ---------------------------------------------------------------------------------------

// A last line without its end is left for the next time.
std::vector<std::string> growing_file::read() {
    std::vector<std::string> lines;
    std::ifstream in(path_, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset_));
    for (std::string line; std::getline(in, line) && !in.eof();) {
        offset_ += line.size() + 1;
        lines.push_back(line);
    }
    return lines;
}

namespace {

constexpr size_t kEventsKept = 10;
constexpr uintmax_t kCeilingBytes = 2147483648;

constexpr int kAnyMode = -1;

struct known_file {
    std::string path;  // a regular expression
    int mode;
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
    {"/data/logs/(crashlog|zqeventlog|general_log)",           0777},
    {kEvent,                                                   0777},
    {kEvent + "/eventfile",                                    0600},
    {kEvent + "/" + kSource,                                   0777},
    {kEvent + "/" + kDumped,                                   kAnyMode},
    {"/data/logs/history\\.event",                             0600},
    {"/data/logs/sf\\.log",                                    kAnyMode},
    {kCapture,                                                 0777},
    {kCapture + "/(android|event|radio|kernel)\\.log(\\.[1-3])?", 0600},
    {kCapture + "/filler",                                     kAnyMode},
    {"/data/logs/dumpsys",                                     0770},
    {"/data/logs/dumpsys/(ps|iotop|ss_eionptu|lsof|storaged|procrank|netstate)\\.txt", kAnyMode},
    {"/data/logs/touch_panel",                                 0770},
    {"/data/logs/touch_panel/tp_log_[0-9_-]+\\.rep",           0600},
    {"/data/logs/audiohal(/audio_dump)?",                      0700},
    {"/data/logs/audiohal/audio_dump/record\\.pcm",            0600},
    {"/data/tcpdump/soak\\.pcap[0-2]",                         0666},
    {"/data/brevix/(queue|witness)\\.log",                     kAnyMode},
    {"/data/brevix/eventTemp",                                 0777},
    {kStaged,                                                  kAnyMode},
    {kStaged + "/(eventfile|" + kSource + "|" + kDumped + ")", kAnyMode},
};
// clang-format on

void check_known(const std::string& path, uid_t owner, std::vector<std::string>& faults) {
    static const std::vector<std::regex> patterns = [] {
        std::vector<std::regex> all;
        for (const known_file& known : kKnownFiles) {
            all.emplace_back(known.path, std::regex::optimize);
        }
        return all;
    }();
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || st.st_uid != owner) {
        faults.push_back(path + " is of user " + std::to_string(st.st_uid));
    }
    const auto found = std::find_if(patterns.begin(), patterns.end(), [&](const std::regex& each) {
        return std::regex_match(path, each);
    });
    if (found == patterns.end()) {
        faults.push_back(path + " should not be there");
        return;
    }
    const int wanted = kKnownFiles[found - patterns.begin()].mode;
    const int mode = static_cast<int>(st.st_mode & 07777);
    if (wanted != kAnyMode && mode != wanted) {
        faults.push_back(path +
                         android::base::StringPrintf(" has mode %04o, not %04o", mode, wanted));
    }
}

constexpr const char* kTrees[] = {"/data/logs", "/data/brevix", "/data/tcpdump"};

void check_trees(std::vector<std::string>& faults) {
    struct stat st {};
    stat("/data/logs", &st);
    for (const char* tree : kTrees) {
        for (const auto& entry : fs::recursive_directory_iterator(tree)) {
            check_known(entry.path(), st.st_uid, faults);
        }
    }
    for (const char* dir : {"/data/system/dropbox", "/dev/__properties__"}) {
        for (const std::string& name : inside::names_in(dir)) {
            if (name.ends_with(".tmp") || name.starts_with(".new.")) {
                faults.push_back(std::string(dir) + "/" + name + " is left over");
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
    if (!inside::read_file(folder + "/eventfile").ends_with("\n_END\n")) {
        faults.push_back(folder + " has no whole report");
    }
    if (sources != 1) {
        faults.push_back(folder + " holds " + std::to_string(sources) + " crash files");
    }
}

// Of each prefix exactly the last ones of the history.
void check_events(const std::vector<std::string>& events, std::vector<std::string>& faults) {
    std::map<std::string, std::vector<std::string>> by_prefix;
    for (const std::string& folder : events) {
        by_prefix[folder.substr(0, folder.find('_'))].push_back(folder);
    }
    std::set<std::string> kept;
    for (const auto& [prefix, folders] : by_prefix) {
        kept.insert(folders.end() - static_cast<long>(std::min(folders.size(), kEventsKept)),
                    folders.end());
    }
    for (const char* category : {"/data/logs/crashlog/", "/data/logs/zqeventlog/"}) {
        for (const std::string& name : inside::names_in(category)) {
            if (kept.erase(category + name) == 0) {
                faults.push_back(category + name + " is none of the last " +
                                 std::to_string(kEventsKept));
            }
            check_complete(category + name, faults);
        }
    }
    for (const std::string& folder : kept) {
        faults.push_back(folder + " has gone too early");
    }
}

void check_staging(const std::vector<std::string>& events, std::vector<std::string>& faults) {
    std::set<std::string> known;
    for (const std::string& folder : events) {
        known.insert(fs::path(folder).filename());
    }
    const std::vector<std::string> names = inside::names_in(kStaging);
    if (names.size() > kEventsKept) {
        faults.push_back(std::to_string(names.size()) + " entries in " + kStaging);
    }
    for (const std::string& name : names) {
        if (known.count(name) == 0) {
            faults.push_back(kStaging + name + " is of no event");
        }
        check_complete(kStaging + name, faults);
    }
}

void check_captures(std::vector<std::string>& faults) {
    constexpr uintmax_t kLongestLine = 8 << 10;
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
    for (const char* name :
         {"ps", "iotop", "ss_eionptu", "lsof", "storaged", "procrank", "netstate"}) {
        const std::string dump = std::string("/data/logs/dumpsys/") + name + ".txt";
        if (inside::read_file(dump).empty()) {
            faults.push_back(dump + " is empty");
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
    check_staging(events, faults);
    check_captures(faults);
    check_tools(faults);
    return faults;
}

size_t count_files() {
    size_t count = 0;
    for (const char* tree : kTrees) {
        for (const auto& entry : fs::recursive_directory_iterator(tree)) {
            count += entry.is_regular_file() ? 1 : 0;
        }
    }
    return count;
}

int count_of_capture(const std::string& path) {
    return std::stoi(path.substr(path.find("ZQLog_") + strlen("ZQLog_")));
}

std::string newest_capture() {
    std::string newest;
    for (const std::string& name : inside::names_in(kCaptures)) {
        if (newest.empty() || count_of_capture(name) > count_of_capture(newest)) {
            newest = kCaptures + name;
        }
    }
    return newest;
}

}  // namespace soak
