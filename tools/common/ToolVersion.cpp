#include "ToolVersion.h"

#include <cstring>
#include <iostream>

bool ToolVersion::printIfAsked(const char* tool, int argc, char** argv) {
    if (argc < 2 || (std::strcmp(argv[1], "--version") != 0 && std::strcmp(argv[1], "-V") != 0)) {
        return false;
    }
    std::cout << tool << ' ' << OSTRELINK_VERSION << std::endl;
    return true;
}
