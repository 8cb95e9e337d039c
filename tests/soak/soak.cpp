// SPDX-License-Identifier: Apache-2.0

// soak MINUTES SEED: command of a booted device that works the daemon and its tools with random
// actions, lets them come to rest now and then, and checks there what they have done. Exits with 1
// when there is a fault.

#include <android-base/strings.h>

#include <iostream>
#include <random>

#include "testing/device.h"
#include "tests/soak/files.h"
#include "tests/soak/steering.h"

namespace soak {

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;
using minutes = std::chrono::duration<double, std::ratio<60>>;

constexpr unsigned kActionsBetweenRests = 100;
// Each of several watchers at once has a heap of its own, of some 25 kB, which glibc keeps for
// later threads: up to 16 of them on two processors.
constexpr long kGrowthKbytes = 512;

// The rare ones take the daemon a second and more.
// clang-format off
constexpr crash_kind kKinds[] = {
    {"watchdog",          1, kCrash, "UIWDT",     "system_server_watchdog@#.txt"},
    {"pre_watchdog",      1, nullptr, "",          "system_server_pre_watchdog@#.txt"},
    kAnr,
    {"app crash",         6, kCrash, "JAVACRASH", "data_app_crash@#.txt"},
    {"system crash",      1, kCrash, "JAVACRASH", "system_server_crash@#.txt"},
    {"tombstone",         6, kCrash, "TOMBSTONE", "tombstone_#"},
    {"written tombstone", 2, kCrash, "TOMBSTONE", "tombstone_written#"},
    kAppEvent,
    {"boring name",       2, nullptr, "",          "data_app_wtf@#.txt"},
    kMisnamed,
    {"lone companion",    1, nullptr, "",          "tombstone_#.pb"},
    {"temporary file",    1, nullptr, "",          "tombstone_#.tmp"},
};

constexpr const char* kPackages[] = {"com.example.mail", "com.example.maps", "org.example"};

const struct {
    std::string property;
    unsigned weight;
} kSwitches[] = {{kDetectionSwitch, 2}, {kCaptureSwitch, 2}, {kCrash->enable, 1}, {kCustom->enable, 1}};
// clang-format on

class session {
  public:
    explicit session(unsigned seed) : random_(seed) {}

    // Plays until `span` is over, then comes to rest and checks. Returns whether there is no fault.
    bool play_for(minutes span);

  private:
    struct action {
        const char* name;
        unsigned weight;
        void (*play)(session& at);
    };
    static const std::vector<action> kActions;

    // All randomness comes from draw and draw_row, and no call of them depends on timing, so a seed
    // always gives the same actions.
    unsigned draw(unsigned choices) { return static_cast<unsigned>(random_() % choices); }
    const auto& draw_row(const auto& rows) {
        std::vector<unsigned> weights;
        std::transform(std::begin(rows), std::end(rows), std::back_inserter(weights),
                       [](const auto& row) { return row.weight; });
        std::discrete_distribution<size_t> index(weights.begin(), weights.end());
        return std::begin(rows)[index(random_)];
    }
    void pause(unsigned max_ms) { poll(nullptr, 0, static_cast<int>(draw(max_ms))); }

    // --- Actions ---

    void deliver(unsigned count) {
        for (; count > 0; --count) {
            const crash_kind& kind = draw_row(kKinds);
            steering_.deliver(kind, kPackages[draw(std::size(kPackages))]);
            ++played_[kind.name];
        }
    }

    // Sets one of the switches `times` times without waiting, so that the daemon misses some of the
    // values, and then once more until the daemon obeys.
    void work_switch(unsigned times) {
        const std::string& property = draw_row(kSwitches).property;
        if (draw(2) == 0) {
            steering_.settle();  // otherwise the switch makes what is outstanding uncertain
        }
        for (; times > 0; --times) {
            steering_.set_switch(property, times % 2 != 0 ? "1" : "0");
            pause(15);
            deliver(draw(2));
        }
        steering_.switch_to(property, draw(4) != 0);  // rather on than off
    }

