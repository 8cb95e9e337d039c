// SPDX-License-Identifier: Apache-2.0

#include "look/symbols.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "look/crash.h"
#include "look/files.h"

namespace look {

namespace {

// The BuildId of an ELF file in hexadecimal. Its note stands near the start of the file, before the
// code.
std::string build_id_of(const fs::path& path) {
    constexpr std::string_view kNote("\3\0\0\0GNU\0", 8);  // type, name; before them the two sizes
    std::string text(64 << 10, '\0');
    const android::base::unique_fd fd = open_file(path);
    const ssize_t size = fd.ok() ? pread(fd.get(), text.data(), text.size(), 0) : 0;
    text.resize(size > 0 ? size : 0);
    const size_t at = text.find(kNote);
    if (!text.starts_with("\177ELF") || at == text.npos || at < 4) {
        return {};
    }
    std::string id;
    for (const unsigned char byte : text.substr(at + kNote.size(), text[at - 4])) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", byte);
        id += digits;
    }
    return id;
}

}  // namespace

symbols::~symbols() {
    if (from_ != nullptr) {
        fclose(from_);  // the child ends with its input
        waitpid(child_, nullptr, 0);
    }
}

void symbols::open(const fs::path& dir) {
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    for (const auto& file : fs::recursive_directory_iterator(dir, kOptions)) {
        if (const std::string id = build_id_of(file.path()); !id.empty()) {
            libraries_.emplace(id, file.path());
        }
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("no socket to llvm-symbolizer");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const char* const argv[] = {"llvm-symbolizer", "--no-inlines", nullptr};
    const int error =
        posix_spawnp(&child_, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    from_ = fdopen(ends[0], "r");
    if (error != 0) {
        throw std::runtime_error("llvm-symbolizer cannot be started; its Debian package: llvm");
    }
}

// The answer is the function, its place and an empty line; what is not known begins with "??".
const symbols::answer& symbols::ask(const fs::path& library, std::string_view address) {
    const std::string question = "\"" + library.string() + "\" 0x" + std::string(address) + "\n";
    const auto [known, is_new] = known_.try_emplace(question);
    const bool is_one =
        std::ranges::count(question, '"') == 2 && std::ranges::count(question, '\n') == 1;
    if (is_new && is_one &&
        send(fileno(from_), question.data(), question.size(), MSG_NOSIGNAL) > 0) {
        char line[4096];
        for (size_t i = 0; fgets(line, sizeof(line), from_) != nullptr && *line != '\n'; ++i) {
            const std::string_view text = std::string_view(line).substr(0, strcspn(line, "\n"));
            known->second.at(std::min<size_t>(i, 1)) = text.starts_with("??") ? "" : text;
        }
    }
    return known->second;
}

std::string symbols::name_frames(const std::string& text) {
    std::string result;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = take_line(rest);
        const native_frame frame = read_frame(line);
        const auto library = libraries_.find(std::string(frame.build_id));
        result.append(line);
        if (frame.symbol.empty() && !frame.build_id.empty() && library != libraries_.end()) {
            const auto& [name, place] = ask(library->second, frame.address);
            const size_t at = result.rfind(" (BuildId: ");
            result += place.empty() ? "" : " " + place;
            result.insert(at, name.empty() ? "" : " (" + name + ")");
        }
        result += '\n';
    }
    return result;
}

}  // namespace look
