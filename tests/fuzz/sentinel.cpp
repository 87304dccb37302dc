#include "sentinel.hpp"

#include "zncTreeDelete.hpp"
#include "zncontainer.h"

#include <fcntl.h>

namespace fs = std::filesystem;

namespace fuzz {

namespace {

struct stat status_of(const std::string& path)
{
    struct stat st = {};
    require(lstat(path.c_str(), &st) == 0, "what was there is there");
    return st;
}

// All of an entry that anybody could have changed.
std::string description(const std::string& path)
{
    const struct stat st = status_of(path);
    std::string text = std::to_string(st.st_mode) + ' ' + std::to_string(st.st_uid) + ' ' +
                       std::to_string(st.st_gid) + ' ' + std::to_string(st.st_nlink) + ' ' +
                       std::to_string(st.st_ino) + ' ' + std::to_string(st.st_mtim.tv_sec) + '.' +
                       std::to_string(st.st_mtim.tv_nsec) + ' ';
    if (S_ISREG(st.st_mode))
        text += test_tree::read_file(path);
    if (S_ISLNK(st.st_mode))
        text += fs::read_symlink(path);
    return text;
}

void set_old_time(const std::string& path)
{
    const timespec old[2] = {{1000, 0}, {2000, 0}};
    require(utimensat(AT_FDCWD, path.c_str(), old, AT_SYMLINK_NOFOLLOW) == 0, "times can be set");
}

} // namespace

Sentinel::Sentinel()
{
    for (const char* name : {"outside", "target-evil"}) {
        const std::string dir = base_ / name;
        fs::create_directories(dir + "/dir");
        test_tree::write_file(dir + "/secret", "precious");
        fs::create_symlink("secret", dir + "/link");
        for (const char* entry : {"/dir", "/secret", "/link", ""})
            set_old_time(dir + entry);
    }
    fs::create_directory(target_);
    before_ = neighbours();
}

std::map<std::string, std::string> Sentinel::neighbours() const
{
    std::map<std::string, std::string> all;
    for (auto entry = fs::recursive_directory_iterator(base()), end = fs::end(entry); entry != end;
         ++entry) {
        const std::string path = entry->path();
        if (path == target_)
            entry.disable_recursion_pending();
        else
            all[path] = description(path);
    }
    return all;
}

void Sentinel::extract(std::string_view archive)
{
    constexpr std::size_t kBlocks = 200;
    const DescriptorCount descriptors;
    static_cast<void>(zncTarExtract(archive_.with(archive), target_.c_str(), kBlocks, FALSE));
    descriptors.check();
}

void Sentinel::check_target() const
{
    for (const auto& entry : fs::recursive_directory_iterator(target_)) {
        const struct stat st = status_of(entry.path());
        require(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode),
                "only files, directories and links are made");
        require((st.st_mode & (S_ISUID | S_ISGID | S_ISVTX)) == 0, "no program gets rights");
        require(S_ISDIR(st.st_mode) || st.st_nlink == 1, "nothing has a second name");
        require(st.st_uid == geteuid(), "everything belongs to who extracts");
    }
}

void Sentinel::check_and_clear()
{
    const DescriptorCount descriptors;
    check_target();
    require(neighbours() == before_, "nothing outside the target changes");
    require(znc::delete_foreign_tree(target_.c_str()) == OK, "what was extracted can be deleted");
    require(!test_tree::exists(target_), "a deleted tree is gone");
    require(neighbours() == before_, "nothing outside the target is deleted");
    descriptors.check();
    fs::create_directory(target_);
}

} // namespace fuzz
