// SPDX-License-Identifier: Apache-2.0

// The part of the phone's audio client that the product uses.
#pragma once

#include <utils/Errors.h>
#include <utils/String8.h>

namespace android {

class AudioSystem {
  public:
    // Sends key-value pairs to the audio service, for the stream `io_handle` or, with 0, for all
    // streams. Returns the service's answer: 0, or a negative error.
    //
    // This stand-in appends a line "HANDLE TEXT" to /vendor/audiohal/parameters and returns the
    // number in the property "host.audio.status", 0 when that is unset.
    static status_t setParameters(int io_handle, const String8& key_value_pairs);
};

}  // namespace android
