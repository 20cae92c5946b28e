#include "platform/system_identity.h"

#include "platform/command_runner.h"
#include "tests/support/device_fixture.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>

namespace {

class SystemIdentity : public DeviceTest {
protected:
    static std::string ProductConfig() {
        std::string configuration = "untouched";
        EXPECT_TRUE(read_product_config(configuration));
        return configuration;
    }
    static bool IsZero(const std::string& configuration, const std::string& version) {
        SetProduct("Sylvex", configuration, version);
        return is_zero_product();
    }
};

TEST_F(SystemIdentity, ImageTypes) {
    for (unsigned type = 1; type <= 10; ++type) {
        SetImageType(type);
        EXPECT_EQ(current_image_type(), type);
    }
}

TEST_F(SystemIdentity, ImageTypeWithoutIdentity) {
    EXPECT_EQ(current_image_type(), 10U);
}

TEST_F(SystemIdentity, ProductConfigAsWritten) {
    SetProduct("Sylvex", "ZeRo client", "6.1");
    EXPECT_EQ(ProductConfig(), "ZeRo client");
}

TEST_F(SystemIdentity, ProductConfigIsTrimmed) {
    SetProduct("Sylvex", " zero\t", "6.1");
    EXPECT_EQ(ProductConfig(), "zero");
}

TEST_F(SystemIdentity, ProductConfigOfTheFirstLine) {
    WriteSystemInfo("A=\"b\"\nPRODUCT_CONFIG=\"one\"\nPRODUCT_CONFIG=\"two\"\n");
    EXPECT_EQ(ProductConfig(), "one");
}

TEST_F(SystemIdentity, ProductConfigWithoutQuotesIsTheWholeLine) {
    WriteSystemInfo("PRODUCT_CONFIG=zero\n");
    EXPECT_EQ(ProductConfig(), "PRODUCT_CONFIG=zero");
}

TEST_F(SystemIdentity, ProductConfigEmptyOrAbsent) {
    SetProduct("Sylvex", "", "6.1");
    EXPECT_EQ(ProductConfig(), "");
    WriteSystemInfo("PRODUCT_NAME=\"Sylvex\"\n");
    EXPECT_EQ(ProductConfig(), "");
}

// Files that are read without the pipeline's programs, and some that are not.
constexpr const char* kSystemInfos[] = {
    "PRODUCT_CONFIG=\"zero\"\n",
    "PRODUCT_CONFIG=\"zero\"",
    "X=\"1\"\n\n  PRODUCT_CONFIG \t= \" two  words\t\" # \"more\"\nPRODUCT_CONFIG=\"last\"\n",
    "PRODUCT_CONFIG=\"open\nPRODUCT_CONFIG=\"closed\"\n",
    "\"before\" PRODUCT_CONFIG=\"behind\"\n",
    "NO_PRODUCT_CONFIGURATION=plain \n",
    "PRODUCT_CONFIG=\"\"\n",
    "PRODUCT_CONFIG\n",
    "PRODUCT_CONFIG=\"\"\"three\"\n",
    "product_config=\"small\"\n",
    "\n",
    "",
    "PRODUCT_CONFIG=\"carriage\"\r\n",
    "PRODUCT_CONFIG=\"\v\"\n",
    "PRODUCT_CONFIG=\"\xC3\xA9\"\n",
    "PRODUCT_CONFIG=\"\x7F\"\n",
    "A=1\nPRODUCT_CONFIG=none\nB=\"2\"\n",
    "PRODUCT_CONFI=\"short\"\nPRODUCT_CONFIG=\"whole\"\n",
};

TEST_F(SystemIdentity, ProductConfigIsWhatThePipelineSays) {
    for (const char* text : kSystemInfos) {
        WriteSystemInfo(text);
        std::string said;
        ASSERT_TRUE(run_command_first_line(
            R"(cat /etc/systeminfo | grep PRODUCT_CONFIG | head -n1 | cut -d '"' -f 2)", said));
        EXPECT_EQ(ProductConfig(), said) << text;
    }
}

TEST_F(SystemIdentity, ProductConfigOfAFileWithANulIsWhatThePipelineSays) {
    WriteSystemInfo(std::string("PRODUCT_CONFIG=\"zero\"\n\0", 23));
    const std::string messages = captured_stderr([] { EXPECT_EQ(ProductConfig(), ""); });
    EXPECT_NE(messages.find("matches"), std::string::npos) << messages;
}

// What one reader takes of a pipe is lost to the next.
TEST_F(SystemIdentity, ProductConfigOfAPipeIsLeftToThePipeline) {
    ASSERT_EQ(mkfifo(kSystemInfo, 0600), 0);
    const pid_t writer = fork();
    if (writer == 0) {
        for (const char* value : {"\xC3\xA9", "second"}) {
            SetProduct("Sylvex", value, "6.1");  // waits for a reader
        }
        _exit(0);
    }
    EXPECT_EQ(ProductConfig(), "\xC3\xA9");
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
}

TEST_F(SystemIdentity, ProductConfigOfAPlainFileNeedsNoProgram) {
    setenv("PATH", "/nowhere", 1);
    for (const char* value : {"zero", "a b", "!", "~", "a\tb"}) {
        SetProduct("Sylvex", value, "6.1");
        EXPECT_EQ(ProductConfig(), value);
    }
    WriteSystemInfo("\n");
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(ProductConfig(), ""); }), "");
}

