#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

// The XML tree of the program: what it reads from and writes to registry exports, connections files
// and session files. It accepts a small dialect and throws NTiXmlException on the rest. Differences
// from other parsers: element text before the first child is refused, white space in text is
// condensed, end tags match in any case, numeric character references stay as written, and markup
// that is no element, comment or declaration (CDATA too) is kept up to its first ">".
//
// A node owns its attributes and children; deleting a document deletes the whole tree. Pointers
// from lookups are borrowed and end with the node they point to. No operation recurses, so the
// depth of a document costs no stack.

// The base of the errors of the XML model. what() is the standard library's generic text: callers
// report Message().
class TException : public std::exception {
public:
    // Copies the message. A null `file` ends the process with exit status -1.
    TException(const char* file, int line, const std::string& message);

    virtual const char* Message() const { return message_.c_str(); }
    const char* File() const { return file_.c_str(); }
    int Line() const { return line_; }

    // The class name of the exception that was made last: "TException" until there is one.
    static const std::string& LastClass() { return last_class_; }

protected:
    static std::string last_class_;

private:
    std::string message_;
    std::string file_;
    std::int32_t line_;
};

// A document that cannot be parsed or loaded.
class NTiXmlException : public TException {
public:
    NTiXmlException(const char* file, int line, const std::string& message,
                    const std::string& remainder);

    // The input from the start of the construct that failed; empty for file errors and "No
    // content".
    virtual const char* Remainder() const { return remainder_.c_str(); }

private:
    std::string remainder_;
};

// The growing text that nodes print into. After an exception it holds nothing of use.
class NTiXmlOutBuffer {
public:
    NTiXmlOutBuffer() = default;
    NTiXmlOutBuffer(const NTiXmlOutBuffer&) = delete;
    NTiXmlOutBuffer& operator=(const NTiXmlOutBuffer&) = delete;

    // Reserves the size of `text` and appends it up to its first NUL. Throws std::length_error when
    // the reserved count would pass 32 bits: a text of 4 GiB or more is not printed.
    void Append(std::string_view text);
    // The same for text that holds no NUL, such as the markup itself.
    void AppendMarkup(std::string_view text) {
        Count(text.size());
        End(std::copy(text.begin(), text.end(), Room(text.size())));
    }
    // As Append, with the entities' characters replaced. What is behind a NUL is only counted.
    void AppendEscaped(std::string_view text);
    // Appends `count` blanks; throws as Append does.
    void AppendBlanks(std::size_t count);

    // NUL-terminated; null until the first append. Valid until the next append.
    const char* Text() const { return text_.get(); }
    // Bytes in Text() before its NUL.
    std::size_t TextSize() const { return end_; }
    // Gives the text away, cut to its size and to be freed by free(). Nothing is to be appended
    // after that.
    char* Release();
    // The count that has been reserved so far.
    std::uint32_t Length() const { return length_; }
    // Length() + 1024 as it was when Length() last reached the capacity.
    std::uint32_t Capacity() const { return capacity_; }

private:
    // Reserves `count` bytes.
    void Count(std::size_t count) {
        if (count >= capacity_ - length_) {
            GrowCapacity(count);
        }
        length_ += static_cast<std::uint32_t>(count);
    }
    // Where the next `count` bytes and a NUL can be written.
    char* Room(std::size_t count) {
        if (count >= allocated_ - end_) {
            GrowMemory(count);
        }
        return text_.get() + end_;
    }
    // Sets the NUL behind what was written.
    void End(char* at) {
        *at = '\0';
        end_ = static_cast<std::size_t>(at - text_.get());
    }
    void GrowCapacity(std::size_t count);
    void GrowMemory(std::size_t count);
    void AppendEscapedPiece(std::string_view piece);

    struct Freer {
        void operator()(char* text) const;
    };
    std::unique_ptr<char[], Freer> text_;
    std::uint32_t length_ = 0;
    std::uint32_t capacity_ = 0;
    std::size_t end_ = 0;        // where the next append goes
    std::size_t allocated_ = 0;  // bytes behind text_, growing by doubling
};

class NTiXmlMemory;
class NTiXmlParser;

class NTiXmlBase {
public:
    NTiXmlBase() = default;
    NTiXmlBase(const NTiXmlBase&) = delete;
    NTiXmlBase& operator=(const NTiXmlBase&) = delete;
    virtual ~NTiXmlBase() = default;

    // Consumes one construct that starts at `p` (NUL-terminated, not null) and returns the position
    // behind it. Throws NTiXmlException on malformed input. A declaration that the text cuts off
    // returns null. Nothing of the text at `p` is used after the call.
    virtual const char* Parse(const char* p) = 0;
};

