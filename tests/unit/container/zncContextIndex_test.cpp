// Tests of the registry's index: it finds exactly the containers in the list, in the order of the
// list.
#include "zncContextIndex.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class Contexts : public ::testing::Test {
  protected:
    CONTAINER_CTX* make(const std::string& id)
    {
        made_.push_back(znc::malloc_zeroed<CONTAINER_CTX>());
        char* const text = made_.back()->state.containerId;
        znc::copy_end(text, text + sizeof made_.back()->state.containerId, id.c_str());
        return made_.back().get();
    }
    CONTAINER_CTX* append(const std::string& id)
    {
        CONTAINER_CTX* const ctx = make(id);
        EXPECT_EQ(index_.append(ctx), OK);
        return ctx;
    }
    void expect_all_found(int first, int end)
    {
        for (int i = first; i < end; i++) {
            const CONTAINER_CTX* const found = index_.find(("c" + std::to_string(i)).c_str());
            ASSERT_NE(found, nullptr) << i;
            EXPECT_EQ(std::string(found->state.containerId), "c" + std::to_string(i));
        }
    }

    std::vector<znc::MallocPtr<CONTAINER_CTX>> made_;
    znc::ContextIndex index_;
};

} // namespace

TEST_F(Contexts, AreFoundByTheirIdentity)
{
    EXPECT_EQ(index_.find("c0"), nullptr);
    for (int i = 0; i < 1000; i++)
        append("c" + std::to_string(i));
    expect_all_found(0, 1000);
    EXPECT_EQ(index_.find("c1000"), nullptr);
    EXPECT_EQ(index_.find(""), nullptr);
}

TEST_F(Contexts, LeaveTheOthersInTheirOrder)
{
    std::vector<CONTAINER_CTX*> row(200);
    for (std::size_t i = 0; i < row.size(); i++)
        row[i] = append("c" + std::to_string(i));
    EXPECT_EQ(index_.remove(row[0]), nullptr);
    EXPECT_EQ(index_.remove(row[1]), nullptr);
    EXPECT_EQ(index_.remove(row[100]), row[99]);
    EXPECT_EQ(index_.remove(row[101]), row[99]);
    EXPECT_EQ(index_.remove(row[199]), row[198]);
    expect_all_found(2, 100);
    expect_all_found(102, 199);
    for (const int gone : {0, 1, 100, 101, 199})
        EXPECT_EQ(index_.find(("c" + std::to_string(gone)).c_str()), nullptr) << gone;
    EXPECT_EQ(append("c0")->containerNode.next, nullptr);
    EXPECT_EQ(index_.remove(made_.back().get()), row[198]);
}

TEST_F(Contexts, AreTheSameInAsManyCharactersAsAreKept)
{
    // A context stores 254 characters of an id, so a longer id matches none.
    CONTAINER_CTX* const longest = append(std::string(254, 'x'));
    EXPECT_EQ(index_.find(std::string(254, 'x').c_str()), longest);
    EXPECT_EQ(index_.find(std::string(255, 'x').c_str()), nullptr);
    EXPECT_EQ(index_.find(std::string(253, 'x').c_str()), nullptr);
}

TEST_F(Contexts, AreForgottenTogether)
{
    for (int i = 0; i < 100; i++)
        append("c" + std::to_string(i));
    index_.clear();
    EXPECT_EQ(index_.find("c7"), nullptr);
    EXPECT_EQ(index_.remove(made_[7].get()), nullptr);
    CONTAINER_CTX* const again = append("again");
    EXPECT_EQ(index_.find("again"), again);
}
