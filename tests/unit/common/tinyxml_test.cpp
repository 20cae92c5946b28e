#include "common/tinyxml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::ExitedWithCode;
using testing::IsEmpty;

// A node of any kind, with its attributes open to the test.
class AnyNode : public NTiXmlNode {
public:
    explicit AnyNode(NTiXmlNodeType type) : NTiXmlNode(type) {}
    const char* Parse(const char* p) override { return p; }
    void Print(NTiXmlOutBuffer&, int) const override {}
    using NTiXmlNode::Attributes;
};

std::vector<std::string> attributes_of(const NTiXmlNode& node) {
    AnyNode copy(NTiXmlNodeType::kComment);
    node.CopyAttributesTo(&copy);
    std::vector<std::string> all;
    for (const NTiXmlAttribute* attribute : copy.Attributes()) {
        all.push_back(std::string(attribute->Name()) + "=" + std::string(attribute->Value()));
    }
    return all;
}

template <class Node>
Node* append_new(NTiXmlElement& parent) {
    auto child = std::make_unique<Node>();
    Node* borrowed = child.get();
    parent.AppendChild(child.release());
    return borrowed;
}

// The texts of all direct children, in order.
std::vector<std::string> child_texts(const NTiXmlElement& parent) {
    std::vector<std::string> texts;
    for (NTiXmlNode* child : parent.Children()) {
        texts.push_back(child->Text());
    }
    return texts;
}

// A view with a length of its own: only that is looked at.
TEST(NTiXmlText, OfFourGibibytesIsNotViewable) {
    const std::string text;
    constexpr std::size_t longest = 0xFFFFFFFE;
    EXPECT_TRUE(NTiXmlText::IsViewable({text.data(), longest}));
    EXPECT_FALSE(NTiXmlText::IsViewable({text.data(), longest + 1}));
    EXPECT_FALSE(NTiXmlText::IsViewable({text.data(), longest + 2}));
}

// x "1", a comment, y "2", a declaration, x "3".
void add_x_y_x(NTiXmlElement& parent) {
    parent.AddChildElement("x", "1");
    append_new<NTiXmlComment>(parent)->Text() = "note";
    parent.AddChildElement("y", "2");
    append_new<NTiXmlDeclaration>(parent)->Text() = "1.0";
    parent.AddChildElement("x", "3");
}

TEST(TinyXmlNode, EachKindHasItsTypeCode) {
    EXPECT_EQ(static_cast<int>(NTiXmlDoc("", false).Type()), 0);
    EXPECT_EQ(static_cast<int>(NTiXmlElement().Type()), 1);
    EXPECT_EQ(static_cast<int>(NTiXmlComment().Type()), 2);
    EXPECT_EQ(static_cast<int>(NTiXmlDeclaration().Type()), 3);
    EXPECT_EQ(static_cast<int>(NTiXmlExtra().Type()), 4);
}

TEST(TinyXmlNode, ANewElementIsEmpty) {
    const NTiXmlElement element;
    EXPECT_EQ(element.NameView(), "");
    EXPECT_EQ(element.TextView(), "");
    EXPECT_TRUE(element.Children().empty());
    EXPECT_EQ(element.AttributeAt(0), nullptr);
}

TEST(TinyXmlNode, ANewDeclarationIsEmpty) {
    const NTiXmlDeclaration declaration;
    EXPECT_EQ(declaration.Version(), "");
    EXPECT_EQ(declaration.Encoding(), "");
    EXPECT_EQ(declaration.Standalone(), "");
}

TEST(TinyXmlNode, NameAndTextCanBeSet) {
    NTiXmlElement element;
    element.Name() = "n";
    element.Text() = "t";
    EXPECT_EQ(ToString(element), "<n>t</n>\n");
}

TEST(TinyXmlNode, TheTextOfADeclarationIsItsVersion) {
    NTiXmlDeclaration declaration;
    declaration.Text() = "1.1";
    EXPECT_EQ(declaration.Version(), "1.1");
}

TEST(TinyXmlNode, TheTextOfADocumentIsItsSource) {
    NTiXmlDoc document("<a/>", false);
    EXPECT_EQ(document.Text(), "<a/>");
    EXPECT_TRUE(document.Children().empty());
    document.Text() = "<b/>";
    document.Parse(nullptr);
    ASSERT_NE(document.RootElement(), nullptr);
    EXPECT_EQ(document.RootElement()->Name(), "b");
}

