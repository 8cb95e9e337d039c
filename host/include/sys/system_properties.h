// SPDX-License-Identifier: Apache-2.0

// Sizes of a system property, as <cutils/properties.h> needs them.
#pragma once

// Longest name by the platform's old rule, with its final NUL. Names here may be longer: a name is
// a file name, so up to 255 bytes.
#define PROP_NAME_MAX 32

// Longest value with its final NUL: 91 bytes of text.
#define PROP_VALUE_MAX 92
