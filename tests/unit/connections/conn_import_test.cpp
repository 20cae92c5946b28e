#include "connections/conn.h"
#include "tests/support/conn_fixture.h"
#include "tests/unit/connections/scarce_memory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <list>
#include <new>
#include <utility>

// Everything here is local to this file: the tests of the export are part of the same program.
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::MatchesRegex;
using testing::StartsWith;

namespace fs = std::filesystem;

std::string in_quotes(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

// The words of one call of the registry client, without its name.
using Call = std::vector<std::string>;
using Calls = std::vector<Call>;

// A shell script in the registry client's place. It notes each call, answers it when told to, keeps
// a copy of what is imported, and hands out one document for each export.
class ScriptedClient {
public:
    ScriptedClient() : search_path_("PATH", folder_.Path().string() + ":" + std::getenv("PATH")) {
        put_file(Path("export"), "<Profile/>");
        WriteScript();
    }

    // What a call with exactly these words, joined by blanks, prints and ends with.
    void Answer(const std::string& words, const std::string& output, int status = 0) {
        answers_ += in_quotes(words) + ") printf %s " + in_quotes(output) + "; exit " +
                    std::to_string(status) + ";;\n";
        WriteScript();
    }
    void ForgetAnswers() {
        answers_.clear();
        WriteScript();
    }
    // The registry's own state, as every export gives it.
    void Holds(const std::string& document) { put_file(Path("export"), document); }

    Calls Made() const {
        const std::string text = bytes_of(Path("calls"));
        Calls calls;
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = text.find('\0', start);
            const std::string word = text.substr(start, end - start);
            start = end + 1;
            if (word == kNewCall) {
                calls.emplace_back();
            } else {
                calls.back().push_back(word);
            }
        }
        return calls;
    }
    void ForgetCalls() { fs::remove(Path("calls")); }
    std::string Imported() const { return bytes_of(Path("imported")); }

private:
    static constexpr const char* kNewCall = "--- call ---";

    fs::path Path(const std::string& name) const { return folder_.Path(name); }

    void WriteScript() {
        put_file(Path("regsh"), "#!/bin/sh\nhere=${0%/*}\nprintf '%s\\0' '" +
                                    std::string(kNewCall) + "' \"$@\" >>\"$here/calls\"\n" +
                                    "[ \"$1\" != import ] || cp \"$2\" \"$here/imported\"\n" +
                                    "case \"$*\" in\n" + answers_ + "esac\n" +
                                    "[ \"$1\" != export ] || cp \"$here/export\" \"$3\"\n");
        fs::permissions(Path("regsh"), fs::perms::owner_all);
    }

    OwnFolder folder_;
    EnvironmentChange search_path_;
    std::string answers_;
};

constexpr const char* kWalkOver = "Could not find <NodeDir> - UUID. \n";
constexpr const char* kNoGeneral = "Could not find <General> element.\n";
constexpr const char* kNoConns = "Could not find <NodeDir> - connections. \n";
constexpr const char* kNoValue = "Could not find NodeParam. \n";
constexpr const char* kImport = "/tmp/import.xml";
constexpr const char* kSessions = "/etc/tavrin/connections/";

std::string times(int count, const std::string& text) {
    std::string repeated;
    for (; count > 0; --count) {
        repeated += text;
    }
    return repeated;
}

std::unique_ptr<NTiXmlElement> parsed(const std::string& text) {
    auto element = std::make_unique<NTiXmlElement>();
    element->Parse(text.c_str());
    return element;
}

std::string escaped(const std::string& text) {
    NTiXmlElement element;
    element.Name() = "e";
    element.Text() = text;
    const std::string tagged = ToString(element);
    return text.empty() ? "" : tagged.substr(3, tagged.size() - 3 - 5);
}

// Pieces of an export document.

std::string key(const std::string& name, const std::string& value) {
    return "<NodeKey name=\"" + escaped(name) + "\"><NodeParam>" + escaped(value) +
           "</NodeParam></NodeKey>";
}

std::string conn(const std::string& uuid, const std::string& label) {
    return dir_of(escaped(uuid), key("label", label));
}

std::string settings(const std::string& config) {
    return "<ProfileSettings><Target><Config>" + config + "</Config></Target></ProfileSettings>";
}

std::string registry(const std::string& inside_type) {
    return "<ProfileRegistry>" + dir_of("t", inside_type) + "</ProfileRegistry>";
}

std::string document(const std::string& conns, const std::string& config = "standard") {
    return "<Profile>" + registry(dir_of("connections", conns)) + settings(config) + "</Profile>";
}

// A text as the program prints it after parsing.
std::string printed(const std::string& text) {
    return ToString(*parsed(text));
}

// Pieces of a connections file.

std::string entry(const std::string& name, const std::string& attributes = "Enabled=\"yes\"",
                  const std::string& inside = "") {
    return "<Connection Name=\"" + escaped(name) + "\" " + attributes + ">" + inside +
           "</Connection>";
}

std::string file_text(const std::string& entries, const std::string& exported) {
    return "<X>" + entries + "<General>" + escaped(exported) + "</General></X>";
}

// A simulated device: image type 9, standard, whose registry knows every type and holds no
// connection.
class ImportTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        if (std::getenv("CORVIK_DEVICE") == nullptr) {
            FAIL() << "This test writes below /etc and /tmp: run it on a simulated device "
                      "(device -- PROGRAM), which sets CORVIK_DEVICE.";
        }
        run_options = RunOptions{};
        fs::remove_all(kImport);
        fs::remove_all(kSessions);
        fs::create_directories(kSessions);
        SetProduct("standard", "6.1");
        client_ = std::make_unique<ScriptedClient>();
        // The table of type names is made once in a process, whichever test comes first: here for a
        // registry without any of the clients that it asks for.
        for (const char* type : {"freerdp", "xen", "iceweasel"}) {
            Client().Answer("contains root/ConnectionType/" + std::string(type), "", 1);
        }
        to_registry_type("");
        Client().ForgetAnswers();
        Client().ForgetCalls();
        Holds(document(""));
    }

    void TearDown() override {
        client_.reset();
        if (std::getenv("CORVIK_DEVICE") != nullptr) {
            fs::remove_all(kImport);
        }
        run_options = RunOptions{};
    }

    ScriptedClient& Client() { return *client_; }
    void Holds(const std::string& text) { Client().Holds(text); }

    static void SetProduct(const std::string& configuration, const std::string& version) {
        fs::remove("/etc/imageid");
        put_file("/etc/systeminfo", "PRODUCT_NAME=\"Sylvex\"\nPRODUCT_CONFIG=\"" + configuration +
                                        "\"\nPRODUCT_VERSION=\"" + version + "\"\n");
    }
    static void SetImageID(const std::string& text) {
        fs::remove("/etc/systeminfo");
        put_file("/etc/imageid", text);
    }
    static void SetZero() { SetProduct("zero", "6.1"); }
    static void SetNewerLayout() { SetImageID("ZXX40012"); }

    // Runs the action; what it told and the calls that it made are kept.
    template <typename Action>
    void Run(Action action) {
        told_ = stderr_of(action);
        calls_ = Client().Made();
    }

    std::string told_;
    Calls calls_;

private:
    std::unique_ptr<ScriptedClient> client_;
};

// Calls that come again and again.

const Call kCommitAll = {"commit"};
const Call kGetDefault = {"get", "root/ConnectionManager/defaultConnection"};
const Call kGetTheme = {"get", "root/background/desktop/theme"};

std::string conns_path(const std::string& type) {
    return "root/ConnectionType/" + type + "/connections";
}

Call exported(const std::string& type) {
    return {"export", "root/ConnectionType/" + type, "/tmp/" + type + ".xml"};
}

Call autostart(const std::string& type, const std::string& uuid, const std::string& value) {
    return {"set", conns_path(type) + "/" + uuid + "/autostart", value};
}

template <typename... More>
Calls joined(const Calls& first, const More&... more) {
    Calls all = first;
    const auto append = [&all](const Calls& calls) {
        all.insert(all.end(), calls.begin(), calls.end());
    };
    (append(more), ...);
    return all;
}

// The calls of the import step on a device that is no zero client.
Calls imported(const std::string& type) {
    return {exported(type), {"import", kImport}, {"commit", conns_path(type)}};
}

Calls emptied(const std::string& type) {
    return {{"get", conns_path(type)}, kGetDefault, {"commit", conns_path(type)}, kCommitAll};
}

Calls listed(const std::string& type) {
    return {{"get", conns_path(type)}};
}

Calls made_default(const std::string& uuid, const std::string& type) {
    return {kGetDefault,
            {"set", "root/ConnectionManager/defaultConnection", uuid},
            {"set", "root/background/desktop/theme", type},
            kCommitAll};
}

Calls announced(const std::string& uuid) {
    return {{"set", "root/ConnectionManager/defaultConnection", uuid},
            {"commit", "root/ConnectionManager/defaultConnection"},
            {"create", "root/ConnectionType/.toBeRefreshed"},
            {"delete", "root/ConnectionType/.toBeRefreshed"},
            {"commit", "root/ConnectionType"}};
}

const Calls kNewerEmptied = joined(emptied("view"), emptied("rdesktop"), emptied("xen"));

// set_conn

class SetConn : public ImportTest {
protected:
    int Set(const std::string& type, const std::string& text, bool remove = false) {
        put_file("/tmp/in.xml", text);
        int result = 12345;
        Run([&] { result = set_conn(type, "/tmp/in.xml", "user", "password", remove); });
        fs::remove("/tmp/in.xml");
        return result;
    }
};

TEST_F(SetConn, BringsTheFileIntoTheRegistry) {
    EXPECT_EQ(0, Set("RDP", file_text(entry("A"), document(conn("id", "A")))));
    EXPECT_EQ(joined({{"contains", "root/ConnectionType/freerdp"}}, imported("freerdp"),
                     listed("freerdp")),
              calls_);
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral, told_);
    EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
}

