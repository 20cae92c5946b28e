#include "common/tinyxml_memory.h"

#include "tests/unit/common/last_allocation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

// What the nodes of a tree stand in: how long texts, strings and nodes live, and what is left when
// memory runs out.

namespace {

// Which allocations of this program fail, and how many that were made stand. Nothing is counted and
// nothing fails until a test says so.
struct Allocations {
    bool counted = false;
    bool all_behind_fail = false;
    long until_failure = 0;  // how many succeed before one fails
    long live = 0;
    std::size_t last_size = 0;  // that realloc was asked for

    [[gnu::no_sanitize_address]] bool Refuses() {
        if (!counted) {
            return false;
        }
        const bool refuses = until_failure == 0 || (until_failure < 0 && all_behind_fail);
        --until_failure;
        return refuses;
    }
    [[gnu::no_sanitize_address]] void* Made(void* memory) {
        live += counted && memory != nullptr ? 1 : 0;
        return memory;
    }
};
Allocations allocations;

void* refused() {
    errno = ENOMEM;
    return nullptr;
}

}  // namespace

// The program's own symbols come before the C library's, and hand on to them. With the address
// sanitizer they hand on to its own: dlsym would start it too early. They are called before it has
// started, so they do without it themselves.
extern "C" {

[[gnu::weak]] void* checked_malloc(std::size_t size) asm("__interceptor_malloc");
[[gnu::weak]] void* checked_realloc(void* memory, std::size_t size) asm("__interceptor_realloc");
[[gnu::weak]] void checked_free(void* memory) asm("__interceptor_free");
void* plain_malloc(std::size_t size) asm("__libc_malloc");
void* plain_realloc(void* memory, std::size_t size) asm("__libc_realloc");
void plain_free(void* memory) asm("__libc_free");

[[gnu::no_sanitize_address]] void* malloc(std::size_t size) noexcept {
    if (allocations.Refuses()) {
        return refused();
    }
    auto* const real = checked_malloc != nullptr ? checked_malloc : plain_malloc;
    return allocations.Made(real(size));
}

[[gnu::no_sanitize_address]] void* realloc(void* memory, std::size_t size) noexcept {
    if (allocations.Refuses()) {
        return refused();
    }
    auto* const real = checked_realloc != nullptr ? checked_realloc : plain_realloc;
    void* const grown = real(memory, size);
    allocations.last_size = size;
    return memory == nullptr ? allocations.Made(grown) : grown;
}

[[gnu::no_sanitize_address]] void free(void* memory) noexcept {
    allocations.live -= allocations.counted && memory != nullptr ? 1 : 0;
    auto* const real = checked_free != nullptr ? checked_free : plain_free;
    real(memory);
}

}  // extern "C"

std::size_t last_allocation = 0;
std::size_t most_allocation = SIZE_MAX;

