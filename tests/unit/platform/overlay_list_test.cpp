#include "zarnel/overlay.h"

#include "descriptors.hpp"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Device {
    std::vector<std::string> lower;
    bool writable;
};

std::map<std::string, Device> devices()
{
    std::map<std::string, Device> all;
    EXPECT_EQ(znOvlDevEach(
                  [](const char* name, const char* const* lower, uint32_t count, BOOL writable,
                     void* to) {
                      (*static_cast<std::map<std::string, Device>*>(to))[name] = {
                          {lower, lower + count}, writable == TRUE};
                  },
                  &all),
              OK);
    return all;
}

class OverlayList : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(znOvlInit(), TRUE); }
    void TearDown() override
    {
        for (const std::string& name : made_)
            EXPECT_EQ(znOvlDevRemove(name.c_str()), OK) << name;
        fs::remove_all("/tmp/list");
    }

    void make(const std::string& name, const std::vector<std::string>& dirs, bool writable)
    {
        std::vector<const char*> paths;
        for (const std::string& dir : dirs) {
            fs::create_directories(dir);
            paths.push_back(dir.c_str());
        }
        ASSERT_EQ(znOvlDevCreate(name.c_str(), paths.data(), static_cast<uint32_t>(paths.size()),
                                 writable ? TRUE : FALSE),
                  OK)
            << std::strerror(errno);
        made_.push_back(name);
    }

    std::vector<std::string> made_;
};

TEST_F(OverlayList, WithoutDevicesNothingIsVisited)
{
    EXPECT_TRUE(devices().empty());
}

TEST_F(OverlayList, ADeviceIsVisitedWithItsLowerDirectoriesFromTheTopDown)
{
    make("/overlay/read", {"/tmp/list/top", "/tmp/list/middle", "/tmp/list/bottom"}, false);
    const auto all = devices();
    ASSERT_EQ(all.count("/overlay/read"), 1U);
    EXPECT_FALSE(all.at("/overlay/read").writable);
    EXPECT_EQ(all.at("/overlay/read").lower,
              (std::vector<std::string>{"/tmp/list/top", "/tmp/list/middle", "/tmp/list/bottom"}));
}

TEST_F(OverlayList, AWritableDeviceIsToldApartAndItsUpperDirectoryIsNoLowerOne)
{
    make("/overlay/web", {"/tmp/list/web/upper", "/tmp/list/root"}, true);
    const auto all = devices();
    ASSERT_EQ(all.count("/overlay/web"), 1U);
    EXPECT_TRUE(all.at("/overlay/web").writable);
    EXPECT_EQ(all.at("/overlay/web").lower, (std::vector<std::string>{"/tmp/list/root"}));
}

TEST_F(OverlayList, NamesWithColonsCommasBlanksAndBackslashesAreWhole)
{
    make("/overlay/odd", {"/tmp/list/a:b", "/tmp/list/c,d", "/tmp/list/e f", "/tmp/list/g\\h\\:i"},
         false);
    const auto all = devices();
    ASSERT_EQ(all.count("/overlay/odd"), 1U);
    EXPECT_EQ(all.at("/overlay/odd").lower,
              (std::vector<std::string>{"/tmp/list/a:b", "/tmp/list/c,d", "/tmp/list/e f",
                                        "/tmp/list/g\\h\\:i"}));
}

TEST_F(OverlayList, OtherOverlaysAreLeftOut)
{
    make("/overlay/ours", {"/tmp/list/one", "/tmp/list/two"}, false);
    fs::create_directories("/tmp/list/there");
    ASSERT_EQ(std::system("mount -t overlay other -o lowerdir=/tmp/list/one:/tmp/list/two "
                          "/tmp/list/there"),
              0);
    EXPECT_EQ(devices().size(), 1U);
    EXPECT_EQ(std::system("umount /tmp/list/there"), 0);
}

TEST_F(OverlayList, LeavesNoDescriptorOpen)
{
    make("/overlay/one", {"/tmp/list/one", "/tmp/list/two"}, false);
    const auto before = open_descriptors();
    devices();
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
