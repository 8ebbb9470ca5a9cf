// Makes the content of a share for the demonstration, and changes it.
//
//   appliance_tree make FOLDER SEED     modes, owners, access lists and nanosecond times of all kinds
//   appliance_tree change FOLDER SEED   changes about every fourth file, adds three

#include "appliance_support.h"

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char **argv) {
    const std::string action = argc == 4 ? argv[1] : "";
    if (action != "make" && action != "change") {
        std::fprintf(stderr, "usage: %s make|change FOLDER SEED\n", argv[0]);
        return 2;
    }
    const std::uint64_t seed = std::strtoull(argv[3], nullptr, 10);
    if (action == "change") {
        tsbackup::test::change_tree(argv[2], seed);
        return 0;
    }
    tsbackup::test::TreeOptions options;
    options.seed = seed;
    tsbackup::test::make_tree(argv[2], options);
    return 0;
}
