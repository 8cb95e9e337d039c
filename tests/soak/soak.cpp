// SPDX-License-Identifier: Apache-2.0

// soak MINUTES SEED: as the command of a booted device, works the daemon and its tools with actions
// drawn at random, brings all to rest now and then, and compares what the daemon has made of it
// with what it was given. Ends with 1 when there is a fault.

#include <android-base/strings.h>
#include <signal.h>
#include <sys/stat.h>

#include <iostream>
#include <random>

#include "testing/device.h"
#include "tests/soak/files.h"
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

// The rare ones take the daemon a second and more.
// clang-format off
constexpr crash_kind kKinds[] = {
    {"watchdog",          1, "CRASH", "UIWDT",     "/data/system/dropbox/system_server_watchdog@#.txt"},
    {"pre_watchdog",      1, "",      "",          "/data/system/dropbox/system_server_pre_watchdog@#.txt"},
    kAnr,
    {"app crash",         6, "CRASH", "JAVACRASH", "/data/system/dropbox/data_app_crash@#.txt"},
    {"system crash",      1, "CRASH", "JAVACRASH", "/data/system/dropbox/system_server_crash@#.txt"},
    {"tombstone",         6, "CRASH", "TOMBSTONE", "/data/tombstones/tombstone_#"},
    {"written tombstone", 2, "CRASH", "TOMBSTONE", "/data/tombstones/tombstone_written#"},
    kAppEvent,
    {"boring name",       2, "",      "",          "/data/system/dropbox/data_app_wtf@#.txt"},
    {"misnamed event",    1, "",      "",          "/data/system/dropbox/ZQEvent_a_b_c@#.txt"},
    {"lone companion",    1, "",      "",          "/data/tombstones/tombstone_#.pb"},
    {"temporary file",    1, "",      "",          "/data/tombstones/tombstone_#.tmp"},
};
// clang-format on

constexpr const char* kPackages[] = {"com.example.mail", "com.example.maps", "org.example"};

const struct {
    std::string property;
    unsigned weight;
} kSwitches[] = {{kDetectionSwitch, 2},
                 {kCaptureSwitch, 2},
                 {kCategories.begin()->first, 1},
                 {kCategories.rbegin()->first, 1}};

struct tool {
    const char* request;
    const char* service;
};

constexpr tool kDumpInfo = {"sys.brevix.dumplog.enable", "zq_dump_info"};
constexpr tool kTouchpanel = {"sys.brevix.touchpanel.fetch", "zq_touchpanel"};
constexpr tool kAudioDump = {"sys.brevix.mtk.audio.dump", "zq_audio_dump"};
constexpr tool kTcpdump = {"sys.tcpdump", "zq_tcpdump"};

struct figures {
    size_t threads = 0;
    std::vector<std::string> descriptors;  // what they stand for, sorted
    long anonymous_kb = 0;  // what is the daemon's alone, whoever else maps the same files
};

void print_counts(const char* title, const std::map<std::string, size_t>& counts) {
    for (const auto& [name, count] : counts) {
        std::cout << (name == counts.begin()->first ? title : ", ") << name << " " << count;
    }
    std::cout << "\n";
}

// --- The session ---------------------------------------------------------------------------------

class session {
  public:
    session(double minutes, unsigned seed)
        : end_(start_ + std::chrono::milliseconds(static_cast<long>(minutes * 60000))),
          seed_(seed),
          random_(seed) {}

    // Returns the exit status.
    int run();

  private:
    struct action {
        const char* name;
        unsigned weight;
        void (*play)(session& at);
    };
    static const std::vector<action> kActions;

    // All that is drawn is drawn here, and nothing is drawn that depends on how fast anything went:
    // a seed always gives the same actions.
    unsigned draw(unsigned choices) { return static_cast<unsigned>(random_() % choices); }
    bool draw_switch() { return draw(4) != 0; }  // rather on than off
    void pause(unsigned max_ms) { poll(nullptr, 0, static_cast<int>(draw(max_ms))); }

