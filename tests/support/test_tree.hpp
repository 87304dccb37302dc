// test_tree.hpp - a temporary directory for a test, and helpers for files in it.
#ifndef TEST_TREE_HPP
#define TEST_TREE_HPP

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace test_tree {

class TempDir {
  public:
    TempDir()
    {
        char name[] = "/tmp/znc-test-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        path_ = name;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const
    {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

inline void write_file(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Returns whether the name exists, even as a dangling link.
inline bool exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

inline mode_t mode_of(const std::string& path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    return st.st_mode & 07777;
}

// Sets the umask and restores the old one.
class Umask {
  public:
    explicit Umask(mode_t mask) : old_(umask(mask)) {}
    ~Umask() { umask(old_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

  private:
    mode_t old_;
};

} // namespace test_tree

#endif
