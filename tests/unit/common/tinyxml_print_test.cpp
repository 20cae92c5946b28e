#include "common/tinyxml.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

template <class Node>
Node* append_new(NTiXmlElement& parent) {
    auto child = std::make_unique<Node>();
    Node* borrowed = child.get();
    parent.AppendChild(child.release());
    return borrowed;
}

template <class Node>
std::string parsed_and_printed(const char* text) {
    Node node;
    node.Parse(text);
    return ToString(node);
}

std::string printed_at(const NTiXmlNode& node, int depth) {
    NTiXmlOutBuffer out;
    node.Print(out, depth);
    return out.Text();
}

std::string element_with_text(const std::string& text) {
    NTiXmlElement element;
    element.Name() = "e";
    element.Text() = text;
    return ToString(element);
}

std::string element_with_attribute(const std::string& value) {
    NTiXmlElement element;
    element.Name() = "e";
    element.AddAttribute("a", value);
    return ToString(element);
}

TEST(TinyXmlPrint, DeclarationWithVersionOnly) {
    EXPECT_EQ(parsed_and_printed<NTiXmlDeclaration>("<?xml version='1.0'?>"),
              "<?xml version=\"1.0\" ?>\n");
}

TEST(TinyXmlPrint, DeclarationFieldsInTheirOrder) {
    EXPECT_EQ(parsed_and_printed<NTiXmlDeclaration>(
                  "<?xml standalone='no' encoding='UTF-8' version='1.0'?>"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\" ?>\n");
}

TEST(TinyXmlPrint, DeclarationWithoutVersion) {
    EXPECT_EQ(parsed_and_printed<NTiXmlDeclaration>("<?xml encoding='UTF-8'?>"),
              "<?xml encoding=\"UTF-8\" ?>\n");
    EXPECT_EQ(parsed_and_printed<NTiXmlDeclaration>("<?xml standalone='yes'?>"),
              "<?xml standalone=\"yes\" ?>\n");
}

TEST(TinyXmlPrint, DeclarationWithoutFields) {
    EXPECT_EQ(ToString(NTiXmlDeclaration()), "<?xml ?>\n");
}

TEST(TinyXmlPrint, DeclarationValuesAreNotEscaped) {
    NTiXmlDeclaration declaration;
    declaration.Text() = "1 & \"2\" <3>";
    EXPECT_EQ(ToString(declaration), "<?xml version=\"1 & \"2\" <3>\" ?>\n");
}

TEST(TinyXmlPrint, CommentWithText) {
    NTiXmlComment comment;
    comment.Text() = "a < b & c";
    EXPECT_EQ(ToString(comment), "<!-- a < b & c -->\n");
}

TEST(TinyXmlPrint, CommentWithEmptyText) {
    EXPECT_EQ(ToString(NTiXmlComment()), "<!-- -->\n");
}

TEST(TinyXmlPrint, Extra) {
    NTiXmlExtra extra;
    extra.Text() = "!DOCTYPE r & \"x\"";
    EXPECT_EQ(ToString(extra), "<!DOCTYPE r & \"x\">\n");
}

TEST(TinyXmlPrint, ExtraWithEmptyText) {
    EXPECT_EQ(ToString(NTiXmlExtra()), "<>\n");
}

TEST(TinyXmlPrint, ElementWithNothing) {
    EXPECT_EQ(parsed_and_printed<NTiXmlElement>("<Name></Name>"), "<Name/>\n");
}

TEST(TinyXmlPrint, ElementWithAttributesOnly) {
    NTiXmlElement element;
    element.Name() = "Name";
    element.AddAttribute("a", "1");
    element.AddAttribute("b", "2");
    EXPECT_EQ(ToString(element), "<Name a=\"1\" b=\"2\"/>\n");
}

TEST(TinyXmlPrint, ElementWithRepeatedAndEmptyAttributes) {
    NTiXmlElement element;
    element.Name() = "e";
    element.AddAttribute("a", "1");
    element.AddAttribute("a", "");
    EXPECT_EQ(ToString(element), "<e a=\"1\" a=\"\"/>\n");
}

TEST(TinyXmlPrint, ElementWithText) {
    EXPECT_EQ(element_with_text("some text"), "<e>some text</e>\n");
}

TEST(TinyXmlPrint, ElementWithAttributeAndText) {
    NTiXmlElement element;
    element.Name() = "e";
    element.Text() = "t";
    element.AddAttribute("a", "1");
    EXPECT_EQ(ToString(element), "<e a=\"1\">t</e>\n");
}

TEST(TinyXmlPrint, ElementWithChildrenIndentsThem) {
    NTiXmlElement element;
    element.Name() = "e";
    element.AddChildElement("b", "1");
    NTiXmlElement* const child = element.AddChildElement("c", "");
    append_new<NTiXmlComment>(*child)->Text() = "note";
    append_new<NTiXmlExtra>(*child)->Text() = "!x";
    append_new<NTiXmlDeclaration>(*child);
    child->AddChildElement("d", "");
    EXPECT_EQ(ToString(element),
              "<e>\n"
              "  <b>1</b>\n"
              "  <c>\n"
              "    <!-- note -->\n"
              "    <!x>\n"
              "    <?xml ?>\n"
              "    <d/>\n"
              "  </c>\n"
              "</e>\n");
}

TEST(TinyXmlPrint, ElementWithAttributeAndChild) {
    NTiXmlElement element;
    element.Name() = "e";
    element.AddAttribute("a", "'");
    element.AddChildElement("b", "");
    EXPECT_EQ(ToString(element), "<e a=\"&apos;\">\n  <b/>\n</e>\n");
}

TEST(TinyXmlPrint, TextBesideChildrenIsNotEscaped) {
    NTiXmlElement element;
    element.Name() = "e";
    element.Text() = "a & <b> \"c\" 'd'";
    element.AddChildElement("f", "");
    EXPECT_EQ(ToString(element), "<e>a & <b> \"c\" 'd'\n  <f/>\n</e>\n");
}

TEST(TinyXmlPrint, ACommentChildMakesTheTextUnescapedToo) {
    NTiXmlElement element;
    element.Name() = "e";
    element.Text() = "a & b";
    append_new<NTiXmlComment>(element);
    EXPECT_EQ(ToString(element), "<e>a & b\n  <!-- -->\n</e>\n");
}

TEST(TinyXmlPrint, NamesAreWrittenAsTheyAre) {
    NTiXmlElement element;
    element.Name() = "a <&> b";
    element.AddAttribute("c \"&\"", "1");
    element.Text() = "t";
    EXPECT_EQ(ToString(element), "<a <&> b c \"&\"=\"1\">t</a <&> b>\n");
    EXPECT_EQ(ToString(NTiXmlElement()), "</>\n");
}

TEST(TinyXmlPrint, EachTableCharacterInTextAndAttribute) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&apos;"}};
    for (const auto& [character, entity] : rows) {
        EXPECT_EQ(element_with_text(character), "<e>" + entity + "</e>\n");
        EXPECT_EQ(element_with_attribute(character), "<e a=\"" + entity + "\"/>\n");
    }
}

