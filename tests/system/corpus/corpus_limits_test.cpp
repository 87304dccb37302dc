// Tests with small archives and documents that expand to large ones. There is no size limit for
// them, so memory usage must not grow, and a full disk or inode table must end the unpack without
// leaving anything behind.
#include "corpus_world.hpp"
#include "tarforge.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include <pthread.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

using tarforge::Archive;
using tarforge::Field;
using tarforge::Header;

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kMiB = 1 << 20;
constexpr long kRoomKiB = 16L * 1024; // maximum memory of a call

// The result of a call and its peak memory. The call runs in a child process that can allocate at
// most `limit` more.
struct Measured {
    STATUS status = ERROR;
    int error = -1;
    long kib = 0;
};

long peak_kib()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

Measured measure(const std::function<STATUS()>& call)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit = {256 * kMiB, 256 * kMiB};
        setrlimit(RLIMIT_AS, &limit);
        const long before = peak_kib();
        errno = 0;
        Measured result;
        result.status = call();
        result.error = errno;
        result.kib = peak_kib() - before;
        _exit(write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    close(ends[1]);
    Measured result;
    const bool got = read(ends[0], &result, sizeof result) == sizeof result;
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(got && status == 0) << "the call did not come back: " << status;
    return result;
}

// Returns `count` MiB of zeros, compressed in pieces to about a thousandth.
std::string packed_zeros(const std::string& front, std::uint64_t count, const std::string& back)
{
    tarforge::Gzip options;
    const std::string piece = tarforge::deflate_part(std::string(16 * kMiB, '\0'));
    options.body = tarforge::deflate_part(front);
    for (std::uint64_t i = 0; i < count; i += 16)
        *options.body += piece;
    *options.body += tarforge::deflate(back);
    options.size = static_cast<std::uint32_t>(front.size() + count * kMiB + back.size());
    options.crc = 0; // not checked
    return tarforge::gzip("", options);
}

const std::string kEnd(1024, '\0');

// A small filesystem with few inodes, for the target and the storage.
class SmallDisk : public testing::Test {
  protected:
    void SetUp() override
    {
        fs::create_directories(mount_);
        ASSERT_EQ(mount("tmpfs", mount_.c_str(), "tmpfs", 0, "size=32m,nr_inodes=1000"), 0);
        ASSERT_EQ(setenv("ZNC_BASE", (mount_ + "/base").c_str(), 1), 0);
        fs::create_directories("/overlay");
        fs::create_directories(mount_ + "/base/layers");
        before_ = free_now();
    }
    void TearDown() override
    {
        unsetenv("ZNC_BASE");
        EXPECT_EQ(umount2(mount_.c_str(), 0), 0);
    }
    [[nodiscard]] std::pair<fsblkcnt_t, fsfilcnt_t> free_now() const
    {
        struct statvfs st = {};
        EXPECT_EQ(statvfs(mount_.c_str(), &st), 0);
        return {st.f_bfree, st.f_ffree};
    }
    STATUS unpack(const std::string& layer)
    {
        layout::Image image;
        image.layers = {layer};
        layout_.add(image);
        errno = 0;
        return zncImageUnpack((mount_ + "/bundle").c_str(), layout_.c_str(), nullptr, 0, nullptr);
    }
    void expect_no_trace() const
    {
        EXPECT_TRUE(fs::is_empty(mount_ + "/base/layers"));
        EXPECT_FALSE(test_tree::exists(mount_ + "/bundle"));
        EXPECT_EQ(free_now(), before_);
    }

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "image"};
    std::string mount_ = dir_ / "disk";
    std::pair<fsblkcnt_t, fsfilcnt_t> before_;
};

class Bomb : public testing::Test {
  protected:
    STATUS extract(const std::string& archive)
    {
        test_tree::write_file(archive_, archive);
        return zncUtilUntar(archive_.c_str(), target_.c_str());
    }
    Bomb() { fs::create_directory(target_); }

    layout::TempDir dir_;
    std::string archive_ = dir_ / "archive";
    std::string target_ = dir_ / "target";
};

} // namespace

// The member's name is that of a directory, so its data are discarded.
TEST_F(Bomb, AGibibyteOutOfAMebibyteTakesNoMemory)
{
    const Archive front = Archive().dir("n/").raw(Header("n").size(1024 * kMiB).block());
    const std::string archive = packed_zeros(front.bytes(), 1024, kEnd);
    EXPECT_LT(archive.size(), 2 * kMiB);
    const Measured result = measure([&] { return extract(archive); });
    EXPECT_EQ(result.status, OK);
    EXPECT_LT(result.kib, kRoomKiB);
}

