// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace soak {

// What the soak asks the device to keep of captures, and in files how large.
inline constexpr int kCapturesKept = 3;
inline constexpr int kRotatedFiles = 3;
inline constexpr long kRotateKbytes = 64;

inline constexpr const char* kCaptures = "/data/logs/general_log/";
inline constexpr const char* kStaging = "/data/brevix/eventTemp/";

// What is on the device against the contract, a line each, while nothing changes it. `events` are
// the folders of all events in the order of the history.
std::vector<std::string> check_files(const std::vector<std::string>& events);

}  // namespace soak
