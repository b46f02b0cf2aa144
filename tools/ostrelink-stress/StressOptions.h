#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace Ostrelink::Tools::Stress {

class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& text) : std::runtime_error(text) {}
};

struct StressOptions {
    std::size_t threads = 8;
    std::size_t commands = 10000;  // per thread, in the long phase
    bool network = true;
    std::string errorLogDirectory;  // empty: failures write no record (see usage)
    bool help = false;

    static StressOptions parse(int argc, char** argv);
    static const char* usage();
};

}  // namespace Ostrelink::Tools::Stress
