// What a codec writes is read back: hexadecimal digits, percent forms, entities, shell words.
#include "common/string_tokens.h"
#include "common/tinyxml.h"
#include "platform/command_runner.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/shell_line.h"

namespace {

void check_hex(const std::string& bytes) {
    ByteBuffer decoded;
    const std::string hex = hex_encode_upper(bytes.data(), static_cast<int>(bytes.size()));
    expect(hex_decode(hex, decoded), "digits are refused");
    const auto* begin = reinterpret_cast<const char*>(decoded.bytes());
    expect(std::string(begin, begin + decoded.count()) == bytes, "other bytes");
    const std::string coded = hex_encode(bytes.data(), static_cast<int>(bytes.size()), "%");
    expect(bytes.empty() || percent_decode("%" + coded) == bytes, "other percent forms");
    ByteBuffer given;
    expect(!hex_decode(bytes, given) || given.count() * 2 == static_cast<int>(bytes.size()),
           "another count of bytes");
}

void check_text(const std::string& text) {
    std::string read;
    const std::string escaped = escape_xml_text(text.c_str(), true) + "<";
    expect(ReadText(escaped.c_str(), read, "<") != nullptr, "an escaped text is refused");
    expect(text.find_first_of("% ") != std::string::npos || percent_decode(read) == text,
           "another text");
    const auto commands = shell_commands("regsh " + shell_word(text));
    expect(text.empty() || commands == std::vector<Words>{{"regsh", text}}, "another word");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    check_hex(bytes);
    check_text(bytes.c_str());
    return hex_to_decimal(bytes).empty() ? 1 : 0;
}
