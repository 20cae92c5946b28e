#include "common/tinyxml.h"

#include "common/file_handle.h"
#include "common/xml_entities.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr const char* kSource = "../../common/tinyxml";

constexpr const char* kAttributeError = "attribute pair error";
constexpr const char* kCommentError = "Comment error";
constexpr const char* kExtraError = "DocType error";
constexpr const char* kDeclarationError = "Declaration Parse error";
constexpr const char* kElementError = "Element Parse error";
constexpr const char* kContentError = "ReadValue";

// What a byte may be, as the C locale has it.
enum CharacterClass : std::uint8_t {
    kWhite = 1,
    kLetter = 2,
    kStartsName = 4,
    kContinuesName = 8,
    kEndsRun = 16,  // the end of the text, markup and white space: not copied as it is
};

constexpr std::array<std::uint8_t, 256> kCharacterClasses = [] {
    std::array<std::uint8_t, 256> classes{};
    const auto mark = [&classes](std::string_view characters, unsigned what) {
        for (const char c : characters) {
            auto& entry = classes[static_cast<unsigned char>(c)];
            entry = static_cast<std::uint8_t>(entry | what);
        }
    };
    mark(" \t\n\v\f\r", kWhite | kEndsRun);
    mark("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz",
         kLetter | kStartsName | kContinuesName);
    mark("_:", kStartsName | kContinuesName);
    mark("0123456789-.", kContinuesName);
    mark("<>&", kEndsRun);
    mark(std::string_view("\0", 1), kEndsRun);
    return classes;
}();

bool is(char c, CharacterClass what) {
    return (kCharacterClasses[static_cast<unsigned char>(c)] & what) != 0;
}

bool is_white(char c) {
    return is(c, kWhite);
}

char lower_case(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

[[noreturn]] void fail(int line, const char* message, const char* remainder) {
    throw NTiXmlException(kSource, line, message, remainder);
}

// Appends the character that an entity at p stands for, or "&" itself, and returns the position
// behind what was taken.
const char* append_entity(const char* p, std::string& out) {
    for (const XmlEntity& entity : kXmlEntities) {
        if (StringEqual(p, entity.text, false)) {
            out += entity.character;
            return p + entity.text.size();
        }
    }
    out += *p;
    return p + 1;
}

// Appends the byte at p with the ordinary ones behind it, or an entity's character.
const char* append_run(const char* p, std::string& out, char end_tag) {
    if (*p == '&') {
        return append_entity(p, out);
    }
    const char* end = p + 1;
    while (!is(*end, kEndsRun) && *end != end_tag) {
        ++end;
    }
    out.append(p, end);
    return end;
}

// An empty node of the kind that starts at p, which stands on "<".
std::unique_ptr<NTiXmlNode> identify_node(const char* p) {
    if (StringEqual(p, "<?xml", true)) {
        return std::make_unique<NTiXmlDeclaration>();
    }
    if (StringEqual(p, "<!--", true)) {
        return std::make_unique<NTiXmlComment>();
    }
    if (is(p[1], kLetter) || p[1] == '_') {
        return std::make_unique<NTiXmlElement>();
    }
    return std::make_unique<NTiXmlExtra>();
}

}  // namespace

const char* SkipWhite(const char* p) {
    while (is_white(*p)) {
        ++p;
    }
    return p;
}

bool StringEqual(const char* p, std::string_view tag, bool ignore_case) {
    for (const char wanted : tag) {
        const bool equal = *p == wanted || (ignore_case && lower_case(*p) == lower_case(wanted));
        if (!equal) {
            return false;
        }
        ++p;
    }
    return true;
}

const char* ReadName(const char* p, std::string& name) {
    name.clear();
    if (!is(*p, kStartsName)) {
        return nullptr;
    }
    const char* end = p + 1;
    while (is(*end, kContinuesName)) {
        ++end;
    }
    name.assign(p, end);
    return end;
}

const char* ReadText(const char* p, std::string& out, std::string_view end_tag) {
    out.clear();
    p = SkipWhite(p);
    bool pending_space = false;
    while (*p != '\0') {
        if (StringEqual(p, end_tag, true)) {
            return p + end_tag.size();
        }
        if (*p == '<' || *p == '>') {
            return nullptr;
        }
        if (is_white(*p)) {
            pending_space = true;
            ++p;
            continue;
        }
        if (pending_space) {
            out += ' ';
            pending_space = false;
        }
        p = append_run(p, out, end_tag.front());
    }
    return nullptr;
}

