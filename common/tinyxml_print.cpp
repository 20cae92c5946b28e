#include "common/tinyxml.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::uint32_t kSpareCapacity = 1024;

// The entity of one of the five characters.
std::string_view entity_text(char c) {
    const auto* entity = std::find_if(std::begin(kNTiXmlEntities), std::end(kNTiXmlEntities),
                                      [c](const NTiXmlEntity& e) { return e.character == c; });
    return entity->text;
}

// Appends `text` with the entities' characters replaced, the stretches between them in one piece. A
// NUL ends the text, not only the stretch that it stands in; what is behind it is only counted.
void append_escaped(NTiXmlOutBuffer& out, std::string_view text) {
    const std::size_t end = std::min(text.find('\0'), text.size());
    std::size_t start = 0;
    for (;;) {
        const std::size_t at = std::min(text.find_first_of("&<>\"'", start), end);
        if (at == end) {
            out.Append(text.substr(start));
            return;
        }
        out.Append(text.substr(start, at - start));
        out.Append(entity_text(text[at]));
        start = at + 1;
    }
}

void append_indentation(NTiXmlOutBuffer& out, int depth) {
    out.AppendBlanks(depth > 0 ? static_cast<std::size_t>(depth) * 2 : 0);
}

void append_field(NTiXmlOutBuffer& out, std::string_view name, const std::string& value) {
    if (!value.empty()) {
        out.Append(name);
        out.Append("=\"");
        out.Append(value);
        out.Append("\" ");
    }
}

}  // namespace

void NTiXmlOutBuffer::Freer::operator()(char* text) const {
    std::free(text);
}

char* NTiXmlOutBuffer::Reserve(std::size_t count) {
    if (count > std::numeric_limits<std::uint32_t>::max() - kSpareCapacity - length_) {
        throw std::length_error("XML text of 4 GiB or more");
    }
    length_ += static_cast<std::uint32_t>(count);
    if (length_ >= capacity_) {
        capacity_ = length_ + kSpareCapacity;
        Grow();
    }
    return text_.get() + end_;
}

void NTiXmlOutBuffer::Grow() {
    if (capacity_ <= allocated_) {
        return;
    }
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
    char* at = Reserve(text.size());
    const std::size_t size = std::min(text.find('\0'), text.size());
    std::copy_n(text.data(), size, at);
    at[size] = '\0';
    end_ += size;
}

void NTiXmlOutBuffer::AppendBlanks(std::size_t count) {
    char* at = Reserve(count);
    std::memset(at, ' ', count);
    at[count] = '\0';
    end_ += count;
}

void NTiXmlDeclaration::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.Append("<?xml ");
    append_field(out, "version", Version());
    append_field(out, "encoding", Encoding());
    append_field(out, "standalone", Standalone());
    out.Append("?>\n");
}

void NTiXmlComment::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.Append("<!-- ");
    if (!Text().empty()) {
        out.Append(Text());
        out.Append(" ");
    }
    out.Append("-->\n");
}

void NTiXmlExtra::Print(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.Append("<");
    out.Append(Text());
    out.Append(">\n");
}

// Everything up to where the first child goes, or the whole element when it has none. True when
// children and the end tag are to come.
bool NTiXmlElement::PrintStartTag(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.Append("<");
    out.Append(name_);
    for (const auto& attribute : Attributes()) {
        out.Append(" ");
        out.Append(attribute->Name());
        out.Append("=\"");
        append_escaped(out, attribute->Value());
        out.Append("\"");
    }
    if (!children_.empty()) {
        // Only a childless element's text is escaped; readers of these files count on it.
        out.Append(">");
        out.Append(Text());
        out.Append("\n");
        return true;
    }
    if (Text().empty()) {
        out.Append("/>\n");
        return false;
    }
    out.Append(">");
    append_escaped(out, Text());
    PrintEndTag(out, 0);
    return false;
}

void NTiXmlElement::PrintEndTag(NTiXmlOutBuffer& out, int depth) const {
    append_indentation(out, depth);
    out.Append("</");
    out.Append(name_);
    out.Append(">\n");
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