TEST(TinyXmlNode, EveryKindTakesAttributes) {
    NTiXmlComment comment;
    NTiXmlExtra extra;
    NTiXmlDeclaration declaration;
    NTiXmlDoc document("", false);
    for (NTiXmlNode* node :
         std::initializer_list<NTiXmlNode*>{&comment, &extra, &declaration, &document}) {
        EXPECT_EQ(node->AttributeAt(0), nullptr);
        node->AddAttribute("a", "1");
        EXPECT_THAT(attributes_of(*node), ElementsAre("a=1"));
    }
}

TEST(TinyXmlDoc, RootElementIsTheFirstTopLevelElement) {
    NTiXmlDoc document("<?xml version='1.0'?><!-- c --><!DOCTYPE r><r/><s/>", false);
    document.Parse(nullptr);
    ASSERT_EQ(document.Children().size(), 5U);
    ASSERT_NE(document.RootElement(), nullptr);
    EXPECT_EQ(document.RootElement()->Name(), "r");
}

TEST(TinyXmlDoc, WithoutElementThereIsNoRoot) {
    NTiXmlDoc document("<!-- c -->", false);
    EXPECT_EQ(document.RootElement(), nullptr);
    document.Parse(nullptr);
    EXPECT_EQ(document.Children().size(), 1U);
    EXPECT_EQ(document.RootElement(), nullptr);
}

TEST(TinyXmlElement, ChildElementCountsOnlyElementsOfThatName) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    EXPECT_EQ(parent.ChildElement("x", 0)->Text(), "1");
    EXPECT_EQ(parent.ChildElement("x", 1)->Text(), "3");
    EXPECT_EQ(parent.ChildElement("x", 2), nullptr);
    EXPECT_EQ(parent.ChildElement("y", 0)->Text(), "2");
    EXPECT_EQ(parent.ChildElement("y", 1), nullptr);
}

TEST(TinyXmlElement, ChildElementByStringIsTheSame) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    EXPECT_EQ(parent.ChildElement(std::string("x"), 1), parent.ChildElement("x", 1));
    EXPECT_EQ(parent.ChildElement(std::string("x"), 2), nullptr);
    EXPECT_EQ(parent.ChildElement(std::string("x"), -1), nullptr);
    EXPECT_EQ(parent.ChildElement(std::string(), 0), nullptr);
}

TEST(TinyXml, NamesAreComparedAlsoBehindANul) {
    NTiXmlElement parent;
    parent.AddChildElement("x", "1");
    parent.AddAttribute("x", "1");
    const std::string longer("x\0y", 3);
    EXPECT_EQ(parent.ChildElement(longer, 0), nullptr);
    EXPECT_EQ(parent.AttributeValue(longer), nullptr);
    const NTiXmlElement* child = parent.AddChildElement(longer, "2");
    parent.AddAttribute(longer, "2");
    EXPECT_EQ(parent.ChildElement(longer, 0), child);
    EXPECT_EQ(*parent.AttributeValue(longer), "2");
}

TEST(TinyXmlElement, ChildElementWithoutNameIsNull) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    EXPECT_EQ(parent.ChildElement(static_cast<const char*>(nullptr), 0), nullptr);
}

TEST(TinyXmlElement, ChildElementWithNegativeIndexIsNull) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    EXPECT_EQ(parent.ChildElement("x", -1), nullptr);
}

TEST(TinyXmlElement, ChildElementComparesNamesExactly) {
    NTiXmlElement parent;
    parent.AddChildElement("name", "");
    EXPECT_EQ(parent.ChildElement("Name", 0), nullptr);
    EXPECT_EQ(parent.ChildElement("nam", 0), nullptr);
    EXPECT_EQ(parent.ChildElement("names", 0), nullptr);
    EXPECT_NE(parent.ChildElement("name", 0), nullptr);
}

TEST(TinyXmlElement, ChildElementLooksAtDirectChildrenOnly) {
    NTiXmlElement parent;
    parent.AddChildElement("child", "")->AddChildElement("grandchild", "");
    EXPECT_EQ(parent.ChildElement("grandchild", 0), nullptr);
}

TEST(TinyXmlElement, ChildElementAtCountsElementsOfAnyName) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    EXPECT_EQ(parent.ChildElementAt(0)->Text(), "1");
    EXPECT_EQ(parent.ChildElementAt(1)->Text(), "2");
    EXPECT_EQ(parent.ChildElementAt(2)->Text(), "3");
    EXPECT_EQ(parent.ChildElementAt(3), nullptr);
    EXPECT_EQ(parent.ChildElementAt(-1), nullptr);
}

