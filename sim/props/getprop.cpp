// getprop: the handset's command-line property reader. With a key it prints that property's value
// (or the given default) and a newline; with no argument it lists every property as "[name]: [value]"
// lines sorted by name, read straight from the property area.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <vector>

#include "cutils/properties.h"
#include "init/prop_store.h"

int main(int argc, char **argv) {
    if (argc > 3) {
        fprintf(stderr, "usage: getprop [<key> [<default>]]\n");
        return 1;
    }
    if (argc == 1) {
        std::vector<prop_entry> all;
        int err = prop_store_list(PROP_AREA_DIR, &all);
        if (err != 0) {
            fprintf(stderr, "getprop: can't read %s: %s\n", PROP_AREA_DIR, strerror(err));
            return 1;
        }
        for (const prop_entry &entry : all)
            printf("[%s]: [%s]\n", entry.m_key.c_str(), entry.m_value.c_str());
        return 0;
    }
    char value[PROPERTY_VALUE_MAX];
    property_get(argv[1], value, argc == 3 ? argv[2] : "");
    printf("%s\n", value);
    return 0;
}
