#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace regsh {

enum class Kind { directory = 1, key = 2 };

// One registry entry with everything under it. A directory has children and no value, a key a value
// and no children; children stand in registry order.
struct Node {
    Kind kind = Kind::directory;
    std::string name;
    std::string value;
    std::vector<Node> children;
};

// The request is in order but cannot be done; what() is the message for the user, without the
// program's name and without a line end.
class RegistryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The command line itself is wrong.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace regsh
