// SPDX-License-Identifier: Apache-2.0

// What a phone has collected, as a table, as one event and as a page.

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "look/collected.h"
#include "look/page.h"

namespace {

using look::collected;
using look::entry;

// Without what is no UTF-8 and what steers a terminal, but for the controls in `kept`.
std::string printable(std::string_view text, std::string_view kept = "\n\t") {
    static const locale_t kUtf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = uselocale(kUtf8);
    std::string result;
    for (size_t at = 0, bytes = 1; at < text.size(); at += bytes) {
        wchar_t letter = 0;
        mbstate_t state{};
        bytes = mbrtowc(&letter, &text[at], text.size() - at, &state);
        const bool is_letter = bytes - 1 < text.size();  // errors are the highest numbers
        bytes = is_letter ? bytes : 1;
        const bool is_kept = kept.find(text[at]) != kept.npos || iswprint_l(letter, kUtf8) != 0;
        result += is_letter && is_kept ? text.substr(at, bytes) : "\uFFFD";
    }
    uselocale(before);
    return result;
}

// In quotes, and without "<": what stands in a page's script must not end it.
std::string json(std::string_view text) {
    std::string result = "\"";
    for (const char c : printable(text)) {
        if (c == '<' || c == '\n' || c == '\t') {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", c);
            result += escape;
        } else {
            result += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        }
    }
    return result + '"';
}

using row = std::vector<std::string>;

const row kTitles = {"N", "TIME", "CATEGORY", "TYPE", "PACKAGE", "LINE", "FOLDER"};

row row_of(const entry& e) {
    const std::string folder = e.name.empty() || !e.folder.empty() ? e.name : "gone";
    const std::string mark =
        e.damage.empty() ? "" : " [" + e.damage.substr(0, e.damage.size() - 2) + "]";
    return {e.number == 0 ? "-" : std::to_string(e.number),
            look::format_moment(e.time),
            e.category,
            e.type,
            e.package,
            e.line,
            folder + mark};
}

void print_table(const collected& all) {
    const auto print = [](const row& cells) {
        const std::string line = android::base::StringPrintf(
            "%5s  %-19s  %-8s  %-12s  %-24s  %-64.64s  %s", cells[0].c_str(), cells[1].c_str(),
            cells[2].c_str(), cells[3].c_str(), cells[4].c_str(), cells[5].c_str(),
            cells[6].c_str());
        std::cout << printable(line, "") << '\n';
    };
    print(kTitles);
    for (const entry& e : all.entries) {
        print(row_of(e));
    }
}

void print_event(const collected& all, const std::string& number) {
    for (const entry& e : all.entries) {
        const row cells = row_of(e);
        if (cells[0] != number) {
            continue;
        }
        for (size_t i = 0; i < cells.size(); ++i) {
            std::cout << kTitles[i] << ": " << printable(cells[i], "") << '\n';
        }
        std::cout << printable(all.describe(e, 256 << 10));
        return;
    }
    throw std::runtime_error("there is no event " + number);
}

// The more events, the less of each: a page of any number opens at once.
void write_page(const collected& all, const char* file) {
    constexpr size_t kPageBytes = 32 << 20;
    constexpr size_t kMaxBytes = 64 << 10;
    constexpr size_t kParts = 4;
    const size_t share = std::min(kPageBytes / kParts / (all.entries.size() + 1), kMaxBytes);
    const std::string page = look::kPage;
    const size_t index = page.find("{{index}}");
    const size_t details = page.find("{{details}}");
    std::ofstream out(file, std::ios::binary);
    out << page.substr(0, index) << "[";
    const char* comma = "";
    for (const entry& e : all.entries) {
        out << std::exchange(comma, ",\n") << "[" << e.time << "," << e.end;
        for (const std::string& cell : row_of(e)) {
            out << "," << json(cell.substr(0, 512));
        }
        out << "]";
    }
    out << "]" << page.substr(index + 9, details - index - 9);
    for (const entry& e : all.entries) {
        if (e.number != 0) {
            out << "<script type=\"application/json\" id=\"d" << e.number << "\">"
                << json(all.describe(e, share)) << "</script>\n";
        }
    }
    if (!out.flush()) {
        throw std::runtime_error(std::string(file) + " cannot be written");
    }
    std::cout << file << '\n';
}

void run(const std::vector<std::string>& words) {
    if (words.size() == 2 && words[0] == "events") {
        print_table(collected(words[1]));
    } else if (words.size() == 3 && words[0] == "events") {
        print_event(collected(words[1]), words[2]);
    } else if (words.size() == 3 && words[0] == "report") {
        write_page(collected(words[1]), words[2].c_str());
    } else {
        throw std::runtime_error("usage: look events DIR [N], look report DIR FILE");
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        run({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::cerr << "look: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
