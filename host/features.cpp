// SPDX-License-Identifier: Apache-2.0

// The feature query: answers from the comma-separated numbers in the property "ro.zq.features".

#include <android-base/strings.h>
#include <cutils/properties.h>

#include <algorithm>
#include <string>

#include "platform/zq_feature.h"

int GetZqFeature(int feature) {
    char features[PROPERTY_VALUE_MAX];
    property_get("ro.zq.features", features, "");
    const auto numbers = android::base::Split(features, ",");
    return std::count(numbers.begin(), numbers.end(), std::to_string(feature)) > 0 ? 1 : 0;
}
