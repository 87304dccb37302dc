// tar_fixture.hpp - the fixture of the extractor's tests: a target directory next to a directory
// that must not change, and system calls that fail on demand.
#ifndef TAR_FIXTURE_HPP
#define TAR_FIXTURE_HPP

#include "zncTarLib.hpp"

#include "descriptors.hpp"
#include "tarforge.hpp"
#include "test_tree.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

// The behaviour of the wrapped calls.
struct TarFaults {
    int failWrite = 0; // the nth write of at least one byte fails with ENOSPC
    // if not negative, that write writes this many bytes instead of failing
    ssize_t partialWrite = -1;
    int failRead = 0;                              // the nth read fails with EIO
    bool failClock = false;                        // clock_gettime fails with EINVAL
    std::optional<long> nanoseconds;               // the nanoseconds that clock_gettime returns
    bool failUtimensat = false;                    // utimensat fails with EPERM
    std::vector<std::size_t>* readSizes = nullptr; // receives the requested size of each read
    int failCloseOfDirectory = 0;      // the nth close of a readable directory fails with EIO
    bool failChmodOfDirectory = false; // fchmod of a directory fails with EIO
};
extern TarFaults tarFaults;

struct Entry {
    mode_t mode;
    off_t size;
    timespec mtime;
    std::string content; // of a file, or target of a link
    bool operator==(const Entry& other) const
    {
        return mode == other.mode && size == other.size && mtime.tv_sec == other.mtime.tv_sec &&
               mtime.tv_nsec == other.mtime.tv_nsec && content == other.content;
    }
};
using Tree = std::map<std::string, Entry>;

// Describes everything below `root`; links are not followed. Sizes of directories are omitted.
Tree snapshot(const std::string& root);

class TarTest : public testing::Test {
  protected:
    TarTest();
    void TearDown() override;

    // Extracts with errno set to 0 before, and checks that no descriptor and no record file is
    // left.
    STATUS extract(const std::string& bytes, std::size_t bfactor = 200);
    STATUS extract(const tarforge::Archive& archive) { return extract(archive.bytes()); }

    [[nodiscard]] std::string at(const std::string& name) const { return target_ + "/" + name; }
    [[nodiscard]] std::string content(const std::string& name) const
    {
        return test_tree::read_file(at(name));
    }
    [[nodiscard]] bool exists(const std::string& name) const { return test_tree::exists(at(name)); }
    [[nodiscard]] mode_t mode(const std::string& name) const
    {
        return test_tree::mode_of(at(name));
    }
    [[nodiscard]] time_t mtime(const std::string& name) const;
    [[nodiscard]] bool is_dir(const std::string& name) const;

    test_tree::TempDir dir_;
    std::string target_ = dir_ / "target";
    std::string outside_ = dir_ / "outside"; // contains "secret"
    std::string archive_ = dir_ / "archive";
    bool mayLeaveRecordFile_ = false;

  private:
    Tree precious_;
};

// Returns the names below `root` that look like the record file of directory times.
std::vector<std::string> record_files(const std::string& root);

#endif
