#include "base/list.hpp"

#include "alloc_fault.hpp"

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

namespace {

using znc::List;
using znc::Text;

// Counts how many exist.
class Counted {
  public:
    explicit Counted(int& living, int value = 0) : living_(&living), value_(value) { ++*living_; }
    Counted(Counted&& other) noexcept : living_(other.living_), value_(other.value_) { ++*living_; }
    Counted& operator=(Counted&&) = delete;
    ~Counted() { --*living_; }

    [[nodiscard]] int value() const { return value_; }

  private:
    int* living_;
    int value_;
};

TEST(List, ANewListIsEmpty)
{
    const List<int> list;
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.size(), 0U);
    EXPECT_EQ(list.begin(), list.end());
    EXPECT_TRUE(list.all().empty());
}

TEST(List, ItemsKeepTheirOrderWhileTheListGrows)
{
    List<std::unique_ptr<int>> list;
    for (int i = 0; i < 1000; i++)
        ASSERT_NE(list.append(std::make_unique<int>(i)), nullptr);
    ASSERT_EQ(list.size(), 1000U);
    for (std::size_t i = 0; i < list.size(); i++)
        EXPECT_EQ(*list[i], static_cast<int>(i));
    EXPECT_EQ(list.all().size(), 1000U);
    EXPECT_EQ(**(list.end() - 1), 999);
}

TEST(List, AppendReturnsTheItem)
{
    List<int> list;
    int* const item = list.append(7);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item, list.begin());
    *item = 8;
    EXPECT_EQ(list[0], 8);
}

TEST(List, EachItemIsDestroyedOnce)
{
    int living = 0;
    {
        List<Counted> list;
        for (int i = 0; i < 100; i++)
            ASSERT_NE(list.append(Counted(living, i)), nullptr);
        EXPECT_EQ(living, 100);
        EXPECT_EQ(list[99].value(), 99);
    }
    EXPECT_EQ(living, 0);
}

TEST(List, MovingAListMovesItsItems)
{
    int living = 0;
    {
        List<Counted> first;
        ASSERT_NE(first.append(Counted(living, 1)), nullptr);
        List<Counted> second(std::move(first));
        EXPECT_EQ(living, 1);
        ASSERT_EQ(second.size(), 1U);
        List<Counted> third;
        ASSERT_NE(third.append(Counted(living, 3)), nullptr);
        third = std::move(second);
        ASSERT_EQ(third.size(), 1U);
        EXPECT_EQ(third[0].value(), 1);
    }
    EXPECT_EQ(living, 0);
}

TEST(List, ReservedItemsAreAppendedWithoutAllocating)
{
    List<int> list;
    ASSERT_NE(list.append(0), nullptr);
    ASSERT_TRUE(list.reserve(100));
    alloc_fault::arm(1);
    for (int i = 1; i < 100; i++)
        ASSERT_NE(list.append(i), nullptr);
    EXPECT_TRUE(list.reserve(100)); // less than there is: nothing to do
    EXPECT_TRUE(list.reserve(0));
    EXPECT_EQ(list.append(100), nullptr);
    (void)alloc_fault::disarm();
    ASSERT_EQ(list.size(), 100U);
    EXPECT_EQ(list[0], 0);
    EXPECT_EQ(list[99], 99);
}

TEST(List, WithoutMemoryNothingIsReserved)
{
    List<int> list;
    ASSERT_NE(list.append(7), nullptr);
    alloc_fault::arm(1);
    const bool reserved = list.reserve(100);
    const int error = errno;
    (void)alloc_fault::disarm();
    EXPECT_FALSE(reserved);
    EXPECT_EQ(error, ENOMEM);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0], 7);
}

TEST(List, WithoutMemoryTheListStaysAsItIs)
{
    int living = 0;
    {
        List<Counted> list;
        std::size_t appended = 0;
        alloc_fault::arm(2); // the second time the list grows
        for (int i = 0; i < 100 && list.append(Counted(living, i)) != nullptr; i++)
            appended++;
        const int error = errno;
        (void)alloc_fault::disarm();
        EXPECT_EQ(error, ENOMEM);
        EXPECT_LT(appended, 100U);
        EXPECT_EQ(list.size(), appended);
        EXPECT_EQ(living, static_cast<int>(appended));
        ASSERT_NE(list.append(Counted(living, 100)), nullptr);
        EXPECT_EQ(list[appended].value(), 100);
        EXPECT_EQ(list[0].value(), 0);
    }
    EXPECT_EQ(living, 0);
}

TEST(Text, ACopyEndsWithNul)
{
    const std::string_view whole = "abcdef";
    const Text copy = znc::copy_text(whole.substr(0, 3));
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy.get(), "abc");
    EXPECT_STREQ(znc::copy_text("").get(), "");
}

TEST(Text, WithoutMemoryThereIsNoCopy)
{
    alloc_fault::arm(1);
    const Text copy = znc::copy_text("abc");
    const int error = errno;
    (void)alloc_fault::disarm();
    EXPECT_FALSE(copy);
    EXPECT_EQ(error, ENOMEM);
}

} // namespace