// A text of a tree: characters that stand elsewhere (in the source of a document, or in the memory
// of the tree), or a string once somebody wants to change it.
class NTiXmlText {
public:
    NTiXmlText() { SetView(""); }

    std::string_view View() const {
        const std::string* string = String();
        return string == nullptr ? std::string_view(At<const char>(), size_) : *string;
    }
    // The string, which must outlive this; null where there is none.
    std::string* String() const { return size_ == kIsString ? At<std::string>() : nullptr; }

    // A text of 4 GiB or more has to be a string.
    static bool IsViewable(std::string_view text) { return text.size() < kIsString; }
    void SetView(std::string_view text) {
        address_ = std::bit_cast<Address>(text.data());
        size_ = static_cast<std::uint32_t>(text.size());
    }
    void SetString(std::string& text) {
        address_ = std::bit_cast<Address>(&text);
        size_ = kIsString;
    }

private:
    // A pointer in halves: two texts side by side then need no padding, and there are millions.
    using Address = std::array<std::uint32_t, sizeof(void*) / sizeof(std::uint32_t)>;
    static constexpr std::uint32_t kIsString = 0xFFFFFFFF;

    template <class To>
    To* At() const {
        return std::bit_cast<To*>(address_);
    }

    Address address_;  // of the characters, or of the string
    std::uint32_t size_ = 0;
};

// Things in a row, each linked to the next by its own next_ and the last one to the first. The row
// owns nothing.
template <class Link>
class NTiXmlRow {
public:
    class Iterator {
    public:
        Iterator(const NTiXmlRow& row, Link* at) : row_(&row), at_(at) {}
        Link* operator*() const { return at_; }
        Iterator& operator++() {
            at_ = row_->After(*at_);
            return *this;
        }
        bool operator==(const Iterator& other) const { return at_ == other.at_; }

    private:
        const NTiXmlRow* row_;
        Link* at_;
    };
    Iterator begin() const { return {*this, empty() ? nullptr : front()}; }
    Iterator end() const { return {*this, nullptr}; }

    bool empty() const { return last_ == nullptr; }
    Link* front() const { return last_->next_; }  // not of an empty row
    Link* back() const { return last_; }          // null of an empty row
    // Null behind the last.
    Link* After(const Link& link) const { return &link == last_ ? nullptr : link.next_; }
    std::size_t size() const;  // counts them

    void Append(Link& link) {
        if (empty()) {
            link.next_ = &link;
        } else {
            link.next_ = last_->next_;
            last_->next_ = &link;
        }
        last_ = &link;
    }
    // Takes out the one behind `before`, or the first where `before` is null.
    void RemoveAfter(Link* before);

private:
    Link* last_ = nullptr;
};

// Name and value, both as decoded text.
class NTiXmlAttribute : public NTiXmlBase {
public:
    NTiXmlAttribute() = default;
    ~NTiXmlAttribute() override;  // only of those that stand by themselves

    // `p` may be null here; it then throws with the failure text "null point".
    const char* Parse(const char* p) override;

    // Valid as long as the attribute is.
    std::string_view Name() const { return name_.View(); }
    std::string_view Value() const { return value_.View(); }

private:
    friend class NTiXmlNode;
    friend class NTiXmlParser;
    friend class NTiXmlRow<NTiXmlAttribute>;

    NTiXmlAttribute* next_ = nullptr;
    NTiXmlText name_;
    NTiXmlText value_;
};

using NTiXmlAttributeList = NTiXmlRow<NTiXmlAttribute>;

enum class NTiXmlNodeType : std::int32_t {
    kDoc = 0,
    kElement = 1,
    kComment = 2,
    kDeclaration = 3,
    kExtra = 4,
};

class NTiXmlNode : public NTiXmlBase {
public:
    explicit NTiXmlNode(NTiXmlNodeType type) : type_(type) {}
    ~NTiXmlNode() override;  // only of those that stand by themselves

    // Appends this node and all below it to `out`, indented by `depth` steps of two blanks.
    virtual void Print(NTiXmlOutBuffer& out, int depth) const = 0;

    NTiXmlNodeType Type() const { return type_; }

    // An element's text content, a comment's or extra's text, a declaration's version, a document's
    // source text. To read it, use TextView: it makes no string.
    std::string& Text() { return StringOf(text_); }
    // Valid until the text is changed.
    std::string_view TextView() const { return text_.View(); }

