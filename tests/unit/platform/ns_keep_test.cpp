// Tests of namespaces that outlive their owner. Each owner is a process of its own; the test is the
// parent of orphans, and itself owns nothing.
#include "namespace_world.hpp"
#include "zarnel/ns_keep.h"

#include "kept_file.hpp"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace_world::kFlags;
using namespace_world::read_file;

constexpr const char* kKept = "/run/zarnel/kept";
constexpr const char* kNote = "a note\n\1with bytes";

// Runs an owner to its end and returns its exit status; 128 + signal if it is killed.
int owner(const std::function<int()>& body)
{
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Found {
    int accepted = 0;
    int refused = 0;
    bool wanted = true;
    nsid_t ns = -1;
    bool live = false;
    pid_t program = -1;
    std::string note;
    std::string reason;
};

BOOL accept(const znKept* kept, void* context)
{
    auto& found = *static_cast<Found*>(context);
    found.accepted++;
    found.ns = kept->ns;
    found.live = kept->live != FALSE;
    found.program = kept->program;
    found.note.assign(static_cast<const char*>(kept->note), kept->noteSize);
    return found.wanted ? TRUE : FALSE;
}

void refuse(const char* /*name*/, nsid_t /*ns*/, const char* reason, void* context)
{
    auto& found = *static_cast<Found*>(context);
    found.refused++;
    found.reason = reason;
}

Found adopt(bool wanted = true)
{
    Found found;
    found.wanted = wanted;
    if (znnsKeepOpen(nullptr) == OK)
        znnsAdopt(accept, refuse, &found);
    return found;
}

// Creates a namespace with two mounts and keeps it; returns 0 if that succeeded.
int create_and_keep(pid_t program = 0)
{
    const nsid_t ns = znnsCreate(kFlags);
    const bool good =
        znnsKeepOpen(nullptr) == OK && ns >= 0 && znnsRootfsCreate(ns, "/tmp/root", "web") == OK &&
        namespace_world::mount(ns, "tmpfs", "/a", "tmpfs", {}) == OK &&
        namespace_world::mount(ns, "tmpfs", "/b c", "tmpfs", {}) == OK &&
        znnsSeal(ns, nullptr, 0) == OK && znnsKeep(ns, program, kNote, std::strlen(kNote)) == OK;
    return good ? 0 : 1;
}

// Ends what is kept; returns the number of namespaces that were adopted for this.
int end_all()
{
    const Found found = adopt();
    return znnsShutdown() == 0 ? found.accepted : -1;
}

class NsKeep : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        make_little_root("/tmp/root");
        fs::create_directories("/tmp/root/a");
        fs::create_directories("/tmp/root/b c");
    }
    void TearDown() override
    {
        EXPECT_TRUE(eventually([] {
            while (::waitpid(-1, nullptr, WNOHANG | __WALL) > 0) {
            }
            return errno == ECHILD;
        })) << "processes are left";
        EXPECT_FALSE(fs::exists(kKept));
        EXPECT_TRUE(!fs::exists("/run/zarnel/ns") || fs::is_empty("/run/zarnel/ns"));
        fs::remove_all("/tmp/root");
    }

    static fs::path record()
    {
        for (const auto& entry : fs::directory_iterator(kKept))
            if (entry.path().filename() != "store")
                return entry.path();
        return {};
    }
    // The first process that a record names.
    static pid_t process_of(const fs::path& path)
    {
        const std::string text = read_file(path);
        return static_cast<pid_t>(std::stol(text.substr(text.find('\n') + 1)));
    }
};

} // namespace

