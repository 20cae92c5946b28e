#include "common/tinyxml.h"

#include "common/file_blocks.h"
#include "common/file_handle.h"
#include "common/tinyxml_memory.h"
#include "common/xml_entities.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr const char* kSource = "../../common/tinyxml";

constexpr const char* kAttributeError = "attribute pair error";
constexpr const char* kCommentError = "Comment error";
constexpr const char* kExtraError = "DocType error";
constexpr const char* kDeclarationError = "Declaration Parse error";
constexpr const char* kElementError = "Element Parse error";
constexpr const char* kNoText = "null point";
constexpr const char* kContentError = "ReadValue";

// What a byte may be, as the C locale has it, and which bytes a run of text ends at.
enum CharacterClass : std::uint8_t {
    kWhite = 1,
    kLetter = 2,
    kStartsName = 4,
    kContinuesName = 8,
    kEndsRun = 16,  // the end of the text, markup, white space
    kDoubleQuote = 32,
    kApostrophe = 64,
    kAnyByte = 128,
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
    mark("\"", kDoubleQuote);
    mark("'", kApostrophe);
    for (auto& entry : classes) {
        entry |= kAnyByte;
    }
    return classes;
}();

bool is(char c, unsigned what) {
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

std::string_view between(const char* begin, const char* end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

const char* skip_white(const char* p) {
    while (is_white(*p)) {
        ++p;
    }
    return p;
}

// The position of the first byte from p on that is one of what `stops` says.
const char* find_stop(const char* p, unsigned stops) {
    while (!is(*p, stops)) {
        ++p;
    }
    return p;
}

// Appends the character that an entity at p stands for, or "&" itself, and returns the position
// behind what was taken.
const char* append_entity(const char* p, std::string& out) {
    for (const XmlEntity& entity : kXmlEntities) {
        if (p[1] == entity.text[1] && StringEqual(p + 2, entity.text.substr(2), false)) {
            out += entity.character;
            return p + entity.text.size();
        }
    }
    out += *p;
    return p + 1;
}

// What a text may end with: one byte that no run of text holds, or any tag.
template <char Byte, unsigned Class>
struct EndByte {
    static constexpr unsigned stops = kEndsRun | Class;
    static constexpr std::size_t size = 1;
    static bool IsAt(const char* p) { return *p == Byte; }
};
struct EndTag {
    static constexpr unsigned stops = kAnyByte;
    std::string_view tag;
    std::size_t size = tag.size();
    bool IsAt(const char* p) const { return StringEqual(p, tag, true); }
};
using DoubleQuote = EndByte<'"', kDoubleQuote>;
using Apostrophe = EndByte<'\'', kApostrophe>;
using Markup = EndByte<'<', kEndsRun>;

// A text in front of its end. Most texts stand in the source as they are; the others are condensed
// and decoded into a string.
class TextReader {
public:
    // Reads from p on. The result is the position behind the end, or null when the text ends or
    // holds "<" or ">" before it.
    template <class End>
    const char* Read(const char* p, const End& end) {
        const char* start = skip_white(p);
        changed_ = false;
        for (p = find_stop(start, End::stops);; p = find_stop(p + 1, End::stops)) {
            if (end.IsAt(p)) {
                text_ = between(start, p);
                return p + end.size;
            }
            const char* following = SkipWhiteBefore(p, end);
            if (following > p && end.IsAt(following)) {
                text_ = between(start, p);
                return following + end.size;
            }
            if (*following == '<' || *following == '>' || *following == '\0') {
                text_ = between(start, p);
                return nullptr;
            }
            const bool changes = *p == '&' || following > p + 1 || (following > p && *p != ' ');
            if (changes) {
                string_.assign(start, p);
                return ReadChanged(p, end);
            }
        }
    }

    // What was read, valid until the next read and as long as the source.
    std::string_view Text() const { return changed_ ? std::string_view(string_) : text_; }
    // The string that holds what was read, to be taken; null when it stands in the source.
    std::string* Changed() { return changed_ ? &string_ : nullptr; }

private:
    // The end may begin with white space itself.
    template <class End>
    static const char* SkipWhiteBefore(const char* p, const End& end) {
        if constexpr (std::is_same_v<End, EndTag>) {
            while (is_white(*p) && !end.IsAt(p)) {
                ++p;
            }
            return p;
        } else {
            return skip_white(p);
        }
    }

    template <class End>
    const char* ReadChanged(const char* p, const End& end) {
        changed_ = true;
        if constexpr (std::is_same_v<End, Markup>) {
            if (const char* tag = std::strchr(p, '<')) {
                string_.reserve(string_.size() + static_cast<std::size_t>(tag - p));
            }
        }
        bool pending_space = false;
        while (*p != '\0') {
            if (end.IsAt(p)) {
                return p + end.size;
            }
            if (*p == '<' || *p == '>') {
                return nullptr;
            }
            if (is_white(*p)) {
                pending_space = true;
                p = SkipWhiteBefore(p, end);
                continue;
            }
            if (pending_space) {
                string_ += ' ';
                pending_space = false;
            }
            if (*p == '&') {
                p = append_entity(p, string_);
                continue;
            }
            const char* run_end = find_stop(p + 1, End::stops);
            string_.append(p, run_end);
            p = run_end;
        }
        return nullptr;
    }

    std::string_view text_ = "";  // never null; NOLINT(readability-redundant-string-init)
    std::string string_;
    bool changed_ = false;
};

// The position behind the name at p, or null when none starts there.
const char* find_name_end(const char* p) {
    if (!is(*p, kStartsName)) {
        return nullptr;
    }
    do {
        ++p;
    } while (is(*p, kContinuesName));
    return p;
}

NTiXmlNodeType type_of_markup(const char* p) {
    if (is(p[1], kLetter) || p[1] == '_') {
        return NTiXmlNodeType::kElement;
    }
    if (StringEqual(p, "<?xml", true)) {
        return NTiXmlNodeType::kDeclaration;
    }
    return StringEqual(p, "<!--", true) ? NTiXmlNodeType::kComment : NTiXmlNodeType::kExtra;
}

}  // namespace

const char* SkipWhite(const char* p) {
    return skip_white(p);
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
    const char* end = find_name_end(p);
    if (end != nullptr) {
        name.assign(p, end);
    }
    return end;
}

const char* ReadText(const char* p, std::string& out, std::string_view end_tag) {
    TextReader reader;
    const char* end = reader.Read(p, EndTag{end_tag});
    out = reader.Text();
    return end;
}

// Parses constructs into nodes of one tree. What it makes stands in that tree's memory; with a
// source that outlives the tree, the texts stay where they are.
class NTiXmlParser {
public:
    enum class Source { kStays, kGoes };

    NTiXmlParser(NTiXmlMemory& memory, Source source) : memory_(memory), source_(source) {}

    // The five kinds of construct. Each takes a position as Parse of the node does and returns the
    // one behind the construct.
    const char* ParseAttribute(const char* p, NTiXmlText& name, NTiXmlText& value);
    const char* ParseComment(const char* p, NTiXmlComment& comment);
    const char* ParseExtra(const char* p, NTiXmlExtra& extra);
    const char* ParseDeclaration(const char* p, NTiXmlDeclaration& declaration);
    const char* ParseElement(const char* p, NTiXmlElement& element);

    // Appends the top-level nodes of the text at p.
    const char* ParseNodes(const char* p, NTiXmlNodeList& nodes);

    // Makes `text` what the reader has read, in the memory where it has to be.
    void Set(NTiXmlText& text);

private:
    struct OpenElement {
        NTiXmlElement* element;
        const char* start;    // its "<"
        const char* content;  // behind the ">" of its start tag
    };

    void SetVerbatim(NTiXmlText& text, std::string_view characters);
    const char* ParseNonElement(const char* p, NTiXmlNodeType type, NTiXmlNodeList& nodes);
    const char* ParseStartTag(const char* p, NTiXmlElement& element, bool& has_content);
    const char* ParseContent(const char* p);
    const char* ReadTrailingText(const char* p);
    const char* ParseChildElement(const char* p);
    const char* CloseElement(const char* p);
    [[noreturn]] void FailContent(int line) { fail(line, kContentError, open_.back().content); }

    NTiXmlMemory& memory_;
    Source source_;
    TextReader reader_;
    std::vector<OpenElement> open_;  // from the element that is parsed to the innermost
};

void NTiXmlParser::Set(NTiXmlText& text) {
    // A long text is taken, so that whoever wants it as a string finds one.
    constexpr std::size_t kWorthTaking = 4096;
    std::string* changed = reader_.Changed();
    if (changed == nullptr) {
        SetVerbatim(text, reader_.Text());
    } else if (changed->size() < kWorthTaking) {
        memory_.SetCopy(text, *changed);
    } else {
        text.SetString(memory_.Keep(std::move(*changed)));
        changed->clear();
    }
}

void NTiXmlParser::SetVerbatim(NTiXmlText& text, std::string_view characters) {
    if (source_ == Source::kStays && NTiXmlText::IsViewable(characters)) {
        text.SetView(characters);
    } else {
        memory_.SetCopy(text, characters);
    }
}

const char* NTiXmlParser::ParseAttribute(const char* p, NTiXmlText& name, NTiXmlText& value) {
    const char* start = skip_white(p);
    if (*start == '\0') {
        fail(266, kAttributeError, kNoText);
    }
    p = find_name_end(start);
    if (p == nullptr || *p == '\0') {
        fail(273, kAttributeError, start);
    }
    SetVerbatim(name, between(start, p));
    p = skip_white(p);
    if (*p != '=') {
        fail(278, kAttributeError, start);
    }
    p = skip_white(p + 1);
    if (*p == '\0') {
        fail(285, kAttributeError, start);
    }
    if (*p != '"' && *p != '\'') {
        fail(299, kAttributeError, start);
    }
    p = *p == '"' ? reader_.Read(p + 1, DoubleQuote()) : reader_.Read(p + 1, Apostrophe());
    if (p == nullptr || *p == '\0') {
        fail(303, kAttributeError, start);
    }
    Set(value);
    return p;
}

const char* NTiXmlParser::ParseComment(const char* p, NTiXmlComment& comment) {
    comment.text_.SetView({});
    const char* start = skip_white(p);
    constexpr std::string_view opening = "<!--";
    if (!StringEqual(start, opening, true)) {
        fail(394, kCommentError, start);
    }
    p = reader_.Read(start + opening.size(), EndTag{"-->"});
    if (p == nullptr) {
        fail(399, kCommentError, start);
    }
    Set(comment.text_);
    return p;
}

const char* NTiXmlParser::ParseExtra(const char* p, NTiXmlExtra& extra) {
    extra.text_.SetView({});
    const char* start = skip_white(p);
    if (*start != '<') {
        fail(425, kExtraError, start);
    }
    std::string text;
    p = start + 1;
    while (*p != '>') {
        if (*p == '\0') {
            fail(430, kExtraError, start);
        }
        p = *p == '&' ? append_entity(p, text) : (text += *p, p + 1);
    }
    memory_.SetCopy(extra.text_, text);
    return p + 1;
}

const char* NTiXmlParser::ParseDeclaration(const char* p, NTiXmlDeclaration& declaration) {
    struct Field {
        std::string_view name;
        NTiXmlText& value;
    };
    const std::array fields = {Field{"version", declaration.text_},
                               Field{"encoding", declaration.encoding_},
                               Field{"standalone", declaration.standalone_}};
    p = skip_white(p);
    constexpr std::string_view opening = "<?xml";
    if (!StringEqual(p, opening, true)) {
        fail(468, kDeclarationError, p);
    }
    for (const Field& field : fields) {
        field.value = NTiXmlText();
    }
    p = skip_white(p + opening.size());
    const auto names_field = [&p](const Field& field) { return StringEqual(p, field.name, true); };
    for (auto field = std::find_if(fields.begin(), fields.end(), names_field);
         field != fields.end(); field = std::find_if(fields.begin(), fields.end(), names_field)) {
        NTiXmlText name;
        p = skip_white(ParseAttribute(p, name, field->value));
    }
    const char* end = std::strchr(p, '>');
    return end == nullptr ? nullptr : end + 1;
}

const char* NTiXmlParser::ParseNonElement(const char* p, NTiXmlNodeType type,
                                          NTiXmlNodeList& nodes) {
    const auto parse = [&](auto* node, auto member) {
        p = (this->*member)(p, *node);
        nodes.Append(*node);
        return p;
    };
    switch (type) {
        case NTiXmlNodeType::kDeclaration:
            return parse(memory_.MakeNode<NTiXmlDeclaration>(), &NTiXmlParser::ParseDeclaration);
        case NTiXmlNodeType::kComment:
            return parse(memory_.MakeNode<NTiXmlComment>(), &NTiXmlParser::ParseComment);
        default:
            return parse(memory_.MakeNode<NTiXmlExtra>(), &NTiXmlParser::ParseExtra);
    }
}

const char* NTiXmlParser::ParseElement(const char* p, NTiXmlElement& element) {
    bool has_content = false;
    const char* content = ParseStartTag(p, element, has_content);
    if (!has_content) {
        return content;
    }
    open_.assign(1, {&element, skip_white(p), content});
    p = content;
    while (!open_.empty()) {
        p = ParseContent(p);
    }
    return p;
}

const char* NTiXmlParser::ParseStartTag(const char* p, NTiXmlElement& element, bool& has_content) {
    const char* start = skip_white(p);
    if (*start != '<') {
        fail(659, kElementError, start);
    }
    element.name_.SetView({});
    const char* name = skip_white(start + 1);
    p = find_name_end(name);
    if (p != nullptr) {
        SetVerbatim(element.name_, between(name, p));
    }
    if (p == nullptr || *p == '\0') {
        fail(667, kElementError, start);
    }
    for (;;) {
        p = skip_white(p);
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
        NTiXmlAttribute* attribute = memory_.MakeAttribute();
        p = ParseAttribute(p, attribute->name_, attribute->value_);
        element.attributes_.Append(*attribute);
    }
}

// Takes one step through the content of the innermost element: a child's start, the text, its end.
const char* NTiXmlParser::ParseContent(const char* p) {
    p = p == nullptr ? nullptr : skip_white(p);
    if (p == nullptr || *p == '\0') {
        FailContent(771);
    }
    if (*p != '<') {
        return CloseElement(ReadTrailingText(p));
    }
    if (p[1] == '/') {
        return CloseElement(p);
    }
    const NTiXmlNodeType type = type_of_markup(p);
    return type == NTiXmlNodeType::kElement
               ? ParseChildElement(p)
               : ParseNonElement(p, type, open_.back().element->children_);
}

const char* NTiXmlParser::ReadTrailingText(const char* p) {
    p = reader_.Read(p, Markup());
    if (p == nullptr) {
        FailContent(737);
    }
    Set(open_.back().element->text_);
    return p - 1;
}

const char* NTiXmlParser::ParseChildElement(const char* p) {
    if (open_.size() >= NTiXmlElement::kMaxDepth) {
        fail(697, kElementError, p);
    }
    auto* element = memory_.MakeNode<NTiXmlElement>();
    bool has_content = false;
    const char* start = p;
    p = ParseStartTag(start, *element, has_content);
    if (has_content) {
        open_.push_back({element, start, p});
    } else {
        open_.back().element->children_.Append(*element);
    }
    return p;
}

// Reads the end tag of the innermost element, which now becomes its parent's child.
const char* NTiXmlParser::CloseElement(const char* p) {
    const OpenElement closing = open_.back();
    const std::string_view name = closing.element->NameView();
    const bool closes =
        StringEqual(p, "</", true) && StringEqual(p + 2, name, true) && p[2 + name.size()] == '>';
    if (!closes) {
        fail(705, kElementError, closing.start);
    }
    open_.pop_back();
    if (!open_.empty()) {
        open_.back().element->children_.Append(*closing.element);
    }
    return p + 2 + name.size() + 1;
}

const char* NTiXmlParser::ParseNodes(const char* p, NTiXmlNodeList& nodes) {
    p = skip_white(p);
    while (p != nullptr && *p != '\0') {
        if (*p != '<') {
            fail(854, "Identify error", p);
        }
        const NTiXmlNodeType type = type_of_markup(p);
        if (type == NTiXmlNodeType::kElement) {
            auto* element = memory_.MakeNode<NTiXmlElement>();
            p = ParseElement(p, *element);
            nodes.Append(*element);
        } else {
            p = ParseNonElement(p, type, nodes);
        }
        p = p == nullptr ? nullptr : skip_white(p);
    }
    return p;
}

namespace {

// For an attribute that stands by itself, which owns its strings.
void set_own(NTiXmlText& text, std::string_view characters) {
    if (text.String() == nullptr) {
        text.SetString(*std::make_unique<std::string>().release());
    }
    // The attribute keeps the address in halves, which hides the owner from the analyzer.
    *text.String() = characters;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
}

}  // namespace

const char* NTiXmlAttribute::Parse(const char* p) {
    if (p == nullptr) {
        fail(266, kAttributeError, kNoText);
    }
    NTiXmlMemory memory;
    NTiXmlText name;
    NTiXmlText value;
    p = NTiXmlParser(memory, NTiXmlParser::Source::kStays).ParseAttribute(p, name, value);
    set_own(name_, name.View());
    set_own(value_, value.View());
    return p;
}

const char* NTiXmlComment::Parse(const char* p) {
    return NTiXmlParser(Memory(), NTiXmlParser::Source::kGoes).ParseComment(p, *this);
}

const char* NTiXmlExtra::Parse(const char* p) {
    return NTiXmlParser(Memory(), NTiXmlParser::Source::kGoes).ParseExtra(p, *this);
}

const char* NTiXmlDeclaration::Parse(const char* p) {
    return NTiXmlParser(Memory(), NTiXmlParser::Source::kGoes).ParseDeclaration(p, *this);
}

const char* NTiXmlElement::Parse(const char* p) {
    return NTiXmlParser(Memory(), NTiXmlParser::Source::kGoes).ParseElement(p, *this);
}

NTiXmlDoc::NTiXmlDoc(std::string source, bool is_file) : NTiXmlNode(NTiXmlNodeType::kDoc) {
    if (is_file) {
        ReadFile(source);
    } else {
        SetSource(std::move(source));
    }
}

void NTiXmlDoc::SetSource(std::string source) {
    text_.SetString(Memory().Keep(std::move(source)));
}

void NTiXmlDoc::ReadFile(const std::string& name) {
    const std::string message = "Invalid file name:" + name;
    const FileHandle file(std::fopen(name.c_str(), "r"));
    if (!file) {
        throw NTiXmlException(kSource, 789, message, "");
    }
    std::string text;
    read_blocks(file.get(), 1020, ReadEnd::kShortRead, text);
    if (std::ferror(file.get()) != 0) {
        throw NTiXmlException(kSource, 802, message, "");
    }
    text += '\n';
    SetSource(std::move(text));
}

const char* NTiXmlDoc::Parse(const char* text) {
    if (text != nullptr) {
        SetSource(text);
    }
    if (std::string* given = text_.String()) {
        // The nodes stand in it from now on: out of the reach of who still has a reference to it.
        std::string& source = Memory().Keep(std::string());
        source.swap(*given);
        text_.SetString(source);
    }
    const std::string_view source = TextView();
    const bool stays = NTiXmlText::IsViewable(source);
    if (stays) {
        text_.SetView(source);  // who asks for the text gets a copy to change
    }
    return ParseSource(source, stays);
}

const char* NTiXmlDoc::ParseBorrowed(const std::string& text) {
    return ParseSource(text, true);
}

const char* NTiXmlDoc::ParseCopied(const std::string& text) {
    return ParseSource(text, false);
}

const char* NTiXmlDoc::ParseSource(std::string_view source, bool stays) {
    if (source.empty()) {
        fail(835, "No content", "");
    }
    using Source = NTiXmlParser::Source;
    NTiXmlParser parser(Memory(), stays ? Source::kStays : Source::kGoes);
    return parser.ParseNodes(source.data(), children_);
}