    const auto& draw_row(const auto& rows) {
        unsigned sum = 0;
        for (const auto& row : rows) {
            sum += row.weight;
        }
        unsigned left = draw(sum);
        auto row = std::begin(rows);
        for (; left >= row->weight; ++row) {
            left -= row->weight;
        }
        return *row;
    }

    void deliver(unsigned count) {
        for (; count > 0; --count) {
            const crash_kind& kind = draw_row(kKinds);
            steering_.deliver(kind, kPackages[draw(std::size(kPackages))]);
        }
    }

    void switch_one() {
        const std::string& property = draw_row(kSwitches).property;
        if (draw(2) == 0) {
            steering_.drain();  // else what still waits is in doubt
        }
        steering_.switch_to(property, draw_switch());
    }
    void flurry() {
        const std::string& property = draw_row(kSwitches).property;
        steering_.flurry(property, 2 + draw(6), [&] {
            pause(15);
            deliver(draw(2));
        });
        steering_.switch_to(property, draw_switch());
    }
    void pulse() {
        const bool was_on = steering_.is_on(kDetectionSwitch);
        steering_.set_switch(kDetectionSwitch, !was_on);
        deliver(draw(4));
        steering_.switch_to(kDetectionSwitch, was_on);
    }

    // As the app does with what it has been told of.
    void take_staged() {
        for (const auto& folders = steering_.events.folders(); taken_ < folders.size(); ++taken_) {
            std::error_code error;  // the daemon may be removing it, too
            fs::remove_all(kStaging + fs::path(folders[taken_]).filename().string(), error);
        }
    }

    // What logs would fill in weeks: the next capture has to make room.
    void fill_capture() {
        const std::vector<std::string> captures = inside::names_in(kCaptures);
        const std::string filler = kCaptures + captures[draw(99) % captures.size()] + "/filler";
        struct stat owner {};
        stat(kCaptures, &owner);
        inside::write_file(filler, "");
        fs::resize_file(filler, kFillerBytes);
        if (chown(filler.c_str(), owner.st_uid, owner.st_gid) != 0) {
            throw std::runtime_error("cannot hand over " + filler);
        }
    }

    void flood_log() {
        const log_id_t buffer = kStoredBuffers[draw(std::size(kStoredBuffers))];
        const std::string text(20 + draw(200), 'x');
        for (unsigned left = 200 + draw(2000); left > 0; --left) {
            append_log_entry(buffer, log_entry_now(ANDROID_LOG_INFO, "flood", text.c_str()));
        }
        steering_.log.read();
    }

    // --- Tools ---

    void await(const tool& one) {
        const std::string state = std::string("init.svc.") + one.service;
        const auto is_done = [&] {
            return inside::property(one.request) != "1" && inside::property(state) != "running";
        };
        steering_.expect(one.service, is_done, kProperties);
    }
    void request(const tool& one) {
        await(one);
        set(one.request, "1");
    }
    void command_audio() {
        constexpr const char* kStatus = "sys.brevix.mkt.audio.cmd";
        set(kStatus, "");
        inside::run("zq_brevix audio_cmd 5:" + std::to_string(draw(1000)));
        if (inside::property(kStatus) != "0") {
            faults_.push_back("audio_cmd left the status " + inside::property(kStatus));
        }
    }
    void switch_recording() {
        if (can_record_ && !is_recording_) {
            request(kTcpdump);
            ++recordings_;
            steering_.expect("the recording", [&] {
                return steering_.log.count("ZQ_TCPDUMP: start recording") == recordings_;
            });
        } else if (is_recording_) {
            set(kTcpdump.request, "0");
            await(kTcpdump);
        }
        is_recording_ = can_record_ && !is_recording_;
    }
    void send_packets() {
        inside::run("/usr/bin/bash -c 'for ((i = " + std::to_string(500 + draw(3000)) +
                    "; i > 0; --i)); do echo packet >/dev/udp/127.0.0.1/9; done'");
    }

    // --- From rest to rest ---

