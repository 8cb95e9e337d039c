// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utils/String8.h>

// The chip vendor's way into the audio HAL, in the closed library libaudiotoolkit. All calls block
// until the HAL has answered.

namespace android {

// The dump files that the HAL holds at present: "NAME,SIZE,NAME,SIZE...". SIZE is decimal and one
// more than the bytes there are to read.
String8 getAudioHalDumpFileList();

// Reads at most `length` bytes of the dump file `name` from `offset` on. Returns how many came: 0
// at the end and on failure. `*data`, null before the call, then points to them; the caller
// releases it with delete[], and may find it set when nothing came.
unsigned long readAudioHalDumpFileContent(char* name, unsigned char** data, unsigned long offset,
                                          unsigned long length);

// The characters, without a final NUL, that `length` bytes become when `encode` is true.
unsigned long Base64_OutputSize(bool encode, unsigned long length);

// Encodes `length` bytes into `out`, which holds Base64_OutputSize(true, length) characters, and
// writes no NUL behind them. Returns the number of characters written: any other than that size is
// a failure.
unsigned long Base64_Encode(const unsigned char* data, char* out, unsigned long length);

}  // namespace android
