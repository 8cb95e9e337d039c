// SPDX-License-Identifier: Apache-2.0
#include "utils/property_value.h"

#include <cutils/properties.h>

namespace brevix {

std::string property_value(const char* name, const char* fallback) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name, value, fallback);
    return value;
}

}  // namespace brevix
