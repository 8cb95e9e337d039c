// SPDX-License-Identifier: Apache-2.0
#pragma once

// For tests of what happens without a thread.

#include <gtest/gtest.h>
#include <pthread.h>

namespace fixture {

// From now on none can be created: their stacks do not fit into any memory.
inline void let_threads_fail() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1} << 60);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
}

}  // namespace fixture
