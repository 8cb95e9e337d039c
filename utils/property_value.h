// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace brevix {

// Returns the property's value, at most 91 bytes; `fallback` when it is not set or empty.
std::string property_value(const char* name, const char* fallback);

}  // namespace brevix
