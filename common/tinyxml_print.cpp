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

// How much longer than the byte itself its escaped form is: 0 for all but the entities' characters.
constexpr std::array<std::uint8_t, 256> kGrowth = [] {
    std::array<std::uint8_t, 256> growth{};
    for (const XmlEntity& entity : kXmlEntities) {
        growth[static_cast<unsigned char>(entity.character)] =
            static_cast<std::uint8_t>(entity.text.size() - 1);
    }
    return growth;
}();

std::uint8_t growth_of(char c) {
    return kGrowth[static_cast<unsigned char>(c)];
}

char* write_entity(char* at, char c) {
    for (const XmlEntity& entity : kXmlEntities) {
        if (entity.character == c) {
            at = std::copy(entity.text.begin(), entity.text.end(), at);
        }
    }
    return at;
}

std::size_t escaped_size(std::string_view text) {
    std::size_t size = text.size();
    for (const char c : text) {
        size += growth_of(c);
    }
    return size;
}

void append_indentation(NTiXmlOutBuffer& out, int depth) {
    out.AppendBlanks(depth > 0 ? static_cast<std::size_t>(depth) * 2 : 0);
}

void append_field(NTiXmlOutBuffer& out, std::string_view name, const std::string& value) {
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
    if (capacity_ > allocated_) {
        GrowMemory();
    }
}

void NTiXmlOutBuffer::GrowMemory() {
    const std::size_t size = std::max<std::size_t>(capacity_, allocated_ * 2);
    char* grown = static_cast<char*>(std::realloc(text_.get(), size));
    if (grown == nullptr) {
        throw std::bad_alloc();
    }
    static_cast<void>(text_.release());
    text_.reset(grown);
    allocated_ = size;
}

void NTiXmlOutBuffer::Append(std::string_view text) {
    const std::string_view written = text.substr(0, text.find('\0'));
    char* at = Reserve(text.size());
    End(std::copy(written.begin(), written.end(), at));
}

void NTiXmlOutBuffer::AppendEscaped(std::string_view text) {
    const std::string_view written = text.substr(0, text.find('\0'));
    char* at = Reserve(escaped_size(written) + (text.size() - written.size()));
    for (const char c : written) {
        if (growth_of(c) == 0) {
            *at++ = c;
        } else {
            at = write_entity(at, c);
        }
    }
    End(at);
}

void NTiXmlOutBuffer::AppendBlanks(std::size_t count) {
    char* at = Reserve(count);
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
    if (!Text().empty()) {
        out.Append(Text());
        out.AppendMarkup(" ");
    }
    out.AppendMarkup("-->\n");
}

void NTiXmlExtra::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("<");
    out.Append(Text());
    out.AppendMarkup(">\n");
}

// Everything up to where the first child goes, or the whole element when it has none. True when
// children and the end tag are to come.
bool NTiXmlElement::PrintStartTag(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("<");
    out.Append(name_);
    for (const NTiXmlAttribute& attribute : Attributes()) {
        out.AppendMarkup(" ");
        out.Append(attribute.Name());
        out.AppendMarkup("=\"");
        out.AppendEscaped(attribute.Value());
        out.AppendMarkup("\"");
    }
    if (!children_.empty()) {
        // Only a childless element's text is escaped; readers of these files count on it.
        out.AppendMarkup(">");
        out.Append(Text());
        out.AppendMarkup("\n");
        return true;
    }
    if (Text().empty()) {
        out.AppendMarkup("/>\n");
        return false;
    }
    out.AppendMarkup(">");
    out.AppendEscaped(Text());
    PrintEndTag(out, 0);
    return false;
}

void NTiXmlElement::PrintEndTag(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.AppendMarkup("</");
    out.Append(name_);
    out.AppendMarkup(">\n");
}

void NTiXmlElement::Print(NTiXmlOutBuffer& out, int depth) const {
    struct OpenElement {
        const NTiXmlElement* element;
        NTiXmlNodeList::const_iterator next;
    };
    std::vector<OpenElement> open;
    const auto print_start = [&](const NTiXmlElement& element, int at_depth) {
        if (element.PrintStartTag(out, at_depth)) {
            open.push_back({&element, element.children_.begin()});
        }
    };
    print_start(*this, depth);
    while (!open.empty()) {
        OpenElement& top = open.back();
        const int inner_depth = depth + static_cast<int>(open.size());
        if (top.next == top.element->children_.end()) {
            top.element->PrintEndTag(out, inner_depth - 1);
            open.pop_back();
            continue;
        }
        const NTiXmlNode& child = **top.next++;
        if (child.Type() == NTiXmlNodeType::kElement) {
            print_start(static_cast<const NTiXmlElement&>(child), inner_depth);
        } else {
            child.Print(out, inner_depth);
        }
    }
}

void NTiXmlDoc::Print(NTiXmlOutBuffer& out, int depth) const {
    for (const auto& child : children_) {
        child->Print(out, depth);
    }
}

std::string ToString(const NTiXmlNode& node) {
    NTiXmlOutBuffer out;
    node.Print(out, 0);
    return {out.Text() == nullptr ? "" : out.Text(), out.TextSize()};
}
