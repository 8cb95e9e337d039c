#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace soak {

// What the soak asks the device to keep of captures, and in files how large.
inline constexpr int kCapturesKept = 3;
inline constexpr int kRotatedFiles = 3;
inline constexpr long kRotateKbytes = 64;
inline constexpr int kPacketFiles = 3;

inline constexpr const char* kCaptures = "/data/logs/general_log/";
inline constexpr const char* kStaging = "/data/brevix/eventTemp/";

// --- Properties ----------------------------------------------------------------------------------

inline constexpr const char* kProperties = "/dev/__properties__";

// Throws when it cannot.
void set(const std::string& property, const std::string& value);

// --- Processes -----------------------------------------------------------------------------------

struct figures {
    size_t threads;
    std::vector<std::string> descriptors;  // what they stand for, sorted
    long pss_kb;
    long private_kb;
    long anonymous_kb;
};

figures figures_of(pid_t pid);

// --- Files ---------------------------------------------------------------------------------------

class growing_file {
  public:
    explicit growing_file(std::string path) : path_(std::move(path)) {}

    // The whole lines that have come since the last call.
    std::vector<std::string> read();

  private:
    std::string path_;
    size_t offset_ = 0;
};

// What is on the device against the contract, a line each, while nothing changes it. `events` are
// the folders of all events in the order of the history.
std::vector<std::string> check_files(const std::vector<std::string>& events);

size_t count_files();

std::string newest_capture();
int count_of_capture(const std::string& path);

}  // namespace soak
