#pragma once

#include <string>
#include <vector>

namespace regsh {

// Every status the program ends with.
enum class Status {
    success = 0,
    failure = 1,  // not there, refused, or not possible
    usage = 2,    // the command line is wrong
};

// Runs the command line (without the program's name): answers go to standard output, messages to
// standard error. Throws nothing that belongs to the registry.
Status run(const std::vector<std::string>& words);

}  // namespace regsh
