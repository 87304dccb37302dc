// tar_fixture.hpp - what the extractor's tests share: a target directory with something precious
// beside it, and calls that fail on demand.
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

// What the wrapped calls do while set.
struct TarFaults {
    int failWrite = 0;               // the nth write of more than nothing fails with ENOSPC
    ssize_t partialWrite = -1;       // ... or writes this much instead of failing
    int failRead = 0;                // the nth read fails with EIO
    bool failClock = false;          // clock_gettime fails with EINVAL
    std::optional<long> nanoseconds; // the clock's
    bool failUtimensat = false;      // with EPERM
    std::vector<std::size_t>* readSizes = nullptr; // what each read asked for
    int failCloseOfDirectory = 0;      // the nth close of a directory that can be read: EIO
    bool failChmodOfDirectory = false; // fchmod of a directory: EIO
};
extern TarFaults tarFaults;

struct Entry {
    mode_t mode;
    off_t size;
    timespec mtime;
    std::string content; // or target
    bool operator==(const Entry& other) const
    {
        return mode == other.mode && size == other.size && mtime.tv_sec == other.mtime.tv_sec &&
               mtime.tv_nsec == other.mtime.tv_nsec && content == other.content;
    }
};
using Tree = std::map<std::string, Entry>;

// Everything below `root`, links as links. Directory sizes are left out.
Tree snapshot(const std::string& root);

class TarTest : public testing::Test {
  protected:
    TarTest();
    void TearDown() override;

    // Extracts and checks that no descriptor is left and no record file. errno is 0 before.
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
    std::string outside_ = dir_ / "outside"; // holds "secret"
    std::string archive_ = dir_ / "archive";
    bool mayLeaveRecordFile_ = false;

  private:
    Tree precious_;
};

// Names below `root` that look like the file of directory times.
std::vector<std::string> record_files(const std::string& root);

#endif