// Not inlined: the compiler would take malloc and free for a mismatch with the callers' operators.
[[gnu::noinline]] void* operator new(std::size_t size) {
    last_allocation = size;
    void* memory = size > most_allocation ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
// Those of arrays are the same; the address sanitizer would have its own in their place.
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return operator new(size);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    operator delete(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    operator delete(memory);
}

namespace {

using testing::ElementsAre;

constexpr const char* kShort = "<a b='c'>d</a>";  // a string keeps it in itself
constexpr const char* kLong =
    "<?xml version='1.0' encoding='UTF-8' standalone='no'?><!-- a plain note --><!DOCTYPE r>"
    "<root name='as it stands' other=' con\n densed ' third='&lt;&amp;'>"
    "<key>a text as it stands</key><key>a &quot;decoded&quot;  text</key><empty/>"
    "<!--an inner note--><!extra &amp; more> text behind </root>";

std::string attribute_of(const NTiXmlNode& node, std::string_view name) {
    return std::string(node.AttributeView(name).value_or("none"));
}

// Overwrites every byte, and so whatever stands in it.
void overwrite(std::string& text) {
    std::fill(text.begin(), text.end(), '#');
}

bool stands_in(std::string_view text, std::string_view whole) {
    return text.data() >= whole.data() && text.data() + text.size() <= whole.data() + whole.size();
}

// --- texts

TEST(TinyXmlTexts, OfAFirstParseStayThroughTheNextOnes) {
    for (const char* first : {kShort, kLong}) {
        for (const char* second : {kShort, kLong, "<x/>"}) {
            NTiXmlDoc document(first, false);
            document.Parse(nullptr);
            const std::string printed_first = ToString(document);
            document.Parse(second);
            const std::string printed = ToString(document);
            ASSERT_TRUE(printed.starts_with(printed_first));
            document.Parse(nullptr);
            EXPECT_EQ(ToString(document), printed + printed.substr(printed_first.size()));
        }
    }
}

TEST(TinyXmlTexts, StayWhenTheTextOfTheirDocumentIsChanged) {
    for (const char* source : {kShort, kLong}) {
        NTiXmlDoc document(source, false);
        document.Parse(nullptr);
        const std::string printed = ToString(document);
        EXPECT_EQ(document.Text(), source);
        overwrite(document.Text());
        EXPECT_EQ(document.Text(), std::string(std::string_view(source).size(), '#'));
        EXPECT_EQ(ToString(document), printed);
        document.Text() = "<n>new</n>";
        document.Parse(nullptr);
        EXPECT_EQ(ToString(document), printed + "<n>new</n>\n");
    }
}

TEST(TinyXmlTexts, StandInTheSourceOfTheirDocumentUnlessTheyChange) {
    NTiXmlDoc document("<r a='plain' b='&lt;'>plain too</r>", false);
    document.Parse(nullptr);
    const std::string_view source = document.TextView();
    const NTiXmlElement& root = *document.RootElement();
    EXPECT_TRUE(stands_in(root.NameView(), source));
    EXPECT_TRUE(stands_in(root.TextView(), source));
    EXPECT_TRUE(stands_in(*root.AttributeView("a"), source));
    EXPECT_FALSE(stands_in(*root.AttributeView("b"), source));
}

// Parses a node by itself from a text that is then overwritten and gone.
template <class Node>
std::string printed_without_its_text(const char* source) {
    Node node;
    {
        std::string text = source;
        node.Parse(text.c_str());
        overwrite(text);
    }
    return ToString(node);
}

TEST(TinyXmlTexts, OfANodeParsedByItselfOutliveTheTextItWasParsedFrom) {
    EXPECT_EQ(printed_without_its_text<NTiXmlElement>("<a b='c'>d</a>"), "<a b=\"c\">d</a>\n");
    EXPECT_EQ(printed_without_its_text<NTiXmlElement>(
                  "<root long-name='a value as it stands'><?xml version='1.0'?><!--a note-->"
                  "<!extra text><key>a text as it stands</key></root>"),
              "<root long-name=\"a value as it stands\">\n"
              "  <?xml version=\"1.0\" ?>\n"
              "  <!-- a note -->\n"
              "  <!extra text>\n"
              "  <key>a text as it stands</key>\n"
              "</root>\n");
    EXPECT_EQ(printed_without_its_text<NTiXmlComment>("<!--a longer note-->"),
              "<!-- a longer note -->\n");
    EXPECT_EQ(printed_without_its_text<NTiXmlExtra>("<!DOCTYPE something>"),
              "<!DOCTYPE something>\n");
    EXPECT_EQ(printed_without_its_text<NTiXmlDeclaration>(
                  "<?xml version='1.0' encoding='ISO-8859-1' standalone='yes'?>"),
              "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" standalone=\"yes\" ?>\n");
}

TEST(TinyXmlTexts, OfAnAttributeByItselfOutliveItsTextAndAreReplacedByTheNextParse) {
    NTiXmlAttribute attribute;
    for (const auto& [source, name, value] :
         {std::tuple{"a='1'>", "a", "1"},
          std::tuple{"a-rather-long-name='a rather long value'>", "a-rather-long-name",
                     "a rather long value"},
          std::tuple{"b='&lt;  &gt;'>", "b", "< >"}, std::tuple{"c=''>", "c", ""}}) {
        std::string text = source;
        attribute.Parse(text.c_str());
        overwrite(text);
        EXPECT_EQ(attribute.Name(), name);
        EXPECT_EQ(attribute.Value(), value);
    }
}

TEST(TinyXmlTexts, AFailedParseLeavesAnAttributeByItselfAsItWas) {
    NTiXmlAttribute attribute;
    attribute.Parse("a='1'>");
    EXPECT_THROW(attribute.Parse("b='2"), NTiXmlException);
    EXPECT_EQ(attribute.Name(), "a");
    EXPECT_EQ(attribute.Value(), "1");
}

TEST(TinyXmlTexts, OfABorrowedTextStandInIt) {
    const std::string text = kLong;
    NTiXmlDoc document;
    const char* const end = document.ParseBorrowed(text);
    EXPECT_EQ(end, text.c_str() + text.size());
    const NTiXmlElement& root = *document.RootElement();
    EXPECT_TRUE(stands_in(root.NameView(), text));
    EXPECT_TRUE(stands_in(*root.AttributeView("name"), text));
    EXPECT_TRUE(stands_in(root.ChildElementAt(0)->TextView(), text));
    EXPECT_EQ(attribute_of(root, "third"), "<&");
}

TEST(TinyXmlTexts, ABorrowedTextIsNotTheTextOfTheDocument) {
    const std::string text = kShort;
    NTiXmlDoc empty;
    empty.ParseBorrowed(text);
    EXPECT_EQ(empty.TextView(), "");
    EXPECT_EQ(empty.Text(), "");
    EXPECT_THROW(empty.Parse(nullptr), NTiXmlException);
    NTiXmlDoc other("<own/>", false);
    other.ParseBorrowed(text);
    EXPECT_EQ(other.TextView(), "<own/>");
    other.Parse(nullptr);
    EXPECT_EQ(ToString(other), "<a b=\"c\">d</a>\n<own/>\n");
}

TEST(TinyXmlTexts, ABorrowedTextParsesAsACopyDoes) {
    for (const std::string text : {kShort, kLong}) {
        NTiXmlDoc copying(text, false);
        copying.Parse(nullptr);
        NTiXmlDoc borrowing;
        borrowing.ParseBorrowed(text);
        EXPECT_EQ(ToString(borrowing), ToString(copying));
        borrowing.ParseBorrowed(text);
        EXPECT_EQ(ToString(borrowing), ToString(copying) + ToString(copying));
    }
}

TEST(TinyXmlTexts, AnEmptyBorrowedTextIsNoContent) {
    NTiXmlDoc document("<own/>", false);
    const std::string text;
    try {
        document.ParseBorrowed(text);
        ADD_FAILURE() << "no exception";
    } catch (const NTiXmlException& exception) {
        EXPECT_STREQ(exception.Message(), "No content");
        EXPECT_STREQ(exception.Remainder(), "");
        EXPECT_EQ(exception.Line(), 835);
    }
    EXPECT_TRUE(document.Children().empty());
}

TEST(TinyXmlTexts, ABorrowedTextEndsAtItsNul) {
    const std::string nothing("\0<a/>", 5);
    const std::string one("<a/>\0<b/>", 9);
    NTiXmlDoc document;
    EXPECT_EQ(document.ParseBorrowed(nothing), nothing.c_str());
    EXPECT_TRUE(document.Children().empty());
    EXPECT_EQ(document.ParseBorrowed(one), one.c_str() + 4);
    EXPECT_EQ(document.Children().size(), 1U);
}

// --- names and texts as strings

TEST(TinyXmlStrings, ChangesOfWhatWasParsedShowInThePrint) {
    NTiXmlDoc document("<r a='1'><k>text</k><!--note--><!x></r>", false);
    document.Parse(nullptr);
    NTiXmlElement& root = *document.RootElement();
    root.Name() += "oot";
    root.ChildElementAt(0)->Name() = "a much longer name than it was";
    root.ChildElementAt(0)->Text() += " & more";
    for (NTiXmlNode* child : root.Children()) {
        if (child->Type() != NTiXmlNodeType::kElement) {
            child->Text() += "!";
        }
    }
    EXPECT_EQ(ToString(document),
              "<root a=\"1\">\n"
              "  <a much longer name than it was>text &amp; more</a much longer name than it was>\n"
              "  <!-- note! -->\n"
              "  <!x!>\n"
              "</root>\n");
    EXPECT_EQ(document.TextView(), "<r a='1'><k>text</k><!--note--><!x></r>");
}

TEST(TinyXmlStrings, AreTheSameAtEachCallWhateverIsAdded) {
    NTiXmlDoc document("<r>text</r>", false);
    document.Parse(nullptr);
    NTiXmlElement made_by_itself;
    NTiXmlElement& added = *document.RootElement()->AddChildElement("r", "text");
    made_by_itself.Name() = "r";
    made_by_itself.Text() = "text";
    for (NTiXmlElement* element : {document.RootElement(), &added, &made_by_itself}) {
        std::string& name = element->Name();
        std::string& text = element->Text();
        for (int step = 0; step < 10000; ++step) {
            element->AddAttribute("attribute", "value");
            element->AddChildElement("child", "text")->Text() += " changed";
        }
        EXPECT_EQ(&element->Name(), &name);
        EXPECT_EQ(&element->Text(), &text);
        EXPECT_EQ(name + "=" + text, "r=text");
        EXPECT_EQ(element->NameView().data(), name.data());
        EXPECT_EQ(element->TextView().data(), text.data());
    }
}

TEST(TinyXmlStrings, OfAnAttributeAreTheSameAtEachCallWhateverIsAdded) {
    NTiXmlDoc document("<r a='as it stands' b='&lt;' c=''/>", false);
    document.Parse(nullptr);
    NTiXmlElement& root = *document.RootElement();
    root.AddAttribute("d", "added");
    const std::vector<std::pair<const char*, const char*>> all = {
        {"a", "as it stands"}, {"b", "<"}, {"c", ""}, {"d", "added"}};
    std::vector<const std::string*> values;
    for (const auto& [name, value] : all) {
        EXPECT_EQ(attribute_of(root, name), value);
        values.push_back(root.AttributeValue(name));
    }
    for (int step = 0; step < 1000; ++step) {
        root.AddAttribute("x", "value");
        root.AttributeValue("x");
    }
    for (std::size_t index = 0; index < all.size(); ++index) {
        const auto& [name, value] = all[index];
        EXPECT_EQ(root.AttributeValue(name), values[index]) << name;
        EXPECT_EQ(root.AttributeValue(std::string(name)), values[index]) << name;
        EXPECT_EQ(*values[index], value) << name;
        EXPECT_EQ(root.AttributeView(name)->data(), values[index]->data()) << name;
    }
}

TEST(TinyXmlStrings, AnEmptyValueIsNotAnAbsentOne) {
    NTiXmlDoc document("<r a='' b='  '/>", false);
    document.Parse(nullptr);
    NTiXmlElement& root = *document.RootElement();
    root.AddAttribute("c", "");
    root.AddAttribute("", "unnamed");
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_EQ(root.AttributeView(name), std::string_view()) << name;
        ASSERT_NE(root.AttributeValue(name), nullptr) << name;
        EXPECT_EQ(*root.AttributeValue(name), "") << name;
    }
    EXPECT_EQ(root.AttributeView("d"), std::nullopt);
    EXPECT_EQ(root.AttributeValue("d"), nullptr);
    EXPECT_EQ(root.AttributeView(""), "unnamed");
    EXPECT_EQ(NTiXmlElement().AttributeView("a"), std::nullopt);
}

// --- sizes

constexpr std::size_t kSizes[] = {4095, 4096, 4097};

TEST(TinyXmlSizes, TextsAroundTheSizeFromWhichTheyAreKeptAsStrings) {
    for (const std::size_t size : kSizes) {
        const std::string plain(size, 'x');
        const std::string decoded = "<" + std::string(size - 1, 'x');
        const std::string written = "&lt;" + std::string(size - 1, 'x');
        NTiXmlDoc document("<r a='" + written + "' b='" + plain + "'><k>" + written + "</k><k>" +
                               plain + "</k><!--" + written + "--><!--" + plain + "--></r>",
                           false);
        document.Parse(nullptr);
        const NTiXmlElement& root = *document.RootElement();
        EXPECT_EQ(attribute_of(root, "a"), decoded);
        EXPECT_EQ(attribute_of(root, "b"), plain);
        EXPECT_EQ(*root.AttributeValue("a"), decoded);
        std::vector<std::string> texts;
        for (NTiXmlNode* child : root.Children()) {
            texts.emplace_back(child->TextView());
            EXPECT_EQ(child->Text(), texts.back());
        }
        EXPECT_THAT(texts, ElementsAre(decoded, plain, decoded, plain));
    }
}

TEST(TinyXmlSizes, OnlyALongChangedTextIsAStringAlready) {
    for (const std::size_t size : kSizes) {
        NTiXmlDoc document("<r>&lt;" + std::string(size - 1, 'x') + "</r>", false);
        document.Parse(nullptr);
        const char* const read = document.RootElement()->TextView().data();
        EXPECT_EQ(document.RootElement()->Text().data() == read, size >= 4096) << size;
    }
}

TEST(TinyXmlSizes, LongChangedTextsInARowStayApart) {
    std::string text;
    std::string printed;
    for (char c = 'a'; c <= 'f'; ++c) {
        const std::string size(c % 2 == 0 ? 5000 : 100, c);
        text += "<k v='&lt;" + size + "'>&gt;" + size + "</k>";
        printed += "<k v=\"&lt;" + size + "\">&gt;" + size + "</k>\n";
    }
    NTiXmlDoc document(text, false);
    document.Parse(nullptr);
    EXPECT_EQ(ToString(document), printed);
}

TEST(TinyXmlSizes, EverySizeOfATextInTheFirstBlocks) {
    for (std::size_t size = 0; size < 1200; ++size) {
        NTiXmlElement root;
        const std::string first(size, 'x');
        const NTiXmlElement& one = *root.AddChildElement("one", first);
        const NTiXmlElement& two = *root.AddChildElement("two", "second");
        ASSERT_EQ(one.TextView(), first);
        ASSERT_EQ(two.NameView(), "two");
        ASSERT_EQ(two.TextView(), "second");
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(&two) % alignof(NTiXmlElement), 0U);
    }
}

