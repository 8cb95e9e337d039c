#include "tests/soak/ledger.h"

#include <android-base/strings.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "testing/device.h"

namespace soak {

namespace {

std::string base_name(const std::string& path) {
    return std::filesystem::path(path).filename();
}

// What a history line and a notice say of one event.
struct told_event {
    std::string category;  // of a history line only
    std::string type;
    std::string package;  // of a notice only
    std::string folder;
};

std::vector<told_event> events_in_history() {
    std::vector<told_event> events;
    for (const std::string& line : inside::read_lines(ledger::kHistory)) {
        told_event event;
        std::string date;
        std::istringstream(line) >> event.category >> date >> event.type >> event.folder;
        if (event.category != "REBOOT") {
            events.push_back(event);
        }
    }
    return events;
}

std::string extra(const std::string& notice, const std::string& name) {
    const std::string key = "--es " + name + " ";
    const size_t begin = notice.find(key);
    if (begin == std::string::npos) {
        return "";
    }
    return notice.substr(begin + key.size(),
                         notice.find(' ', begin + key.size()) - (begin + key.size()));
}

std::vector<told_event> events_in_notices() {
    std::vector<told_event> events;
    for (const std::string& line : inside::read_lines(ledger::kNotices)) {
        events.push_back({"", extra(line, "type"), extra(line, "name"), extra(line, "path")});
    }
    return events;
}

}  // namespace

bool delivery::is_certain() const {
    return !category.empty() && reported == answer::yes && wanted == answer::yes;
}

bool delivery::is_out_of_question() const {
    return category.empty() || reported == answer::no || wanted == answer::no;
}

void ledger::doubt(const std::string& category) {
    read();
    for (size_t i = dealt_with_; i < deliveries_.size(); ++i) {
        if (deliveries_[i].category == category) {
            deliveries_[i].wanted = answer::unknown;
        }
    }
}

// An event is told of when its notice, which comes after the witness's line, is there, too.
void ledger::read() {
    given_ += notices_.read().size();
    for (const std::string& line : witness_.read()) {
        witnessed_.push_back(line);
    }
    while (folders_.size() < std::min(witnessed_.size(), given_)) {
        take(witnessed_[folders_.size()]);
    }
}

void ledger::take(const std::string& line) {
    const std::vector<std::string> fields = android::base::Split(line, "|");
    folders_.push_back(fields[0]);
    if (fields.size() != 4 || fields[1].empty() || fields[2] != "_END" || fields[3] != "same") {
        faults_.push_back("a notice of something incomplete: " + line);
        return;
    }
    delivery* found = nullptr;
    for (delivery& one : deliveries_) {
        if (one.id == fields[1] && (found == nullptr || found->is_collected)) {
            found = &one;
        }
    }
    if (found == nullptr) {
        faults_.push_back("collected, but never delivered: " + line);
        return;
    }
    if (found->is_collected || found->is_out_of_question()) {
        faults_.push_back(std::string(found->is_collected ? "collected once too often: "
                                                          : "collected while switched off: ") +
                          line);
    }
    found->is_collected = true;
    dealt_with_ = std::max(dealt_with_, static_cast<size_t>(found - deliveries_.data()) + 1);
    by_folder_.emplace(fields[0], *found);
}

bool ledger::is_collected(const std::string& id) const {
    return std::any_of(deliveries_.begin(), deliveries_.end(),
                       [&](const delivery& one) { return one.id == id && one.is_collected; });
}

std::vector<std::string> ledger::missing() const {
    std::vector<std::string> ids;
    for (const delivery& one : deliveries_) {
        if (one.is_certain() && !one.is_collected) {
            ids.push_back(one.id);
        }
    }
    return ids;
}

// Event by event the history, the notices and the deliveries say the same. The first that does not
// is named: those behind it are out of step.
void ledger::check_lists(std::vector<std::string>& faults) const {
    const std::vector<told_event> history = events_in_history();
    const std::vector<told_event> notices = events_in_notices();
    if (history.size() != folders_.size() || notices.size() != folders_.size()) {
        faults.push_back(std::to_string(history.size()) + " events in the history, " +
                         std::to_string(notices.size()) + " notices, " +
                         std::to_string(folders_.size()) + " witnessed");
    }
    const size_t count = std::min({history.size(), notices.size(), folders_.size()});
    for (size_t i = 0; i < count; ++i) {
        const auto found = by_folder_.find(folders_[i]);
        if (found == by_folder_.end()) {
            continue;  // a fault already
        }
        const delivery& one = found->second;
        const std::string package = one.package.empty() ? "null" : one.package;
        if (history[i].folder != folders_[i] || history[i].category != one.category ||
            history[i].type != one.type) {
            faults.push_back("the history's event " + std::to_string(i) + " is " +
                             history[i].category + " " + history[i].type + " " + history[i].folder +
                             ", not " + one.id);
            return;
        }
        if (notices[i].folder != folders_[i] || notices[i].type != one.type ||
            notices[i].package != package) {
            faults.push_back("the notice " + std::to_string(i) + " is of " + notices[i].type + " " +
                             notices[i].folder + ", not " + one.id);
            return;
        }
    }
}

// Per prefix they go up by one, from 0 on.
void ledger::check_counts(std::vector<std::string>& faults) const {
    std::map<std::string, int> next;
    for (const told_event& event : events_in_history()) {
        const std::vector<std::string> fields = android::base::Split(base_name(event.folder), "_");
        if (fields.size() != 4) {
            faults.push_back("no event folder in the history: " + event.type + " " + event.folder);
        } else if (fields[1] != std::to_string(next[fields[0]]++)) {
            faults.push_back("the count does not follow: " + event.folder);
        }
    }
}

std::string ledger::summary() const {
    size_t certain = 0;
    size_t none = 0;
    for (const delivery& one : deliveries_) {
        certain += one.is_certain() ? 1 : 0;
        none += one.is_out_of_question() ? 1 : 0;
    }
    return std::to_string(deliveries_.size()) + " delivered, of them " + std::to_string(certain) +
           " certain, " + std::to_string(none) + " out of the question; " +
           std::to_string(folders_.size()) + " collected";
}

std::vector<std::string> ledger::check() const {
    std::vector<std::string> faults = faults_;
    for (const std::string& id : missing()) {
        faults.push_back("delivered, but not collected: " + id);
    }
    check_lists(faults);
    check_counts(faults);
    return faults;
}

}  // namespace soak
