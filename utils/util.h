// SPDX-License-Identifier: Apache-2.0
#pragma once

// All that the daemon and its tools share, for callers from outside.

#include "utils/base_log.h"
#include "utils/children.h"
#include "utils/directories.h"
#include "utils/retention.h"
