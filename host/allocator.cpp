// SPDX-License-Identifier: Apache-2.0

// The platform's allocator may write errno also when it succeeds.

#include <cerrno>
#include <cstdlib>
#include <new>

void* operator new(size_t bytes) {
    void* const memory = malloc(bytes > 0 ? bytes : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    errno = EINVAL;
    return memory;
}