TEST(TinyXmlPrint, AttributeWithMarkup) {
    EXPECT_EQ(element_with_attribute("a<b & \"c\""), "<e a=\"a&lt;b &amp; &quot;c&quot;\"/>\n");
}

TEST(TinyXmlPrint, MarkupSideBySideAndAtBothEnds) {
    EXPECT_EQ(element_with_text("&&x<>"), "<e>&amp;&amp;x&lt;&gt;</e>\n");
    EXPECT_EQ(element_with_text("&amp;"), "<e>&amp;amp;</e>\n");
}

TEST(TinyXmlPrint, AllOtherBytesPassUnchanged) {
    std::string text;
    for (int code = 1; code < 256; ++code) {
        if ("&<>\"'"s.find(static_cast<char>(code)) == std::string::npos) {
            text += static_cast<char>(code);
        }
    }
    EXPECT_EQ(element_with_text(text), "<e>" + text + "</e>\n");
    EXPECT_EQ(element_with_attribute(text), "<e a=\"" + text + "\"/>\n");
}

TEST(TinyXmlPrint, DepthIndentsEveryKindByTwoBlanksEach) {
    NTiXmlComment comment;
    comment.Text() = "c";
    EXPECT_EQ(printed_at(comment, 1), "  <!-- c -->\n");
    NTiXmlExtra extra;
    extra.Text() = "!x";
    EXPECT_EQ(printed_at(extra, 2), "    <!x>\n");
    EXPECT_EQ(printed_at(NTiXmlDeclaration(), 3), "      <?xml ?>\n");
    NTiXmlElement element;
    element.Name() = "e";
    EXPECT_EQ(printed_at(element, 1), "  <e/>\n");
    element.Text() = "t";
    EXPECT_EQ(printed_at(element, 2), "    <e>t</e>\n");
    element.AddChildElement("f", "");
    EXPECT_EQ(printed_at(element, 2), "    <e>t\n      <f/>\n    </e>\n");
}