TEST(TinyXmlSizes, ManyNodesInManyBlocksKeepTheirTexts) {
    constexpr int kNodes = 100000;
    NTiXmlElement root;
    for (int number = 0; number < kNodes; ++number) {
        const std::string text = std::to_string(number);
        root.AddChildElement("n" + text, text)->AddAttribute("a", text);
    }
    int number = 0;
    for (const NTiXmlNode* child : root.Children()) {
        const std::string text = std::to_string(number++);
        ASSERT_EQ(static_cast<const NTiXmlElement*>(child)->NameView(), "n" + text);
        ASSERT_EQ(child->TextView(), text);
        ASSERT_EQ(child->AttributeView("a"), text);
    }
    EXPECT_EQ(number, kNodes);
}

TEST(TinyXmlSizes, ATextLargerThanAnyBlockAmongSmallOnes) {
    const std::string large(5000000, 'x');
    NTiXmlElement root;
    root.Name() = "r";
    root.AddChildElement("before", "1");
    root.AddChildElement("large", large)->AddAttribute("large", large);
    root.AddChildElement("after", "2");
    const std::string printed = "<r>\n  <before>1</before>\n  <large large=\"" + large + "\">" +
                                large + "</large>\n  <after>2</after>\n</r>\n";
    EXPECT_TRUE(ToString(root) == printed);
    NTiXmlElement parsed;
    parsed.Parse(printed.c_str());
    EXPECT_TRUE(ToString(parsed) == printed);
    NTiXmlDoc document("<r>&lt;" + large + "</r>", false);
    document.Parse(nullptr);
    EXPECT_TRUE(document.RootElement()->TextView() == "<" + large);
}

