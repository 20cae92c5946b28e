#include "platform/network_settings.h"

#include "tests/support/device_fixture.h"
#include "tests/unit/platform/failing_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

namespace {

using testing::KilledBySignal;
using testing::MatchesRegex;

constexpr const char* kListCommand =
    "dbus-send --system --print-reply --dest=org.freedesktop.NetworkManagerSystemSettings "
    "/org/freedesktop/NetworkManagerSettings "
    "org.freedesktop.NetworkManagerSettings.ListConnections";

// With the two blanks before the interface, which the messages show.
std::string settings_command(int number) {
    return "dbus-send --system --print-reply --dest=org.freedesktop.NetworkManagerSystemSettings "
           "/org/freedesktop/NetworkManagerSettings/" +
           std::to_string(number) +
           "  org.freedesktop.NetworkManagerSettings.Connection.GetSettings";
}

constexpr const char* kWired = "802-3-ethernet\n";
constexpr const char* kWireless = "802-11-wireless\n";

// A message bus client that notes its arguments and answers from files.
class NetworkSettings : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        Programs().PutProgram("dbus-send",
                              "echo \"dbus-send $*\" >>\"$here/asked\"\n"
                              "if [ \"${4##*/}\" = NetworkManagerSettings ]; then\n"
                              "    cat \"$here/listing\"\n"
                              "else\n"
                              "    cat \"$here/reply.${4##*/}\"\n"
                              "fi\n");
    }

    void SetListing(const std::string& text) { Programs().Put("listing", text); }
    void SetReply(int number, const std::string& text) {
        Programs().Put("reply." + std::to_string(number), text);
    }
    // The calls so far, a line each.
    std::string Asked() const { return file_content(Programs().Path("asked")); }

    // The value that the named setting has in a reply of connection 1.
    std::string Setting(const std::string& name, const std::string& reply) {
        SetReply(1, reply);
        std::array<char, 8192> value{};
        get_connection_setting(1, name.c_str(), value.data());
        return value.data();
    }
};

std::string listing_of(std::initializer_list<int> numbers) {
    std::string text = "method return sender=:1.5 -> dest=:1.9\n   array [\n";
    for (const int number : numbers) {
        text += "      object path \"/org/freedesktop/NetworkManagerSettings/" +
                std::to_string(number) + "\"\n";
    }
    return text + "   ]\n";
}

std::string entry(const std::string& name, const std::string& value) {
    return "         dict entry(\n            string \"" + name +
           "\"\n            variant             string \"" + value + "\"\n         )\n";
}

// Asked as one command line; words are joined by single blanks.
std::string asked_settings(int number) {
    std::string line = settings_command(number);
    return line.erase(line.find("  "), 1) + "\n";
}

TEST_F(NetworkSettings, FirstListedConnectionPassesWhateverItIs) {
    SetListing(listing_of({3, 4}));
    SetReply(3, "a reply with neither text\n");
    EXPECT_EQ(find_wired_connection(), 3);
    EXPECT_EQ(Asked(), std::string(kListCommand) + "\n" + asked_settings(3));
    EXPECT_EQ(find_wireless_connection(), 3);
}

TEST_F(NetworkSettings, ConnectionThatBeginsWithTheTextDoesNotPass) {
    SetListing(listing_of({3, 0, 9}));
    SetReply(3, kWired);
    SetReply(0, std::string("x") + kWired);
    EXPECT_EQ(find_wired_connection(), 0);
    EXPECT_EQ(Asked(), std::string(kListCommand) + "\n" + asked_settings(3) + asked_settings(0));
}

TEST_F(NetworkSettings, WirelessTestHasItsOwnText) {
    SetListing(listing_of({3, 4}));
    SetReply(3, kWireless);
    SetReply(4, kWired);
    EXPECT_EQ(find_wireless_connection(), 4);
    EXPECT_EQ(find_wired_connection(), 3);
}

TEST_F(NetworkSettings, LastNumberWhenNonePasses) {
    SetListing(listing_of({3, 5}));
    SetReply(3, kWired);
    SetReply(5, kWired);
    EXPECT_EQ(find_wired_connection(), 5);
}

TEST_F(NetworkSettings, ListingWithoutConnectionGivesZero) {
    SetListing("method return\n   array [\n   ]\n");
    EXPECT_EQ(find_wired_connection(), 0);
    EXPECT_EQ(find_wireless_connection(), 0);
    EXPECT_EQ(Asked(), std::string(kListCommand) + "\n" + kListCommand + "\n");
}

TEST_F(NetworkSettings, EmptyListingGivesZero) {
    SetListing("");
    EXPECT_EQ(find_wired_connection(), 0);
}

