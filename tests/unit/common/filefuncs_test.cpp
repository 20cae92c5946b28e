#include "common/filefuncs.h"

#include "tests/unit/common/test_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

namespace {

// The most that the next call of fwrite takes; 0: no limit.
std::size_t next_write_takes = 0;

}  // namespace

// The program's own symbol comes before the C library's.
extern "C" std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE* stream) {
    const std::size_t most = std::exchange(next_write_takes, 0);
    return ::fwrite_unlocked(data, size, most == 0 ? count : std::min(count, most), stream);
}

namespace {

using namespace std::string_literals;
using testing::Eq;
using testing::KilledBySignal;

// Bytes without a NUL that differ from place to place.
std::string pattern(std::size_t size) {
    std::string text;
    for (std::size_t at = 0; at < size; ++at) {
        text += static_cast<char>(1 + at % 255);
    }
    return text;
}

// Sizes around the blocks that files are read in.
constexpr std::size_t kSizes[] = {0,    1,    1019, 1020, 1021, 1022,  1023,
                                  1024, 1025, 2045, 2046, 2047, 100000};

class ReadFile : public testing::Test {
protected:
    std::string Read(const std::string& bytes) {
        std::string content;
        EXPECT_TRUE(readfile(folder_.Put("in", bytes).c_str(), content));
        return content;
    }
    TestFolder folder_;
};

TEST_F(ReadFile, EmptyFileIsTrueAndLeavesTheContent) {
    std::string content = "before";
    EXPECT_TRUE(readfile(folder_.Put("in", "").c_str(), content));
    EXPECT_EQ(content, "before");
}

TEST_F(ReadFile, AppendsToTheContent) {
    std::string content = "before ";
    EXPECT_TRUE(readfile(folder_.Put("in", "after").c_str(), content));
    EXPECT_EQ(content, "before after");
}

TEST_F(ReadFile, MissingFileIsFalseAndLeavesTheContent) {
    std::string content = "before";
    EXPECT_FALSE(readfile(folder_.Path("missing").c_str(), content));
    EXPECT_EQ(content, "before");
}

TEST_F(ReadFile, EmptyPathIsFalse) {
    std::string content;
    EXPECT_FALSE(readfile("", content));
}

TEST_F(ReadFile, AFolderReadsAsEmpty) {
    std::string content = "before";
    EXPECT_TRUE(readfile(folder_.Name().c_str(), content));
    EXPECT_EQ(content, "before");
}

TEST_F(ReadFile, EverySizeAroundTheBlocks) {
    for (const std::size_t size : kSizes) {
        EXPECT_EQ(Read(pattern(size)), pattern(size)) << size;
    }
}

TEST_F(ReadFile, LineEndsStay) {
    EXPECT_EQ(Read("a\r\nb\rc\n"), "a\r\nb\rc\n");
}

TEST_F(ReadFile, ANulCutsTheRestOfAShortFile) {
    EXPECT_EQ(Read("abc\0def"s), "abc");
    EXPECT_EQ(Read("\0def"s), "");
}

TEST_F(ReadFile, ANulCutsItsBlockOf1023BytesOnly) {
    std::string bytes = pattern(3000);
    bytes[10] = '\0';
    bytes[20] = '\0';
    EXPECT_EQ(Read(bytes), bytes.substr(0, 10) + bytes.substr(1023));
}

TEST_F(ReadFile, ANulAtTheLastByteOfABlockCutsThatByteOnly) {
    std::string bytes = pattern(3000);
    bytes[1022] = '\0';
    EXPECT_EQ(Read(bytes), bytes.substr(0, 1022) + bytes.substr(1023));
}

TEST_F(ReadFile, ANulAtTheFirstByteOfABlockCutsThatBlock) {
    std::string bytes = pattern(3000);
    bytes[1023] = '\0';
    EXPECT_EQ(Read(bytes), bytes.substr(0, 1023) + bytes.substr(2046));
}

class WriteFile : public testing::Test {
protected:
    static bool Write(const std::string& path, const std::string& bytes) {
        return writefile(path.c_str(), bytes.data(), static_cast<int>(bytes.size()));
    }
    TestFolder folder_;
};

TEST_F(WriteFile, EverySizeWithEveryByte) {
    for (const std::size_t size : kSizes) {
        const std::string bytes = "\0"s + pattern(size) + "\0\r\n"s;
        EXPECT_TRUE(Write(folder_.Path("out"), bytes)) << size;
        EXPECT_EQ(file_bytes(folder_.Path("out")), bytes) << size;
    }
}

TEST_F(WriteFile, LengthZeroIsTrueAndEmptiesTheFile) {
    const std::string path = folder_.Put("out", "old");
    EXPECT_TRUE(writefile(path.c_str(), "ignored", 0));
    EXPECT_EQ(file_bytes(path), "");
}

TEST_F(WriteFile, ANegativeLengthCannotBeWritten) {
    EXPECT_FALSE(writefile(folder_.Path("out").c_str(), "abc", -1));
}

TEST_F(WriteFile, WritesLengthBytesOfALongerText) {
    EXPECT_TRUE(writefile(folder_.Path("out").c_str(), "abcdef", 3));
    EXPECT_EQ(file_bytes(folder_.Path("out")), "abc");
}

TEST_F(WriteFile, TruncatesTheOldFile) {
    const std::string path = folder_.Put("out", "a longer old text");
    EXPECT_TRUE(Write(path, "new"));
    EXPECT_EQ(file_bytes(path), "new");
}

TEST_F(WriteFile, MissingFolderIsFalseAndCreatesNothing) {
    EXPECT_FALSE(Write(folder_.Path("no/out"), "text"));
    EXPECT_TRUE(std::filesystem::is_empty(folder_.Name()));
}

TEST_F(WriteFile, AFolderIsFalse) {
    EXPECT_FALSE(Write(folder_.Name(), "text"));
    EXPECT_TRUE(std::filesystem::is_directory(folder_.Name()));
}

TEST_F(WriteFile, AWriteThatTakesAPartGoesOnBehindIt) {
    const std::string bytes = pattern(100);
    next_write_takes = 10;
    EXPECT_TRUE(writefile(folder_.Path("out").c_str(), bytes.data(), 50));
    EXPECT_EQ(file_bytes(folder_.Path("out")), bytes.substr(0, 50));
}

TEST_F(WriteFile, AFullDeviceIsFalseForFewBytes) {
    EXPECT_FALSE(Write("/dev/full", "x"));
}

TEST_F(WriteFile, AFullDeviceIsFalseForManyBytes) {
    EXPECT_FALSE(Write("/dev/full", pattern(1000000)));
}

TEST_F(WriteFile, AFullDeviceTakesNothingGladly) {
    EXPECT_TRUE(Write("/dev/full", ""));
}

// Lowers the size that a file of this process may have, for the time of its life.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &limit_);
        handler_ = signal(SIGXFSZ, SIG_IGN);
        const rlimit lower = {bytes, limit_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &lower), 0);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &limit_);
        signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit limit_{};
    sighandler_t handler_ = SIG_DFL;
};

