#include "common/string_tokens.h"

#include "tests/unit/common/last_allocation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::KilledBySignal;

std::vector<std::string> tokens_of(const char* text, int max_splits, const char* delimiters) {
    const StringTokens tokens(text, max_splits, delimiters);
    std::vector<std::string> all;
    for (int index = 0; index < tokens.count(); ++index) {
        all.push_back(tokens.getToken(index));
    }
    return all;
}

TEST(StringTokens, RunsAndTrailingDelimitersGiveNoEmptyTokens) {
    EXPECT_THAT(tokens_of("a,,b,", 0, ","), ElementsAre("a", "b"));
}

TEST(StringTokens, LeadingDelimitersAreSkipped) {
    EXPECT_THAT(tokens_of(",,,a", 0, ","), ElementsAre("a"));
}

TEST(StringTokens, NullTextHasNoTokens) {
    EXPECT_THAT(tokens_of(nullptr, 0, ","), IsEmpty());
}

TEST(StringTokens, EmptyTextHasNoTokens) {
    EXPECT_THAT(tokens_of("", 0, ","), IsEmpty());
    EXPECT_THAT(tokens_of("", 1, ","), IsEmpty());
}

TEST(StringTokens, TextOfDelimitersOnlyHasNoTokens) {
    EXPECT_THAT(tokens_of(" ,, ", 0, ", "), IsEmpty());
    EXPECT_THAT(tokens_of(" ,, ", 1, ", "), IsEmpty());
}

TEST(StringTokens, TextWithoutDelimiterIsOneToken) {
    EXPECT_THAT(tokens_of("abc", 0, ","), ElementsAre("abc"));
    EXPECT_THAT(tokens_of("abc", 1, ","), ElementsAre("abc"));
}

TEST(StringTokens, EveryCharacterOfTheSetIsADelimiter) {
    EXPECT_THAT(tokens_of("a b\tc\nd", 0, " \t\n"), ElementsAre("a", "b", "c", "d"));
}

TEST(StringTokens, EmptyDelimiterSetLeavesTheTextWhole) {
    EXPECT_THAT(tokens_of(" a b ", 0, ""), ElementsAre(" a b "));
}

TEST(StringTokens, BytesAbove127AreOrdinaryCharacters) {
    EXPECT_THAT(tokens_of("\xC3\xA4 \xFF", 0, " "), ElementsAre("\xC3\xA4", "\xFF"));
    EXPECT_THAT(tokens_of("a\xFF"
                          "b",
                          0, "\xFF"),
                ElementsAre("a", "b"));
}

TEST(StringTokens, OneSplitKeepsTheRestUnsplit) {
    EXPECT_THAT(tokens_of(" x y z", 1, " "), ElementsAre("x", "y z"));
}

TEST(StringTokens, TheRestKeepsItsDelimiters) {
    EXPECT_THAT(tokens_of("x  y  z ", 1, " "), ElementsAre("x", "y  z "));
}

TEST(StringTokens, NSplitsGiveAtMostNPlusOneTokens) {
    EXPECT_THAT(tokens_of("a b c d e", 2, " "), ElementsAre("a", "b", "c d e"));
    EXPECT_THAT(tokens_of("a b c d e", 4, " "), ElementsAre("a", "b", "c", "d", "e"));
    EXPECT_THAT(tokens_of("a b c d e", 9, " "), ElementsAre("a", "b", "c", "d", "e"));
}

TEST(StringTokens, NoRestNoLastToken) {
    EXPECT_THAT(tokens_of("a b", 2, " "), ElementsAre("a", "b"));
    EXPECT_THAT(tokens_of("a  ", 1, " "), ElementsAre("a"));
}

TEST(StringTokens, NegativeMaxSplitsIsUnlimited) {
    EXPECT_THAT(tokens_of("a b c", -1, " "), ElementsAre("a", "b", "c"));
}

TEST(StringTokens, TextAndDelimitersAreCopied) {
    std::string text = "a,b";
    std::string delimiters = ",";
    const StringTokens tokens(text.c_str(), 0, delimiters.c_str());
    text = "xxx";
    delimiters = "x";
    ASSERT_EQ(tokens.count(), 2);
    EXPECT_EQ(tokens.getToken(0), "a");
    EXPECT_EQ(tokens.getToken(1), "b");
}

