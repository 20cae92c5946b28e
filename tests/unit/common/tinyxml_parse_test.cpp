#include "common/tinyxml.h"
#include "common/xml_entities.h"
#include "tests/unit/common/test_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;

// What an NTiXmlException carries.
struct Failure {
    std::string message;
    std::string remainder;
    int line = 0;

    bool operator==(const Failure&) const = default;
};

void PrintTo(const Failure& failure, std::ostream* out) {
    *out << failure.message << " [" << failure.remainder << "] " << failure.line;
}

template <class Step>
Failure failure_of(Step step) {
    try {
        step();
    } catch (const NTiXmlException& exception) {
        EXPECT_STREQ(exception.File(), "../../common/tinyxml");
        return {exception.Message(), exception.Remainder(), exception.Line()};
    }
    return {"no exception", "", 0};
}

template <class Construct>
Failure parse_failure(const char* text) {
    return failure_of([text] {
        Construct construct;
        construct.Parse(text);
    });
}

Failure document_failure(const std::string& text) {
    return failure_of([&text] {
        NTiXmlDoc document(text, false);
        document.Parse(nullptr);
    });
}

// Opens the attribute list of any node to the test.
class AttributeReader : public NTiXmlNode {
public:
    explicit AttributeReader(const NTiXmlNode& node) : NTiXmlNode(NTiXmlNodeType::kComment) {
        node.CopyAttributesTo(this);
    }
    std::size_t Count() const { return Attributes().size(); }
    const char* Parse(const char* p) override { return p; }
    void Print(NTiXmlOutBuffer&, int) const override {}
    using NTiXmlNode::Attributes;
};

// A tree as one line. An element is "E name {a=1} 'text' (children)", a comment "C 'text'", a
// declaration "T 'version' 'encoding' 'standalone'", an extra "X 'text'".
void describe(const NTiXmlNode& node, std::string& out);

void describe_all(const NTiXmlNodeList& children, std::string& out) {
    for (const NTiXmlNode* child : children) {
        describe(*child, out);
    }
}

void describe(const NTiXmlNode& node, std::string& out) {
    out += "DECTX"[static_cast<int>(node.Type())];
    if (const auto* element = dynamic_cast<const NTiXmlElement*>(&node)) {
        out += ' ';
        out += element->NameView();
        const AttributeReader reader(node);
        for (const NTiXmlAttribute* attribute : reader.Attributes()) {
            out +=
                " {" + std::string(attribute->Name()) + "=" + std::string(attribute->Value()) + "}";
        }
    }
    out += " '" + std::string(node.TextView()) + "' ";
    if (const auto* declaration = dynamic_cast<const NTiXmlDeclaration*>(&node)) {
        out += "'" + std::string(declaration->Encoding()) + "' '" +
               std::string(declaration->Standalone()) + "' ";
    }
    if (const auto* element = dynamic_cast<const NTiXmlElement*>(&node)) {
        out += "(";
        describe_all(element->Children(), out);
        out += ")";
    }
}

std::string described(const NTiXmlDoc& document) {
    std::string out;
    describe_all(document.Children(), out);
    return out;
}

// The tree of that text, or the message it fails with.
std::string tree_of(const std::string& text) {
    NTiXmlDoc document(text, false);
    const Failure failure = failure_of([&document] { document.Parse(nullptr); });
    return failure.message == "no exception" ? described(document) : failure.message;
}

// Parses that text by one construct and gives what it left unread.
template <class Construct>
std::string rest_behind(const char* text) {
    Construct construct;
    const char* const rest = construct.Parse(text);
    return rest == nullptr ? "null" : rest;
}

std::string repeated(const std::string& text, std::size_t count) {
    std::string all;
    all.reserve(text.size() * count);
    for (std::size_t step = 0; step < count; ++step) {
        all += text;
    }
    return all;
}

// --- reading steps

TEST(TinyXmlSteps, SkipWhiteSkipsEveryWhiteSpaceByte) {
    EXPECT_STREQ(SkipWhite(" \t\n\v\f\rx "), "x ");
    EXPECT_STREQ(SkipWhite("x"), "x");
    EXPECT_STREQ(SkipWhite(""), "");
    EXPECT_STREQ(SkipWhite("  "), "");
    EXPECT_STREQ(SkipWhite("\xA0"), "\xA0");
}

TEST(TinyXmlSteps, StringEqualIsAPrefixTest) {
    EXPECT_TRUE(StringEqual("abc", "abc", false));
    EXPECT_TRUE(StringEqual("abcd", "abc", false));
    EXPECT_FALSE(StringEqual("ab", "abc", false));
    EXPECT_FALSE(StringEqual("", "abc", true));
    EXPECT_FALSE(StringEqual("xabc", "abc", true));
}

TEST(TinyXmlSteps, StringEqualMindsTheCaseUnlessTold) {
    EXPECT_FALSE(StringEqual("<?XML", "<?xml", false));
    EXPECT_TRUE(StringEqual("<?XML", "<?xml", true));
    EXPECT_TRUE(StringEqual("<?xml", "<?XmL", true));
    EXPECT_TRUE(StringEqual("azAZ", "AZaz", true));
    EXPECT_FALSE(StringEqual("@", "`", true));
    EXPECT_FALSE(StringEqual("[", "{", true));
    EXPECT_FALSE(StringEqual("\xC4", "\xE4", true));
}

TEST(TinyXmlSteps, ReadNameTakesItsCharacters) {
    std::string name = "from before";
    EXPECT_STREQ(ReadName("aZ_9-:.b=", name), "=");
    EXPECT_EQ(name, "aZ_9-:.b");
}

TEST(TinyXmlSteps, ReadNameStartsWithALetterUnderscoreOrColon) {
    std::string name;
    EXPECT_STREQ(ReadName("_a ", name), " ");
    EXPECT_EQ(name, "_a");
    EXPECT_STREQ(ReadName(":a ", name), " ");
    EXPECT_EQ(name, ":a");
    for (const char* text : {"", "1a", "-a", ".a", " a", "=", "\xE4"}) {
        name = "from before";
        EXPECT_EQ(ReadName(text, name), nullptr) << text;
        EXPECT_EQ(name, "") << text;
    }
}

TEST(TinyXmlSteps, ReadNameEndsAtAByteAbove127) {
    std::string name;
    EXPECT_STREQ(ReadName("a\xE4", name), "\xE4");
    EXPECT_EQ(name, "a");
}

TEST(TinyXmlSteps, ReadNameAtTheEndOfTextPointsAtTheNul) {
    const char* const text = "name";
    std::string name;
    EXPECT_EQ(ReadName(text, name), text + 4);
    EXPECT_EQ(name, "name");
}

TEST(TinyXmlSteps, ReadTextOfATextWithoutAnEndLeavesWhatItRead) {
    const std::map<const char*, const char*> texts = {
        {"", ""},       {"  ", ""},         {"text", "text"},   {"text>more", "text"},
        {" a >b", "a"}, {"a  b >c", "a b"}, {"a&amp;>b", "a&"}, {"a  ", "a"},
        {"a&", "a&"},   {"a \n<b", "a"}};
    for (const auto& [text, left] : texts) {
        std::string out = "from before";
        EXPECT_EQ(ReadText(text, out, "]"), nullptr);
        EXPECT_EQ(out, left) << text;
    }
}

// What ReadText makes of a text: "out|rest", or "null".
std::string text_read(const char* text, std::string_view end_tag) {
    std::string out = "from before";
    const char* const rest = ReadText(text, out, end_tag);
    return rest == nullptr ? "null" : out + "|" + rest;
}