TEST_F(NsKeep, AreTakenOverWithTheirNoteAndTheirMounts)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    EXPECT_EQ(owner([] {
                  const Found found = adopt();
                  EXPECT_EQ(found.accepted, 1) << found.reason;
                  EXPECT_TRUE(found.live);
                  EXPECT_EQ(found.note, kNote);
                  EXPECT_EQ(found.program, 0);
                  for (const char* path : {"/b c", "/a"})
                      EXPECT_EQ(znnsUmount(found.ns, "", "", path, "", nullptr), OK) << path;
                  EXPECT_EQ(znnsUmount(found.ns, "", "", "/a", "", nullptr), ERROR);
                  EXPECT_EQ(znnsDelete(found.ns), OK);
                  EXPECT_EQ(znnsShutdown(), 0);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(NsKeep, AreTakenOverAgainAndAgainAlsoFromOwnersThatWereKilled)
{
    ASSERT_EQ(owner([] { return create_and_keep() == 0 ? ::raise(SIGKILL) : 1; }), 128 + SIGKILL);
    for (int round = 0; round < 3; round++)
        EXPECT_EQ(owner([] { return adopt().live ? ::raise(SIGKILL) : 1; }), 128 + SIGKILL);
    EXPECT_EQ(owner(end_all), 1);
}

TEST_F(NsKeep, EndIfTheOwnerDoesNotKeepThem)
{
    ASSERT_EQ(owner([] {
                  const nsid_t ns = znnsCreate(kFlags);
                  const bool good =
                      znnsKeepOpen(nullptr) == OK && znnsRootfsCreate(ns, "/tmp/root", "web") == OK;
                  return good && znnsKeep(ns, 0, "", 0) == ERROR && errno == EINVAL ? 0 : 1;
              }),
              0);
    EXPECT_EQ(owner([] { return znnsKeptEnd(nullptr) != FALSE ? znnsRecover() : 1; }), 0);
}

TEST_F(NsKeep, CannotBeKeptWithoutPreparation)
{
    EXPECT_EQ(owner([] {
                  const nsid_t ns = znnsCreate(kFlags);
                  EXPECT_EQ(znnsRootfsCreate(ns, "/tmp/root", "web"), OK);
                  EXPECT_EQ(znnsSeal(ns, nullptr, 0), OK);
                  EXPECT_EQ(znnsKeep(ns, 0, "", 0), ERROR);
                  EXPECT_EQ(errno, ENOTSUP);
                  EXPECT_EQ(znnsShutdown(), 0);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(NsKeep, EndIfTheNextOwnerDoesNotWantThem)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    EXPECT_EQ(owner([] {
                  const Found found = adopt(false);
                  EXPECT_EQ(found.refused, 1);
                  EXPECT_EQ(znnsShutdown(), 0);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(NsKeep, EndIfTheNextOwnerKeepsNothing)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    EXPECT_EQ(owner([] { return znnsKeptEnd(nullptr) != FALSE ? znnsRecover() : 1; }), 0);
    EXPECT_EQ(owner([] { return znnsKeptEnd(nullptr) != FALSE ? 1 : 0; }), 0);
}

TEST_F(NsKeep, AreReportedAsEndedIfTheirKeeperHasEnded)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    const pid_t keeper = process_of(record());
    ASSERT_EQ(::kill(keeper, SIGKILL), 0);
    ASSERT_EQ(::waitpid(keeper, nullptr, __WALL), keeper);
    EXPECT_EQ(owner([] {
                  const Found found = adopt();
                  EXPECT_EQ(found.accepted, 1) << found.reason;
                  EXPECT_FALSE(found.live);
                  BOOL used = TRUE;
                  EXPECT_EQ(znnsInUse(found.ns, &used), OK);
                  EXPECT_EQ(used, FALSE);
                  EXPECT_EQ(znnsShutdown(), 0);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(NsKeep, AProgramWhoseIdNowBelongsToAnotherProcessIsNotNamed)
{
    // The program of the first round has ended at the adoption, that of the second lives.
    for (const bool lives : {false, true}) {
        const pid_t program = ::fork();
        if (program == 0)
            for (;;)
                ::pause();
        ASSERT_EQ(owner([program] { return create_and_keep(program); }), 0);
        if (!lives) {
            ::kill(program, SIGKILL);
            ::waitpid(program, nullptr, 0);
        }
        EXPECT_EQ(owner([&] {
                      const Found found = adopt();
                      EXPECT_EQ(found.program, lives ? program : 0);
                      EXPECT_EQ(znnsShutdown(), 0);
                      return HasFailure() ? 1 : 0;
                  }),
                  0);
        ::kill(program, SIGKILL);
    }
}

TEST_F(NsKeep, ARecordTruncatedOrChangedAtAnyByteIsRefused)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    const fs::path path = record();
    const std::string text = read_file(path);
    zn::KeptText kept;
    ASSERT_EQ(zn::kept_read(path.filename().c_str(), kept), 0);
    for (std::size_t at = 0; at < text.size(); at++) {
        std::ofstream(path, std::ios::binary) << text.substr(0, at);
        EXPECT_EQ(zn::kept_read(path.filename().c_str(), kept), EINVAL) << at;
        std::string changed = text;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        std::ofstream(path, std::ios::binary) << changed;
        EXPECT_NE(zn::kept_read(path.filename().c_str(), kept), 0) << at;
    }
    fs::permissions(path, fs::perms(0622));
    std::ofstream(path, std::ios::binary) << text;
    EXPECT_EQ(zn::kept_read(path.filename().c_str(), kept), EINVAL) << "others can write to it";
    EXPECT_EQ(owner([] {
                  const Found found = adopt();
                  EXPECT_EQ(found.accepted, 0);
                  EXPECT_EQ(found.refused, 1);
                  EXPECT_EQ(znnsRecover(), 0);
                  EXPECT_EQ(znnsShutdown(), 0);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(NsKeep, AnotherProcessIsNeitherTakenForAKeeperNorEnded)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    const fs::path path = record();
    zn::KeptText kept;
    ASSERT_EQ(zn::kept_read(path.filename().c_str(), kept), 0);
    // The record names this process, whose start time differs.
    const std::string content(kept.content);
    const std::string own = std::to_string(::getpid()) + content.substr(content.find(' '));
    ASSERT_EQ(zn::kept_write(path.filename().c_str(), own), 0);
    EXPECT_EQ(owner([] {
                  const Found found = adopt();
                  EXPECT_EQ(found.refused, 1);
                  EXPECT_EQ(znnsRecover(), 0);
                  EXPECT_EQ(znnsShutdown(), 0);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(NsKeep, IfOthersCanReplaceTheRecordsNoneIsUsedAndAllEnd)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    fs::permissions(kKept, fs::perms(0777));
    EXPECT_EQ(owner([] {
                  const Found found = adopt();
                  EXPECT_EQ(found.accepted, 0);
                  EXPECT_EQ(found.refused, 1);
                  return HasFailure() ? 1 : 0;
              }),
              0);
    EXPECT_EQ(::waitpid(process_of(record()), nullptr, __WALL), process_of(record()));
    fs::permissions(kKept, fs::perms(0700));
    EXPECT_EQ(owner(end_all), 1); // the one that has ended
}

TEST_F(NsKeep, TheProcessThatHoldsTheirSocketsHasNothingElse)
{
    ASSERT_EQ(owner([] { return create_and_keep(); }), 0);
    const pid_t store = process_of(fs::path(kKept) / "store");
    std::size_t descriptors = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(store) + "/fd"))
        descriptors += fs::read_symlink(entry.path()).string().starts_with("socket:") ? 1 : 100;
    EXPECT_EQ(descriptors, 3U); // both ends of its own, and the keeper's
    EXPECT_EQ(read_file("/proc/" + std::to_string(store) + "/comm"), "zn-store\n");
    EXPECT_EQ(owner(end_all), 1);
}