TEST(TinyXmlSizes, ManyDocumentsSideBySide) {
    std::vector<std::unique_ptr<NTiXmlDoc>> documents;
    for (int number = 0; number < 2000; ++number) {
        const std::string text = std::to_string(number);
        documents.push_back(std::make_unique<NTiXmlDoc>("<d n='" + text + "'>&amp;</d>", false));
        documents.back()->Parse(nullptr);
    }
    for (std::size_t number = 0; number < documents.size(); number += 2) {
        documents[number].reset();
    }
    for (std::size_t number = 1; number < documents.size(); number += 2) {
        ASSERT_EQ(ToString(*documents[number]),
                  "<d n=\"" + std::to_string(number) + "\">&amp;</d>\n");
    }
}

TEST(TinyXmlSizes, AHundredThousandAttributesInOrder) {
    constexpr int kAttributes = 100000;
    NTiXmlElement element;
    element.Name() = "e";
    std::string printed = "<e";
    for (int number = 0; number < kAttributes; ++number) {
        const std::string text = std::to_string(number);
        element.AddAttribute("a" + text, text);
        printed += " a" + text + "=\"" + text + "\"";
    }
    printed += "/>\n";
    EXPECT_TRUE(ToString(element) == printed);
    EXPECT_EQ(attribute_of(element, "a0"), "0");
    EXPECT_EQ(attribute_of(element, "a99999"), "99999");
    EXPECT_EQ(element.AttributeView("a100000"), std::nullopt);
    NTiXmlDoc document(printed, false);
    document.Parse(nullptr);
    EXPECT_TRUE(ToString(document) == printed);
}

