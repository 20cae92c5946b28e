#include "common/result_codes.h"
#include "connections/conn.h"
#include "platform/image_id.h"
#include "tests/support/conn_fixture.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

// clone_conn, clone_conn_python and get_conn: one type from the registry into a file.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Call = FakeClient::Call;

constexpr const char* kEndOfWalk = "Could not find <NodeDir> - UUID. \n";

const Call kAskDefault = {"regsh", "get", "root/ConnectionManager/defaultConnection"};

Call remove_call(const std::string& type) {
    return {"rm", "-f", "/tmp/" + type + ".xml"};
}
Call export_call(const std::string& type) {
    return {"regsh", "export", "root/ConnectionType/" + type, "/tmp/" + type + ".xml"};
}

const std::string kOne = dir_of("uuid-1", key_of("label", "One"));
const std::string kTwo = dir_of("uuid-2", key_of("label", "Two"));

constexpr const char* kOneLine = "  <Connection Name=\"One\" Enabled=\"yes\"/>\n";
constexpr const char* kTwoLine = "  <Connection Name=\"Two\" Enabled=\"yes\"/>\n";

// A type name of that length with no path component longer than a file name may be.
std::string long_type(std::size_t length) {
    std::string type(length, 'a');
    for (std::size_t at = 100; at < length; at += 100) {
        type[at] = '/';
    }
    return type;
}

using Clone = int (*)(NTiXmlElement*, const std::string&);

class CloneTest : public ConnTest {
protected:
    int Run(Clone clone, const std::string& type) {
        root_ = std::make_unique<NTiXmlElement>();
        root_->Name() = "R";
        int result = -1;
        told_ = stderr_of([&] { result = clone(root_.get(), type); });
        return result;
    }
    std::string RootText() const { return ToString(*root_); }
    static std::string File(const std::string& content) { return "<R>\n" + content + "</R>\n"; }

    std::unique_ptr<NTiXmlElement> root_;
    std::string told_;
};

}  // namespace

class CloneConn : public CloneTest {
protected:
    int Run(const std::string& type) { return CloneTest::Run(clone_conn, type); }
};

TEST_F(CloneConn, ExportsByWayOfATemporaryFileAndRemovesIt) {
    const std::string file = ExportFile("freerdp");
    Client().Export(export_of(kOne + kTwo));
    EXPECT_EQ(kSuccess, Run("freerdp"));
    EXPECT_EQ(File(std::string(kOneLine) + kTwoLine + general_of(export_of(kOne + kTwo))),
              RootText());
    EXPECT_EQ(kEndOfWalk, told_);
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp"),
                                              remove_call("freerdp")));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(CloneConn, ZeroClientIsAskedForItsDefaultBehindTheExport) {
    ExportFile("freerdp");
    SetSystemInfo("zero", "6.1");
    Client().Export(export_of(kOne));
    EXPECT_EQ(kSuccess, Run("freerdp"));
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp"),
                                              kAskDefault, remove_call("freerdp")));
}

TEST_F(CloneConn, FailedExportIsTheResultAndNothingIsRemovedBehindIt) {
    const std::string file = ExportFile("freerdp");
    for (const int status : {1, 2, 126, 255}) {
        SCOPED_TRACE(status);
        Client().Forget();
        Client().Export(export_of(kOne));
        Client().Status("export", status);
        EXPECT_EQ(kExportFailed, Run("freerdp"));
        EXPECT_EQ("<R/>\n", RootText());
        EXPECT_EQ("", told_);
        EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp")));
        EXPECT_EQ(export_of(kOne), bytes_of(file));
    }
}

