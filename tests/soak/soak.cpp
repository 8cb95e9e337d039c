// soak MINUTES SEED: as the command of a booted device, works the daemon and its tools with actions
// drawn at random, brings all to rest now and then, and compares what the daemon has made of it
// with what it was given. Ends with 1 when there is a fault.

#include <android-base/strings.h>
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <iostream>
#include <random>
#include <stdexcept>

#include "host/log/store.h"
#include "testing/device.h"
#include "tests/soak/device.h"
#include "tests/soak/steering.h"

namespace soak {

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr unsigned kActionsBetweenRests = 100;
// Each of several watchers at once has a heap of its own, of some 25 kB, which glibc keeps for
// later threads: up to 16 of them on two processors.
constexpr long kGrowthKbytes = 512;
constexpr uintmax_t kFillerBytes = 900 << 20;  // three of them are beyond the ceiling

// --- Tables --------------------------------------------------------------------------------------

// Small files, so that all that rotates does.
const struct {
    const char* property;
    std::string value;
} kSettings[] = {
    {"persist.service.brevix.gl.num", std::to_string(kCapturesKept)},
    {"persist.sys.apklogfs.size", std::to_string(kRotatedFiles)},
    {"persist.sys.apklogfs.rotate_kbytes", std::to_string(kRotateKbytes)},
    {"persist.sys.eventlogfs.size", std::to_string(kRotatedFiles)},
    {"persist.sys.eventlogfs.rotate_kbytes", std::to_string(kRotateKbytes)},
    {"persist.sys.radiologfs.size", std::to_string(kRotatedFiles)},
    {"persist.sys.radiologfs.rotate_kbytes", std::to_string(kRotateKbytes)},
    {"persist.sys.kmsglogfs.size", std::to_string(kRotatedFiles)},
    {"persist.sys.kmsglogfs.rotate_kbytes", std::to_string(kRotateKbytes)},
    {"sys.tcpdump.size", "1," + std::to_string(kPacketFiles)},
    {"sys.tcpdump.file", "soak"},
};

// The rare ones take the daemon a second and more.
// clang-format off
constexpr crash_kind kKinds[] = {
    {"watchdog",          1, "CRASH",  "UIWDT",     1, "crash watchdog"},
    {"pre_watchdog",      1, "",       "",          1, "crash pre_watchdog"},
    kAnr,
    {"app crash",         6, "CRASH",  "JAVACRASH", 1, "crash app_crash"},
    {"system crash",      1, "CRASH",  "JAVACRASH", 1, "crash system_crash"},
    {"tombstone",         6, "CRASH",  "TOMBSTONE", 1, "crash tombstone"},
    // Created in place and written: an event each.
    {"written tombstone", 2, "CRASH",  "TOMBSTONE", 2,
     "tombstone=/data/tombstones/tombstone_w$serial; echo written >$tombstone; echo $tombstone"},
    kAppEvent,
    {"boring name",       2, "",       "",          1, "echo x | crash file data_app_wtf@$serial.txt -"},
    {"misnamed event",    1, "",       "",          1, "echo x | crash file ZQEvent_a_b_c@$serial.txt -"},
    {"lone companion",    1, "",       "",          1, "echo x | crash file tombstone_w$serial.pb -"},
    {"temporary file",    1, "",       "",          1, "echo x | crash file tombstone_w$serial.tmp -"},
};
// clang-format on

constexpr const char* kPackages[] = {"com.example.mail", "com.example.maps", "org.example"};

struct tool {
    const char* request;
    const char* service;
};

constexpr tool kDumpInfo = {"sys.brevix.dumplog.enable", "zq_dump_info"};
constexpr tool kTouchpanel = {"sys.brevix.touchpanel.fetch", "zq_touchpanel"};
constexpr tool kAudioDump = {"sys.brevix.mtk.audio.dump", "zq_audio_dump"};
constexpr tool kTcpdump = {"sys.tcpdump", "zq_tcpdump"};

// In the place of the activity manager: notes what the app finds at a notice.
constexpr const char* kWitness = R"sh(for word in "$@"; do
    [ "$previous" = path ] && folder=$word
    previous=$word
done
for file in "$folder"/*@* "$folder"/tombstone*; do
    [ -e "$file" ] && id="${file##*/} $(grep -h -m 1 "^Timestamp: " "$file")"