const char* NTiXmlAttribute::Parse(const char* p) {
    if (p == nullptr || *SkipWhite(p) == '\0') {
        fail(266, kAttributeError, "null point");
    }
    const char* start = SkipWhite(p);
    p = ReadName(start, name_);
    if (p == nullptr || *p == '\0') {
        fail(273, kAttributeError, start);
    }
    p = SkipWhite(p);
    if (*p != '=') {
        fail(278, kAttributeError, start);
    }
    p = SkipWhite(p + 1);
    if (*p == '\0') {
        fail(285, kAttributeError, start);
    }
    if (*p != '"' && *p != '\'') {
        fail(299, kAttributeError, start);
    }
    p = ReadText(p + 1, value_, std::string_view(p, 1));
    if (p == nullptr || *p == '\0') {
        fail(303, kAttributeError, start);
    }
    return p;
}

const char* NTiXmlComment::Parse(const char* p) {
    Text().clear();
    const char* start = SkipWhite(p);
    constexpr std::string_view opening = "<!--";
    if (!StringEqual(start, opening, true)) {
        fail(394, kCommentError, start);
    }
    p = ReadText(start + opening.size(), Text(), "-->");
    if (p == nullptr) {
        fail(399, kCommentError, start);
    }
    return p;
}

const char* NTiXmlExtra::Parse(const char* p) {
    Text().clear();
    const char* start = SkipWhite(p);
    if (*start != '<') {
        fail(425, kExtraError, start);
    }
    p = start + 1;
    while (*p != '>') {
        if (*p == '\0') {
            fail(430, kExtraError, start);
        }
        p = *p == '&' ? append_entity(p, Text()) : (Text() += *p, p + 1);
    }
    return p + 1;
}

std::string* NTiXmlDeclaration::Field(const char* p) {
    if (StringEqual(p, "version", true)) {
        return &Text();
    }
    if (StringEqual(p, "encoding", true)) {
        return &encoding_;
    }
    return StringEqual(p, "standalone", true) ? &standalone_ : nullptr;
}

const char* NTiXmlDeclaration::Parse(const char* p) {
    p = SkipWhite(p);
    constexpr std::string_view opening = "<?xml";
    if (!StringEqual(p, opening, true)) {
        fail(468, kDeclarationError, p);
    }
    Text().clear();
    encoding_.clear();
    standalone_.clear();
    p = SkipWhite(p + opening.size());
    while (std::string* field = Field(p)) {
        NTiXmlAttribute attribute;
        p = SkipWhite(attribute.Parse(p));
        *field = attribute.Value();
    }
    const char* end = std::strchr(p, '>');
    return end == nullptr ? nullptr : end + 1;
}

// Parses what stands between an element's start tag and the end of its end tag, with the elements
// open at the moment on a stack of its own. An element is appended to its parent when its end tag
// is read.
class NTiXmlContentParser {
public:
    // `p` stands behind the start tag of `element`, which began at `start`.
    const char* Parse(NTiXmlElement& element, const char* start, const char* p) {
        Open(element, nullptr, start, p);
        bool at_content = true;
        while (!open_.empty()) {
            at_content = at_content ? ReadContent() : CloseElement();
        }
        return p_;
    }

private:
    struct OpenElement {
        NTiXmlElement* element;
        std::unique_ptr<NTiXmlElement> owner;  // null for the outermost, which the caller owns
        const char* start;                     // its "<"
        const char* content;                   // behind the ">" of its start tag
    };

    void Open(NTiXmlElement& element, std::unique_ptr<NTiXmlElement> owner, const char* start,
              const char* content) {
        open_.push_back({&element, std::move(owner), start, content});
        p_ = content;
    }

    [[noreturn]] void FailContent(int line) { fail(line, kContentError, open_.back().content); }

    // Takes one step through the content of the innermost element: a child or the text. False when
    // its end tag is to come.
    bool ReadContent() {
        p_ = p_ == nullptr ? nullptr : SkipWhite(p_);
        if (p_ == nullptr || *p_ == '\0') {
            FailContent(771);
        }
        if (*p_ != '<') {
            ReadTrailingText();
            return false;
        }
        if (p_[1] == '/') {
            return false;
        }
        ReadChild();
        return true;
    }