TEST(TinyXmlSteps, ReadTextEndsBehindTheEndTag) {
    EXPECT_EQ(text_read("abc<d", "<"), "abc|d");
    EXPECT_EQ(text_read("abc-->d", "-->"), "abc|d");
    EXPECT_EQ(text_read("abc'", "'"), "abc|");
    EXPECT_EQ(text_read("abcEnDd", "eNd"), "abc|d");
    EXPECT_EQ(text_read("a&amp;cEnDd", "eNd"), "a&c|d");
    EXPECT_EQ(text_read("<", "<"), "|");
}

TEST(TinyXmlSteps, ReadTextFindsAnEndTagThatBeginsWithWhiteSpace) {
    EXPECT_EQ(text_read("a xb", " x"), "a|b");
    EXPECT_EQ(text_read("a  xb", " x"), "a|b");
    EXPECT_EQ(text_read("a \n xb", " x"), "a|b");
    EXPECT_EQ(text_read("a&amp;  xb", " x"), "a&|b");
    EXPECT_EQ(text_read("a \n", "\n"), "a|");
}

TEST(TinyXmlSteps, ReadTextCondensesWhiteSpace) {
    EXPECT_EQ(text_read(" \n a \t\r\n b\v\fc  <", "<"), "a b c|");
    EXPECT_EQ(text_read("   <", "<"), "|");
}

TEST(TinyXmlSteps, ReadTextDecodesEachEntity) {
    EXPECT_EQ(text_read("&amp;<", "<"), "&|");
    EXPECT_EQ(text_read("&lt;<", "<"), "<|");
    EXPECT_EQ(text_read("&gt;<", "<"), ">|");
    EXPECT_EQ(text_read("&quot;<", "<"), "\"|");
    EXPECT_EQ(text_read("&apos;<", "<"), "'|");
    EXPECT_EQ(text_read("&amp;lt;&lt;&amp;<", "<"), "&lt;<&|");
}

TEST(TinyXmlSteps, ReadTextKeepsEveryOtherAmpersand) {
    EXPECT_EQ(text_read("&<", "<"), "&|");
    EXPECT_EQ(text_read("a & b<", "<"), "a & b|");
    EXPECT_EQ(text_read("&amp &AMP; &nbsp; &#65; &#x41; &&amp;<", "<"),
              "&amp &AMP; &nbsp; &#65; &#x41; &&|");
    EXPECT_EQ(text_read("&aMP; &gT; &aposs; &quot<", "<"), "&aMP; &gT; &aposs; &quot|");
}

TEST(TinyXmlSteps, ReadTextKeepsWhiteSpaceBesideEntities) {
    EXPECT_EQ(text_read("a  &lt;  b<", "<"), "a < b|");
    EXPECT_EQ(text_read("  &amp;  <", "<"), "&|");
}

TEST(TinyXmlSteps, ReadTextKeepsBytesAbove127AndControlCharacters) {
    EXPECT_EQ(text_read("\xC3\xA4\x01\x7F\xA0<", "<"), "\xC3\xA4\x01\x7F\xA0|");
}

TEST(TinyXmlSteps, ReadTextEndsAtTheEndTagOfAnEntityCharacterOnlyWhenItStandsThere) {
    EXPECT_EQ(text_read("a&quot;b\"c", "\""), "a\"b|c");
}

TEST(TinyXmlSteps, ReadTextIsNullAtMarkupThatIsNotTheEndTag) {
    EXPECT_EQ(text_read("a<b'", "'"), "null");
    EXPECT_EQ(text_read("a>b'", "'"), "null");
    EXPECT_EQ(text_read("a>b<", "<"), "null");
    EXPECT_EQ(text_read("a -- > -->", "-->"), "null");
}

TEST(TinyXmlSteps, ReadTextIsNullWhenTheTextEnds) {
    EXPECT_EQ(text_read("", "<"), "null");
    EXPECT_EQ(text_read("   ", "<"), "null");
    EXPECT_EQ(text_read("abc", "<"), "null");
    EXPECT_EQ(text_read("abc--", "-->"), "null");
}

TEST(TinyXmlSteps, TheEntityTableHasItsFiveRowsInOrder) {
    std::string rows;
    for (const XmlEntity& entity : kXmlEntities) {
        rows += std::string(entity.text) + entity.character + ' ';
    }
    EXPECT_EQ(rows, "&amp;& &lt;< &gt;> &quot;\" &apos;' ");
}

// --- attributes

TEST(TinyXmlParseAttribute, NameAndValueAndTheRest) {
    NTiXmlAttribute attribute;
    EXPECT_STREQ(attribute.Parse("a='1'/>"), "/>");
    EXPECT_EQ(attribute.Name(), "a");
    EXPECT_EQ(attribute.Value(), "1");
}

TEST(TinyXmlParseAttribute, WhiteSpaceAroundEachPart) {
    NTiXmlAttribute attribute;
    EXPECT_STREQ(attribute.Parse(" \n a \t = \r\n \"1\" >"), " >");
    EXPECT_EQ(attribute.Name(), "a");
    EXPECT_EQ(attribute.Value(), "1");
}

std::string attribute_value(const std::string& quoted) {
    NTiXmlAttribute attribute;
    attribute.Parse(("a=" + quoted + ">").c_str());
    return std::string(attribute.Value());
}

TEST(TinyXmlParseAttribute, BothQuotesAndTheOtherOneInside) {
    EXPECT_EQ(attribute_value("\"it's\""), "it's");
    EXPECT_EQ(attribute_value("'say \"x\"'"), "say \"x\"");
}

TEST(TinyXmlParseAttribute, ValueIsCondensedAndDecoded) {
    EXPECT_EQ(attribute_value("' 1  2 '"), "1 2");
    EXPECT_EQ(attribute_value("'&lt;&amp;&gt;&quot;&apos;&#65;'"), "<&>\"'&#65;");
}

TEST(TinyXmlParseAttribute, EmptyValue) {
    EXPECT_EQ(attribute_value("''"), "");
    EXPECT_EQ(attribute_value("\"  \""), "");
}

Failure attribute_error(const char* text, int line) {
    return {"attribute pair error", text, line};
}

TEST(TinyXmlParseAttribute, NoTextIsNullPoint) {
    const Failure null_point = {"attribute pair error", "null point", 266};
    EXPECT_EQ(parse_failure<NTiXmlAttribute>(nullptr), null_point);
    EXPECT_EQ(parse_failure<NTiXmlAttribute>(""), null_point);
    EXPECT_EQ(parse_failure<NTiXmlAttribute>(" \n "), null_point);
}

TEST(TinyXmlParseAttribute, BadName) {
    for (const char* text : {"1a='1'>", "='1'>", "-a='1'>", "\xE4='1'>", "<b"}) {
        EXPECT_EQ(parse_failure<NTiXmlAttribute>(text), attribute_error(text, 273));
    }
}

TEST(TinyXmlParseAttribute, TextEndsInTheName) {
    EXPECT_EQ(parse_failure<NTiXmlAttribute>("name"), attribute_error("name", 273));
}

TEST(TinyXmlParseAttribute, NoEqualSign) {
    for (const char* text : {"a>", "a '1'>", "a b='1'>", "a/>", "a ", "a\xE4='1'>"}) {
        EXPECT_EQ(parse_failure<NTiXmlAttribute>(text), attribute_error(text, 278));
    }
}

TEST(TinyXmlParseAttribute, NothingAfterTheEqualSign) {
    for (const char* text : {"a=", "a =  \n"}) {
        EXPECT_EQ(parse_failure<NTiXmlAttribute>(text), attribute_error(text, 285));
    }
}