done
staged=differs
/usr/bin/diff -rq "$folder" "/data/brevix/eventTemp/${folder##*/}" >/dev/null && staged=same
echo "$folder|$id|$(tail -n 1 "$folder/eventfile")|$staged" >>/data/brevix/witness.log
exec /system/build/system/bin/am "$@")sh";

// --- The session ---------------------------------------------------------------------------------

class session {
  public:
    session(double minutes, unsigned seed);

    // Returns the exit status.
    int run();

  private:
    struct action {
        const char* name;
        unsigned weight;
        void (session::*play)();
    };
    static const action kActions[];

    // All that is drawn is drawn here, and nothing is drawn that depends on how fast anything went:
    // a seed always gives the same actions.
    unsigned draw(unsigned choices) { return static_cast<unsigned>(random_() % choices); }
    template <typename Row, size_t Count>
    const Row& draw_row(const Row (&rows)[Count]);
    bool draw_switch() { return draw(4) != 0; }  // rather on than off
    void pause(unsigned max_ms) { poll(nullptr, 0, static_cast<int>(draw(max_ms))); }

    void deliver_one();
    void deliver(unsigned count);
    void burst() { deliver(3 + draw(12)); }
    void flurry(const std::string& property);

    void capture_switch() { steering_.switch_capture(draw_switch()); }
    void capture_flurry();
    void capture_filled();
    void detection_switch() { steering_.switch_detection(draw_switch()); }
    void detection_pulse();
    void detection_flurry();
    void category_switch();
    void category_flurry();
    void staging_taken();

    void request(const tool& one);
    void await(const tool& one);
    void dump_info() { request(kDumpInfo); }
    void touchpanel() { request(kTouchpanel); }
    void audio_dump() { request(kAudioDump); }
    void audio_cmd();
    void tcpdump_switch();
    void packets();
    void log_flood();

    void boot();
    void play(const action& one);
    void play_some();
    void rest();
    void stop_captures();
    std::vector<inside::process> strays();
    size_t captures_made();
    void check_memory();
    void check_process();
    void check_daemon();
    void add_faults(const std::vector<std::string>& found) {
        faults_.insert(faults_.end(), found.begin(), found.end());
    }
    void check();
    void summarise();

    const steady_clock::time_point start_ = steady_clock::now();
    const steady_clock::time_point end_;
    const unsigned seed_;
    std::mt19937 random_;
    std::ofstream diary_{std::string(kFolder) + "actions"};
    steering steering_;
    pid_t daemon_ = -1;
    bool can_record_ = false;  // Debian's tcpdump needs users
    bool is_recording_ = false;
    size_t recordings_ = 0;
    size_t taken_ = 0;
    size_t most_zombies_ = 0;
    figures at_start_{};
    figures warm_{};
    figures last_{};
    std::map<std::string, size_t> played_;
    std::vector<std::string> faults_;
};

session::session(double minutes, unsigned seed)
    : end_(start_ + std::chrono::milliseconds(static_cast<long>(minutes * 60000))),
      seed_(seed),
      random_(seed) {}

template <typename Row, size_t Count>
const Row& session::draw_row(const Row (&rows)[Count]) {
    unsigned sum = 0;
    for (const Row& row : rows) {
        sum += row.weight;
    }
    unsigned left = draw(sum);
    const Row* row = rows;
    for (; left >= row->weight; ++row) {
        left -= row->weight;
    }
    return *row;
}

// --- Events --------------------------------------------------------------------------------------

void session::deliver_one() {
    const crash_kind& kind = draw_row(kKinds);
    diary_ << "    " << steering_.deliver(kind, kPackages[draw(std::size(kPackages))]) << std::endl;
}

void session::deliver(unsigned count) {
    for (; count > 0; --count) {
        deliver_one();
    }
}

void session::flurry(const std::string& property) {
    steering_.flurry(property, 2 + draw(6), [&] {
        pause(15);
        deliver(draw(2));
    });
}

void session::detection_pulse() {
    const bool was_on = steering_.is_on(kDetectionSwitch);
    steering_.start_detection_switch(!was_on);
    deliver(draw(4));
    steering_.switch_detection(was_on);
}

