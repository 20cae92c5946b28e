#include "common/string_tokens.h"

#include "common/argument_check.h"
#include "common/xml_entities.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace {

constexpr const char* kUnit = "common/string_tokens";
constexpr std::string_view kUpperDigits = "0123456789ABCDEF";
constexpr std::string_view kLowerDigits = "0123456789abcdef";
constexpr int kHexadecimal = 16;

bool is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}
bool is_alphanumeric(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}
bool is_hex_digit(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}
// Codes 1 to 31: bytes from 128 on are text.
bool is_control(char c) {
    return static_cast<unsigned char>(c) < ' ';
}

void append_digits(std::string& out, std::uint8_t byte, std::string_view digits) {
    out += digits[byte >> 4U];
    out += digits[byte & 0x0FU];
}

std::string encode(const void* bytes, int count, std::string_view digits,
                   std::string_view separator) {
    std::string out;
    if (count < 1) {
        return out;
    }
    const auto* at = static_cast<const std::uint8_t*>(bytes);
    out.reserve(static_cast<std::size_t>(count) * (2 + separator.size()));
    append_digits(out, *at, digits);
    for (int i = 1; i < count; ++i) {
        out += separator;
        append_digits(out, at[i], digits);
    }
    return out;
}

// The byte that two alphanumeric characters give: reading stops at what is no hexadecimal digit.
char decoded_byte(char first, char second) {
    const std::array<char, 3> digits{first, second, '\0'};
    return static_cast<char>(std::strtoul(digits.data(), nullptr, kHexadecimal));
}

void append_control(std::string& out, char c, bool percent_form) {
    if (percent_form) {
        out += '%';
        append_digits(out, static_cast<std::uint8_t>(c), kUpperDigits);
    } else {
        out += c == '\t' || c == '\n' || c == '\r' ? c : '?';
    }
}

const XmlEntity* find_entity(char c) {
    for (const XmlEntity& entity : kXmlEntities) {
        if (entity.character == c) {
            return &entity;
        }
    }
    return nullptr;
}

}  // namespace

StringTokens::StringTokens(const char* text, int max_splits, const char* delimiters)
    : text_(text == nullptr ? "" : text) {
    check_argument(delimiters != nullptr, "delimiters",
                   {kUnit, 12, "StringTokens::StringTokens(const char*, int, const char*)"});
    delimiters_ = delimiters;
    split(max_splits);
}

void StringTokens::split(int max_splits) {
    std::size_t start = text_.find_first_not_of(delimiters_);
    while (start != std::string::npos) {
        if (max_splits > 0 && count() == max_splits) {
            tokens_.push_back(text_.substr(start));
            return;
        }
        const std::size_t end = text_.find_first_of(delimiters_, start);
        tokens_.push_back(text_.substr(start, end - start));
        start = text_.find_first_not_of(delimiters_, end);
    }
}

std::string StringTokens::getToken(int index) const {
    check_argument(index >= 0 && index < count(), "index < (int)tokens.size ()",
                   {kUnit, 25, "std::string StringTokens::getToken(int)"});
    return tokens_[static_cast<std::size_t>(index)];
}

char* trim_string(char* text, int mode) {
    if (text == nullptr || *text == '\0') {
        return text;
    }
    const char* start = text;
    const char* end = text + std::strlen(text);
    if ((mode & kTrimLeading) != 0) {
        while (start != end && is_space(*start)) {
            ++start;
        }
    }
    if ((mode & kTrimTrailing) != 0) {
        while (end != start && is_space(end[-1])) {
            --end;
        }
    }
    const auto length = static_cast<std::size_t>(end - start);
    std::memmove(text, start, length);
    text[length] = '\0';
    return text;
}

void ByteBuffer::append(std::uint8_t byte) {
    const auto end = static_cast<std::size_t>(count_);
    if (end == capacity_) {
        reserve(end == 0 ? 16 : end * 2);
    }
    bytes_[end] = byte;
    bytes_[end + 1] = 0;
    ++count_;
}

void ByteBuffer::reserve(std::size_t capacity) {
    if (capacity > std::size_t{1} << 30U) {
        throw std::length_error("a byte buffer of more than 1 GiB");
    }
    auto grown = std::make_unique<std::uint8_t[]>(capacity + 1);
    std::copy_n(bytes_.get(), count_, grown.get());
    bytes_ = std::move(grown);
    capacity_ = capacity;
}

std::string hex_encode_upper(const void* bytes, int count) {
    return encode(bytes, count, kUpperDigits, "");
}

std::string hex_encode(const void* bytes, int count, const char* separator) {
    return encode(bytes, count, kLowerDigits, separator == nullptr ? "" : separator);
}

bool hex_decode(const std::string& hex, ByteBuffer& buffer) {
    if (hex.size() % 2 != 0) {
        return false;
    }
    for (const char c : hex) {
        if (!is_hex_digit(c)) {
            return false;
        }
    }
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        buffer.append(static_cast<std::uint8_t>(decoded_byte(hex[i], hex[i + 1])));
    }
    return true;
}

std::string escape_xml_text(const char* text, bool percent_form) {
    std::string out;
    if (text == nullptr) {
        return out;
    }
    for (; *text != '\0'; ++text) {
        if (const XmlEntity* entity = find_entity(*text)) {
            out += entity->text;
        } else if (is_control(*text)) {
            append_control(out, *text, percent_form);
        } else {
            out += *text;
        }
    }
    return out;
}

std::string hex_to_decimal(const std::string& text) {
    const unsigned long value = std::strtoul(text.c_str(), nullptr, kHexadecimal);
    return std::to_string(static_cast<std::int32_t>(value));
}

std::string percent_decode(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool coded = text[i] == '%' && text.size() - i > 2 && is_alphanumeric(text[i + 1]) &&
                           is_alphanumeric(text[i + 2]);
        if (coded) {
            out += decoded_byte(text[i + 1], text[i + 2]);
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}