TEST_F(Bomb, AGibibyteOfZerosBehindTheEndTakesNoMemory)
{
    const std::string archive = packed_zeros(Archive().file("f", "x").bytes(), 1024, kEnd);
    const Measured result = measure([&] { return extract(archive); });
    EXPECT_EQ(result.status, OK);
    EXPECT_LT(result.kib, kRoomKiB);
    EXPECT_EQ(corpus::tree_of(target_), std::set<std::string>{"f=x"});
}

TEST_F(Bomb, ATrailerThatPromisesFourGibibytesTakesNoMemory)
{
    tarforge::Gzip options;
    options.size = 0xfffffe00U;
    const std::string archive = tarforge::gzip(Archive().file("f", "x").end().bytes(), options);
    const Measured result = measure([&] { return extract(archive); });
    EXPECT_EQ(result.status, OK);
    EXPECT_LT(result.kib, kRoomKiB);
    EXPECT_EQ(corpus::tree_of(target_), std::set<std::string>{"f=x"});
}

TEST_F(Bomb, SizesThatAreClaimedAreNotAllocated)
{
    for (const std::uint64_t size : {0xffffffffULL, 0x80000000ULL, 0x7fffffffULL, 0x10000000ULL}) {
        const Archive archive = Archive().member(Header("f").size(size)).end();
        const Measured result = measure([&] { return extract(archive.bytes()); });
        EXPECT_EQ(result.status, ERROR);
        EXPECT_EQ(result.error, 0);
        EXPECT_LT(result.kib, kRoomKiB);
    }
}

TEST_F(Bomb, ManyMembersTakeNoMemory)
{
    Archive archive;
    for (int i = 0; i < 50000; ++i)
        archive.member(Header("f" + std::to_string(i), 'L')); // a member of an unsupported type
    const std::string packed = tarforge::gzip(archive.end().bytes());
    const Measured result = measure([&] { return extract(packed); });
    EXPECT_EQ(result.status, OK);
    EXPECT_LT(result.kib, kRoomKiB);
}

TEST_F(Bomb, AnIndexOfAGibibyteIsNotRead)
{
    layout::Layout layout(dir_.path() / "image");
    layout.add({});
    fs::resize_file(layout.dir() / "index.json", 1024 * kMiB);
    const Measured result = measure([&] {
        return zncImageUnpack((dir_ / "bundle").c_str(), layout.c_str(), nullptr, 0, nullptr);
    });
    EXPECT_EQ(result.status, ERROR);
    EXPECT_EQ(result.error, S_zncLib_INDEX_INVALID);
    EXPECT_LT(result.kib, kRoomKiB);
}

// A thread with a stack as small as that of a task on a small system.
TEST_F(Bomb, AMillionBracketsNeedNoStack)
{
    layout::Layout layout(dir_.path() / "image");
    layout.add({});
    for (const std::string& text : {std::string(1000000, '['), std::string(999, '[')}) {
        layout::write_file(layout.dir() / "index.json", text);
        struct Call {
            const char* layout;
            std::string bundle;
            int error;
        } call = {layout.c_str(), dir_ / "bundle", 0};
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
        pthread_t thread;
        const auto run = [](void* argument) -> void* {
            Call& mine = *static_cast<Call*>(argument);
            if (zncImageUnpack(mine.bundle.c_str(), mine.layout, nullptr, 0, nullptr) != OK)
                mine.error = errno;
            return nullptr;
        };
        ASSERT_EQ(pthread_create(&thread, &attributes, run, &call), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
        EXPECT_EQ(call.error, S_zncLib_INDEX_INVALID);
    }
}

// ------------------------------------------------------------------ a full disk

TEST_F(SmallDisk, AFileLargerThanTheDiskEndsTheUnpackWithoutATrace)
{
    const Archive front = Archive().raw(Header("f").size(1024 * kMiB).block());
    EXPECT_EQ(unpack(packed_zeros(front.bytes(), 1024, kEnd)), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    expect_no_trace();
}

TEST_F(SmallDisk, ManyFilesThatFillTheDiskEndTheUnpackWithoutATrace)
{
    Archive archive;
    for (int i = 0; i < 900; ++i)
        archive.file("f" + std::to_string(i), std::string(64 * 1024, 'x'));
    EXPECT_EQ(unpack(tarforge::gzip(archive.end().bytes())), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    expect_no_trace();
}

TEST_F(SmallDisk, MembersBeyondTheTableOfFilesEndTheUnpackWithoutATrace)
{
    for (const char* name : {"file", "link", "directory/"}) {
        Archive archive;
        for (int i = 0; i < 2000; ++i) {
            const std::string text = std::to_string(i) + name;
            Header header(text, *name == 'l' ? '2' : '0');
            archive.member(header.target("t"));
        }
        EXPECT_EQ(unpack(archive.end().bytes()), ERROR) << name;
        EXPECT_EQ(errno, ENOSPC) << name;
        expect_no_trace();
        layout_ = layout::Layout(dir_.path() / name);
    }
}