TEST_F(SetConn, MalformedFileIsRefused) {
    EXPECT_EQ(20, Set("RDP", "<X><Connection></X>"));
    EXPECT_EQ("Failed to parse /tmp/in.xml\n", told_);
    EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(SetConn, TextAheadOfTheFirstElementIsRefused) {
    EXPECT_EQ(20, Set("RDP", "x<X/>"));
    EXPECT_EQ("Failed to parse /tmp/in.xml\n", told_);
}

TEST_F(SetConn, FileWithoutRootElementIsRefused) {
    for (const char* text : {"", "  \n", "<?xml version=\"1.0\"?>\n<!-- c -->\n"}) {
        EXPECT_EQ(20, Set("RDP", text));
        EXPECT_EQ("Failed to get the root element.\n", told_);
        EXPECT_THAT(calls_, IsEmpty());
    }
}

TEST_F(SetConn, MissingFileIsAnException) {
    try {
        set_conn("RDP", "/tmp/missing.xml", "", "", false);
        FAIL() << "no exception";
    } catch (const NTiXmlException& error) {
        EXPECT_STREQ("Invalid file name:/tmp/missing.xml", error.Message());
        EXPECT_STREQ("", error.Remainder());
    }
    EXPECT_THAT(Client().Made(), IsEmpty());
}

TEST_F(SetConn, EmptyTypeDoesNothing) {
    EXPECT_EQ(0, Set("", "<X/>", true));
    EXPECT_EQ("", told_);
    EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(SetConn, FileIsReadBeforeTheTypeIsLookedAt) {
    EXPECT_EQ(20, Set("", "<X>"));
}

TEST_F(SetConn, TypeThatTheRegistryDoesNotContainDoesNothing) {
    for (const int status : {1, 2, 127}) {
        Client().ForgetAnswers();
        Client().ForgetCalls();
        Client().Answer("contains root/ConnectionType/ssh", "", status);
        EXPECT_EQ(0, Set("SSH", file_text(entry("A"), document(conn("id", "A"))), true));
        EXPECT_EQ("", told_);
        EXPECT_THAT(calls_, ElementsAre(Call{"contains", "root/ConnectionType/ssh"}));
    }
}

TEST_F(SetConn, NameWithoutAPairIsUsedAsItIs) {
    for (const char* type : {"freerdp", "rdp", "unknown", "tavrin"}) {
        Client().ForgetCalls();
        const std::string path = std::string("root/ConnectionType/") + type;
        EXPECT_EQ(0, Set(type, file_text("", document(""))));
        ASSERT_FALSE(calls_.empty());
        EXPECT_EQ((Call{"contains", path}), calls_.front());
        EXPECT_EQ((Call{"get", path + "/connections"}), calls_.back());
    }
}

TEST_F(SetConn, RemoveEmptiesTheTypeFirst) {
    EXPECT_EQ(0, Set("RDP", file_text(entry("A"), document(conn("id", "A"))), true));
    EXPECT_EQ(joined({{"contains", "root/ConnectionType/freerdp"}}, emptied("freerdp"),
                     imported("freerdp"), listed("freerdp")),
              calls_);
}

TEST_F(SetConn, ImageTypeSixTakesTheNewerLayout) {
    SetNewerLayout();
    EXPECT_EQ(0, Set("RDP", file_text(entry("A"), document(conn("id", "A")))));
    EXPECT_EQ(joined({{"contains", "root/ConnectionType/rdesktop"}}, kNewerEmptied,
                     imported("rdesktop"), announced("id")),
              calls_);
}

TEST_F(SetConn, EveryOtherImageTypeTakesTheClassicLayout) {
    for (const char* identity : {"DXST0005", "DXSQ0005", "DXQU0005", "DXST0020", "DXAR0005"}) {
        SetImageID(identity);
        Client().ForgetCalls();
        EXPECT_EQ(0, Set("ssh", file_text("", document(""))));
        EXPECT_EQ(joined({{"contains", "root/ConnectionType/ssh"}}, imported("ssh"), listed("ssh")),
                  calls_)
            << identity;
    }
    for (const char* version : {"4.1", "5.1", "6.1", "7.1"}) {
        SetProduct("standard", version);
        Client().ForgetCalls();
        EXPECT_EQ(0, Set("ssh", file_text("", document(""))));
        EXPECT_EQ(joined({{"contains", "root/ConnectionType/ssh"}}, imported("ssh"), listed("ssh")),
                  calls_)
            << version;
    }
}

TEST_F(SetConn, ResultOfTheImportIsReturned) {
    EXPECT_EQ(52, Set("RDP", "<X><General>x</General></X>"));
    fs::create_directory(kImport);
    EXPECT_EQ(23, Set("RDP", file_text("", document(""))));
    fs::remove(kImport);
    SetNewerLayout();
    EXPECT_EQ(-1, Set("RDP", file_text("", document(""))));
}

// write_conn

class WriteConn : public ImportTest {
protected:
    int Write(const std::string& text, bool remove = false) {
        const auto root = parsed(text);
        int result = 12345;
        Run([&] { result = write_conn(root.get(), "ssh", remove); });
        return result;
    }
};

TEST_F(WriteConn, WithoutRemoveImportsAndRefreshesTheIcons) {
    Client().Answer("get " + conns_path("ssh"), "dir " + conns_path("ssh") + "/id\n");
    Client().Answer("get " + conns_path("ssh") + "/id/hasDesktopIcon", "k 1\n");
    EXPECT_EQ(0, Write(file_text(entry("A"), document(conn("id", "A")))));
    EXPECT_EQ(joined(imported("ssh"), listed("ssh"),
                     Calls{{"get", conns_path("ssh") + "/id/hasDesktopIcon"},
                           {"set", conns_path("ssh") + "/id/hasDesktopIcon", "1"},
                           {"commit", conns_path("ssh") + "/id"}}),
              calls_);
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral, told_);
}

TEST_F(WriteConn, WithRemoveEmptiesFirst) {
    EXPECT_EQ(0, Write(file_text(entry("A"), document(conn("id", "A"))), true));
    EXPECT_EQ(joined(emptied("ssh"), imported("ssh"), listed("ssh")), calls_);
}

TEST_F(WriteConn, MissingGeneralStillRefreshesTheIcons) {
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(listed("ssh"), calls_);
    EXPECT_EQ(kNoGeneral, told_);
}

TEST_F(WriteConn, MissingGeneralOnAZeroClientIsToldTwiceAndTheDefaultStarts) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k id\n");
    Client().Answer("get " + kGetTheme[1], "k view\n");
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(joined(listed("ssh"),
                     Calls{kGetDefault, kGetTheme, autostart("view", "id", "1"), kCommitAll}),
              calls_);
    EXPECT_EQ(times(2, kNoGeneral), told_);
}

TEST_F(WriteConn, UnusableExportSkipsWhatFollows) {
    SetZero();
    for (const char* general : {"", "x", "&lt;a>", "&lt;!-- c -->"}) {
        std::string text = "<X>" + entry("A", "Enabled=\"yes\" Default=\"yes\"") + "<General/></X>";
        if (*general != '\0') {
            text.replace(text.find("<General/>"), 10,
                         "<General>" + escaped(general) + "</General>");
        }
        Client().ForgetCalls();
        EXPECT_EQ(52, Write(text)) << general;
        EXPECT_THAT(calls_, IsEmpty());
        EXPECT_EQ("", told_);
    }
}

TEST_F(WriteConn, FailureComesAfterTheRemoval) {
    EXPECT_EQ(52, Write("<X><General>x</General></X>", true));
    EXPECT_EQ(emptied("ssh"), calls_);
}

TEST_F(WriteConn, UnwritableImportFileSkipsWhatFollows) {
    SetZero();
    fs::create_directory(kImport);
    EXPECT_EQ(23, Write(file_text(entry("A", "Enabled=\"yes\" Default=\"yes\""),
                                  document(conn("id", "A")))));
    EXPECT_EQ((Calls{exported("ssh"), kGetDefault}), calls_);
    EXPECT_THAT(told_, EndsWith("Could not write /tmp/import.xml, errno=.\n"));
}

TEST_F(WriteConn, ExportWithoutConnectionsStillRefreshesTheIcons) {
    EXPECT_EQ(0, Write(file_text(entry("A"), "<Profile>" + registry("") + "</Profile>")));
    EXPECT_EQ(listed("ssh"), calls_);
    EXPECT_EQ(kNoConns, told_);
}

TEST_F(WriteConn, ZeroClientSetsAndStartsTheDefault) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k id\n");
    Client().Answer("get " + kGetTheme[1], "k ssh\n");
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" Default=\"yes\""),
                                 document(conn("id", "A")))));
    EXPECT_EQ(joined(Calls{exported("ssh"),
                           kGetDefault,
                           {"import", kImport},
                           {"commit", conns_path("ssh")},
                           autostart("ssh", "id", "0"),
                           kCommitAll},
                     listed("ssh"), made_default("id", "ssh"),
                     Calls{kGetDefault, kGetTheme, autostart("ssh", "id", "1"), kCommitAll}),
              calls_);
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral + kWalkOver, told_);
}

TEST_F(WriteConn, ZeroClientWithoutADefaultStartsNothing) {
    SetZero();
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(joined(listed("ssh"), Calls{kGetDefault}), calls_);
}

TEST_F(WriteConn, ZeroClientWithoutAThemeStartsNothing) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k id\n");
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(joined(listed("ssh"), Calls{kGetDefault, kGetTheme}), calls_);
}

