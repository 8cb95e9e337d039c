// SPDX-License-Identifier: Apache-2.0

// The part of the phone's audio client that is used here.
#pragma once

#include <utils/Errors.h>
#include <utils/String8.h>

namespace android {

class AudioSystem {
  public:
    // Hands key-value pairs to the audio service, for the stream `io_handle` or, with 0, for all.
    // Returns its answer: 0, or a negative error.
    //
    // Here the service only keeps what it is handed, one line "HANDLE TEXT" after the other in
    // /vendor/audiohal/parameters, and answers what the property "host.audio.status" says.
    static status_t setParameters(int io_handle, const String8& key_value_pairs);
};

}  // namespace android
