#include "platform/image_id.h"

#include "common/file_handle.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr const char* kSystemInfo = "/etc/systeminfo";
constexpr const char* kImageId = "/etc/imageid";
constexpr std::size_t kTextLength = 8;

constexpr std::array<ImageIDFormat, 4> kFormats{{
    {'D', 4, 2, 2},
    {'M', 4, 2, 2},
    {'T', 6, 3, 3},
    {'Z', 6, 3, 3},
}};
constexpr const ImageIDFormat* kDefaultFormat = &kFormats[2];

constexpr std::int32_t kHighest = 10000;  // a number has four digits at most

struct CodeRow {
    const char* code;
    std::int32_t lowest;
    std::int32_t highest;
    std::int32_t type;
};
constexpr std::array<CodeRow, 18> kCodes{{
    {"ST", 0, 19, 1},
    {"ST", 20, kHighest, 4},
    {"JP", 0, 10, 1},
    {"JP", 11, kHighest, 4},
    {"TH", 0, 4, 1},
    {"TH", 5, kHighest, 4},
    {"SQ", 0, kHighest, 2},
    {"QU", 0, kHighest, 3},
    {"K2", 0, kHighest, 4},
    {"AR", 0, kHighest, 5},
    {"CL", 0, kHighest, 5},
    {"KR", 0, kHighest, 5},
    {"310", 0, kHighest, 5},
    {"320", 0, kHighest, 5},
    {"321", 0, kHighest, 5},
    {"330", 0, kHighest, 5},
    {"410", 0, kHighest, 7},
    {"400", 0, kHighest, 6},
}};

// The type of an identifier that no code row names.
struct PrefixRow {
    char prefix;
    std::int32_t type;
};
constexpr std::array<PrefixRow, 4> kPrefixes{{{'D', 5}, {'M', 5}, {'T', 6}, {'Z', 6}}};
constexpr std::int32_t kUnknownPrefixType = 5;

// What a version's first character stands for.
struct VersionRow {
    char first;
    std::int32_t type;
};
constexpr std::array<VersionRow, 5> kStandardVersions{
    {{'3', 5}, {'4', 7}, {'5', 8}, {'6', 9}, {'7', 10}}};
constexpr std::array<VersionRow, 3> kZeroVersions{{{'5', 8}, {'6', 9}, {'7', 10}}};
constexpr std::int32_t kOldZeroType = 6;

template <std::size_t size>
const VersionRow* find_version(const std::array<VersionRow, size>& rows, char first) {
    const auto* row = std::find_if(rows.begin(), rows.end(),
                                   [first](const VersionRow& r) { return r.first == first; });
    return row == rows.end() ? nullptr : row;
}

// Fixed buffers: reading the product description must not fail for want of memory.
using InfoText = std::array<char, 1024>;

struct InfoKey {
    std::string_view key;
    InfoText* value;
};

void take_value(std::string_view line, std::size_t at, const InfoKey& key) {
    constexpr std::size_t quotes_and_newline = 3;
    const std::size_t dropped = key.key.size() + quotes_and_newline;
    const std::size_t length = line.size() > dropped ? line.size() - dropped : 0;
    const std::size_t start = std::min(at + key.key.size() + 1, line.size());
    const std::string_view value = line.substr(start, length);
    key.value->fill('\0');
    value.copy(key.value->data(), key.value->size() - 1);
}

// The first key that the line contains takes the line.
void take_line(std::string_view line, const std::array<InfoKey, 3>& keys) {
    for (const InfoKey& key : keys) {
        const std::size_t at = line.find(key.key);
        if (at != std::string_view::npos) {
            take_value(line, at, key);
            return;
        }
    }
}

bool equals_ignoring_case(const InfoText& text, const char* wanted) {
    return strcasecmp(text.data(), wanted) == 0;
}

}  // namespace

struct ImageID::SystemInfo {
    InfoText name{};
    InfoText configuration{};
    InfoText version{};
};

ImageID::ImageID(const char* text) {
    const std::size_t length = strnlen(text, kTextLength);
    if (length < kTextLength) {
        throw ImageIDException("Invalid Image ID");
    }
    std::copy_n(text, kTextLength, text_.begin());
    cut_up();
    classify();
    arch_ = text_[2] == 'a' || text_[2] == 'A' ? 1 : 2;
}

void ImageID::cut_up() {
    prefix_[0] = text_[0];
    const auto* row = std::find_if(kFormats.begin(), kFormats.end(), [this](const auto& format) {
        return format.prefix == prefix_[0];
    });
    format_ = row == kFormats.end() ? kDefaultFormat : row;
    constexpr int decimal = 10;
    const char* digits = text_.data() + format_->number_offset;
    char* end = nullptr;
    number_ = static_cast<std::int32_t>(std::strtol(digits, &end, decimal));
    if (end != text_.data() + kTextLength) {
        number_ = -1;
    }
    std::copy_n(text_.data() + format_->code_offset, format_->code_length, code_.begin());
}

void ImageID::classify() {
    valid_ = true;
    if (prefix_[0] == 'Z') {
        type_ = 6;
        return;
    }
    for (const CodeRow& row : kCodes) {
        if (std::strcmp(row.code, code()) == 0 && row.lowest <= number_ && number_ <= row.highest) {
            type_ = row.type;
            return;
        }
    }
    type_ = kUnknownPrefixType;
    for (const PrefixRow& row : kPrefixes) {
        if (row.prefix == prefix_[0]) {
            type_ = row.type;
        }
    }
}

ImageID ImageID::from_file(const std::string& path) {
    const FileHandle file(std::fopen(path.c_str(), "r"));
    std::array<char, 100> bytes{};
    if (file) {
        bytes[std::fread(bytes.data(), 1, bytes.size() - 1, file.get())] = '\0';
    }
    return ImageID(bytes.data());
}

ImageID ImageID::from_systeminfo() noexcept {
    ImageID id;
    const FileHandle file(std::fopen(kSystemInfo, "r"));
    if (!file) {
        return id;
    }
    SystemInfo info;
    const std::array<InfoKey, 3> keys = {{{"PRODUCT_NAME=", &info.name},
                                          {"PRODUCT_CONFIG=", &info.configuration},
                                          {"PRODUCT_VERSION=", &info.version}}};
    std::array<char, 1024> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr) {
        take_line(line.data(), keys);
    }
    // A file that cannot be read to its end settles nothing: without its last lines it would name
    // another build.
    if (std::ferror(file.get()) != 0) {
        return id;
    }
    id.arch_ = 2;
    id.classify_product(info);
    return id;
}

void ImageID::classify_product(const SystemInfo& info) {
    if (!equals_ignoring_case(info.name, "Sylvex")) {
        return;
    }
    const char version = info.version[0];
    if (info.configuration[0] == '\0' || equals_ignoring_case(info.configuration, "standard")) {
        code_[0] = 'T';
        if (const VersionRow* row = find_version(kStandardVersions, version)) {
            type_ = row->type;
            valid_ = true;
        }
    } else if (equals_ignoring_case(info.configuration, "zero")) {
        const VersionRow* row = find_version(kZeroVersions, version);
        code_[0] = row == nullptr ? 'Z' : 'T';
        type_ = row == nullptr ? kOldZeroType : row->type;
        valid_ = true;
    }
}

ImageID ImageID::current() {
    const ImageID id = from_systeminfo();
    return id.valid() ? id : from_file(kImageId);
}
