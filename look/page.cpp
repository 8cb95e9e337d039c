// SPDX-License-Identifier: Apache-2.0

#include "look/page.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "look/table.h"
#include "page_text.h"

namespace look {

namespace {

using nlohmann::ordered_json;

ordered_json rows_json(const collected& all) {
    ordered_json rows = ordered_json::array();
    for (const entry& e : all.entries) {
        ordered_json row = row_json(all, e);
        const auto add = [&](const char* key, auto value, bool is_there) {
            if (is_there) {
                row[key] = value;
            }
        };
        add("t", e.time, e.time != 0);
        add("e", e.end, e.end != 0);
        add("stack", e.words, !e.words.empty());
        rows.push_back(std::move(row));
    }
    return rows;
}

ordered_json data_json(const collected& all) {
    ordered_json data;
    data["phones"] = ordered_json::array();
    for (const phone& one : all.phones) {
        data["phones"].push_back(one.name);
    }
    data["rows"] = rows_json(all);
    data["issues"] = ordered_json::array();
    for (const issue& one : all.issues) {
        data["issues"].push_back(issue_json(one));
        data["issues"].back()["first"] = one.first;
        data["issues"].back()["last"] = one.last;
    }
    return data;
}

}  // namespace

void write_page(collected& all, const std::string& file) {
    // The more events, the less of each, so that a browser opens any page at once.
    constexpr size_t kPageBytes = 32 << 20;
    constexpr size_t kMaxBytes = 64 << 10;
    constexpr size_t kParts = 4;
    const size_t share = std::min(kPageBytes / kParts / (all.entries.size() + 1), kMaxBytes);
    std::ofstream out(file, std::ios::binary);
    out << kPage << "<script type=\"application/json\" id=\"rows\">" << json_line(data_json(all))
        << "</script>\n<script type=\"text/plain\" id=\"details\">";
    for (const entry& e : all.entries) {
        const bool is_event = e.category != "CAPTURE" && e.category != "?";
        out << json_line(is_event ? all.describe(e, share) : std::vector<part>()) << '\n';
    }
    if (!(out << "</script>\n</html>\n").flush()) {
        throw std::runtime_error(file + " cannot be written");
    }
}

}  // namespace look