    // Removes staged events as the app does: only those that it has been notified of.
    void take_staged() {
        for (const fs::path& file : steering_.events.crash_files()) {
            std::error_code error;  // the daemon may be removing it, too
            fs::remove_all(kStaging / file.parent_path().filename(), error);
        }
    }

    void flood_log() {
        const log_id_t buffer = kStoredBuffers[draw(std::size(kStoredBuffers))];
        const std::string text(20 + draw(200), 'x');
        for (unsigned left = 200 + draw(2000); left > 0; --left) {
            append_log_entry(buffer, log_entry_now(ANDROID_LOG_INFO, "flood", text.c_str()));
        }
        steering_.logged(text);
    }

    static void use_tool(const std::string& request, const std::string& service) {
        run("setprop " + request + " 1 && waitprop " + request + " 0 60 && waitprop init.svc." +
            service + " stopped 60");
    }
    void record_packets() {
        const std::string started = "start recording";
        const size_t before = steering_.logged(started);
        run("setprop sys.tcpdump 1");
        // The tool waits for "1" first, so it would miss a "0" that comes earlier.
        steering_.expect(started, [&] { return steering_.logged(started) > before; });
        run("/usr/bin/bash -c 'for ((i = " + std::to_string(500 + draw(9000)) +
            "; i > 0; --i)); do echo packet >/dev/udp/127.0.0.1/9; done'");
        run("setprop sys.tcpdump 0 && waitprop init.svc.zq_tcpdump stopped 60");
    }

    // --- From rest to rest ---

    void boot() {
        device::write_program("/system/bin/am", kWitness);
        fs::permissions("/data/notices", fs::perms(0666));
        device::write_file("/vendor/audiohal/dump/record.pcm", std::string(1 << 20, 'p'));
        // The upgrade check, at the daemon's first start, sets some properties, too. Files are
        // small so that all that rotates does.
        run(R"sh(set -e
            waitprop persist.service.brevix.version 1 60
            for channel in apk event radio kmsg; do
                setprop persist.sys.${channel}logfs.size 3
                setprop persist.sys.${channel}logfs.rotate_kbytes 64
            done
            setprop persist.service.brevix.gl.num 3
            setprop sys.tcpdump.size 1,3
            setprop sys.tcpdump.file soak)sh");
        steering_.daemon = device::processes_named("zq_brevix").at(0);
    }

    void play(const action& one) {
        constexpr unsigned kPauses[] = {1, 30, 300};
        one.play(*this);
        ++played_[one.name];
        pause(kPauses[draw(std::size(kPauses))]);
    }

    void stop_capture() {
        steering_.switch_to(kCaptureSwitch, false);
        steering_.expect("the captures' end",
                         [] { return device::processes_named("logcat").empty(); });
    }

    // Nothing under way, detection on, capture off.
    void rest() {
        for (const auto& each : kSwitches) {
            steering_.switch_to(each.property, true);
        }
        stop_capture();
        steering_.switch_to(kCaptureSwitch, true);  // makes room, in which nobody writes any more
        stop_capture();
        steering_.settle();  // the daemon also collects the children that have ended
    }

    // Processes of the device, and threads and descriptors of the daemon, a line each.
    std::vector<std::string> figures() const {
        return run("cd " + device::proc(steering_.daemon, "") +
                   " || exit 1; ps -A -o NAME >/data/ps; sort /data/ps; ls task | wc -l; "
                   "/usr/bin/readlink fd/* | sort");
    }

