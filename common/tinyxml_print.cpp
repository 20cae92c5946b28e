#include "common/tinyxml.h"

#include "common/xml_entities.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::uint32_t kSpareCapacity = 1024;
constexpr std::size_t kMostLength = std::numeric_limits<std::uint32_t>::max() - kSpareCapacity;

// For each byte the number of its entity, counted from 1; 0 for a byte that stands for itself.
constexpr std::array<std::uint8_t, 256> kEntityNumbers = [] {
    std::array<std::uint8_t, 256> numbers{};
    std::uint8_t number = 0;
    for (const XmlEntity& entity : kXmlEntities) {
        numbers[static_cast<unsigned char>(entity.character)] = ++number;
    }
    return numbers;
}();
constexpr std::size_t kLongestEntity = 6;

void append_indentation(NTiXmlOutBuffer& out, int depth) {
    out.AppendBlanks(depth > 0 ? static_cast<std::size_t>(depth) * 2 : 0);
}

void append_field(NTiXmlOutBuffer& out, std::string_view name, std::string_view value) {
    if (!value.empty()) {
        out.Append(name);
        out.AppendMarkup("=\"");
        out.Append(value);
        out.AppendMarkup("\" ");
    }
}

}  // namespace

void NTiXmlOutBuffer::Freer::operator()(char* text) const {
    std::free(text);
}

void NTiXmlOutBuffer::GrowCapacity(std::size_t count) {
    // In 64 bits: the length may already stand within the spare of the limit.
    const std::size_t length = length_ + count;
    if (count > kMostLength || length > kMostLength) {
        throw std::length_error("XML text of 4 GiB or more");
    }
    capacity_ = static_cast<std::uint32_t>(length) + kSpareCapacity;
}

void NTiXmlOutBuffer::GrowMemory(std::size_t count) {
    const std::size_t size = std::max(end_ + count + kSpareCapacity, allocated_ * 2);
    char* grown = static_cast<char*>(std::realloc(text_.get(), size));
    if (grown == nullptr) {
        throw std::bad_alloc();
    }
    static_cast<void>(text_.release());
    text_.reset(grown);
    allocated_ = size;
}

char* NTiXmlOutBuffer::Release() {
    char* text = text_.release();
    void* cut = std::realloc(text, end_ + 1);
    return cut == nullptr ? text : static_cast<char*>(cut);
}

void NTiXmlOutBuffer::Append(std::string_view text) {
    const std::string_view written = text.substr(0, text.find('\0'));
    Count(text.size());
    char* at = Room(written.size());
    End(std::copy(written.begin(), written.end(), at));
}

void NTiXmlOutBuffer::AppendEscaped(std::string_view text) {
    // In pieces, so that the room for the longest possible form stays small.
    constexpr std::size_t kPiece = 4096;
    std::string_view left = text.substr(0, text.find('\0'));
    const std::size_t behind_nul = text.size() - left.size();
    const std::size_t start = end_;
    do {
        AppendEscapedPiece(left.substr(0, kPiece));
        left.remove_prefix(std::min(kPiece, left.size()));
    } while (!left.empty());
    Count(end_ - start + behind_nul);
}

void NTiXmlOutBuffer::AppendEscapedPiece(std::string_view piece) {
    char* at = Room(piece.size() * kLongestEntity);
    for (const char c : piece) {
        const std::uint8_t number = kEntityNumbers[static_cast<unsigned char>(c)];
        if (number == 0) {
            *at++ = c;
        } else {
            const std::string_view entity = kXmlEntities[number - 1].text;
            at = std::copy(entity.begin(), entity.end(), at);
        }
    }
    End(at);
}

void NTiXmlOutBuffer::AppendBlanks(std::size_t count) {
    Count(count);
    char* at = Room(count);
    std::memset(at, ' ', count);
    End(at + count);
}

void NTiXmlDeclaration::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("<?xml ");
    append_field(out, "version", Version());
    append_field(out, "encoding", Encoding());
    append_field(out, "standalone", Standalone());
    out.AppendMarkup("?>\n");
}

void NTiXmlComment::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("<!-- ");
    if (!TextView().empty()) {
        out.Append(TextView());
        out.AppendMarkup(" ");
    }
    out.AppendMarkup("-->\n");
}

void NTiXmlExtra::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("<");
    out.Append(TextView());
    out.AppendMarkup(">\n");
}

// Everything up to where the first child goes, or the whole element when it has none. True when
// children and the end tag are to come.
bool NTiXmlElement::PrintStartTag(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("<");
    out.Append(NameView());
    for (const NTiXmlAttribute* attribute : Attributes()) {
        out.AppendMarkup(" ");
        out.Append(attribute->Name());
        out.AppendMarkup("=\"");
        out.AppendEscaped(attribute->Value());
        out.AppendMarkup("\"");
    }
    if (!children_.empty()) {
        // Only a childless element's text is escaped; readers of these files count on it.
        out.AppendMarkup(">");
        out.Append(TextView());
        out.AppendMarkup("\n");
        return true;
    }
    if (TextView().empty()) {
        out.AppendMarkup("/>\n");
        return false;
    }
    out.AppendMarkup(">");
    out.AppendEscaped(TextView());
    PrintEndTag(out, 0);
    return false;
}

void NTiXmlElement::PrintEndTag(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("</");
    out.Append(NameView());
    out.AppendMarkup(">\n");
}

void NTiXmlElement::Print(NTiXmlOutBuffer& out, int depth) const {
    struct OpenElement {
        const NTiXmlElement* element;
        const NTiXmlNode* next;
    };
    std::vector<OpenElement> open;
    const auto print_start = [&](const NTiXmlElement& element, int at_depth) {
        if (element.PrintStartTag(out, at_depth)) {
            open.push_back({&element, element.children_.front()});
        }
    };
    print_start(*this, depth);
    while (!open.empty()) {
        OpenElement& top = open.back();
        const int inner_depth = depth + static_cast<int>(open.size());
        if (top.next == nullptr) {
            top.element->PrintEndTag(out, inner_depth - 1);
            open.pop_back();
            continue;
        }
        const NTiXmlNode& child = *top.next;
        top.next = top.element->children_.After(child);
        if (child.Type() == NTiXmlNodeType::kElement) {
            print_start(static_cast<const NTiXmlElement&>(child), inner_depth);
        } else {
            child.Print(out, inner_depth);
        }
    }
}

void NTiXmlDoc::Print(NTiXmlOutBuffer& out, int depth) const {
    for (const NTiXmlNode* child : children_) {
        child->Print(out, depth);
    }
}

std::string ToString(const NTiXmlNode& node) {
    NTiXmlOutBuffer out;
    node.Print(out, 0);
    return {out.Text() == nullptr ? "" : out.Text(), out.TextSize()};
}