// --- ownership

// Tells how many of them have gone.
class CountedElement : public NTiXmlElement {
public:
    explicit CountedElement(int& gone) : gone_(&gone) {}
    CountedElement(const CountedElement&) = delete;
    CountedElement& operator=(const CountedElement&) = delete;
    ~CountedElement() override { ++*gone_; }

private:
    int* gone_;
};

NTiXmlElement& append_counted(NTiXmlElement& parent, int& gone) {
    parent.AppendChild(std::make_unique<CountedElement>(gone).release());
    return static_cast<NTiXmlElement&>(*parent.Children().back());
}

NTiXmlElement& only_child(NTiXmlElement& parent) {
    return *parent.ChildElementAt(0);
}

TEST(TinyXmlAdopted, BelowMadeNodesGoWithWhicheverAboveThemIsRemoved) {
    for (int removed_depth = 0; removed_depth < 4; ++removed_depth) {
        int gone = 0;
        NTiXmlDoc document("<r><a><b><c><d/></c></b></a></r>", false);
        document.Parse(nullptr);
        NTiXmlElement* deepest = document.RootElement();
        NTiXmlElement* parent = deepest;
        for (int depth = 0; depth < 4; ++depth) {
            parent = depth == removed_depth ? deepest : parent;
            deepest = &only_child(*deepest);
        }
        append_counted(append_counted(*deepest, gone), gone);
        append_counted(*document.RootElement(), gone);
        EXPECT_TRUE(parent->RemoveChildElement(&only_child(*parent)));
        EXPECT_EQ(gone, 2) << removed_depth;
        EXPECT_EQ(document.RootElement()->Children().size(), removed_depth == 0 ? 1U : 2U);
    }
}

// Below `root`: adopted, made, adopted, made, ... in turn.
std::vector<NTiXmlElement*> nest_in_turn(NTiXmlElement& root, int levels, int& gone) {
    std::vector<NTiXmlElement*> nested = {&root};
    for (int level = 0; level < levels; ++level) {
        NTiXmlElement& parent = *nested.back();
        NTiXmlElement& child =
            level % 2 == 0 ? append_counted(parent, gone) : *parent.AddChildElement("made", "");
        child.Name() = "n";
        nested.push_back(&child);
    }
    return nested;
}

TEST(TinyXmlAdopted, InTurnWithMadeOnesGoOnceFromEachDepth) {
    constexpr int kLevels = 8;
    for (std::size_t removed = 1; removed <= kLevels; ++removed) {
        int gone = 0;
        {
            NTiXmlDoc document("<r><m/></r>", false);
            document.Parse(nullptr);
            const auto nested = nest_in_turn(only_child(*document.RootElement()), kLevels, gone);
            const int above = static_cast<int>(removed) / 2;
            EXPECT_TRUE(nested[removed - 1]->RemoveChildElement(nested[removed]));
            EXPECT_EQ(gone, kLevels / 2 - above) << removed;
            EXPECT_TRUE(nested[removed - 1]->Children().empty());
            EXPECT_EQ(ToString(document).find("<n") != std::string::npos, removed > 1);
        }
        EXPECT_EQ(gone, kLevels / 2) << removed;
    }
}

TEST(TinyXmlAdopted, StayWhenASiblingWithOnesOfItsOwnGoes) {
    int gone = 0;
    int stayed = 0;
    NTiXmlDoc document("<r><a><x/></a><b><x/></b></r>", false);
    document.Parse(nullptr);
    NTiXmlElement& root = *document.RootElement();
    append_counted(only_child(*root.ChildElement("a", 0)), gone).Name() = "gone";
    append_counted(only_child(*root.ChildElement("b", 0)), stayed).Name() = "stays";
    EXPECT_TRUE(root.RemoveChildElement(root.ChildElement("a", 0)));
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(stayed, 0);
    EXPECT_EQ(ToString(document), "<r>\n  <b>\n    <x>\n      <stays/>\n    </x>\n  </b>\n</r>\n");
}

TEST(TinyXmlAdopted, GoWithWhatElseStandsBesideThem) {
    int gone = 0;
    NTiXmlDoc document("<r><a><!--c--><x/></a></r>", false);
    document.Parse(nullptr);
    NTiXmlElement& root = *document.RootElement();
    append_counted(only_child(only_child(root)), gone);
    EXPECT_TRUE(root.RemoveChildElement(&only_child(root)));
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(ToString(document), "<r/>\n");
}