TEST_F(NetworkSettings, MissingProgramGivesZeroSilently) {
    Programs().PutProgram("dbus-send", "exit 127\n");
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(find_wired_connection(), 0); }), "");
}

TEST_F(NetworkSettings, PathWithoutNumberAsksForTheNumberBefore) {
    SetListing(
        "/org/freedesktop/NetworkManagerSettings/4\n"
        "/org/freedesktop/NetworkManagerSettings/x\n");
    SetReply(4, kWired);
    EXPECT_EQ(find_wired_connection(), 4);
    EXPECT_EQ(Asked(), std::string(kListCommand) + "\n" + asked_settings(4) + asked_settings(4));
}

TEST_F(NetworkSettings, NumberEndsBeforeALetter) {
    SetListing("/org/freedesktop/NetworkManagerSettings/4a\n");
    SetReply(4, kWireless);
    EXPECT_EQ(find_wired_connection(), 4);
    EXPECT_EQ(Asked(), std::string(kListCommand) + "\n" + asked_settings(4));
}

TEST_F(NetworkSettings, PathWithoutNumberAtTheStartAsksForZero) {
    SetListing("/org/freedesktop/NetworkManagerSettings/");
    SetReply(0, "");
    EXPECT_EQ(find_wired_connection(), 0);
    EXPECT_EQ(Asked(), std::string(kListCommand) + "\n" + asked_settings(0));
}

TEST_F(NetworkSettings, PathsWithoutGapAreAllFound) {
    SetListing(
        "/org/freedesktop/NetworkManagerSettings/"
        "/org/freedesktop/NetworkManagerSettings/6");
    SetReply(0, kWired);
    SetReply(6, "");
    EXPECT_EQ(find_wired_connection(), 6);
}

TEST_F(NetworkSettings, OnlyTheLastBlockOfTheListingCounts) {
    const std::string path = "/org/freedesktop/NetworkManagerSettings/";
    SetReply(1, "");
    SetReply(2, "");
    SetListing(path + "1\"" + std::string(2048 - path.size() - 2, ' ') + path + "2\"");
    EXPECT_EQ(find_wired_connection(), 2);
    // A path that the border cuts is not found.
    SetListing(std::string(2047, ' ') + path + "1\"");
    EXPECT_EQ(find_wired_connection(), 0);
    SetListing(std::string(2048, ' ') + path + "1\"");
    EXPECT_EQ(find_wired_connection(), 1);
}

TEST_F(NetworkSettings, ListingThatFillsItsBlockIsKept) {
    const std::string path = "/org/freedesktop/NetworkManagerSettings/7\"";
    SetReply(7, "");
    SetListing(std::string(2048 - path.size(), ' ') + path);
    EXPECT_EQ(find_wired_connection(), 7);
}

TEST_F(NetworkSettings, ListingEndsAtNul) {
    SetListing(std::string("a\0", 2) + listing_of({4}));
    EXPECT_EQ(find_wired_connection(), 0);
}

// The message of an action that finds a command impossible to start.
template <typename Obstacle, typename Action>
std::string message_under(Action action) {
    return captured_stdout([&] {
        const Obstacle obstacle;
        action();
    });
}

TEST_F(NetworkSettings, ListingThatCannotBeStarted) {
    SetListing(listing_of({4}));
    const std::string message = "Failed to execute:" + std::string(kListCommand) + "\n";
    for (int (*find)() : {find_wired_connection, find_wireless_connection}) {
        int found = -1;
        EXPECT_EQ(message_under<NoMoreDescriptors>([&] { found = find(); }), message);
        EXPECT_EQ(found, 0);
        found = -1;
        EXPECT_EQ(message_under<NoMoreProcesses>([&] { found = find(); }), message);
        EXPECT_EQ(found, 0);
    }
    EXPECT_EQ(Asked(), "");
}

TEST_F(NetworkSettings, WiredTestThatCannotBeStarted) {
    const std::string message = "Failed to execute:" + settings_command(4) + "\n";
    bool wired = false;
    EXPECT_EQ(message_under<NoMoreDescriptors>([&] { wired = is_wired_connection(4); }), message);
    EXPECT_TRUE(wired);
    wired = false;
    EXPECT_EQ(message_under<NoMoreProcesses>([&] { wired = is_wired_connection(4); }), message);
    EXPECT_TRUE(wired);
}