TEST(TinyXmlParseAttribute, NoQuote) {
    for (const char* text : {"a=c/>", "a=>", "a= `1`>"}) {
        EXPECT_EQ(parse_failure<NTiXmlAttribute>(text), attribute_error(text, 299));
    }
}

TEST(TinyXmlParseAttribute, BadValue) {
    for (const char* text :
         {"a='1<2'>", "a='1>2'>", "a='1", "a='", "a='1\">", "a=\"1'>", "a='1'"}) {
        EXPECT_EQ(parse_failure<NTiXmlAttribute>(text), attribute_error(text, 303));
    }
}

// --- comments, extras, declarations

TEST(TinyXmlParseComment, TextIsCondensedAndDecoded) {
    NTiXmlComment comment;
    comment.Text() = "from before";
    EXPECT_STREQ(comment.Parse("  <!--  a \n - &lt;b&gt; -- c -->x"), "x");
    EXPECT_EQ(comment.Text(), "a - <b> -- c");
}

TEST(TinyXmlParseComment, Empty) {
    EXPECT_EQ(tree_of("<!---->"), "C '' ");
    EXPECT_EQ(tree_of("<!-- -->"), "C '' ");
}

// What stood in a node does not survive a parse that fails.
template <typename Node>
std::string text_behind(const char* good, const char* bad) {
    Node node;
    node.Parse(good);
    EXPECT_NE(failure_of([&] { node.Parse(bad); }).message, "no exception");
    return std::string(node.TextView());
}

TEST(TinyXmlParseAgain, AFailureLeavesNoTextOfBefore) {
    EXPECT_EQ(text_behind<NTiXmlComment>("<!--old-->", "<new-->"), "");
    EXPECT_EQ(text_behind<NTiXmlComment>("<!--old-->", "<!--new"), "");
    EXPECT_EQ(text_behind<NTiXmlExtra>("<old>", "new"), "");
    EXPECT_EQ(text_behind<NTiXmlExtra>("<old>", "<new"), "");
}

TEST(TinyXmlParseAgain, AFailureLeavesNoNameOfBefore) {
    NTiXmlElement element;
    element.Parse("<old/>");
    failure_of([&] { element.Parse("<1/>"); });
    EXPECT_EQ(element.NameView(), "");
    failure_of([&] { element.Parse("<new"); });
    EXPECT_EQ(element.NameView(), "new");
}

TEST(TinyXmlParseComment, WithoutItsStart) {
    const Failure expected = {"Comment error", "<!- a -->", 394};
    EXPECT_EQ(parse_failure<NTiXmlComment>("<!- a -->"), expected);
    EXPECT_EQ(parse_failure<NTiXmlComment>(""), (Failure{"Comment error", "", 394}));
}

TEST(TinyXmlParseComment, BadText) {
    for (const char* text :
         {"<!-- a > b -->", "<!-- a < b -->", "<!-->", "<!-- a --", "<!--", "<!-- "}) {
        EXPECT_EQ(parse_failure<NTiXmlComment>(text), (Failure{"Comment error", text, 399}));
        EXPECT_EQ(document_failure(text), (Failure{"Comment error", text, 399}));
    }
}

TEST(TinyXmlParseExtra, DocumentType) {
    EXPECT_EQ(tree_of("<!DOCTYPE r><r/>"), "X '!DOCTYPE r' E r '' ()");
}

TEST(TinyXmlParseExtra, KeepsWhiteSpaceAndDecodesEntities) {
    NTiXmlExtra extra;
    extra.Text() = "from before";
    EXPECT_STREQ(extra.Parse(" <! a  \n b\t&amp;&lt;&#65; >x"), "x");
    EXPECT_EQ(extra.Text(), "! a  \n b\t&<&#65; ");
}

TEST(TinyXmlParseExtra, EndsAtTheFirstGreaterThan) {
    EXPECT_EQ(tree_of("<!DOCTYPE r [<!ELEMENT a><b/>"), "X '!DOCTYPE r [<!ELEMENT a' E b '' ()");
}

TEST(TinyXmlParseExtra, IsAnyOtherMarkup) {
    EXPECT_EQ(tree_of("<?pi x?>"), "X '?pi x?' ");
    EXPECT_EQ(tree_of("<>"), "X '' ");
    EXPECT_EQ(tree_of("< a/>"), "X ' a/' ");
    EXPECT_EQ(tree_of("<1/>"), "X '1/' ");
    EXPECT_EQ(tree_of("<:a/>"), "X ':a/' ");
    EXPECT_EQ(tree_of("</a>"), "X '/a' ");
    EXPECT_EQ(tree_of("<!- x ->"), "X '!- x -' ");
    EXPECT_EQ(tree_of("<\xE4/>"), "X '\xE4/' ");
}

TEST(TinyXmlParseExtra, WithoutItsStart) {
    EXPECT_EQ(parse_failure<NTiXmlExtra>("x>"), (Failure{"DocType error", "x>", 425}));
    EXPECT_EQ(parse_failure<NTiXmlExtra>(""), (Failure{"DocType error", "", 425}));
}

TEST(TinyXmlParseExtra, WithoutItsEnd) {
    for (const char* text : {"<", "<!DOCTYPE r", "<!&gt;"}) {
        EXPECT_EQ(parse_failure<NTiXmlExtra>(text), (Failure{"DocType error", text, 430}));
        EXPECT_EQ(document_failure(text), (Failure{"DocType error", text, 430}));
    }
}

TEST(TinyXmlParseDeclaration, AndTheRoot) {
    EXPECT_EQ(tree_of("<?xml version=\"1.0\" encoding=\"UTF-8\"?><r/>"),
              "T '1.0' 'UTF-8' '' E r '' ()");
}

TEST(TinyXmlParseDeclaration, AllFieldsInAnyOrderAndCase) {
    EXPECT_EQ(tree_of("<?XmL STANDALONE='no' Encoding=\"x\" version = '1' ?>"), "T '1' 'x' 'no' ");
}

TEST(TinyXmlParseDeclaration, Empty) {
    EXPECT_EQ(tree_of("<?xml?><r/>"), "T '' '' '' E r '' ()");
    EXPECT_EQ(tree_of("<?xml><r/>"), "T '' '' '' E r '' ()");
    EXPECT_EQ(tree_of("<?xml  ><r/>"), "T '' '' '' E r '' ()");
}

TEST(TinyXmlParseDeclaration, EndsWithoutQuestionMarkToo) {
    EXPECT_EQ(rest_behind<NTiXmlDeclaration>(" <?xml version='1'>x"), "x");
    EXPECT_EQ(rest_behind<NTiXmlDeclaration>("<?xml version='1' >x"), "x");
    EXPECT_EQ(rest_behind<NTiXmlDeclaration>("<?xml version='1'?>x"), "x");
}

TEST(TinyXmlParseDeclaration, AnotherNameSkipsToTheEnd) {
    EXPECT_EQ(tree_of("<?xml version='1' other='2' encoding='3'?><r/>"), "T '1' '' '' E r '' ()");
}

TEST(TinyXmlParseDeclaration, NamesThatOnlyBeginAsAFieldCount) {
    EXPECT_EQ(tree_of("<?xml versions='1' encodingX='2' standalone-='3'?>"), "T '1' '2' '3' ");
}

TEST(TinyXmlParseDeclaration, TheLastOfARepeatedFieldStays) {
    EXPECT_EQ(tree_of("<?xml version='1' version='2'?>"), "T '2' '' '' ");
}

TEST(TinyXmlParseDeclaration, ValuesAreCondensedAndDecoded) {
    EXPECT_EQ(tree_of("<?xml version=' 1  &amp; 2 '?>"), "T '1 & 2' '' '' ");
}

