// getprop [NAME [DEFAULT]]: prints the value of a property, or the list of all that are set.
#include <cutils/properties.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

using properties = std::map<std::string, std::string>;

int print_list() {
    properties all;
    const auto add = [](const char* name, const char* value, void* list) {
        static_cast<properties*>(list)->emplace(name, value);
    };
    if (property_list(add, &all) != 0) {
        perror("getprop: cannot list the properties");
        return 1;
    }
    for (const auto& [name, value] : all) {
        printf("[%s]: [%s]\n", name.c_str(), value.c_str());
    }
    return 0;
}

int print_one(const char* name, const char* fallback) {
    char value[PROPERTY_VALUE_MAX];
    const bool is_set = property_get(name, value, nullptr) > 0;
    puts(is_set ? value : fallback);
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc > 3) {
        fputs("usage: getprop [NAME [DEFAULT]]\n", stderr);
        return 1;
    }
    const int status = argc == 1 ? print_list() : print_one(argv[1], argc == 3 ? argv[2] : "");
    if (fflush(stdout) != 0) {
        perror("getprop: standard output");
        return 1;
    }
    return status;
}
