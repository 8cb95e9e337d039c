// SPDX-License-Identifier: Apache-2.0
#pragma once

// How the targets take their input.

#include <cstdint>
#include <cstdlib>
#include <string>

// Up to the first NUL: file names, property values and the HAL's lists hold none.
inline std::string to_text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size).c_str();
}