bool write_limited(rlim_t limit, const std::string& path, const std::string& bytes) {
    const FileSizeLimit lower(limit);
    return writefile(path.c_str(), bytes.data(), static_cast<int>(bytes.size()));
}

TEST_F(WriteFile, ACutInsideTheStreamsBufferIsFalse) {
    EXPECT_FALSE(write_limited(10, folder_.Path("out"), pattern(100)));
    EXPECT_EQ(file_bytes(folder_.Path("out")), pattern(10));
}

TEST_F(WriteFile, ACutBehindTheStreamsBufferIsFalse) {
    EXPECT_FALSE(write_limited(100000, folder_.Path("out"), pattern(300000)));
    EXPECT_EQ(file_bytes(folder_.Path("out")), pattern(100000));
}

TEST_F(WriteFile, ACutOfTheLastByteIsFalse) {
    EXPECT_FALSE(write_limited(99999, folder_.Path("out"), pattern(100000)));
}

TEST_F(WriteFile, AFileOfExactlyTheLimitIsTrue) {
    EXPECT_TRUE(write_limited(100000, folder_.Path("out"), pattern(100000)));
    EXPECT_EQ(file_bytes(folder_.Path("out")), pattern(100000));
}

class ReadFile2Ele : public testing::Test {
protected:
    // The element as it prints, or "null".
    static std::string Printed(const std::string& path) {
        const std::unique_ptr<NTiXmlElement> element(readfile2Ele(path.c_str()));
        return element ? ToString(*element) : "null";
    }
    static std::string NameOf(const std::string& path) {
        const std::unique_ptr<NTiXmlElement> element(readfile2Ele(path.c_str()));
        if (!element || element->AttributeValue("Name") == nullptr) {
            ADD_FAILURE() << "no name for " << path;
            return {};
        }
        return *element->AttributeValue("Name");
    }
    TestFolder folder_;
};

