// Tests of what platform/posix refuses: each call that needs more than POSIX fails with a clear
// error.
#include "zarnel/fs.h"
#include "zarnel/ns.h"
#include "zarnel/ns_control.h"
#include "zarnel/overlay.h"
#include "zarnel/process.h"
#include "zarnel/requirement.h"
#include "zarnel/spawn.h"
#include "zarnel/stream.h"
#include "zarnel/watch.h"

#include "base/owned.hpp"
#include "test_tree.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

void expect_refused(long result, int error)
{
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, error);
    errno = 0;
}

TEST(Unsupported, NamespacesAreRefusedWithENOTSUPAndAReason)
{
    errno = 0;
    expect_refused(znnsCreate(0), ENOTSUP);
    char reason[ZNNS_REASON_MAX] = "";
    expect_refused(znnsCreateConfigured(0, "c", "{}", reason, sizeof reason), ENOTSUP);
    EXPECT_STREQ(reason, "this system has no namespaces");
    expect_refused(znnsConfigurationCheck("{}", nullptr, 0), ENOTSUP);
    expect_refused(znnsUsersMap(TRUE), ENOTSUP);
    EXPECT_EQ(znnsUsersMap(FALSE), OK);
    expect_refused(znnsFind("c"), ESRCH);
    expect_refused(znnsFreeze(0, TRUE), ENOTSUP);
    EXPECT_EQ(znnsRecover(), 0);
    EXPECT_EQ(znnsShutdown(), 0);
}

TEST(Unsupported, ProgramsAreNotSpawned)
{
    znSpawnAttr attr;
    ASSERT_EQ(znSpawnAttrInit(&attr), OK);
    ASSERT_EQ(znSpawnAttrSetNamespace(&attr, 1), OK);
    pid_t pid = -1;
    char name[] = "true";
    char* const argv[] = {name, nullptr};
    errno = 0;
    expect_refused(znSpawn(&pid, "/bin/true", &attr, argv, nullptr), ENOTSUP);
    EXPECT_EQ(pid, -1);
}

TEST(Unsupported, ThereAreNoOverlayDevices)
{
    EXPECT_EQ(znOvlInit(), FALSE);
    const char* dirs[] = {"/tmp"};
    errno = 0;
    expect_refused(znOvlDevCreate("/overlay/a", dirs, 1, FALSE), ENODEV);
    expect_refused(znOvlDevRemove("/overlay/a"), ENOENT);
    EXPECT_EQ(znOvlDevInUse("/overlay/a"), FALSE);
    EXPECT_EQ(znOvlDirsMax(), 0U);
}

TEST(Unsupported, TheDaemonsRequirementIsNotMet)
{
    znRequirement requirement = {};
    ASSERT_EQ(znRequirementGet(0, &requirement), TRUE);
    EXPECT_EQ(requirement.needed, TRUE);
    EXPECT_EQ(requirement.met, FALSE);
    EXPECT_EQ(znRequirementGet(1, &requirement), FALSE);
}

TEST(Unsupported, DescriptorsOfProcessesStreamsAndWatches)
{
    errno = 0;
    expect_refused(znProcessOpen(::getpid()), ENOTSUP);
    expect_refused(znStreamMove(0, 1, 1), ENOTSUP);
    expect_refused(znStreamReopen(0), ENOTSUP);
    expect_refused(znWatchOpen(0), ENOTSUP);
}

// Not refused, but done in another way than on Linux.
TEST(Unsupported, AnEntryIsAMountPointIfItsDeviceIsAnother)
{
    const test_tree::TempDir dir;
    const znc::UniqueFd root(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const znc::UniqueFd own(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(znMountedAt(root.get(), "proc"), 1);
    test_tree::write_file(dir / "file", "x");
    EXPECT_EQ(znMountedAt(own.get(), "file"), 0);
    EXPECT_EQ(znMountedAt(own.get(), "none"), 0);
}

} // namespace
