#include "sentinel.hpp"

#include "test_tree.hpp"

#include <algorithm>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace sentinel {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void failed(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string attributes_of(const std::string& path)
{
    std::string names(4096, '\0');
    const ssize_t length = llistxattr(path.c_str(), names.data(), names.size());
    if (length < 0)
        return errno == ENOTSUP ? "" : "?";
    std::string text;
    for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
        const char* const name = names.data() + at;
        char value[512];
        const ssize_t n = lgetxattr(path.c_str(), name, value, sizeof value);
        text += std::string(" ") + name + "=" +
                std::string(value, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        at += std::string(name).size() + 1;
    }
    return text;
}

std::string content_of(const std::string& path, const struct stat& st)
{
    constexpr off_t kLargest = 8 << 20; // larger files are compared only by their times
    if (S_ISLNK(st.st_mode))
        return " -> " + fs::read_symlink(path).string();
    return S_ISREG(st.st_mode) && st.st_size <= kLargest ? " = " + test_tree::read_file(path) : "";
}

std::string describe(const std::string& path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        failed(path);
    std::ostringstream text;
    text << std::oct << st.st_mode << std::dec << " owner " << st.st_uid << ':' << st.st_gid
         << " links " << st.st_nlink << " inode " << st.st_ino << " device " << st.st_rdev
         << " size " << st.st_size << " modified " << st.st_mtim.tv_sec << '.' << st.st_mtim.tv_nsec
         << " changed " << st.st_ctim.tv_sec << '.' << st.st_ctim.tv_nsec << attributes_of(path)
         << content_of(path, st);
    return text.str();
}

void set_old_times(const std::string& path)
{
    const timespec times[2] = {{1000, 1}, {2000, 2}};
    if (utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        failed(path);
}

void must(int rc, const std::string& what)
{
    if (rc != 0)
        failed(what);
}

} // namespace

Snapshot look(const std::string& root)
{
    Snapshot snapshot;
    snapshot["."] = describe(root);
    for (const auto& entry : fs::recursive_directory_iterator(root))
        snapshot[entry.path().lexically_relative(root)] = describe(entry.path());
    return snapshot;
}

void make(const std::string& dir)
{
    fs::create_directories(dir + "/dir/deep");
    for (const char* file : {"/secret", "/dir/file", "/dir/deep/file", "/program"})
        test_tree::write_file(dir + file, std::string("precious ") + file);
    test_tree::write_file(dir + "/empty", "");
    must(chmod((dir + "/secret").c_str(), 0600), "chmod");
    must(chmod((dir + "/program").c_str(), 04755), "chmod");
    must(chmod((dir + "/dir/deep").c_str(), 01770), "chmod");
    must(chown((dir + "/dir/file").c_str(), 12345, 54321), "chown");
    must(link((dir + "/secret").c_str(), (dir + "/dir/second").c_str()), "link");
    must(symlink("secret", (dir + "/link").c_str()), "symlink");
    must(symlink("loop", (dir + "/loop").c_str()), "symlink");
    must(symlink("nowhere", (dir + "/dangling").c_str()), "symlink");
    must(mkfifo((dir + "/fifo").c_str(), 0640), "mkfifo");
    must(setxattr((dir + "/secret").c_str(), "trusted.bait", "1", 1, 0), "setxattr");
    must(setxattr((dir + "/dir").c_str(), "trusted.bait", "2", 1, 0), "setxattr");
    std::vector<std::string> all = {dir};
    for (const auto& entry : fs::recursive_directory_iterator(dir))
        all.push_back(entry.path());
    for (const std::string& path : all)
        set_old_times(path);
}

std::set<std::string> names_in(const std::string& dir)
{
    std::set<std::string> names;
    if (fs::is_directory(dir))
        for (const auto& entry : fs::directory_iterator(dir))
            names.insert(entry.path().filename());
    return names;
}

std::string difference(const Snapshot& before, const Snapshot& after)
{
    std::ostringstream text;
    for (const auto& [path, state] : before) {
        const auto now = after.find(path);
        if (now == after.end())
            text << "  gone: " << path << '\n';
        else if (now->second != state)
            text << "  " << path << "\n    was " << state << "\n    is  " << now->second << '\n';
    }
    for (const auto& [path, state] : after)
        if (before.count(path) == 0)
            text << "  new: " << path << ' ' << state << '\n';
    return text.str();
}

} // namespace sentinel
