// SPDX-License-Identifier: Apache-2.0

#include "look/symbols.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
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
    if (child_ > 0) {
        fclose(to_);
        fclose(from_);
        waitpid(child_, nullptr, 0);
    }
}

void symbols::open(const fs::path& dir) {
    for (const auto& file : fs::recursive_directory_iterator(dir)) {
        if (const std::string id = build_id_of(file.path()); !id.empty()) {
            libraries_.emplace(id, file.path());
        }
    }
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe to llvm-symbolizer");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const char* const argv[] = {"llvm-symbolizer", "--no-inlines", nullptr};
    const int error =
        posix_spawnp(&child_, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    if (error != 0) {
        throw std::runtime_error("llvm-symbolizer cannot be started; its Debian package: llvm");
    }
    to_ = fdopen(in[1], "w");
    from_ = fdopen(out[0], "r");
}

// The answer is the function, its place and an empty line.
std::string symbols::ask(const fs::path& library, const std::string& address) {
    const std::string question = "\"" + library.string() + "\" 0x" + address + "\n";
    const auto [known, is_new] = known_.try_emplace(question);
    if (!is_new || question.find('"', 1) != question.rfind('"') ||
        fputs(question.c_str(), to_) < 0 || fflush(to_) != 0) {
        return known->second;
    }
    std::string lines[2];
    char* line = nullptr;
    size_t size = 0;
    for (size_t i = 0; getline(&line, &size, from_) > 1; ++i) {
        if (i < 2) {
            lines[i] = std::string(line, std::string_view(line).find('\n'));
        }
    }
    free(line);
    if (!lines[0].empty() && lines[0] != "??") {
        known->second = " (" + lines[0] + ")";
        known->second += lines[1].starts_with("??") ? "" : " (" + lines[1] + ")";
    }
    return known->second;
}

std::string symbols::name_frames(const std::string& text) {
    if (libraries_.empty()) {
        return text;
    }
    std::string result;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = take_line(rest);
        const native_frame frame = read_frame(line);
        const auto library = libraries_.find(std::string(frame.build_id));
        result += line;
        if (frame.symbol.empty() && !frame.build_id.empty() && library != libraries_.end()) {
            result += ask(library->second, std::string(frame.address));
        }
        result += '\n';
    }
    return result;
}

}  // namespace look