TEST_F(WriteConn, DefaultAndThemeReachTheClientByteForByte) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k $(id)'\"\n");
    Client().Answer("get " + kGetTheme[1], "k a;b&\n");
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(joined(listed("ssh"),
                     Calls{kGetDefault, kGetTheme, autostart("a;b&", "$(id)'\"", "1"), kCommitAll}),
              calls_);
}

TEST_F(WriteConn, ZeroConfigurationMakesAZeroClientOnTypesEightToTenOnly) {
    SetImageID("DXAR0005");
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(listed("ssh"), calls_);
    for (const char* version : {"5.0", "6.0", "7.0"}) {
        SetProduct("Zero", version);
        Client().ForgetCalls();
        EXPECT_EQ(0, Write("<X/>"));
        EXPECT_EQ(joined(listed("ssh"), Calls{kGetDefault}), calls_) << version;
        SetProduct("ZERO", version);
        Client().ForgetCalls();
        EXPECT_EQ(0, Write("<X/>"));
        EXPECT_EQ(listed("ssh"), calls_) << version;
    }
}

// write_conn_python

class WriteConnPython : public ImportTest {
protected:
    void SetUp() override {
        ImportTest::SetUp();
        SetNewerLayout();
    }
    int Write(const std::string& text, bool remove = false) {
        const auto root = parsed(text);
        int result = 12345;
        Run([&] { result = write_conn_python(root.get(), "rdesktop", remove); });
        return result;
    }
};

TEST_F(WriteConnPython, EmptiesEveryTypeImportsAndAnnounces) {
    for (const bool remove : {false, true}) {
        Client().ForgetCalls();
        EXPECT_EQ(0, Write(file_text(entry("A"), document(conn("id", "A"))), remove));
        EXPECT_EQ(joined(kNewerEmptied, imported("rdesktop"), announced("id")), calls_);
        EXPECT_EQ(times(2, kWalkOver) + kNoGeneral, told_);
    }
}

TEST_F(WriteConnPython, EmptiesOtherTypesConnections) {
    Client().Answer("get " + conns_path("xen"), "dir " + conns_path("xen") + "/a\n");
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(joined(emptied("view"), emptied("rdesktop"),
                     Calls{{"get", conns_path("xen")},
                           kGetDefault,
                           {"delete", conns_path("xen") + "/a"},
                           {"commit", conns_path("xen")},
                           kCommitAll}),
              calls_);
}

TEST_F(WriteConnPython, MissingGeneralIsToldTwice) {
    EXPECT_EQ(0, Write("<X/>"));
    EXPECT_EQ(kNewerEmptied, calls_);
    EXPECT_EQ(times(2, kNoGeneral), told_);
}

TEST_F(WriteConnPython, UnusableExportEndsAfterTheRemoval) {
    for (const char* general : {"x", "&lt;!-- c -->"}) {
        Client().ForgetCalls();
        EXPECT_EQ(52, Write("<X><General>" + escaped(general) + "</General></X>"));
        EXPECT_EQ(kNewerEmptied, calls_);
        EXPECT_EQ("", told_);
    }
}

TEST_F(WriteConnPython, UnwritableImportFileEndsTheImport) {
    fs::create_directory(kImport);
    EXPECT_EQ(23, Write(file_text(entry("A"), document(conn("id", "A")))));
    EXPECT_EQ(joined(kNewerEmptied, Calls{exported("rdesktop")}), calls_);
    EXPECT_THAT(told_, EndsWith("Could not write /tmp/import.xml, errno=.\n"));
}

TEST_F(WriteConnPython, ExportWithoutConnectionsDirectoryHasNoConnections) {
    EXPECT_EQ(-1, Write(file_text(entry("A"), "<Profile>" + registry("") + "</Profile>")));
    EXPECT_EQ(kNewerEmptied, calls_);
    EXPECT_EQ(times(2, kNoConns), told_);
}

// The import has parsed the same text before.
TEST_F(WriteConnPython, ExportThatMemoryDoesNotHoldAgainIsUnusable) {
    constexpr long enough = 1000000;
    const auto root = parsed(file_text(entry("A"), document("")));
    int result = 12345;
    long left = 0;
    const auto write_with = [&](long allocations) {
        Client().ForgetCalls();
        Run([&] {
            allocations_left = allocations;
            result = write_conn_python(root.get(), "rdesktop", false);
            left = std::exchange(allocations_left, -1);
        });
    };
    for (const bool builds_tables : {true, false}) {
        SCOPED_TRACE(builds_tables);
        write_with(enough);
        EXPECT_EQ(-1, result);
    }
    write_with(enough - left - 1);
    EXPECT_EQ(52, result);
    EXPECT_EQ(joined(kNewerEmptied, imported("rdesktop")), calls_);
}

TEST_F(WriteConnPython, EmptyConnectionsDirectoryIsImportedAndHasNoConnections) {
    EXPECT_EQ(-1, Write(file_text(entry("A"), document(""))));
    EXPECT_EQ(joined(kNewerEmptied, imported("rdesktop")), calls_);
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral + kWalkOver, told_);
}

TEST_F(WriteConnPython, FirstConnectionBecomesTheDefaultAlsoWhenItIsDisabled) {
    EXPECT_EQ(0, Write(file_text(
                     entry("A", "Enabled=\"no\"") + entry("B", "Enabled=\"yes\" Default=\"yes\""),
                     document(conn("first", "A") + conn("second", "B")))));
    EXPECT_EQ(joined(kNewerEmptied, imported("rdesktop"), announced("first")), calls_);
    EXPECT_EQ(printed(document(conn("second", "B"))), Client().Imported());
}

TEST_F(WriteConnPython, DefaultReachesTheClientByteForByte) {
    EXPECT_EQ(0, Write(file_text("", document(conn("a b;'$x", "A")))));
    EXPECT_EQ(joined(kNewerEmptied, imported("rdesktop"), announced("a b;'$x")), calls_);
}

TEST_F(WriteConnPython, FirstConnectionWithoutANameSetsNoValue) {
    EXPECT_EQ(0, Write(file_text("", document("<NodeDir/>" + conn("id", "A")))));
    Calls expected = joined(kNewerEmptied, imported("rdesktop"), announced(""));
    expected[expected.size() - 5] = {"set", "root/ConnectionManager/defaultConnection"};
    EXPECT_EQ(expected, calls_);
}

TEST_F(WriteConnPython, EveryConnectionOfTheRegistryIsPrunedFromTheMerge) {
    Holds(document(conn("old", "Old")));
    EXPECT_EQ(0, Write(file_text(entry("A"), document(conn("id", "A")))));
    EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral, told_);
}

TEST_F(WriteConnPython, ProductConfigurationOfTheFileStays) {
    EXPECT_EQ(0, Write(file_text("", document(conn("id", "A"), "other"))));
    EXPECT_EQ(printed(document("", "other")), Client().Imported());
}

// remove_conns

class RemoveConns : public ImportTest {
protected:
    // Removes a type whose listing is that text.
    void Remove(const std::string& listing) {
        Client().Answer("get " + conns_path("ssh"), listing);
        Client().ForgetCalls();
        Run([] { remove_conns(conns_path("ssh")); });
    }
    // All calls when the listing leads to these.
    static Calls Around(const Calls& deletions) {
        return joined({{"get", conns_path("ssh")}, kGetDefault}, deletions,
                      Calls{{"commit", conns_path("ssh")}, kCommitAll});
    }
};

TEST_F(RemoveConns, DeletesEveryListedDirectoryInOrder) {
    Remove("dir r/c/one\ndir r/c/two\nkey r/c/three\n");
    EXPECT_EQ(Around({{"delete", "r/c/one"}, {"delete", "r/c/two"}, {"delete", "r/c/three"}}),
              calls_);
    EXPECT_EQ("", told_);
}

TEST_F(RemoveConns, EmptyListingStillCommits) {
    Remove("");
    EXPECT_EQ(Around({}), calls_);
}

TEST_F(RemoveConns, FailedListingStillCommits) {
    Client().Answer("get " + conns_path("ssh"), "", 1);
    Run([] { remove_conns(conns_path("ssh")); });
    EXPECT_EQ(Around({}), calls_);
}

TEST_F(RemoveConns, LinesOfOneOrThreeWordsAreSkipped) {
    Remove("one\n\n \t\ndir r/c/a b\na b c d\ndir\tr/c/two\n  dir  r/c/three\n");
    EXPECT_EQ(Around({{"delete", "r/c/two"}, {"delete", "r/c/three"}}), calls_);
}

// The line end is a word of its own behind a blank.
TEST_F(RemoveConns, BlankAheadOfTheLineEndMakesAThirdWord) {
    Remove("dir r/c/one \ndir r/c/two");
    EXPECT_EQ(Around({{"delete", "r/c/two"}}), calls_);
}

TEST_F(RemoveConns, SecondWordOfOnlyTheLineEndDeletesWithoutAnArgument) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k id\n");
    Remove("dir \n");
    EXPECT_EQ(Around({{"delete"}}), calls_);
}

TEST_F(RemoveConns, PathsReachTheClientByteForByte) {
    Remove("dir r/c/$(x)\ndir r/c/'\"\\;&|<>*?#~\ndir r/c/\xff\xc3\xbc\ndir r/c/{a}[b]!`");
    EXPECT_EQ(Around({{"delete", "r/c/$(x)"},
                      {"delete", "r/c/'\"\\;&|<>*?#~"},
                      {"delete", "r/c/\xff\xc3\xbc"},
                      {"delete", "r/c/{a}[b]!`"}}),
              calls_);
}

TEST_F(RemoveConns, CommandIsCutBehindItsLimit) {
    const std::string longest(1023 - std::string("regsh delete ").size(), 'a');
    EXPECT_EQ(1010U, longest.size());
    Remove("d " + longest + "\nd " + longest + "b\n");
    EXPECT_EQ(Around({{"delete", longest}, {"delete", longest}}), calls_);
}