TEST(TinyXmlParseDeclaration, ParsedAgainForgetsItsFields) {
    NTiXmlDeclaration declaration;
    declaration.Parse("<?xml version='1' encoding='2' standalone='3'?>");
    declaration.Parse("<?xml?>");
    EXPECT_EQ(declaration.Version(), "");
    EXPECT_EQ(declaration.Encoding(), "");
    EXPECT_EQ(declaration.Standalone(), "");
}

TEST(TinyXmlParseDeclaration, CutOffReturnsNull) {
    for (const char* text : {"<?xml", "<?xml ", "<?xml version='1' ", "<?xml version='1' ?",
                             "<?xml versio", "<?xml other='1'"}) {
        EXPECT_EQ(rest_behind<NTiXmlDeclaration>(text), "null") << text;
    }
}

TEST(TinyXmlParseDeclaration, CutOffEndsTheDocumentSilently) {
    EXPECT_EQ(tree_of("<?xml version='1' <r/"), "T '1' '' '' ");
    EXPECT_EQ(tree_of("<a/><?xml "), "E a '' ()T '' '' '' ");
}

TEST(TinyXmlParseDeclaration, ABadFieldIsAnAttributePairError) {
    EXPECT_EQ(document_failure("<?xml version=1?>"), attribute_error("version=1?>", 299));
    EXPECT_EQ(document_failure("<?xml encoding?>"), attribute_error("encoding?>", 278));
    EXPECT_EQ(document_failure("<?xml version='1'"), attribute_error("version='1'", 303));
}

TEST(TinyXmlParseDeclaration, WithoutItsStart) {
    EXPECT_EQ(parse_failure<NTiXmlDeclaration>("<?xm?>"),
              (Failure{"Declaration Parse error", "<?xm?>", 468}));
    EXPECT_EQ(parse_failure<NTiXmlDeclaration>(""), (Failure{"Declaration Parse error", "", 468}));
}

// --- elements

TEST(TinyXmlParseElement, ReturnsThePositionBehindItself) {
    EXPECT_EQ(rest_behind<NTiXmlElement>("<a/>rest"), "rest");
    EXPECT_EQ(rest_behind<NTiXmlElement>("<a></a> rest"), " rest");
    EXPECT_EQ(rest_behind<NTiXmlElement>("  <a b='1'>x<"
                                         "/a><b/>"),
              "<b/>");
}

TEST(TinyXmlParseElement, LeadingBlanks) {
    EXPECT_EQ(tree_of("  <a/>"), "E a '' ()");
}

TEST(TinyXmlParseElement, BlanksBehindTheNameAndTheAttributes) {
    EXPECT_EQ(tree_of("<a  />"), "E a '' ()");
    EXPECT_EQ(tree_of("<a \n b = '1' \t c='2'\n></a>"), "E a {b=1} {c=2} '' ()");
}

TEST(TinyXmlParseElement, BlanksBehindTheLessThan) {
    NTiXmlElement element;
    element.Parse("< a/>");
    EXPECT_EQ(element.Name(), "a");
}

TEST(TinyXmlParseElement, AttributesNeedNoBlankBetweenThem) {
    EXPECT_EQ(tree_of("<a b='1'c=\"2\"/>"), "E a {b=1} {c=2} '' ()");
}

TEST(TinyXmlParseElement, RepeatedAttributesAreKept) {
    EXPECT_EQ(tree_of("<a b='1' b='2'/>"), "E a {b=1} {b=2} '' ()");
}

TEST(TinyXmlParseElement, AttributeValueIsCondensed) {
    EXPECT_EQ(tree_of("<a b='1'/>"), "E a {b=1} '' ()");
    EXPECT_EQ(tree_of("<a b=' 1  2 '/>"), "E a {b=1 2} '' ()");
}

TEST(TinyXmlParseElement, EndTagIgnoresCase) {
    EXPECT_EQ(tree_of("<a></A>"), "E a '' ()");
    EXPECT_EQ(tree_of("<Name>x</nAME>"), "E Name 'x' ()");
}

TEST(TinyXmlParseElement, NamesKeepTheirCaseAndTheirMarks) {
    EXPECT_EQ(tree_of("<_A-b.c:1></_A-b.c:1>"), "E _A-b.c:1 '' ()");
}

TEST(TinyXmlParseElement, TextIsCondensed) {
    EXPECT_EQ(tree_of("<a>  x   y  </a>"), "E a 'x y' ()");
}

TEST(TinyXmlParseElement, TextIsDecoded) {
    EXPECT_EQ(tree_of("<a>x &amp; y</a>"), "E a 'x & y' ()");
    EXPECT_EQ(tree_of("<a>&lt;b&gt;</a>"), "E a '<b>' ()");
}

TEST(TinyXmlParseElement, NumericReferencesStay) {
    EXPECT_EQ(tree_of("<a>&#65;</a>"), "E a '&#65;' ()");
}

TEST(TinyXmlParseElement, WhiteSpaceOnlyIsNoText) {
    EXPECT_EQ(tree_of("<a> \n </a>"), "E a '' ()");
}

TEST(TinyXmlParseElement, ChildrenOfEveryKind) {
    EXPECT_EQ(tree_of("<a> <!-- c --> <b>x</b><!x><?xml version='1'?> <d/> </a>"),
              "E a '' (C 'c' E b 'x' ()X '!x' T '1' '' '' E d '' ())");
}

TEST(TinyXmlParseElement, TextBehindTheChildren) {
    EXPECT_EQ(tree_of("<a><b/>x</a>"), "E a 'x' (E b '' ())");
    EXPECT_EQ(tree_of("<a><b/> x  &amp; y </a>"), "E a 'x & y' (E b '' ())");
}

TEST(TinyXmlParseElement, TextBeforeAChild) {
    const char* const text = "<a>x<b/></a>";
    EXPECT_EQ(document_failure(text), (Failure{"Element Parse error", text, 705}));
}

TEST(TinyXmlParseElement, ChildBehindTextBehindAChild) {
    const char* const text = "<a><b/>x<c/></a>";
    EXPECT_EQ(document_failure(text), (Failure{"Element Parse error", text, 705}));
}

TEST(TinyXmlParseElement, WithoutLessThan) {
    EXPECT_EQ(parse_failure<NTiXmlElement>("  <a></b>"),
              (Failure{"Element Parse error", "<a></b>", 705}));
    EXPECT_EQ(parse_failure<NTiXmlElement>("a/>"), (Failure{"Element Parse error", "a/>", 659}));
    EXPECT_EQ(parse_failure<NTiXmlElement>(""), (Failure{"Element Parse error", "", 659}));
}

TEST(TinyXmlParseElement, BadName) {
    for (const char* text : {"<", "<1/>", "<-/>", "< ", "<>", "</a>"}) {
        EXPECT_EQ(parse_failure<NTiXmlElement>(text), (Failure{"Element Parse error", text, 667}));
    }
}

TEST(TinyXmlParseElement, TextEndsInTheName) {
    EXPECT_EQ(document_failure("<name"), (Failure{"Element Parse error", "<name", 667}));
}

TEST(TinyXmlParseElement, TextEndsInTheStartTag) {
    for (const char* text : {"<a ", "<a \n", "<a b='1' "}) {
        EXPECT_EQ(document_failure(text), (Failure{"Element Parse error", text, 679}));
    }
}

TEST(TinyXmlParseElement, SlashWithoutGreaterThan) {
    for (const char* text : {"<a/ >", "<a/", "<a b='1'/b>", "<a//>"}) {
        EXPECT_EQ(document_failure(text), (Failure{"Element Parse error", text, 686}));
    }
}

