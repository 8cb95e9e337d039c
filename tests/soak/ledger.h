// SPDX-License-Identifier: Apache-2.0

// Accounts for every crash file that the soak delivers, by notices and history.
#pragma once

#include <android-base/strings.h>

#include <deque>

#include "testing/device.h"
#include "tests/soak/files.h"

namespace soak {

// Whether a switch is on, or an event must be collected.
enum class answer { no, unknown, yes };

// An event that the daemon has not dealt with yet.
struct delivery {
    std::string notice;    // what its notice begins with: "ID|TYPE|PACKAGE|"
    std::string folder;    // path of its folder up to the count
    std::string category;  // as the history names it
    std::string type;
    answer is_due;
};

// Replaces am. Appends a line per notice to /data/notices, with what the app finds at that time:
// ID|TYPE|PACKAGE|FOLDER|END|STAGED. ID is the crash file in the folder, END the last line of the
// report, STAGED "same" when the staged copy equals the folder.
inline constexpr const char* kWitness = R"sh(while [ $# -gt 0 ]; do
    [ "$1" = --es ] && eval "$2=\$3" && shift 2
    shift
done
for file in "$path"/*@* "$path"/tombstone*; do
    [ -e "$file" ] && id=${file##*/}
done
staged=differs
/usr/bin/diff -rq "$path" "/data/brevix/eventTemp/${path##*/}" >/dev/null && staged=same
echo "$id|$type|$name|$path|$(tail -n 1 "$path/eventfile")|$staged" >>/data/notices
log -t ActivityManager told)sh";

// One inotify instance queues all files, so the daemon deals with them in the order of delivery: a
// notice settles everything delivered before its event.
class ledger {
  public:
    // A file may make the same event several times.
    void add(const delivery& one, size_t times) {
        outstanding_.insert(outstanding_.end(), times, one);
    }

    // To be called before a category is switched: its outstanding events may meet either value.
    void doubt(const std::string& category) {
        read();
        for (delivery& one : outstanding_) {
            if (one.category == category) {
                one.is_due = answer::unknown;
            }
        }
    }

    // Takes in the notices that have come. Returns the number of events collected so far.
    size_t read() {
        notices_.clear();
        for (std::string line; std::getline(notices_, line);) {
            take(line);
        }
        return crash_files_.size();
    }

    // To be called when the daemon has dealt with everything delivered.
    void settle() {
        read();
        pass_over(outstanding_.size());
    }

    // The copies of crash files in the folders of collected events, in the order of the notices.
    const std::vector<device::fs::path>& crash_files() const { return crash_files_; }

    // Settled events that had to be collected.
    size_t certain() const { return certain_; }

    // Adds a fault for each contradiction so far. Complete after settle.
    void check(std::vector<std::string>& faults) const {
        faults.insert(faults.end(), faults_.begin(), faults_.end());
        compare("history", run("/usr/bin/mawk '{ print $1, $3, $4 }' /data/logs/history.event"),
                history_, faults);
    }

  private:
    // The first `count` outstanding events are dealt with and not collected.
    void pass_over(size_t count) {
        for (; count > 0; --count) {
            if (outstanding_.front().is_due == answer::yes) {
                ++certain_;
                faults_.push_back("delivered, but not collected: " + outstanding_.front().notice);
            }
            outstanding_.pop_front();
        }
    }

    void take(const std::string& line) {
        const auto found =
            std::find_if(outstanding_.begin(), outstanding_.end(),
                         [&](const delivery& one) { return line.starts_with(one.notice); });
        if (found == outstanding_.end() || found->is_due == answer::no) {
            faults_.push_back("not delivered like this, or collected once too often: " + line);
            return;
        }
        pass_over(found - outstanding_.begin());
        const delivery one = outstanding_.front();
        outstanding_.pop_front();
        certain_ += one.is_due == answer::yes ? 1 : 0;
        const std::string folder =
            one.folder + std::to_string(next_count_[one.folder]++) + "_" + one.type + "_";
        if (!line.starts_with(one.notice + folder) || !line.ends_with("|_END|same")) {
            faults_.push_back("the notice of an incomplete event, or one not in " + folder + ": " +
                              line);
        }
        const std::vector<std::string> fields = android::base::Split(line, "|");
        crash_files_.push_back(device::fs::path(fields[3]) / fields[0]);
        history_.push_back(one.category + " " + one.type + " " + fields[3]);
    }

    std::fstream notices_{"/data/notices", std::ios::in | std::ios::out | std::ios::trunc};
    std::deque<delivery> outstanding_;
    std::map<std::string, int> next_count_;  // by delivery::folder
    size_t certain_ = 0;
    std::vector<device::fs::path> crash_files_;
    std::vector<std::string> history_ = {"REBOOT UNKNOWN "};  // as it must be; one daemon start
    std::vector<std::string> faults_;
};

}  // namespace soak
