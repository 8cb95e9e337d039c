// SPDX-License-Identifier: Apache-2.0
#pragma once

// Brings the capture settings of a device of the old settings scheme to the current defaults, once,
// and notes that in "persist.service.brevix.version". A setting that was changed by hand is left
// alone. Called at daemon start, before anything reads the settings. Returns 0. Throws
// std::invalid_argument when the version is not a number, std::out_of_range when it is no int.
int ZQCheckUpgrade();