TEST(TinyXmlPrint, DocumentPrintsItsNodesInOrder) {
    NTiXmlDoc document("<?xml version='1.0'?><!--c--><!DOCTYPE r><r><s>1</s></r><t/>", false);
    document.Parse(nullptr);
    EXPECT_EQ(ToString(document),
              "<?xml version=\"1.0\" ?>\n"
              "<!-- c -->\n"
              "<!DOCTYPE r>\n"
              "<r>\n"
              "  <s>1</s>\n"
              "</r>\n"
              "<t/>\n");
}

TEST(TinyXmlPrint, DocumentPrintsItsNodesAtTheGivenDepth) {
    NTiXmlDoc document("<!--c--><r><s/></r>", false);
    document.Parse(nullptr);
    EXPECT_EQ(printed_at(document, 1), "  <!-- c -->\n  <r>\n    <s/>\n  </r>\n");
}

TEST(TinyXmlPrint, ADocumentWithoutNodesPrintsNothing) {
    EXPECT_EQ(ToString(NTiXmlDoc("<a/>", false)), "");
}

TEST(TinyXmlPrint, PrintAppendsToWhatStands) {
    NTiXmlOutBuffer out;
    out.Append("before ");
    NTiXmlComment().Print(out, 0);
    NTiXmlComment().Print(out, 1);
    EXPECT_STREQ(out.Text(), "before <!-- -->\n  <!-- -->\n");
}

TEST(TinyXmlPrint, ATextIsPrintedUpToItsNulAndCountedWhole) {
    NTiXmlElement element;
    element.Name() = "e";
    element.Text() = "x&\0yz"s;
    NTiXmlOutBuffer out;
    element.Print(out, 0);
    EXPECT_STREQ(out.Text(), "<e>x&amp;</e>\n");
    EXPECT_EQ(out.TextSize(), "<e>x&amp;</e>\n"s.size());
    EXPECT_EQ(out.Length(), "<e>x&amp;0yz</e>\n"s.size());
}

TEST(TinyXmlPrint, NothingBehindTheNulOfATextIsPrinted) {
    EXPECT_EQ(element_with_text("x\0y&z"s), "<e>x</e>\n");
    EXPECT_EQ(element_with_text("\0<"s), "<e></e>\n");
}

TEST(TinyXmlPrint, NothingBehindTheNulOfAnAttributeIsPrinted) {
    EXPECT_EQ(element_with_attribute("x\0y&z"s), "<e a=\"x\"/>\n");
    EXPECT_EQ(element_with_attribute("&\0&"s), "<e a=\"&amp;\"/>\n");
}

