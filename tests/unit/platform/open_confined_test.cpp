// Tests of opening paths confined to a directory.

#include "system/open_confined.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <stdio.h>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;

class OpenConfined : public testing::Test {
  protected:
    OpenConfined()
    {
        fs::create_directories(dir_ / "a");
        fs::create_directories(dir_ / "b");
        top_ = znc::UniqueFd(::open(dir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    ~OpenConfined() override { fs::remove_all(dir_); }
    int error_of(const char* path, std::uint64_t resolve) const
    {
        errno = 0;
        return zn::open_confined(top_.get(), path, O_PATH, resolve) ? 0 : errno;
    }
    fs::path dir_ = fs::path("/tmp/open_confined_test." + std::to_string(::getpid()));
    znc::UniqueFd top_;
};

// Moves a directory between two others until it is destroyed.
class Mover {
  public:
    explicit Mover(const fs::path& dir)
        : from_(dir / "a/moved"), to_(dir / "b/moved"), thread_([this] { run(); })
    {
    }
    ~Mover()
    {
        end_ = true;
        thread_.join();
    }
    Mover(const Mover&) = delete;
    Mover& operator=(const Mover&) = delete;
    int moves() const { return moves_; }

  private:
    void run()
    {
        fs::create_directory(from_);
        while (!end_) {
            moves_ += ::rename(from_.c_str(), to_.c_str()) == 0 ? 1 : 0;
            moves_ += ::rename(to_.c_str(), from_.c_str()) == 0 ? 1 : 0;
        }
    }
    fs::path from_, to_;
    std::atomic<bool> end_ = false;
    std::atomic<int> moves_ = 0;
    std::thread thread_;
};

} // namespace

TEST_F(OpenConfined, DescriptorIsClosedOnExec)
{
    const znc::UniqueFd fd = zn::open_confined(top_.get(), "a", O_PATH, RESOLVE_BENEATH);
    ASSERT_TRUE(fd);
    EXPECT_EQ(::fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(OpenConfined, FailuresSetErrno)
{
    EXPECT_EQ(error_of("none", RESOLVE_IN_ROOT), ENOENT);
    EXPECT_EQ(error_of("../b", RESOLVE_BENEATH), EXDEV);
    fs::create_directory_symlink("a", dir_ / "link");
    EXPECT_EQ(error_of("link/x", RESOLVE_NO_SYMLINKS), ELOOP);
}

// The kernel gives up a lookup of ".." with EAGAIN if something is renamed at the same time, also
// in another file system.
TEST_F(OpenConfined, RenamesElsewhereDoNotDisturb)
{
    const Mover mover(dir_);
    constexpr int kMoves = 20000;
    for (int round = 0; round < 20000 || mover.moves() < kMoves; round++) {
        ASSERT_EQ(error_of("a/../b", RESOLVE_BENEATH), 0) << "round " << round;
        ASSERT_EQ(error_of("/../../a/../b", RESOLVE_IN_ROOT), 0) << "round " << round;
    }
}
