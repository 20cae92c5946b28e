#include "connections/conn.h"

#include "common/result_codes.h"
#include "tests/support/conn_fixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const FakeClient::Call kDefaultAsked = {"regsh", "get", "root/ConnectionManager/defaultConnection"};

constexpr const char* kEndOfWalk = "Could not find <NodeDir> - UUID. \n";

std::unique_ptr<NTiXmlElement> element_of(const std::string& text) {
    auto element = std::make_unique<NTiXmlElement>();
    element->Parse(text.c_str());
    return element;
}

std::unique_ptr<NTiXmlElement> new_root() {
    return element_of("<RDP/>");
}

}  // namespace

// query_registry_value

struct ValueCase {
    const char* name;
    const char* command;
    std::string value;
};

class QueryRegistryValue : public testing::TestWithParam<ValueCase> {};

TEST_P(QueryRegistryValue, IsTheSecondWordOfTheFirstLine) {
    std::string value = "before";
    EXPECT_EQ("", stderr_of([&] { EXPECT_TRUE(query_registry_value(GetParam().command, value)); }));
    EXPECT_EQ(GetParam().value, value);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, QueryRegistryValue,
    testing::Values(ValueCase{"KeyAndValue", "printf 'root/key value\\n'", "value"},
                    ValueCase{"WithoutLineEnd", "printf 'root/key value'", "value"},
                    ValueCase{"SingleWord", "printf 'root/key\\n'", ""},
                    ValueCase{"SingleWordAndBlank", "printf 'root/key \\n'", ""},
                    ValueCase{"NothingPrinted", "true", ""},
                    ValueCase{"OnlyBlanks", "printf '  \\t \\n'", ""},
                    ValueCase{"EmptyFirstLine", "printf '\\nroot/key value\\n'", ""},
                    ValueCase{"ValueWithBlanks", "printf 'root/key two words\\n'", "two"},
                    ValueCase{"OtherWhiteSpace", "printf ' \\troot/key\\t\\tvalue\\r\\n'", "value"},
                    ValueCase{"SecondLine", "printf 'root/key\\nvalue other\\n'", ""},
                    ValueCase{"StatusIsNotLookedAt", "printf 'root/key value\\n'; exit 3", "value"},
                    ValueCase{"CommandFails", "exit 1", ""},
                    ValueCase{"LongestValue", "printf 'k %01020d9\\n' 0", std::string(1020, '0')},
                    ValueCase{"KeyFillsTheLine", "printf '%01022d value\\n' 0", ""}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST(QueryRegistryValueUnstartable, IsFalseAndLeavesTheValue) {
    std::string value = "before";
    const LoweredLimit no_files(RLIMIT_NOFILE, 0);
    EXPECT_FALSE(query_registry_value("printf 'root/key value\\n'", value));
    EXPECT_EQ("before", value);
}

// read_xml_file_string

class ReadXmlFileString : public testing::Test {
protected:
    std::string Read(const std::string& name) {
        std::string text = "not read";
        told_ = stderr_of([&] { text = read_xml_file_string(folder_.Path(name).string()); });
        return text;
    }
    std::string ReadContent(const std::string& content) {
        put_file(folder_.Path("file.xml"), content);
        return Read("file.xml");
    }

    OwnFolder folder_;
    std::string told_;
};

TEST_F(ReadXmlFileString, RootElementIsPrintedBack) {
    EXPECT_EQ("<a x=\"1 2\">\n  <b>c &amp; d</b>\n</a>\n",
              ReadContent("<a  x=' 1  2 '><b> c &amp;\n d </b></a>"));
    EXPECT_EQ("", told_);
}

TEST_F(ReadXmlFileString, WhatStandsAroundTheRootElementIsDropped) {
    EXPECT_EQ(
        "<a/>\n",
        ReadContent("<?xml version=\"1.0\"?>\n<!DOCTYPE a><!-- c -->\n<a></a><b/><!-- d -->"));
    EXPECT_EQ("", told_);
}

TEST_F(ReadXmlFileString, MissingFileIsTold) {
    EXPECT_EQ("", Read("missing.xml"));
    EXPECT_EQ("read file " + folder_.Path("missing.xml").string() + " fail\n", told_);
}

TEST_F(ReadXmlFileString, MalformedFileIsTold) {
    EXPECT_EQ("", ReadContent("<a><b></a>"));
    EXPECT_EQ("Parse xml failed.\n", told_);
}

TEST_F(ReadXmlFileString, EmptyFileDoesNotParse) {
    EXPECT_EQ("", ReadContent(""));
    EXPECT_EQ("Parse xml failed.\n", told_);
}

TEST_F(ReadXmlFileString, FolderReadsAsEmpty) {
    EXPECT_EQ("", Read("."));
    EXPECT_EQ("Parse xml failed.\n", told_);
}

TEST_F(ReadXmlFileString, DocumentWithoutRootElementIsEmptyWithoutAMessage) {
    EXPECT_EQ("", ReadContent("<?xml version=\"1.0\"?>\n<!-- nothing -->\n"));
    EXPECT_EQ("", told_);
    EXPECT_EQ("", ReadContent(" \n"));
    EXPECT_EQ("", told_);
}

// get_ele_conns

struct ConnsCase {
    const char* name;
    std::string document;
    const char* found;  // attribute "mark" of what is found, null: nothing
    const char* told;
};

class GetEleConns : public testing::TestWithParam<ConnsCase> {};

TEST_P(GetEleConns, WalksDownToTheDirectoryOfConnections) {
    const auto root = element_of(GetParam().document);
    const NTiXmlElement* conns = nullptr;
    EXPECT_EQ(GetParam().told, stderr_of([&] { conns = get_ele_conns(root.get()); }));
    if (GetParam().found == nullptr) {
        EXPECT_EQ(nullptr, conns);
        return;
    }
    ASSERT_NE(nullptr, conns);
    ASSERT_NE(nullptr, conns->AttributeValue("mark"));
    EXPECT_EQ(GetParam().found, *conns->AttributeValue("mark"));
}

constexpr const char* kNoRegistry = "Could not find <ProfileRegistry>. \n";
constexpr const char* kNoType = "Could not find <NodeDir> - type. \n";
constexpr const char* kNoConns = "Could not find <NodeDir> - connections. \n";

INSTANTIATE_TEST_SUITE_P(
    Documents, GetEleConns,
    testing::Values(
        ConnsCase{"OnlyDirectory", export_around("<NodeDir name=\"connections\" mark=\"1\"/>"), "1",
                  ""},
        ConnsCase{"BehindOtherDirectoriesAndNodes",
                  export_around("<!-- c --><NodeKey name=\"connections\" mark=\"0\"/>"
                                "<NodeDir name=\"general\"/>"
                                "<NodeDir mark=\"1\" name=\"connections\"/>"),
                  "1", ""},
        ConnsCase{"FirstOfTwo",
                  export_around("<NodeDir name=\"connections\" mark=\"1\"/>"
                                "<NodeDir name=\"connections\" mark=\"2\"/>"),
                  "1", ""},
        ConnsCase{"WithoutNameEndsTheWalk",
                  export_around("<NodeDir name=\"general\"/><NodeDir mark=\"1\"/>"
                                "<NodeDir name=\"connections\" mark=\"2\"/>"),
                  "1", ""},
        ConnsCase{"EmptyNameDoesNotEndTheWalk",
                  export_around("<NodeDir name=\"\" mark=\"1\"/>"
                                "<NodeDir name=\"connections\" mark=\"2\"/>"),
                  "2", ""},
        ConnsCase{"AnyRootAndTypeName",
                  "<ProfileRegistry><Other/><ProfileRegistry><NodeDir>"
                  "<NodeDir name=\"connections\" mark=\"1\"/></NodeDir></ProfileRegistry>"
                  "</ProfileRegistry>",
                  "1", ""},
        ConnsCase{"EmptyRoot", "<Profile/>", nullptr, kNoRegistry},
        ConnsCase{"RegistryInOtherCase", "<Profile><profileregistry/></Profile>", nullptr,
                  kNoRegistry},
        ConnsCase{"RegistryFurtherDown", "<Profile><a><ProfileRegistry/></a></Profile>", nullptr,
                  kNoRegistry},
        ConnsCase{"EmptyRegistry", "<Profile><ProfileRegistry/></Profile>", nullptr, kNoType},
        ConnsCase{"OnlyFirstRegistry",
                  "<Profile><ProfileRegistry/><ProfileRegistry><NodeDir>"
                  "<NodeDir name=\"connections\"/></NodeDir></ProfileRegistry></Profile>",
                  nullptr, kNoType},
        ConnsCase{"EmptyType", export_around(""), nullptr, kNoConns},
        ConnsCase{"OnlyFirstType",
                  "<Profile><ProfileRegistry><NodeDir/><NodeDir>"
                  "<NodeDir name=\"connections\"/></NodeDir></ProfileRegistry></Profile>",
                  nullptr, kNoConns},
        ConnsCase{"NoneOfThatName",
                  export_around("<NodeDir name=\"Connections\"/><NodeDir name=\"connections2\"/>"),
                  nullptr, kNoConns}),
    [](const auto& instance) { return std::string(instance.param.name); });

// get_conn_label

struct LabelCase {
    const char* name;
    std::string keys;
    const char* label;
    const char* told;
};

class GetConnLabel : public testing::TestWithParam<LabelCase> {};

TEST_P(GetConnLabel, IsTheFirstLabelWithAValue) {
    const auto dir = element_of(dir_of("uuid-1", GetParam().keys));
    std::string label;
    EXPECT_EQ(GetParam().told, stderr_of([&] { label = get_conn_label("rdp", dir.get()); }));
    EXPECT_EQ(GetParam().label, label);
}

constexpr const char* kNoParam = "Could not find NodeParam. \n";

INSTANTIATE_TEST_SUITE_P(
    Directories, GetConnLabel,
    testing::Values(
        LabelCase{"OnlyKey", key_of("label", "Office"), "Office", ""},
        LabelCase{"BehindOtherKeys",
                  key_of("address", "10.0.0.1") + key_of("Label", "no") + key_of("", "no") +
                      "<NodeKey><NodeParam>no</NodeParam></NodeKey>" + key_of("label", "Office"),
                  "Office", ""},
        LabelCase{"FirstOfTwo", key_of("label", "Office") + key_of("label", "Home"), "Office", ""},
        LabelCase{"FirstParamOfTwo",
                  "<NodeKey name=\"label\"><Other>no</Other><NodeParam>Office</NodeParam>"
                  "<NodeParam>Home</NodeParam></NodeKey>",
                  "Office", ""},
        LabelCase{"EmptyValue", "<NodeKey name=\"label\"><NodeParam/></NodeKey>", "", ""},
        LabelCase{"SearchGoesOnBehindALabelWithoutValue",
                  "<NodeKey name=\"label\"/>" + key_of("label", "Office"), "Office", kNoParam},
        LabelCase{"OnlyLabelWithoutValue", "<NodeKey name=\"label\">x</NodeKey>", "New rdp",
                  kNoParam},
        LabelCase{"TwoLabelsWithoutValue", "<NodeKey name=\"label\"/><NodeKey name=\"label\"/>",
                  "New rdp", "Could not find NodeParam. \nCould not find NodeParam. \n"},
        LabelCase{"NoLabel", key_of("address", "10.0.0.1"), "New rdp", ""},
        LabelCase{"NoKeys", "", "New rdp", ""},
        LabelCase{"LabelOfASubDirectory", dir_of("sub", key_of("label", "no")), "New rdp", ""}),
    [](const auto& instance) { return std::string(instance.param.name); });

// add_conn

class AddConn : public ConnTest {
protected:
    // Adds the connections of `export_` to `root_`.
    bool Add(const std::string& document) {
        export_ = element_of(document);
        bool added = false;
        told_ = stderr_of([&] { added = add_conn("rdesktop", root_.get(), export_.get()); });
        return added;
    }
    std::string RootText() const { return ToString(*root_); }
    std::string ExportText() const { return ToString(*export_); }

    std::unique_ptr<NTiXmlElement> root_ = new_root();
    std::unique_ptr<NTiXmlElement> export_;
    std::string told_;
};

const std::string kThree =
    export_of(dir_of("uuid-1", key_of("label", "One")) + dir_of("uuid-2", key_of("label", "Two")) +
              dir_of("uuid-3", key_of("label", "Three")));

constexpr const char* kThreePlain =
    "<RDP>\n"
    "  <Connection Name=\"One\" Enabled=\"yes\"/>\n"
    "  <Connection Name=\"Two\" Enabled=\"yes\"/>\n"
    "  <Connection Name=\"Three\" Enabled=\"yes\"/>\n"
    "</RDP>\n";

constexpr const char* kThreeSecondDefault =
    "<RDP>\n"
    "  <Connection Name=\"One\" Enabled=\"yes\"/>\n"
    "  <Connection Name=\"Two\" Enabled=\"yes\" Default=\"yes\"/>\n"
    "  <Connection Name=\"Three\" Enabled=\"yes\"/>\n"
    "</RDP>\n";

TEST_F(AddConn, EachDirectoryGetsAConnectionInOrder) {
    EXPECT_TRUE(Add(kThree));
    EXPECT_EQ(kThreePlain, RootText());
    EXPECT_EQ(kEndOfWalk, told_);
    EXPECT_THAT(Client().Calls(), IsEmpty());
    EXPECT_EQ(ToString(*element_of(kThree)), ExportText());
}

TEST_F(AddConn, AppendsBehindWhatTheRootHolds) {
    root_ = element_of("<RDP><Connection Name=\"Zero\"/></RDP>");
    EXPECT_TRUE(Add(export_of(dir_of("uuid-1", key_of("label", "One")))));
    EXPECT_EQ(
        "<RDP>\n"
        "  <Connection Name=\"Zero\"/>\n"
        "  <Connection Name=\"One\" Enabled=\"yes\"/>\n"
        "</RDP>\n",
        RootText());
}

TEST_F(AddConn, OnlyDirectoriesAreConnections) {
    EXPECT_TRUE(Add(export_of("<NodeKey name=\"uuid-0\"/><!-- c -->" +
                              dir_of("uuid-1", key_of("label", "One")))));
    EXPECT_EQ("<RDP>\n  <Connection Name=\"One\" Enabled=\"yes\"/>\n</RDP>\n", RootText());
}

TEST_F(AddConn, ConnectionWithoutLabelIsNamedAfterTheType) {
    EXPECT_TRUE(Add(export_of(dir_of("uuid-1", ""))));
    EXPECT_EQ("<RDP>\n  <Connection Name=\"New rdesktop\" Enabled=\"yes\"/>\n</RDP>\n", RootText());
}

TEST_F(AddConn, LabelsAreEscapedInTheFile) {
    EXPECT_TRUE(Add(export_of(dir_of("uuid-1", key_of("label", "R&amp;D &lt;&quot;1&quot;&gt;")))));
    EXPECT_EQ(
        "<RDP>\n  <Connection Name=\"R&amp;D &lt;&quot;1&quot;&gt;\" Enabled=\"yes\"/>\n</RDP>\n",
        RootText());
}

TEST_F(AddConn, MessagesComeInTheOrderOfTheWalk) {
    EXPECT_TRUE(Add(export_of(dir_of("uuid-1", "<NodeKey name=\"label\"/>"))));
    EXPECT_EQ("Could not find NodeParam. \nCould not find <NodeDir> - UUID. \n", told_);
}

TEST_F(AddConn, NoConnectionsAddNothing) {
    EXPECT_FALSE(Add(export_of("")));
    EXPECT_EQ("<RDP/>\n", RootText());
    EXPECT_EQ(kEndOfWalk, told_);
}

TEST_F(AddConn, WithoutDirectoryOfConnectionsNothingIsAsked) {
    SetSystemInfo("zero", "6.1");
    EXPECT_FALSE(Add(export_around("")));
    EXPECT_EQ("<RDP/>\n", RootText());
    EXPECT_EQ(kNoConns, told_);
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(AddConn, ZeroClientMarksItsDefaultConnection) {
    for (const char* configuration : {"zero", "Zero"}) {
        for (const char* version : {"5.1", "6.1", "7.1"}) {
            SCOPED_TRACE(std::string(configuration) + " " + version);
            SetSystemInfo(configuration, version);
            Client().Print("get", "root/ConnectionManager/defaultConnection uuid-2\n");
            Client().Forget();
            run_options.default_connection = "uuid-1";
            root_ = new_root();
            EXPECT_TRUE(Add(kThree));
            EXPECT_EQ(kThreeSecondDefault, RootText());
            EXPECT_EQ(kEndOfWalk, told_);
            EXPECT_EQ("uuid-2", run_options.default_connection);
            EXPECT_THAT(Client().Calls(), ElementsAre(kDefaultAsked));
        }
    }
}

TEST_F(AddConn, OnlyTheTwoSpellingsMakeAZeroClient) {
    SetSystemInfo("ZERO", "6.1");
    run_options.default_connection = "uuid-2";
    EXPECT_TRUE(Add(kThree));
    EXPECT_EQ(kThreePlain, RootText());
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(AddConn, ZeroClientWithUnknownDefaultMarksNone) {
    SetSystemInfo("zero", "6.1");
    Client().Print("get", "root/ConnectionManager/defaultConnection uuid-9\n");
    EXPECT_TRUE(Add(kThree));
    EXPECT_EQ(kThreePlain, RootText());
}

TEST_F(AddConn, EmptyDefaultMarksADirectoryOfEmptyNameButNoneWithoutName) {
    SetSystemInfo("zero", "6.1");
    EXPECT_TRUE(Add(export_of("<NodeDir/>" + dir_of("", ""))));
    EXPECT_EQ(
        "<RDP>\n"
        "  <Connection Name=\"New rdesktop\" Enabled=\"yes\"/>\n"
        "  <Connection Name=\"New rdesktop\" Enabled=\"yes\" Default=\"yes\"/>\n"
        "</RDP>\n",
        RootText());
}

TEST_F(AddConn, ZeroConfigurationOfTheNewerLayoutMarksNone) {
    SetSystemInfo("zero", "4.1");  // image type 6
    run_options.default_connection = "uuid-2";
    EXPECT_TRUE(Add(kThree));
    EXPECT_EQ("<RDP>\n  <Connection Name=\"Two\" Enabled=\"yes\"/>\n</RDP>\n", RootText());
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(AddConn, OtherImageTypesNeverPrune) {
    for (const unsigned type : {1U, 2U, 3U, 4U, 5U, 7U, 8U, 9U, 10U}) {
        SCOPED_TRACE(type);
        SetImageType(type);
        run_options.default_connection = "uuid-2";
        root_ = new_root();
        EXPECT_TRUE(Add(kThree));
        EXPECT_EQ(kThreePlain, RootText());
        EXPECT_EQ(ToString(*element_of(kThree)), ExportText());
    }
}

struct PruneCase {
    const char* name;
    const char* default_connection;
    std::vector<std::string> kept;
};

class PruneConn : public AddConn, public testing::WithParamInterface<PruneCase> {};

TEST_P(PruneConn, OnlyTheDefaultConnectionStays) {
    SetImageType(6);
    run_options.default_connection = GetParam().default_connection;
    std::string dirs;
    for (const char* name : {"uuid-1", "", "uuid-2", "uuid-22", "uuid-2"}) {
        dirs += dir_of(name, key_of("label", std::string("is ") + name));
    }
    std::string kept;
    std::string connections;
    for (const std::string& name : GetParam().kept) {
        kept += dir_of(name, key_of("label", "is " + name));
        connections +=
            "  <Connection Name=\"is" + (name.empty() ? "" : " " + name) + "\" Enabled=\"yes\"/>\n";
    }
    EXPECT_EQ(!kept.empty(), Add(export_of("<NodeKey name=\"k\"/>" + dirs)));
    EXPECT_EQ(connections.empty() ? "<RDP/>\n" : "<RDP>\n" + connections + "</RDP>\n", RootText());
    EXPECT_EQ(ToString(*element_of(export_of("<NodeKey name=\"k\"/>" + kept))), ExportText());
    EXPECT_EQ(kEndOfWalk, told_);
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Defaults, PruneConn,
    testing::Values(PruneCase{"Identifier", "uuid-2", {"uuid-2", "uuid-2"}},
                    PruneCase{"UnknownIdentifier", "uuid-3", {}}, PruneCase{"Empty", "", {""}},
                    PruneCase{"TheWordInAnotherCase", "default", {}},
                    PruneCase{"TheWord", "Default", {"uuid-1", "", "uuid-2", "uuid-22", "uuid-2"}},
                    PruneCase{"TheWordInside",
                              "rdesktop-Default2",
                              {"uuid-1", "", "uuid-2", "uuid-22", "uuid-2"}}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(AddConn, DirectoryWithoutNameDiffersFromEveryDefault) {
    SetImageType(6);
    EXPECT_FALSE(Add(export_of("<NodeDir>" + key_of("label", "One") + "</NodeDir>")));
    EXPECT_EQ("<RDP/>\n", RootText());
    EXPECT_EQ(ToString(*element_of(export_of(""))), ExportText());
}

TEST_F(AddConn, DirectoryWithoutNameStaysWhereTheDefaultNamesNoConnection) {
    SetImageType(6);
    run_options.default_connection = "Default";
    EXPECT_TRUE(Add(export_of("<NodeDir>" + key_of("label", "One") + "</NodeDir>")));
    EXPECT_EQ("<RDP>\n  <Connection Name=\"One\" Enabled=\"yes\"/>\n</RDP>\n", RootText());
}

// parse_conn

class ParseConn : public ConnTest {
protected:
    int Parse(const std::string& text) {
        int result = -1;
        told_ = stderr_of([&] { result = parse_conn("rdesktop", root_.get(), text); });
        return result;
    }
    std::string RootText() const { return ToString(*root_); }

    std::unique_ptr<NTiXmlElement> root_ = new_root();
    std::string told_;
};

TEST_F(ParseConn, ConnectionsAndTheWholeExportAreAdded) {
    EXPECT_EQ(kSuccess, Parse("<?xml version=\"1.0\"?>\n"
                              "<Profile version=\"2\">\n"
                              "  <ProfileSettings><Target><Config>standard</Config></Target>"
                              "</ProfileSettings>\n"
                              "  <ProfileRegistry>\n"
                              "    <NodeDir name=\"rdesktop\" kind=\"type\">\n"
                              "      <NodeDir name=\"connections\">\n"
                              "        <NodeDir name=\"{1}\">\n"
                              "          <NodeKey name=\"label\" id=\"7\">\n"
                              "            <NodeParam name=\"value\" type=\"string\">R&amp;D"
                              "</NodeParam>\n"
                              "          </NodeKey>\n"
                              "          <NodeDir name=\"sub\"/>\n"
                              "        </NodeDir>\n"
                              "      </NodeDir>\n"
                              "    </NodeDir>\n"
                              "  </ProfileRegistry>\n"
                              "</Profile>\n"));
    EXPECT_EQ(
        "<RDP>\n"
        "  <Connection Name=\"R&amp;D\" Enabled=\"yes\"/>\n"
        "  <General>&lt;Profile version=&quot;2&quot;&gt;\n"
        "  &lt;ProfileSettings&gt;\n"
        "    &lt;Target&gt;\n"
        "      &lt;Config&gt;standard&lt;/Config&gt;\n"
        "    &lt;/Target&gt;\n"
        "  &lt;/ProfileSettings&gt;\n"
        "  &lt;ProfileRegistry&gt;\n"
        "    &lt;NodeDir name=&quot;rdesktop&quot; kind=&quot;type&quot;&gt;\n"
        "      &lt;NodeDir name=&quot;connections&quot;&gt;\n"
        "        &lt;NodeDir name=&quot;{1}&quot;&gt;\n"
        "          &lt;NodeKey name=&quot;label&quot; id=&quot;7&quot;&gt;\n"
        "            &lt;NodeParam name=&quot;value&quot; type=&quot;string&quot;&gt;R&amp;amp;D"
        "&lt;/NodeParam&gt;\n"
        "          &lt;/NodeKey&gt;\n"
        "          &lt;NodeDir name=&quot;sub&quot;/&gt;\n"
        "        &lt;/NodeDir&gt;\n"
        "      &lt;/NodeDir&gt;\n"
        "    &lt;/NodeDir&gt;\n"
        "  &lt;/ProfileRegistry&gt;\n"
        "&lt;/Profile&gt;\n"
        "</General>\n"
        "</RDP>\n",
        RootText());
    EXPECT_EQ(kEndOfWalk, told_);
}

TEST_F(ParseConn, GeneralStandsBehindAllConnections) {
    EXPECT_EQ(kSuccess, Parse(kThree));
    EXPECT_EQ(std::string("<RDP>\n"
                          "  <Connection Name=\"One\" Enabled=\"yes\"/>\n"
                          "  <Connection Name=\"Two\" Enabled=\"yes\"/>\n"
                          "  <Connection Name=\"Three\" Enabled=\"yes\"/>\n") +
                  general_of(kThree) + "</RDP>\n",
              RootText());
}

TEST_F(ParseConn, WhatStandsAheadOfTheDocumentIsDropped) {
    EXPECT_EQ(kSuccess, Parse("exported by regsh > 1\n\n" + kThree));
    const std::string with_banner = RootText();
    root_ = new_root();
    EXPECT_EQ(kSuccess, Parse(kThree));
    EXPECT_EQ(RootText(), with_banner);
}

TEST_F(ParseConn, TextWithoutMarkupIsOutOfRangeAndNamesTheExportFile) {
    for (const char* text : {"", "no markup > here\n"}) {
        std::string told;
        EXPECT_EQ("", stderr_of([&] {
                      try {
                          parse_conn("rdesktop", root_.get(), text);
                      } catch (const std::out_of_range& error) {
                          told = error.what();
                      }
                  }));
        EXPECT_EQ("the registry export /tmp/rdesktop.xml holds no \"<\"", told);
        EXPECT_EQ("<RDP/>\n", RootText());
    }
}

TEST_F(ParseConn, MalformedDocumentIsRefused) {
    constexpr const char* refused = "Failed to parse the exported registry information.\n";
    for (const char* text : {"<", "<Profile>", "<Profile></Other>", "<Profile>x<a/></Profile>",
                             "<Profile a=1/>", "<Profile/>rest", "<!-- open"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(kDocumentUnusable, Parse(text));
        EXPECT_EQ(refused, told_);
        EXPECT_EQ("<RDP/>\n", RootText());
    }
}

TEST_F(ParseConn, DocumentWithoutRootElementAddsNothing) {
    for (const char* text :
         {"<?xml version=\"1.0\"?>\n", "<!-- c -->", "<!DOCTYPE a>", "<?xml version=\"1.0\" ?"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(kSuccess, Parse(text));
        EXPECT_EQ("", told_);
        EXPECT_EQ("<RDP/>\n", RootText());
    }
}

TEST_F(ParseConn, WithoutConnectionsThereIsNoGeneral) {
    EXPECT_EQ(kSuccess, Parse(export_of("")));
    EXPECT_EQ("<RDP/>\n", RootText());
    EXPECT_EQ(kEndOfWalk, told_);
    EXPECT_EQ(kSuccess, Parse("<Profile/>"));
    EXPECT_EQ("<RDP/>\n", RootText());
    EXPECT_EQ(kNoRegistry, told_);
}

TEST_F(ParseConn, GeneralHoldsTheExportAsItWasPruned) {
    SetImageType(6);
    run_options.default_connection = "uuid-2";
    EXPECT_EQ(kSuccess, Parse(kThree));
    const std::string pruned = export_of(dir_of("uuid-2", key_of("label", "Two")));
    EXPECT_EQ(
        "<RDP>\n  <Connection Name=\"Two\" Enabled=\"yes\"/>\n" + general_of(pruned) + "</RDP>\n",
        RootText());
}

TEST_F(ParseConn, EmptyDefaultOfTheNewerLayoutLeavesNothing) {
    SetImageType(6);
    EXPECT_EQ(kSuccess, Parse(kThree));
    EXPECT_EQ("<RDP/>\n", RootText());
    EXPECT_EQ(kEndOfWalk, told_);
}

TEST_F(ParseConn, OtherTypesHaveNoSessionFiles) {
    const std::string document =
        export_of(dir_of("uuid-1", key_of("label", "One") + key_of("kssName", "one.kss")));
    PutSession("one.kss", "<session/>");
    for (const char* type : {"rdesktop", "Tavrin", "tavrin2", ""}) {
        SCOPED_TRACE(type);
        root_ = new_root();
        EXPECT_EQ(kEndOfWalk,
                  stderr_of([&] { EXPECT_EQ(kSuccess, parse_conn(type, root_.get(), document)); }));
        EXPECT_EQ("<RDP>\n  <Connection Name=\"One\" Enabled=\"yes\"/>\n" + general_of(document) +
                      "</RDP>\n",
                  RootText());
    }
}

// Arguments that must not be null

class ConnAssertion : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    NTiXmlElement element_;
};

TEST_F(ConnAssertion, EleOfGetEleConns) {
    EXPECT_DEATH(get_ele_conns(nullptr),
                 MatchesRegex("corvik: conn:[0-9]+: NTiXmlElement\\* get_ele_conns"
                              "\\(const NTiXmlElement\\*\\): Assertion `pEle' failed\\.\n"));
}

TEST_F(ConnAssertion, DirectoryOfGetConnLabel) {
    EXPECT_DEATH(get_conn_label("rdp", nullptr),
                 MatchesRegex("corvik: conn:[0-9]+: const std::string get_conn_label"
                              "\\(const std::string&, const NTiXmlElement\\*\\): "
                              "Assertion `pND_UUID' failed\\.\n"));
}

TEST_F(ConnAssertion, RootOfAddConn) {
    EXPECT_DEATH(add_conn("rdp", nullptr, &element_),
                 MatchesRegex("corvik: conn:[0-9]+: bool add_conn"
                              "\\(const std::string&, NTiXmlElement\\*, const NTiXmlElement\\*\\): "
                              "Assertion `pRoot' failed\\.\n"));
}

TEST_F(ConnAssertion, EleOfAddConn) {
    EXPECT_DEATH(add_conn("rdp", &element_, nullptr),
                 MatchesRegex("corvik: conn:[0-9]+: bool add_conn"
                              "\\(const std::string&, NTiXmlElement\\*, const NTiXmlElement\\*\\): "
                              "Assertion `pEle' failed\\.\n"));
}

TEST_F(ConnAssertion, RootOfParseConn) {
    EXPECT_DEATH(parse_conn("rdp", nullptr, "<Profile/>"),
                 MatchesRegex("corvik: conn:[0-9]+: int parse_conn"
                              "\\(const std::string&, NTiXmlElement\\*, const std::string&\\): "
                              "Assertion `pRoot' failed\\.\n"));
}

TEST_F(ConnAssertion, RootOfCloneConn) {
    EXPECT_DEATH(clone_conn(nullptr, "rdp"),
                 MatchesRegex("corvik: conn:[0-9]+: int clone_conn"
                              "\\(NTiXmlElement\\*, const std::string&\\): "
                              "Assertion `pRoot' failed\\.\n"));
}

TEST_F(ConnAssertion, RootOfCloneConnPython) {
    EXPECT_DEATH(clone_conn_python(nullptr, "rdp"),
                 MatchesRegex("corvik: conn:[0-9]+: int clone_conn_python"
                              "\\(NTiXmlElement\\*, const std::string&\\): "
                              "Assertion `pRoot' failed\\.\n"));
}