TEST(TinyXmlParseElement, BadAttribute) {
    EXPECT_EQ(document_failure("<a b=c/>"), attribute_error("b=c/>", 299));
    EXPECT_EQ(document_failure("<a b='1' =2/>"), attribute_error("=2/>", 273));
    EXPECT_EQ(document_failure("<a b/>"), attribute_error("b/>", 278));
    EXPECT_EQ(document_failure("<a b="), attribute_error("b=", 285));
    EXPECT_EQ(document_failure("<a b='<'/>"), attribute_error("b='<'/>", 303));
    EXPECT_EQ(document_failure("<a <b/>"), attribute_error("<b/>", 273));
    EXPECT_EQ(document_failure("<a\xE4/>"), attribute_error("\xE4/>", 273));
}

TEST(TinyXmlParseElement, BadEndTag) {
    for (const char* text : {"<a></b>", "<a></a >", "<a></ a>", "<a></", "<a></a", "<a></ab>",
                             "<ab></a>", "<a>x</b>", "<a>x<", "<a>x<!-- c --></a>"}) {
        EXPECT_EQ(document_failure(text), (Failure{"Element Parse error", text, 705})) << text;
    }
}

TEST(TinyXmlParseElement, BadEndTagOfAChild) {
    EXPECT_EQ(document_failure("<a><b></a></b>"),
              (Failure{"Element Parse error", "<b></a></b>", 705}));
}

TEST(TinyXmlParseElement, BadText) {
    EXPECT_EQ(document_failure("<a>x"), (Failure{"ReadValue", "x", 737}));
    EXPECT_EQ(document_failure("<a> x  "), (Failure{"ReadValue", " x  ", 737}));
    EXPECT_EQ(document_failure("<a>x>y</a>"), (Failure{"ReadValue", "x>y</a>", 737}));
    EXPECT_EQ(document_failure("<a>></a>"), (Failure{"ReadValue", "></a>", 737}));
    EXPECT_EQ(document_failure("<a><b/>x"), (Failure{"ReadValue", "<b/>x", 737}));
    EXPECT_EQ(document_failure("<a><b/>x>y</a>"), (Failure{"ReadValue", "<b/>x>y</a>", 737}));
}

TEST(TinyXmlParseElement, TextEndsInTheContent) {
    EXPECT_EQ(document_failure("<a>"), (Failure{"ReadValue", "", 771}));
    EXPECT_EQ(document_failure("<a> \n"), (Failure{"ReadValue", " \n", 771}));
    EXPECT_EQ(document_failure("<a><b/>"), (Failure{"ReadValue", "<b/>", 771}));
    EXPECT_EQ(document_failure("<a> <b/> "), (Failure{"ReadValue", " <b/> ", 771}));
    EXPECT_EQ(document_failure("<a><b>"), (Failure{"ReadValue", "", 771}));
}

TEST(TinyXmlParseElement, ADeclarationThatCutsTheContentOff) {
    EXPECT_EQ(document_failure("<a><b/><?xml ?</a"), (Failure{"ReadValue", "<b/><?xml ?</a", 771}));
}

TEST(TinyXmlParseElement, AFailureOfANodeInTheContentPasses) {
    EXPECT_EQ(document_failure("<a><b/><!-- > --></a>"),
              (Failure{"Comment error", "<!-- > --></a>", 399}));
    EXPECT_EQ(document_failure("<a><!x"), (Failure{"DocType error", "<!x", 430}));
    EXPECT_EQ(document_failure("<a><b c/></a>"), attribute_error("c/></a>", 278));
    EXPECT_EQ(document_failure("<a><"), (Failure{"DocType error", "<", 430}));
}

TEST(TinyXmlParseElement, MaxDepthLevelsAreParsed) {
    NTiXmlDoc document(
        repeated("<a>", NTiXmlElement::kMaxDepth) + repeated("</a>", NTiXmlElement::kMaxDepth),
        false);
    document.Parse(nullptr);
    std::size_t levels = 0;
    for (const NTiXmlElement* at = document.RootElement(); at != nullptr;
         at = at->ChildElementAt(0)) {
        ++levels;
    }
    EXPECT_EQ(levels, NTiXmlElement::kMaxDepth);
}

TEST(TinyXmlParseElement, SiblingsAtMaxDepthAreParsed) {
    const std::size_t parents = NTiXmlElement::kMaxDepth - 1;
    EXPECT_EQ(document_failure(repeated("<a>", parents) + "<b/><c></c>" + repeated("</a>", parents))
                  .message,
              "no exception");
}

