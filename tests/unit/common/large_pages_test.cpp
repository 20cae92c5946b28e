#include "common/large_pages.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/mman.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

struct Advice {
    std::uintptr_t address;
    std::size_t size;
    int kind;

    bool operator==(const Advice& other) const = default;
};

std::vector<Advice>* noted = nullptr;

}  // namespace

// The program's own symbols come before the C library's.
extern "C" int madvise(void* memory, std::size_t size, int kind) noexcept {
    if (noted != nullptr) {
        noted->push_back({reinterpret_cast<std::uintptr_t>(memory), size, kind});
    }
    const auto next = reinterpret_cast<decltype(&madvise)>(dlsym(RTLD_NEXT, "madvise"));
    return next(memory, size, kind);
}

namespace {

// Four large pages, the first of them aligned.
class LargePages : public testing::Test {
protected:
    static constexpr std::size_t kSize = 4 * kLargePage;

    struct Unmap {
        void operator()(char* pages) const { munmap(pages, 2 * kSize); }
    };

    void SetUp() override {
        void* pages = mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        ASSERT_NE(pages, MAP_FAILED);
        mapped_.reset(static_cast<char*>(pages));
        std::size_t left = 2 * kSize;
        begin_ = static_cast<char*>(std::align(kLargePage, kSize, pages, left));
    }

    // What is advised on this part of the four pages.
    std::vector<Advice> Advised(std::size_t from, std::size_t size) {
        std::vector<Advice> advice;
        noted = &advice;
        advise_large_pages(begin_ + from, size);
        noted = nullptr;
        for (Advice& each : advice) {
            each.address -= reinterpret_cast<std::uintptr_t>(begin_);
        }
        return advice;
    }

    std::unique_ptr<char, Unmap> mapped_;
    char* begin_ = nullptr;
};

using Advices = std::vector<Advice>;

TEST_F(LargePages, WholePagesAreAdvised) {
    EXPECT_EQ(Advised(0, kLargePage), (Advices{{0, kLargePage, MADV_HUGEPAGE}}));
    EXPECT_EQ(Advised(0, kSize), (Advices{{0, kSize, MADV_HUGEPAGE}}));
    EXPECT_EQ(Advised(kLargePage, kLargePage), (Advices{{kLargePage, kLargePage, MADV_HUGEPAGE}}));
}

TEST_F(LargePages, PartsOfPagesAreLeftOut) {
    EXPECT_EQ(Advised(1, kSize - 1), (Advices{{kLargePage, kSize - kLargePage, MADV_HUGEPAGE}}));
    EXPECT_EQ(Advised(0, kSize - 1), (Advices{{0, kSize - kLargePage, MADV_HUGEPAGE}}));
    EXPECT_EQ(Advised(kLargePage - 16, kLargePage + 16),
              (Advices{{kLargePage, kLargePage, MADV_HUGEPAGE}}));
}

TEST_F(LargePages, NothingIsAdvisedWithoutAWholePage) {
    EXPECT_EQ(Advised(0, 0), Advices());
    EXPECT_EQ(Advised(0, kLargePage - 1), Advices());
    EXPECT_EQ(Advised(1, kLargePage), Advices());
    EXPECT_EQ(Advised(1, 2 * kLargePage - 2), Advices());
    EXPECT_EQ(Advised(kLargePage - 1, kLargePage), Advices());
}

TEST_F(LargePages, ContentStays) {
    begin_[kLargePage + 5] = 'a';
    Advised(3, kSize - 3);
    EXPECT_EQ(begin_[kLargePage + 5], 'a');
    begin_[kLargePage + 6] = 'b';
    EXPECT_EQ(begin_[kLargePage + 6], 'b');
}

TEST_F(LargePages, NothingIsAdvisedOfNoMemory) {
    begin_ = nullptr;
    EXPECT_EQ(Advised(0, 0), Advices());
}

}  // namespace
