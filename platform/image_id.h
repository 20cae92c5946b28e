#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

// No identity could be read: the text is too short, or neither identity file gives one.
class ImageIDException : public std::exception {
public:
    // `message` is kept as a pointer: it must live as long as the exception and its copies.
    explicit ImageIDException(const char* message) : message_(message) {}
    const char* what() const noexcept override { return message_; }

private:
    const char* message_;
};

// How an identifier of one prefix letter is cut up.
struct ImageIDFormat {
    char prefix;
    std::size_t number_offset;
    std::size_t code_offset;
    std::size_t code_length;
};

// Which build of the operating system runs: a small value, copied freely.
class ImageID {
public:
    // Not valid yet: type 10, all texts empty.
    ImageID() = default;

    // Parses and classifies the first 8 characters of an identifier. Throws ImageIDException when
    // there are fewer. `text` must not be null.
    explicit ImageID(const char* text);

    // Parses the first 8 characters of a file. Throws ImageIDException when it cannot be opened or
    // holds fewer before its first NUL.
    static ImageID from_file(const std::string& path);

    // The identity that /etc/systeminfo gives; not valid when it does not settle one. Never throws.
    static ImageID from_systeminfo() noexcept;

    // /etc/systeminfo first, then /etc/imageid. Throws ImageIDException when neither gives one.
    static ImageID current();

    std::int32_t number() const { return number_; }
    std::int32_t type() const { return type_; }
    const char* code() const { return code_.data(); }
    std::int32_t arch() const { return arch_; }
    const char* text() const { return text_.data(); }
    const char* prefix() const { return prefix_.data(); }
    // The row that cut the text up, of static storage; null for an identity that no text gave.
    const ImageIDFormat* format() const { return format_; }
    bool valid() const { return valid_; }

private:
    struct SystemInfo;  // what /etc/systeminfo says of the product

    void cut_up();
    void classify();
    void classify_product(const SystemInfo& info);

    std::array<char, 9> text_{};  // the first 8 characters of the identifier
    const ImageIDFormat* format_ = nullptr;
    std::array<char, 2> prefix_{};  // the first character
    std::array<char, 4> code_{};    // platform code, or "T" / "Z" from /etc/systeminfo
    std::int32_t number_ = 0;       // build number; -1 when it is no clean decimal number
    std::int32_t type_ = 10;        // image type, 1 to 10
    std::int32_t arch_ = 0;         // 1 for a third character "a" or "A", else 2
    bool valid_ = false;            // a type has been assigned
};