TEST(TinyXmlParseElement, MaxDepthIsTenThousand) {
    EXPECT_EQ(NTiXmlElement::kMaxDepth, 10'000U);
}

TEST(TinyXmlParseElement, OneLevelMoreIsAnElementParseError) {
    const Failure failure = document_failure(repeated("<a>", NTiXmlElement::kMaxDepth) + "<b/>" +
                                             repeated("</a>", NTiXmlElement::kMaxDepth));
    const std::string remainder = "<b/>" + repeated("</a>", NTiXmlElement::kMaxDepth);
    EXPECT_EQ(failure, (Failure{"Element Parse error", remainder, 697}));
}

TEST(TinyXmlParseElement, MaxDepthCountsFromTheElementThatIsParsed) {
    const std::string text =
        repeated("<a>", NTiXmlElement::kMaxDepth) + repeated("</a>", NTiXmlElement::kMaxDepth);
    EXPECT_EQ(parse_failure<NTiXmlElement>(text.c_str()).message, "no exception");
    EXPECT_EQ(parse_failure<NTiXmlElement>(("<a>" + text + "</a>").c_str()).message,
              "Element Parse error");
}

TEST(TinyXmlParseElement, AMillionLevelsAreAnElementParseError) {
    const std::string open = repeated("<a>", 1000000);
    EXPECT_EQ(document_failure(open).message, "Element Parse error");
    EXPECT_EQ(document_failure(open + repeated("</a>", 1000000)).message, "Element Parse error");
}

TEST(TinyXmlParseElement, AHundredThousandSiblings) {
    NTiXmlDoc document("<r>" + repeated("<a/><b>1</b>", 50000) + "</r>", false);
    document.Parse(nullptr);
    EXPECT_EQ(document.RootElement()->Children().size(), 100000U);
}

TEST(TinyXmlParseElement, AHundredThousandAttributes) {
    NTiXmlElement element;
    element.Parse(("<a" + repeated(" b='1'", 100000) + "/>").c_str());
    EXPECT_EQ(AttributeReader(element).Count(), 100000U);
}

// --- documents

TEST(TinyXmlParseDoc, EmptyTextIsNoContent) {
    EXPECT_EQ(document_failure(""), (Failure{"No content", "", 835}));
}

TEST(TinyXmlParseDoc, AnEmptyTextGivenToParseIsNoContent) {
    NTiXmlDoc document("<a/>", false);
    EXPECT_EQ(failure_of([&document] { document.Parse(""); }), (Failure{"No content", "", 835}));
}

TEST(TinyXmlParseDoc, WhiteSpaceOnlyHasNoNodes) {
    EXPECT_EQ(tree_of("   "), "");
    EXPECT_EQ(tree_of("\n"), "");
}

TEST(TinyXmlParseDoc, ATextThatBeginsWithANulHasNoNodes) {
    EXPECT_EQ(tree_of("\0<a/>"s), "");
}

TEST(TinyXmlParseDoc, ANulEndsTheText) {
    EXPECT_EQ(tree_of("<a/>\0<b/>"s), "E a '' ()");
}

TEST(TinyXmlParseDoc, TopLevelTextIsAnIdentifyError) {
    EXPECT_EQ(document_failure("x"), (Failure{"Identify error", "x", 854}));
    EXPECT_EQ(document_failure("  x <a/>"), (Failure{"Identify error", "x <a/>", 854}));
    EXPECT_EQ(document_failure("<a/>x"), (Failure{"Identify error", "x", 854}));
    EXPECT_EQ(document_failure("<a/> \n > "), (Failure{"Identify error", "> ", 854}));
    EXPECT_EQ(document_failure("\xEF\xBB\xBF<a/>"),
              (Failure{"Identify error", "\xEF\xBB\xBF<a/>", 854}));
}

TEST(TinyXmlParseDoc, SeveralElementsStandSideBySide) {
    EXPECT_EQ(tree_of("<a/> \n<b/>\t"), "E a '' ()E b '' ()");
}

TEST(TinyXmlParseDoc, EachKindIsIdentified) {
    EXPECT_EQ(tree_of("<?XML?><!--c--><!d><e/><_f/><?g?>"),
              "T '' '' '' C 'c' X '!d' E e '' ()E _f '' ()X '?g?' ");
}

TEST(TinyXmlParseDoc, WhatBeginsAsADeclarationIsOne) {
    EXPECT_EQ(tree_of("<?xml-stylesheet href='x'?><a/>"), "T '' '' '' E a '' ()");
}

TEST(TinyXmlParseDoc, NodesBeforeAFailureStay) {
    NTiXmlDoc document("<a/><!-- c --><b>", false);
    EXPECT_EQ(failure_of([&document] { document.Parse(nullptr); }),
              (Failure{"ReadValue", "", 771}));
    EXPECT_EQ(described(document), "E a '' ()C 'c' ");
}

TEST(TinyXmlParseDoc, ParseReplacesTheTextAndAppendsItsNodes) {
    NTiXmlDoc document("<a/>", false);
    document.Parse("<b/>");
    EXPECT_EQ(document.Text(), "<b/>");
    document.Parse(nullptr);
    EXPECT_EQ(described(document), "E b '' ()E b '' ()");
}

TEST(TinyXmlParseDoc, ADocumentMayBeGivenItsOwnText) {
    NTiXmlDoc document("<a><b>x</b></a>", false);
    document.Parse(document.Text().c_str());
    EXPECT_EQ(described(document), "E a '' (E b 'x' ())");
}

class TinyXmlFile : public testing::Test {
protected:
    std::string TextOf(const std::string& bytes) {
        return NTiXmlDoc(folder_.Put("doc.xml", bytes), true).Text();
    }
    static Failure LoadFailure(const std::string& path) {
        return failure_of([&path] { NTiXmlDoc(path, true); });
    }
    TestFolder folder_;
};

// That many bytes without a NUL, each 251 bytes different from the next ones.
std::string pattern(std::size_t size) {
    std::string text;
    for (std::size_t at = 0; at < size; ++at) {
        text += static_cast<char>(1 + at % 251);
    }
    return text;
}

TEST_F(TinyXmlFile, OneLineFeedIsAppended) {
    EXPECT_EQ(TextOf("<a/>"), "<a/>\n");
    EXPECT_EQ(TextOf("<a/>\n"), "<a/>\n\n");
}

TEST_F(TinyXmlFile, NothingIsParsedYet) {
    const NTiXmlDoc document(folder_.Put("doc.xml", "<a>"), true);
    EXPECT_TRUE(document.Children().empty());
}

TEST_F(TinyXmlFile, IsParsedWithoutText) {
    NTiXmlDoc document(folder_.Put("doc.xml", "<a>\r\n x</a>\r\n"), true);
    document.Parse(nullptr);
    EXPECT_EQ(described(document), "E a 'x' ()");
}

TEST_F(TinyXmlFile, AnEmptyFileIsADocumentWithoutNodes) {
    NTiXmlDoc document(folder_.Put("doc.xml", ""), true);
    EXPECT_EQ(document.Text(), "\n");
    document.Parse(nullptr);
    EXPECT_TRUE(document.Children().empty());
}

TEST_F(TinyXmlFile, EverySizeAroundTheBlocks) {
    for (const std::size_t size :
         {1U, 1018U, 1019U, 1020U, 1021U, 1022U, 1023U, 1024U, 2039U, 2040U, 2041U, 100000U}) {
        EXPECT_EQ(TextOf(pattern(size)), pattern(size) + "\n") << size;
    }
}

TEST_F(TinyXmlFile, ANulCutsItsBlockOf1020BytesOnly) {
    std::string bytes = pattern(3000);
    bytes[10] = '\0';
    bytes[20] = '\0';
    EXPECT_EQ(TextOf(bytes), bytes.substr(0, 10) + bytes.substr(1020) + "\n");
}

TEST_F(TinyXmlFile, ANulAtEitherEndOfABlock) {
    std::string bytes = pattern(3000);
    bytes[1019] = '\0';
    EXPECT_EQ(TextOf(bytes), bytes.substr(0, 1019) + bytes.substr(1020) + "\n");
    bytes[1019] = 'x';
    bytes[1020] = '\0';
    EXPECT_EQ(TextOf(bytes), bytes.substr(0, 1020) + bytes.substr(2040) + "\n");
}

TEST_F(TinyXmlFile, ANulInTheShortLastBlockCutsIt) {
    EXPECT_EQ(TextOf("<a/>\0<b/>"s), "<a/>\n");
}

TEST_F(TinyXmlFile, AMissingFile) {
    const std::string path = folder_.Path("missing %s.xml");
    EXPECT_EQ(LoadFailure(path), (Failure{"Invalid file name:" + path, "", 789}));
}

TEST_F(TinyXmlFile, AnEmptyName) {
    EXPECT_EQ(LoadFailure(""), (Failure{"Invalid file name:", "", 789}));
}

TEST_F(TinyXmlFile, AFolder) {
    EXPECT_EQ(LoadFailure(folder_.Name()),
              (Failure{"Invalid file name:" + folder_.Name(), "", 802}));
}

// --- laws

// A document in pieces; a text that is cut inside or right behind a piece gives its message.
struct Piece {
    const char* text;
    const char* message_when_cut;
};
constexpr const char* kParses = "no exception";
constexpr const char* kAttribute = "attribute pair error";
constexpr const char* kElement = "Element Parse error";
constexpr const char* kExtra = "DocType error";
constexpr const char* kComment = "Comment error";
constexpr const char* kValue = "ReadValue";
constexpr Piece kPieces[] = {
    {" \n", kParses},
    {"<?xm", kExtra},
    {"l versio", kParses},
    {"n = \"1.0\"", kAttribute},
    {" encodin", kParses},
    {"g='UTF-8'", kAttribute},
    {" standalon", kParses},
    {"e=\"no\"", kAttribute},
    {" ?>\n", kParses},
    {"<!-", kExtra},
    {"- a &lt; note on this\n and that --", kComment},
    {">\n", kParses},
    {"<!DOCTYPE root SYSTEM \"x\"", kExtra},
    {">\n", kParses},
    {"<", kExtra},
    {"root ", kElement},
    {"a='1'", kAttribute},
    {"\n", kElement},
    {"b_2 = \"x &amp; y\"", kAttribute},
    {" ", kElement},
    {">\n  ", kValue},
    {"<", kExtra},
    {"Key", kElement},
    {">some text of the key &quot;", kValue},
    {"</ke", kElement},
    {"y", kElement},
    {">\n  ", kValue},
    {"<", kExtra},
    {"empty/", kElement},
    {">", kValue},
    {"<!-", kExtra},
    {"-c--", kComment},
    {">", kValue},
    {"<!x", kExtra},
    {">", kValue},
    {"<?xm", kExtra},
    {"l?> ", kValue},
    {"<", kExtra},
    {"n:m", kElement},
    {"> ", kValue},
    {"<", kExtra},
    {"deep ", kElement},
    {"q=''", kAttribute},
    {"/", kElement},
    {"> behind ", kValue},
    {"</n:m", kElement},
    {">\n", kValue},
    {"<", kExtra},
    {"/root", kElement},
    {">\n", kParses},
};

TEST(TinyXmlLaws, AValidDocumentCutAtEveryByte) {
    std::string text;
    for (const Piece& piece : kPieces) {
        for (std::size_t cut = 1; cut <= std::strlen(piece.text); ++cut) {
            const std::string document = text + std::string(piece.text, cut);
            const Failure failure = document_failure(document);
            EXPECT_EQ(failure.message, piece.message_when_cut) << document;
            EXPECT_TRUE(document.ends_with(failure.remainder)) << failure.remainder;
        }
        text += piece.text;
    }
    EXPECT_GT(text.size(), 250U);
    EXPECT_EQ(
        tree_of(text),
        "T '1.0' 'UTF-8' 'no' C 'a < note on this and that' X '!DOCTYPE root SYSTEM \"x\"' "
        "E root {a=1} {b_2=x & y} '' (E Key 'some text of the key \"' ()E empty '' ()C 'c' X '!x' "
        "T '' '' '' E n:m 'behind' (E deep {q=} '' ()))");
}

TEST(TinyXmlLaws, EveryByteOfAValidDocumentReplacedParsesOrThrowsAListedMessage) {
    const std::set<std::string> listed = {
        kParses,      kAttribute,       kElement,
        kExtra,       kComment,         kValue,
        "No content", "Identify error", "Declaration Parse error"};
    std::string text;
    for (const Piece& piece : kPieces) {
        text += piece.text;
    }
    for (std::size_t at = 0; at < text.size(); ++at) {
        for (const char byte : "<>/&'\"=-!? x\xE4") {
            std::string document = text;
            document[at] = byte;
            EXPECT_EQ(listed.count(document_failure(document).message), 1U) << document;
        }
    }
}

// Makes trees that the printer can write and the parser can read back: text beside children would
// not be read back, nor text that condensing or decoding changes.
class TreeMaker {
public:
    explicit TreeMaker(unsigned seed) : random_(seed) {}

    std::unique_ptr<NTiXmlElement> Element(unsigned depth) {
        auto element = std::make_unique<NTiXmlElement>();
        element->Name() = Pick({"a", "_b", "Name", "x-y.z:1", "C3"});
        for (unsigned left = Below(4); left > 0; --left) {
            element->AddAttribute(Pick({"a", "b", ":c", "_d-1"}), Value());
        }
        const unsigned children = depth == 0 ? 0 : Below(5);
        for (unsigned left = children; left > 0; --left) {
            element->AppendChild(Child(depth - 1).release());
        }
        if (children == 0) {
            element->Text() = Value();
        }
        return element;
    }

private:
    unsigned Below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

    std::string Pick(const std::vector<std::string>& choices) {
        return choices[Below(static_cast<unsigned>(choices.size()))];
    }

    std::string Value() {
        return Pick({"", "1", "two words", "a<b & \"c\" 'd' > e", "&amp;", "&#65;", "]]>", "--",
                     "\xC3\xA4\xFF", "<x/>", "\x01\x7F", "'"});
    }

    std::unique_ptr<NTiXmlNode> Child(unsigned depth) {
        std::unique_ptr<NTiXmlNode> node;
        switch (Below(8)) {
            case 0:
                node = std::make_unique<NTiXmlComment>();
                node->Text() = Pick({"", "note", "two words - & more"});
                return node;
            case 1:
                node = std::make_unique<NTiXmlExtra>();
                node->Text() = Pick({"!x", "?pi d?", "", "!a  b"});
                return node;
            case 2:
                node = std::make_unique<NTiXmlDeclaration>();
                node->Parse(
                    Pick({"<?xml?>", "<?xml version='1.0'?>", "<?xml encoding='x y'?>"}).c_str());
                return node;
            default:
                return Element(depth);
        }
    }

    std::mt19937 random_;
};

TEST(TinyXmlLaws, ParsedFromItsPrintATreeIsTheSame) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        const auto made = TreeMaker(seed).Element(5);
        const std::string printed = ToString(*made);
        NTiXmlElement parsed;
        ASSERT_STREQ(parsed.Parse(printed.c_str()), "\n") << printed;
        std::string made_tree;
        std::string parsed_tree;
        describe(*made, made_tree);
        describe(parsed, parsed_tree);
        ASSERT_EQ(parsed_tree, made_tree) << printed;
        ASSERT_EQ(ToString(parsed), printed);
    }
}