void session::detection_flurry() {
    flurry(kDetectionSwitch);
    steering_.switch_detection(draw_switch());
}

void session::category_switch() {
    const auto& one = kCategorySwitches[draw(std::size(kCategorySwitches))];
    if (draw(2) == 0) {
        steering_.drain();  // else what still waits is in doubt
    }
    steering_.switch_category(one, draw_switch());
}

void session::category_flurry() {
    const auto& one = kCategorySwitches[draw(std::size(kCategorySwitches))];
    flurry(one.property);
    steering_.switch_category(one, draw_switch());
}

// As the app does with what it has been told of.
void session::staging_taken() {
    for (const auto& folders = steering_.events().folders(); taken_ < folders.size(); ++taken_) {
        std::error_code error;  // the daemon may be removing it, too
        fs::remove_all(kStaging + fs::path(folders[taken_]).filename().string(), error);
    }
}

// --- Captures ------------------------------------------------------------------------------------

void session::capture_flurry() {
    flurry(kCaptureSwitch);
    steering_.switch_capture(draw_switch());
}

// What logs would fill in weeks: the next capture has to make room.
void session::capture_filled() {
    const std::string capture = newest_capture();
    const std::string filler = capture + "/filler";
    struct stat owner {};
    inside::write_file(filler, "");
    fs::resize_file(filler, kFillerBytes);
    if (stat(capture.c_str(), &owner) != 0 ||
        chown(filler.c_str(), owner.st_uid, owner.st_gid) != 0) {
        throw std::runtime_error("cannot hand over " + filler);
    }
}

// Short enough for the log's readers to come along.
void session::log_flood() {
    const log_id_t buffer = kStoredBuffers[draw(std::size(kStoredBuffers))];
    const std::string text(20 + draw(200), 'x');
    for (unsigned left = 200 + draw(2000); left > 0; --left) {
        write_log(buffer, "flood", text);
    }
    steering_.catch_up_with_log();
}

// --- Tools ---------------------------------------------------------------------------------------

void session::await(const tool& one) {
    const auto is_done = [&] {
        return inside::property(one.request, "") != "1" &&
               inside::property(std::string("init.svc.") + one.service, "") != "running";
    };
    steering_.expect(one.service, is_done, kProperties);
}

void session::request(const tool& one) {
    await(one);
    set(one.request, "1");
}

void session::audio_cmd() {
    constexpr const char* kStatus = "sys.brevix.mkt.audio.cmd";
    set(kStatus, "");
    const inside::outcome outcome =
        inside::run("zq_brevix audio_cmd 5:" + std::to_string(draw(1000)));
    if (outcome.exit_status != 0 || inside::property(kStatus, "") != "0") {
        faults_.push_back("audio_cmd ended with " + std::to_string(outcome.exit_status) +
                          " and status '" + inside::property(kStatus, "") + "'");
    }
}

void session::tcpdump_switch() {
    if (!can_record_) {
        return;
    }
    is_recording_ = !is_recording_;
    if (is_recording_) {
        request(kTcpdump);
        ++recordings_;
        const std::string state = std::string("init.svc.") + kTcpdump.service;
        steering_.expect(
            state, [&] { return inside::property(state, "") == "running"; }, kProperties);
        return;
    }
    steering_.expect("the recording", [&] {
        return steering_.log().count("ZQ_TCPDUMP: start recording") == recordings_;
    });
    set(kTcpdump.request, "0");
    await(kTcpdump);
}

void session::packets() {
    const android::base::unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in nobody{};
    nobody.sin_family = AF_INET;
    nobody.sin_port = htons(9);
    nobody.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string text(100, 'x');
    for (unsigned left = 500 + draw(3000); left > 0; --left) {
        // Every other one meets the refusal of the one before.
        sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&nobody),
               sizeof(nobody));
    }
}

// --- Actions -------------------------------------------------------------------------------------

