// SPDX-License-Identifier: Apache-2.0

// Stands in for libFuzzer: runs a target over the files of a folder, its seeds and found cases.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int /*argc*/, char* argv[]) {
    int status = 1;  // a target without inputs fails
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        // Sized exactly, so that the address sanitizer sees a read behind the input.
        const std::vector<uint8_t> input(std::istreambuf_iterator<char>(file), {});
        LLVMFuzzerTestOneInput(input.data(), input.size());
        status = 0;
    }
    return status;
}
