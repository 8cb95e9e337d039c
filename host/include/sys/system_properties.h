// SPDX-License-Identifier: Apache-2.0

// Sizes of a system property that <cutils/properties.h> needs.
#pragma once

// The platform's old limit of a name, with its final NUL. Names here may have up to 255 bytes, the
// length of a file name.
#define PROP_NAME_MAX 32

// The longest value with its final NUL: 91 bytes of text.
#define PROP_VALUE_MAX 92
