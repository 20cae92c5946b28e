#pragma once

#include <cstddef>

// How many bytes operator new was asked for last, and how many it gives at most. The operators
// themselves stand with the tests of the memory of a tree.
extern std::size_t last_allocation;
extern std::size_t most_allocation;