TEST_F(CloneConn, MissingClientIsAFailedExport) {
    ExportFile("freerdp");
    Client().TakeAway();
    // Nothing else on PATH may be a client.
    const OwnFolder empty;
    const EnvironmentChange no_client("PATH", empty.Path().string());
    EXPECT_EQ(kExportFailed, Run("freerdp"));
    EXPECT_EQ("<R/>\n", RootText());
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(CloneConn, StaleTemporaryFileIsNotReadAsTheExport) {
    put_file(ExportFile("freerdp"), export_of(kOne));
    EXPECT_EQ(kExportUnreadable, Run("freerdp"));
    EXPECT_EQ("<R/>\n", RootText());
    EXPECT_EQ("", told_);
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp")));
}

TEST_F(CloneConn, UnusableExportStaysForInspection) {
    const std::string file = ExportFile("freerdp");
    Client().Export("<Profile>");
    EXPECT_EQ(kDocumentUnusable, Run("freerdp"));
    EXPECT_EQ("Failed to parse the exported registry information.\n", told_);
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp")));
    EXPECT_EQ("<Profile>", bytes_of(file));
}

TEST_F(CloneConn, ExportWithoutMarkupIsOutOfRangeAndStays) {
    const std::string file = ExportFile("freerdp");
    Client().Export("nothing here\n");
    NTiXmlElement root;
    std::string what;
    try {
        clone_conn(&root, "freerdp");
    } catch (const std::out_of_range& error) {
        what = error.what();
    }
    EXPECT_EQ("the registry export /tmp/freerdp.xml holds no \"<\"", what);
    EXPECT_EQ("nothing here\n", bytes_of(file));
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp")));
}

TEST_F(CloneConn, TypeIsWrittenIntoTheCommandsAsItIs) {
    EXPECT_EQ(kExportUnreadable, Run("a b"));
    EXPECT_THAT(Client().Calls(), ElementsAre(Call{"rm", "-f", "/tmp/a", "b.xml"},
                                              Call{"regsh", "export", "root/ConnectionType/a", "b",
                                                   "/tmp/a", "b.xml"}));
}

TEST_F(CloneConn, CommandOf1022CharactersIsWhole) {
    const std::string type = long_type(321);
    EXPECT_EQ(kExportUnreadable, Run(type));
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call(type), export_call(type)));
}

TEST_F(CloneConn, LongerCommandIsCutAt1022Characters) {
    const std::string type = long_type(322);  // three characters more
    EXPECT_EQ(kExportUnreadable, Run(type));
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call(type),
                                              Call{"regsh", "export", "root/ConnectionType/" + type,
                                                   "/tmp/" + type + "."}));
}

TEST_F(CloneConn, RemovalIsCutAt1022CharactersToo) {
    const std::string type = long_type(1008);  // "rm -f " and the file make 1023
    const std::string file = ExportFile(type);
    put_file(file, export_of(kOne));
    EXPECT_EQ(kSuccess, Run(type));
    EXPECT_EQ(File(kOneLine + general_of(export_of(kOne))), RootText());
    const Call cut = {"rm", "-f", file.substr(0, file.size() - 1)};
    EXPECT_THAT(Client().Calls(), ElementsAre(cut, cut));
    EXPECT_EQ(export_of(kOne), bytes_of(file));
    std::filesystem::remove_all("/tmp/" + type.substr(0, type.find('/')));
}

class CloneConnPython : public CloneTest {
protected:
    int Run(const std::string& type) { return CloneTest::Run(clone_conn_python, type); }
    void SetUp() override {
        ConnTest::SetUp();
        if (!HasFatalFailure()) {
            SetImageType(6);
            Client().Export(export_of(kOne + kTwo));
            ExportFile("view");
        }
    }
    void SetDefault(const std::string& value) {
        Client().Print("get", "root/ConnectionManager/defaultConnection " + value + "\n");
    }
};

TEST_F(CloneConnPython, DefaultOfAnotherTypeExportsNothing) {
    for (const char* value : {"Default", "DefaultFreerdp", "xDefaultx", "Default-VIEW"}) {
        SCOPED_TRACE(value);
        SetDefault(value);
        Client().Forget();
        EXPECT_EQ(kSuccess, Run("view"));
        EXPECT_EQ("<R/>\n", RootText());
        EXPECT_EQ("", told_);
        EXPECT_EQ(value, run_options.default_connection);
        EXPECT_THAT(Client().Calls(), ElementsAre(kAskDefault));
    }
}

TEST_F(CloneConnPython, DefaultThatNamesTheTypeExportsEverything) {
    for (const char* value : {"Default-view", "viewDefault", "DefaultReview2"}) {
        SCOPED_TRACE(value);
        SetDefault(value);
        Client().Forget();
        EXPECT_EQ(kSuccess, Run("view"));
        EXPECT_EQ(File(std::string(kOneLine) + kTwoLine + general_of(export_of(kOne + kTwo))),
                  RootText());
        EXPECT_EQ(kEndOfWalk, told_);
        EXPECT_EQ(value, run_options.default_connection);
        EXPECT_THAT(Client().Calls(), ElementsAre(kAskDefault, remove_call("view"),
                                                  export_call("view"), remove_call("view")));
    }
}