    // The first attribute with exactly that name, or null; null also for a null name.
    const NTiXmlAttribute* FindAttribute(const char* name) const;
    // The value of that attribute, or null.
    const std::string* AttributeValue(const char* name) const;
    const std::string* AttributeValue(const std::string& name) const;
    // The same without making a string. Valid as long as the node is.
    std::optional<std::string_view> AttributeView(std::string_view name) const;
    // Null outside 0 .. number of attributes - 1; every valid index gives the first attribute,
    // which is what callers have always been given.
    const NTiXmlAttribute* AttributeAt(int index) const;

    // Appends an attribute, also where one of that name exists. Returns it, borrowed.
    const NTiXmlAttribute* AddAttribute(std::string_view name, std::string_view value);
    // Appends copies of all attributes to `target`; nothing when it is null.
    void CopyAttributesTo(NTiXmlNode* target) const;

protected:
    const NTiXmlAttributeList& Attributes() const { return attributes_; }
    // What the node, and all that is made below it, stands in. A node that stands by itself has its
    // own, made when it is first needed.
    NTiXmlMemory& Memory();
    // The text as a string that can be changed.
    std::string& StringOf(NTiXmlText& text);

private:
    friend class NTiXmlDoc;
    friend class NTiXmlElement;
    friend class NTiXmlMemory;
    friend class NTiXmlParser;
    friend class NTiXmlRow<NTiXmlNode>;

    NTiXmlAttribute* Find(std::string_view name) const;
    const std::string* ValueOf(NTiXmlAttribute* attribute) const;  // null for null

    NTiXmlMemory* memory_ = nullptr;
    NTiXmlNode* next_ = nullptr;
    NTiXmlAttributeList attributes_;  // in the order of insertion
    NTiXmlText text_;
    NTiXmlNodeType type_;
};

using NTiXmlNodeList = NTiXmlRow<NTiXmlNode>;

class NTiXmlDeclaration : public NTiXmlNode {
public:
    NTiXmlDeclaration() : NTiXmlNode(NTiXmlNodeType::kDeclaration) {}
    const char* Parse(const char* p) override;
    void Print(NTiXmlOutBuffer& out, int depth) const override;

    std::string_view Version() const { return TextView(); }
    std::string_view Encoding() const { return encoding_.View(); }
    std::string_view Standalone() const { return standalone_.View(); }

private:
    friend class NTiXmlParser;
    NTiXmlText encoding_;
    NTiXmlText standalone_;
};

class NTiXmlComment : public NTiXmlNode {
public:
    NTiXmlComment() : NTiXmlNode(NTiXmlNodeType::kComment) {}
    const char* Parse(const char* p) override;
    void Print(NTiXmlOutBuffer& out, int depth) const override;
};

// Any other markup that starts with "<", a document type declaration for one. Its text is what
// stands between "<" and the first ">".
class NTiXmlExtra : public NTiXmlNode {
public:
    NTiXmlExtra() : NTiXmlNode(NTiXmlNodeType::kExtra) {}
    const char* Parse(const char* p) override;
    void Print(NTiXmlOutBuffer& out, int depth) const override;
};

class NTiXmlElementCursor;

class NTiXmlElement : public NTiXmlNode {
public:
    // Elements may be nested this deep; a deeper one is an "Element Parse error". No real document
    // comes near it. Printing indents by depth, so a deep document prints much larger than it is.
    static constexpr std::size_t kMaxDepth = 10000;

    NTiXmlElement() : NTiXmlNode(NTiXmlNodeType::kElement) {}

    const char* Parse(const char* p) override;
    void Print(NTiXmlOutBuffer& out, int depth) const override;

    // To read it, use NameView: it makes no string.
    std::string& Name() { return StringOf(name_); }
    // Valid until the name is changed.
    std::string_view NameView() const { return name_.View(); }
    const NTiXmlNodeList& Children() const { return children_; }

    // The index-th (from 0) direct child element of that name; null when name is null, index
    // negative or there are not enough. Costs a walk from the first child: to visit many, use
    // NTiXmlElementCursor.
    NTiXmlElement* ChildElement(const char* name, int index) const;
    NTiXmlElement* ChildElement(const std::string& name, int index) const;
    // The index-th direct child element of any name, or null.
    NTiXmlElement* ChildElementAt(int index) const;

