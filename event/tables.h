#pragma once

#include <cstdint>
#include <map>
#include <string>

// What is watched, what its file names mean, and where the events go.

// The root of all that is collected, ending in "/".
inline constexpr const char* kBaseLogDir = "/data/logs/";

// An event category.
class customize_settings {
  public:
    std::string log_dir;     // folder below /data/logs/ that holds its event folders
    std::string prop;        // its switch property
    bool available = false;  // that switch, as last delivered; atomic accesses only
};

// By category, "CRASH" and "CUSTOM". Its structure never changes after start-up.
extern std::map<std::string, customize_settings> event_settings;

// A watched directory and what its file names mean. A row matches a name that contains its pattern.
struct event_watch {
    static constexpr int kMaxRows = 32;

    int32_t wd;  // the present watch descriptor, 0 before the first, -1 while there is no watch
    uint32_t mask;
    const char* path;
    int64_t count;  // of rows in use; the others are null
    const char* type[kMaxRows];
    const char* pattern[kMaxRows];
    const char* category[kMaxRows];
};

extern event_watch event_watches[2];

// Event folders kept per name prefix, and entries of the staging folder. Set by ZQEventDetect, only
// read afterwards.
extern int event_num_limit;