TEST_F(SystemIdentity, ProductConfigOfAFileThatIsNotPlainNeedsPrograms) {
    setenv("PATH", "/nowhere", 1);
    for (const char* value : {"\x1F", "\x7F", "\r", "\v", "\xC3\xA9"}) {
        SetProduct("Sylvex", value, "6.1");
        const std::string messages = captured_stderr([] { EXPECT_EQ(ProductConfig(), ""); });
        EXPECT_NE(messages, "");
    }
}

TEST_F(SystemIdentity, ProductConfigOfUpTo999BytesNeedsNoProgram) {
    setenv("PATH", "/nowhere", 1);
    const std::string line = "PRODUCT_CONFIG=\"zero\"\n";
    WriteSystemInfo(line + std::string(999 - line.size(), 'x'));
    EXPECT_EQ(ProductConfig(), "zero");
    WriteSystemInfo(line + std::string(1000 - line.size(), 'x'));
    const std::string messages = captured_stderr([] { EXPECT_EQ(ProductConfig(), ""); });
    EXPECT_NE(messages, "");
}

TEST_F(SystemIdentity, ProductConfigOfALongFileIsWhatThePipelineSays) {
    for (const std::size_t size : {900U, 960U, 970U, 971U, 980U, 1100U, 5000U}) {
        WriteSystemInfo("PRODUCT_CONFIG=\"" + std::string(size, 'x') + "\" " +
                        std::string(12, 'y'));
        EXPECT_EQ(ProductConfig(), std::string(std::min<std::size_t>(size, 1022), 'x')) << size;
    }
}

TEST_F(SystemIdentity, ProductConfigIsAskedAgainWhenTheFileHasChanged) {
    SetProduct("Sylvex", "zero", "6.1");
    EXPECT_TRUE(is_zero_product());
    SetProduct("Sylvex", "standard", "6.1");
    EXPECT_FALSE(is_zero_product());
}

TEST_F(SystemIdentity, ProductConfigWithoutFile) {
    const std::string messages = captured_stderr([] { EXPECT_EQ(ProductConfig(), ""); });
    EXPECT_NE(messages.find("/etc/systeminfo"), std::string::npos) << messages;
}

TEST_F(SystemIdentity, ProductConfigWithAFolderInTheFilesPlace) {
    std::filesystem::create_directory(kSystemInfo);
    const std::string messages = captured_stderr([] { EXPECT_EQ(ProductConfig(), ""); });
    EXPECT_NE(messages.find("/etc/systeminfo"), std::string::npos) << messages;
}

TEST_F(SystemIdentity, ProductConfigLeavesTheTextWhenNotStarted) {
    for (const bool has_file : {false, true}) {
        if (has_file) {
            SetProduct("Sylvex", "zero", "6.1");
        }
        std::string configuration = "untouched";
        bool started = true;
        {
            const NoMoreDescriptors limit;
            started = read_product_config(configuration);
        }
        EXPECT_FALSE(started) << has_file;
        EXPECT_EQ(configuration, "untouched") << has_file;
    }
}

TEST_F(SystemIdentity, ProductConfigBelongsToTypes8To10) {
    for (unsigned type = 0; type <= 12; ++type) {
        EXPECT_EQ(has_product_config(type), type == 8 || type == 9 || type == 10) << type;
    }
}

TEST_F(SystemIdentity, ZeroProducts) {
    for (const char* version : {"5.1", "6.1", "7.1"}) {
        EXPECT_TRUE(IsZero("zero", version)) << version;
        EXPECT_TRUE(IsZero("Zero", version)) << version;
    }
}

TEST_F(SystemIdentity, ZeroIsCaseSensitive) {
    EXPECT_FALSE(IsZero("ZERO", "5.1"));
    EXPECT_EQ(current_image_type(), 8U);
    EXPECT_FALSE(IsZero("zerO", "6.1"));
}

TEST_F(SystemIdentity, StandardIsNotZero) {
    EXPECT_FALSE(IsZero("standard", "6.1"));
    EXPECT_FALSE(IsZero("", "6.1"));
}

TEST_F(SystemIdentity, ZeroOnOlderBuildsIsNotZero) {
    EXPECT_FALSE(IsZero("zero", "4.1"));
    EXPECT_EQ(current_image_type(), 6U);
}

TEST_F(SystemIdentity, ZeroWithoutIdentityCounts) {
    // Another product, so that there is no identity: type 10.
    SetProduct("Other", "zero", "1.1");
    EXPECT_TRUE(is_zero_product());
}

TEST_F(SystemIdentity, ZeroByImageIdentifierOfAnotherTypeDoesNotCount) {
    SetProduct("Other", "zero", "6.1");
    WriteImageID("TXX41012\n");
    EXPECT_EQ(current_image_type(), 7U);
    EXPECT_FALSE(is_zero_product());
}

}  // namespace
