// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/strings.h>

#include <map>
#include <set>

#include "testing/device.h"

namespace soak {

enum class answer { no, yes, unknown };

// A file that was put where the daemon looks, or one event of several that it makes.
struct delivery {
    std::string id;        // its name
    std::string category;  // empty: no event, whatever is switched on
    std::string package;   // "null" but for app events
    std::string type;
    answer reported;  // whether detection was on when it came
    answer wanted;    // whether its category is on when its turn comes
    bool is_collected = false;

    bool is_certain() const {  // that it is collected
        return !category.empty() && reported == answer::yes && wanted == answer::yes;
    }
    bool is_out_of_question() const {
        return category.empty() || reported == answer::no || wanted == answer::no;
    }
};

// Stands in for the activity manager: a line for each notice, with what the app finds then,
// ID|TYPE|PACKAGE|FOLDER|END|STAGED: the crash file in the folder, the last line of its report, and
// "same" when the staged copy equals the folder.
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

// Every delivery of a soak, and what the daemon has made of them. The daemon takes files in the
// order of their arrival, so what came before a collected one has been dealt with.
class ledger {
  public:
    void add(const delivery& one) { deliveries_.push_back(one); }

    // The category is about to be switched: nobody knows which value those still waiting will meet.
    void doubt(const std::string& category) {
        read();
        for (size_t i = dealt_with_; i < deliveries_.size(); ++i) {
            if (deliveries_[i].category == category) {
                deliveries_[i].wanted = answer::unknown;
            }
        }
    }

    // Takes in what has been told since.
    void read() {
        notices_.clear();
        for (std::string line; std::getline(notices_, line);) {
            take(line);
        }
    }

    const std::vector<std::string>& folders() const { return folders_; }  // in order of the notices

    bool is_collected(const std::string& id) const {
        return std::any_of(deliveries_.begin(), deliveries_.end(),
                           [&](const auto& one) { return one.id == id && one.is_collected; });
    }

    bool is_any_missing() const { return count(&ledger::is_missing) > 0; }

    std::string summary() const {
        return std::to_string(deliveries_.size()) + " delivered, of them " +
               std::to_string(count(&delivery::is_certain)) + " certain, " +
               std::to_string(count(&delivery::is_out_of_question)) + " out of the question; " +
               std::to_string(folders_.size()) + " collected";
    }

    // What contradicts the contract so far, a line each; for a daemon at rest, all of it read.
    std::vector<std::string> check() const {
        std::vector<std::string> faults = faults_;
        for (const delivery& one : deliveries_) {
            if (is_missing(one)) {
                faults.push_back("delivered, but not collected: " + one.id);
            }
        }
        check_history(faults);
        check_counts(faults);
        return faults;
    }

  private:
    static bool is_missing(const delivery& one) { return one.is_certain() && !one.is_collected; }

    template <typename Question>
    size_t count(Question question) const {
        return std::count_if(deliveries_.begin(), deliveries_.end(),
                             [&](const delivery& one) { return std::invoke(question, one); });
    }

    void take(const std::string& line) {
        const std::vector<std::string> fields = android::base::Split(line, "|");
        if (fields.size() != 6 || fields[4] != "_END" || fields[5] != "same") {
            faults_.push_back("a notice of something incomplete: " + line);
            return;
        }
        const auto is_it = [&](const delivery& one) { return one.id == fields[0]; };
        auto found = std::find_if(deliveries_.begin(), deliveries_.end(), is_it);
        if (found != deliveries_.end() && found->is_collected) {  // the second event of its file?
            found = std::find_if(found + 1, deliveries_.end(), is_it);
        }
        if (found == deliveries_.end() || found->is_collected || found->is_out_of_question() ||
            fields[1] != found->type || fields[2] != found->package) {
            faults_.push_back("not delivered like this, or once too often: " + line);
            return;
        }
        folders_.push_back(fields[3]);
        history_.push_back(found->category + " " + found->type + " " + fields[3]);
        found->is_collected = true;
        dealt_with_ = std::max<size_t>(dealt_with_, found - deliveries_.begin() + 1);
    }

    // The first line that differs is named: those behind it are out of step.
    void check_history(std::vector<std::string>& faults) const {
        std::vector<std::string> history;
        for (const std::string& line : inside::read_lines("/data/logs/history.event")) {
            std::string category, date, type, folder;
            std::istringstream(line) >> category >> date >> type >> folder;
            if (category != "REBOOT") {
                history.push_back(category + " " + type + " " + folder);
            }
        }
        const auto [found, told] =
            std::mismatch(history.begin(), history.end(), history_.begin(), history_.end());
        if (found != history.end() || told != history_.end()) {
            faults.push_back("in the history: " + (found == history.end() ? "nothing" : *found) +
                             "; told: " + (told == history_.end() ? "nothing" : *told));
        }
    }

    // Per prefix they go up by one, from 0 on.
    void check_counts(std::vector<std::string>& faults) const {
        std::map<std::string, int> next;
        for (const std::string& folder : folders_) {
            const auto fields = android::base::Split(inside::fs::path(folder).filename(), "_");
            if (fields.size() != 4 || fields[1] != std::to_string(next[fields[0]]++)) {
                faults.push_back("the count does not follow: " + folder);
            }
        }
    }

    std::vector<delivery> deliveries_;
    size_t dealt_with_ = 0;  // so many of the first deliveries
    std::fstream notices_{"/data/notices", std::ios::in | std::ios::out | std::ios::trunc};
    std::vector<std::string> folders_;
    std::vector<std::string> history_;  // as it should be: "CATEGORY TYPE FOLDER"
    std::vector<std::string> faults_;   // met while reading
};

}  // namespace soak