TEST(TinyXmlPrint, TheReservedLengthIsThePrintedLength) {
    NTiXmlDoc document("<?xml version='1.0'?><!--c--><!DOCTYPE r><r a='&lt;'>x&amp;<s/></r>",
                       false);
    EXPECT_THROW(document.Parse(nullptr), NTiXmlException);
    document.Parse("<?xml version='1.0'?><!--c--><!DOCTYPE r><r a='&lt;'><s>x&amp;</s></r>");
    NTiXmlOutBuffer out;
    document.Print(out, 2);
    EXPECT_EQ(out.Length(), std::string(out.Text()).size());
    EXPECT_EQ(out.TextSize(), out.Length());
}

// Printing costs no stack: this would be some tens of thousands of frames.
TEST(TinyXmlPrint, ADeepTree) {
    constexpr int kLevels = 5000;
    NTiXmlElement root;
    root.Name() = "r";
    NTiXmlElement* deepest = &root;
    for (int level = 1; level < kLevels; ++level) {
        deepest = deepest->AddChildElement("e", "");
    }
    std::string expected = "<r>\n";
    for (int level = 1; level < kLevels - 1; ++level) {
        expected += std::string(static_cast<std::size_t>(2 * level), ' ') + "<e>\n";
    }
    expected += std::string(static_cast<std::size_t>(2 * (kLevels - 1)), ' ') + "<e/>\n";
    for (int level = kLevels - 2; level > 0; --level) {
        expected += std::string(static_cast<std::size_t>(2 * level), ' ') + "</e>\n";
    }
    expected += "</r>\n";
    EXPECT_TRUE(ToString(root) == expected);
}

TEST(TinyXmlPrint, AHundredThousandSiblings) {
    constexpr int kSiblings = 100000;
    NTiXmlElement root;
    root.Name() = "r";
    std::string expected = "<r>\n";
    for (int sibling = 0; sibling < kSiblings; ++sibling) {
        root.AddChildElement("s", std::to_string(sibling));
        expected += "  <s>" + std::to_string(sibling) + "</s>\n";
    }
    expected += "</r>\n";
    EXPECT_TRUE(ToString(root) == expected);
}

TEST(OutBuffer, IsNullBeforeTheFirstAppend) {
    const NTiXmlOutBuffer out;
    EXPECT_EQ(out.Text(), nullptr);
    EXPECT_EQ(out.TextSize(), 0U);
    EXPECT_EQ(out.Length(), 0U);
    EXPECT_EQ(out.Capacity(), 0U);
}

TEST(OutBuffer, TheFirstAppendReserves1024More) {
    NTiXmlOutBuffer out;
    out.Append("abc");
    EXPECT_STREQ(out.Text(), "abc");
    EXPECT_EQ(out.TextSize(), 3U);
    EXPECT_EQ(out.Length(), 3U);
    EXPECT_EQ(out.Capacity(), 1027U);
}

TEST(OutBuffer, AnEmptyFirstAppendMakesAnEmptyText) {
    NTiXmlOutBuffer out;
    out.Append("");
    EXPECT_STREQ(out.Text(), "");
    EXPECT_EQ(out.Length(), 0U);
    EXPECT_EQ(out.Capacity(), 1024U);
}

TEST(OutBuffer, TheCapacityStaysWhileTheLengthIsBelowIt) {
    NTiXmlOutBuffer out;
    out.Append("");
    out.Append(std::string(1023, 'x'));
    EXPECT_EQ(out.Length(), 1023U);
    EXPECT_EQ(out.Capacity(), 1024U);
}

TEST(OutBuffer, TheCapacityGrowsWhenTheLengthReachesIt) {
    NTiXmlOutBuffer out;
    out.Append("");
    out.Append(std::string(1023, 'x'));
    out.Append("y");
    EXPECT_EQ(out.Length(), 1024U);
    EXPECT_EQ(out.Capacity(), 2048U);
    EXPECT_EQ(out.Text(), std::string(1023, 'x') + "y");
}

TEST(OutBuffer, ABigAppendReserves1024BehindIt) {
    NTiXmlOutBuffer out;
    out.Append("a");
    out.Append(std::string(100000, 'x'));
    EXPECT_EQ(out.Length(), 100001U);
    EXPECT_EQ(out.Capacity(), 101025U);
    EXPECT_EQ(out.Text(), "a" + std::string(100000, 'x'));
}