TEST_F(CloneConnPython, OtherDefaultExportsThatConnectionOnly) {
    SetDefault("uuid-2");
    EXPECT_EQ(kSuccess, Run("view"));
    EXPECT_EQ(File(kTwoLine + general_of(export_of(kTwo))), RootText());
    EXPECT_EQ("uuid-2", run_options.default_connection);
    EXPECT_THAT(Client().Calls(), ElementsAre(kAskDefault, remove_call("view"), export_call("view"),
                                              remove_call("view")));
}

TEST_F(CloneConnPython, WordInAnotherCaseOrCutShortIsAnIdentifier) {
    for (const char* value : {"default-view", "xDefaul", "efault"}) {
        SetDefault(value);
        EXPECT_EQ(kSuccess, Run("view"));
        EXPECT_EQ("<R/>\n", RootText());
        EXPECT_EQ(kEndOfWalk, told_) << value;
    }
}

TEST_F(CloneConnPython, EmptyDefaultExportsNoConnection) {
    run_options.default_connection = "uuid-1";
    EXPECT_EQ(kSuccess, Run("view"));
    EXPECT_EQ("<R/>\n", RootText());
    EXPECT_EQ("", run_options.default_connection);
    EXPECT_THAT(Client().Calls(), ElementsAre(kAskDefault, remove_call("view"), export_call("view"),
                                              remove_call("view")));
}

TEST_F(CloneConnPython, UnstartableQueryIsAnEmptyDefault) {
    run_options.default_connection = "Default";
    const std::string file = ExportFile("view");
    put_file(file, export_of(kOne));
    int result = -1;
    root_ = std::make_unique<NTiXmlElement>();
    stderr_of([&] {
        const LoweredLimit no_files(RLIMIT_NOFILE, 0);
        result = clone_conn_python(root_.get(), "view");
    });
    EXPECT_EQ("", run_options.default_connection);
    EXPECT_EQ(kExportFailed, result);  // no command can open a file either
    EXPECT_EQ(export_of(kOne), bytes_of(file));
}

TEST_F(CloneConnPython, FailuresOfTheExportAreItsOwn) {
    SetDefault("uuid-2");
    Client().Export("<Profile>");
    EXPECT_EQ(kDocumentUnusable, Run("view"));
    Client().Status("export", 3);
    EXPECT_EQ(kExportFailed, Run("view"));
    EXPECT_THAT(Client().Calls(),
                ElementsAre(kAskDefault, remove_call("view"), export_call("view"), kAskDefault,
                            remove_call("view"), export_call("view")));
}

class GetConn : public ConnTest {
protected:
    void SetUp() override {
        ConnTest::SetUp();
        if (!HasFatalFailure()) {
            Client().Export(export_of(kOne));
            ExportFile("freerdp");
        }
    }
    int Get(const std::string& type, const std::string& file) {
        int result = -1;
        told_ = stderr_of([&] { result = get_conn(type, file, "user", "secret"); });
        return result;
    }
    std::string Out() const { return folder_.Path("out.xml").string(); }

    OwnFolder folder_;
    std::string told_;
};

TEST_F(GetConn, FileHoldsTheRootNamedAsTyped) {
    EXPECT_EQ(kSuccess, Get("RDP", Out()));
    EXPECT_EQ("<RDP>\n" + std::string(kOneLine) + general_of(export_of(kOne)) + "</RDP>\n",
              bytes_of(Out()));
    EXPECT_EQ(kEndOfWalk, told_);
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp"),
                                              remove_call("freerdp")));
}

TEST_F(GetConn, UnknownTypePassesThroughUnchanged) {
    ExportFile("rdp");
    EXPECT_EQ(kSuccess, Get("rdp", Out()));
    EXPECT_EQ("<rdp>\n" + std::string(kOneLine) + general_of(export_of(kOne)) + "</rdp>\n",
              bytes_of(Out()));
    EXPECT_THAT(Client().Calls(),
                ElementsAre(remove_call("rdp"), export_call("rdp"), remove_call("rdp")));
}

