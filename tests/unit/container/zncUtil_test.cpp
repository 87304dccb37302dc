#include "zncUtil.hpp"

#include "alloc_fault.hpp"
#include "eventually.hpp"
#include "test_tree.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

using test_tree::exists;
using test_tree::TempDir;
using test_tree::write_file;

namespace {

struct Extraction {
    std::string tape;
    std::string target;
    size_t blocks = 0;
    BOOL verbose = 99;
    STATUS result = OK;
};
Extraction extraction;

} // namespace

STATUS zncTarExtract(const char* pTape, const char* targetDir, size_t bfactor, BOOL verbose)
{
    extraction.tape = pTape;
    extraction.target = targetDir;
    extraction.blocks = bfactor;
    extraction.verbose = verbose;
    return extraction.result;
}

namespace {

// ---------------------------------------------------------------- error messages

std::string shown(int code)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    zncUtilShowErr(code);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    return out;
}

TEST(ShowErr, ZeroPrintsNothing)
{
    EXPECT_EQ(shown(0), "");
}

TEST(ShowErr, EveryCodeOfTheTablePrintsItsMessage)
{
    const std::vector<std::pair<int, const char*>> rows = {
        {0xdf0001, "File oci-layout not found"},
        {0xdf0002, "Json file oci-layout invalid"},
        {0xdf0003, "File index.json not found"},
        {0xdf0004, "File index.json invalid"},
        {0xdf0005, "Specified platform or architecture or tag not found"},
        {0xdf0006, "No image config found"},
        {0xdf0007, "Image config invalid"},
        {0xdf0008, "No manifest found"},
        {0xdf0009, "Manifest invalid"},
        {0xdf000b, "OCI bundle config.json parameter invalid"},
        {0xdf000c, "OCI bundle rootfs already exists"},
        {0xdf000d, "OCI bundle config.json already exists"},
        {0xdf000e, "OCI bundle config.json not exists"},
        {0xdf000f, "OCI version invalid"},
        {0xdf0010, "OCI root parameter invalid"},
        {0xdf0011, "OCI cwd parameter invalid"},
        {0xdf0012, "OCI arg parameter invalid"},
        {0xdf0013, "RTP spawn failed"},
        {0xdf0014, "OCI runtime config.json not found or load failed"},
        {0xdf0015, "Mount failed"},
        {0xdf0016, "Unmount failed"},
        {ENODEV, "Container does not exist"},
        {EBUSY, "Container in use"},
        {EINVAL, "Invalid parameter"},
        {0xdf0017, "Container already exists"},
        {0xdf0018, "The bundle is already in use"},
        {0xdf000a, "Container bundle path is too long"},
        {0xdf0019, "Container name space ID create failed"},
        {0xdf001a, "Container rootfs create failed"},
        {0xdf001b, "Container additional mount failed"},
        {0xdf001e, "invalid format option"},
        {EEXIST, "Target file or directory already exists"},
        {ESRCH, "The process is not running"},
        {0xb20004, "The process is not running"},
        {EROFS, "Write to read-only file system"},
        {EISDIR, "Target is a directory"},
        {ENOSPC, "No space left on device"},
        {0xdf001f, "The daemon is not running"},
        {0xdf0020, "signature missing for signed container image"},
        {0xdf0021, "signature verify failed"},
    };
    ASSERT_EQ(rows.size(), static_cast<size_t>(kZncUtilErrors));
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(zncUtilErrorMap[i].errCode, rows[i].first) << "row " << i;
        EXPECT_EQ(shown(rows[i].first), std::string("Error: ") + rows[i].second + ".\n");
    }
}

TEST(ShowErr, BundlePathTooLongIsFoundOutOfNumericOrder)
{
    EXPECT_EQ(zncUtilErrorMap[26].errCode, S_zncLib_BUNDLE_PATH_TOO_LONG);
    EXPECT_EQ(shown(0xdf000a), "Error: Container bundle path is too long.\n");
}

TEST(ShowErr, ESRCHAndTheProcessLayersCodePrintTheSame)
{
    EXPECT_EQ(shown(ESRCH), "Error: The process is not running.\n");
    EXPECT_EQ(shown(0xb20004), "Error: The process is not running.\n");
}

TEST(ShowErr, CodesOutsideTheTablePrintTheSystemsText)
{
    for (const int code : {0xdf001c, 0xdf001d, EPERM, ENOTDIR, ENAMETOOLONG, 0xdf0000, 0xdf0022})
        EXPECT_EQ(shown(code), std::string("Error: ") + strerror(code) + ".\n") << code;
}

