#pragma once

#include <time.h>

#include <cstdint>
#include <map>
#include <string>

// Event detection: files that the platform puts into the watched directories become event folders.

// --- Settings ------------------------------------------------------------------------------------

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

    int32_t wd;  // the present watch descriptor, 0 before the first, -1 after a failed add
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

// --- Operations ---------------------------------------------------------------------------------

// Notes the reboot in the history, saves the preserved console log of the boot before, and
// subscribes detection and its categories to their switches. For the main thread, once, before any
// watcher. Returns 0. Throws std::invalid_argument or std::out_of_range when
// "persist.service.brevix.ev.num" is not an int.
int ZQEventDetect();

// Handler of "persist.service.event.detect" (see ZQSubscribe): starts a watcher thread, or stops
// watching and has the thread end. The files that came before the stop are still collected, by that
// thread or the next one; nothing waits for that.
void event_detecting(const char* name, bool on);

// Handler of the categories' switches: opens or shuts every category whose property is `name`.
void available_changed(const char* name, bool on);

// SIGTERM on a watcher thread ends that thread; on any other thread it ends the process.
void event_sig_handler(int sig);

// A watcher thread's body, to be started with SIGTERM blocked: the thread takes that signal only
// where it waits, holding nothing. The argument is not used. Never returns.
void* start_event_detecting(void*);

enum class collect_result {
    done,      // handled, or given up for good
    next_row,  // no event folder could be made: a later row may try
};

// Makes the event folder for the file `name` of the watched directory and tells the app. `base` is
// the log directory, ending in "/". Blocks for the copies and, for watchdogs and system crashes, up
// to 10 seconds more for the log snapshot. For watcher threads, one at a time. Failures are logged.
// Throws std::filesystem::filesystem_error when the category's directory vanishes meanwhile.
collect_result collect_event(const std::string& base, const event_watch& watch, int64_t row,
                             const std::string& name, const customize_settings& settings);

// Appends a line to "/data/logs/history.event" and, with a directory, first a report to its
// "eventfile". `dir` is null for a line alone, and only then may `name` be null; an empty `name`
// has no line in the report. `time` is local. A file that cannot be opened is logged; write errors
// are not reported. Any thread: files are opened anew, for appending.
void write_history_event(const char* event, const char* type, const char* dir, const char* name,
                         const tm& time);
