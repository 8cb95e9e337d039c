// SPDX-License-Identifier: Apache-2.0
#pragma once

// The device maker's table of hardware features, in the closed library libzqf.

extern "C" {

// Whether this device has the feature: the lowest bit of the result; the others mean nothing.
int GetZqFeature(int feature);
}
