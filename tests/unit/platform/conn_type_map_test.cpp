#include "platform/conn_type_map.h"

#include "platform/image_id.h"
#include "tests/support/device_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <iostream>

namespace {

using testing::ExitedWithCode;
using testing::IsEmpty;

using Pairs = std::list<std::pair<std::string, std::string>>;

constexpr const char* kFourQueries =
    "contains root/ConnectionType/freerdp\n"
    "contains root/ConnectionType/xen\n"
    "contains root/ConnectionType/iceweasel\n"
    "contains root/ConnectionType/freerdp\n";

// (display name, registry name), in the order of the table.
struct Row {
    const char* display;
    const char* registry;
};

const std::vector<Row> kOldest = {
    {"Custom", "custom"},       {"ICA", "ica"},         {"Firefox", "firefox"},
    {"Leostream", "leostream"}, {"PNAgent", "pnagent"}, {"Provision", "provision"},
    {"RDP", "rdesktop"},        {"SSH", "ssh"},         {"Tavrin", "tavrin"},
    {"Telnet", "telnet"},       {"VDM", "vdm"},         {"Xdmcp", "xdmcp"}};
const std::vector<Row> kOlder = {{"Custom", "custom"},     {"ICA", "ica"},
                                 {"Firefox", "iceweasel"}, {"Leostream", "leostream"},
                                 {"PNAgent", "pnagent"},   {"Provision", "provision"},
                                 {"RDP", "rdesktop"},      {"RGS", "rgs"},
                                 {"BNJ", "bnj-client"},    {"SSH", "ssh"},
                                 {"Tavrin", "tavrin"},     {"Telnet", "telnet"},
                                 {"VDM", "vdm"},           {"Xdmcp", "xdmcp"}};
const std::vector<Row> kMiddle = {{"Custom", "custom"},
                                  {"ICA", "ica"},
                                  {"Firefox", "iceweasel"},
                                  {"Leostream", "leostream"},
                                  {"PNAgent", "pnagent"},
                                  {"RDP", "rdesktop"},
                                  {"RGS", "rgs"},
                                  {"BNJ", "bnj-client"},
                                  {"SSH", "ssh"},
                                  {"Tavrin", "tavrin"},
                                  {"Telnet", "telnet"},
                                  {"VDM", "view"},
                                  {"VWorkspace", "vworkspace"},
                                  {"Xdmcp", "xdmcp"}};
const std::vector<Row> kNewerLayoutNone = {{"VDM", "view"}, {"RDP", "rdesktop"}, {"ICA", "xen"}};
const std::vector<Row> kNewerLayoutAll = {{"VDM", "view"}, {"RDP", "freerdp"}, {"ICA", "xen"}};
const std::vector<Row> kSevenNone = {{"Custom", "custom"},
                                     {"ICA", "ica"},
                                     {"Firefox", "firefox"},
                                     {"Leostream", "leostream"},
                                     {"PNAgent", "pnagent"},
                                     {"RDP", "rdesktop"},
                                     {"RGS", "rgs"},
                                     {"BNJ", "bnj-client"},
                                     {"SSH", "ssh"},
                                     {"Tavrin", "tavrin"},
                                     {"Telnet", "telnet"},
                                     {"VDM", "view"},
                                     {"VWorkspace", "vworkspace"},
                                     {"Xdmcp", "xdmcp"}};
const std::vector<Row> kSevenAll = {{"Custom", "custom"},
                                    {"ICA", "xen"},
                                    {"Firefox", "iceweasel"},
                                    {"Leostream", "leostream"},
                                    {"PNAgent", "pnagent"},
                                    {"RDP", "freerdp"},
                                    {"RGS", "rgs"},
                                    {"BNJ", "bnj-client"},
                                    {"SSH", "ssh"},
                                    {"Tavrin", "tavrin"},
                                    {"Telnet", "telnet"},
                                    {"VDM", "view"},
                                    {"VWorkspace", "vworkspace"},
                                    {"Xdmcp", "xdmcp"}};
const std::vector<Row> kNewest = {{"Custom", "custom"}, {"ICA", "xen"},  {"Firefox", "firefox"},
                                  {"RDP", "freerdp"},   {"SSH", "ssh"},  {"Tavrin", "tavrin"},
                                  {"Telnet", "telnet"}, {"VDM", "view"}, {"Xdmcp", "xdmcp"}};

Pairs pairs_of(const std::vector<Row>& rows) {
    Pairs pairs;
    for (const Row& row : rows) {
        pairs.emplace_back(row.registry, row.display);
    }
    return pairs;
}

// What a table looks like on a device with all the clients in question, or with none.
struct Expected {
    unsigned image_type;
    const std::vector<Row>* none;
    const std::vector<Row>* all;
};

const std::vector<Row> kUnserved;
const std::vector<Expected> kExpected = {
    {0, &kUnserved, &kUnserved},
    {1, &kOldest, &kOldest},
    {2, &kUnserved, &kUnserved},
    {3, &kOlder, &kOlder},
    {4, &kOlder, &kOlder},
    {5, &kMiddle, &kMiddle},
    {6, &kNewerLayoutNone, &kNewerLayoutAll},
    {7, &kSevenNone, &kSevenAll},
    {8, &kNewest, &kNewest},
    {9, &kNewest, &kNewest},
    {10, &kNewest, &kNewest},
    {11, &kUnserved, &kUnserved},
    {0xFFFFFFFFU, &kUnserved, &kUnserved},
};

// A registry client that notes what it is asked and knows the connection types that are told to it.
class ConnTypeMapTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        Programs().PutProgram("regsh",
                              "echo \"$*\" >>\"$here/asked\"\n"
                              "[ \"$1\" = contains ] && [ -e \"$here/has.${2##*/}\" ]\n");
        SetImageType(9);
    }

    void Install(std::initializer_list<const char*> clients) const {
        for (const char* client : clients) {
            Programs().Put("has." + std::string(client), "");
        }
    }
    std::string Asked() const { return file_content(Programs().Path("asked")); }

    static ConnTypeMap Built() {
        ConnTypeMap map;
        build_conn_type_map(map);
        return map;
    }

    // The body of a test that needs a process of its own, since the table is built once in each.
    // Ends the process with 0 when no expectation failed.
    template <typename Body>
    [[noreturn]] static void RunAlone(Body body) {
        body();
        if (HasFailure()) {
            std::cerr << "expectations failed\n";
        }
        std::exit(HasFailure() ? 1 : 0);
    }
};

