// SPDX-License-Identifier: Apache-2.0

// Groups equal crashes of all phones into issues.

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "look/collected.h"

namespace look {

namespace {

constexpr moment kTwinSpan = 10 * kSecond;

// One crash, collected several times: the tombstone counts, else the first.
void mark_twins(const std::vector<entry*>& same) {
    const auto is_tombstone = [](const entry* e) { return e->type == "TOMBSTONE"; };
    const auto tombstone = std::ranges::find_if(same, is_tombstone);
    const entry* counted = tombstone == same.end() ? same.front() : *tombstone;
    for (entry* e : same) {
        e->twin = e == counted ? 0 : counted->number;
        e->issue = counted->issue;
        e->issue_text = counted->issue_text;
    }
}

void find_twins(std::vector<entry>& entries) {
    std::map<std::tuple<size_t, int, std::string>, std::vector<entry*>> crashes;
    for (entry& e : entries) {
        if (e.pid != 0) {
            std::vector<entry*>& same = crashes[{e.phone, e.pid, e.process}];
            if (!same.empty() && e.time - same.front()->time > kTwinSpan) {
                mark_twins(same);
                same.clear();
            }
            same.push_back(&e);
        }
    }
    for (const auto& [process, same] : crashes) {
        mark_twins(same);
    }
}

// The build that was seen first the latest; empty when there are not several.
std::string newest_build(const std::vector<entry>& entries) {
    std::set<std::string> builds;
    std::string newest;
    for (const entry& e : entries) {
        if (!e.build.empty() && e.time >= kClockIsSet && builds.insert(e.build).second) {
            newest = e.build;
        }
    }
    return builds.size() > 1 ? newest : "";
}

issue issue_of(const std::vector<const entry*>& events) {
    std::set<size_t> phones;
    const entry& last = *events.back();
    issue one{.id = last.issue, .type = last.type, .package = last.package, .line = last.line};
    for (const entry* e : events) {
        phones.insert(e->phone);
        one.first = one.first == 0 ? e->time : one.first;
        one.first_build = one.first_build.empty() ? e->build : one.first_build;
        one.last_build = e->build.empty() ? one.last_build : e->build;
    }
    one.last = last.time;
    one.count = events.size();
    one.phones = phones.size();
    return one;
}

}  // namespace

std::vector<issue> group(std::vector<entry>& entries) {
    find_twins(entries);
    const std::string newest = newest_build(entries);
    std::map<std::string, std::vector<const entry*>> found;
    for (const entry& e : entries) {
        if (!e.issue.empty() && e.twin == 0) {
            found[e.issue].push_back(&e);
        }
    }
    std::vector<issue> issues;
    for (const auto& [id, events] : found) {
        issue& one = issues.emplace_back(issue_of(events));
        one.is_new = !newest.empty() && one.first_build == newest;
    }
    std::ranges::stable_sort(issues, std::greater(), &issue::count);
    return issues;
}

}  // namespace look