TEST(TinyXmlElement, AddChildElementAppendsAndReturnsTheChild) {
    NTiXmlElement parent;
    parent.AddChildElement("a", "1");
    NTiXmlElement* const second = parent.AddChildElement("b c", "<2>");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->Name(), "b c");
    EXPECT_EQ(second->Text(), "<2>");
    EXPECT_EQ(parent.Children().back(), second);
    EXPECT_EQ(parent.Children().size(), 2U);
}

TEST(TinyXmlElement, AppendChildTakesNodesOfEveryKindInOrder) {
    NTiXmlElement parent;
    const NTiXmlNode* const comment = append_new<NTiXmlComment>(parent);
    const NTiXmlNode* const extra = append_new<NTiXmlExtra>(parent);
    const NTiXmlNode* const element = append_new<NTiXmlElement>(parent);
    std::vector<const NTiXmlNode*> children;
    for (NTiXmlNode* child : parent.Children()) {
        children.push_back(child);
    }
    EXPECT_THAT(children, ElementsAre(comment, extra, element));
}

TEST(TinyXmlElement, ADeepCopyIsMadeByPrintingAndParsing) {
    NTiXmlElement original;
    original.Name() = "o";
    original.AddAttribute("a", "'1' & <2>");
    original.AddChildElement("c", "x & y")->AddAttribute("b", "\"");
    NTiXmlElement parent;
    parent.Name() = "p";
    append_new<NTiXmlElement>(parent)->Parse(ToString(original).c_str());
    EXPECT_EQ(ToString(*parent.ChildElementAt(0)), ToString(original));
    EXPECT_EQ(parent.ChildElementAt(0)->ChildElementAt(0)->Text(), "x & y");
}

TEST(TinyXmlAttributes, AreKeptInOrder) {
    NTiXmlElement element;
    element.AddAttribute("b", "1");
    element.AddAttribute("a", "2");
    element.AddAttribute("c", "3");
    EXPECT_THAT(attributes_of(element), ElementsAre("b=1", "a=2", "c=3"));
}

TEST(TinyXmlAttributes, AddAttributeReturnsTheNewOne) {
    NTiXmlElement element;
    element.AddAttribute("a", "1");
    const NTiXmlAttribute* const second = element.AddAttribute("a", "2");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->Name(), "a");
    EXPECT_EQ(second->Value(), "2");
}

TEST(TinyXmlAttributes, TwoOfOneNameStayAndTheFirstIsFound) {
    NTiXmlElement element;
    const NTiXmlAttribute* const first = element.AddAttribute("a", "1");
    element.AddAttribute("a", "2");
    EXPECT_THAT(attributes_of(element), ElementsAre("a=1", "a=2"));
    EXPECT_EQ(element.FindAttribute("a"), first);
    EXPECT_EQ(*element.AttributeValue("a"), "1");
    EXPECT_EQ(*element.AttributeValue(std::string("a")), "1");
}

TEST(TinyXmlAttributes, NamesAreComparedExactly) {
    NTiXmlElement element;
    element.AddAttribute("Name", "1");
    for (const char* name : {"name", "Nam", "Names", ""}) {
        EXPECT_EQ(element.FindAttribute(name), nullptr) << name;
        EXPECT_EQ(element.AttributeValue(name), nullptr) << name;
        EXPECT_EQ(element.AttributeValue(std::string(name)), nullptr) << name;
    }
}

TEST(TinyXmlAttributes, NullNameFindsNothing) {
    NTiXmlElement element;
    element.AddAttribute("", "1");
    EXPECT_EQ(element.FindAttribute(nullptr), nullptr);
    EXPECT_EQ(element.AttributeValue(static_cast<const char*>(nullptr)), nullptr);
}

TEST(TinyXmlAttributes, AttributeAtGivesTheFirstForEveryValidIndex) {
    NTiXmlElement element;
    const NTiXmlAttribute* const first = element.AddAttribute("a", "1");
    element.AddAttribute("b", "2");
    element.AddAttribute("c", "3");
    EXPECT_EQ(element.AttributeAt(0), first);
    EXPECT_EQ(element.AttributeAt(1), first);
    EXPECT_EQ(element.AttributeAt(2), first);
    EXPECT_EQ(element.AttributeAt(3), nullptr);
    EXPECT_EQ(element.AttributeAt(-1), nullptr);
}