    void ReadTrailingText() {
        std::string& text = open_.back().element->Text();
        const char* end = ReadText(p_, text, "<");
        if (end == nullptr) {
            FailContent(737);
        }
        p_ = end - 1;
    }

    void ReadChild() {
        const char* start = p_;
        std::unique_ptr<NTiXmlNode> child = identify_node(start);
        if (child->Type() != NTiXmlNodeType::kElement) {
            p_ = child->Parse(start);
            open_.back().element->children_.push_back(std::move(child));
            return;
        }
        if (open_.size() >= NTiXmlElement::kMaxDepth) {
            fail(697, kElementError, start);
        }
        std::unique_ptr<NTiXmlElement> element(static_cast<NTiXmlElement*>(child.release()));
        bool has_content = false;
        p_ = element->ParseStartTag(start, has_content);
        if (has_content) {
            NTiXmlElement& opened = *element;
            Open(opened, std::move(element), start, p_);
        } else {
            open_.back().element->children_.push_back(std::move(element));
        }
    }

    // Reads the end tag of the innermost element. True: its parent's content goes on.
    bool CloseElement() {
        OpenElement closing = std::move(open_.back());
        const std::string& name = closing.element->Name();
        const bool closes = StringEqual(p_, "</", true) && StringEqual(p_ + 2, name, true) &&
                            p_[2 + name.size()] == '>';
        if (!closes) {
            fail(705, kElementError, closing.start);
        }
        p_ += 2 + name.size() + 1;
        open_.pop_back();
        if (!open_.empty()) {
            open_.back().element->children_.push_back(std::move(closing.owner));
        }
        return true;
    }

    std::vector<OpenElement> open_;
    const char* p_ = nullptr;
};

const char* NTiXmlElement::ParseStartTag(const char* p, bool& has_content) {
    const char* start = SkipWhite(p);
    if (*start != '<') {
        fail(659, kElementError, start);
    }
    p = ReadName(SkipWhite(start + 1), name_);
    if (p == nullptr || *p == '\0') {
        fail(667, kElementError, start);
    }
    for (;;) {
        p = SkipWhite(p);
        if (*p == '\0') {
            fail(679, kElementError, start);
        }
        if (*p == '/' && p[1] != '>') {
            fail(686, kElementError, start);
        }
        if (*p == '/' || *p == '>') {
            has_content = *p == '>';
            return p + (has_content ? 1 : 2);
        }
        p = Attributes().emplace_back().Parse(p);
    }
}

const char* NTiXmlElement::Parse(const char* p) {
    bool has_content = false;
    const char* end = ParseStartTag(p, has_content);
    return has_content ? NTiXmlContentParser().Parse(*this, SkipWhite(p), end) : end;
}

NTiXmlDoc::NTiXmlDoc(std::string source, bool is_file) : NTiXmlNode(NTiXmlNodeType::kDoc) {
    if (is_file) {
        ReadFile(source);
    } else {
        Text() = std::move(source);
    }
}

void NTiXmlDoc::ReadFile(const std::string& name) {
    const std::string message = "Invalid file name:" + name;
    const FileHandle file(std::fopen(name.c_str(), "r"));
    if (!file) {
        throw NTiXmlException(kSource, 789, message, "");
    }
    std::array<char, 1020> block;
    std::size_t got = block.size();
    while (got == block.size()) {
        got = std::fread(block.data(), 1, block.size(), file.get());
        Text().append(block.data(), strnlen(block.data(), got));
    }
    if (std::ferror(file.get()) != 0) {
        throw NTiXmlException(kSource, 802, message, "");
    }
    Text() += '\n';
}

const char* NTiXmlDoc::Parse(const char* text) {
    if (text != nullptr) {
        Text() = text;
    }
    if (Text().empty()) {
        throw NTiXmlException(kSource, 835, "No content", "");
    }
    const char* p = SkipWhite(Text().c_str());
    while (p != nullptr && *p != '\0') {
        if (*p != '<') {
            fail(854, "Identify error", p);
        }
        std::unique_ptr<NTiXmlNode> node = identify_node(p);
        p = node->Parse(p);
        children_.push_back(std::move(node));
        p = p == nullptr ? nullptr : SkipWhite(p);
    }
    return p;
}
