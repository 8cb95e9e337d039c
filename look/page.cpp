// SPDX-License-Identifier: Apache-2.0

#include "look/page.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "look/files.h"
#include "look/table.h"
#include "page_text.h"

namespace look {

namespace {

using nlohmann::ordered_json;

ordered_json data_json(const collected& all) {
    ordered_json data = {{"phones", ordered_json::array()},
                         {"rows", ordered_json::array()},
                         {"issues", ordered_json::array()}};
    for (const phone& one : all.phones) {
        data["phones"].push_back(printable(one.name, ""));
    }
    for (const entry& e : all.entries) {
        data["rows"].push_back(row_of(all, e));
        data["rows"].back().update(compact({{"t", e.time}, {"e", e.end}, {"stack", e.words}}));
    }
    for (const issue& one : all.issues) {
        data["issues"].push_back(row_of(one));
        data["issues"].back().update(compact({{"first", one.first}, {"last", one.last}}));
    }
    return data;
}

}  // namespace

void write_page(collected& all, const std::string& file) {
    // The more events, the less of each, so that a browser opens any page at once.
    constexpr size_t kPageBytes = 32 << 20;
    constexpr size_t kMaxBytes = 64 << 10;
    constexpr size_t kParts = 6;
    const size_t share = std::min(kPageBytes / kParts / (all.entries.size() + 1), kMaxBytes);
    std::ofstream out(file, std::ios::binary);
    out << kPage << "<script type=\"application/json\" id=\"rows\">" << line_of(data_json(all))
        << "</script>\n<script type=\"text/plain\" id=\"details\">";
    for (const entry& e : all.entries) {
        const bool is_event = e.category != "CAPTURE" && e.category != "?";
        out << line_of(parts_json(is_event ? all.describe(e, share) : std::vector<part>())) << '\n';
    }
    if (!(out << "</script>\n</html>\n").flush()) {
        throw std::runtime_error(file + " cannot be written");
    }
}

ordered_json parts_json(const std::vector<part>& parts) {
    ordered_json list = ordered_json::array();
    for (const auto& [title, text] : parts) {
        list.push_back({printable(title, ""), printable(text)});
    }
    return list;
}

}  // namespace look