using ConnTypeMapDeathTest = ConnTypeMapTest;

TEST_F(ConnTypeMapTest, SlotsAndBounds) {
    const ConnTypeMap map = Built();
    struct Bounds {
        std::uint32_t lowest;
        std::uint32_t highest;
        std::size_t pairs;
    };
    const std::vector<Bounds> bounds = {{1, 1, 12}, {3, 4, 14}, {5, 5, 14}, {6, 6, 3},
                                        {7, 7, 14}, {8, 8, 9},  {9, 10, 9}};
    ASSERT_EQ(map.size(), 11U);
    for (std::size_t index = 0; index < bounds.size(); ++index) {
        EXPECT_EQ(map.at(index).lowest_type, bounds[index].lowest) << index;
        EXPECT_EQ(map.at(index).highest_type, bounds[index].highest) << index;
        EXPECT_EQ(map.at(index).pairs.size(), bounds[index].pairs) << index;
    }
    for (std::size_t index = bounds.size(); index < map.size(); ++index) {
        EXPECT_THAT(map.at(index).pairs, IsEmpty()) << index;
    }
}

TEST_F(ConnTypeMapTest, FourQueriesWhateverTheImageType) {
    std::string asked;
    for (unsigned type = 1; type <= 10; ++type) {
        SetImageType(type);
        Built();
        asked += kFourQueries;
        EXPECT_EQ(Asked(), asked) << type;
    }
}

