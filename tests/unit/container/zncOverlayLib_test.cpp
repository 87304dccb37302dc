#include "zncPath.hpp"

#include "test_tree.hpp"
#include "zarnel/overlay.h"
#include "zncontainer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

using test_tree::TempDir;

namespace {

// The calls that the platform received, and the results that it returns.
struct Platform {
    std::string asked;
    std::vector<const char*> dirs;
    BOOL has_upper = 99;
    STATUS result = OK;
    int err = 0;
};
Platform platform;

STATUS answer()
{
    if (platform.result != OK)
        errno = platform.err;
    return platform.result;
}

} // namespace

STATUS znOvlDevCreate(const char* devName, const char* const* dirs, uint32_t dirNum, BOOL hasUpper)
{
    platform.asked = std::string("create ") + devName;
    platform.dirs.assign(dirs, dirs + dirNum);
    platform.has_upper = hasUpper;
    return answer();
}

STATUS znOvlDevRemove(const char* devName)
{
    platform.asked = std::string("remove ") + devName;
    return answer();
}

namespace {

// ---------------------------------------------------------------- storage areas

class BasePath : public ::testing::Test {
  protected:
    void SetUp() override { unsetenv("ZNC_BASE"); }
    void TearDown() override
    {
        unsetenv("ZNC_BASE");
        std::filesystem::remove_all("/ram0");
    }

