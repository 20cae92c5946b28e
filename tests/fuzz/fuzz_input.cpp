#include "tests/fuzz/fuzz_input.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

std::vector<std::string> cut_input(const std::uint8_t* data, std::size_t size, std::size_t count) {
    constexpr std::string_view border = "\n%%\n";
    std::string_view left(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> texts;
    while (texts.size() + 1 < count) {
        const std::size_t end = left.find(border);
        texts.emplace_back(left.substr(0, end));
        left = end == std::string_view::npos ? "" : left.substr(end + border.size());
    }
    texts.emplace_back(left);
    return texts;
}

std::string without_white_ends(const std::string& text) {
    constexpr const char* white = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(white);
    const std::size_t last = text.find_last_not_of(white);
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

void finding(const std::string& what) {
    std::fprintf(stderr, "finding: %s\n", what.c_str());
    std::abort();
}