TEST_F(ReadFile2Ele, TextIsUpperCaseHexAndNameTheBaseName) {
    EXPECT_EQ(Printed(folder_.Put("session.tv", "Az\n\xFF")),
              "<File Name=\"session.tv\">417A0AFF</File>\n");
}

TEST_F(ReadFile2Ele, HasOneAttributeAndNoChildren) {
    const std::unique_ptr<NTiXmlElement> element(readfile2Ele(folder_.Put("f", "x").c_str()));
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(element->Name(), "File");
    EXPECT_EQ(element->Text(), "78");
    EXPECT_NE(element->AttributeAt(0), nullptr);
    EXPECT_EQ(element->AttributeAt(1), nullptr);
    EXPECT_TRUE(element->Children().empty());
}

TEST_F(ReadFile2Ele, EmptyFileHasNoText) {
    EXPECT_EQ(Printed(folder_.Put("f", "")), "<File Name=\"f\"/>\n");
}

TEST_F(ReadFile2Ele, ABigFileIsWhole) {
    std::string bytes(5000, 'A');
    std::string hex;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        hex += "41";
    }
    EXPECT_EQ(Printed(folder_.Put("f", bytes)), "<File Name=\"f\">" + hex + "</File>\n");
}

TEST_F(ReadFile2Ele, ANulCutsItsBlockAsReadfileDoes) {
    EXPECT_EQ(Printed(folder_.Put("f", "AB\0C"s)), "<File Name=\"f\">4142</File>\n");
}

TEST_F(ReadFile2Ele, TheBaseNameStartsBehindTheLastBackslash) {
    EXPECT_EQ(NameOf(folder_.Put("dir\\name", "x")), "name");
}

TEST_F(ReadFile2Ele, TheBaseNameStartsBehindTheLastSlashAfterABackslash) {
    std::filesystem::create_directory(folder_.Path("a\\b"));
    EXPECT_EQ(NameOf(folder_.Put("a\\b/name", "x")), "name");
}

TEST_F(ReadFile2Ele, APathWithoutSeparatorIsTheName) {
    // A name of this process's own, in the current folder itself.
    const std::string name = folder_.Name() + ".plain";
    std::filesystem::copy_file(folder_.Put("f", "x"), name);
    EXPECT_EQ(NameOf(name), name);
    std::filesystem::remove(name);
}

TEST_F(ReadFile2Ele, TheNameIsEscapedWithoutThePercentForm) {
    EXPECT_EQ(NameOf(folder_.Put("a&b 'c'\t\x01", "x")), "a&amp;b &apos;c&apos;\t?");
}