TEST_F(ConnTypeMapTest, EachChoiceFollowsItsOwnQuery) {
    struct Choice {
        const char* client;
        const std::vector<Row>* seven;
        const std::vector<Row>* six;
    };
    std::vector<Row> xen = kSevenNone;
    xen[1].registry = "xen";
    std::vector<Row> iceweasel = kSevenNone;
    iceweasel[2].registry = "iceweasel";
    std::vector<Row> freerdp = kSevenNone;
    freerdp[5].registry = "freerdp";
    for (const Choice& choice : {Choice{"xen", &xen, &kNewerLayoutNone},
                                 Choice{"iceweasel", &iceweasel, &kNewerLayoutNone},
                                 Choice{"freerdp", &freerdp, &kNewerLayoutAll}}) {
        Install({choice.client});
        const ConnTypeMap map = Built();
        EXPECT_EQ(map[3].pairs, pairs_of(*choice.six)) << choice.client;
        EXPECT_EQ(map[4].pairs, pairs_of(*choice.seven)) << choice.client;
        std::filesystem::remove(Programs().Path("has." + std::string(choice.client)));
    }
}

TEST_F(ConnTypeMapTest, MissingRegistryClientMeansNotInstalled) {
    Install({"xen", "iceweasel", "freerdp"});
    std::filesystem::remove(Programs().Path("regsh"));
    Programs().PutProgram("regsh", "exit 127\n");
    EXPECT_EQ(Built()[4].pairs, pairs_of(kSevenNone));
}

TEST_F(ConnTypeMapTest, BuildingAgainReplacesThePairs) {
    ConnTypeMap map = Built();
    map[8].pairs.emplace_back("a", "b");
    Install({"xen", "iceweasel", "freerdp"});
    build_conn_type_map(map);
    EXPECT_EQ(map[0].pairs, pairs_of(kOldest));
    EXPECT_EQ(map[4].pairs, pairs_of(kSevenAll));
    EXPECT_THAT(map[8].pairs, IsEmpty());
}

TEST_F(ConnTypeMapTest, IdentityIsAskedForAfterTheQueries) {
    RemoveIdentity();
    EXPECT_THROW(Built(), ImageIDException);
    EXPECT_EQ(Asked(), kFourQueries);
}

TEST_F(ConnTypeMapDeathTest, PairsOfEachTypeWithoutClients) {
    EXPECT_EXIT(RunAlone([] {
                    for (const Expected& expected : kExpected) {
                        EXPECT_EQ(conn_type_pairs(expected.image_type), pairs_of(*expected.none))
                            << expected.image_type;
                    }
                }),
                ExitedWithCode(0), "");
}

TEST_F(ConnTypeMapDeathTest, PairsOfEachTypeWithAllClients) {
    Install({"xen", "iceweasel", "freerdp"});
    EXPECT_EXIT(RunAlone([] {
                    for (const Expected& expected : kExpected) {
                        EXPECT_EQ(conn_type_pairs(expected.image_type), pairs_of(*expected.all))
                            << expected.image_type;
                    }
                }),
                ExitedWithCode(0), "");
}

void expect_all_names(const std::vector<Row>& rows, unsigned image_type) {
    for (const Row& row : rows) {
        EXPECT_EQ(to_registry_type(row.display), row.registry) << image_type;
        EXPECT_EQ(to_display_type(row.registry), row.display) << image_type;
        EXPECT_EQ(map_conn_type(row.display, true), row.registry) << image_type;
        EXPECT_EQ(map_conn_type(row.registry, false), row.display) << image_type;
    }
}

TEST_F(ConnTypeMapDeathTest, EachNameBothWaysWithoutClients) {
    EXPECT_EXIT(RunAlone([] {
                    for (unsigned type = 1; type <= 10; ++type) {
                        SetImageType(type);
                        expect_all_names(*kExpected[type].none, type);
                    }
                }),
                ExitedWithCode(0), "");
}

