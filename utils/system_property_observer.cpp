// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "ZQ_OBSERVER"

#include "utils/system_property_observer.h"

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <pthread.h>

#include <chrono>
#include <map>
#include <mutex>
#include <vector>

namespace {

using handler_function = void (*)(const char* name, bool on);

std::mutex mutex;  // guards `handlers`, and is held while they run

// Keyed by the pointer: two pointers to equal texts are two subscriptions on purpose.
std::map<const char*, std::vector<handler_function>> handlers;

void call_handlers(const char* name, bool on) {
    const std::lock_guard lock(mutex);
    for (const handler_function handler : handlers[name]) {
        handler(name, on);
    }
}

void* callback(void* name_pointer) {
    const auto* name = static_cast<const char*>(name_pointer);
    bool on = false;
    while (true) {
        const char* expected = on ? "0" : "1";
        if (android::base::WaitForProperty(name, expected, std::chrono::milliseconds::max())) {
            LOG(INFO) << name << " changed to " << expected;
            on = !on;
            call_handlers(name, on);
        }
    }
}

// Returns whether it is the name's first.
bool add_handler(const char* name, handler_function handler) {
    const std::lock_guard lock(mutex);
    std::vector<handler_function>& subscribed = handlers[name];
    subscribed.push_back(handler);
    return subscribed.size() == 1;
}

}  // namespace

void ZQSubscribe(const char* name, void (*handler)(const char* name, bool on)) {
    if (!add_handler(name, handler)) {
        return;
    }
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, callback, const_cast<char*>(name)) == 0) {
        pthread_detach(thread);
    }
}
