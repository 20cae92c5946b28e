#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Cuts a fuzz input at its lines "%%" into `count` texts. The last one holds the rest; those that
// are missing are empty.
std::vector<std::string> cut_input(const std::uint8_t* data, std::size_t size, std::size_t count);

// The text without the white space at its ends.
std::string without_white_ends(const std::string& text);

// Ends the process: `what` must not happen, and the input at hand makes it happen.
[[noreturn]] void finding(const std::string& what);

inline void expect(bool holds, const char* what) {
    if (!holds) {
        finding(what);
    }
}