TEST(TinyXmlAdopted, MayBeParsedAndChangedWhereTheyStand) {
    int gone = 0;
    {
        NTiXmlDoc document("<r/>", false);
        document.Parse(nullptr);
        NTiXmlElement& adopted = append_counted(*document.RootElement(), gone);
        adopted.Parse("<a b='c'><d>e</d></a>");
        append_counted(only_child(adopted), gone).Name() = "f";
        adopted.Text() = "t";
        EXPECT_EQ(ToString(document),
                  "<r>\n  <a b=\"c\">t\n    <d>e\n      <f/>\n    </d>\n  </a>\n</r>\n");
    }
    EXPECT_EQ(gone, 2);
}

// A parent beside a plain list of what its children must be.
class Siblings {
public:
    void AppendMade() {
        texts_.push_back(NewText());
        parent_.AddChildElement("n", texts_.back());
    }
    void AppendAdopted() {
        texts_.push_back(NewText());
        NTiXmlElement& child = append_counted(parent_, gone_);
        child.Name() = "n";
        child.Text() = texts_.back();
        adopted_.push_back(texts_.back());
    }
    void Remove(std::size_t index) {
        EXPECT_TRUE(parent_.RemoveChildElement(parent_.ChildElementAt(static_cast<int>(index))));
        Forget(index);
    }
    void RemoveByCursor(std::size_t index) {
        NTiXmlElementCursor at(parent_, "n");
        for (std::size_t step = 0; step < index; ++step) {
            at.Next();
        }
        parent_.RemoveChildElement(at);
        Forget(index);
        ASSERT_EQ(static_cast<bool>(at), index < texts_.size());
        if (at) {
            EXPECT_EQ(at->TextView(), texts_[index]);
        }
    }
    void RemoveAllByCursor() {
        for (NTiXmlElementCursor at(parent_, "n"); at;) {
            ASSERT_EQ(at->TextView(), texts_.front());
            parent_.RemoveChildElement(at);
            Forget(0);
        }
    }
    void Check() const {
        std::vector<std::string> texts;
        for (const NTiXmlNode* child : parent_.Children()) {
            texts.emplace_back(child->TextView());
        }
        ASSERT_EQ(texts, texts_);
        ASSERT_EQ(parent_.Children().empty(), texts_.empty());
        ASSERT_EQ(gone_, wanted_gone_);
    }
    std::size_t Size() const { return texts_.size(); }

private:
    std::string NewText() { return std::to_string(made_++); }
    void Forget(std::size_t index) {
        const auto at = texts_.begin() + static_cast<std::ptrdiff_t>(index);
        wanted_gone_ += static_cast<int>(std::count(adopted_.begin(), adopted_.end(), *at));
        texts_.erase(at);
    }

    int gone_ = 0;
    int wanted_gone_ = 0;
    int made_ = 0;
    std::vector<std::string> texts_;
    std::vector<std::string> adopted_;
    NTiXmlElement parent_;
};

TEST(TinyXmlSiblings, KeepTheirOrderWhereverOneIsRemovedAndOthersAppended) {
    for (std::size_t size = 1; size <= 5; ++size) {
        for (std::size_t removed = 0; removed < size; ++removed) {
            for (const bool by_cursor : {false, true}) {
                SCOPED_TRACE(size * 10 + removed);
                Siblings siblings;
                while (siblings.Size() < size) {
                    siblings.Size() % 2 == 0 ? siblings.AppendMade() : siblings.AppendAdopted();
                }
                by_cursor ? siblings.RemoveByCursor(removed) : siblings.Remove(removed);
                siblings.Check();
                siblings.AppendAdopted();
                siblings.AppendMade();
                siblings.Check();
                siblings.RemoveAllByCursor();
                siblings.Check();
                siblings.AppendMade();
                siblings.AppendAdopted();
                siblings.Check();
            }
        }
    }
}

