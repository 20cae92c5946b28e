#include "common/result_codes.h"
#include "connections/conn.h"
#include "tests/support/conn_fixture.h"
#include "tests/unit/connections/scarce_memory.h"

#include <cstdlib>
#include <new>
#include <set>

// The terminal emulator's session files in an export.

long allocations_left = -1;
bool allocations_come_back = false;

// Not inlined: the compiler would take malloc and free for a mismatch with the callers' operators.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (allocations_left == 0) {
        allocations_left = allocations_come_back ? -1 : 0;
        throw std::bad_alloc();
    }
    if (allocations_left > 0) {
        --allocations_left;
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
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

namespace {

constexpr const char* kEndOfWalk = "Could not find <NodeDir> - UUID. \n";
constexpr const char* kNoParam = "Could not find NodeParam. \n";

std::string unread(const std::string& name) {
    return "read file /etc/tavrin/connections/" + name + " fail\n";
}

const std::string kLabel = key_of("label", "Stock");
const std::string kSession = key_of("kssName", "stock.kss");

// The children of a Connection whose session is attached.
constexpr const char* kStockKss = "    <KSS>&lt;session id=&quot;1&quot;/&gt;\n</KSS>\n";
constexpr const char* kStockWs = "    <WS>&lt;window/&gt;\n</WS>\n";
constexpr const char* kStockStart =
    "  <Connection Name=\"Stock\" Enabled=\"yes\" TavrinName=\"Stock\" KSSFile=\"stock\">\n";
constexpr const char* kEnd = "  </Connection>\n";
constexpr const char* kPlain = "  <Connection Name=\"Stock\" Enabled=\"yes\"/>\n";

class TerminalSessions : public ConnTest {
protected:
    void SetUp() override {
        ConnTest::SetUp();
        if (!HasFatalFailure()) {
            PutSession("stock.kss", "<?xml version=\"1.0\"?>\n<session id='1'></session>\n");
            PutSession("stock.ws", "<window/>\n");
        }
    }

    int Parse(const std::string& document) {
        int result = -1;
        root_ = std::make_unique<NTiXmlElement>();
        root_->Name() = "Tavrin";
        told_ = stderr_of([&] { result = parse_conn("tavrin", root_.get(), document); });
        return result;
    }
    // Parses an export of one connection with these keys and returns how its Connection prints.
    std::string Connection(const std::string& keys) {
        const std::string document = export_of(dir_of("uuid-1", keys));
        EXPECT_EQ(kSuccess, Parse(document));
        return Connections(document);
    }
    // What the root holds ahead of General, which must carry the document.
    std::string Connections(const std::string& document) const {
        const std::string text = ToString(*root_);
        const std::string start = "<Tavrin>\n";
        const std::string end = general_of(document) + "</Tavrin>\n";
        if (!text.starts_with(start) || !text.ends_with(end)) {
            return text;
        }
        return text.substr(start.size(), text.size() - start.size() - end.size());
    }
    std::string Told() const { return told_; }

    static std::string Attached() { return std::string(kStockStart) + kStockKss + kStockWs + kEnd; }

    std::unique_ptr<NTiXmlElement> root_;
    std::string told_;
};

TEST_F(TerminalSessions, SessionIsAttachedBehindTheLabel) {
    EXPECT_EQ(Attached(), Connection(kLabel + kSession));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, SessionIsAttachedAheadOfTheLabel) {
    EXPECT_EQ(Attached(), Connection(kSession + kLabel));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, OtherKeysAndEmptyNamesAreSkipped) {
    EXPECT_EQ(Attached(), Connection(key_of("host", "h") + kLabel + key_of("", "x") +
                                     key_of("KssName", "no.kss") + kSession + key_of("port", "1")));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, DefaultConnectionOfAZeroClient) {
    SetSystemInfo("zero", "6.1");
    Client().Print("get", "root/ConnectionManager/defaultConnection uuid-1\n");
    EXPECT_EQ(std::string("  <Connection Name=\"Stock\" Enabled=\"yes\" Default=\"yes\" "
                          "TavrinName=\"Stock\" KSSFile=\"stock\">\n") +
                  kStockKss + kStockWs + kEnd,
              Connection(kLabel + kSession));
}

TEST_F(TerminalSessions, LabelAloneAttachesNothing) {
    EXPECT_EQ(kPlain, Connection(kLabel));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, SessionWithoutLabelAttachesNothing) {
    EXPECT_EQ("  <Connection Name=\"New tavrin\" Enabled=\"yes\"/>\n", Connection(kSession));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, EmptyLabelAttachesNothing) {
    EXPECT_EQ("  <Connection Name=\"\" Enabled=\"yes\"/>\n",
              Connection("<NodeKey name=\"label\"><NodeParam/></NodeKey>" + kSession));
}

TEST_F(TerminalSessions, LabelWithoutParamIsEmpty) {
    EXPECT_EQ("  <Connection Name=\"New tavrin\" Enabled=\"yes\"/>\n",
              Connection("<NodeKey name=\"label\"/>" + kSession));
    EXPECT_EQ(std::string(kNoParam) + kEndOfWalk, Told());
}

TEST_F(TerminalSessions, LaterLabelWithoutParamClearsTheLabel) {
    EXPECT_EQ(kPlain, Connection(kLabel + "<NodeKey name=\"label\"/>" + kSession));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, EmptySessionNameEndsTheKeysOfTheConnection) {
    for (const char* session :
         {"<NodeKey name=\"kssName\"/>", "<NodeKey name=\"kssName\"><NodeParam/></NodeKey>"}) {
        SCOPED_TRACE(session);
        EXPECT_EQ(kPlain, Connection(kLabel + session + kSession));
        EXPECT_EQ(kEndOfWalk, Told());
    }
}

TEST_F(TerminalSessions, KeyWithoutNameEndsTheKeysOfTheConnection) {
    EXPECT_EQ(kPlain,
              Connection("<NodeKey><NodeParam>x</NodeParam></NodeKey>" + kLabel + kSession));
    EXPECT_EQ(kPlain,
              Connection(kLabel + "<NodeKey><NodeParam>x</NodeParam></NodeKey>" + kSession));
    EXPECT_EQ(Attached(), Connection(kLabel + kSession + "<NodeKey/>"));
}

TEST_F(TerminalSessions, FirstParamOfAKeyCounts) {
    EXPECT_EQ(Attached(),
              Connection("<NodeKey name=\"kssName\"><x/><NodeParam>stock.kss</NodeParam>"
                         "<NodeParam>no.kss</NodeParam></NodeKey>" +
                         kLabel));
}

TEST_F(TerminalSessions, MissingWindowFileIsTold) {
    std::filesystem::remove("/etc/tavrin/connections/stock.ws");
    EXPECT_EQ(std::string(kStockStart) + kStockKss + kEnd, Connection(kLabel + kSession));
    EXPECT_EQ(kEndOfWalk + unread("stock.ws"), Told());
}

TEST_F(TerminalSessions, MalformedWindowFileIsTold) {
    PutSession("stock.ws", "<window>");
    EXPECT_EQ(std::string(kStockStart) + kStockKss + kEnd, Connection(kLabel + kSession));
    EXPECT_EQ(std::string(kEndOfWalk) + "Parse xml failed.\n", Told());
}

TEST_F(TerminalSessions, MissingSessionFileBehindTheLabelAttachesNothing) {
    std::filesystem::remove("/etc/tavrin/connections/stock.kss");
    EXPECT_EQ(kPlain, Connection(kLabel + kSession));
    EXPECT_EQ(kEndOfWalk + unread("stock.kss"), Told());
}

TEST_F(TerminalSessions, MissingSessionFileAheadOfTheLabelAttachesAnEmptySession) {
    std::filesystem::remove("/etc/tavrin/connections/stock.kss");
    EXPECT_EQ(std::string(kStockStart) + "    <KSS/>\n" + kStockWs + kEnd,
              Connection(kSession + kLabel));
    EXPECT_EQ(kEndOfWalk + unread("stock.kss"), Told());
}

TEST_F(TerminalSessions, MalformedSessionFileIsTold) {
    PutSession("stock.kss", "no markup");
    EXPECT_EQ(kPlain, Connection(kLabel + kSession));
    EXPECT_EQ(std::string(kEndOfWalk) + "Parse xml failed.\n", Told());
}

TEST_F(TerminalSessions, SessionFileWithoutRootElementIsSkippedSilently) {
    PutSession("stock.kss", "<!-- nothing -->");
    EXPECT_EQ(kPlain, Connection(kLabel + kSession));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, KeysBehindAnUnreadableSessionFileAreSeen) {
    EXPECT_EQ(Attached(), Connection(kLabel + key_of("kssName", "no.kss") + kSession));
    EXPECT_EQ(kEndOfWalk + unread("no.kss"), Told());
}

TEST_F(TerminalSessions, SecondLabelAttachesOnceMore) {
    EXPECT_EQ(std::string("  <Connection Name=\"Stock\" Enabled=\"yes\" TavrinName=\"Stock\" "
                          "KSSFile=\"stock\" TavrinName=\"Other\" KSSFile=\"stock\">\n") +
                  kStockKss + kStockWs + kStockKss + kStockWs + kEnd,
              Connection(kLabel + kSession + key_of("label", "Other")));
}

TEST_F(TerminalSessions, LastLabelAheadOfTheSessionCounts) {
    EXPECT_EQ(std::string("  <Connection Name=\"Stock\" Enabled=\"yes\" TavrinName=\"Other\" "
                          "KSSFile=\"stock\">\n") +
                  kStockKss + kStockWs + kEnd,
              Connection(kLabel + key_of("label", "Other") + kSession));
}

struct NameCase {
    const char* name;
    const char* session;
    const char* base;
};

class SessionName : public TerminalSessions, public testing::WithParamInterface<NameCase> {};

TEST_P(SessionName, BaseEndsAtTheFirstDot) {
    const std::string base = GetParam().base;
    PutSession(GetParam().session, "<session id=\"1\"/>");
    EXPECT_EQ("  <Connection Name=\"Stock\" Enabled=\"yes\" TavrinName=\"Stock\" KSSFile=\"" +
                  base + "\">\n" + kStockKss + kEnd,
              Connection(kLabel + key_of("kssName", GetParam().session)));
    EXPECT_EQ(kEndOfWalk + unread(base + ".ws"), Told());
    PutSession(base + ".ws", "<window/>");
    EXPECT_EQ("  <Connection Name=\"Stock\" Enabled=\"yes\" TavrinName=\"Stock\" KSSFile=\"" +
                  base + "\">\n" + kStockKss + kStockWs + kEnd,
              Connection(kLabel + key_of("kssName", GetParam().session)));
}

INSTANTIATE_TEST_SUITE_P(Names, SessionName,
                         testing::Values(NameCase{"NoDot", "abc", "abc"},
                                         NameCase{"TwoDots", "a.b.kss", "a"},
                                         NameCase{"OtherExtension", "abc.session", "abc"},
                                         NameCase{"LeadingDot", ".kss", ""},
                                         NameCase{"TrailingDot", "abc.", "abc"},
                                         NameCase{"SubFolder", "night/abc.kss", "night/abc"},
                                         NameCase{"Blanks", "night shift.kss", "night shift"}),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(TerminalSessions, ConnectionsAndDirectoriesArePairedByPosition) {
    PutSession("two.kss", "<two/>");
    PutSession("two.ws", "<w2/>");
    const std::string document =
        export_of(dir_of("uuid-1", kLabel) +
                  dir_of("uuid-2", key_of("label", "Two") + key_of("kssName", "two.kss")) +
                  dir_of("uuid-3", kSession + kLabel));
    EXPECT_EQ(kSuccess, Parse(document));
    EXPECT_EQ(std::string(kPlain) +
                  "  <Connection Name=\"Two\" Enabled=\"yes\" TavrinName=\"Two\" KSSFile=\"two\">\n"
                  "    <KSS>&lt;two/&gt;\n</KSS>\n"
                  "    <WS>&lt;w2/&gt;\n</WS>\n"
                  "  </Connection>\n" +
                  Attached(),
              Connections(document));
}

TEST_F(TerminalSessions, PrunedConnectionsStayPaired) {
    SetImageType(6);
    run_options.default_connection = "uuid-2";
    EXPECT_EQ(kSuccess,
              Parse(export_of(dir_of("uuid-1", key_of("label", "One")) +
                              dir_of("uuid-2", kLabel + kSession) + dir_of("uuid-3", kLabel))));
    EXPECT_EQ(Attached(), Connections(export_of(dir_of("uuid-2", kLabel + kSession))));
}

TEST_F(TerminalSessions, FirstSubDirectoryIsReadWhateverItsName) {
    const std::string document =
        export_around(dir_of("settings", dir_of("x", key_of("label", "Set") + kSession)) +
                      dir_of("connections", dir_of("uuid-1", key_of("label", "Conn"))));
    EXPECT_EQ(kSuccess, Parse(document));
    EXPECT_EQ(std::string("  <Connection Name=\"Conn\" Enabled=\"yes\" TavrinName=\"Set\" "
                          "KSSFile=\"stock\">\n") +
                  kStockKss + kStockWs + kEnd,
              Connections(document));
    EXPECT_EQ(kEndOfWalk, Told());
}

TEST_F(TerminalSessions, DirectoriesBeyondTheConnectionsAreReadAndNotAttached) {
    const std::string document =
        export_around(dir_of("settings", dir_of("x", kLabel + kSession) +
                                             dir_of("y", kLabel + key_of("kssName", "no.kss")) +
                                             dir_of("z", key_of("kssName", "gone.kss") + kLabel)) +
                      dir_of("connections", dir_of("uuid-1", kLabel)));
    EXPECT_EQ(kSuccess, Parse(document));
    EXPECT_EQ(Attached(), Connections(document));
    EXPECT_EQ(kEndOfWalk + unread("no.kss") + unread("gone.kss") + unread("gone.ws"), Told());
}

TEST_F(TerminalSessions, FewerDirectoriesThanConnectionsLeaveTheOthersPlain) {
    const std::string document =
        export_around(dir_of("settings", "") + dir_of("connections", dir_of("uuid-1", kLabel)));
    EXPECT_EQ(kSuccess, Parse(document));
    EXPECT_EQ(kPlain, Connections(document));
}

TEST_F(TerminalSessions, SessionsAreReadAlsoWithoutConnections) {
    EXPECT_EQ(kSuccess,
              Parse(export_around(dir_of("settings", dir_of("x", key_of("kssName", "no.kss"))))));
    EXPECT_EQ("<Tavrin/>\n", ToString(*root_));
    EXPECT_EQ("Could not find <NodeDir> - connections. \n" + unread("no.kss"), Told());
}

TEST_F(TerminalSessions, MissingLevelsAreNoError) {
    EXPECT_EQ(kSuccess, Parse("<Profile/>"));
    EXPECT_EQ("Could not find <ProfileRegistry>. \n", Told());
    EXPECT_EQ(kSuccess, Parse("<Profile><ProfileRegistry/></Profile>"));
    EXPECT_EQ("Could not find <NodeDir> - type. \n", Told());
    EXPECT_EQ(kSuccess, Parse(export_around("")));
    EXPECT_EQ("Could not find <NodeDir> - connections. \n", Told());
    EXPECT_EQ("<Tavrin/>\n", ToString(*root_));
}

TEST_F(TerminalSessions, EveryFailingAllocationIsAnErrorResult) {
    constexpr const char* kRefused = "Failed to parse the exported registry information.\n";
    constexpr const char* kSessionsRefused = "Failed to parse the tavrin configure file.\n";
    SetImageType(5);
    const std::string document = export_of(dir_of("uuid-1", kLabel + kSession));
    std::set<std::string> told;
    int result = kDocumentUnusable;
    for (long allocations = 0; result != kSuccess && allocations < 10000; ++allocations) {
        root_ = std::make_unique<NTiXmlElement>();
        testing::internal::CaptureStderr();
        allocations_left = allocations;
        try {
            result = parse_conn("tavrin", root_.get(), document);
        } catch (const std::bad_alloc&) {
            result = -1;  // the document's own text did not fit
        }
        allocations_left = -1;
        std::string message = testing::internal::GetCapturedStderr();
        if (result == kDocumentUnusable) {
            told.insert(message.substr(message.rfind('\n', message.size() - 2) + 1));
            if (message.ends_with(kSessionsRefused)) {  // what was added before stays
                EXPECT_NE(nullptr, root_->ChildElement("General", 0)) << allocations;
            }
        } else {
            EXPECT_TRUE(result == kSuccess || (result == -1 && allocations < 5)) << allocations;
        }
    }
    EXPECT_EQ(kSuccess, result);
    EXPECT_EQ((std::set<std::string>{kRefused, kSessionsRefused}), told);
}

}  // namespace
