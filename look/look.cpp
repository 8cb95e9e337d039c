// SPDX-License-Identifier: Apache-2.0

// Shows what a phone has collected as a table, as one event or as a page for a browser.

#include <android-base/stringprintf.h>
#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "look/collected.h"
#include "look/page.h"

namespace {

using android::base::StringPrintf;
using look::collected;
using look::entry;

// Replaces bytes that are no UTF-8 and control characters, which steer a terminal, except those in
// `kept`.
std::string printable(std::string_view text, std::string_view kept = "\n\t") {
    // Not the whole process's: in it, regular expressions do not match invalid bytes.
    static const locale_t kUtf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = uselocale(kUtf8);
    std::string result;
    for (size_t at = 0, bytes = 1; at < text.size(); at += bytes) {
        wchar_t letter = 0;
        mbstate_t state{};
        bytes = mbrtowc(&letter, &text[at], text.size() - at, &state);
        bytes = bytes - 1 < text.size() ? bytes : 1;  // 0 and the errors, the highest numbers
        const bool is_kept = kept.find(text[at]) != kept.npos || iswprint(letter) != 0;
        result += is_kept ? text.substr(at, bytes) : "\uFFFD";
    }
    uselocale(before);
    return result;
}

// Also escapes "<": "</script>" in a string would end the page's script element.
std::string json(std::string_view text) {
    constexpr std::string_view kEscaped = "\"\\<\n\t";
    std::string result = "\"";
    for (const char c : printable(text)) {
        result += kEscaped.find(c) == kEscaped.npos ? std::string{c} : StringPrintf("\\u%04x", c);
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

void print_row(const row& cells) {
    constexpr const char* kForms[] = {"%5s",     "  %-19s",    "  %-8s", "  %-12s",
                                      "  %-24s", "  %-64.64s", "  %s"};
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        line += StringPrintf(kForms[i], cells[i].c_str());
    }
    std::cout << printable(line, "") << '\n';
}

void print_table(const collected& all) {
    print_row(kTitles);
    for (const entry& e : all.entries) {
        print_row(row_of(e));
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

// The more events, the less of each, so that a browser opens any page at once.
void write_page(const collected& all, const char* file) {
    constexpr size_t kPageBytes = 32 << 20;
    constexpr size_t kMaxBytes = 64 << 10;
    constexpr size_t kParts = 4;
    const size_t share = std::min(kPageBytes / kParts / (all.entries.size() + 1), kMaxBytes);
    std::ofstream out(file, std::ios::binary);
    out << look::kPage << "<script type=\"application/json\" id=\"rows\">[";
    for (const char* comma = ""; const entry& e : all.entries) {
        out << comma << "\n[" << e.time << "," << e.end;
        for (const std::string& cell : row_of(e)) {
            out << "," << json(cell.substr(0, 512));
        }
        out << "]";
        comma = ",";
    }
    // A line of its own for each entry, parsed when it is opened: all at once would take a second.
    out << "]</script>\n<script type=\"text/plain\" id=\"details\">";
    for (const entry& e : all.entries) {
        out << "[" << e.time << "," << json(e.number == 0 ? "" : all.describe(e, share)) << "]\n";
    }
    if (!(out << "</script>\n</html>\n").flush()) {
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
