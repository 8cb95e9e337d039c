// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

// The watched directories, the meaning of their file names, and the event categories.

namespace brevix {

// The root of all that is collected, ending in "/".
inline constexpr const char* kBaseLogDir = "/data/logs/";

}  // namespace brevix

// An event category.
struct customize_settings {
    std::string log_dir;     // folder below /data/logs/ that holds its event folders
    std::string prop;        // the property that switches it
    bool available = false;  // state of that switch; accessed atomically
};

// By category key, "CRASH" and "CUSTOM". Entries are never added or removed.
extern std::map<std::string, customize_settings> event_settings;

// A watched directory. A file belongs to the first row whose pattern its name contains.
struct event_watch {
    static constexpr int kMaxRows = 32;

    int32_t wd;  // watch descriptor, 0 before the first watch, -1 without one
    uint32_t mask;
    const char* path;
    int64_t count;  // rows in use; the others are null
    const char* type[kMaxRows];
    const char* pattern[kMaxRows];
    const char* category[kMaxRows];
};

extern event_watch event_watches[2];

namespace brevix {

// The permission bits that the platform's init gives these directories.
inline constexpr mode_t kLeastModes[] = {0700, 0771};

}  // namespace brevix

// Maximum of event folders per name prefix and of entries in the staging folder. Written once, by
// ZQEventDetect.
extern int event_num_limit;
