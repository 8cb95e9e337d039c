// SPDX-License-Identifier: Apache-2.0

// getprop [NAME [DEFAULT]]: prints the value of a property, or DEFAULT when it is unset; without
// NAME all that are set.
#include <cutils/properties.h>

#include <cstdio>
#include <map>
#include <string>

using properties = std::map<std::string, std::string>;

int main(int argc, char* argv[]) {
    if (argc > 3) {
        fputs("usage: getprop [NAME [DEFAULT]]\n", stderr);
        return 1;
    }
    if (argc > 1) {
        char value[PROPERTY_VALUE_MAX];
        const bool is_set = property_get(argv[1], value, "") > 0;
        puts(is_set ? value : argc == 3 ? argv[2] : "");
    } else {
        properties all;
        const auto add = [](const char* name, const char* value, void* list) {
            static_cast<properties*>(list)->emplace(name, value);
        };
        property_list(add, &all);
        for (const auto& [name, value] : all) {
            printf("[%s]: [%s]\n", name.c_str(), value.c_str());
        }
    }
    if (fflush(stdout) != 0) {
        perror("getprop: standard output");
        return 1;
    }
    return 0;
}
