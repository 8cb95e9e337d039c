// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_UPGRADE"

#include "utils/upgrade.h"

#include <android-base/logging.h>
#include <cutils/properties.h>

#include <string>

#include "utils/property_value.h"

namespace {

constexpr const char* kVersionProperty = "persist.service.brevix.version";
constexpr int kVersion = 1;

struct migration_rule {
    const char* property;
    const char* old_default;  // an unset property counts as holding it
    const char* new_default;
};

// clang-format off
constexpr migration_rule kMigrationRules[] = {
    {"persist.sys.apklogfs.size",           "2",    "5"},
    {"persist.sys.apklogfs.rotate_kbytes",  "6000", "20000"},
    {"persist.sys.kmsglogfs.rotate_kbytes", "2000", "6000"},
};
// clang-format on

void migrate(const migration_rule& rule) {
    if (brevix::property_value(rule.property, rule.old_default) == rule.old_default) {
        property_set(rule.property, rule.new_default);
    }
}

}  // namespace

int ZQCheckUpgrade() {
    const std::string value = brevix::property_value(kVersionProperty, "0");
    const int old = std::stoi(value);
    if (old == kVersion) {
        return 0;
    }
    LOG(INFO) << "upgrade from " << value << " to " << kVersion;
    if (old != 0) {
        // An unknown version stays, so that every start logs it; only its decimal form is
        // normalised.
        property_set(kVersionProperty, std::to_string(old).c_str());
        return 0;
    }
    for (const migration_rule& rule : kMigrationRules) {
        migrate(rule);
    }
    property_set(kVersionProperty, std::to_string(kVersion).c_str());
    return 0;
}