TEST(OutBuffer, ManySmallAppendsCrossTheBoundExactlyAsTold) {
    NTiXmlOutBuffer out;
    std::string expected;
    std::uint32_t length = 0;
    std::uint32_t capacity = 0;
    for (std::uint32_t step = 0; step < 5000; ++step) {
        const std::string piece(step % 7, static_cast<char>('a' + step % 26));
        out.Append(piece);
        expected += piece;
        length += step % 7;
        capacity = length >= capacity ? length + 1024 : capacity;
        ASSERT_EQ(out.Length(), length) << step;
        ASSERT_EQ(out.Capacity(), capacity) << step;
        ASSERT_EQ(out.TextSize(), expected.size()) << step;
        ASSERT_EQ(out.Text()[out.TextSize()], '\0') << step;
    }
    EXPECT_EQ(out.Text(), expected);
}

TEST(OutBuffer, ANulEndsWhatIsAppendedWhileTheLengthCountsAll) {
    NTiXmlOutBuffer out;
    out.Append("ab\0cd"s);
    EXPECT_STREQ(out.Text(), "ab");
    EXPECT_EQ(out.TextSize(), 2U);
    EXPECT_EQ(out.Length(), 5U);
    EXPECT_EQ(out.Capacity(), 1029U);
    out.Append("\0x"s);
    EXPECT_STREQ(out.Text(), "ab");
    EXPECT_EQ(out.Length(), 7U);
    out.Append("ef");
    EXPECT_STREQ(out.Text(), "abef");
    EXPECT_EQ(out.TextSize(), 4U);
    EXPECT_EQ(out.Length(), 9U);
}

TEST(OutBuffer, BlanksAreCountedAsText) {
    NTiXmlOutBuffer out;
    out.Append("a");
    out.AppendBlanks(3);
    out.AppendBlanks(0);
    out.Append("b");
    EXPECT_STREQ(out.Text(), "a   b");
    EXPECT_EQ(out.TextSize(), 5U);
    EXPECT_EQ(out.Length(), 5U);
    EXPECT_EQ(out.Capacity(), 1025U);
    out.AppendBlanks(2000);
    EXPECT_EQ(out.Text(), "a   b" + std::string(2000, ' '));
    EXPECT_EQ(out.Capacity(), 2005U + 1024U);
}

TEST(OutBuffer, MoreThan32BitsOfLengthIsALengthError) {
    NTiXmlOutBuffer out;
    out.Append("ab");
    EXPECT_THROW(out.AppendBlanks(std::size_t{1} << 32), std::length_error);
    EXPECT_THROW(out.AppendBlanks((std::size_t{1} << 32) - 2), std::length_error);
    // The length itself would fit here, but not the capacity behind it.
    EXPECT_THROW(out.AppendBlanks((std::size_t{1} << 32) - 1025), std::length_error);
    EXPECT_STREQ(out.Text(), "ab");
    EXPECT_EQ(out.Length(), 2U);
    EXPECT_EQ(out.Capacity(), 1026U);
    out.Append("c");
    EXPECT_STREQ(out.Text(), "abc");
}

TEST(OutBuffer, TheMostIsWhatLeavesRoomForTheSpareIn32Bits) {
    constexpr std::size_t most = 0xFFFFFFFFU - 1024U;
    const char nothing = '\0';
    NTiXmlOutBuffer full;
    full.Append({&nothing, most});
    EXPECT_EQ(full.Length(), most);
    NTiXmlOutBuffer over;
    try {
        over.Append({&nothing, most + 1});
        FAIL() << "no exception";
    } catch (const std::length_error& error) {
        EXPECT_STREQ(error.what(), "XML text of 4 GiB or more");
    }
}