TEST(TinyXmlAttributes, CopyAppendsToTheTargetAndLeavesTheSource) {
    NTiXmlElement source;
    source.AddAttribute("a", "1");
    source.AddAttribute("b", "2");
    source.AddAttribute("a", "3");
    NTiXmlElement target;
    target.AddAttribute("a", "0");
    source.CopyAttributesTo(&target);
    EXPECT_THAT(attributes_of(target), ElementsAre("a=0", "a=1", "b=2", "a=3"));
    EXPECT_THAT(attributes_of(source), ElementsAre("a=1", "b=2", "a=3"));
}

TEST(TinyXmlAttributes, CopyToItselfDoublesThem) {
    NTiXmlElement element;
    element.AddAttribute("a", "1");
    element.AddAttribute("b", "2");
    element.CopyAttributesTo(&element);
    EXPECT_THAT(attributes_of(element), ElementsAre("a=1", "b=2", "a=1", "b=2"));
}

TEST(TinyXmlAttributes, CopyToNullDoesNothing) {
    NTiXmlElement source;
    source.AddAttribute("a", "1");
    source.CopyAttributesTo(nullptr);
    EXPECT_THAT(attributes_of(source), ElementsAre("a=1"));
}

TEST(TinyXmlAttributes, CopyOfNoneLeavesTheTarget) {
    NTiXmlElement target;
    target.AddAttribute("a", "0");
    NTiXmlElement().CopyAttributesTo(&target);
    EXPECT_THAT(attributes_of(target), ElementsAre("a=0"));
}

// Tells how many of them have gone.
template <class Node>
class Counted : public Node {
public:
    template <class... Arguments>
    explicit Counted(int& gone, Arguments... arguments) : Node(arguments...), gone_(&gone) {}
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() override { ++*gone_; }

private:
    int* gone_;
};
using CountedElement = Counted<NTiXmlElement>;
using CountedNode = Counted<AnyNode>;

NTiXmlElement* append_counted(NTiXmlElement& parent, int& gone) {
    parent.AppendChild(std::make_unique<CountedElement>(gone).release());
    return static_cast<NTiXmlElement*>(parent.Children().back());
}

void append_counted_comment(NTiXmlElement& parent, int& gone) {
    parent.AppendChild(std::make_unique<CountedNode>(gone, NTiXmlNodeType::kComment).release());
}

TEST(TinyXmlOwnership, DeletingAnElementDeletesItsTreeOnce) {
    int gone = 0;
    {
        NTiXmlElement root;
        NTiXmlElement* const child = append_counted(root, gone);
        append_counted_comment(root, gone);
        append_counted(*child, gone);
        append_counted_comment(*append_counted(*child, gone), gone);
        EXPECT_EQ(gone, 0);
    }
    EXPECT_EQ(gone, 5);
}

TEST(TinyXmlOwnership, DeletingADocumentDeletesItsTreeOnce) {
    int gone = 0;
    auto document = std::make_unique<NTiXmlDoc>("<r a='1'><s/></r>", false);
    document->Parse(nullptr);
    append_counted_comment(*document->RootElement(), gone);
    append_counted(*append_counted(*document->RootElement()->ChildElementAt(0), gone), gone);
    document.reset();
    EXPECT_EQ(gone, 3);
}

TEST(TinyXmlRemove, AChildGoesWithItsSubtree) {
    int gone = 0;
    NTiXmlElement parent;
    parent.AddChildElement("a", "1");
    NTiXmlElement* const child = append_counted(parent, gone);
    append_counted(*child, gone);
    append_counted_comment(*child, gone);
    parent.AddChildElement("b", "2");
    EXPECT_TRUE(parent.RemoveChildElement(child));
    EXPECT_EQ(gone, 3);
    EXPECT_THAT(child_texts(parent), ElementsAre("1", "2"));
}

TEST(TinyXmlRemove, ThatVeryChildAmongEqualOnes) {
    NTiXmlElement parent;
    parent.AddChildElement("a", "1");
    NTiXmlElement* const second = parent.AddChildElement("a", "2");
    parent.AddChildElement("a", "3");
    EXPECT_TRUE(parent.RemoveChildElement(second));
    EXPECT_THAT(child_texts(parent), ElementsAre("1", "3"));
}

