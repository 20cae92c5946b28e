#include "main/last_word.h"

#include "common/tinyxml.h"
#include "platform/image_id.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>

namespace {

// An exception that leaves this function ends the process, as one that leaves main does.
void end_by(void (*failure)()) noexcept {
    install_last_word();
    failure();
}

struct LastWordCase {
    const char* name;
    void (*failure)();
    const char* line;
};

class LastWord : public testing::TestWithParam<LastWordCase> {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_P(LastWord, IsOneLineOfWhatWentWrong) {
    EXPECT_EXIT(end_by(GetParam().failure), testing::KilledBySignal(SIGABRT),
                testing::Eq(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    Failures, LastWord,
    testing::Values(
        LastWordCase{"XmlDocument", [] { NTiXmlDoc("", false).Parse(nullptr); },
                     "corvik: No content\n"},
        LastWordCase{"XmlFile", [] { NTiXmlDoc("/missing/file.xml", true); },
                     "corvik: Invalid file name:/missing/file.xml\n"},
        LastWordCase{"Identity", [] { throw ImageIDException("Invalid Image ID"); },
                     "corvik: Invalid Image ID (neither /etc/systeminfo nor /etc/imageid gives "
                     "one)\n"},
        LastWordCase{"Memory", [] { throw std::bad_alloc(); }, "corvik: out of memory\n"},
        LastWordCase{"OtherException", [] { throw std::out_of_range("the export is empty"); },
                     "corvik: the export is empty\n"},
        LastWordCase{"SeveralLinesBecomeOne",
                     [] { throw std::runtime_error("/tmp/a\nb\r\t\x1b.xml is empty\n"); },
                     "corvik: /tmp/a?b???.xml is empty?\n"},
        LastWordCase{"SeveralLinesOfXml", [] { NTiXmlDoc("/missing/a\nb", true); },
                     "corvik: Invalid file name:/missing/a?b\n"},
        LastWordCase{"BytesAbove127Stay", [] { throw std::runtime_error("caf\xc3\xa9 \x7f"); },
                     "corvik: caf\xc3\xa9 \x7f\n"},
        LastWordCase{"NoStandardException", [] { throw 7; }, "corvik: unknown failure\n"},
        LastWordCase{"NoException", [] { std::terminate(); },
                     "corvik: ended without an exception\n"}),
    [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
