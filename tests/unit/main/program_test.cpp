#include "main/program.h"

#include "common/result_codes.h"
#include "tests/support/conn_fixture.h"

#include <gmock/gmock.h>

// Whole runs in a current folder of their own: every byte of the log, of both streams, the result.

namespace {

using testing::IsEmpty;

constexpr const char* kSyntaxMessage =
    "The syntax is incorrect. \nTry \"corvik -h\" for more information. \n";
constexpr const char* kEndOfWalk = "Could not find <NodeDir> - UUID. \n";

class RunProgram : public ConnTest {
protected:
    void SetUp() override {
        ConnTest::SetUp();
        before_ = std::filesystem::current_path();
        std::filesystem::current_path(folder_.Path());
    }
    void TearDown() override {
        std::filesystem::current_path(before_);
        ConnTest::TearDown();
    }

    int Run(std::vector<std::string> words) {
        words.insert(words.begin(), "corvik");
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int result = run_program(static_cast<int>(words.size()), arguments.data());
        stderr_ = testing::internal::GetCapturedStderr();
        stdout_ = testing::internal::GetCapturedStdout();
        return result;
    }
    static std::string Log() { return bytes_of("corvik.log"); }

    OwnFolder folder_;
    std::filesystem::path before_;
    std::string stdout_;
    std::string stderr_;
};

TEST_F(RunProgram, SyntaxErrorLeavesNoLog) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {}, {"get", "RDP", "-f", "out.xml"}, {"-get", "RDP", "-f"}, {"-x"}}) {
        EXPECT_EQ(kSyntaxError, Run(words));
        EXPECT_EQ("", stdout_);
        EXPECT_EQ(kSyntaxMessage, stderr_);
        EXPECT_FALSE(std::filesystem::exists("corvik.log"));
    }
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(RunProgram, SyntaxErrorLeavesAnOlderLogAsItWas) {
    put_file("corvik.log", "before");
    EXPECT_EQ(kSyntaxError, Run({"-get", "RDP", "-f", "out.xml", "-x"}));
    EXPECT_EQ("before", Log());
}

TEST_F(RunProgram, Version) {
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"-v"}, {"-V"}, {"-v", "extra", "words"}}) {
        EXPECT_EQ(kSuccess, Run(words));
        EXPECT_EQ("Quorvel: 1.0.0.29438\n", stdout_);
        EXPECT_EQ("", stderr_);
        EXPECT_EQ("  [******] [******] 0\r\nrc=0\n", Log());
    }
}

TEST_F(RunProgram, Usage) {
    for (const char* word : {"-h", "-H"}) {
        EXPECT_EQ(kSuccess, Run({word}));
        EXPECT_TRUE(stdout_.starts_with("The usage of Quorvel: \n")) << stdout_;
        EXPECT_TRUE(stdout_.ends_with("    -h    Output this usage.\n")) << stdout_;
        EXPECT_EQ("", stderr_);
        EXPECT_EQ("  [******] [******] 0\r\nrc=0\n", Log());
    }
}

TEST_F(RunProgram, OlderLogIsReplaced) {
    put_file("corvik.log", std::string(5000, 'x'));
    EXPECT_EQ(kSuccess, Run({"-v"}));
    EXPECT_EQ("  [******] [******] 0\r\nrc=0\n", Log());
}

TEST_F(RunProgram, Get) {
    ExportFile("x");
    Client().Export(export_of(dir_of("uuid-1", key_of("label", "One"))));
    EXPECT_EQ(kSuccess, Run({"-get", "x", "-f", "out.xml"}));
    EXPECT_EQ("", stdout_);
    EXPECT_EQ(kEndOfWalk, stderr_);
    EXPECT_EQ("x out.xml [******] [******] 0\r\nrc=0\n", Log());
    EXPECT_EQ("<x>\n  <Connection Name=\"One\" Enabled=\"yes\"/>\n" +
                  general_of(export_of(dir_of("uuid-1", key_of("label", "One")))) + "</x>\n",
              bytes_of("out.xml"));
}

TEST_F(RunProgram, UserAndPasswordNeverReachTheLog) {
    ExportFile("x");
    Client().Export(export_of(""));
    EXPECT_EQ(kSuccess, Run({"-get", "x", "-u", "bob", "-p", "pw1", "-f", "out.xml"}));
    EXPECT_EQ("x out.xml [******] [******] 0\r\nrc=0\n", Log());
    EXPECT_EQ("", stdout_);
    EXPECT_EQ(kEndOfWalk, stderr_);
}

TEST_F(RunProgram, FileNamedLikeTheRemoveOptionIsBoth) {
    ExportFile("x");
    Client().Export(export_of(""));
    EXPECT_EQ(kSuccess, Run({"-get", "x", "-f", "-r"}));
    EXPECT_EQ("x -r [******] [******] 1\r\nrc=0\n", Log());
    EXPECT_EQ("<x/>\n", bytes_of("-r"));
}

TEST_F(RunProgram, WithoutFileTheWriteFails) {
    ExportFile("x");
    Client().Export(export_of(""));
    EXPECT_EQ(kConnectionsFileUnwritable, Run({"-get", "x", "a", "b"}));
    EXPECT_EQ("x  [******] [******] 0\r\nrc=12\n", Log());
    EXPECT_EQ(kEndOfWalk, stderr_);
}

TEST_F(RunProgram, ResultOfTheHandlerIsLoggedAndReturned) {
    Client().Status("export", 3);
    EXPECT_EQ(kExportFailed, Run({"-get", "x", "-f", "out.xml"}));
    EXPECT_EQ("x out.xml [******] [******] 0\r\nrc=50\n", Log());
    EXPECT_EQ("", stderr_);
    EXPECT_FALSE(std::filesystem::exists("out.xml"));
}

TEST_F(RunProgram, TypeWithoutHandler) {
    EXPECT_EQ(kNoHandler, Run({"-get", "null", "-f", "out.xml"}));
    EXPECT_EQ("", stdout_);
    EXPECT_EQ("", stderr_);
    EXPECT_EQ("null out.xml [******] [******] 0\r\nrc=2\n", Log());
    EXPECT_EQ(kNoHandler, Run({"-set", "NULL", "-f", "in.xml", "-r"}));
    EXPECT_EQ("NULL in.xml [******] [******] 1\r\nrc=2\n", Log());
    EXPECT_THAT(Client().Calls(), IsEmpty());
}

TEST_F(RunProgram, UnopenableLogAbandonsTheRunWithoutAnErrorStatus) {
    std::filesystem::create_directory("corvik.log");
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"-v"}, {"-h"}, {"-get", "x", "-f", "out.xml"}}) {
        EXPECT_EQ(kSuccess, Run(words));
        EXPECT_EQ("", stdout_);
        EXPECT_EQ("Failed to open corvik logger file.\n", stderr_);
    }
    EXPECT_THAT(Client().Calls(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists("out.xml"));
}

TEST_F(RunProgram, RunThatEndsAbnormallyLeavesTheHeaderLine) {
    ExportFile("x");
    Client().Export("no markup");
    EXPECT_THROW(Run({"-get", "x", "-f", "out.xml"}), std::out_of_range);
    // Read first: the end of a capture flushes every stream.
    const std::string log = Log();
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ("x out.xml [******] [******] 0\r\n", log);
    EXPECT_FALSE(std::filesystem::exists("out.xml"));
}

TEST_F(RunProgram, LogIsClosedBehindTheRun) {
    EXPECT_EQ(kSuccess, Run({"-v"}));
    EXPECT_EQ(nullptr, run_options.log);
}

}  // namespace