TEST_F(NetworkSettings, WirelessTestThatCannotBeStarted) {
    const std::string message = "Failed to execute " + settings_command(4) + "\n";
    bool wireless = true;
    EXPECT_EQ(message_under<NoMoreDescriptors>([&] { wireless = is_wireless_connection(4); }),
              message);
    EXPECT_FALSE(wireless);
    wireless = true;
    EXPECT_EQ(message_under<NoMoreProcesses>([&] { wireless = is_wireless_connection(4); }),
              message);
    EXPECT_FALSE(wireless);
}

TEST_F(NetworkSettings, FindingAConnectionLeavesNoChild) {
    SetListing(listing_of({}));
    find_wired_connection();
    EXPECT_TRUE(has_no_child());
}

TEST_F(NetworkSettings, TestingAConnectionLeavesNoChild) {
    SetReply(4, kWired);
    is_wired_connection(4);
    EXPECT_TRUE(has_no_child());
}

TEST_F(NetworkSettings, AskingForASettingLeavesNoChild) {
    Setting("id", entry("id", "x"));
    EXPECT_TRUE(has_no_child());
}

TEST_F(NetworkSettings, TestsAskForPositionZero) {
    struct Row {
        const char* reply;
        bool wired;
        bool wireless;
    };
    for (const Row& row : {Row{"", true, true}, Row{"802-3-ethernet", false, true},
                           Row{"802-11-wireless", true, false}, Row{" 802-3-ethernet", true, true},
                           Row{"802-3-ethernet 802-3-ethernet", false, true},
                           Row{"802-3-etherne", true, true}, Row{"802-11-wireles", true, true}}) {
        SetReply(2, row.reply);
        EXPECT_EQ(is_wired_connection(2), row.wired) << row.reply;
        EXPECT_EQ(is_wireless_connection(2), row.wireless) << row.reply;
    }
}

TEST_F(NetworkSettings, BlocksOfAReplyEndAtTheirNul) {
    // The first block gives nothing, so that the second is the start of the reply.
    SetReply(2, std::string(2047, '\0') + kWired);
    EXPECT_FALSE(is_wired_connection(2));
    SetReply(2, std::string(2048, '\0') + kWired);
    EXPECT_TRUE(is_wired_connection(2));
    SetReply(2, "802-3-eth" + std::string(2038, '\0') + "ernet");
    EXPECT_FALSE(is_wired_connection(2));
}

TEST_F(NetworkSettings, StandardErrorBelongsToTheReply) {
    Programs().PutProgram("dbus-send", "echo 802-3-ethernet >&2\n");
    EXPECT_FALSE(is_wired_connection(2));
}

TEST_F(NetworkSettings, NumbersZeroToNine) {
    std::string asked;
    for (int number = 0; number <= 9; ++number) {
        SetReply(number, "");
        EXPECT_TRUE(is_wired_connection(number));
        asked += asked_settings(number);
    }
    EXPECT_EQ(Asked(), asked);
}

using NetworkSettingsDeathTest = NetworkSettings;

std::string assertion_in(const std::string& function) {
    return "corvik: platform/network_settings:[0-9]+: " + function +
           ": Assertion `number >= 0 && number <= 9' failed\\.\n";
}

TEST_F(NetworkSettingsDeathTest, OtherNumbersAbort) {
    char value = 0;
    EXPECT_EXIT(is_wired_connection(10), KilledBySignal(SIGABRT),
                MatchesRegex(assertion_in("bool is_wired_connection\\(int\\)")));
    EXPECT_EXIT(is_wired_connection(-1), KilledBySignal(SIGABRT),
                MatchesRegex(assertion_in("bool is_wired_connection\\(int\\)")));
    EXPECT_EXIT(is_wireless_connection(10), KilledBySignal(SIGABRT),
                MatchesRegex(assertion_in("bool is_wireless_connection\\(int\\)")));
    EXPECT_EXIT(
        get_connection_setting(10, "id", &value), KilledBySignal(SIGABRT),
        MatchesRegex(assertion_in("void get_connection_setting\\(int, const char\\*, char\\*\\)")));
}

TEST_F(NetworkSettingsDeathTest, ListedNumberThatIsTooLargeAborts) {
    for (const char* number : {"10", "-1", "99999999999999999999", "4294967296"}) {
        SetListing("/org/freedesktop/NetworkManagerSettings/" + std::string(number) + "\"");
        EXPECT_EXIT(find_wired_connection(), KilledBySignal(SIGABRT),
                    MatchesRegex(assertion_in("bool is_wired_connection\\(int\\)")))
            << number;
    }
}