// --- a plain reader of the dialect, to compare with

// Reads a document one byte after the other into the form that described() gives.
class PlainReader {
public:
    explicit PlainReader(const std::string& text) : text_(text.substr(0, text.find('\0'))) {}

    // What was read before a failure stays in the tree.
    std::string Read() {
        SkipBlanks();
        while (at_ < text_.size()) {
            if (Now() != '<') {
                Fail("Identify error", at_, 854);
            }
            tree_ += ReadMarkup();
            SkipBlanks();
        }
        return tree_;
    }
    const std::string& Tree() const { return tree_; }

private:
    static constexpr std::string_view kBlanks = " \t\n\v\f\r";
    static constexpr std::string_view kLetters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

    [[noreturn]] void Fail(const std::string& message, std::size_t from, int line) const {
        throw Failure{message, text_.substr(from), line};
    }
    bool AtEnd() const { return at_ >= text_.size(); }
    char Now() const { return text_[at_]; }  // a NUL at the end
    static bool In(std::string_view set, char c) { return set.find(c) != std::string_view::npos; }
    void SkipBlanks() {
        while (!AtEnd() && In(kBlanks, Now())) {
            ++at_;
        }
    }
    bool Follows(std::string_view tag) const {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c + 0; };
        for (std::size_t index = 0; index < tag.size(); ++index) {
            if (at_ + index >= text_.size() || lower(text_[at_ + index]) != lower(tag[index])) {
                return false;
            }
        }
        return true;
    }

    std::string Character() {
        for (const auto& [entity, character] : std::vector<std::pair<std::string, std::string>>{
                 {"&amp;", "&"}, {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}}) {
            if (text_.compare(at_, entity.size(), entity) == 0) {
                at_ += entity.size();
                return character;
            }
        }
        return {text_[at_++]};
    }

    std::optional<std::string> Text(std::string_view end) {
        std::string out;
        for (bool blank = false; !AtEnd();) {
            if (Follows(end)) {
                at_ += end.size();
                return out;
            }
            if (In("<>", Now())) {
                return std::nullopt;
            }
            if (In(kBlanks, Now())) {
                blank = true;
                ++at_;
                continue;
            }
            out += blank && !out.empty() ? " " : "";
            out += Character();
            blank = false;
        }
        return std::nullopt;
    }

    std::optional<std::string> Name() {
        std::string name;
        const auto starts = [](char c) { return In(kLetters, c) || c == '_' || c == ':'; };
        while (!AtEnd() && (starts(Now()) || (!name.empty() && In("0123456789-.", Now())))) {
            name += text_[at_++];
        }
        return name.empty() || AtEnd() ? std::nullopt : std::optional(name);
    }

    std::pair<std::string, std::string> Attribute() {
        constexpr const char* message = "attribute pair error";
        SkipBlanks();
        if (AtEnd()) {
            throw Failure{message, "null point", 266};
        }
        const std::size_t start = at_;
        const std::optional<std::string> name = Name();
        if (!name) {
            Fail(message, start, 273);
        }
        SkipBlanks();
        if (AtEnd() || Now() != '=') {
            Fail(message, start, 278);
        }
        ++at_;
        SkipBlanks();
        if (AtEnd() || !In("\"'", Now())) {
            Fail(message, start, AtEnd() ? 285 : 299);
        }
        const std::string quote(1, text_[at_++]);
        const std::optional<std::string> value = Text(quote);
        if (!value || AtEnd()) {
            Fail(message, start, 303);
        }
        return {*name, *value};
    }

    std::string ReadMarkup() {
        const char next = at_ + 1 < text_.size() ? text_[at_ + 1] : '>';
        if (In(kLetters, next) || next == '_') {
            return ReadElement();
        }
        if (Follows("<?xml")) {
            return ReadDeclaration();
        }
        return Follows("<!--") ? ReadComment() : ReadExtra();
    }

    std::string ReadComment() {
        const std::size_t start = at_;
        at_ += 4;
        const std::optional<std::string> text = Text("-->");
        if (!text) {
            Fail("Comment error", start, 399);
        }
        return "C '" + *text + "' ";
    }

    std::string ReadExtra() {
        const std::size_t start = at_++;
        std::string text;
        while (!AtEnd() && Now() != '>') {
            text += Character();
        }
        if (AtEnd()) {
            Fail("DocType error", start, 430);
        }
        ++at_;
        return "X '" + text + "' ";
    }

    std::string ReadDeclaration() {
        std::string version;
        std::string encoding;
        std::string standalone;
        at_ += 5;
        for (SkipBlanks();; SkipBlanks()) {
            std::string* const field = Follows("version")      ? &version
                                       : Follows("encoding")   ? &encoding
                                       : Follows("standalone") ? &standalone
                                                               : nullptr;
            if (field == nullptr) {
                break;
            }
            *field = Attribute().second;
        }
        const std::size_t end = text_.find('>', at_);
        at_ = end == std::string::npos ? text_.size() : end + 1;
        return "T '" + version + "' '" + encoding + "' '" + standalone + "' ";
    }

    std::string ReadElement() {
        const std::size_t start = at_++;
        const std::optional<std::string> name = Name();
        if (!name) {
            Fail("Element Parse error", start, 667);
        }
        std::string out = "E " + *name;
        for (SkipBlanks(); !AtEnd() && !In("/>", Now()); SkipBlanks()) {
            const auto [attribute, value] = Attribute();
            out += " {" + attribute + "=" + value + "}";
        }
        if (AtEnd()) {
            Fail("Element Parse error", start, 679);
        }
        if (text_[at_++] == '/') {
            if (AtEnd() || text_[at_++] != '>') {
                Fail("Element Parse error", start, 686);
            }
            return out + " '' ()";
        }
        return out + ReadContent(start, *name);
    }

    std::string ReadContent(std::size_t start, const std::string& name) {
        const std::size_t content = at_;
        std::string children;
        std::string text;
        for (SkipBlanks(); !AtEnd() && Now() == '<' && !Follows("</"); SkipBlanks()) {
            children += ReadMarkup();
        }
        if (AtEnd()) {
            Fail("ReadValue", content, 771);
        }
        if (Now() != '<') {
            const std::optional<std::string> read = Text("<");
            if (!read) {
                Fail("ReadValue", content, 737);
            }
            text = *read;
            --at_;
        }
        const std::string end = "</" + name + ">";
        if (!Follows(end)) {
            Fail("Element Parse error", start, 705);
        }
        at_ += end.size();
        return " '" + text + "' (" + children + ")";
    }

    std::string text_;
    std::size_t at_ = 0;
    std::string tree_;
};

