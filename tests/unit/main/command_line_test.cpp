#include "main/command_line.h"

#include "common/run_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

// What the parser is given: writable words with a null behind the last.
class Arguments {
public:
    explicit Arguments(const Words& words) : words_(words) {
        for (std::string& word : words_) {
            pointers_.push_back(word.data());
        }
        pointers_.push_back(nullptr);
    }
    int Count() const { return static_cast<int>(words_.size()); }
    char** Vector() { return pointers_.data(); }

private:
    Words words_;
    std::vector<char*> pointers_;
};

struct Fields {
    RunMode mode = RunMode::kGet;
    std::string type;
    std::string file;
    std::string user;
    std::string password;
    int remove = 0;
};

struct ValidCase {
    const char* name;
    Words words;
    Fields fields;
};

struct InvalidCase {
    const char* name;
    Words words;
};

constexpr RunMode kGet = RunMode::kGet;
constexpr RunMode kSet = RunMode::kSet;
constexpr RunMode kVersion = RunMode::kVersion;
constexpr RunMode kHelp = RunMode::kHelp;

}  // namespace

class ValidCommandLine : public testing::TestWithParam<ValidCase> {
protected:
    void SetUp() override { run_options = RunOptions{}; }
    void TearDown() override { run_options = RunOptions{}; }
};

