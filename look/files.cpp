// SPDX-License-Identifier: Apache-2.0

#include "look/files.h"

#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <wctype.h>
#include <zlib.h>

#include <algorithm>
#include <cwchar>
#include <tuple>

namespace look {

namespace {

// Characters that turn the direction of the text around them: "gpj.exe" reads as another name.
bool turns_text(wchar_t c) {
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string_view take_line(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

std::string_view between(std::string_view text, std::string_view mark, std::string_view end) {
    const size_t at = text.find(mark);
    if (at == text.npos) {
        return {};
    }
    text.remove_prefix(at + mark.size());
    return text.substr(0, text.find(end));
}

std::string printable(std::string_view text, std::string_view kept) {
    static const locale_t kUtf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = uselocale(kUtf8);
    std::string result;
    for (size_t at = 0, bytes = 1; at < text.size(); at += bytes) {
        if (text[at] >= ' ' && text[at] <= '~') {
            bytes = 1;
            result += text[at];
            continue;
        }
        wchar_t letter = 0;
        mbstate_t state{};
        bytes = mbrtowc(&letter, &text[at], text.size() - at, &state);
        const bool is_valid = bytes - 1 < text.size();  // 0 and the errors, the highest numbers
        bytes = is_valid ? bytes : 1;
        const bool is_kept = kept.find(text[at]) != kept.npos ||
                             (is_valid && iswprint(letter) != 0 && !turns_text(letter));
        result += is_kept ? text.substr(at, bytes) : "\uFFFD";
    }
    uselocale(before);
    return result;
}

std::string shortened(std::string text, size_t max_bytes) {
    if (text.size() > max_bytes) {
        text.resize(max_bytes);
        text += "\n[cut]\n";
    }
    return text;
}

android::base::unique_fd open_file(const fs::path& path) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;  // a FIFO blocks open()
    android::base::unique_fd fd(open(path.c_str(), kFlags));
    struct stat about {};
    if (fd.ok() && (fstat(fd.get(), &about) != 0 || !S_ISREG(about.st_mode))) {
        fd.reset();
        errno = ENOENT;
    }
    return fd;
}

std::string damage_of(const std::string& name, int error) {
    const bool is_none = error == ENOENT || error == ELOOP || error == ENOTDIR;
    return is_none ? "no " + name + "; " : name + " cannot be read; ";
}

std::vector<fs::path> entries_of(const fs::path& dir, int* error) {
    std::error_code code;
    std::vector<fs::path> paths;
    const bool is_link = fs::is_symlink(dir, code);
    if (!code && !is_link) {
        for (fs::directory_iterator at(dir, code), end; !code && at != end; at.increment(code)) {
            paths.push_back(at->path());
        }
    }
    if (error != nullptr) {
        *error = is_link ? ELOOP : code.value();
    }
    std::ranges::sort(paths);
    return paths;
}

std::string read_head(const fs::path& path, size_t max_bytes, std::string& damage) {
    const std::string name = path.filename();
    android::base::unique_fd fd = open_file(path);
    const gzFile file = fd.ok() ? gzdopen(fd.get(), "rb") : nullptr;
    if (file == nullptr) {
        damage += damage_of(name, errno);
        return {};
    }
    std::ignore = fd.release();  // gzclose() closes it
    std::string text;
    char buffer[4096];  // one large read would lose what comes before a broken part
    int bytes = 0;
    while (text.size() <= max_bytes && (bytes = gzread(file, buffer, sizeof(buffer))) > 0) {
        text.append(buffer, bytes);
    }
    int status = Z_OK;
    gzerror(file, &status);
    if (status != Z_OK) {
        damage += name + " is broken; ";
    } else if (name.ends_with(".gz") && gzdirect(file) != 0) {
        damage += name + " is no gzip; ";
    }
    gzclose(file);
    return shortened(std::move(text), max_bytes);
}

}  // namespace look