TEST_F(RemoveConns, LongLineComesInPieces) {
    // 1023 characters are the first piece; its second word is too long for the command.
    const std::string word(1021, 'a');
    Remove("d " + word + "x y\n");
    EXPECT_EQ(Around({{"delete", std::string(1010, 'a')}, {"delete", "y"}}), calls_);
}

TEST_F(RemoveConns, ListingThatCannotBeStartedIsToldAndNothingIsCommitted) {
    testing::internal::CaptureStderr();
    {
        const LoweredLimit no_files(RLIMIT_NOFILE, 0);
        remove_conns(conns_path("ssh"));
    }
    EXPECT_EQ("popen() failure.\n", testing::internal::GetCapturedStderr());
    EXPECT_THAT(Client().Made(), IsEmpty());
}

TEST_F(RemoveConns, ZeroClientsDefaultTakesDefaultAndThemeWithIt) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k two\n");
    Remove("dir r/c/one\ndir r/c/two\ndir r/c/three\n");
    EXPECT_EQ(Around({{"delete", "r/c/one"},
                      {"delete", "r/c/two"},
                      {"set", "root/ConnectionManager/defaultConnection", ""},
                      {"set", "root/background/desktop/theme", "default"},
                      {"delete", "r/c/three"}}),
              calls_);
}

TEST_F(RemoveConns, DefaultIsComparedExactlyWithTheLastLevel) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k two\n");
    Remove("dir r/c/Two\ndir r/c/two2\ndir r/two/x\ndir two/\n");
    EXPECT_EQ(Around({{"delete", "r/c/Two"},
                      {"delete", "r/c/two2"},
                      {"delete", "r/two/x"},
                      {"delete", "two/"},
                      {"set", "root/ConnectionManager/defaultConnection", ""},
                      {"set", "root/background/desktop/theme", "default"}}),
              calls_);
}

TEST_F(RemoveConns, OtherDevicesKeepTheirDefault) {
    Client().Answer("get " + kGetDefault[1], "k one\n");
    Remove("dir r/c/one\n");
    EXPECT_EQ(Around({{"delete", "r/c/one"}}), calls_);
}

TEST_F(RemoveConns, EmptyDefaultIsNeverReset) {
    SetZero();
    Client().Answer("get " + kGetDefault[1], "k\n");
    Remove("dir r/c/one\ndir /\n");
    EXPECT_EQ(Around({{"delete", "r/c/one"}, {"delete", "/"}}), calls_);
}

// exe_write

class ExeWrite : public ImportTest {
protected:
    int Write(const std::string& text, const std::string& type = "ssh") {
        const auto root = parsed(text);
        int result = 12345;
        Run([&] { result = exe_write(root.get(), type); });
        return result;
    }
    static std::string Session(const std::string& name) { return bytes_of(kSessions + name); }
    static std::vector<std::string> Sessions() {
        std::vector<std::string> names;
        for (const auto& file : fs::directory_iterator(kSessions)) {
            names.push_back(file.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    static std::string Kss(const std::string& text) { return "<KSS>" + escaped(text) + "</KSS>"; }
    static std::string Ws(const std::string& text) { return "<WS>" + escaped(text) + "</WS>"; }
};

TEST_F(ExeWrite, MissingGeneralIsToldAndSucceeds) {
    EXPECT_EQ(0, Write("<X>" + entry("A", "Enabled=\"yes\" KSSFile=\"a\"", Kss("<s/>")) + "</X>",
                       "tavrin"));
    EXPECT_EQ(kNoGeneral, told_);
    EXPECT_THAT(calls_, IsEmpty());
    EXPECT_THAT(Sessions(), IsEmpty());
}

TEST_F(ExeWrite, OnlyYesInAnyCaseEnables) {
    std::string entries;
    std::string conns;
    std::string kept;
    for (const char* enabled : {"yes", "YES", "yEs", "no", "true", "1", "ye", "yess", ""}) {
        const std::string label = "L" + std::to_string(entries.size());
        entries += entry(label, "Enabled=\"" + std::string(enabled) + "\"");
        conns += conn("id" + label, label);
        kept += std::string(enabled).size() == 3 ? conn("id" + label, label) : "";
    }
    entries += entry("no value", "x=\"yes\"");
    conns += conn("none", "no value");
    EXPECT_EQ(0, Write(file_text(entries, document(conns))));
    EXPECT_EQ(printed(document(kept)), Client().Imported());
}

TEST_F(ExeWrite, ConnectionWithoutNameIsIgnored) {
    const std::string nameless =
        "<Connection Enabled=\"yes\" KSSFile=\"a\">" + Kss("<s/>") + "</Connection>";
    EXPECT_EQ(0, Write(file_text(nameless + entry("", "Enabled=\"yes\" KSSFile=\"b\"", Kss("<s/>")),
                                 document(conn("id", ""))),
                       "tavrin"));
    EXPECT_EQ(printed(document("")), Client().Imported());
    EXPECT_THAT(Sessions(), IsEmpty());
}

TEST_F(ExeWrite, ConnectionWithoutEnabledWritesNoSession) {
    EXPECT_EQ(0, Write(file_text(entry("A", "KSSFile=\"a\"", Kss("<s/>")) +
                                     entry("A", "Enabled=\"\" KSSFile=\"b\"", Kss("<s/>")),
                                 document("")),
                       "tavrin"));
    EXPECT_THAT(Sessions(), IsEmpty());
}

TEST_F(ExeWrite, SessionFilesHoldTheTextOfTheirElements) {
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"office\"",
                                       Kss("<s a=\"1 &amp; 2\">x</s>") + Ws("<w/>")),
                                 document(conn("id", "A"))),
                       "tavrin"));
    EXPECT_EQ("<s a=\"1 &amp; 2\">x</s>", Session("office.kss"));
    EXPECT_EQ("<w/>", Session("office.ws"));
    EXPECT_THAT(Sessions(), ElementsAre("office.kss", "office.ws"));
    EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
}

TEST_F(ExeWrite, FirstSessionElementsAreWritten) {
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"a\"",
                                       Ws("w1") + Kss("k1") + Kss("k2") + Ws("w2")),
                                 document("")),
                       "tavrin"));
    EXPECT_EQ("k1", Session("a.kss"));
    EXPECT_EQ("w1", Session("a.ws"));
}

TEST_F(ExeWrite, DisabledConnectionStillGetsItsSession) {
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"no\" KSSFile=\"a\"", Kss("<s/>")),
                                 document(conn("id", "A"))),
                       "tavrin"));
    EXPECT_EQ("<s/>", Session("a.kss"));
    EXPECT_EQ(printed(document("")), Client().Imported());
}

TEST_F(ExeWrite, WindowSettingsWithoutASessionAreNotWritten) {
    EXPECT_EQ(
        0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"a\"", Ws("<w/>")), document("")),
                 "tavrin"));
    EXPECT_THAT(Sessions(), IsEmpty());
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral, told_);
}

TEST_F(ExeWrite, OtherTypesWriteNoSession) {
    for (const char* type : {"Tavrin", "TAVRIN", "tavrin2", "ssh"}) {
        EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"a\"", Kss("<s/>")),
                                     document("")),
                           type));
        EXPECT_THAT(Sessions(), IsEmpty()) << type;
        fs::remove("/tmp/" + std::string(type) + ".xml");
    }
}

TEST_F(ExeWrite, SessionWithoutAFileNameIsToldAndTheConnectionImported) {
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\"", Kss("<s/>") + Ws("<w/>")),
                                 document(conn("id", "A"))),
                       "tavrin"));
    EXPECT_THAT(told_, StartsWith("Could not find KSSFile. \n"));
    EXPECT_THAT(Sessions(), IsEmpty());
    EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
}

TEST_F(ExeWrite, EmptyFileNameIsUsedAsItIs) {
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"\"", Kss("k") + Ws("w")),
                                 document("")),
                       "tavrin"));
    EXPECT_THAT(Sessions(), ElementsAre(".kss", ".ws"));
}

TEST_F(ExeWrite, FileNameThatLeavesTheFolderIsRefused) {
    for (const char* name : {"..", "../a", "a/../../b", "x/.."}) {
        EXPECT_EQ(
            0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"" + std::string(name) + "\"",
                                     Kss("k") + Ws("w")),
                               document(conn("id", "A"))),
                     "tavrin"));
        EXPECT_THAT(told_, StartsWith("Invalid session file name " + std::string(name) + ".\n"));
        EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
    }
    EXPECT_THAT(Sessions(), IsEmpty());
    EXPECT_FALSE(fs::exists("/etc/tavrin/a.kss"));
}

TEST_F(ExeWrite, FileNameMayHoldDotsAndFolders) {
    fs::create_directory(std::string(kSessions) + "sub");
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"sub/a..b\"", Kss("k")) +
                                     entry("A", "Enabled=\"yes\" KSSFile=\"...\"", Kss("k")),
                                 document("")),
                       "tavrin"));
    EXPECT_EQ("k", Session("sub/a..b.kss"));
    EXPECT_EQ("k", Session("....kss"));
}

TEST_F(ExeWrite, SessionThatCannotBeWrittenDoesNotStopTheImport) {
    EXPECT_EQ(0, Write(file_text(entry("A", "Enabled=\"yes\" KSSFile=\"no/a\"", Kss("k") + Ws("w")),
                                 document(conn("id", "A"))),
                       "tavrin"));
    EXPECT_THAT(told_, StartsWith("Write file /etc/tavrin/connections/no/a.kss fail.\n"
                                  "Write file /etc/tavrin/connections/no/a.ws fail.\n"));
    EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
}