TEST_P(ValidCommandLine, FillsTheOptions) {
    Arguments arguments(GetParam().words);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool valid = parse_args(arguments.Count(), arguments.Vector());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_TRUE(valid);
    const Fields& fields = GetParam().fields;
    EXPECT_EQ(fields.mode, run_options.mode);
    EXPECT_EQ(fields.type, run_options.type);
    EXPECT_EQ(fields.file, run_options.file);
    EXPECT_EQ(fields.user, run_options.user);
    EXPECT_EQ(fields.password, run_options.password);
    EXPECT_EQ(fields.remove, run_options.remove);
    EXPECT_EQ("", run_options.default_connection);
    EXPECT_EQ(nullptr, run_options.log);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, ValidCommandLine,
    testing::Values(
        ValidCase{"Version", {"corvik", "-v"}, {kVersion, "", "", "", "", 0}},
        ValidCase{"VersionInCapitals", {"corvik", "-V"}, {kVersion, "", "", "", "", 0}},
        ValidCase{"VersionIgnoresTheRest",
                  {"corvik", "-v", "-get", "RDP", "-f", "out.xml", "-x"},
                  {kVersion, "", "", "", "", 0}},
        ValidCase{"Help", {"corvik", "-h"}, {kHelp, "", "", "", "", 0}},
        ValidCase{"HelpInCapitals", {"corvik", "-H"}, {kHelp, "", "", "", "", 0}},
        ValidCase{
            "HelpIgnoresTheRest", {"corvik", "-h", "RDP", "-r", "-f"}, {kHelp, "", "", "", "", 0}},
        ValidCase{
            "Get", {"corvik", "-get", "RDP", "-f", "out.xml"}, {kGet, "RDP", "out.xml", "", "", 0}},
        ValidCase{"GetInMixedCase",
                  {"corvik", "-gEt", "rDp", "-F", "Out.xml"},
                  {kGet, "rDp", "Out.xml", "", "", 0}},
        ValidCase{
            "Set", {"corvik", "-set", "RDP", "-f", "in.xml"}, {kSet, "RDP", "in.xml", "", "", 0}},
        ValidCase{"SetInCapitals",
                  {"corvik", "-SET", "RDP", "-f", "in.xml", "-R"},
                  {kSet, "RDP", "in.xml", "", "", 1}},
        ValidCase{"ProgramNameIsNotLookedAt", {"", "-v"}, {kVersion, "", "", "", "", 0}}),
    [](const auto& instance) { return std::string(instance.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Options, ValidCommandLine,
    testing::Values(
        ValidCase{"All",
                  {"corvik", "-set", "RDP", "-f", "in.xml", "-u", "bob", "-p", "pw1", "-r"},
                  {kSet, "RDP", "in.xml", "bob", "pw1", 1}},
        ValidCase{"AnotherOrder",
                  {"corvik", "-get", "RDP", "-u", "bob", "-p", "pw1", "-f", "out.xml"},
                  {kGet, "RDP", "out.xml", "bob", "pw1", 0}},
        ValidCase{"InCapitals",
                  {"corvik", "-get", "RDP", "-U", "bob", "-P", "pw1", "-F", "out.xml"},
                  {kGet, "RDP", "out.xml", "bob", "pw1", 0}},
        ValidCase{"RemoveForGet",
                  {"corvik", "-get", "RDP", "-r", "-f", "out.xml"},
                  {kGet, "RDP", "out.xml", "", "", 1}},
        ValidCase{
            "RemoveTwice", {"corvik", "-set", "RDP", "-r", "-r"}, {kSet, "RDP", "", "", "", 1}},
        ValidCase{"RepeatedOnesOverwrite",
                  {"corvik", "-get", "RDP", "-f", "1", "-u", "2", "-p", "3", "-f", "4", "-u", "5",
                   "-p", "6"},
                  {kGet, "RDP", "4", "5", "6", 0}},
        ValidCase{"NoneAtAll", {"corvik", "-get", "RDP", "x", "y"}, {kGet, "RDP", "", "", "", 0}},
        ValidCase{
            "OnlyUser", {"corvik", "-get", "RDP", "-u", "bob"}, {kGet, "RDP", "", "bob", "", 0}},
        ValidCase{"WordsBetweenAreSkipped",
                  {"corvik", "-get", "RDP", "x", "-f", "out.xml", "y", "", "-r", "z"},
                  {kGet, "RDP", "out.xml", "", "", 1}},
        ValidCase{"EmptyValue", {"corvik", "-get", "RDP", "-f", ""}, {kGet, "RDP", "", "", "", 0}},
        ValidCase{"EmptyValueOverwrites",
                  {"corvik", "-get", "RDP", "-f", "out.xml", "-f", ""},
                  {kGet, "RDP", "", "", "", 0}},
        ValidCase{"ValueWithBlanks",
                  {"corvik", "-get", "RDP", "-f", "my file.xml"},
                  {kGet, "RDP", "my file.xml", "", "", 0}}),
    [](const auto& instance) { return std::string(instance.param.name); });

INSTANTIATE_TEST_SUITE_P(Types, ValidCommandLine,
                         testing::Values(ValidCase{"LikeAnOption",
                                                   {"corvik", "-get", "-r", "-f", "out.xml"},
                                                   {kGet, "-r", "out.xml", "", "", 0}},
                                         ValidCase{"LikeAnUnknownOption",
                                                   {"corvik", "-get", "-x", "-f", "out.xml"},
                                                   {kGet, "-x", "out.xml", "", "", 0}},
                                         ValidCase{"LikeAMode",
                                                   {"corvik", "-get", "-set", "-f", "out.xml"},
                                                   {kGet, "-set", "out.xml", "", "", 0}},
                                         ValidCase{"Empty",
                                                   {"corvik", "-get", "", "-f", "out.xml"},
                                                   {kGet, "", "out.xml", "", "", 0}},
                                         ValidCase{"Null",
                                                   {"corvik", "-get", "null", "-f", "out.xml"},
                                                   {kGet, "null", "out.xml", "", "", 0}}),
                         [](const auto& instance) { return std::string(instance.param.name); });

INSTANTIATE_TEST_SUITE_P(ValuesWithDash, ValidCommandLine,
                         testing::Values(ValidCase{"FileRemove",
                                                   {"corvik", "-get", "RDP", "-f", "-r"},
                                                   {kGet, "RDP", "-r", "", "", 1}},
                                         ValidCase{"FileRemoveAndMore",
                                                   {"corvik", "-get", "RDP", "-f", "-R", "x"},
                                                   {kGet, "RDP", "-R", "", "", 1}},
                                         ValidCase{"FileUser",
                                                   {"corvik", "-get", "RDP", "-f", "-u", "bob"},
                                                   {kGet, "RDP", "-u", "bob", "", 0}},
                                         ValidCase{"FileFile",
                                                   {"corvik", "-get", "RDP", "-f", "-f", "out.xml"},
                                                   {kGet, "RDP", "out.xml", "", "", 0}},
                                         ValidCase{
                                             "Chain",
                                             {"corvik", "-get", "RDP", "-f", "-u", "-p", "-r"},
                                             {kGet, "RDP", "-u", "-p", "-r", 1}}),
                         [](const auto& instance) { return std::string(instance.param.name); });

class InvalidCommandLine : public testing::TestWithParam<InvalidCase> {
protected:
    void SetUp() override { run_options = RunOptions{}; }
    void TearDown() override { run_options = RunOptions{}; }
};

TEST_P(InvalidCommandLine, IsRefusedWithoutAWord) {
    Arguments arguments(GetParam().words);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool valid = parse_args(arguments.Count(), arguments.Vector());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_FALSE(valid);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, InvalidCommandLine,
    testing::Values(InvalidCase{"NoArgumentsAtAll", {}}, InvalidCase{"Alone", {"corvik"}},
                    InvalidCase{"NoDash", {"corvik", "get", "RDP", "-f", "out.xml"}},
                    InvalidCase{"VersionWithoutDash", {"corvik", "v"}},
                    InvalidCase{"OtherCharacterInPlaceOfTheDash", {"corvik", "/v"}},
                    InvalidCase{"DashOnly", {"corvik", "-"}},
                    InvalidCase{"DashOnlyWithMore", {"corvik", "-", "RDP", "-f", "out.xml"}},
                    InvalidCase{"EmptyWord", {"corvik", "", "RDP", "-f", "out.xml"}},
                    InvalidCase{"TwoDashes", {"corvik", "--get", "RDP", "-f", "out.xml"}},
                    InvalidCase{"Unknown", {"corvik", "-list", "RDP", "-f", "out.xml"}},
                    InvalidCase{"Beginning", {"corvik", "-ge", "RDP", "-f", "out.xml"}},
                    InvalidCase{"Longer", {"corvik", "-gets", "RDP", "-f", "out.xml"}},
                    InvalidCase{"LongVersion", {"corvik", "-version"}},
                    InvalidCase{"LongHelp", {"corvik", "--help"}},
                    InvalidCase{"TypeFirst", {"corvik", "RDP", "-get", "-f", "out.xml"}}),
    [](const auto& instance) { return std::string(instance.param.name); });

INSTANTIATE_TEST_SUITE_P(
    TooFew, InvalidCommandLine,
    testing::Values(InvalidCase{"GetAlone", {"corvik", "-get"}},
                    InvalidCase{"SetAlone", {"corvik", "-set"}},
                    InvalidCase{"GetType", {"corvik", "-get", "RDP"}},
                    InvalidCase{"GetTypeOption", {"corvik", "-get", "RDP", "-f"}},
                    InvalidCase{"GetTypeWord", {"corvik", "-get", "RDP", "x"}},
                    InvalidCase{"GetTypeRemove", {"corvik", "-get", "RDP", "-r"}},
                    InvalidCase{"SetTypeRemove", {"corvik", "-set", "RDP", "-r"}}),
    [](const auto& instance) { return std::string(instance.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Options, InvalidCommandLine,
    testing::Values(InvalidCase{"Unknown", {"corvik", "-get", "RDP", "-f", "out.xml", "-x"}},
                    InvalidCase{"UnknownAhead", {"corvik", "-get", "RDP", "-x", "-f", "out.xml"}},
                    InvalidCase{"LongName", {"corvik", "-get", "RDP", "-file", "out.xml"}},
                    InvalidCase{"JoinedValue", {"corvik", "-get", "RDP", "-fout.xml", "x"}},
                    InvalidCase{"JoinedLetters", {"corvik", "-set", "RDP", "-f", "in.xml", "-rf"}},
                    InvalidCase{"DashOnly", {"corvik", "-get", "RDP", "-f", "out.xml", "-"}},
                    InvalidCase{"TwoDashes", {"corvik", "-get", "RDP", "--", "x"}},
                    InvalidCase{"ModeAgain", {"corvik", "-get", "RDP", "-f", "out.xml", "-v"}},
                    InvalidCase{"LastFile", {"corvik", "-get", "RDP", "x", "-f"}},
                    InvalidCase{"LastUser", {"corvik", "-get", "RDP", "-f", "out.xml", "-u"}},
                    InvalidCase{"LastPassword", {"corvik", "-get", "RDP", "-f", "out.xml", "-p"}},
                    InvalidCase{"LastFileInCapitals", {"corvik", "-get", "RDP", "x", "-F"}},
                    InvalidCase{"ValueIsAnUnknownOption", {"corvik", "-get", "RDP", "-f", "-x"}},
                    InvalidCase{"ValueIsADash", {"corvik", "-get", "RDP", "-f", "-"}},
                    InvalidCase{"ValueIsAnOptionWithoutValue",
                                {"corvik", "-get", "RDP", "-f", "-u"}},
                    InvalidCase{"ValueIsTheSameOption", {"corvik", "-get", "RDP", "-f", "-f"}}),
    [](const auto& instance) { return std::string(instance.param.name); });

class ParseOptions : public testing::Test {
protected:
    void SetUp() override { run_options = RunOptions{}; }
    void TearDown() override { run_options = RunOptions{}; }
};

TEST_F(ParseOptions, TypeWithoutOptionsIsValid) {
    Arguments arguments({"corvik", "-get", "RDP"});
    EXPECT_TRUE(parse_options(arguments.Count(), arguments.Vector()));
    EXPECT_EQ("RDP", run_options.type);
}

TEST_F(ParseOptions, ModeIsLeftAlone) {
    run_options.mode = RunMode::kHelp;
    Arguments arguments({"corvik", "-get", "RDP", "-f", "out.xml"});
    EXPECT_TRUE(parse_options(arguments.Count(), arguments.Vector()));
    EXPECT_EQ(RunMode::kHelp, run_options.mode);
    EXPECT_EQ("out.xml", run_options.file);
}

class Texts : public testing::Test {
protected:
    static std::string Stdout(void (*print)()) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        print();
        EXPECT_EQ("", testing::internal::GetCapturedStderr());
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(Texts, Usage) {
    EXPECT_EQ(
        "The usage of Quorvel: \n"
        "corvik options \n"
        "  options: \n"
        "    -get <connection type> -f <file> [-u <user>] [-p <pwd>] \n"
        "    -set <connection type> -f <file> [-u <user>] [-p <pwd>] [-r] \n"
        "      <connection type>: Can be ICA, RDP and so on. \n"
        "      <file>: The file contains the connections' content. \n"
        "      <user>: To get/set which users' connection. If not set, the default user is "
        "\"user\". \n"
        "      <pwd>:  The password for the user. \n"
        "      \"-r\": Remove the existent connections. \n"
        "    -v    Output the corvik's version. \n"
        "    -h    Output this usage.\n",
        Stdout(print_usage));
}

TEST_F(Texts, Version) {
    EXPECT_EQ("Quorvel: 1.0.0.29438\n", Stdout(print_version));
}

TEST_F(Texts, SyntaxError) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    print_syntax_error();
    EXPECT_EQ("The syntax is incorrect. \nTry \"corvik -h\" for more information. \n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}
