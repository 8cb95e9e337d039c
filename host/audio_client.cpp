// SPDX-License-Identifier: Apache-2.0

// The audio client: records each setParameters call in a file, and returns a status set by
// property.
#define LOG_TAG "AudioSystem"

#include <android-base/logging.h>
#include <cutils/properties.h>
#include <media/AudioSystem.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

android::status_t android::AudioSystem::setParameters(int io_handle,
                                                      const String8& key_value_pairs) {
    constexpr const char* kParameters = "/vendor/audiohal/parameters";
    mkdir("/vendor/audiohal", 0755);
    std::ofstream parameters(kParameters, std::ios::app);
    parameters << io_handle << " " << key_value_pairs.c_str() << "\n" << std::flush;
    if (!parameters) {
        PLOG(ERROR) << "cannot write " << kParameters;
    }
    char status[PROPERTY_VALUE_MAX];
    property_get("host.audio.status", status, "0");
    return atoi(status);
}
