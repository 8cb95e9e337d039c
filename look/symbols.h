// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace look {

// Names native frames by llvm-symbolizer, which runs as a child and is asked frame by frame.
class symbols {
  public:
    symbols() = default;
    symbols(const symbols&) = delete;
    symbols& operator=(const symbols&) = delete;
    ~symbols();

    // Finds the libraries below `dir` by their BuildId and starts the child. Throws
    // std::runtime_error when there is no such directory or the child does not start.
    void open(const std::filesystem::path& dir);

    // Returns `text` with a name in each frame that has none; what is not found stays as it is.
    std::string name_frames(const std::string& text);

  private:
    using answer = std::array<std::string, 2>;  // function and place

    const answer& ask(const std::filesystem::path& library, std::string_view address);

    std::map<std::string, std::filesystem::path> libraries_;  // by BuildId
    std::map<std::string, answer> known_;                     // by question
    FILE* from_ = nullptr;                                    // a socket; questions go there, too
    pid_t child_ = 0;
};

}  // namespace look
