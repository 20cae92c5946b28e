#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Cuts a text at any of a set of delimiter characters. Runs of delimiters yield no empty tokens,
// and leading and trailing ones are skipped.
class StringTokens {
public:
    // `text` may be null, which is an empty text. With `max_splits` above 0 that many tokens are
    // cut off and one more holds the unsplit rest, delimiters included; 0 or less is unlimited.
    // `delimiters` must not be null; every character in it is a delimiter. Both are copied.
    StringTokens(const char* text, int max_splits, const char* delimiters);

    // A copy of the token at `index`. An index outside 0 .. count() - 1 ends the process by the
    // assertion "index < (int)tokens.size ()".
    std::string getToken(int index) const;

    int count() const { return static_cast<int>(tokens_.size()); }

private:
    void split(int max_splits);

    std::vector<std::string> tokens_;
    std::string text_;
    std::string delimiters_;
};

// What trim_string cuts; the bits may be combined.
inline constexpr int kTrimLeading = 1;
inline constexpr int kTrimTrailing = 2;
inline constexpr int kTrimBoth = 3;

// Removes white space (isspace, line feed, carriage return) at the ends that `mode` names, in
// place. Returns `text`; a null or empty text is returned as it is.
char* trim_string(char* text, int mode);

// Bytes that hex_decode fills. The array always holds one NUL behind its `count` bytes; it is null
// until the first byte is appended. It grows in step with the data, to 1 GiB at most
// (std::length_error).
class ByteBuffer {
public:
    const std::uint8_t* bytes() const { return bytes_.get(); }
    std::int32_t count() const { return count_; }
    void append(std::uint8_t byte);

private:
    void reserve(std::size_t capacity);

    std::unique_ptr<std::uint8_t[]> bytes_;
    std::int32_t count_ = 0;
    std::size_t capacity_ = 0;  // bytes that fit before the NUL
};

// Two upper-case hexadecimal digits for each byte, without a separator; empty for a count below 1.
std::string hex_encode_upper(const void* bytes, int count);

// Two lower-case digits for each byte with `separator` between bytes, none when it is null. Empty
// for a count below 1.
std::string hex_encode(const void* bytes, int count, const char* separator);

// Appends the decoded bytes to `buffer`. False, and nothing appended, for an odd length or any
// character that is not a hexadecimal digit; an empty text is true.
bool hex_decode(const std::string& hex, ByteBuffer& buffer);

// Replaces the five markup characters by their entities. Control characters (1 to 31) become "%XX"
// with `percent_form`; without it tab, line feed and carriage return stay and any other becomes
// "?". All other bytes stay. A null text gives "".
std::string escape_xml_text(const char* text, bool percent_form);

// Reads hexadecimal text as %x does and writes the number as signed decimal; "0" when nothing could
// be read.
std::string hex_to_decimal(const std::string& text);

// Replaces each "%" that two alphanumeric characters follow by the byte that they give as
// hexadecimal (what is no hexadecimal digit ends the number, and no digit at all gives a NUL). Any
// other "%" stays.
std::string percent_decode(const std::string& text);
