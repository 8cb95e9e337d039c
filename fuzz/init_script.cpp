// Scripts of the device's init.

#include <cstdlib>

#include "host/init/script.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const init::parsed parsed = init::parse({{"f", {reinterpret_cast<const char*>(data), size}}});
    if (!parsed.errors.empty()) {
        return 0;
    }
    // What init relies on without a further look.
    for (const auto& [name, service] : parsed.result.services) {
        if (service.arguments.empty() || service.arguments[0][0] != '/') {
            abort();
        }
    }
    for (const init::action& action : parsed.result.actions) {
        if (action.event.empty() && action.properties.empty()) {
            abort();
        }
        for (const init::command& line : action.commands) {
            const bool is_mkdir = line.what == init::verb::mkdir;
            if (is_mkdir && (line.arguments.size() != 4 || !init::mode_of(line.arguments[1]) ||
                             !init::user_named(line.arguments[2]))) {
                abort();
            }
            if (line.what == init::verb::start &&
                !parsed.result.services.contains(line.arguments.at(0))) {
                abort();
            }
        }
    }
    return 0;
}