constexpr const char* kIndexAssertion =
    "corvik: common/string_tokens:25: std::string StringTokens::getToken(int): "
    "Assertion `index < (int)tokens.size ()' failed.\n";

TEST(StringTokensDeathTest, AnIndexAtTheCountIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const StringTokens tokens("a b", 0, " ");
    EXPECT_EXIT(tokens.getToken(2), KilledBySignal(SIGABRT), Eq(kIndexAssertion));
}

TEST(StringTokensDeathTest, AnyIndexIntoNoTokensIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const StringTokens tokens(nullptr, 0, " ");
    EXPECT_EXIT(tokens.getToken(0), KilledBySignal(SIGABRT), Eq(kIndexAssertion));
}

TEST(StringTokensDeathTest, ANullDelimiterSetIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(StringTokens("a b", 0, nullptr), KilledBySignal(SIGABRT),
                Eq("corvik: common/string_tokens:12: StringTokens::StringTokens(const char*, int, "
                   "const char*): Assertion `delimiters' failed.\n"));
}

TEST(StringTokensDeathTest, ANegativeIndexIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const StringTokens tokens("a b", 0, " ");
    EXPECT_EXIT(tokens.getToken(-1), KilledBySignal(SIGABRT), Eq(kIndexAssertion));
}

std::string trimmed(std::string text, int mode) {
    EXPECT_EQ(trim_string(text.data(), mode), text.data());
    return text.c_str();
}

TEST(TrimString, NullIsReturnedAsItIs) {
    EXPECT_EQ(trim_string(nullptr, kTrimBoth), nullptr);
}

TEST(TrimString, EmptyStaysEmpty) {
    EXPECT_EQ(trimmed("", kTrimBoth), "");
}

TEST(TrimString, LeadingOnly) {
    EXPECT_EQ(trimmed(" \t a b \n", kTrimLeading), "a b \n");
}

TEST(TrimString, TrailingOnly) {
    EXPECT_EQ(trimmed(" \t a b \r\n", kTrimTrailing), " \t a b");
}

TEST(TrimString, BothEnds) {
    EXPECT_EQ(trimmed(" \t\v\f\r\n a b \t\v\f\r\n", kTrimBoth), "a b");
}

TEST(TrimString, NoModeBitChangesNothing) {
    EXPECT_EQ(trimmed(" a ", 0), " a ");
}

TEST(TrimString, ModeBitsHaveTheirNumbers) {
    EXPECT_EQ(kTrimLeading, 1);
    EXPECT_EQ(kTrimTrailing, 2);
    EXPECT_EQ(kTrimBoth, 3);
}

TEST(TrimString, WhiteSpaceOnlyBecomesEmptyInEachMode) {
    EXPECT_EQ(trimmed(" \r\n\t", kTrimLeading), "");
    EXPECT_EQ(trimmed(" \r\n\t", kTrimTrailing), "");
    EXPECT_EQ(trimmed(" \r\n\t", kTrimBoth), "");
}

TEST(TrimString, AControlCharacterIsTrimmedAround) {
    EXPECT_EQ(trimmed(" \x01 ", kTrimBoth), "\x01");
    EXPECT_EQ(trimmed("\x01 ", kTrimBoth), "\x01");
}

TEST(TrimString, OneCharacterStays) {
    EXPECT_EQ(trimmed("x", kTrimBoth), "x");
    EXPECT_EQ(trimmed("  x", kTrimBoth), "x");
    EXPECT_EQ(trimmed("x  ", kTrimBoth), "x");
}

TEST(TrimString, BytesAbove127AreNoWhiteSpace) {
    EXPECT_EQ(trimmed("\xA0 \x85", kTrimBoth), "\xA0 \x85");
}

TEST(HexEncodeUpper, TwoUpperCaseDigitsForEachByte) {
    EXPECT_EQ(hex_encode_upper("\x00\x0A\x7F\x80\xFF", 5), "000A7F80FF");
}

TEST(HexEncodeUpper, ACountBelowOneGivesNothing) {
    EXPECT_EQ(hex_encode_upper("abc", 0), "");
    EXPECT_EQ(hex_encode_upper("abc", -1), "");
    EXPECT_EQ(hex_encode_upper(nullptr, 0), "");
}

