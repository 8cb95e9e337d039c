// SPDX-License-Identifier: Apache-2.0

// Lets the creation of threads fail, for tests of what the product does then.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

namespace fixture {

// From now on pthread_create fails in this process: no address space holds a stack of 2^60 bytes.
inline void let_threads_fail() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1} << 60);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
}

}  // namespace fixture