// Whichever allocation fails: a session file is written in full, or a line names it, or the run
// ends.
TEST_F(ExeWrite, SessionThatMemoryDoesNotHoldIsTold) {
    constexpr const char* kNotWritten = "Write file /etc/tavrin/connections/a.kss fail.\n";
    const std::string text(1000, 'k');
    const std::string file = file_text(entry("A", "Enabled=\"yes\" KSSFile=\"a\"", Kss(text)),
                                       document(conn("id", "A")));
    bool written = false;
    int not_written = 0;
    for (long allocations = 0; !written; ++allocations) {
        const auto root = parsed(file);
        fs::remove(std::string(kSessions) + "a.kss");
        Run([&] {
            allocations_left = allocations;
            try {
                exe_write(root.get(), "tavrin");
            } catch (const std::bad_alloc&) {
                // told once, by the run's end
            }
            allocations_left = -1;
        });
        written = fs::exists(std::string(kSessions) + "a.kss");
        not_written += static_cast<int>(told_.find(kNotWritten) == 0);
        EXPECT_EQ(written ? text : "", Session("a.kss")) << allocations;
    }
    EXPECT_GT(not_written, 0);
}

TEST_F(ExeWrite, ResultOfTheImportIsReturned) {
    EXPECT_EQ(52, Write("<X><General>x</General></X>"));
    fs::create_directory(kImport);
    EXPECT_EQ(23, Write(file_text("", document(""))));
}

// write_xml_text_file

class WriteXmlTextFile : public ImportTest {
protected:
    bool Write(const std::string& text, const std::string& path = "/tmp/text") {
        bool result = false;
        fs::remove("/tmp/text");
        Run([&] { result = write_xml_text_file(path, text); });
        return result;
    }
};

TEST_F(WriteXmlTextFile, WritesTheTextWithoutMarkup) {
    EXPECT_TRUE(Write("<?xml version=\"1.0\"?><a x=\"y\"> 1 &lt;\n &amp; 2 </a>"));
    EXPECT_EQ("1 < & 2", bytes_of("/tmp/text"));
    EXPECT_EQ("", told_);
}

TEST_F(WriteXmlTextFile, ChildrenAreLeftOut) {
    EXPECT_TRUE(Write("<a><b>in</b>out</a>"));
    EXPECT_EQ("out", bytes_of("/tmp/text"));
}

TEST_F(WriteXmlTextFile, EmptyTextMakesAnEmptyFile) {
    EXPECT_TRUE(Write("<a/>"));
    EXPECT_TRUE(fs::exists("/tmp/text"));
    EXPECT_EQ("", bytes_of("/tmp/text"));
}

TEST_F(WriteXmlTextFile, ReplacesWhatTheFileHeld) {
    EXPECT_TRUE(Write("<a>a longer text</a>"));
    EXPECT_TRUE(write_xml_text_file("/tmp/text", "<a>b</a>"));
    EXPECT_EQ("b", bytes_of("/tmp/text"));
}

TEST_F(WriteXmlTextFile, MalformedTextIsTold) {
    for (const char* text : {"", "x", "<a>", "<a><b></a>"}) {
        EXPECT_FALSE(Write(text)) << text;
        EXPECT_EQ("Parse xml failed.\n", told_);
        EXPECT_FALSE(fs::exists("/tmp/text"));
    }
}

TEST_F(WriteXmlTextFile, TextWithoutRootElementIsRefusedSilently) {
    for (const char* text : {" \n", "<!-- c -->", "<?xml version=\"1.0\"?>"}) {
        EXPECT_FALSE(Write(text)) << text;
        EXPECT_EQ("", told_);
        EXPECT_FALSE(fs::exists("/tmp/text"));
    }
}

TEST_F(WriteXmlTextFile, FileThatCannotBeWrittenIsTold) {
    EXPECT_FALSE(Write("<a>x</a>", "/tmp/missing/text"));
    EXPECT_EQ("Write file /tmp/missing/text fail.\n", told_);
    EXPECT_FALSE(Write("<a>x</a>", "/tmp"));
    EXPECT_EQ("Write file /tmp fail.\n", told_);
}

// import_conns

class ImportConns : public ImportTest {
protected:
    int Import(const std::string& text, const std::list<std::string>& enabled) {
        enabled_ = enabled;
        int result = 12345;
        Run([&] { result = import_conns("ssh", text, enabled_); });
        return result;
    }

    std::list<std::string> enabled_;
};

TEST_F(ImportConns, ImportsTheDocumentAndCommitsTheConnections) {
    EXPECT_EQ(0, Import(document(conn("id", "A")), {"A"}));
    EXPECT_EQ(imported("ssh"), calls_);
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral, told_);
    EXPECT_EQ(printed(document(conn("id", "A"))), Client().Imported());
    EXPECT_EQ(Client().Imported(), bytes_of(kImport));
    EXPECT_FALSE(fs::exists("/tmp/ssh.xml"));
    EXPECT_THAT(enabled_, IsEmpty());
}

TEST_F(ImportConns, EverythingAroundTheConnectionsIsCarriedAlong) {
    const std::string text =
        "<?xml version=\"1.0\"?><!-- one --><Other mark=\"&lt;\">" +
        registry(key("k", "v") + dir_of("a", conn("id", "A")) +
                 "<NodeDir name=\"connections\" mark=\"1\">" + key("between", "x") +
                 conn("id", "A") + "</NodeDir>" + dir_of("b", "")) +
        "<!-- two -->" + settings("standard") + "</Other><Second/>";
    EXPECT_EQ(0, Import(text, {"A"}));
    NTiXmlDoc whole(text, false);
    whole.Parse(nullptr);
    EXPECT_EQ(ToString(whole), Client().Imported());
}

TEST_F(ImportConns, UnusableTextIsRefused) {
    for (const char* text : {"", "x", "<a>", "<a><b></a>", "<!-- c -->", "  "}) {
        EXPECT_EQ(52, Import(text, {"A"})) << text;
        EXPECT_EQ("", told_);
        EXPECT_THAT(calls_, IsEmpty());
        EXPECT_FALSE(fs::exists(kImport));
        EXPECT_THAT(enabled_, ElementsAre("A"));
    }
}

TEST_F(ImportConns, DocumentWithoutALevelImportsNothing) {
    const std::array<std::pair<std::string, std::string>, 3> cases{{
        {"<P/>", "Could not find <ProfileRegistry>. \n"},
        {"<P><ProfileRegistry/></P>", "Could not find <NodeDir> - type. \n"},
        {"<P>" + registry(dir_of("other", "")) + "</P>", kNoConns},
    }};
    for (const auto& [text, message] : cases) {
        EXPECT_EQ(0, Import(text, {"A"}));
        EXPECT_EQ(message, told_);
        EXPECT_THAT(calls_, IsEmpty());
        EXPECT_FALSE(fs::exists(kImport));
        EXPECT_THAT(enabled_, ElementsAre("A"));
    }
}

TEST_F(ImportConns, ConnectionsThatAreNotEnabledAreLeftOut) {
    EXPECT_EQ(0, Import(document(conn("1", "A") + conn("2", "B") + conn("3", "C")), {"C", "A"}));
    EXPECT_EQ(printed(document(conn("1", "A") + conn("3", "C"))), Client().Imported());
    EXPECT_THAT(enabled_, IsEmpty());
}

TEST_F(ImportConns, NamesWithoutAConnectionStayInTheList) {
    EXPECT_EQ(0, Import(document(conn("1", "A")), {"x", "a", "y", "A"}));
    EXPECT_THAT(enabled_, ElementsAre("x", "y", "A"));
}

TEST_F(ImportConns, FirstEqualNameInTheListIsTaken) {
    EXPECT_EQ(0, Import(document(conn("1", "a") + conn("2", "B")), {"A", "b", "a", "B"}));
    EXPECT_THAT(enabled_, ElementsAre("a", "B"));
}

TEST_F(ImportConns, EachNameKeepsOneConnectionTheFirstWithItsLabel) {
    EXPECT_EQ(0, Import(document(conn("1", "A") + conn("2", "a") + conn("3", "A")), {"a"}));
    EXPECT_EQ(printed(document(conn("1", "A"))), Client().Imported());
    EXPECT_EQ(0, Import(document(conn("1", "A") + conn("2", "a") + conn("3", "A")), {"a", "A"}));
    EXPECT_EQ(printed(document(conn("1", "A") + conn("2", "a"))), Client().Imported());
}

TEST_F(ImportConns, LabelsAreComparedWithoutCaseByByte) {
    const std::string conns = conn("1", "Tom & <J> [1]") + conn("2", "\xc3\x84") + conn("3", "@");
    EXPECT_EQ(0, Import(document(conns), {"TOM & <j> [1]", "\xc3\xa4", "`"}));
    EXPECT_EQ(printed(document(conn("1", "Tom & <J> [1]"))), Client().Imported());
    EXPECT_THAT(enabled_, ElementsAre("\xc3\xa4", "`"));
}

TEST_F(ImportConns, ConnectionWithoutALabelHasTheLabelOfItsType) {
    EXPECT_EQ(0, Import(document(dir_of("1", key("x", "y")) + dir_of("2", "")), {"new SSH"}));
    EXPECT_EQ(printed(document(dir_of("1", key("x", "y")))), Client().Imported());
}

TEST_F(ImportConns, LabelKeyWithoutAValueIsTold) {
    EXPECT_EQ(
        0, Import(document(dir_of("1", "<NodeKey name=\"label\"/>" + key("label", "A"))), {"A"}));
    EXPECT_EQ(kNoValue + times(2, kWalkOver) + kNoGeneral, told_);
    EXPECT_THAT(enabled_, IsEmpty());
}