TEST(TinyXmlRemove, AGrandchildIsFalseAndStays) {
    int gone = 0;
    NTiXmlElement parent;
    NTiXmlElement* const child = append_counted(parent, gone);
    NTiXmlElement* const grandchild = append_counted(*child, gone);
    EXPECT_FALSE(parent.RemoveChildElement(grandchild));
    EXPECT_EQ(gone, 0);
    EXPECT_EQ(child->ChildElementAt(0), grandchild);
}

TEST(TinyXmlRemove, ACommentIsFalseAndStays) {
    int gone = 0;
    NTiXmlElement parent;
    append_counted_comment(parent, gone);
    EXPECT_FALSE(parent.RemoveChildElement(parent.Children().front()));
    EXPECT_EQ(gone, 0);
    EXPECT_EQ(parent.Children().size(), 1U);
}

TEST(TinyXmlRemove, AForeignElementItselfAndNullAreFalse) {
    NTiXmlElement parent;
    parent.AddChildElement("a", "1");
    NTiXmlElement foreign;
    EXPECT_FALSE(parent.RemoveChildElement(&foreign));
    EXPECT_FALSE(parent.RemoveChildElement(&parent));
    EXPECT_FALSE(parent.RemoveChildElement(nullptr));
    EXPECT_THAT(child_texts(parent), ElementsAre("1"));
}

std::vector<std::string> visited(const NTiXmlElement& parent, const char* name) {
    std::vector<std::string> texts;
    for (NTiXmlElementCursor at(parent, name); at; at.Next()) {
        texts.push_back(at->Text());
    }
    return texts;
}

TEST(TinyXmlCursor, VisitsTheElementsOfOneNameInOrder) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    EXPECT_THAT(visited(parent, "x"), ElementsAre("1", "3"));
    EXPECT_THAT(visited(parent, "y"), ElementsAre("2"));
}

TEST(TinyXmlCursor, ComparesNamesExactlyAndBelowNothing) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    parent.ChildElement("y", 0)->AddChildElement("z", "4");
    EXPECT_THAT(visited(parent, "X"), IsEmpty());
    EXPECT_THAT(visited(parent, ""), IsEmpty());
    EXPECT_THAT(visited(parent, "xx"), IsEmpty());
    EXPECT_THAT(visited(parent, "z"), IsEmpty());
}

TEST(TinyXmlCursor, OverNoChildrenIsAtItsEnd) {
    const NTiXmlElement parent;
    const NTiXmlElementCursor at(parent, "x");
    EXPECT_FALSE(at);
    EXPECT_EQ(at.Get(), nullptr);
}

TEST(TinyXmlCursor, GivesTheElementInThreeWaysAndNullAtTheEnd) {
    NTiXmlElement parent;
    NTiXmlElement* const child = parent.AddChildElement("x", "1");
    NTiXmlElementCursor at(parent, "x");
    ASSERT_TRUE(at);
    EXPECT_EQ(at.Get(), child);
    EXPECT_EQ(&*at, child);
    EXPECT_EQ(at->Name(), "x");
    at.Next();
    EXPECT_FALSE(at);
    EXPECT_EQ(at.Get(), nullptr);
}

TEST(TinyXmlCursor, ReachesChildrenAppendedOnTheWay) {
    NTiXmlElement parent;
    parent.AddChildElement("x", "1");
    NTiXmlElementCursor at(parent, "x");
    parent.AddChildElement("y", "2");
    parent.AddChildElement("x", "3");
    at.Next();
    ASSERT_TRUE(at);
    EXPECT_EQ(at->Text(), "3");
    at.Next();
    EXPECT_FALSE(at);
}

TEST(TinyXmlCursor, RemovingThroughItMovesToTheNextOfItsName) {
    NTiXmlElement parent;
    add_x_y_x(parent);
    NTiXmlElementCursor at(parent, "x");
    parent.RemoveChildElement(at);
    ASSERT_TRUE(at);
    EXPECT_EQ(at->Text(), "3");
    EXPECT_THAT(child_texts(parent), ElementsAre("note", "2", "1.0", "3"));
    parent.RemoveChildElement(at);
    EXPECT_FALSE(at);
    EXPECT_THAT(child_texts(parent), ElementsAre("note", "2", "1.0"));
}

TEST(TinyXmlCursor, RemovingThroughItDeletesTheSubtreeOnce) {
    int gone = 0;
    NTiXmlElement parent;
    NTiXmlElement* const child = append_counted(parent, gone);
    child->Name() = "x";
    append_counted(*child, gone);
    NTiXmlElementCursor at(parent, "x");
    parent.RemoveChildElement(at);
    EXPECT_EQ(gone, 2);
    EXPECT_TRUE(parent.Children().empty());
}