    // Returns "<path>" or "error <number>".
    std::string get(uint32_t type, size_t room = 1024)
    {
        std::vector<char> path(room + 1, 'X');
        errno = 0;
        const size_t len = zncBasePathGet(path.data(), room, type);
        if (len == 0)
            return "error " + std::to_string(errno);
        EXPECT_EQ(len, strlen(path.data()));
        return path.data();
    }
};

std::string error(int err)
{
    return "error " + std::to_string(err);
}

TEST_F(BasePath, UnsetBaseGivesTheDefaultAndMakesTheAreaWithMode0700)
{
    EXPECT_EQ(get(ZNC_FLATTENED_PATH), "/ram0/znc/flattened/");
    EXPECT_EQ(test_tree::mode_of("/ram0/znc/flattened"), 0700u);
    EXPECT_EQ(test_tree::mode_of("/ram0/znc"), 0700u);
}

TEST_F(BasePath, LayerAreaHasNoFinalSeparatorAndTheOthersHaveOne)
{
    EXPECT_EQ(get(ZNC_LAYER_PATH), "/ram0/znc/layers");
    EXPECT_EQ(get(ZNC_FLATTENED_PATH), "/ram0/znc/flattened/");
    EXPECT_EQ(get(ZNC_CONTAINERS_PATH), "/ram0/znc/containers/");
    for (const char* area : {"layers", "flattened", "containers"})
        EXPECT_TRUE(test_tree::exists(std::string("/ram0/znc/") + area)) << area;
    EXPECT_EQ(get(ZNC_LAYER_PATH), "/ram0/znc/layers") << "an existing area is success";
}

TEST_F(BasePath, ABaseThatAnotherUserOwnsOrCanWriteToIsRefusedAndNothingIsMade)
{
    const TempDir dir;
    const std::string base = dir / "base";
    setenv("ZNC_BASE", base.c_str(), 1);
    std::filesystem::create_directory(base);
    ASSERT_EQ(::chown(base.c_str(), 1000, 1000), 0);
    EXPECT_EQ(get(ZNC_LAYER_PATH), error(EPERM));
    ASSERT_EQ(::chown(base.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(base.c_str(), 0777), 0);
    EXPECT_EQ(get(ZNC_LAYER_PATH), error(EPERM));
    EXPECT_TRUE(std::filesystem::is_empty(base));
    ASSERT_EQ(::chmod(base.c_str(), 0755), 0);
    EXPECT_EQ(get(ZNC_LAYER_PATH), base + "/layers");
    ASSERT_EQ(::chown((base + "/layers").c_str(), 1000, 1000), 0);
    EXPECT_EQ(get(ZNC_LAYER_PATH), error(EPERM)) << "the area itself";
}

TEST_F(BasePath, FinalSeparatorsOfTheBaseAreDropped)
{
    const TempDir dir;
    setenv("ZNC_BASE", (dir.path() + "//").c_str(), 1);
    EXPECT_EQ(get(ZNC_CONTAINERS_PATH), dir.path() + "/containers/");
    setenv("ZNC_BASE", (dir.path() + "/\\/\\").c_str(), 1);
    EXPECT_EQ(get(ZNC_LAYER_PATH), dir.path() + "/layers");
    EXPECT_TRUE(test_tree::exists(dir / "layers"));
    EXPECT_FALSE(test_tree::exists("/ram0"));
}

TEST_F(BasePath, RelativeBaseIsIgnored)
{
    for (const char* base : {"relative/dir", ".", ""}) {
        setenv("ZNC_BASE", base, 1);
        EXPECT_EQ(get(ZNC_LAYER_PATH), "/ram0/znc/layers") << base;
    }
}

TEST_F(BasePath, BaseOfOnlySeparatorsIsIgnored)
{
    for (const char* base : {"/", "//", "\\", "/\\/"}) {
        setenv("ZNC_BASE", base, 1);
        EXPECT_EQ(get(ZNC_LAYER_PATH), "/ram0/znc/layers") << base;
    }
}

TEST_F(BasePath, BaseTooLongForTheBufferIsIgnored)
{
    setenv("ZNC_BASE", ("/" + std::string(40, 'b')).c_str(), 1);
    EXPECT_EQ(get(ZNC_LAYER_PATH, 41), "/ram0/znc/layers");
}

TEST_F(BasePath, BackslashIsASeparator)
{
    const TempDir dir;
    const std::filesystem::path old = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    setenv("ZNC_BASE", "\\store\\", 1);
    const std::string path = get(ZNC_CONTAINERS_PATH);
    std::filesystem::current_path(old);
    EXPECT_EQ(path, "\\store/containers/");
    EXPECT_TRUE(test_tree::exists(dir / "\\store/containers"));
    EXPECT_TRUE(pathIsSep('/'));
    EXPECT_TRUE(pathIsSep('\\'));
    EXPECT_FALSE(pathIsSep('a'));
}

TEST_F(BasePath, PathThatDoesNotFitFailsWithENAMETOOLONG)
{
    EXPECT_EQ(get(ZNC_CONTAINERS_PATH, 10), error(ENAMETOOLONG));
    EXPECT_EQ(get(ZNC_LAYER_PATH, 16), error(ENAMETOOLONG)) << "no room for the terminator";
    EXPECT_FALSE(test_tree::exists("/ram0"));
    EXPECT_EQ(get(ZNC_LAYER_PATH, 17), "/ram0/znc/layers");
    for (size_t room = 0; room <= 10; ++room)
        EXPECT_EQ(get(ZNC_LAYER_PATH, room), error(ENAMETOOLONG)) << room;
}

TEST_F(BasePath, UnknownAreaFailsWithENOTSUPAndMakesNothing)
{
    for (const uint32_t type : {3u, 4u, UINT32_MAX}) {
        EXPECT_EQ(get(type), error(ENOTSUP)) << type;
        EXPECT_EQ(get(type, 5), error(ENOTSUP)) << type << ", which is looked at before the length";
    }
    EXPECT_FALSE(test_tree::exists("/ram0"));
}

TEST_F(BasePath, AreaThatCannotBeMadeFailsWithTheReason)
{
    const TempDir dir;
    test_tree::write_file(dir / "file", "");
    setenv("ZNC_BASE", (dir / "file").c_str(), 1);
    EXPECT_EQ(get(ZNC_LAYER_PATH), error(ENOTDIR));
}

// ---------------------------------------------------------------- overlay devices

TEST(Overlay, AvailableFollowsTheDirectoryAtEveryCall)
{
    EXPECT_EQ(zncOvlFsAvailable(), TRUE);
    ASSERT_EQ(rmdir("/overlay"), 0);
    EXPECT_EQ(zncOvlFsAvailable(), FALSE);
    ASSERT_EQ(mkdir("/overlay", 0755), 0);
    EXPECT_EQ(zncOvlFsAvailable(), TRUE);
}

TEST(Overlay, CreateHandsDirectoriesOnInOrder)
{
    platform = {};
    const char* dirs[] = {"/upper", "/lower"};
    EXPECT_EQ(zncCreateOvlRootfsDev("/overlay/web", dirs, 2, TRUE), OK);
    EXPECT_EQ(platform.asked, "create /overlay/web");
    ASSERT_EQ(platform.dirs.size(), 2u);
    EXPECT_STREQ(platform.dirs[0], "/upper");
    EXPECT_STREQ(platform.dirs[1], "/lower");
    EXPECT_EQ(platform.has_upper, TRUE);
    EXPECT_EQ(zncCreateOvlRootfsDev("/overlay/image", dirs, 1, FALSE), OK);
    EXPECT_EQ(platform.dirs.size(), 1u);
    EXPECT_EQ(platform.has_upper, FALSE);
}

TEST(Overlay, ExistingDeviceOrRefusedAttachFailsWithThePlatformsNumber)
{
    const char* dirs[] = {"/a"};
    for (const int err : {EEXIST, ENODEV, EINVAL}) {
        platform = {};
        platform.result = ERROR;
        platform.err = err;
        errno = 0;
        EXPECT_EQ(zncCreateOvlRootfsDev("/overlay/x", dirs, 1, FALSE), ERROR);
        EXPECT_EQ(errno, err);
    }
}

TEST(Overlay, RemoveNamesTheDevice)
{
    platform = {};
    EXPECT_EQ(zncRemoveOvlRootfsDev("/overlay/web"), OK);
    EXPECT_EQ(platform.asked, "remove /overlay/web");
}

TEST(Overlay, RemoveOfAMissingOrIdleDeviceFailsWithThePlatformsNumber)
{
    for (const int err : {ENOENT, EINVAL}) {
        platform = {};
        platform.result = ERROR;
        platform.err = err;
        errno = 0;
        EXPECT_EQ(zncRemoveOvlRootfsDev("/overlay/x"), ERROR);
        EXPECT_EQ(errno, err);
    }
}

} // namespace