TEST_F(ImportConns, ConnectionsOfTheRegistryAreAppended) {
    Holds(document(conn("8", "Eight") + conn("1", "Old") + conn("9", "Nine")));
    EXPECT_EQ(0, Import(document(conn("1", "A") + conn("2", "B")), {"A"}));
    EXPECT_EQ(printed(document(conn("1", "A") + conn("8", "Eight") + conn("9", "Nine"))),
              Client().Imported());
    EXPECT_EQ(times(2, kWalkOver), told_);
}

TEST_F(ImportConns, DisabledConnectionThatTheRegistryHoldsComesFromTheRegistry) {
    Holds(document(conn("1", "Registry")));
    EXPECT_EQ(0, Import(document(conn("1", "File")), {}));
    EXPECT_EQ(printed(document(conn("1", "Registry"))), Client().Imported());
}

TEST_F(ImportConns, ResultOfTheMergeIsNotLookedAt) {
    Client().Answer("export root/ConnectionType/ssh /tmp/ssh.xml", "", 1);
    EXPECT_EQ(0, Import(document(conn("1", "A")), {"A"}));
    EXPECT_EQ(imported("ssh"), calls_);
    EXPECT_EQ(printed(document(conn("1", "A"))), Client().Imported());
    EXPECT_EQ(kWalkOver, told_);
}

TEST_F(ImportConns, DevicesOwnProductConfigurationIsPutIn) {
    for (const char* version : {"5.1", "6.1", "7.1"}) {
        for (const char* configuration : {"standard", "zero", ""}) {
            SetProduct(configuration, version);
            EXPECT_EQ(0, Import(document(conn("1", "A"), "from the file"), {"A"}));
            EXPECT_EQ(printed(document(conn("1", "A"), configuration)), Client().Imported());
        }
    }
}

TEST_F(ImportConns, ProductConfigurationStaysOnOtherImageTypes) {
    SetProduct("standard", "4.1");
    EXPECT_EQ(0, Import(document(conn("1", "A"), "file"), {"A"}));
    EXPECT_EQ(printed(document(conn("1", "A"), "file")), Client().Imported());
    SetImageID("DXST0005");
    EXPECT_EQ(0, Import(document(conn("1", "A"), "file"), {"A"}));
    EXPECT_EQ(printed(document(conn("1", "A"), "file")), Client().Imported());
}

TEST_F(ImportConns, FirstLevelsOfTheSettingsHoldTheProductConfiguration) {
    const std::string text = "<P>" + registry(dir_of("connections", "")) +
                             "<ProfileSettings><Target><Config>1</Config><Config>2</Config>"
                             "</Target><Target><Config>3</Config></Target></ProfileSettings>" +
                             settings("4") + "</P>";
    std::string expected = text;
    expected.replace(expected.find("1</Config>"), 1, "standard");
    EXPECT_EQ(0, Import(text, {}));
    EXPECT_EQ(printed(expected), Client().Imported());
}

TEST_F(ImportConns, MissingSettingsImportNothingOnTypesEightToTen) {
    const std::string start = "<P>" + registry(dir_of("connections", conn("1", "A")));
    const std::array<std::pair<std::string, std::string>, 3> cases{{
        {"</P>", "ProfileSettings"},
        {"<ProfileSettings/></P>", "Target"},
        {"<ProfileSettings><Target/></ProfileSettings></P>", "Config"},
    }};
    for (const char* version : {"5.1", "6.1", "7.1"}) {
        for (const auto& [end, level] : cases) {
            SetProduct("standard", version);
            Client().ForgetCalls();
            EXPECT_EQ(0, Import(start + end, {"A"}));
            EXPECT_EQ(Calls{exported("ssh")}, calls_);
            EXPECT_EQ(times(2, kWalkOver) + kNoGeneral + "Could not find <" + level + ">. \n",
                      told_);
            EXPECT_FALSE(fs::exists(kImport));
        }
    }
}

TEST_F(ImportConns, MissingSettingsDoNotMatterOnOtherImageTypes) {
    const std::string text = "<P>" + registry(dir_of("connections", conn("1", "A"))) + "</P>";
    for (const char* identity : {"DXST0005", "DXSQ0005", "DXAR0005", "ZXX40012"}) {
        SetImageID(identity);
        EXPECT_EQ(0, Import(text, {"A"}));
        EXPECT_EQ(printed(text), Client().Imported()) << identity;
    }
    SetProduct("standard", "4.1");
    EXPECT_EQ(0, Import(text, {"A"}));
    EXPECT_EQ(printed(text), Client().Imported());
}

TEST_F(ImportConns, UnwritableImportFileIsTold) {
    fs::create_directory(kImport);
    EXPECT_EQ(23, Import(document(conn("1", "A")), {"A"}));
    EXPECT_EQ(Calls{exported("ssh")}, calls_);
    EXPECT_EQ(times(2, kWalkOver) + kNoGeneral + "Could not write /tmp/import.xml, errno=.\n",
              told_);
}

TEST_F(ImportConns, StatusOfImportAndCommitIsNotLookedAt) {
    Client().Answer("import /tmp/import.xml", "", 1);
    Client().Answer("commit " + conns_path("ssh"), "", 1);
    EXPECT_EQ(0, Import(document(conn("1", "A")), {"A"}));
    EXPECT_EQ(imported("ssh"), calls_);
}

TEST_F(ImportConns, ZeroClientSwitchesOffTheAutostartOfAllConnections) {
    SetZero();
    Holds(document(conn("9", "Nine"), "zero"));
    EXPECT_EQ(0, Import(document(conn("1", "A") + conn("2", "B")), {"A"}));
    EXPECT_EQ((Calls{exported("ssh"),
                     kGetDefault,
                     {"import", kImport},
                     {"commit", conns_path("ssh")},
                     autostart("ssh", "1", "0"),
                     autostart("ssh", "9", "0"),
                     kCommitAll}),
              calls_);
    EXPECT_EQ(times(3, kWalkOver), told_);
}

TEST_F(ImportConns, CommitCommandIsCutBehindItsLimit) {
    // Its export command is cut, too, and names no file any more.
    const std::string type(1000, 't');
    std::list<std::string> enabled;
    Run([&] { EXPECT_EQ(0, import_conns(type, document(""), enabled)); });
    const std::string kept = ("root/ConnectionType/" + type).substr(0, 1023 - 13);
    ASSERT_FALSE(calls_.empty());
    EXPECT_EQ((Call{"commit", kept}), calls_.back());
}

// merge_existing_conns

class MergeExistingConns : public ImportTest {
protected:
    bool Merge(const std::string& conns) {
        conns_ = parsed(conns);
        bool result = false;
        Run([&] { result = merge_existing_conns("ssh", conns_.get()); });
        return result;
    }
    std::string Conns() const { return ToString(*conns_); }

private:
    std::unique_ptr<NTiXmlElement> conns_;
};

TEST_F(MergeExistingConns, AppendsWhatOnlyTheRegistryHolds) {
    const std::string rich = dir_of(
        "3", key("label", "<C> & 'D'") + dir_of("sub", key("k", "v")) + "<!-- c --><Other/>");
    Holds(document(conn("1", "Registry") + conn("2", "B") + rich));
    EXPECT_TRUE(Merge(dir_of("connections", conn("1", "File"))));
    EXPECT_EQ(printed(dir_of("connections", conn("1", "File") + conn("2", "B") + rich)), Conns());
    EXPECT_EQ(kWalkOver, told_);
    EXPECT_EQ(Calls{exported("ssh")}, calls_);
    EXPECT_FALSE(fs::exists("/tmp/ssh.xml"));
}

TEST_F(MergeExistingConns, AppendsBehindEverythingElse) {
    Holds(document(conn("2", "B")));
    EXPECT_TRUE(Merge(dir_of("connections", conn("1", "A") + key("k", "v"))));
    EXPECT_EQ(printed(dir_of("connections", conn("1", "A") + key("k", "v") + conn("2", "B"))),
              Conns());
}

TEST_F(MergeExistingConns, NamesAreComparedExactly) {
    Holds(document(conn("A", "1") + conn("aa", "2")));
    EXPECT_TRUE(Merge(dir_of("connections", conn("a", "3"))));
    EXPECT_EQ(printed(dir_of("connections", conn("a", "3") + conn("A", "1") + conn("aa", "2"))),
              Conns());
}

TEST_F(MergeExistingConns, NameOfAKeyIsNoConnection) {
    Holds(document(conn("a", "1")));
    EXPECT_TRUE(Merge(dir_of("connections", key("a", "3"))));
    EXPECT_EQ(printed(dir_of("connections", key("a", "3") + conn("a", "1"))), Conns());
}

TEST_F(MergeExistingConns, DirectoryWithoutANameIsNotAppended) {
    Holds(document("<NodeDir>" + key("label", "x") + "</NodeDir>" + conn("1", "A")));
    EXPECT_TRUE(Merge(dir_of("connections", "<NodeDir/>")));
    EXPECT_EQ(printed(dir_of("connections", "<NodeDir/>" + conn("1", "A"))), Conns());
}

TEST_F(MergeExistingConns, NameThatComesTwiceIsAppendedOnce) {
    Holds(document(conn("1", "A") + conn("1", "B")));
    EXPECT_TRUE(Merge(dir_of("connections", "")));
    EXPECT_EQ(printed(dir_of("connections", conn("1", "A"))), Conns());
}

TEST_F(MergeExistingConns, EmptyNameIsAName) {
    Holds(document(conn("", "A")));
    EXPECT_TRUE(Merge(dir_of("connections", "")));
    EXPECT_EQ(printed(dir_of("connections", conn("", "A"))), Conns());
}

// A comment is printed without escapes, so each copy takes one away. What is escaped twice still
// parses as part of the export, and no longer as a copy of its own.
TEST_F(MergeExistingConns, CopyThatDoesNotParseEndsTheMerge) {
    const std::string spoilt = dir_of("2", "<!-- --&amp;gt;&amp;lt;x -->");
    Holds(document(conn("1", "A") + spoilt + conn("3", "C")));
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ(printed(dir_of("connections", conn("1", "A"))), Conns());
}