TEST(HexEncodeUpper, EveryByte) {
    for (int value = 0; value < 256; ++value) {
        const auto byte = static_cast<unsigned char>(value);
        std::array<char, 8> expected{};
        std::snprintf(expected.data(), expected.size(), "%02X", static_cast<unsigned>(value));
        EXPECT_EQ(hex_encode_upper(&byte, 1), expected.data());
    }
}

TEST(HexEncode, SeparatorBetweenBytesOnly) {
    EXPECT_EQ(hex_encode("\x0a\xff", 2, ":"), "0a:ff");
}

TEST(HexEncode, NullSeparatorIsNone) {
    EXPECT_EQ(hex_encode("\x0a\xff\x00", 3, nullptr), "0aff00");
}

TEST(HexEncode, EmptySeparatorIsNone) {
    EXPECT_EQ(hex_encode("\x0a\xff", 2, ""), "0aff");
}

TEST(HexEncode, SeparatorOfSeveralCharacters) {
    EXPECT_EQ(hex_encode("\x01\x02\x03", 3, ", "), "01, 02, 03");
    EXPECT_EQ(hex_encode("ab", 2, " - "), "61 - 62");
}

TEST(HexEncode, OneByteHasNoSeparator) {
    EXPECT_EQ(hex_encode("\xAB", 1, ":"), "ab");
}

TEST(HexEncode, ACountBelowOneGivesNothing) {
    EXPECT_EQ(hex_encode("abc", 0, ":"), "");
    EXPECT_EQ(hex_encode("abc", -5, ":"), "");
}

std::string bytes_of(const ByteBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.bytes()),
            static_cast<std::size_t>(buffer.count())};
}

TEST(ByteBuffer, IsNullUntilTheFirstByte) {
    const ByteBuffer buffer;
    EXPECT_EQ(buffer.bytes(), nullptr);
    EXPECT_EQ(buffer.count(), 0);
}

TEST(ByteBuffer, ANulStandsBehindTheBytesAfterEachAppend) {
    ByteBuffer buffer;
    std::string expected;
    for (int step = 0; step < 5000; ++step) {
        const auto byte = static_cast<std::uint8_t>(step * 7 + 1);
        buffer.append(byte);
        expected += static_cast<char>(byte);
        ASSERT_EQ(buffer.count(), step + 1);
        ASSERT_EQ(buffer.bytes()[buffer.count()], 0) << "after " << step + 1 << " bytes";
    }
    EXPECT_EQ(bytes_of(buffer), expected);
}

// The NUL behind the last byte is a part of what was asked for, however full the buffer is.
TEST(ByteBuffer, HasRoomForItsNul) {
    ByteBuffer buffer;
    std::size_t room = 0;
    for (int step = 0; step < 5000; ++step) {
        last_allocation = 0;
        buffer.append('x');
        room = last_allocation == 0 ? room : last_allocation;
        ASSERT_GT(room, static_cast<std::size_t>(buffer.count()));
    }
}

TEST(HexDecode, BothCasesOfDigits) {
    ByteBuffer buffer;
    EXPECT_TRUE(hex_decode("00aAfFFf10", buffer));
    EXPECT_EQ(bytes_of(buffer), "\x00\xAA\xFF\xFF\x10"s);
    EXPECT_EQ(buffer.bytes()[5], 0);
}

TEST(HexDecode, EmptyTextIsTrueAndAppendsNothing) {
    ByteBuffer buffer;
    EXPECT_TRUE(hex_decode("", buffer));
    EXPECT_EQ(buffer.count(), 0);
    EXPECT_EQ(buffer.bytes(), nullptr);
}

TEST(HexDecode, AForeignCharacterIsFalseAndAppendsNothing) {
    for (const std::string& text :
         {"4G"s, "G4"s, "41424G"s, "4 "s, "0x41"s, "+1"s, "41\n\n"s, "\xC4\xC4"s, "41\0\0"s}) {
        ByteBuffer buffer;
        EXPECT_FALSE(hex_decode(text, buffer)) << text;
        EXPECT_EQ(buffer.count(), 0) << text;
    }
}