    void boot() {
        inside::write_program("/system/bin/am", kWitness);
        fs::permissions("/data/notices", fs::perms(0666));
        inside::write_file("/vendor/audiohal/dump/record.pcm", std::string(1 << 20, 'p'));
        // Some of the settings are its upgrade check's, too, at the daemon's first start.
        steering_.expect(
            "the upgrade check",
            [] { return inside::property("persist.service.brevix.version") == "1"; }, kProperties);
        // Small files, so that all that rotates does.
        for (const std::string channel : {"apk", "event", "radio", "kmsg"}) {
            set("persist.sys." + channel + "logfs.size", std::to_string(kRotatedFiles));
            set("persist.sys." + channel + "logfs.rotate_kbytes", std::to_string(kRotateKbytes));
        }
        set("persist.service.brevix.gl.num", std::to_string(kCapturesKept));
        set("sys.tcpdump.size", "1,3");
        set("sys.tcpdump.file", "soak");
        struct stat owner {};
        stat("/data/tcpdump", &owner);
        can_record_ = owner.st_uid != 0;
        if (!can_record_) {
            std::cout << "no user for tcpdump here: packet captures are left out\n";
        }
        for (const inside::process& each : inside::processes()) {
            steering_.daemon =
                each.name == "zq_brevix" && each.parent == 1 ? each.pid : steering_.daemon;
        }
    }

    void play(const action& one) {
        constexpr unsigned kPauses[] = {1, 30, 300};
        one.play(*this);
        ++played_[one.name];
        pause(kPauses[draw(std::size(kPauses))]);
    }

    void stop_captures() {
        steering_.switch_to(kCaptureSwitch, false);
        steering_.expect("the captures' end", [&] {
            const std::vector<inside::process> all = inside::processes();
            return std::none_of(all.begin(), all.end(), [&](const inside::process& each) {
                return each.parent == steering_.daemon && !each.has_ended;
            });
        });
    }

    std::vector<inside::process> strays() {
        std::vector<inside::process> found = inside::processes();
        std::erase_if(found, [&](const inside::process& each) {
            return each.pid == 1 || each.pid == getpid() || each.pid == steering_.daemon ||
                   each.name == "klogd";
        });
        return found;
    }

    // Capture off, all detected, nothing under way, the last event a plain one.
    void rest() {
        if (is_recording_) {
            switch_recording();
        }
        for (const tool& each : {kDumpInfo, kTouchpanel, kAudioDump}) {
            await(each);
        }
        for (const auto& each : kSwitches) {
            steering_.switch_to(each.property, true);
        }
        stop_captures();
        steering_.switch_to(kCaptureSwitch, true);  // makes room, in which nobody writes any more
        stop_captures();
        // Collects the children that have ended.
        steering_.deliver(kAppEvent, kPackages[0]);
        steering_.drain();
        inside::wait_until("/data", [&] { return strays().empty(); });
    }

    figures take_figures() {
        const pid_t pid = steering_.daemon;
        figures found{inside::names_in(inside::proc(pid, "task")).size(),
                      {},
                      inside::proc_number(inside::proc(pid, "smaps_rollup"), "Anonymous")};
        for (const std::string& fd : inside::names_in(inside::proc(pid, "fd"))) {
            found.descriptors.push_back(fs::read_symlink(inside::proc(pid, "fd/" + fd)));
        }
        std::sort(found.descriptors.begin(), found.descriptors.end());
        return found;
    }

    void check_process() {
        const std::vector<std::string> history = inside::read_lines("/data/logs/history.event");
        const auto starts =
            std::count_if(history.begin(), history.end(),
                          [](const std::string& line) { return line.starts_with("REBOOT"); });
        if (starts != 1 || kill(steering_.daemon, 0) != 0) {
            faults_.push_back("the daemon of the start has ended; starts: " +
                              std::to_string(starts));
        }
    }

