// SPDX-License-Identifier: Apache-2.0

// getprop [NAME [DEFAULT]]: prints the value of a property, or DEFAULT when it is unset; without
// NAME all that are set.
#include <cutils/properties.h>
#include <err.h>

#include <cstdio>
#include <map>
#include <string>

using properties = std::map<std::string, std::string>;

int main(int argc, char* argv[]) {
    if (argc > 3) {
        errx(1, "usage: getprop [NAME [DEFAULT]]");
    }
    properties all;
    if (argc > 1) {
        char value[PROPERTY_VALUE_MAX];
        property_get(argv[1], value, argc == 3 ? argv[2] : "");
        puts(value);
    } else {
        const auto add = [](const char* name, const char* value, void* list) {
            static_cast<properties*>(list)->emplace(name, value);
        };
        property_list(add, &all);
    }
    for (const auto& [name, value] : all) {
        printf("[%s]: [%s]\n", name.c_str(), value.c_str());
    }
    if (fflush(stdout) != 0) {
        err(1, "standard output");
    }
    return 0;
}