// Whichever allocation fails: half a merge is never taken for one that is only left out.
TEST_F(MergeExistingConns, WantOfMemoryInTheMidstPasses) {
    const std::string own = dir_of("connections", conn("1", "A"));
    Holds(document(conn("2", "B") + conn("3", "C")));
    EXPECT_TRUE(Merge(own));
    const std::string whole = Conns();
    bool merged = false;
    for (long allocations = 0; !merged; ++allocations) {
        const auto conns = parsed(own);
        bool passed = false;
        Run([&] {
            allocations_left = allocations;
            try {
                merged = merge_existing_conns("ssh", conns.get());
            } catch (const std::bad_alloc&) {
                passed = true;
            }
            allocations_left = -1;
        });
        EXPECT_TRUE(passed || ToString(*conns) == (merged ? whole : printed(own))) << allocations;
    }
}

TEST_F(MergeExistingConns, WantOfMemoryForAMomentPassesOrLeavesAllOut) {
    const std::string own = dir_of("connections", conn("1", "A"));
    Holds(document(conn("2", "B") + conn("3", "C")));
    EXPECT_TRUE(Merge(own));
    const std::string whole = Conns();
    bool failed = true;
    for (long allocations = 0; failed; ++allocations) {
        const auto conns = parsed(own);
        std::string expected;
        Run([&] {
            allocations_come_back = true;
            allocations_left = allocations;
            bool merged = false;
            bool passed = false;
            try {
                merged = merge_existing_conns("ssh", conns.get());
            } catch (const std::bad_alloc&) {
                passed = true;
            }
            failed = std::exchange(allocations_left, -1) < 0;
            allocations_come_back = false;
            expected = passed ? ToString(*conns) : merged ? whole : printed(own);
        });
        EXPECT_EQ(expected, ToString(*conns)) << allocations;
    }
}

TEST_F(MergeExistingConns, RegistryWithoutConnectionsIsFalse) {
    EXPECT_FALSE(Merge(dir_of("connections", conn("1", "A"))));
    EXPECT_EQ(kWalkOver + std::string(kNoGeneral), told_);
    EXPECT_EQ(printed(dir_of("connections", conn("1", "A"))), Conns());
}

TEST_F(MergeExistingConns, FailedExportIsFalseWithoutAMessage) {
    for (const int status : {1, 2, 127}) {
        Client().ForgetAnswers();
        Client().Answer("export root/ConnectionType/ssh /tmp/ssh.xml", "", status);
        EXPECT_FALSE(Merge(dir_of("connections", "")));
        EXPECT_EQ("", told_);
    }
}

TEST_F(MergeExistingConns, ExportThatWritesNothingIsFalse) {
    Client().Answer("export root/ConnectionType/ssh /tmp/ssh.xml", "");
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ("", told_);
}

TEST_F(MergeExistingConns, MalformedExportIsFalseAndStays) {
    Holds("<a><b></a>");
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ("Failed to parse the exported registry information.\n", told_);
    EXPECT_EQ("<a><b></a>", bytes_of("/tmp/ssh.xml"));
    fs::remove("/tmp/ssh.xml");
}

TEST_F(MergeExistingConns, ExportThatDoesNotParseOnceMoreIsFalse) {
    // Text behind a child is printed ahead of it, where the dialect allows none.
    Holds(document(dir_of("1", key("label", "A") + "text")));
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ(kWalkOver, told_);
    EXPECT_EQ(printed(dir_of("connections", "")), Conns());
}

TEST_F(MergeExistingConns, ExportWithTextBehindEveryChildIsFalse) {
    std::string text =
        "<Profile>" + registry(dir_of("connections", "<NodeDir name=\"1\"/>")) + "</Profile>";
    for (std::size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 6) {
        text.insert(at, "text");
    }
    Holds(text);
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ(kWalkOver, told_);
    EXPECT_EQ(printed(dir_of("connections", "")), Conns());
}

// A comment is printed without escapes: what was a comment only is markup then.
TEST_F(MergeExistingConns, ExportWithACommentThatDoesNotParseOnceMoreIsFalse) {
    Holds("<Profile>" + registry(dir_of("connections", conn("1", "A"))) +
          "<!-- --&gt;&lt;x --></Profile>");
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ(kWalkOver, told_);
    EXPECT_EQ(printed(dir_of("connections", "")), Conns());
}

TEST_F(MergeExistingConns, NewerLayoutKeepsOnlyTheDefaultConnection) {
    SetNewerLayout();
    Holds(document(conn("1", "A") + conn("2", "B")));
    EXPECT_FALSE(Merge(dir_of("connections", "")));
    EXPECT_EQ(kWalkOver + std::string(kNoGeneral), told_);
    run_options.default_connection = "2";
    EXPECT_TRUE(Merge(dir_of("connections", "")));
    EXPECT_EQ(printed(dir_of("connections", conn("2", "B"))), Conns());
}

// disable_autostart

class DisableAutostart : public ImportTest {
protected:
    void Disable(const std::string& conns) {
        const auto element = parsed(conns);
        Run([&] { EXPECT_EQ(1, disable_autostart("ssh", element.get())); });
        EXPECT_EQ(kWalkOver, told_);
    }
};

TEST_F(DisableAutostart, SwitchesOffEveryConnectionAndCommits) {
    Disable(dir_of("connections", conn("1", "A") + key("k", "v") + conn("2", "B")));
    EXPECT_EQ((Calls{autostart("ssh", "1", "0"), autostart("ssh", "2", "0"), kCommitAll}), calls_);
}

TEST_F(DisableAutostart, NoConnectionsStillCommits) {
    Disable(dir_of("connections", ""));
    EXPECT_EQ(Calls{kCommitAll}, calls_);
}

TEST_F(DisableAutostart, DirectoryWithoutANameIsSkipped) {
    Disable(dir_of("connections", "<NodeDir/><NodeDir x=\"1\"/>" + conn("1", "A")));
    EXPECT_EQ((Calls{autostart("ssh", "1", "0"), kCommitAll}), calls_);
}

TEST_F(DisableAutostart, EmptyNameStaysEmpty) {
    Disable(dir_of("connections", conn("", "A")));
    EXPECT_EQ((Calls{autostart("ssh", "", "0"), kCommitAll}), calls_);
}

TEST_F(DisableAutostart, NamesReachTheClientByteForByteAndUncut) {
    const std::string odd = "a b;$(x)'\"\\`*\xff";
    const std::string long_name(2000, 'n');
    Disable(dir_of("connections", conn(odd, "A") + conn(long_name, "B")));
    EXPECT_EQ((Calls{autostart("ssh", odd, "0"), autostart("ssh", long_name, "0"), kCommitAll}),
              calls_);
}

// SetDefaultConnection

class SetDefault : public ImportTest {
protected:
    int Set(const std::string& text) {
        const auto root = parsed(text);
        int result = 12345;
        Client().ForgetCalls();
        Run([&] { result = SetDefaultConnection(root.get(), "ssh"); });
        return result;
    }
    static std::string Marked(const std::string& name, const std::string& enabled = "yes",
                              const std::string& marked = "yes") {
        return entry(name, "Enabled=\"" + enabled + "\" Default=\"" + marked + "\"");
    }
};

TEST_F(SetDefault, MarkedConnectionBecomesTheDefault) {
    EXPECT_EQ(0,
              Set(file_text(entry("A") + Marked("B"), document(conn("1", "A") + conn("2", "B")))));
    EXPECT_EQ(made_default("2", "ssh"), calls_);
    EXPECT_EQ("", told_);
}

TEST_F(SetDefault, FirstOfTwoMarkedConnectionsWins) {
    EXPECT_EQ(0,
              Set(file_text(Marked("B") + Marked("A"), document(conn("1", "A") + conn("2", "B")))));
    EXPECT_EQ(made_default("2", "ssh"), calls_);
}

TEST_F(SetDefault, MarkedConnectionThatTheExportLacksIsToldAndTheNextTried) {
    EXPECT_EQ(0, Set(file_text(Marked("x") + Marked("y") + Marked("A"), document(conn("1", "A")))));
    EXPECT_EQ(made_default("1", "ssh"), calls_);
    EXPECT_EQ(times(2, kWalkOver), told_);
}

TEST_F(SetDefault, NoMarkedConnectionMatches) {
    EXPECT_EQ(0, Set(file_text(Marked("x") + Marked("y"), document(conn("1", "A")))));
    EXPECT_THAT(calls_, IsEmpty());
    EXPECT_EQ(times(2, kWalkOver), told_);
}

TEST_F(SetDefault, NothingMarkedLooksAtNothing) {
    EXPECT_EQ(0, Set("<X>" + entry("A") + "<General>x</General></X>"));
    EXPECT_THAT(calls_, IsEmpty());
    EXPECT_EQ("", told_);
}

struct QualifyCase {
    const char* attributes;
    bool qualifies;
};

TEST_F(SetDefault, AnyEnabledValueButNoQualifies) {
    for (const auto& [attributes, qualifies] : {
             QualifyCase{"Enabled=\"yes\" Default=\"yes\"", true},
             QualifyCase{"Enabled=\"maybe\" Default=\"YES\"", true},
             QualifyCase{"Enabled=\"nope\" Default=\"yEs\"", true},
             QualifyCase{"Enabled=\"n\" Default=\"yes\"", true},
             QualifyCase{"Enabled=\"no\" Default=\"yes\"", false},
             QualifyCase{"Enabled=\"No\" Default=\"yes\"", false},
             QualifyCase{"Enabled=\"NO\" Default=\"yes\"", false},
             QualifyCase{"Enabled=\"\" Default=\"yes\"", false},
             QualifyCase{"Default=\"yes\"", false},
             QualifyCase{"Enabled=\"yes\" Default=\"no\"", false},
             QualifyCase{"Enabled=\"yes\" Default=\"1\"", false},
             QualifyCase{"Enabled=\"yes\" Default=\"yess\"", false},
             QualifyCase{"Enabled=\"yes\" Default=\"\"", false},
             QualifyCase{"Enabled=\"yes\"", false},
         }) {
        EXPECT_EQ(0, Set(file_text(entry("A", attributes), document(conn("1", "A")))));
        EXPECT_EQ(qualifies ? made_default("1", "ssh") : Calls{}, calls_) << attributes;
        EXPECT_EQ("", told_);
    }
}