TEST(OutBuffer, SmallAppendsEndBeforeTheLengthPasses32Bits) {
    NTiXmlOutBuffer out;
    // What is behind a NUL is only counted, so that the test needs the room but not the bytes.
    const char nothing = '\0';
    out.Append({&nothing, (std::size_t{1} << 32) - 1525});
    out.AppendBlanks(1023);
    EXPECT_EQ(out.Length(), 0xFFFFFFFFU - 501U);
    EXPECT_THROW(out.AppendBlanks(10), std::length_error);
    EXPECT_EQ(out.Length(), 0xFFFFFFFFU - 501U);
}

// What an escaped append makes of a text: a plain loop over its bytes.
std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text.substr(0, text.find('\0'))) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string bytes_of(const std::string& characters, std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t at = 0; at < size; ++at) {
        text[at] = characters[at % characters.size()];
    }
    return text;
}

// Escapes `text` behind a first byte and expects one append of its whole count.
void expect_escaped(const std::string& text) {
    const std::string form = escaped(text);
    const std::size_t counted = form.size() + text.size() - std::strlen(text.c_str());
    NTiXmlOutBuffer out;
    out.Append("[");
    out.AppendEscaped(text);
    EXPECT_EQ(std::string(out.Text(), out.TextSize()), "[" + form);
    EXPECT_EQ(std::strlen(out.Text()), out.TextSize());
    EXPECT_EQ(out.Length(), 1 + counted);
    EXPECT_EQ(out.Capacity(), 1 + counted < 1025 ? 1025 : 1 + counted + 1024);
    out.AppendMarkup("]");
    EXPECT_EQ(out.Text(), "[" + form + "]");
    EXPECT_EQ(out.Length(), 2 + counted);
}

TEST(OutBuffer, MarkupOfNothingAddsNothing) {
    NTiXmlOutBuffer out;
    out.AppendMarkup({});
    out.AppendMarkup("[");
    out.AppendMarkup({});
    EXPECT_STREQ(out.Text(), "[");
    EXPECT_EQ(out.Length(), 1);
}

constexpr std::size_t kSizesAroundPieces[] = {0,    1,    1023, 1024, 1025, 4095,
                                              4096, 4097, 8191, 8192, 8193, 10000};

TEST(OutBuffer, EscapedTextsOfEverySizeAroundAPiece) {
    for (const char* characters : {"x", "&", "<", ">", "\"", "'", "&x", "ab<cd>ef&'\""}) {
        for (const std::size_t size : kSizesAroundPieces) {
            SCOPED_TRACE(characters + std::to_string(size));
            expect_escaped(bytes_of(characters, size));
        }
    }
}

TEST(OutBuffer, ANulBehindEachPieceEndsAnEscapedTextAndAllIsCounted) {
    for (const std::size_t size : kSizesAroundPieces) {
        SCOPED_TRACE(size);
        expect_escaped(bytes_of("&x", size) + "\0"s);
        expect_escaped(bytes_of("\"", size) + "\0&<"s + std::string(5000, '>'));
    }
}

TEST(OutBuffer, AnEscapedTextGrowsTheCapacityOnlyWhenTheLengthReachesIt) {
    NTiXmlOutBuffer out;
    out.Append("");
    out.AppendEscaped(std::string(204, '&'));
    EXPECT_EQ(out.Length(), 1020U);
    EXPECT_EQ(out.Capacity(), 1024U);
    out.AppendEscaped("abc");
    EXPECT_EQ(out.Capacity(), 1024U);
    out.AppendEscaped("d");
    EXPECT_EQ(out.Length(), 1024U);
    EXPECT_EQ(out.Capacity(), 2048U);
}

TEST(TinyXmlPrint, TextsAndValuesOfEverySizeAroundAPiece) {
    for (const std::size_t size : kSizesAroundPieces) {
        const std::string text = bytes_of("<'&", size);
        EXPECT_EQ(element_with_attribute(text), "<e a=\"" + escaped(text) + "\"/>\n") << size;
        EXPECT_EQ(element_with_text(text), size == 0 ? "<e/>\n" : "<e>" + escaped(text) + "</e>\n")
            << size;
    }
}

}  // namespace
