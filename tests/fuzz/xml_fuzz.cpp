// Any text parses or is refused with NTiXmlException. What was printed and is accepted again prints
// to the same text, unless entities are in play: comments and other markup print them decoded.
#include "common/tinyxml.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

namespace {

std::optional<std::string> print_parsed(const std::string& text) {
    NTiXmlDoc document(text, false);
    try {
        document.Parse(nullptr);
    } catch (const NTiXmlException&) {
        return std::nullopt;
    }
    return ToString(document);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<std::string> printed = print_parsed(text);
    if (!printed || printed->empty()) {
        return 0;
    }
    const std::optional<std::string> again = print_parsed(*printed);
    if (again && text.find('&') == std::string::npos && *again != *printed) {
        std::abort();
    }
    return 0;
}