TEST_F(ReadFile2Ele, AFolderIsAnEmptyFile) {
    EXPECT_EQ(Printed(folder_.Name()), "<File Name=\"" + folder_.Name() + "\"/>\n");
}

TEST_F(ReadFile2Ele, AMissingFileIsNullAndSaidOnStandardError) {
    const std::string path = folder_.Path("missing %s");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Printed(path), "null");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to read " + path + "\n");
}

class ReadVersionAttribute : public testing::Test {
protected:
    std::string Version(const std::string& document) {
        std::string version = "from before";
        read_version_attribute(version, folder_.Put("doc.xml", document));
        return version;
    }
    TestFolder folder_;
};

TEST_F(ReadVersionAttribute, OfTheRootElement) {
    EXPECT_EQ(Version("<?xml version=\"1.0\"?><!-- n --><r Name='x' Version='4.2'/>"), "4.2");
}

TEST_F(ReadVersionAttribute, IsDecoded) {
    EXPECT_EQ(Version("<r Version='a &amp;  b'/>"), "a & b");
}

TEST_F(ReadVersionAttribute, TheFirstOfTwo) {
    EXPECT_EQ(Version("<r Version='1' Version='2'/>"), "1");
}

TEST_F(ReadVersionAttribute, MissingIsEmpty) {
    EXPECT_EQ(Version("<r version='1'><c Version='2'/></r>"), "");
}

TEST_F(ReadVersionAttribute, OfTheFirstRootOnly) {
    EXPECT_EQ(Version("<r/><r Version='2'/>"), "");
}

TEST_F(ReadVersionAttribute, WithoutRootIsEmpty) {
    EXPECT_EQ(Version("<!-- only a comment -->"), "");
    EXPECT_EQ(Version(""), "");
}

TEST_F(ReadVersionAttribute, OfAMalformedDocumentIsEmpty) {
    EXPECT_EQ(Version("<r Version='1'>"), "");
    EXPECT_EQ(Version("<r Version='1'/>text"), "");
}

TEST_F(ReadVersionAttribute, OfAMissingFileIsEmpty) {
    std::string version = "from before";
    read_version_attribute(version, folder_.Path("missing"));
    EXPECT_EQ(version, "");
}

TEST_F(ReadVersionAttribute, OfAFolderIsEmpty) {
    std::string version = "from before";
    read_version_attribute(version, folder_.Name());
    EXPECT_EQ(version, "");
}

TEST(FileFuncsDeathTest, ReadfileWithoutPath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string content;
    EXPECT_EXIT(readfile(nullptr, content), KilledBySignal(SIGABRT),
                Eq("corvik: common/filefuncs:15: bool readfile(const char*, std::string&): "
                   "Assertion `szfile' failed.\n"));
}

TEST(FileFuncsDeathTest, WritefileWithoutPath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(writefile(nullptr, "text", 4), KilledBySignal(SIGABRT),
                Eq("corvik: common/filefuncs:37: bool writefile(const char*, const char*, int): "
                   "Assertion `szfile' failed.\n"));
}

TEST(FileFuncsDeathTest, WritefileWithoutContent) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(writefile("no/such/folder/out", nullptr, 0), KilledBySignal(SIGABRT),
                Eq("corvik: common/filefuncs:38: bool writefile(const char*, const char*, int): "
                   "Assertion `content' failed.\n"));
}

TEST(FileFuncsDeathTest, WritefileWithNeitherNamesThePath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(writefile(nullptr, nullptr, 0), KilledBySignal(SIGABRT),
                Eq("corvik: common/filefuncs:37: bool writefile(const char*, const char*, int): "
                   "Assertion `szfile' failed.\n"));
}

TEST(FileFuncsDeathTest, Readfile2EleWithoutPath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(delete readfile2Ele(nullptr), KilledBySignal(SIGABRT),
                Eq("corvik: common/filefuncs:60: NTiXmlElement* readfile2Ele(const char*): "
                   "Assertion `szfile' failed.\n"));
}

}  // namespace
