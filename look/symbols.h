// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <map>
#include <string>

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
    std::string ask(const std::filesystem::path& library, const std::string& address);

    std::map<std::string, std::filesystem::path> libraries_;  // by BuildId
    std::map<std::string, std::string> known_;                // by library and address
    FILE* to_ = nullptr;
    FILE* from_ = nullptr;
    pid_t child_ = 0;
};

}  // namespace look