    void check() {
        device::wait_until("/data/logs", [&] { return figures() == first_; });
        compare("processes, threads and descriptors", figures(), first_, faults_);
        const long kbytes =
            device::proc_number(device::proc(steering_.daemon, "smaps_rollup"), "Anonymous");
        first_kbytes_ = first_kbytes_ == 0 ? kbytes : first_kbytes_;  // once it is warm
        if (kbytes > first_kbytes_ + kGrowthKbytes) {
            faults_.push_back("anonymous memory has grown to " + std::to_string(kbytes) + " kB");
        }
        steering_.events.check(faults_);
        check_known(faults_);
        check_events(steering_.events.crash_files(), faults_);
        const minutes elapsed = steady_clock::now() - start_;
        printf("%5.1f min  %5zu events  anonymous memory %ld kB\n", elapsed.count(),
               steering_.events.crash_files().size(), kbytes);
        fflush(stdout);
    }

    const steady_clock::time_point start_ = steady_clock::now();
    std::mt19937 random_;
    steering steering_;
    std::vector<std::string> first_;  // figures
    long first_kbytes_ = 0;           // of the daemon alone, whoever else maps the same files
    std::map<std::string, size_t> played_;
    std::vector<std::string> faults_;
};

// clang-format off
// The newest capture is filled as in weeks; two of them exceed the ceiling.
const std::vector<session::action> session::kActions = {
    {"delivery",      40, [](session& s) { s.deliver(1); }},
    {"burst",          6, [](session& s) { s.deliver(3 + s.draw(12)); }},
    {"switch",        24, [](session& s) { s.work_switch(0); }},
    {"flurry",        11, [](session& s) { s.work_switch(2 + s.draw(6)); }},
    {"staging taken",  3, [](session& s) { s.take_staged(); }},
    {"log flood",      6, [](session& s) { s.flood_log(); }},
    {"capture filled", 2, [](session&) {
        run("cd /data/logs/general_log && filler=$(/usr/bin/ls -v | tail -n 1)/filler && "
              "/usr/bin/truncate -s 1500M $filler && /usr/bin/chown --reference=. $filler");
    }},
    {"dump_info",      1, [](session&) { use_tool("sys.brevix.dumplog.enable", "zq_dump_info"); }},
    {"touchpanel",     1, [](session&) { use_tool("sys.brevix.touchpanel.fetch", "zq_touchpanel"); }},
    {"audio_dump",     2, [](session&) { use_tool("sys.brevix.mtk.audio.dump", "zq_audio_dump"); }},
    {"audio_cmd",      2, [](session&) {
        run("setprop sys.brevix.mkt.audio.cmd 1 && zq_brevix audio_cmd 5:7 && "
              "waitprop sys.brevix.mkt.audio.cmd 0 60");
    }},
    {"recording",      3, [](session& s) { s.record_packets(); }},
};
// clang-format on

bool session::play_for(minutes span) {
    const auto end = start_ + span;
    try {
        boot();
        rest();
        first_ = figures();
        for (const action& each : kActions) {
            play(each);
        }
        do {
            for (unsigned left = kActionsBetweenRests; left > 0 && steady_clock::now() < end;
                 --left) {
                play(draw_row(kActions));
            }
            rest();
            check();
        } while (faults_.empty() && steady_clock::now() < end);
    } catch (const std::exception& error) {
        faults_.emplace_back(error.what());
        steering_.events.check(faults_);
    }
    for (const auto& [name, count] : played_) {
        std::cout << name << " " << count << ", ";
    }
    std::cout << "events collected " << steering_.events.crash_files().size() << ", certain "
              << steering_.events.certain() << "\n";
    for (const std::string& fault : faults_) {
        std::cout << "FAULT: " << fault << "\n";
    }
    return faults_.empty();
}

}  // namespace

}  // namespace soak

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: soak MINUTES SEED\n";
        return 1;
    }
    const auto seed = static_cast<unsigned>(std::stoul(argv[2]));
    std::cout << "seed " << seed << std::endl;
    const bool is_sound = soak::session(seed).play_for(soak::minutes(std::stod(argv[1])));
    std::cout << (is_sound ? "no fault" : "faults") << ", seed " << seed << "\n";
    return is_sound ? 0 : 1;
}