TEST_F(GetConn, RegistryTypeNamesTheUnlabelledConnections) {
    Client().Export(export_of(dir_of("uuid-1", "")));
    EXPECT_EQ(kSuccess, Get("RDP", Out()));
    EXPECT_EQ("<RDP>\n  <Connection Name=\"New freerdp\" Enabled=\"yes\"/>\n" +
                  general_of(export_of(dir_of("uuid-1", ""))) + "</RDP>\n",
              bytes_of(Out()));
}

TEST_F(GetConn, TerminalEmulatorIsKnownByItsRegistryType) {
    const std::string document =
        export_of(dir_of("uuid-1", key_of("label", "One") + key_of("kssName", "one.kss")));
    PutSession("one.kss", "<session/>");
    ExportFile("tavrin");
    Client().Export(document);
    EXPECT_EQ(kSuccess, Get("Tavrin", Out()));
    EXPECT_EQ(
        "<Tavrin>\n"
        "  <Connection Name=\"One\" Enabled=\"yes\" TavrinName=\"One\" KSSFile=\"one\">\n"
        "    <KSS>&lt;session/&gt;\n</KSS>\n"
        "  </Connection>\n" +
            general_of(document) + "</Tavrin>\n",
        bytes_of(Out()));
    EXPECT_EQ(std::string(kEndOfWalk) + "read file /etc/tavrin/connections/one.ws fail\n", told_);
}

TEST_F(GetConn, TheRunLogIsNotWrittenOver) {
    run_options.log.reset(std::fopen(Out().c_str(), "w"));
    std::fputs("header\n", run_options.log.get());
    std::fflush(run_options.log.get());
    EXPECT_EQ(kConnectionsFileUnwritable, Get("RDP", Out()));
    EXPECT_EQ("header\n", bytes_of(Out()));
}

TEST_F(GetConn, AFileBesideTheRunLogIsWritten) {
    const std::string log = folder_.Path("run.log").string();
    run_options.log.reset(std::fopen(log.c_str(), "w"));
    for (int times = 0; times < 2; ++times) {  // a new file, and one that stands there
        EXPECT_EQ(kSuccess, Get("RDP", Out()));
        EXPECT_NE("", bytes_of(Out()));
    }
    EXPECT_EQ("", bytes_of(log));
}

TEST_F(GetConn, ARunLogThatIsNoFileIsNotInTheWay) {
    run_options.log.reset(std::fopen("/dev/null", "w"));
    EXPECT_EQ(kSuccess, Get("RDP", "/dev/null"));
}

TEST_F(GetConn, NewerLayoutAsksForTheDefaultFirst) {
    SetImageType(6);
    ExportFile("view");
    Client().Print("get", "root/ConnectionManager/defaultConnection uuid-1\n");
    EXPECT_EQ(kSuccess, Get("VDM", Out()));
    EXPECT_EQ("<VDM>\n" + std::string(kOneLine) + general_of(export_of(kOne)) + "</VDM>\n",
              bytes_of(Out()));
    EXPECT_THAT(Client().Calls(), ElementsAre(kAskDefault, remove_call("view"), export_call("view"),
                                              remove_call("view")));
}

TEST_F(GetConn, NewerLayoutWithDefaultOfAnotherTypeWritesTheEmptyRoot) {
    SetImageType(6);
    Client().Print("get", "root/ConnectionManager/defaultConnection Default\n");
    EXPECT_EQ(kSuccess, Get("VDM", Out()));
    EXPECT_EQ("<VDM/>\n", bytes_of(Out()));
    EXPECT_THAT(Client().Calls(), ElementsAre(kAskDefault));
}

TEST_F(GetConn, OtherImageTypesDoNotAskForTheDefault) {
    ExportFile("x");
    for (const unsigned type : {1U, 2U, 3U, 4U, 5U, 7U, 8U, 9U, 10U}) {
        SCOPED_TRACE(type);
        SetImageType(type);
        Client().Forget();
        EXPECT_EQ(kSuccess, Get("x", Out()));
        EXPECT_THAT(Client().Calls(),
                    ElementsAre(remove_call("x"), export_call("x"), remove_call("x")));
    }
}