    // Appends an element with that name and text. Neither is checked. Returns it, borrowed.
    NTiXmlElement* AddChildElement(std::string_view name, std::string_view text);
    // The same with what was printed as the text, which is not copied.
    NTiXmlElement* AddChildElement(std::string_view name, NTiXmlOutBuffer&& text);
    // Appends `child`, which must not be null, must have been made by new and not be owned by
    // anyone: from now on this element owns it.
    void AppendChild(NTiXmlNode* child);
    // Deletes that very child with all below it. False, and nothing changes, when it is no direct
    // child element of this element. The memory of what a parse or AddChildElement made is given
    // back with the whole tree.
    bool RemoveChildElement(NTiXmlNode* child);
    // Deletes the child that `cursor`, a cursor over this element, stands on, and moves the cursor
    // on.
    void RemoveChildElement(NTiXmlElementCursor& cursor);

private:
    friend class NTiXmlParser;
    NTiXmlElement* FindChild(std::string_view name, int index) const;
    void RemoveAfter(NTiXmlNode* before);
    bool PrintStartTag(NTiXmlOutBuffer& out, int depth) const;
    void PrintEndTag(NTiXmlOutBuffer& out, int depth) const;

    NTiXmlNodeList children_;
    NTiXmlText name_;
};

// Walks the direct child elements of one name in document order, each step from where it stands.
//
//   for (NTiXmlElementCursor dir(*conns, "NodeDir"); dir; dir.Next()) use(*dir);
//
// It borrows the parent and the name, and stays valid while children are appended, or removed
// through it.
class NTiXmlElementCursor {
public:
    NTiXmlElementCursor(const NTiXmlElement& parent, std::string_view name);

    explicit operator bool() const { return at_ != nullptr; }
    NTiXmlElement* Get() const { return static_cast<NTiXmlElement*>(at_); }  // null at the end
    NTiXmlElement& operator*() const { return *Get(); }
    NTiXmlElement* operator->() const { return Get(); }
    void Next();

private:
    friend class NTiXmlElement;
    void SkipOthers();

    const NTiXmlNodeList* children_;
    NTiXmlNode* before_ = nullptr;  // the child before at_; null where at_ is the first
    NTiXmlNode* at_;
    std::string_view name_;
};

class NTiXmlDoc : public NTiXmlNode {
public:
    // `source` is the text itself, or with is_file the name of the file that is read at once.
    // Throws NTiXmlException "Invalid file name:NAME" when that file cannot be opened or read.
    // Nothing is parsed yet.
    NTiXmlDoc(std::string source, bool is_file);
    // A document without a text, for ParseBorrowed.
    NTiXmlDoc() : NTiXmlNode(NTiXmlNodeType::kDoc) {}

    // Parses `text`, or with null the text of the constructor, and appends the top-level nodes.
    // Nodes that stood before a failure stay. A reference from Text() is of no use behind it: the
    // text is asked for anew.
    const char* Parse(const char* text) override;
    // The same on a text that the caller keeps, unchanged, as long as the document lives: it is
    // not copied, and does not become the document's text.
    const char* ParseBorrowed(const std::string& text);
    const char* ParseBorrowed(std::string&& text) = delete;
    // The same on a text that need not stay: the nodes get copies of what they need of it.
    const char* ParseCopied(const std::string& text);
    void Print(NTiXmlOutBuffer& out, int depth) const override;

    // The first top-level element, or null.
    NTiXmlElement* RootElement() const;
    const NTiXmlNodeList& Children() const { return children_; }

private:
    friend class NTiXmlParser;
    void ReadFile(const std::string& name);
    void SetSource(std::string source);
    // `source` is NUL-terminated; `stays`: as long as the document lives.
    const char* ParseSource(std::string_view source, bool stays);

    NTiXmlNodeList children_;
};

template <class Link>
std::size_t NTiXmlRow<Link>::size() const {
    std::size_t count = 0;
    for (auto at = begin(); at != end(); ++at) {
        ++count;
    }
    return count;
}

template <class Link>
void NTiXmlRow<Link>::RemoveAfter(Link* before) {
    Link* previous = before == nullptr ? last_ : before;
    Link* removed = previous->next_;
    if (removed == previous) {
        last_ = nullptr;
        return;
    }
    previous->next_ = removed->next_;
    if (removed == last_) {
        last_ = previous;
    }
}

// The node printed at depth 0.
std::string ToString(const NTiXmlNode& node);

// Reading steps that the node kinds share. Positions are NUL-terminated text.

// White space is what isspace takes in the C locale.
const char* SkipWhite(const char* p);
// True when the text at p begins with tag.
bool StringEqual(const char* p, std::string_view tag, bool ignore_case);
// The position behind the name, or null when no name starts at p. It is the terminating NUL when
// the text ends inside the name.
const char* ReadName(const char* p, std::string& name);
// The position behind end_tag, or null when the text ends or holds "<" or ">" before it. `out` gets
// the text up to there with white space condensed and entities decoded.
const char* ReadText(const char* p, std::string& out, std::string_view end_tag);