    void check() {
        last_ = take_figures();
        if (first_.anonymous_kb == 0) {
            first_.anonymous_kb = last_.anonymous_kb;
        }
        check_process();
        if (last_.threads != first_.threads || last_.descriptors != first_.descriptors ||
            last_.anonymous_kb > first_.anonymous_kb + kGrowthKbytes) {
            faults_.push_back("threads " + std::to_string(first_.threads) + " -> " +
                              std::to_string(last_.threads) + ", anonymous memory " +
                              std::to_string(first_.anonymous_kb) + " -> " +
                              std::to_string(last_.anonymous_kb) + " kB, descriptors now " +
                              android::base::Join(last_.descriptors, ' '));
        }
        for (const inside::process& each : strays()) {
            faults_.push_back("process " + each.name + (each.has_ended ? " (ended)" : "") +
                              (each.parent == steering_.daemon ? " of the daemon" : "") +
                              " is left");
        }
        add_faults(steering_.events.check());
        add_faults(check_files(steering_.events.folders()));
        const std::chrono::duration<double, std::ratio<60>> elapsed = steady_clock::now() - start_;
        printf("%5.1f min  %5zu events  %zu threads  %zu descriptors  anonymous %ld kB\n",
               elapsed.count(), steering_.events.folders().size(), last_.threads,
               last_.descriptors.size(), last_.anonymous_kb);
        fflush(stdout);
    }

    void summarise() {
        print_counts("actions: ", played_);
        print_counts("files delivered: ", steering_.delivered);
        std::cout << "events: " << steering_.events.summary() << "\nanonymous memory "
                  << first_.anonymous_kb << " -> " << last_.anonymous_kb << " kB (at most "
                  << kGrowthKbytes << " more)\n";
        for (const std::string& fault : faults_) {
            std::cout << "FAULT: " << fault << "\n";
        }
        std::cout << (faults_.empty() ? "no fault" : "faults") << ", seed " << seed_ << "\n";
    }

    void add_faults(const std::vector<std::string>& found) {
        faults_.insert(faults_.end(), found.begin(), found.end());
    }

    const steady_clock::time_point start_ = steady_clock::now();
    const steady_clock::time_point end_;
    const unsigned seed_;
    std::mt19937 random_;
    steering steering_;
    bool can_record_ = false;  // Debian's tcpdump needs users
    bool is_recording_ = false;
    size_t recordings_ = 0;
    size_t taken_ = 0;
    figures first_;
    figures last_;
    std::map<std::string, size_t> played_;
    std::vector<std::string> faults_;
};

// clang-format off
const std::vector<session::action> session::kActions = {
    {"delivery",      40, [](session& s) { s.deliver(1); }},
    {"burst",          6, [](session& s) { s.deliver(3 + s.draw(12)); }},
    {"switch",        24, [](session& s) { s.switch_one(); }},
    {"flurry",         6, [](session& s) { s.flurry(); }},
    {"pulse",          5, [](session& s) { s.pulse(); }},
    {"staging taken",  3, [](session& s) { s.take_staged(); }},
    {"capture filled", 2, [](session& s) { s.fill_capture(); }},
    {"log flood",      6, [](session& s) { s.flood_log(); }},
    {"dump_info",      1, [](session& s) { s.request(kDumpInfo); }},
    {"touchpanel",     1, [](session& s) { s.request(kTouchpanel); }},
    {"audio_dump",     2, [](session& s) { s.request(kAudioDump); }},
    {"audio_cmd",      2, [](session& s) { s.command_audio(); }},
    {"tcpdump switch", 3, [](session& s) { s.switch_recording(); }},
    {"packets",        3, [](session& s) { s.send_packets(); }},
};
// clang-format on

int session::run() {
    std::cout << "seed " << seed_ << std::endl;
    try {
        boot();
        rest();
        first_ = take_figures();
        first_.anonymous_kb = 0;  // taken when it is warm
        for (const action& each : kActions) {
            play(each);
        }
        do {
            for (unsigned left = kActionsBetweenRests; left > 0 && steady_clock::now() < end_;
                 --left) {
                play(draw_row(kActions));
            }
            rest();
            check();
        } while (faults_.empty() && steady_clock::now() < end_);
    } catch (const std::exception& error) {
        faults_.emplace_back(error.what());
        check_process();
        add_faults(steering_.events.check());
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
    return soak::session(std::stod(argv[1]), static_cast<unsigned>(std::stoul(argv[2]))).run();
}