TEST_F(ConnTypeMapDeathTest, EachNameBothWaysWithAllClients) {
    Install({"xen", "iceweasel", "freerdp"});
    EXPECT_EXIT(RunAlone([] {
                    for (unsigned type = 1; type <= 10; ++type) {
                        SetImageType(type);
                        expect_all_names(*kExpected[type].all, type);
                    }
                }),
                ExitedWithCode(0), "");
}

TEST_F(ConnTypeMapDeathTest, FirstLookupAsksAndLaterOnesDoNot) {
    EXPECT_EXIT(RunAlone([this] {
                    std::filesystem::remove(Programs().Path("asked"));
                    to_registry_type("RDP");
                    EXPECT_EQ(Asked(), kFourQueries);
                    Install({"xen", "iceweasel", "freerdp"});
                    SetImageType(7);
                    EXPECT_EQ(to_registry_type("ICA"), "ica");
                    EXPECT_EQ(to_display_type("rdesktop"), "RDP");
                    EXPECT_EQ(Asked(), kFourQueries);
                }),
                ExitedWithCode(0), "");
}

TEST_F(ConnTypeMapDeathTest, LookupWithoutIdentityThrowsAndTheNextBuildsAgain) {
    EXPECT_EXIT(RunAlone([this] {
                    RemoveIdentity();
                    EXPECT_THROW(to_registry_type("RDP"), ImageIDException);
                    EXPECT_EQ(Asked(), kFourQueries);
                    EXPECT_THROW(to_display_type("x"), ImageIDException);
                    Install({"freerdp"});
                    SetImageType(6);
                    EXPECT_EQ(to_registry_type("RDP"), "freerdp");
                    EXPECT_EQ(Asked(), std::string(kFourQueries) + kFourQueries + kFourQueries);
                    RemoveIdentity();
                    EXPECT_EQ(to_registry_type("RDP"), "freerdp") << "type 10, built already";
                    EXPECT_EQ(Asked(), std::string(kFourQueries) + kFourQueries + kFourQueries);
                }),
                ExitedWithCode(0), "");
}

TEST_F(ConnTypeMapTest, TypeNineTranslatesRDPToFreerdp) {
    EXPECT_EQ(to_registry_type("RDP"), "freerdp");
    EXPECT_EQ(to_display_type("freerdp"), "RDP");
    EXPECT_EQ(to_registry_type("rdesktop"), "rdesktop");
    EXPECT_EQ(to_display_type("rdesktop"), "rdesktop");
}

TEST_F(ConnTypeMapTest, TypeSixTranslatesThreeNamesOnly) {
    SetImageType(6);
    EXPECT_EQ(to_registry_type("VDM"), "view");
    for (const char* name : {"SSH", "Custom", "Firefox", "Tavrin", "Telnet", "Xdmcp"}) {
        EXPECT_EQ(to_registry_type(name), name);
    }
}

TEST_F(ConnTypeMapTest, TypeTwoTranslatesNothing) {
    SetImageType(2);
    for (const Row& row : kSevenAll) {
        EXPECT_EQ(to_registry_type(row.display), row.display);
        EXPECT_EQ(to_display_type(row.registry), row.registry);
    }
}

TEST_F(ConnTypeMapTest, TypeFourTranslatesTavrinAndBNJ) {
    SetImageType(4);
    EXPECT_EQ(to_registry_type("Tavrin"), "tavrin");
    EXPECT_EQ(to_registry_type("BNJ"), "bnj-client");
}

TEST_F(ConnTypeMapTest, NamesAreCaseSensitive) {
    for (unsigned type = 1; type <= 10; ++type) {
        SetImageType(type);
        EXPECT_EQ(to_registry_type("rdp"), "rdp") << type;
        EXPECT_EQ(to_display_type("RDP"), "RDP") << type;
        EXPECT_EQ(to_display_type("View"), "View") << type;
    }
}

TEST_F(ConnTypeMapTest, UnknownNamesPass) {
    for (const char* name : {"", "Unknown", "RDP ", "RD", "*"}) {
        EXPECT_EQ(to_registry_type(name), name);
        EXPECT_EQ(to_display_type(name), name);
    }
}

}  // namespace