// Writes documents of the dialect, most of them valid, with all that is condensed and decoded.
class TextMaker {
public:
    explicit TextMaker(unsigned seed) : random_(seed) {}

    std::string Document() {
        std::string text = Blanks();
        for (unsigned left = 1 + Below(3); left > 0; --left) {
            text += Markup(3) + Blanks();
        }
        for (unsigned left = Below(2) * Below(4); left > 0; --left) {
            Spoil(text);
        }
        return text;
    }

private:
    unsigned Below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
    template <std::size_t Count>
    std::string Pick(const char* const (&choices)[Count]) {
        return choices[Below(Count)];
    }
    std::string Blanks() { return Pick({"", "", "", " ", "\n", "\r\n\t", "  ", "\v\f"}); }
    std::string Words() {
        std::string text;
        for (unsigned left = Below(5); left > 0; --left) {
            text += Pick({"a", "word", " ", "  ", "\n", "&lt;", "&amp;", "&", "&amp", "&#65;", "-",
                          "\xC3\xA4", "=", "/", "?", "!", "&gt;&quot;", "&apos;", "]]"});
        }
        return text;
    }
    std::string Attributes() {
        std::string text;
        for (unsigned left = Below(4); left > 0; --left) {
            const std::string quote = Pick({"'", "\""});
            text += " " + Pick({"a", "_b", ":c", "d-1.2"}) + Blanks() + "=" + Blanks() + quote +
                    Words() + quote;
        }
        return text + Blanks();
    }
    std::string Markup(unsigned depth) {
        switch (Below(8)) {
            case 0:
                return "<!--" + Words() + "-->";
            case 1:
                return "<" + Pick({"!d", "?p ", "!", "1", " "}) + Words() + ">";
            case 2:
                return "<?" + Pick({"xml", "XML"}) + Blanks() +
                       Pick({"", "version='1.0'", "encoding=\"x  y\" version='&lt;'", "standalone",
                             "Standalones=''"}) +
                       Blanks() + Pick({"?>", ">"});
            default:
                return Element(depth);
        }
    }
    std::string Element(unsigned depth) {
        const std::string name = Pick({"a", "Name", "_b", "x-y.z:1"});
        std::string text = "<" + name + Attributes();
        if (Below(4) == 0) {
            return text + "/>";
        }
        text += ">";
        for (unsigned left = depth == 0 ? 0 : Below(4); left > 0; --left) {
            text += Blanks() + Markup(depth - 1);
        }
        return text + Words() + "</" + (name == "Name" ? Pick({"Name", "NAME"}) : name) + ">";
    }
    void Spoil(std::string& text) {
        constexpr std::string_view bytes("<>/&'\"=-!? x\t;a:\xE4\0", 18);
        const std::size_t at = Below(static_cast<unsigned>(text.size()) + 1);
        const char byte = bytes[Below(bytes.size())];
        text.replace(at, Below(2), Below(2), byte);
    }

    std::mt19937 random_;
};

TEST(TinyXmlLaws, ADocumentIsReadAsAPlainReaderReadsIt) {
    int failures = 0;
    constexpr int kDocuments = 5000;
    for (unsigned seed = 1; seed <= kDocuments; ++seed) {
        const std::string text = TextMaker(seed).Document() + "\n";
        PlainReader plain(text);
        Failure wanted = {"no exception", "", 0};
        try {
            plain.Read();
        } catch (const Failure& failure) {
            wanted = failure;
            ++failures;
        }
        NTiXmlDoc document(text, false);
        ASSERT_EQ(failure_of([&] { document.Parse(nullptr); }), wanted) << text;
        ASSERT_EQ(described(document), plain.Tree()) << text;
        NTiXmlDoc borrowing;
        ASSERT_EQ(failure_of([&] { borrowing.ParseBorrowed(text); }), wanted) << text;
        ASSERT_EQ(described(borrowing), plain.Tree()) << text;
    }
    // Neither kind is rare.
    EXPECT_GT(failures, kDocuments / 10);
    EXPECT_LT(failures, kDocuments * 6 / 10);
}

}  // namespace
