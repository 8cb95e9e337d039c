// report DIR: makes DIR/report.md of DIR/samples.tsv (figure, work, side, value), and for its plots
// DIR/goals.tsv, how much of its goal each row takes, and DIR/road.tsv.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

enum class measure { ratio, difference, absolute };

struct goal {
    const char* figure;
    int work;
    const char* beside;  // null: nothing
    measure kind;
    double limit;  // negative: only shown
    const char* unit;
    const char* what;
};

// clang-format off
constexpr goal kGoals[] = {
    {"road",     10,    "script",      measure::ratio,      0.40,   "ms",       "delivery → notice, 10 folders kept"},
    {"road",     10,    "floor",       measure::ratio,      1.05,   "ms",       "delivery → notice, 10 folders kept"},
    {"burst",    5000,  "script",      measure::ratio,      0.40,   "ms",       "5,000 tombstones at once, an event"},
    {"burst",    5000,  "floor",       measure::ratio,      1.10,   "ms",       "5,000 tombstones at once, an event"},
    {"count",    10000, "coreutils",   measure::ratio,      0.50,   "ms",       "next count and a keep-N that removes none, 10,000 folders"},
    {"count",    10000, "toybox",      measure::ratio,      0.50,   "ms",       "next count and a keep-N that removes none, 10,000 folders"},
    {"size",     50000, "du",          measure::ratio,      1.00,   "ms",       "size of 50,000 files"},
    {"size",     50000, "iterator",    measure::ratio,      -1,     "ms",       "size of 50,000 files"},
    {"switch",   4,     "script",      measure::ratio,      0.50,   "ms",       "switch set → four captures run"},
    {"wakeups",  60,    "inotifywait", measure::absolute,   0,      "wake-ups", "60 s, capture and detection on"},
    {"memory",   60,    "inotifywait", measure::difference, 1024,   "KiB",      "private memory then"},
    {"armed",    1,     "inotifywait", measure::ratio,      1.00,   "ms",       "start → both directories watched"},
    {"stripped", 1,     nullptr,       measure::absolute,   204800, "bytes",    "the executable"},
};

// How a cost grows with ten times the work; the time of a burst is that of one event.
constexpr struct { const char* figure; int work; const char* what; } kGrowths[] = {
    {"road",  10,   "folders kept"},
    {"burst", 500,  "tombstones at once, an event"},
    {"count", 1000, "folders"},
    {"size",  5000, "files"},
};
// clang-format on

using samples_of_side = std::map<std::string, std::vector<double>>;
std::map<std::pair<std::string, int>, samples_of_side> samples;

void read_samples(const std::string& path) {
    std::ifstream in(path);
    std::string figure;
    std::string side;
    int work = 0;
    double value = 0;
    while (in >> figure >> work >> side >> value) {
        samples[{figure, work}][side].push_back(value);
    }
    for (auto& [key, sides] : samples) {
        for (auto& [name, values] : sides) {
            std::sort(values.begin(), values.end());
        }
    }
}

double at(const std::vector<double>& values, double fraction) {
    return values.at(static_cast<size_t>(std::lround(fraction * double(values.size() - 1))));
}

std::string text(const char* format, auto... arguments) {
    char result[512];
    snprintf(result, sizeof(result), format, arguments...);
    return result;
}

std::string number(double value, const char* unit) {
    return text(strcmp(unit, "ms") == 0 ? "%.2f %s" : "%.0f %s", value, unit);
}

std::string cells(const std::vector<double>& values, const char* unit) {
    return number(at(values, 0.5), unit) + " | " + number(at(values, 0.99), unit);
}

double result_of(const goal& goal, const samples_of_side& sides) {
    const double own = at(sides.at("daemon"), 0.5);
    if (goal.kind == measure::absolute) {
        return own;
    }
    const double beside = at(sides.at(goal.beside), 0.5);
    return goal.kind == measure::ratio ? own / beside : own - beside;
}

std::string result_text(const goal& goal, double result) {
    return goal.kind == measure::ratio ? text("%.2f ×", result) : number(result, goal.unit);
}

void write_goal(const goal& goal, const samples_of_side& sides, std::ostream& report) {
    const double result = result_of(goal, sides);
    report << "| " << goal.figure << " | " << goal.what << " | "
           << cells(sides.at("daemon"), goal.unit) << " | ";
    if (goal.beside != nullptr) {
        report << goal.beside << " | " << cells(sides.at(goal.beside), goal.unit);
    } else {
        report << "– | – | –";
    }
    report << " | " << result_text(goal, result) << " | ";
    if (goal.limit < 0) {
        report << "– | |\n";
    } else {
        report << "≤ " << result_text(goal, goal.limit) << " | "
               << (result <= goal.limit ? "met" : "**missed**") << " |\n";
    }
}

void write_goals(std::ostream& report, std::ostream& plot) {
    report << "| figure | what | daemon: median | p99 | beside | median | p99 | result | goal | |\n"
              "| --- | --- | --: | --: | --- | --: | --: | --: | --: | --- |\n";
    for (const goal& goal : kGoals) {
        const auto found = samples.find({goal.figure, goal.work});
        if (found == samples.end()) {
            continue;
        }
        write_goal(goal, found->second, report);
        if (goal.limit > 0) {
            plot << goal.figure << (goal.beside != nullptr ? std::string(" : ") + goal.beside : "")
                 << "\t" << result_of(goal, found->second) / goal.limit << "\n";
        }
    }
}

void write_growth(std::ostream& report) {
    const char* header =
        "\n| figure | work | side | median | ten times the work | factor |\n"
        "| --- | --- | --- | --: | --: | --: |\n";
    for (const auto& growth : kGrowths) {
        const int more = growth.work * 10;
        const auto found = samples.find({growth.figure, growth.work});
        if (found == samples.end()) {
            continue;
        }
        for (const auto& [side, values] : found->second) {
            const double before = at(values, 0.5);
            const double after = at(samples.at({growth.figure, more}).at(side), 0.5);
            report << std::exchange(header, "")
                   << text("| %s | %d → %d %s | %s | %.2f ms | %.2f ms | %.2f |\n", growth.figure,
                           growth.work, more, growth.what, side.c_str(), before, after,
                           after / before);
        }
    }
}

void write_road(std::ostream& plot) {
    for (const auto& [side, values] : samples[{"road", 10}]) {
        plot << "\"" << side << "\"\n";
        for (const double value : values) {
            plot << value << "\n";
        }
        plot << "\n\n";
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2) {
        std::cerr << "usage: report DIR\n";
        return 1;
    }
    const std::string dir = argv[1];
    read_samples(dir + "/samples.tsv");
    std::ofstream report(dir + "/report.md");
    std::ofstream goals(dir + "/goals.tsv");
    write_goals(report, goals);
    write_growth(report);
    report << "\n![how much of its goal each figure takes](goals.svg)\n";
    if (samples.contains({"road", 10})) {
        std::ofstream road(dir + "/road.tsv");
        write_road(road);
        report << "\n![the event road](road.svg)\n";
    }
}