TEST_F(GetConn, TypeWithoutConnectionsWritesTheEmptyRoot) {
    Client().Export(export_of(""));
    EXPECT_EQ(kSuccess, Get("RDP", Out()));
    EXPECT_EQ("<RDP/>\n", bytes_of(Out()));
    EXPECT_EQ(kEndOfWalk, told_);
}

TEST_F(GetConn, FormerContentIsReplaced) {
    put_file(Out(), std::string(100000, 'x'));
    Client().Export(export_of(""));
    EXPECT_EQ(kSuccess, Get("RDP", Out()));
    EXPECT_EQ("<RDP/>\n", bytes_of(Out()));
}

TEST_F(GetConn, FailuresLeaveAnExistingFileUntouched) {
    put_file(Out(), "before");
    Client().Export("<Profile>");
    EXPECT_EQ(kDocumentUnusable, Get("RDP", Out()));
    EXPECT_EQ("before", bytes_of(Out()));
    Client().Status("export", 1);
    EXPECT_EQ(kExportFailed, Get("RDP", Out()));
    EXPECT_EQ("before", bytes_of(Out()));
}

TEST_F(GetConn, FailuresMakeNoFile) {
    Client().Export("<Profile>");
    EXPECT_EQ(kDocumentUnusable, Get("RDP", Out()));
    Client().Status("export", 1);
    EXPECT_EQ(kExportFailed, Get("RDP", Out()));
    EXPECT_FALSE(std::filesystem::exists(Out()));
}

TEST_F(GetConn, UnreadableExportIsItsOwnResult) {
    Client().ExportNothing();
    EXPECT_EQ(kExportUnreadable, Get("RDP", Out()));
    EXPECT_FALSE(std::filesystem::exists(Out()));
}

TEST_F(GetConn, EmptyFileNameFailsBehindTheExport) {
    EXPECT_EQ(kConnectionsFileUnwritable, Get("RDP", ""));
    EXPECT_EQ(kEndOfWalk, told_);
    EXPECT_THAT(Client().Calls(), ElementsAre(remove_call("freerdp"), export_call("freerdp"),
                                              remove_call("freerdp")));
    EXPECT_FALSE(std::filesystem::exists("/tmp/freerdp.xml"));
}

TEST_F(GetConn, MissingFolderAndFolderAreUnwritable) {
    EXPECT_EQ(kConnectionsFileUnwritable, Get("RDP", folder_.Path("missing/out.xml").string()));
    EXPECT_FALSE(std::filesystem::exists(folder_.Path("missing")));
    EXPECT_EQ(kConnectionsFileUnwritable, Get("RDP", folder_.Path().string()));
    EXPECT_EQ(kEndOfWalk, told_);
}

TEST_F(GetConn, FullDeviceIsUnwritable) {
    // Where this device has no /dev/full the test for the size limit below stands for it.
    struct stat facts = {};
    if (stat("/dev/full", &facts) == 0 && S_ISCHR(facts.st_mode)) {
        EXPECT_EQ(kConnectionsFileUnwritable, Get("RDP", "/dev/full"));
        EXPECT_EQ(kEndOfWalk, told_);
    }
    // Escaped, the export is longer than it was.
    std::string many;
    for (int i = 0; i < 200; ++i) {
        many += dir_of("uuid", key_of("label", "One"));
    }
    Client().Export(export_of(many));
    std::signal(SIGXFSZ, SIG_IGN);
    {
        const LoweredLimit small_files(RLIMIT_FSIZE, export_of(many).size() + 100);
        EXPECT_EQ(kConnectionsFileUnwritable, Get("RDP", Out()));
    }
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(kEndOfWalk, told_);
}

// In a process of its own, where the table of type names has not been made yet.
class GetConnUnidentified : public ConnTest {
protected:
    bool MakesTable() const override { return false; }
};

TEST_F(GetConnUnidentified, Throws) {
    EXPECT_EXIT(
        {
            std::filesystem::remove("/etc/systeminfo");
            std::filesystem::remove("/etc/imageid");
            int status = 0;
            try {
                get_conn("RDP", "", "", "");
            } catch (const ImageIDException& error) {
                std::fprintf(stderr, "%s", error.what());
                status = 7;
            }
            TearDown();
            _exit(status);
        },
        testing::ExitedWithCode(7), testing::Eq("Invalid Image ID"));
}
