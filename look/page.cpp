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

constexpr size_t kTextBytes = 512;

// "<" is escaped: "</script>" in a string would end the page's script element.
std::string line_of(const ordered_json& value) {
    std::string result;
    for (const char c : value.dump(-1, ' ', false, ordered_json::error_handler_t::replace)) {
        c == '<' ? result += "\\u003c" : result += c;
    }
    return result;
}

ordered_json parts_json(const std::vector<part>& parts) {
    ordered_json list = ordered_json::array();
    for (const auto& [title, text] : parts) {
        list.push_back({printable(title, ""), printable(text)});
    }
    return list;
}

ordered_json row_json(const collected& all, const entry& e) {
    ordered_json row = ordered_json::object();
    for (const auto& [name, text] : fields_of(all, e)) {
        row[name] = text;
    }
    if (e.is_gone) {
        row["gone"] = true;
    }
    return row;
}

ordered_json issue_json(const issue& one) {
    ordered_json object = {{"id", one.id}, {"count", one.count}, {"phones", one.phones}};
    const auto add = [&](const char* name, const ordered_json& value, bool is_there) {
        if (is_there) {
            object[name] = value;
        }
    };
    add("first", one.first, one.first != 0);
    add("last", one.last, one.last != 0);
    for (const auto& [name, text] : {std::pair("first_build", one.first_build),
                                     {"last_build", one.last_build},
                                     {"type", one.type},
                                     {"package", one.package},
                                     {"line", one.line}}) {
        add(name, printable(text.substr(0, kTextBytes), ""), !text.empty());
    }
    add("new", true, one.is_new);
    return object;
}

ordered_json data_json(const collected& all) {
    ordered_json data = {{"phones", ordered_json::array()},
                         {"rows", ordered_json::array()},
                         {"issues", ordered_json::array()}};
    for (const phone& one : all.phones) {
        data["phones"].push_back(printable(one.name, ""));
    }
    for (const entry& e : all.entries) {
        ordered_json row = row_json(all, e);
        row["t"] = e.time;
        row["e"] = e.end;
        row["stack"] = printable(e.words, "");
        const auto is_empty = [](const ordered_json& value) { return value == 0 || value == ""; };
        for (const char* name : {"t", "e", "stack"}) {
            if (is_empty(row[name])) {
                row.erase(name);
            }
        }
        data["rows"].push_back(std::move(row));
    }
    for (const issue& one : all.issues) {
        data["issues"].push_back(issue_json(one));
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

std::string row_line(const collected& all, const entry& e, const std::vector<part>& parts) {
    ordered_json row = row_json(all, e);
    if (!parts.empty()) {
        row["parts"] = parts_json(parts);
    }
    return line_of(row);
}

std::string issue_line(const issue& one) {
    ordered_json object = issue_json(one);
    for (const char* name : {"first", "last"}) {
        if (object.contains(name)) {
            object[name] = format_moment(object[name]);
        }
    }
    return line_of(object);
}

}  // namespace look