TEST_F(NetworkSettings, SettingByName) {
    const std::string reply = "method return\n   array [\n" + entry("id", "Auto eth0") +
                              entry("type", "802-3-ethernet") + "   ]\n";
    EXPECT_EQ(Setting("id", reply), "Auto eth0");
    EXPECT_EQ(Setting("type", reply), "802-3-ethernet");
    EXPECT_EQ(Asked(), asked_settings(1) + asked_settings(1));
}

TEST_F(NetworkSettings, SettingThatIsAbsentLeavesTheBuffer) {
    const std::string reply = entry("id", "x");
    for (const char* name : {"i", "idd", "ID", "missing", "id\""}) {
        EXPECT_EQ(Setting(name, reply), "") << name;
    }
}

TEST_F(NetworkSettings, SettingWithoutTextValueLeavesTheBuffer) {
    EXPECT_EQ(Setting("auto", "dict entry(\nstring \"auto\"\nvariant boolean true\n)\n"), "");
    EXPECT_EQ(Setting("id", entry("id", "")), "");
}

TEST_F(NetworkSettings, SettingValueEndsAtItsLineOrQuote) {
    EXPECT_EQ(Setting("id", "dict entry(\nstring \"id\"\nstring \"a\" \"b\"\n"), "a");
    EXPECT_EQ(Setting("id", "dict entry(\nstring \"id\"\nstring \"open\n\"\n"), "open");
    EXPECT_EQ(Setting("id", "dict entry(\nstring \"id\"\nstring \"last"), "last");
}

TEST_F(NetworkSettings, SettingOutsideADictionaryEntryDoesNotCount) {
    EXPECT_EQ(Setting("id", "struct {\nstring \"id\"\nstring \"x\"\n"), "");
}

TEST_F(NetworkSettings, SettingCutOffAtTheEnd) {
    EXPECT_EQ(Setting("id", "dict entry("), "");
    EXPECT_EQ(Setting("id", "dict entr(\nstring \"id\"\nstring \"x\"\n"), "");
    EXPECT_EQ(Setting("id", "dict entry(\nstring \"id\""), "");
    EXPECT_EQ(Setting("id", "dict entry(\nstring string \"id\"\nstring \"x\"\n"), "x");
    EXPECT_EQ(Setting("id", "dict entry(\nint32 5\nstring \"x\"\n"), "");
    EXPECT_EQ(Setting("id", "dict entry(\nstring \"\n"), "");
    EXPECT_EQ(Setting("id", ""), "");
}

TEST_F(NetworkSettings, SettingNameEndsAtABlankAndLosesItsLastCharacter) {
    EXPECT_EQ(Setting("na", entry("nam e", "x")), "x");
    EXPECT_EQ(Setting("name", entry("  name", "x")), "x");
}

TEST_F(NetworkSettings, SettingNameOf62CharactersIsWhole) {
    const std::string name(62, 'n');
    EXPECT_EQ(Setting(name, entry(name, "x")), "x");
}

TEST_F(NetworkSettings, SettingNameThatIsTooLongIsCut) {
    EXPECT_EQ(Setting(std::string(62, 'n'), entry(std::string(3000, 'n'), "x")), "x");
    EXPECT_EQ(Setting(std::string(63, 'n'), entry(std::string(63, 'n'), "x")), "");
}

TEST_F(NetworkSettings, RepeatedSettingIsWrittenOverWithoutATerminator) {
    EXPECT_EQ(Setting("id", entry("id", "longer") + entry("id", "abc")), "abcger");
}

TEST_F(NetworkSettings, OnlyTheLastBlockOfASettingReplyCounts) {
    std::string first = entry("id", "first");
    first.resize(4096, ' ');
    EXPECT_EQ(Setting("id", first + entry("type", "x")), "");
    // An entry that the border cuts is not found.
    const std::string next = "dict entry(\nstring \"type\"\nstring \"x\"\n";
    EXPECT_EQ(Setting("type", first + next), "x");
    EXPECT_EQ(Setting("type", std::string(4095, ' ') + next), "");
}

TEST_F(NetworkSettings, SettingReplyThatFillsItsBlockIsKept) {
    const std::string setting = entry("id", "x");
    EXPECT_EQ(Setting("id", std::string(4096 - setting.size() - 1, ' ') + "\n" + setting), "x");
}

TEST_F(NetworkSettings, SettingThatCannotBeAskedFor) {
    const std::string message = "Failed to execute:" + settings_command(4) + "\n";
    std::array<char, 16> value{"before"};
    const auto ask = [&] { get_connection_setting(4, "id", value.data()); };
    EXPECT_EQ(message_under<NoMoreDescriptors>(ask), message);
    EXPECT_EQ(message_under<NoMoreProcesses>(ask), message);
    EXPECT_STREQ(value.data(), "before");
}

}  // namespace
