// The table of registered containers: it finds them by identity, names the next one in order, and
// keeps the list of them in the order of their registration.
#include "zncContainerTable.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

class Table : public ::testing::Test {
  protected:
    CONTAINER_CTX* make(const std::string& id, const std::string& bundle = "/b")
    {
        made_.push_back(znc::malloc_zeroed<CONTAINER_CTX>());
        CONTAINER_STATE& state = made_.back()->state;
        znc::copy_end(state.containerId, state.containerId + sizeof state.containerId, id.c_str());
        znc::copy_end(state.bundlePath, state.bundlePath + sizeof state.bundlePath, bundle.c_str());
        return made_.back().get();
    }
    CONTAINER_CTX* add(const std::string& id, const std::string& bundle = "/b")
    {
        CONTAINER_CTX* const ctx = make(id, bundle);
        EXPECT_EQ(table_.add(ctx), OK);
        return ctx;
    }
    void remove(const std::string& id) { table_.remove(table_.find(id.c_str())); }

    // All identities, asked for one after the other.
    Strings in_order() const
    {
        Strings ids;
        for (const CONTAINER_CTX* ctx = table_.next(""); ctx != nullptr;
             ctx = table_.next(ctx->state.containerId))
            ids.emplace_back(ctx->state.containerId);
        return ids;
    }
    Strings registered() const
    {
        Strings ids;
        const SL_NODE* last = nullptr;
        for (SL_NODE* node = list_.head; node != nullptr; node = node->next) {
            ids.emplace_back(reinterpret_cast<CONTAINER_CTX*>(node)->state.containerId);
            last = node;
        }
        EXPECT_EQ(list_.tail, last);
        return ids;
    }
    // `ids` is in the order of registration.
    void expect_holds(const Strings& ids) const
    {
        EXPECT_EQ(registered(), ids);
        for (const std::string& id : ids) {
            const CONTAINER_CTX* const found = table_.find(id.c_str());
            ASSERT_NE(found, nullptr) << id;
            EXPECT_EQ(found->state.containerId, id);
        }
        Strings sorted = ids;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(in_order(), sorted);
    }

    std::vector<znc::MallocPtr<CONTAINER_CTX>> made_;
    SL_LIST list_ = {};
    znc::ContainerTable table_{list_};
};

Strings shuffled_ids(int count)
{
    Strings ids;
    for (int i = 0; i < count; i++)
        ids.push_back("c" + std::to_string(i));
    std::shuffle(ids.begin(), ids.end(), std::mt19937(1)); // the same order every time
    return ids;
}

} // namespace

TEST_F(Table, FindsContainersByIdAndListsThemInOrder)
{
    EXPECT_EQ(table_.find("c0"), nullptr);
    EXPECT_EQ(table_.next(""), nullptr);
    const Strings ids = shuffled_ids(1000);
    for (const std::string& id : ids)
        add(id);
    expect_holds(ids);
    EXPECT_EQ(table_.find("c1000"), nullptr);
    EXPECT_EQ(table_.find(""), nullptr);
}

TEST_F(Table, NamesTheNextIdentityAlsoOfOneThatItDoesNotHold)
{
    for (const char* id : {"b", "a", "d"})
        add(id);
    EXPECT_STREQ(table_.next("c")->state.containerId, "d");
    EXPECT_STREQ(table_.next("aa")->state.containerId, "b");
    EXPECT_EQ(table_.next("d"), nullptr);
    EXPECT_EQ(table_.next("e"), nullptr);
}

TEST_F(Table, OrdersBytesAsUnsignedNumbers)
{
    add("\xc3\xa4");
    add("z");
    add("Z");
    EXPECT_EQ(in_order(), (Strings{"Z", "z", "\xc3\xa4"}));
}

TEST_F(Table, RefusesADuplicateId)
{
    CONTAINER_CTX* const first = add("web");
    CONTAINER_CTX* const second = make("web");
    EXPECT_EQ(table_.add(second), ERROR);
    EXPECT_EQ(errno, S_zncLib_CONTAINER_EXISTS);
    EXPECT_EQ(table_.find("web"), first);
    table_.remove(second); // it is not in the table
    expect_holds({"web"});
}

TEST_F(Table, KeepsTheOthersInTheirOrderWhenOneIsRemoved)
{
    Strings ids = shuffled_ids(200);
    for (const std::string& id : ids)
        add(id);
    // The first, its successor as the new first, two neighbours in the middle, the last.
    for (const std::string& gone : Strings{ids[0], ids[1], ids[100], ids[101], ids[199]}) {
        remove(gone);
        EXPECT_EQ(table_.find(gone.c_str()), nullptr);
        ids.erase(std::find(ids.begin(), ids.end(), gone));
        expect_holds(ids);
    }
    add("c-again");
    ids.push_back("c-again");
    expect_holds(ids);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(2));
    for (const std::string& id : ids)
        remove(id);
    expect_holds({});
    EXPECT_EQ(list_.head, nullptr);
}

TEST_F(Table, FindsTheContainerThatUsedABundleFirst)
{
    CONTAINER_CTX* const first = add("z", "/shared");
    add("a", "/shared");
    add("b", "/other");
    EXPECT_EQ(table_.find_by_bundle("/shared"), first);
    table_.remove(first);
    EXPECT_EQ(table_.find_by_bundle("/shared"), table_.find("a"));
    EXPECT_EQ(table_.find_by_bundle("/none"), nullptr);
}

TEST_F(Table, ComparesAsManyCharactersAsAreKept)
{
    // A context keeps 254 characters: what is longer names none.
    CONTAINER_CTX* const longest = add(std::string(254, 'x'));
    EXPECT_EQ(table_.find(std::string(254, 'x').c_str()), longest);
    EXPECT_EQ(table_.find(std::string(255, 'x').c_str()), nullptr);
    EXPECT_EQ(table_.find(std::string(253, 'x').c_str()), nullptr);
    EXPECT_EQ(table_.next(std::string(253, 'x').c_str()), longest);
}

TEST_F(Table, RemovesAll)
{
    for (const std::string& id : shuffled_ids(100))
        add(id);
    table_.clear();
    expect_holds({});
    table_.remove(made_[7].get());
    add("again");
    expect_holds({"again"});
}
