#include "platform/image_id.h"

#include "tests/support/device_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::StrEq;

// What ImageID throws for; fails the test when nothing is thrown.
template <typename Action>
std::string refusal_of(Action action) {
    try {
        action();
    } catch (const ImageIDException& refusal) {
        return refusal.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

constexpr const char* kInvalid = "Invalid Image ID";

TEST(ImageIDDefault, IsNotValid) {
    const ImageID id;
    EXPECT_FALSE(id.valid());
    EXPECT_EQ(id.type(), 10);
    EXPECT_EQ(id.number(), 0);
    EXPECT_EQ(id.arch(), 0);
    EXPECT_STREQ(id.text(), "");
    EXPECT_STREQ(id.prefix(), "");
    EXPECT_STREQ(id.code(), "");
    EXPECT_EQ(id.format(), nullptr);
}

TEST(ImageIDText, IsCutUpByItsPrefix) {
    struct Row {
        const char* text;
        const char* prefix;
        std::size_t number_offset;
        std::size_t code_offset;
        std::size_t code_length;
        const char* code;
        std::int32_t number;
    };
    for (const Row& row : {
             Row{"D1ab1234", "D", 4, 2, 2, "ab", 1234},
             Row{"M1ab1234", "M", 4, 2, 2, "ab", 1234},
             Row{"T12abc78", "T", 6, 3, 3, "abc", 78},
             Row{"Z12abc78", "Z", 6, 3, 3, "abc", 78},
             Row{"d12abc78", "d", 6, 3, 3, "abc", 78},
             Row{"X12abc78", "X", 6, 3, 3, "abc", 78},
         }) {
        const ImageID id(row.text);
        EXPECT_STREQ(id.text(), row.text);
        EXPECT_STREQ(id.prefix(), row.prefix) << row.text;
        ASSERT_NE(id.format(), nullptr);
        EXPECT_EQ(id.format()->number_offset, row.number_offset) << row.text;
        EXPECT_EQ(id.format()->code_offset, row.code_offset) << row.text;
        EXPECT_EQ(id.format()->code_length, row.code_length) << row.text;
        EXPECT_STREQ(id.code(), row.code);
        EXPECT_EQ(id.number(), row.number) << row.text;
        EXPECT_TRUE(id.valid());
    }
}

TEST(ImageIDText, OfUnknownPrefixPointsToTheRowOfT) {
    EXPECT_EQ(ImageID("X12abc78").format()->prefix, 'T');
    EXPECT_EQ(ImageID("X12abc78").format(), ImageID("T12abc78").format());
}

TEST(ImageIDText, OfAKnownPrefixPointsToItsRow) {
    for (const char* text : {"D1ab1234", "M1ab1234", "T12abc78", "Z12abc78"}) {
        EXPECT_EQ(ImageID(text).format()->prefix, text[0]);
    }
}

TEST(ImageIDText, BehindEightCharactersIsNotLookedAt) {
    const ImageID id("DXST0019x");
    EXPECT_STREQ(id.text(), "DXST0019");
    EXPECT_EQ(id.number(), 19);
}

TEST(ImageIDText, OfFewerThanEightCharactersIsRefused) {
    EXPECT_EQ(refusal_of([] { ImageID("DXST001"); }), kInvalid);
    EXPECT_EQ(refusal_of([] { ImageID(""); }), kInvalid);
}

TEST(ImageIDNumber, IsWhatADecimalConversionTakes) {
    struct Row {
        const char* text;
        std::int32_t number;
    };
    for (const Row& row : {
             Row{"DXST0019", 19},
             Row{"DXST9999", 9999},
             Row{"DXST  19", 19},
             Row{"DXST+019", 19},
             Row{"DXST-019", -19},
             Row{"DXST001a", -1},
             Row{"DXSTa001", -1},
             Row{"DXST0 19", -1},
             Row{"DXST019 ", -1},
             Row{"DXST0x19", -1},
             Row{"DXST    ", -1},
             Row{"T12310ab", -1},
             Row{"T12310 7", 7},
         }) {
        EXPECT_EQ(ImageID(row.text).number(), row.number) << row.text;
    }
}

TEST(ImageIDCodes, WithTheirNumbers) {
    struct Row {
        const char* text;
        std::int32_t type;
    };
    for (const Row& row : {
             Row{"DXST0000", 1},
             Row{"DXST0019", 1},
             Row{"DXST0020", 4},
             Row{"DXST9999", 4},
             Row{"DXJP0000", 1},
             Row{"DXJP0010", 1},
             Row{"DXJP0011", 4},
             Row{"DXJP9999", 4},
             Row{"DXTH0000", 1},
             Row{"DXTH0004", 1},
             Row{"DXTH0005", 4},
             Row{"DXTH9999", 4},
             Row{"DXSQ0000", 2},
             Row{"DXSQ9999", 2},
             Row{"DXQU0000", 3},
             Row{"DXQU9999", 3},
             Row{"DXK20000", 4},
             Row{"DXK29999", 4},
             Row{"DXAR0000", 5},
             Row{"DXAR9999", 5},
             Row{"DXCL0000", 5},
             Row{"DXCL9999", 5},
             Row{"DXKR0000", 5},
             Row{"DXKR9999", 5},
             Row{"MXST0019", 1},
             Row{"MXQU0007", 3},
             // With "T" a code that is not found gives 6.
             Row{"TXX31000", 5},
             Row{"TXX31099", 5},
             Row{"TXX32000", 5},
             Row{"TXX32099", 5},
             Row{"TXX32100", 5},
             Row{"TXX32199", 5},
             Row{"TXX33000", 5},
             Row{"TXX33099", 5},
             Row{"TXX41000", 7},
             Row{"TXX41099", 7},
             // With an unknown prefix it gives 5.
             Row{"XXX40000", 6},
             Row{"XXX40099", 6},
             Row{"XXX41000", 7},
         }) {
        EXPECT_EQ(ImageID(row.text).type(), row.type) << row.text;
        EXPECT_TRUE(ImageID(row.text).valid()) << row.text;
    }
}

TEST(ImageIDCodes, BelowTheirNumbersDoNotCount) {
    for (const char* code : {"ST", "JP", "TH", "SQ", "QU", "K2"}) {
        EXPECT_EQ(ImageID(("DX" + std::string(code) + "-001").c_str()).type(), 5) << code;
    }
    for (const char* code : {"310", "320", "321", "330", "410"}) {
        EXPECT_EQ(ImageID(("TXX" + std::string(code) + "-1").c_str()).type(), 6) << code;
    }
    EXPECT_EQ(ImageID("XXX400-1").type(), 5);
}

TEST(ImageIDCodes, AreCaseSensitiveAndWhole) {
    EXPECT_EQ(ImageID("DXst0001").type(), 5);
    EXPECT_EQ(ImageID("DXqu0001").type(), 5);
    EXPECT_EQ(ImageID("TXXSQ001").type(), 6);
}

TEST(ImageIDPrefixes, DecideWithoutACode) {
    struct Row {
        const char* text;
        std::int32_t type;
    };
    for (const Row& row : {Row{"DXxx0001", 5}, Row{"MXxx0001", 5}, Row{"TXXxxx01", 6},
                           Row{"ZXXxxx01", 6}, Row{"XXXxxx01", 5}, Row{"tXXxxx01", 5},
                           Row{"zXXxxx01", 5}, Row{" XXxxx01", 5}, Row{"[XXxxx01", 5}}) {
        EXPECT_EQ(ImageID(row.text).type(), row.type) << row.text;
        EXPECT_TRUE(ImageID(row.text).valid()) << row.text;
    }
}

TEST(ImageIDPrefixes, ZComesBeforeTheCodes) {
    EXPECT_EQ(ImageID("ZXX41012").type(), 6);
    EXPECT_EQ(ImageID("ZXX31012").type(), 6);
}

TEST(ImageIDArch, IsTheThirdCharacter) {
    EXPECT_EQ(ImageID("TXa31012").arch(), 1);
    EXPECT_EQ(ImageID("TXA31012").arch(), 1);
    EXPECT_EQ(ImageID("DXAR0001").arch(), 1);
    EXPECT_EQ(ImageID("TaX31012").arch(), 2);
    EXPECT_EQ(ImageID("TXb31012").arch(), 2);
}

class ImageIDFile : public DeviceTest {
protected:
    // An identity out of a file of that content.
    ImageID Of(const std::string& content) const {
        Programs().Put("imageid", content);
        return ImageID::from_file(Programs().Path("imageid"));
    }
};

TEST_F(ImageIDFile, IsParsedUpToEightCharacters) {
    EXPECT_THAT(Of("DXST0019\nmore").text(), StrEq("DXST0019"));
    EXPECT_THAT(Of("DXST0019").text(), StrEq("DXST0019"));
    EXPECT_THAT(Of("DXST0019" + std::string(500, 'x')).text(), StrEq("DXST0019"));
    EXPECT_EQ(Of("DXST0019\n").type(), 1);
}

TEST_F(ImageIDFile, LineEndsCount) {
    EXPECT_THAT(Of("DXST001\n").text(), StrEq("DXST001\n"));
}

TEST_F(ImageIDFile, WithSevenCharactersIsRefused) {
    EXPECT_EQ(refusal_of([this] { Of("DXST001"); }), kInvalid);
}

TEST_F(ImageIDFile, WithSevenCharactersBeforeANulIsRefused) {
    EXPECT_EQ(refusal_of([this] { Of(std::string("DXST001\0009999", 12)); }), kInvalid);
}

TEST_F(ImageIDFile, EmptyIsRefused) {
    EXPECT_EQ(refusal_of([this] { Of(""); }), kInvalid);
}

TEST_F(ImageIDFile, MissingIsRefused) {
    EXPECT_EQ(refusal_of([this] { ImageID::from_file(Programs().Path("missing")); }), kInvalid);
}

TEST_F(ImageIDFile, ThatIsAFolderIsRefused) {
    EXPECT_EQ(refusal_of([] { ImageID::from_file("/etc"); }), kInvalid);
}

class SystemInfo : public DeviceTest {
protected:
    static ImageID Of(const std::string& content) {
        WriteSystemInfo(content);
        return ImageID::from_systeminfo();
    }
    static ImageID OfProduct(const std::string& name, const std::string& configuration,
                             const std::string& version) {
        SetProduct(name, configuration, version);
        return ImageID::from_systeminfo();
    }
};

TEST_F(SystemInfo, MissingGivesADefault) {
    const ImageID id = ImageID::from_systeminfo();
    EXPECT_FALSE(id.valid());
    EXPECT_EQ(id.type(), 10);
    EXPECT_EQ(id.arch(), 0);
}

TEST_F(SystemInfo, ThatIsAFolderIsNotValid) {
    std::filesystem::create_directory(kSystemInfo);
    EXPECT_FALSE(ImageID::from_systeminfo().valid());
}

TEST_F(SystemInfo, EmptyIsNotValid) {
    EXPECT_FALSE(Of("").valid());
    EXPECT_EQ(Of("").arch(), 2);
}

TEST_F(SystemInfo, CannotFailWithoutDescriptors) {
    SetImageType(9);
    bool valid = true;
    {
        const NoMoreDescriptors limit;
        valid = ImageID::from_systeminfo().valid();
    }
    EXPECT_FALSE(valid);
    EXPECT_TRUE(noexcept(ImageID::from_systeminfo()));
}

TEST_F(SystemInfo, Versions) {
    struct Row {
        const char* configuration;
        const char* version;
        bool valid;
        const char* code;
        std::int32_t type;
    };
    for (const Row& row : {
             Row{"standard", "3.1", true, "T", 5},   Row{"standard", "4.1", true, "T", 7},
             Row{"standard", "5.1", true, "T", 8},   Row{"standard", "6.1", true, "T", 9},
             Row{"standard", "7.1", true, "T", 10},  Row{"standard", "2.1", false, "T", 10},
             Row{"standard", "8.1", false, "T", 10}, Row{"standard", "", false, "T", 10},
             Row{"STANDARD", "4", true, "T", 7},     Row{"Standard", "5", true, "T", 8},
             Row{"", "3.1", true, "T", 5},           Row{"", "4.1", true, "T", 7},
             Row{"", "5.1", true, "T", 8},           Row{"", "6.1", true, "T", 9},
             Row{"", "7.1", true, "T", 10},          Row{"", "8.1", false, "T", 10},
             Row{"zero", "5.1", true, "T", 8},       Row{"zero", "6.1", true, "T", 9},
             Row{"zero", "7.1", true, "T", 10},      Row{"zero", "4.1", true, "Z", 6},
             Row{"zero", "3.1", true, "Z", 6},       Row{"zero", "8.1", true, "Z", 6},
             Row{"zero", "", true, "Z", 6},          Row{"ZERO", "5", true, "T", 8},
             Row{"Zero", "4", true, "Z", 6},         Row{"smart", "6.1", false, "", 10},
             Row{"zeros", "6.1", false, "", 10},     Row{" standard", "6.1", false, "", 10},
             Row{"x", "6.1", false, "", 10},
         }) {
        const ImageID id = OfProduct("Sylvex", row.configuration, row.version);
        const std::string which = std::string(row.configuration) + " " + row.version;
        EXPECT_EQ(id.valid(), row.valid) << which;
        EXPECT_STREQ(id.code(), row.code) << which;
        EXPECT_EQ(id.type(), row.type) << which;
        EXPECT_EQ(id.arch(), 2) << which;
        EXPECT_STREQ(id.text(), "") << which;
        EXPECT_STREQ(id.prefix(), "") << which;
        EXPECT_EQ(id.format(), nullptr) << which;
        EXPECT_EQ(id.number(), 0) << which;
    }
}

TEST_F(SystemInfo, ProductNameInLowerCase) {
    const ImageID id = OfProduct("sylvex", "", "6.2");
    EXPECT_TRUE(id.valid());
    EXPECT_EQ(id.type(), 9);
    EXPECT_STREQ(id.code(), "T");
}

TEST_F(SystemInfo, OfAnotherProductIsNotValid) {
    for (const char* name : {"Other", "Sylvex2", "Sylve", ""}) {
        const ImageID id = OfProduct(name, "standard", "6.2");
        EXPECT_FALSE(id.valid()) << name;
        EXPECT_STREQ(id.code(), "") << name;
    }
}

TEST_F(SystemInfo, LinesInAnyOrderBetweenOthers) {
    const ImageID id =
        Of("# text\n\nPRODUCT_VERSION=\"6.1\"\nOTHER=\"x\"\nPRODUCT_CONFIG=\"zero\"\n"
           "PRODUCT_NAME=\"Sylvex\"\nEND=1\n");
    EXPECT_EQ(id.type(), 9);
}

TEST_F(SystemInfo, LaterLineOverwrites) {
    EXPECT_EQ(
        Of("PRODUCT_NAME=\"Sylvex\"\nPRODUCT_VERSION=\"6.1\"\nPRODUCT_VERSION=\"4.1\"\n").type(),
        7);
    EXPECT_FALSE(
        Of("PRODUCT_NAME=\"Sylvex\"\nPRODUCT_VERSION=\"6.1\"\nPRODUCT_VERSION=\"\"\n").valid());
}

TEST_F(SystemInfo, FirstOfTheSameKeyInALineCounts) {
    EXPECT_EQ(
        Of("PRODUCT_NAME=\"Sylvex\"\nPRODUCT_VERSION=\"6.1\" PRODUCT_VERSION=\"4.1\"\n").type(), 9);
}

TEST_F(SystemInfo, FirstKeyOfALineTakesIt) {
    // Name before configuration before version, wherever they stand in the line.
    const std::string start = "PRODUCT_CONFIG=\"\"\nPRODUCT_VERSION=\"6.1\"\n";
    const std::string end = "PRODUCT_NAME=\"Sylvex\"\n";
    EXPECT_EQ(Of(start + "PRODUCT_VERSION=\"4.1\" PRODUCT_NAME=\"x\"\n" + end).type(), 9);
    EXPECT_EQ(Of(start + "PRODUCT_CONFIG=\"smart\" PRODUCT_NAME=\"x\"\n" + end).type(), 9);
    EXPECT_EQ(Of(start + "PRODUCT_CONFIG=\"x\" PRODUCT_VERSION=\"4\"\nPRODUCT_CONFIG=\"\"\n" + end)
                  .type(),
              9);
}

constexpr const char* kVersionSix = "PRODUCT_VERSION=\"6.1\"\n";

TEST_F(SystemInfo, AlwaysDropsTheLastTwoCharactersOfALine) {
    EXPECT_TRUE(Of(std::string(kVersionSix) + "PRODUCT_NAME=\"Sylvex?\n").valid());
    EXPECT_TRUE(Of(std::string(kVersionSix) + "PRODUCT_NAME=\"Sylvex12").valid());
    EXPECT_FALSE(Of(std::string(kVersionSix) + "PRODUCT_NAME=\"Sylvex??\n").valid());
    EXPECT_FALSE(Of(std::string(kVersionSix) + "PRODUCT_NAME=\"Sylvex\"").valid());
}

TEST_F(SystemInfo, SkipsThePlaceOfTheOpeningQuote) {
    EXPECT_EQ(Of("PRODUCT_NAME=?Sylvex?\nPRODUCT_VERSION=?6?\n").type(), 9);
    EXPECT_FALSE(Of(std::string(kVersionSix) + "PRODUCT_NAME=Sylvex\n").valid());
}

TEST_F(SystemInfo, TextBeforeTheKeyLengthensTheValue) {
    EXPECT_TRUE(Of(std::string(kVersionSix) + "xPRODUCT_NAME=\"Sylvex\n").valid());
    EXPECT_FALSE(Of(std::string(kVersionSix) + "xPRODUCT_NAME=\"Sylvex\"\n").valid());
}

TEST_F(SystemInfo, ValueIsNeverBehindItsLine) {
    EXPECT_TRUE(Of(kVersionSix + std::string(40, 'x') + "PRODUCT_NAME=\"Sylvex").valid());
    for (const char* line : {"PRODUCT_NAME=", "PRODUCT_NAME=\n", "xxxxxxxxxxPRODUCT_NAME="}) {
        EXPECT_FALSE(Of(std::string(kVersionSix) + line).valid()) << line;
    }
}

TEST_F(SystemInfo, ValueOfALineThatIsTooShortIsEmpty) {
    const std::string product =
        std::string(kVersionSix) + "PRODUCT_NAME=\"Sylvex\"\nPRODUCT_CONFIG=\"smart\"\n";
    EXPECT_FALSE(Of(product).valid());
    for (const char* line : {"PRODUCT_CONFIG=", "PRODUCT_CONFIG=\n", "PRODUCT_CONFIG=\"\"",
                             "PRODUCT_CONFIG=\"\"\n", "xxxxxxxxxxPRODUCT_CONFIG="}) {
        EXPECT_TRUE(Of(product + line).valid()) << line;
    }
}

TEST_F(SystemInfo, LongLinesComeInPiecesOf1023Characters) {
    const std::string rest = "PRODUCT_NAME=\"Sylvex\"\nPRODUCT_VERSION=\"6.1\"\n";
    EXPECT_EQ(Of(std::string(1023, 'x') + rest).type(), 9);
    // One character sooner: the piece before takes the first letter of the key.
    EXPECT_FALSE(Of(std::string(1022, 'x') + rest).valid());
}

TEST_F(SystemInfo, ValueThatFillsALine) {
    EXPECT_FALSE(Of("PRODUCT_NAME=\"" + std::string(5000, 'x') + "\"\n").valid());
}

class CurrentIdentity : public DeviceTest {};

TEST_F(CurrentIdentity, SystemInfoComesFirst) {
    WriteImageID("DXST0019\n");
    SetProduct("Sylvex", "standard", "6.1");
    EXPECT_EQ(ImageID::current().type(), 9);
}

TEST_F(CurrentIdentity, FallsBackToTheImageIdentifier) {
    WriteImageID("DXST0019\n");
    EXPECT_EQ(ImageID::current().type(), 1) << "systeminfo missing";
    SetProduct("Sylvex", "smart", "6.1");
    EXPECT_EQ(ImageID::current().type(), 1) << "another configuration";
    SetProduct("Other", "standard", "6.1");
    EXPECT_EQ(ImageID::current().type(), 1) << "another product";
    SetProduct("Sylvex", "standard", "9.1");
    EXPECT_EQ(ImageID::current().type(), 1) << "another version";
}

TEST_F(CurrentIdentity, WithoutAnyIsRefused) {
    EXPECT_EQ(refusal_of([] { ImageID::current(); }), kInvalid);
    SetProduct("Other", "standard", "6.1");
    EXPECT_EQ(refusal_of([] { ImageID::current(); }), kInvalid);
}

TEST_F(CurrentIdentity, WithSevenCharactersIsRefused) {
    WriteImageID("DXST001");
    EXPECT_EQ(refusal_of([] { ImageID::current(); }), kInvalid);
}

}  // namespace
