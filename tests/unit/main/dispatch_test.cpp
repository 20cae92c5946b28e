#include "main/dispatch.h"

#include "common/result_codes.h"
#include "tests/support/conn_fixture.h"

#include <gmock/gmock.h>

// Which handler takes a type. The handlers themselves run with a client whose export fails.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Dispatch : public ConnTest {
protected:
    void SetUp() override {
        ConnTest::SetUp();
        if (!HasFatalFailure()) {
            Client().Status("export", 1);
        }
    }
    static int Get(const std::string& type) {
        int result = -1;
        EXPECT_EQ("", stderr_of([&] { result = dispatch_get(type, "out.xml", "bob", "pw"); }));
        return result;
    }
};

TEST_F(Dispatch, NullInAnyCaseHasNoHandler) {
    for (const char* type : {"NULL", "null", "Null", "nuLL"}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(kNoHandler, Get(type));
        EXPECT_EQ(kNoHandler, dispatch_set(type, "in.xml", "bob", "pw", true));
    }
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(Dispatch, EveryOtherTypeIsExported) {
    for (const char* type : {"RDP", "*", "NUL", "NULLs", "nothing"}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(kExportFailed, Get(type));
    }
    EXPECT_EQ(10U, Client().Calls().size());
}

TEST_F(Dispatch, EmptyTypeIsExported) {
    EXPECT_EQ(kExportFailed, Get(""));
    EXPECT_THAT(
        Client().Calls(),
        ElementsAre(FakeClient::Call{"rm", "-f", "/tmp/.xml"},
                    FakeClient::Call{"regsh", "export", "root/ConnectionType/", "/tmp/.xml"}));
}

TEST_F(Dispatch, HandlerGetsTypeAndFileAndItsResultIsReturned) {
    const OwnFolder folder;
    const std::string file = folder.Path("out.xml").string();
    ExportFile("x");
    Client().Status("export", 0);
    Client().Export(export_of(""));
    int result = -1;
    stderr_of([&] { result = dispatch_get("x", file, "bob", "pw"); });
    EXPECT_EQ(kSuccess, result);
    EXPECT_EQ("<x/>\n", bytes_of(file));
    stderr_of([&] { result = dispatch_get("x", folder.Path("no/file").string(), "bob", "pw"); });
    EXPECT_EQ(kConnectionsFileUnwritable, result);
    Client().ExportNothing();
    EXPECT_EQ(kExportUnreadable, Get("x"));
}

}  // namespace