TEST(HexDecode, AnOddLengthIsFalseAndAppendsNothing) {
    ByteBuffer buffer;
    EXPECT_FALSE(hex_decode("1", buffer));
    EXPECT_FALSE(hex_decode("414", buffer));
    EXPECT_EQ(buffer.count(), 0);
}

TEST(HexDecode, AppendsToWhatStandsAndAFailureLeavesIt) {
    ByteBuffer buffer;
    EXPECT_TRUE(hex_decode("4142", buffer));
    EXPECT_TRUE(hex_decode("43", buffer));
    EXPECT_FALSE(hex_decode("44XX", buffer));
    EXPECT_EQ(bytes_of(buffer), "ABC");
    EXPECT_EQ(buffer.bytes()[3], 0);
}

TEST(HexDecode, UndoesHexEncodeForEveryByte) {
    std::string all;
    for (int value = 0; value < 256; ++value) {
        all += static_cast<char>(value);
    }
    ByteBuffer upper;
    EXPECT_TRUE(hex_decode(hex_encode_upper(all.data(), 256), upper));
    EXPECT_EQ(bytes_of(upper), all);
    ByteBuffer lower;
    EXPECT_TRUE(hex_decode(hex_encode(all.data(), 256, nullptr), lower));
    EXPECT_EQ(bytes_of(lower), all);
}

TEST(EscapeXmlText, NullGivesEmpty) {
    EXPECT_EQ(escape_xml_text(nullptr, false), "");
    EXPECT_EQ(escape_xml_text(nullptr, true), "");
}

TEST(EscapeXmlText, EmptyGivesEmpty) {
    EXPECT_EQ(escape_xml_text("", false), "");
}

TEST(EscapeXmlText, EachMarkupCharacterInBothForms) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&apos;"}};
    for (const auto& [character, entity] : rows) {
        EXPECT_EQ(escape_xml_text(character.c_str(), false), entity);
        EXPECT_EQ(escape_xml_text(character.c_str(), true), entity);
    }
}

TEST(EscapeXmlText, AnEntityIsEscapedAgain) {
    EXPECT_EQ(escape_xml_text("a<b & \"c\" &amp;", false), "a&lt;b &amp; &quot;c&quot; &amp;amp;");
}

TEST(EscapeXmlText, PercentFormWritesEveryControlCharacterAsHex) {
    EXPECT_EQ(escape_xml_text("\t", true), "%09");
    for (int code = 1; code <= 31; ++code) {
        const std::array<char, 2> text = {static_cast<char>(code), '\0'};
        std::array<char, 8> expected{};
        std::snprintf(expected.data(), expected.size(), "%%%02X", static_cast<unsigned>(code));
        EXPECT_EQ(escape_xml_text(text.data(), true), expected.data());
    }
}

TEST(EscapeXmlText, WithoutPercentFormTabAndLineEndsStay) {
    EXPECT_EQ(escape_xml_text("a\tb\nc\rd", false), "a\tb\nc\rd");
}

TEST(EscapeXmlText, WithoutPercentFormOtherControlCharactersBecomeQuestionMarks) {
    EXPECT_EQ(escape_xml_text("\x01", false), "?");
    for (int code = 1; code <= 31; ++code) {
        const std::array<char, 2> text = {static_cast<char>(code), '\0'};
        const bool stays = code == '\t' || code == '\n' || code == '\r';
        EXPECT_EQ(escape_xml_text(text.data(), false), stays ? text.data() : "?") << code;
    }
}

TEST(EscapeXmlText, AllOtherBytesStay) {
    for (int code = 32; code < 256; ++code) {
        if (std::strchr("&<>\"'", code) != nullptr) {
            continue;
        }
        const std::array<char, 2> text = {static_cast<char>(code), '\0'};
        EXPECT_EQ(escape_xml_text(text.data(), false), text.data());
        EXPECT_EQ(escape_xml_text(text.data(), true), text.data());
    }
}

TEST(EscapeXmlText, APercentSignIsNotEscaped) {
    EXPECT_EQ(escape_xml_text("100%09", true), "100%09");
}

TEST(HexToDecimal, ReadsHexadecimal) {
    EXPECT_EQ(hex_to_decimal("1F"), "31");
    EXPECT_EQ(hex_to_decimal("ff"), "255");
    EXPECT_EQ(hex_to_decimal("0x1f"), "31");
    EXPECT_EQ(hex_to_decimal("0"), "0");
    EXPECT_EQ(hex_to_decimal("7fffffff"), "2147483647");
}