TEST(ShowErr, NegativeCodesPrintTheSystemsText)
{
    for (const int code : {-1, -EINVAL, INT32_MIN})
        EXPECT_EQ(shown(code), std::string("Error: ") + strerror(code) + ".\n") << code;
}

TEST(ShowErr, TheErrorNumberIsNotChanged)
{
    for (const int code : {0, EINVAL, 0xdf0001, 0xdf001c, EPERM, -1}) {
        testing::internal::CaptureStdout();
        errno = 77;
        zncUtilShowErr(code);
        const int err = errno;
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(err, 77) << code;
    }
}

// ---------------------------------------------------------------- directories

TEST(NameIsDir, NoNameOrMissingIsFalse)
{
    EXPECT_EQ(zncUtilNameIsDir(nullptr, FALSE), FALSE);
    EXPECT_EQ(zncUtilNameIsDir("", FALSE), FALSE);
    EXPECT_EQ(zncUtilNameIsDir("/nonexistent", FALSE), FALSE);
}

TEST(NameIsDir, LinkToADirectoryCountsUnlessLinksAreLookedAt)
{
    const TempDir dir;
    write_file(dir / "file", "");
    ASSERT_EQ(symlink(dir.path().c_str(), (dir / "link").c_str()), 0);
    EXPECT_EQ(zncUtilNameIsDir(dir.path().c_str(), FALSE), TRUE);
    EXPECT_EQ(zncUtilNameIsDir(dir.path().c_str(), TRUE), TRUE);
    EXPECT_EQ(zncUtilNameIsDir((dir / "link").c_str(), FALSE), TRUE);
    EXPECT_EQ(zncUtilNameIsDir((dir / "link").c_str(), TRUE), FALSE);
    EXPECT_EQ(zncUtilNameIsDir((dir / "file").c_str(), FALSE), FALSE);
}

class FindSubDir : public ::testing::Test {
  protected:
    STATUS find(const std::string& name, BOOL clean, int room = 1024)
    {
        sub_.assign(1024, 'X');
        return zncUtilFindSubDirAndClean(name.c_str(), sub_.data(), room, clean);
    }

    // Returns a path of the directory with `len` characters.
    std::string long_name(size_t len) const
    {
        std::string name = dir_.path();
        while (name.size() + 2 <= len)
            name += "/.";
        if (name.size() < len)
            name += "/";
        return name;
    }

    TempDir dir_;
    std::string sub_;
};

TEST_F(FindSubDir, GivesThePathOfASubdirectory)
{
    ASSERT_EQ(mkdir((dir_ / "sub").c_str(), 0700), 0);
    EXPECT_EQ(find(dir_.path(), FALSE), OK);
    EXPECT_STREQ(sub_.c_str(), (dir_ / "sub").c_str());
    EXPECT_EQ(find(dir_.path() + "/", FALSE), OK);
    EXPECT_STREQ(sub_.c_str(), (dir_ / "sub").c_str()) << "no second / is added";
    EXPECT_EQ(zncUtilFindSubDirAndClean(dir_.path().c_str(), nullptr, 0, FALSE), OK);
}

