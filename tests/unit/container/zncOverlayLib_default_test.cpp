// zncOverlayLib_default_test.cpp - the storage base of a build that was configured with another
// default, as packages are. Compiled with zncOverlayLib.cpp and that option.
#include "zncPath.hpp"

#include "test_tree.hpp"
#include "zncontainer.h"

#include <array>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

// Returns the path of the area, or "".
std::string area(uint32_t type)
{
    std::array<char, 1024> path = {};
    return zncBasePathGet(path.data(), path.size(), type) != 0 ? path.data() : "";
}

TEST(ConfiguredBase, ReplacesTheDefaultAndIsMadeWithMode0700)
{
    unsetenv("ZNC_BASE");
    EXPECT_EQ(area(ZNC_LAYER_PATH), "/tmp/configured/base/layers");
    EXPECT_EQ(test_tree::mode_of("/tmp/configured/base"), 0700U);
    EXPECT_FALSE(std::filesystem::exists("/ram0"));
    std::filesystem::remove_all("/tmp/configured");
}

TEST(ConfiguredBase, GivesWayToTheEnvironment)
{
    setenv("ZNC_BASE", "/tmp/environment", 1);
    EXPECT_EQ(area(ZNC_CONTAINERS_PATH), "/tmp/environment/containers/");
    setenv("ZNC_BASE", "relative", 1);
    EXPECT_EQ(area(ZNC_CONTAINERS_PATH), "/tmp/configured/base/containers/");
    unsetenv("ZNC_BASE");
    std::filesystem::remove_all("/tmp/environment");
    std::filesystem::remove_all("/tmp/configured");
}

} // namespace