TEST(TinyXmlSiblings, AnyHistoryOfAppendsAndRemovals) {
    for (unsigned seed = 1; seed <= 200; ++seed) {
        std::mt19937 random(seed);
        Siblings siblings;
        for (int step = 0; step < 40; ++step) {
            const auto choice = random() % 6;
            if (choice < 2 || siblings.Size() == 0) {
                siblings.AppendMade();
            } else if (choice < 4) {
                siblings.AppendAdopted();
            } else {
                const std::size_t index = random() % siblings.Size();
                choice == 4 ? siblings.Remove(index) : siblings.RemoveByCursor(index);
            }
            siblings.Check();
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

// --- memory that runs out

enum class Refusal { kOne, kAllBehind };

// Runs `step`, the number-th allocation of which (from 0) fails, or all from that one on. True when
// std::bad_alloc passed.
template <class Step>
bool runs_out(long number, Refusal refusal, Step step) {
    allocations = {true, refusal == Refusal::kAllBehind, number, 0, 0};
    bool passed = false;
    try {
        step();
    } catch (const std::bad_alloc&) {
        passed = true;
    }
    allocations.counted = false;
    return passed;
}

// Lets each allocation of `step` fail in turn: std::bad_alloc has to pass, and nothing may stand
// then that the step has made. Returns how many there are.
template <class Step>
long each_allocation_fails(Step step) {
    long most = 0;
    for (const Refusal refusal : {Refusal::kOne, Refusal::kAllBehind}) {
        long number = 0;
        while (runs_out(number, refusal, step)) {
            EXPECT_EQ(allocations.live, 0) << number;
            ++number;
        }
        EXPECT_GE(allocations.until_failure, 0) << "a failure was swallowed";
        EXPECT_EQ(allocations.live, 0);
        most = std::max(most, number);
    }
    return most;
}

const std::string& all_kinds_and_sizes() {
    static const std::string text =
        kLong + ("<big a='&lt;" + std::string(5000, 'x') + "'>&gt;" + std::string(3000, 'y')) +
        "</big>";
    return text;
}

TEST(TinyXmlOutOfMemory, ParsingAndPrintingADocument) {
    const std::string& text = all_kinds_and_sizes();
    const long failures = each_allocation_fails([&text] {
        NTiXmlDoc document(text, false);
        document.Parse(nullptr);
        document.Parse("<another>source</another>");
        NTiXmlOutBuffer out;
        document.Print(out, 0);
    });
    EXPECT_GE(failures, 15);
}

TEST(TinyXmlOutOfMemory, ABorrowedText) {
    const std::string& text = all_kinds_and_sizes();
    EXPECT_GE(each_allocation_fails([&text] { NTiXmlDoc().ParseBorrowed(text); }), 8);
}

TEST(TinyXmlOutOfMemory, BlocksOfLargeTexts) {
    const std::string large(5000000, 'x');
    const long failures = each_allocation_fails([&large] {
        NTiXmlElement root;
        root.AddChildElement("a", large);
        root.AddChildElement("b", large);
    });
    EXPECT_EQ(failures, 8);  // the memory, the list of blocks thrice, four blocks
}

TEST(TinyXmlOutOfMemory, NodesParsedByThemselves) {
    const std::string& text = all_kinds_and_sizes();
    const std::string element = text.substr(text.find("<root"));
    EXPECT_GE(each_allocation_fails([&element] { NTiXmlElement().Parse(element.c_str()); }), 5);
    EXPECT_GE(each_allocation_fails([] { NTiXmlComment().Parse("<!-- a  note -->"); }), 3);
    EXPECT_GE(each_allocation_fails([] { NTiXmlExtra().Parse("<!DOCTYPE something longer>"); }), 4);
    EXPECT_GE(each_allocation_fails([] { NTiXmlDeclaration().Parse("<?xml version='1.0'?>"); }), 3);
    EXPECT_GE(each_allocation_fails([] { NTiXmlAttribute().Parse("a='&lt;'>"); }), 2);
}

TEST(TinyXmlOutOfMemory, AddingAndChanging) {
    const std::string value(100, 'v');
    const long failures = each_allocation_fails([&value] {
        NTiXmlElement root;
        root.Name() = value;
        for (int step = 0; step < 20; ++step) {
            NTiXmlElement& child = *root.AddChildElement("child", value);
            child.AddAttribute("a", value);
            child.Text() += value;
            child.AttributeValue("a");
            child.CopyAttributesTo(&root);
        }
    });
    EXPECT_GE(failures, 60);
}

TEST(TinyXmlOutOfMemory, ADocumentStaysUsable) {
    const std::string& text = all_kinds_and_sizes();
    NTiXmlDoc whole(text, false);
    whole.Parse(nullptr);
    const std::string printed = ToString(whole);
    long number = 0;
    for (bool failed = true; failed; ++number) {
        NTiXmlDoc document("<first/>", false);
        document.Parse(nullptr);
        failed = runs_out(number, Refusal::kAllBehind, [&] { document.Parse(text.c_str()); });
        const std::string left = ToString(document);
        EXPECT_TRUE(("<first/>\n" + printed).starts_with(left)) << left;
        EXPECT_TRUE(left.starts_with("<first/>\n")) << left;
        document.Parse(text.c_str());
        EXPECT_EQ(ToString(document), left + printed);
    }
    EXPECT_GE(number, 10);
}

TEST(TinyXmlOutOfMemory, AnElementStaysAsItWas) {
    const std::string value(3000, 'v');
    bool failed = true;
    long number = 0;
    for (; failed; ++number) {
        NTiXmlElement element;
        element.Parse("<e a='1'><c/></e>");
        const std::string printed = ToString(element);
        failed = runs_out(number, Refusal::kOne, [&] { element.AddChildElement("x", value); });
        EXPECT_EQ(ToString(element) == printed, failed) << number;
        failed |= runs_out(number, Refusal::kOne, [&] { element.AddAttribute("x", value); });
        failed |= runs_out(number, Refusal::kOne, [&] { element.Name() += "n"; });
        EXPECT_EQ(element.ChildElementAt(0)->NameView(), "c");
        EXPECT_EQ(attribute_of(element, "a"), "1");
    }
    EXPECT_GE(number, 3);
}

TEST(TinyXmlOutOfMemory, AnOutBufferThatCannotGrow) {
    NTiXmlOutBuffer out;
    out.Append("before");
    const std::string more(100000, '&');
    EXPECT_TRUE(runs_out(0, Refusal::kOne, [&] { out.AppendEscaped(more); }));
    EXPECT_TRUE(runs_out(0, Refusal::kOne, [&] { out.Append(more); }));
    EXPECT_TRUE(runs_out(0, Refusal::kOne, [&] { out.AppendBlanks(100000); }));
}

TEST(TinyXmlOutOfMemory, AChildThatCannotBeAppendedIsDeleted) {
    for (long number = 0; number < 4; ++number) {
        int gone = 0;
        NTiXmlElement element;
        auto child = std::make_unique<CountedElement>(gone);
        if (runs_out(number, Refusal::kOne, [&] { element.AppendChild(child.release()); })) {
            EXPECT_EQ(gone, 1) << number;
        }
    }
}

TEST(TinyXmlOutOfMemory, ATreeIsDestroyedWithoutMemory) {
    const auto destroy_without_memory = [] {
        auto element = std::make_unique<NTiXmlElement>();
        element->AppendChild(std::make_unique<NTiXmlElement>().release());
        runs_out(0, Refusal::kAllBehind, [&] { element.reset(); });
        std::_Exit(0);
    };
    EXPECT_EXIT(destroy_without_memory(), testing::ExitedWithCode(0), "");
}

TEST(TinyXmlOutOfMemory, ARemovalHappensWholeOrNotAtAll) {
    int gone = 0;
    NTiXmlElement element;
    append_counted(element, gone).Name() = "n";
    NTiXmlElementCursor at(element, "n");
    const bool failed = runs_out(0, Refusal::kOne, [&] { element.RemoveChildElement(at); });
    EXPECT_EQ(gone, failed ? 0 : 1);
    EXPECT_EQ(element.Children().size(), failed ? 1U : 0U);
}

TEST(TinyXmlOutOfMemory, NothingOfATextIsUsedBehindAParseThatFailed) {
    for (long number = 0; number < 20; ++number) {
        NTiXmlElement element;
        std::string text = "<name>" + std::string(3000, 't') + "</name>";
        runs_out(number, Refusal::kOne, [&] { element.Parse(text.c_str()); });
        std::fill(text.begin(), text.end(), '#');
        EXPECT_EQ(ToString(element).find('#'), std::string::npos) << number;
    }
}

TEST(TinyXmlOutOfMemory, NothingOfACommentIsUsedBehindAParseThatFailed) {
    for (long number = 0; number < 8; ++number) {
        NTiXmlComment comment;
        std::string text = "<!--" + std::string(3000, 't') + "-->";
        runs_out(number, Refusal::kOne, [&] { comment.Parse(text.c_str()); });
        std::fill(text.begin(), text.end(), '#');
        EXPECT_EQ(ToString(comment).find('#'), std::string::npos) << number;
    }
}

TEST(TinyXmlMemory, AReferenceToTheTextFromBeforeAParseReachesNoNode) {
    NTiXmlDoc document("<a/>", false);
    std::string& text = document.Text();
    text = "<b>text</b>";
    document.Parse(nullptr);
    text = "###########";
    EXPECT_EQ(ToString(document), "<b>text</b>\n");
}

// How many allocations `step` makes.
template <class Step>
long allocations_of(Step step) {
    constexpr long enough = 1'000'000;
    EXPECT_FALSE(runs_out(enough, Refusal::kOne, step));
    return enough - allocations.until_failure;
}

TEST(TinyXmlGrowth, ManyNodesTakeFewBlocks) {
    std::string text;
    for (int number = 0; number < 50'000; ++number) {
        text += "<a/>";
    }
    // About 6 MB: thirteen doublings, one of the largest blocks, and the growing list of them.
    EXPECT_LE(allocations_of([&text] { NTiXmlDoc().ParseBorrowed(text); }), 25);
}

TEST(TinyXmlGrowth, BlocksEndAtASizeThatLeavesLittleUnused) {
    std::string text;
    for (int number = 0; number < 300'000; ++number) {
        text += "<a/>";
    }
    // Some 30 MB in blocks of 4 MB: with doubling to the end there would be three less, and up to
    // half of the memory unused.
    const long blocks = allocations_of([&text] { NTiXmlDoc().ParseBorrowed(text); });
    EXPECT_GE(blocks, 25);
    EXPECT_LE(blocks, 40);
}

TEST(TinyXmlGrowth, AReleasedTextIsCutToItsSizeAndItsNul) {
    NTiXmlOutBuffer out;
    out.AppendMarkup("0123456789");
    char* const text = out.Release();
    const std::size_t size = allocations.last_size;
    EXPECT_STREQ(text, "0123456789");
    std::free(text);
    EXPECT_EQ(size, 11U);
}

TEST(TinyXmlGrowth, ATextThatCannotBeCutIsReleasedAllTheSame) {
    NTiXmlOutBuffer out;
    out.AppendMarkup("0123456789");
    char* text = nullptr;
    runs_out(0, Refusal::kOne, [&] { text = out.Release(); });
    EXPECT_STREQ(text, "0123456789");
    std::free(text);
}

TEST(TinyXmlGrowth, APrintedTextIsTakenOverAndGoesWithTheTree) {
    allocations_of([] {
        NTiXmlOutBuffer printed;
        printed.AppendMarkup("printed");
        NTiXmlElement root;
        NTiXmlElement* const child = root.AddChildElement("name", std::move(printed));
        ASSERT_NE(child, nullptr);
        EXPECT_EQ(child->TextView(), "printed");
    });
    EXPECT_EQ(allocations.live, 0);
}

TEST(TinyXmlGrowth, APrintInManyPiecesIsMovedSeldom) {
    const long moves = allocations_of([] {
        NTiXmlOutBuffer out;
        for (int number = 0; number < 100'000; ++number) {
            out.AppendMarkup("0123456789");
        }
    });
    EXPECT_LE(moves, 12);
}

}  // namespace