TEST(HexToDecimal, WritesSignedDecimal) {
    EXPECT_EQ(hex_to_decimal("ffffffff"), "-1");
    EXPECT_EQ(hex_to_decimal("80000000"), "-2147483648");
    EXPECT_EQ(hex_to_decimal("-1"), "-1");
}

TEST(HexToDecimal, WhatCannotBeReadGivesZero) {
    EXPECT_EQ(hex_to_decimal(""), "0");
    EXPECT_EQ(hex_to_decimal("  "), "0");
    EXPECT_EQ(hex_to_decimal("xyz"), "0");
    EXPECT_EQ(hex_to_decimal("-"), "0");
    EXPECT_EQ(hex_to_decimal("\xE9"), "0");
}

TEST(HexToDecimal, BlanksBeforeAndTextBehindAreNoMatter) {
    EXPECT_EQ(hex_to_decimal(" \t\n1f"), "31");
    EXPECT_EQ(hex_to_decimal("12 34"), "18");
    EXPECT_EQ(hex_to_decimal("1g"), "1");
}

TEST(HexToDecimal, OddTextsReadAsScanfReadsThem) {
    for (const char* text : {"0x", "0xg", "x1", "+a", "--1", "- 1", "00012", "0X10", "0x0x1",
                             "1ffffffff", "-80000000", "aBcDeF", "1.5"}) {
        unsigned number = 0;
        // NOLINTNEXTLINE(cert-err34-c): this very reading is the measure.
        if (std::sscanf(text, "%x", &number) != 1) {
            number = 0;
        }
        EXPECT_EQ(hex_to_decimal(text), std::to_string(static_cast<int>(number))) << text;
    }
}

TEST(PercentDecode, TwoHexDigitsGiveTheirByte) {
    EXPECT_EQ(percent_decode("%41"), "A");
    EXPECT_EQ(percent_decode("a%20b%2fc%2Fd"), "a b/c/d");
    EXPECT_EQ(percent_decode("%ff%80"), "\xFF\x80");
}

TEST(PercentDecode, ANulByteIsKept) {
    EXPECT_EQ(percent_decode("a%00b"), "a\0b"s);
}

TEST(PercentDecode, TheDecodedByteIsNotDecodedAgain) {
    EXPECT_EQ(percent_decode("%2541"), "%41");
}

TEST(PercentDecode, TextWithoutPercentStays) {
    EXPECT_EQ(percent_decode(""), "");
    EXPECT_EQ(percent_decode("plain \xE4 41"), "plain \xE4 41");
    EXPECT_EQ(percent_decode("a\0b"s), "a\0b"s);
}

TEST(PercentDecode, APercentNotFollowedByTwoAlphanumericCharactersStays) {
    EXPECT_EQ(percent_decode("100% sure"), "100% sure");
    EXPECT_EQ(percent_decode("%4-"), "%4-");
    EXPECT_EQ(percent_decode("%-4"), "%-4");
    EXPECT_EQ(percent_decode("%%41"), "%A");
    EXPECT_EQ(percent_decode("%\xE4\xE4"), "%\xE4\xE4");
}

TEST(PercentDecode, APercentAmongTheLastTwoCharactersStays) {
    EXPECT_EQ(percent_decode("%"), "%");
    EXPECT_EQ(percent_decode("a%"), "a%");
    EXPECT_EQ(percent_decode("a%4"), "a%4");
}

TEST(PercentDecode, ALetterThatIsNoHexDigitEndsTheNumber) {
    EXPECT_EQ(percent_decode("%4G!"), "\x04!");
    EXPECT_EQ(percent_decode("%G4!"), "\0!"s);
    EXPECT_EQ(percent_decode("%zz!"), "\0!"s);
}

TEST(PercentDecode, UndoesThePercentFormOfTheEscaper) {
    for (int code = 1; code <= 31; ++code) {
        const std::array<char, 2> text = {static_cast<char>(code), '\0'};
        EXPECT_EQ(percent_decode(escape_xml_text(text.data(), true)), text.data());
    }
}

}  // namespace