// clang-format off
const session::action session::kActions[] = {
    {"delivery",         40, &session::deliver_one},
    {"burst",             6, &session::burst},
    {"capture switch",    8, &session::capture_switch},
    {"capture flurry",    2, &session::capture_flurry},
    {"capture filled",    2, &session::capture_filled},
    {"detection switch",  8, &session::detection_switch},
    {"detection pulse",   5, &session::detection_pulse},
    {"detection flurry",  2, &session::detection_flurry},
    {"category switch",   8, &session::category_switch},
    {"category flurry",   2, &session::category_flurry},
    {"staging taken",     3, &session::staging_taken},
    {"dump_info",         1, &session::dump_info},
    {"touchpanel",        1, &session::touchpanel},
    {"audio_dump",        2, &session::audio_dump},
    {"audio_cmd",         2, &session::audio_cmd},
    {"tcpdump switch",    3, &session::tcpdump_switch},
    {"packets",           3, &session::packets},
    {"log flood",         6, &session::log_flood},
};
// clang-format on

void session::play(const action& one) {
    diary_ << one.name << std::endl;
    (this->*one.play)();
    ++played_[one.name];
    size_t zombies = 0;
    for (const inside::process& each : inside::processes()) {
        zombies += each.parent == daemon_ && each.has_ended ? 1 : 0;
    }
    most_zombies_ = std::max(most_zombies_, zombies);
    constexpr unsigned kPauses[] = {1, 30, 300};
    pause(kPauses[draw(std::size(kPauses))]);
}

void session::play_some() {
    for (unsigned left = kActionsBetweenRests; left > 0 && steady_clock::now() < end_; --left) {
        play(draw_row(kActions));
    }
}

// --- Rest ----------------------------------------------------------------------------------------

void session::boot() {
    inside::write_program("/system/bin/am", kWitness);
    inside::write_file("/vendor/audiohal/dump/record.pcm", std::string(1 << 20, 'p'));
    // Some of the settings are its upgrade check's, too, at the daemon's first start.
    steering_.expect(
        "the upgrade check",
        [] { return inside::property("persist.service.brevix.version", "") == "1"; }, kProperties);
    for (const auto& each : kSettings) {
        set(each.property, each.value);
    }
    struct stat owner {};
    stat("/data/tcpdump", &owner);
    can_record_ = owner.st_uid != 0;
    if (!can_record_) {
        std::cout << "no user for tcpdump here: packet captures are left out\n";
    }
    steering_.expect("the daemon", [&] {
        for (const inside::process& each : inside::processes()) {
            daemon_ = each.name == "zq_brevix" && each.parent == 1 ? each.pid : daemon_;
        }
        return daemon_ > 0;
    });
}

void session::stop_captures() {
    steering_.switch_capture(false);
    steering_.expect("the captures' end", [&] {
        const std::vector<inside::process> all = inside::processes();
        return std::none_of(all.begin(), all.end(), [&](const inside::process& each) {
            return each.parent == daemon_ && !each.has_ended;
        });
    });
}

std::vector<inside::process> session::strays() {
    std::vector<inside::process> found = inside::processes();
    std::erase_if(found, [&](const inside::process& each) {
        return each.pid == 1 || each.pid == getpid() || each.pid == steering_.log().pid() ||
               each.pid == daemon_ || each.name == "klogd";
    });
    return found;
}

// Capture off, all detected, nothing under way, the last event a plain one.
void session::rest() {
    if (is_recording_) {
        tcpdump_switch();
    }
    for (const tool& each : {kDumpInfo, kTouchpanel, kAudioDump}) {
        await(each);
    }
    steering_.switch_detection(true);
    for (const auto& each : kCategorySwitches) {
        steering_.switch_category(each, true);
    }
    stop_captures();
    steering_.switch_capture(true);  // makes room, in which nobody writes any more
    stop_captures();
    // Collects the children that have ended.
    steering_.deliver(kAppEvent, kPackages[0]);
    steering_.drain();
    inside::wait_until(kFolder, [&] { return strays().empty(); });
}

// Only what is the daemon's alone: how much of Pss and of the private memory is counted for it
// changes with everybody else on the machine who has the same files mapped.
void session::check_memory() {
    if (last_.anonymous_kb > warm_.anonymous_kb + kGrowthKbytes) {
        faults_.push_back("anonymous memory has grown from " + std::to_string(warm_.anonymous_kb) +
                          " to " + std::to_string(last_.anonymous_kb) + " kB");
    }
}

// A capture is refused when a stopped one is to go, but still gets files from its logcat.
size_t session::captures_made() {
    return steering_.log().count("ZQ_GENERAL_LOG: start capturing") -
           steering_.log().count("ZQ_GENERAL_LOG: remove old file failed!");
}