TEST_F(SetDefault, NameMustBeThere) {
    EXPECT_EQ(0, Set(file_text("<Connection Enabled=\"yes\" Default=\"yes\"/>" + Marked(""),
                               document(conn("1", "")))));
    EXPECT_THAT(calls_, IsEmpty());
    EXPECT_EQ("", told_);
}

TEST_F(SetDefault, LabelsAreComparedWithoutCaseAndTheFirstIsTaken) {
    EXPECT_EQ(0,
              Set(file_text(Marked("oFFICE"), document(conn("1", "Office 2") + conn("2", "OffIce") +
                                                       conn("3", "oFFICE")))));
    EXPECT_EQ(made_default("2", "ssh"), calls_);
}

TEST_F(SetDefault, DirectoryWithoutANameIsPassedOver) {
    EXPECT_EQ(0, Set(file_text(Marked("A"), document("<NodeDir>" + key("label", "A") +
                                                     "</NodeDir>" + conn("2", "A")))));
    EXPECT_EQ(made_default("2", "ssh"), calls_);
    EXPECT_EQ(
        0, Set(file_text(Marked("A"), document("<NodeDir>" + key("label", "A") + "</NodeDir>"))));
    EXPECT_THAT(calls_, IsEmpty());
    EXPECT_EQ(kWalkOver, told_);
}

TEST_F(SetDefault, ConnectionWithoutALabelHasTheLabelOfItsType) {
    EXPECT_EQ(0, Set(file_text(Marked("New SSH"), document(dir_of("1", "")))));
    EXPECT_EQ(made_default("1", "ssh"), calls_);
}

TEST_F(SetDefault, LabelKeysWithoutAValueAreToldOnceForEachWalkPastThem) {
    const std::string bad = "<NodeKey name=\"label\"/>";
    const std::string conns = dir_of("1", bad + bad + key("label", "A")) +
                              dir_of("2", bad + key("label", "B")) + dir_of("3", bad);
    EXPECT_EQ(0, Set(file_text(Marked("x") + Marked("B"), document(conns))));
    EXPECT_EQ(made_default("2", "ssh"), calls_);
    EXPECT_EQ(times(4, kNoValue) + kWalkOver + times(3, kNoValue), told_);
}

TEST_F(SetDefault, MissingGeneralIsTold) {
    EXPECT_EQ(0, Set("<X>" + Marked("A") + "</X>"));
    EXPECT_EQ(kNoGeneral, told_);
    EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(SetDefault, UnusableExportIsRefused) {
    for (const char* text : {"x", "<a>", "<!-- c -->"}) {
        EXPECT_EQ(52, Set(file_text(Marked("A"), text))) << text;
        EXPECT_EQ("", told_);
        EXPECT_THAT(calls_, IsEmpty());
    }
    EXPECT_EQ(52, Set("<X>" + Marked("A") + "<General/></X>"));
}

TEST_F(SetDefault, ExportWithoutConnectionsDirectoryEndsTheSearch) {
    EXPECT_EQ(0, Set(file_text(Marked("A") + Marked("B"), "<P>" + registry("") + "</P>")));
    EXPECT_EQ(kNoConns, told_);
    EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(SetDefault, IdentifierReachesTheClientByteForByte) {
    const std::string odd = "a b;$(x)'\"\\`*\xff";
    EXPECT_EQ(0, Set(file_text(Marked("A"), document(conn(odd, "A")))));
    EXPECT_EQ(made_default(odd, "ssh"), calls_);
}

// refresh_desktop_icons

class RefreshDesktopIcons : public ImportTest {
protected:
    void Refresh(const std::string& listing) {
        Client().Answer("get r/c", listing);
        Run([] { refresh_desktop_icons("r/c"); });
        EXPECT_EQ("", told_);
    }
    static Calls Refreshed(const std::string& path, const Call& value) {
        Call set = {"set", path + "/hasDesktopIcon"};
        set.insert(set.end(), value.begin(), value.end());
        return {{"get", path + "/hasDesktopIcon"}, set, {"commit", path}};
    }
};

TEST_F(RefreshDesktopIcons, EverySettingIsWrittenBackInOrder) {
    Client().Answer("get r/c/one/hasDesktopIcon", "k 1\n");
    Client().Answer("get r/c/two/hasDesktopIcon", "k 0 rest\n");
    Refresh("dir r/c/one\nkey r/c/two\n");
    EXPECT_EQ(joined({{"get", "r/c"}}, Refreshed("r/c/one", {"1"}), Refreshed("r/c/two", {"0"})),
              calls_);
}

TEST_F(RefreshDesktopIcons, EmptyListingDoesNothing) {
    Refresh("");
    EXPECT_EQ((Calls{{"get", "r/c"}}), calls_);
}

TEST_F(RefreshDesktopIcons, MissingSettingIsSetToNothing) {
    Client().Answer("get r/c/one/hasDesktopIcon", "", 1);
    Client().Answer("get r/c/two/hasDesktopIcon", "k \n");
    Refresh("dir r/c/one\ndir r/c/two\n");
    EXPECT_EQ(joined({{"get", "r/c"}}, Refreshed("r/c/one", {}), Refreshed("r/c/two", {})), calls_);
}

TEST_F(RefreshDesktopIcons, OnlyLinesOfTwoWordsAreUsed) {
    Refresh("one\n\ndir r/c/a b\n \t dir \t r/c/x \t \r\ndir \n a b");
    EXPECT_EQ(joined({{"get", "r/c"}}, Refreshed("r/c/x", {}), Refreshed("b", {})), calls_);
}

TEST_F(RefreshDesktopIcons, PathAndValueReachTheClientByteForByte) {
    Client().Answer("get r/c/$(x)'\"/hasDesktopIcon", "k a;'b`\n");
    Refresh("dir r/c/$(x)'\"\n");
    EXPECT_EQ(joined({{"get", "r/c"}}, Refreshed("r/c/$(x)'\"", {"a;'b`"})), calls_);
}

TEST_F(RefreshDesktopIcons, CommandsAreCutBehindTheirLimit) {
    const std::string path(1010, 'p');
    Refresh("d " + path + "\n");
    const std::string get = (path + "/hasDesktopIcon").substr(0, 1023 - 10);
    const std::string set = (path + "/hasDesktopIcon ").substr(0, 1023 - 10);
    EXPECT_EQ((Calls{{"get", "r/c"}, {"get", get}, {"set", set}, {"commit", path}}), calls_);
}

TEST_F(RefreshDesktopIcons, ListingThatCannotBeStartedIsTold) {
    testing::internal::CaptureStderr();
    {
        const LoweredLimit no_files(RLIMIT_NOFILE, 0);
        refresh_desktop_icons("r/c");
    }
    EXPECT_EQ("popen() failure.\n", testing::internal::GetCapturedStderr());
    EXPECT_THAT(Client().Made(), IsEmpty());
}

// Null arguments

class ImportAssertion : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // What the assertion of a function writes.
    static auto Failed(const std::string& signature, const std::string& name) {
        std::string pattern;
        for (const char c : signature) {
            pattern += std::string("()*&").find(c) == std::string::npos ? "" : "\\";
            pattern += c;
        }
        return MatchesRegex("corvik: conn:[0-9]+: " + pattern + ": Assertion `" + name +
                            "' failed\\.\n");
    }
};

TEST_F(ImportAssertion, WriteConnNeedsARoot) {
    EXPECT_EXIT(write_conn(nullptr, "ssh", true), KilledBySignal(SIGABRT),
                Failed("int write_conn(const NTiXmlElement*, const std::string&, bool)", "pRoot"));
}

TEST_F(ImportAssertion, WriteConnPythonNeedsARoot) {
    EXPECT_EXIT(
        write_conn_python(nullptr, "ssh", true), KilledBySignal(SIGABRT),
        Failed("int write_conn_python(const NTiXmlElement*, const std::string&, bool)", "pRoot"));
}

TEST_F(ImportAssertion, ExeWriteNeedsARoot) {
    EXPECT_EXIT(exe_write(nullptr, "ssh"), KilledBySignal(SIGABRT),
                Failed("int exe_write(const NTiXmlElement*, const std::string&)", "pRoot"));
}

TEST_F(ImportAssertion, MergeExistingConnsNeedsADirectory) {
    EXPECT_EXIT(merge_existing_conns("ssh", nullptr), KilledBySignal(SIGABRT),
                Failed("bool merge_existing_conns(const std::string&, NTiXmlElement*)", "pConns"));
}

TEST_F(ImportAssertion, DisableAutostartNeedsADirectory) {
    EXPECT_EXIT(
        disable_autostart("ssh", nullptr), KilledBySignal(SIGABRT),
        Failed("int disable_autostart(const std::string&, const NTiXmlElement*)", "pConns"));
}

TEST_F(ImportAssertion, SetDefaultConnectionNeedsARoot) {
    EXPECT_EXIT(
        SetDefaultConnection(nullptr, "ssh"), KilledBySignal(SIGABRT),
        Failed("int SetDefaultConnection(const NTiXmlElement*, const std::string&)", "pRoot"));
}

}  // namespace