constexpr int kMillion = 1000000;

// A chain of that many counted elements below `root`.
void nest(NTiXmlElement& root, int levels, int& gone) {
    NTiXmlElement* deepest = &root;
    for (int level = 0; level < levels; ++level) {
        deepest = append_counted(*deepest, gone);
    }
}

TEST(TinyXmlDepth, ATreeAMillionDeepIsDestroyed) {
    int gone = 0;
    {
        NTiXmlElement root;
        nest(root, kMillion, gone);
    }
    EXPECT_EQ(gone, kMillion);
}

TEST(TinyXmlDepth, AChildAMillionDeepIsRemoved) {
    int gone = 0;
    NTiXmlElement root;
    nest(root, kMillion, gone);
    EXPECT_TRUE(root.RemoveChildElement(root.ChildElementAt(0)));
    EXPECT_EQ(gone, kMillion);
    EXPECT_TRUE(root.Children().empty());
}

TEST(TinyXmlDepth, ADocumentAMillionDeepIsDestroyed) {
    int gone = 0;
    auto document = std::make_unique<NTiXmlDoc>("<r/>", false);
    document->Parse(nullptr);
    nest(*document->RootElement(), kMillion, gone);
    document.reset();
    EXPECT_EQ(gone, kMillion);
}

TEST(TinyXmlBreadth, AHundredThousandSiblingsAreVisitedRemovedAndDestroyed) {
    constexpr int kSiblings = 100000;
    int gone = 0;
    {
        NTiXmlElement root;
        for (int sibling = 0; sibling < kSiblings; ++sibling) {
            append_counted(root, gone)->Name() = sibling % 2 == 0 ? "even" : "odd";
        }
        EXPECT_EQ(visited(root, "odd").size(), 50000U);
        for (NTiXmlElementCursor at(root, "odd"); at;) {
            root.RemoveChildElement(at);
        }
        EXPECT_EQ(gone, kSiblings / 2);
        EXPECT_THAT(visited(root, "odd"), IsEmpty());
        EXPECT_EQ(visited(root, "even").size(), 50000U);
    }
    EXPECT_EQ(gone, kSiblings);
}

TEST(TinyXmlException, CarriesMessageFileAndLine) {
    std::string message = "what happened";
    const TException exception("some/file", 42, message);
    message = "changed";
    EXPECT_STREQ(exception.Message(), "what happened");
    EXPECT_STREQ(exception.File(), "some/file");
    EXPECT_EQ(exception.Line(), 42);
}

TEST(TinyXmlException, WhatIsTheStandardLibrarysText) {
    EXPECT_STREQ(TException("f", 1, "message").what(), std::exception().what());
    EXPECT_STREQ(NTiXmlException("f", 1, "message", "rest").what(), std::exception().what());
}

TEST(TinyXmlException, CarriesTheRemainder) {
    const NTiXmlException exception("f", 7, "message", "the rest");
    EXPECT_STREQ(exception.Message(), "message");
    EXPECT_STREQ(exception.Remainder(), "the rest");
    EXPECT_STREQ(exception.File(), "f");
    EXPECT_EQ(exception.Line(), 7);
}

TEST(TinyXmlException, IsCaughtByEachOfItsBases) {
    EXPECT_THROW(throw NTiXmlException("f", 1, "m", "r"), TException);
    EXPECT_THROW(throw NTiXmlException("f", 1, "m", "r"), std::exception);
}

TEST(TinyXmlException, LastClassIsTheOneMade) {
    const NTiXmlException exception("f", 1, "m", "r");
    EXPECT_EQ(TException::LastClass(), "NTiXmlException");
}

// A process of its own, since any other test may have made an exception.
TEST(TinyXmlExceptionDeathTest, LastClassStartsAsTException) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::fputs(TException::LastClass().c_str(), stderr);
            std::_Exit(0);
        },
        ExitedWithCode(0), Eq("TException"));
}

TEST(TinyXmlExceptionDeathTest, WithoutFileNameTheProcessEnds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(TException(nullptr, 1, "message"), ExitedWithCode(255), Eq(""));
}

TEST(TinyXmlExceptionDeathTest, WithoutFileNameTheProcessEndsForTheDerivedClassToo) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(NTiXmlException(nullptr, 1, "message", "rest"), ExitedWithCode(255), Eq(""));
}

}  // namespace