void session::check_process() {
    const std::vector<std::string> history = inside::read_lines(ledger::kHistory);
    const auto is_start = [](const std::string& line) { return line.starts_with("REBOOT"); };
    const auto starts = std::count_if(history.begin(), history.end(), is_start);
    if (starts != 1 || kill(daemon_, 0) != 0) {
        faults_.push_back("the daemon of the start has ended; starts: " + std::to_string(starts));
    }
}

void session::check_daemon() {
    if (at_start_.threads != last_.threads) {
        faults_.push_back(std::to_string(last_.threads) + " threads");
    }
    if (at_start_.descriptors != last_.descriptors) {
        faults_.push_back("descriptors: " + android::base::Join(last_.descriptors, ' '));
    }
    for (const inside::process& each : strays()) {
        faults_.push_back("process " + each.name + (each.has_ended ? " (ended)" : "") +
                          (each.parent == daemon_ ? " of the daemon" : "") + " is left");
    }
    const size_t captures = captures_made();
    if (const std::string newest = newest_capture();
        size_t(count_of_capture(newest)) + 1 != captures) {
        faults_.push_back("the newest of " + std::to_string(captures) + " captures is " + newest);
    }
}

void session::check() {
    last_ = figures_of(daemon_);
    const bool is_first = warm_.threads == 0;
    if (is_first) {
        warm_ = last_;
    }
    check_memory();
    check_process();
    check_daemon();
    const std::vector<std::string>& folders = steering_.events().folders();
    add_faults(steering_.events().check());
    add_faults(check_files(folders));
    const std::chrono::duration<double, std::ratio<60>> elapsed = steady_clock::now() - start_;
    printf("%5.1f min  %-4s  %5zu events  Pss %ld  private %ld  anonymous %ld kB\n",
           elapsed.count(), is_first ? "warm" : "rest", folders.size(), last_.pss_kb,
           last_.private_kb, last_.anonymous_kb);
    fflush(stdout);
}

// --- Report --------------------------------------------------------------------------------------

void print_counts(const char* title, const std::map<std::string, size_t>& counts) {
    std::cout << title;
    for (const auto& [name, count] : counts) {
        std::cout << (name == counts.begin()->first ? ": " : ", ") << name << " " << count;
    }
    std::cout << "\n";
}

void session::summarise() {
    print_counts("actions", played_);
    print_counts("files delivered", steering_.delivered());
    std::cout << "events: " << steering_.events().summary() << "\n"
              << "threads " << at_start_.threads << " -> " << last_.threads << ", descriptors "
              << at_start_.descriptors.size() << " -> " << last_.descriptors.size() << "; Pss "
              << warm_.pss_kb << " -> " << last_.pss_kb << " kB, private " << warm_.private_kb
              << " -> " << last_.private_kb << " kB, anonymous " << warm_.anonymous_kb << " -> "
              << last_.anonymous_kb << " kB (at most " << kGrowthKbytes << " more)\n"
              << "zombies: at most " << most_zombies_ << " under way; captures: " << captures_made()
              << " made, " << steering_.log().count("ZQ_GENERAL_LOG: remove old file failed!")
              << " refused; files: " << count_files() << " at the end\n";
    for (const std::string& fault : faults_) {
        std::cout << "FAULT: " << fault << "\n";
    }
    std::cout << (faults_.empty() ? "no fault" : "faults") << ", seed " << seed_ << "\n";
}

int session::run() {
    std::cout << "seed " << seed_ << std::endl;
    try {
        boot();
        rest();
        at_start_ = figures_of(daemon_);
        for (const action& each : kActions) {
            play(each);
        }
        do {
            play_some();
            rest();
            check();
        } while (faults_.empty() && steady_clock::now() < end_);
    } catch (const std::exception& error) {
        faults_.emplace_back(error.what());
        check_process();
        add_faults(steering_.events().check());
    }
    summarise();
    return faults_.empty() ? 0 : 1;
}

}  // namespace

}  // namespace soak

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: soak MINUTES SEED\n";
        return 1;
    }
    std::filesystem::create_directories(soak::kFolder);
    return soak::session(std::stod(argv[1]), static_cast<unsigned>(std::stoul(argv[2]))).run();
}
