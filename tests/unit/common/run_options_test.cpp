#include "common/run_options.h"

#include "tests/unit/common/test_folder.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <type_traits>

namespace {

void expect_initial_values(const RunOptions& options) {
    EXPECT_EQ(options.log, nullptr);
    EXPECT_EQ(options.type, "");
    EXPECT_EQ(options.file, "");
    EXPECT_EQ(options.user, "");
    EXPECT_EQ(options.password, "");
    EXPECT_EQ(options.remove, 0);
    EXPECT_EQ(options.default_connection, "");
}

template <class Field>
std::uintptr_t address(const Field& field) {
    return reinterpret_cast<std::uintptr_t>(&field);
}

TEST(RunOptions, TheProcessWideRecordStartsEmpty) {
    expect_initial_values(run_options);
}

TEST(RunOptions, ANewRecordIsEmpty) {
    expect_initial_values(RunOptions());
}

TEST(RunOptions, ModesHaveTheirNumbers) {
    EXPECT_EQ(static_cast<int>(RunMode::kGet), 0);
    EXPECT_EQ(static_cast<int>(RunMode::kSet), 1);
    EXPECT_EQ(static_cast<int>(RunMode::kVersion), 2);
    EXPECT_EQ(static_cast<int>(RunMode::kHelp), 3);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<RunMode>, std::int32_t>));
}

TEST(RunOptions, FieldsStandInTheirOrder) {
    const RunOptions options;
    EXPECT_LT(address(options.log), address(options.mode));
    EXPECT_LT(address(options.mode), address(options.type));
    EXPECT_LT(address(options.type), address(options.file));
    EXPECT_LT(address(options.file), address(options.user));
    EXPECT_LT(address(options.user), address(options.password));
    EXPECT_LT(address(options.password), address(options.remove));
    EXPECT_LT(address(options.remove), address(options.default_connection));
    EXPECT_EQ(sizeof(options.remove), 1U);
}

TEST(RunOptions, TheLogIsClosedWithTheRecord) {
    const TestFolder folder;
    int descriptor = -1;
    {
        RunOptions options;
        options.log.reset(std::fopen(folder.Path("log").c_str(), "wb"));
        ASSERT_NE(options.log, nullptr);
        descriptor = fileno(options.log.get());
        EXPECT_GE(std::fputs("held back", options.log.get()), 0);
        EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    EXPECT_EQ(file_bytes(folder.Path("log")), "held back");
}

}  // namespace