TEST_F(FindSubDir, WithoutSubdirectoryIsAnErrorAndFilesAreOnlyDeletedWhenCleaning)
{
    for (const char* name : {"a", "b", "c"})
        write_file(dir_ / name, "");
    EXPECT_EQ(find(dir_.path(), FALSE), ERROR);
    EXPECT_TRUE(exists(dir_ / "a") && exists(dir_ / "b") && exists(dir_ / "c"));
    EXPECT_EQ(find(dir_.path(), TRUE), ERROR);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(FindSubDir, NullOrMissingOrNoDirectoryIsAnError)
{
    write_file(dir_ / "file", "");
    EXPECT_EQ(zncUtilFindSubDirAndClean(nullptr, nullptr, 0, TRUE), ERROR);
    errno = 0;
    EXPECT_EQ(find(dir_ / "none", TRUE), ERROR);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(find(dir_ / "file", TRUE), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(exists(dir_ / "file"));
}

TEST_F(FindSubDir, NamesThatDoNotFitAreAnErrorAndNothingIsDeleted)
{
    write_file(dir_ / "f", "");
    EXPECT_EQ(find(long_name(1100), TRUE), ERROR);
    EXPECT_EQ(find(long_name(1023), TRUE), ERROR);
    EXPECT_TRUE(exists(dir_ / "f"));
    EXPECT_EQ(find(long_name(1021), TRUE), ERROR);
    EXPECT_FALSE(exists(dir_ / "f")) << "1021 and /f fit";
}

TEST_F(FindSubDir, SubdirectoryThatDoesNotFitTheCallersBufferIsAnError)
{
    ASSERT_EQ(mkdir((dir_ / "sub").c_str(), 0700), 0);
    const int len = static_cast<int>((dir_ / "sub").size());
    EXPECT_EQ(find(dir_.path(), FALSE, len), ERROR);
    EXPECT_EQ(find(dir_.path(), FALSE, len + 1), OK);
}

TEST_F(FindSubDir, FileThatCannotBeDeletedIsAnError)
{
    write_file(dir_ / "pinned", "");
    ASSERT_EQ(mount("/dev/null", (dir_ / "pinned").c_str(), nullptr, MS_BIND, nullptr), 0);
    errno = 0;
    EXPECT_EQ(find(dir_.path(), TRUE), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(umount((dir_ / "pinned").c_str()), 0);
}

TEST_F(FindSubDir, FailedAllocationIsAnErrorAndDeletesNothing)
{
    write_file(dir_ / "f", "");
    alloc_fault::arm(0);
    find(dir_.path(), FALSE);
    const unsigned asked = alloc_fault::disarm();
    ASSERT_GE(asked, 1u);
    for (unsigned nth = 1; nth <= asked; ++nth) {
        alloc_fault::arm(nth);
        EXPECT_EQ(zncUtilFindSubDirAndClean(dir_.path().c_str(), nullptr, 0, TRUE), ERROR);
        alloc_fault::disarm();
        EXPECT_TRUE(exists(dir_ / "f"));
    }
}

// ---------------------------------------------------------------- tree delete

TEST(Xdelete, NullFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(zncUtilXdelete(nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Xdelete, FileAndDanglingLinkAreUnlinked)
{
    const TempDir dir;
    write_file(dir / "file", "x");
    write_file(dir / "target", "x");
    ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);
    ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
    for (const char* name : {"file", "dangling", "link"}) {
        EXPECT_EQ(zncUtilXdelete((dir / name).c_str()), OK) << name;
        EXPECT_FALSE(exists(dir / name)) << name;
    }
    EXPECT_TRUE(exists(dir / "target"));
}

TEST(Xdelete, MissingPathFailsAsUnlinkDoes)
{
    errno = 0;
    EXPECT_EQ(zncUtilXdelete("/nonexistent"), ERROR);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(zncUtilXdelete(""), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Xdelete, EmptyDirectoryIsRemoved)
{
    const TempDir dir;
    ASSERT_EQ(mkdir((dir / "empty").c_str(), 0700), 0);
    EXPECT_EQ(zncUtilXdelete((dir / "empty").c_str()), OK);
    EXPECT_FALSE(exists(dir / "empty"));
}

TEST(Xdelete, TreeIsRemovedAndItsNeighboursStay)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/a/b/c");
    std::filesystem::create_directories(dir / "tree/a/d");
    std::filesystem::create_directories(dir / "tree/e");
    for (const char* name :
         {"tree/f", "tree/a/f", "tree/a/b/f", "tree/a/b/c/f", "tree/e/f", "kept"})
        write_file(dir / name, name);
    ASSERT_EQ(symlink("../kept", (dir / "tree/link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir / "tree/fifo").c_str(), 0600), 0);
    EXPECT_EQ(zncUtilXdelete((dir / "tree").c_str()), OK);
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_TRUE(exists(dir / "kept"));
}

TEST(Xdelete, PathWithATrailingSlashEndsToo)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/a");
    EXPECT_EQ(zncUtilXdelete((dir / "tree/").c_str()), OK);
    EXPECT_FALSE(exists(dir / "tree"));
}

TEST(Xdelete, FinalRmdirThatFailsIsNotReported)
{
    const TempDir dir;
    write_file(dir / "f", "");
    ASSERT_EQ(mkdir((dir / "sub").c_str(), 0700), 0);
    // rmdir of a path that ends in "." fails with EINVAL.
    EXPECT_EQ(zncUtilXdelete((dir / ".").c_str()), OK);
    EXPECT_TRUE(exists(dir.path()));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(Xdelete, PathThatDoesNotFitItsBufferIsAnErrorAndDeletesNothing)
{
    const TempDir dir;
    write_file(dir / "f", "");
    std::string path = dir.path();
    while (path.size() < 1024)
        path += "/.";
    EXPECT_EQ(zncUtilXdelete(path.c_str()), ERROR);
    EXPECT_TRUE(exists(dir / "f"));
}

TEST(Xdelete, DirectoryThatCannotBeOpenedIsAnErrorWithTheReason)
{
    const TempDir dir;
    struct rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit none = old;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    errno = 0;
    const STATUS result = zncUtilXdelete(dir.path().c_str());
    const int err = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(result, ERROR);
    EXPECT_EQ(err, EMFILE);
}

TEST(Xdelete, FailedAllocationOfThePathBuffersIsAnErrorAndDeletesNothing)
{
    const TempDir dir;
    write_file(dir / "f", "");
    alloc_fault::arm(1);
    errno = 0;
    const STATUS result = zncUtilXdelete(dir.path().c_str());
    const int err = errno;
    alloc_fault::disarm();
    EXPECT_EQ(result, ERROR);
    EXPECT_EQ(err, ENOMEM);
    EXPECT_TRUE(exists(dir / "f"));
}

// Runs zncUtilXdelete in a child process, for trees on which it does not return.
class Deletion {
  public:
    explicit Deletion(const std::string& path)
    {
        pid_ = fork();
        if (pid_ == 0) {
            zncUtilXdelete(path.c_str());
            _exit(0);
        }
    }
    ~Deletion()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Deletion(const Deletion&) = delete;
    Deletion& operator=(const Deletion&) = delete;

    // Waits until `path` has been deleted; returns whether the deletion is still running.
    bool goes_on_after_removing(const std::string& path) const
    {
        if (!eventually([&] { return !exists(path) || ended(); }) || ended())
            return false;
        // long enough for hundreds of passes
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return !ended();
    }

  private:
    bool ended() const
    {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
               info.si_pid != 0;
    }

    pid_t pid_;
};

TEST(Xdelete, LinkToADirectoryIsEmptiedAndTheCallDoesNotEnd)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "outside");
    std::filesystem::create_directories(dir / "tree");
    write_file(dir / "outside/f", "");
    ASSERT_EQ(symlink("../outside", (dir / "tree/link").c_str()), 0);
    const Deletion deletion(dir / "tree");
    EXPECT_TRUE(deletion.goes_on_after_removing(dir / "outside/f"));
    EXPECT_TRUE(exists(dir / "outside"));
    EXPECT_TRUE(exists(dir / "tree/link"));
}

TEST(Xdelete, DirectoryThatCannotBeRemovedIsFoundAgainInEveryPass)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/mounted");
    ASSERT_EQ(mount("none", (dir / "tree/mounted").c_str(), "tmpfs", 0, nullptr), 0);
    write_file(dir / "tree/mounted/f", "");
    {
        const Deletion deletion(dir / "tree");
        EXPECT_TRUE(deletion.goes_on_after_removing(dir / "tree/mounted/f"));
    }
    EXPECT_TRUE(exists(dir / "tree/mounted"));
    EXPECT_EQ(umount((dir / "tree/mounted").c_str()), 0);
}

// ---------------------------------------------------------------- names

TEST(SignalNo, EveryNameOfTheTableGivesTheSystemsNumber)
{
    const std::vector<std::pair<const char*, int>> rows = {
        {"HUP", 1},   {"INT", 2},   {"QUIT", 3},  {"ILL", 4},   {"TRAP", 5},   {"ABRT", 6},
        {"EMT", 7},   {"FPE", 8},   {"KILL", 9},  {"BUS", 10},  {"SEGV", 11},  {"FMT", 12},
        {"PIPE", 13}, {"ALRM", 14}, {"TERM", 15}, {"CNCL", 16}, {"STOP", 17},  {"TSTP", 18},
        {"CONT", 19}, {"CHLD", 20}, {"TTIN", 21}, {"TTOU", 22}, {"RES1", 23},  {"RES2", 24},
        {"RES3", 25}, {"RES4", 26}, {"RES5", 27}, {"RES6", 28}, {"RES7", 29},  {"USR1", 30},
        {"USR2", 31}, {"POLL", 32}, {"PROF", 33}, {"SYS", 34},  {"URG", 35},   {"VTALRM", 36},
        {"XCPU", 37}, {"XFSZ", 38}, {"EVTS", 39}, {"EVTD", 40}, {"RTMIN", 48}, {"RTMAX", 63}};
    ASSERT_EQ(rows.size(), static_cast<size_t>(kSignals));
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_STREQ(signalList[i].sigstr, rows[i].first);
        EXPECT_EQ(zncUtilSignalNo(rows[i].first), rows[i].second) << rows[i].first;
    }
}

TEST(SignalNo, RealTimeBoundsAreTheSystems)
{
    EXPECT_EQ(zncUtilSignalNo("RTMAX"), 63);
    EXPECT_EQ(zncUtilSignalNo("RTMIN"), 48);
}

TEST(SignalNo, WhatIsNoBareUpperCaseNameIsMinusOne)
{
    for (const char* name :
         {"", "SIGTERM", "SIGKILL", "kill", "9", "KIL", "KILLX", "RTMIN+1", " HUP"})
        EXPECT_EQ(zncUtilSignalNo(name), -1) << name;
    EXPECT_EQ(zncUtilSignalNo(nullptr), -1);
}

TEST(StateIdToString, EveryStateHasItsName)
{
    EXPECT_STREQ(zncUtilStateIdToString(STATE_CREATING), "creating");
    EXPECT_STREQ(zncUtilStateIdToString(STATE_CREATED), "created");
    EXPECT_STREQ(zncUtilStateIdToString(STATE_RUNNING), "running");
    EXPECT_STREQ(zncUtilStateIdToString(STATE_STOPPED), "stopped");
    EXPECT_STREQ(zncUtilStateIdToString(STATE_UNKNOWN), "unknown");
}

TEST(StateIdToString, OtherNumbersAreUnknown)
{
    for (const int state : {5, -1, INT32_MIN, INT32_MAX})
        EXPECT_STREQ(zncUtilStateIdToString(state), "unknown") << state;
}

// ---------------------------------------------------------------- hexadecimal text

TEST(BinToHex, ThreeBytesNeedABufferOfSeven)
{
    uint8_t bytes[] = {0x00, 0xAB, 0xff};
    char text[8] = "XXXXXXX";
    EXPECT_EQ(zncUtilBinToHex(text, 7, bytes, 3), OK);
    EXPECT_STREQ(text, "00abff");
    EXPECT_EQ(text[7], '\0');
    errno = 0;
    EXPECT_EQ(zncUtilBinToHex(text, 6, bytes, 3), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_STREQ(text, "00abff") << "a refused call writes nothing";
}

TEST(BinToHex, EveryByteIsTwoLowerCaseDigits)
{
    std::vector<uint8_t> bytes(256);
    std::string expected;
    for (unsigned i = 0; i < 256; ++i) {
        bytes[i] = static_cast<uint8_t>(i);
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", i);
        expected += digits;
    }
    std::vector<char> text(513);
    ASSERT_EQ(zncUtilBinToHex(text.data(), text.size(), bytes.data(), bytes.size()), OK);
    EXPECT_EQ(text.data(), expected);
}

TEST(BinToHex, NullAndZeroSizesFailWithEINVAL)
{
    uint8_t byte = 1;
    char text[3];
    const auto refused = [](STATUS status) { return status == ERROR && errno == EINVAL; };
    errno = 0;
    EXPECT_TRUE(refused(zncUtilBinToHex(nullptr, 3, &byte, 1)));
    errno = 0;
    EXPECT_TRUE(refused(zncUtilBinToHex(text, 0, &byte, 1)));
    errno = 0;
    EXPECT_TRUE(refused(zncUtilBinToHex(text, 3, nullptr, 1)));
    errno = 0;
    EXPECT_TRUE(refused(zncUtilBinToHex(text, 3, &byte, 0)));
}

TEST(BinToHex, LengthWhoseTextOverflowsFailsWithEINVAL)
{
    uint8_t byte = 1;
    char text[3];
    for (const size_t len : {SIZE_MAX, SIZE_MAX / 2, SIZE_MAX / 2 + 1}) {
        errno = 0;
        EXPECT_EQ(zncUtilBinToHex(text, sizeof text, &byte, len), ERROR);
        EXPECT_EQ(errno, EINVAL);
    }
}

// ---------------------------------------------------------------- layers

TEST(Untar, ExtractsWithTwoHundredBlocksAndHandsTheResultOn)
{
    extraction = {};
    EXPECT_EQ(zncUtilUntar("/layer.tar", "/target"), OK);
    EXPECT_EQ(extraction.tape, "/layer.tar");
    EXPECT_EQ(extraction.target, "/target");
    EXPECT_EQ(extraction.blocks, 200u);
    EXPECT_EQ(extraction.verbose, FALSE);
    extraction.result = ERROR;
    errno = EPERM;
    EXPECT_EQ(zncUtilUntar("/layer.tar", "/target"), ERROR);
    EXPECT_EQ(errno, EPERM);
}

} // namespace
