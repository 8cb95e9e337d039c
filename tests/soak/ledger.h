#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/soak/device.h"

namespace soak {

enum class answer { no, yes, unknown };

// A file that was put where the daemon looks, or one event of several that it makes.
struct delivery {
    std::string id;        // its name and, as names come again, the time in its text
    std::string category;  // empty: no event, whatever is switched on
    std::string package;   // of app events
    std::string type;
    answer reported;  // whether detection was on when it came
    answer wanted;    // whether its category is on when its turn comes
    bool is_collected = false;

    bool is_certain() const;  // that it is collected
    bool is_out_of_question() const;
};

// Every delivery of a soak, and what the daemon has made of them. The daemon takes files in the
// order of their arrival, so what came before a collected one has been dealt with.
class ledger {
  public:
    // A line for each notice at the moment that it is given: FOLDER|ID|END|STAGED, that is the
    // event folder, the id of the crash file in it, the last line of its report and "same" when the
    // staged copy equals it.
    static constexpr const char* kWitness = "/data/brevix/witness.log";
    static constexpr const char* kNotices = "/data/brevix/queue.log";
    static constexpr const char* kHistory = "/data/logs/history.event";

    void add(const delivery& one) { deliveries_.push_back(one); }

    // The category is about to be switched: nobody knows which value those still waiting will meet.
    void doubt(const std::string& category);

    // Takes in what has been told since.
    void read();

    const std::vector<std::string>& folders() const { return folders_; }  // in order of the notices
    bool is_collected(const std::string& id) const;
    // Ids of those that are certain and not collected yet.
    std::vector<std::string> missing() const;

    std::string summary() const;

    // What contradicts the contract so far, a line each; for a daemon at rest, all of it read.
    std::vector<std::string> check() const;

  private:
    void take(const std::string& line);
    void check_lists(std::vector<std::string>& faults) const;
    void check_counts(std::vector<std::string>& faults) const;

    std::vector<delivery> deliveries_;
    size_t dealt_with_ = 0;  // so many of the first deliveries
    growing_file witness_{kWitness};
    growing_file notices_{kNotices};
    std::vector<std::string> witnessed_;
    size_t given_ = 0;  // notices
    std::vector<std::string> folders_;
    std::map<std::string, const delivery> by_folder_;
    std::vector<std::string> faults_;  // met while reading
};

}  // namespace soak
