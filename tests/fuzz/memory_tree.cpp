#include "memory_tree.hpp"

#include "fuzz_input.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

extern "C" {
int __real_open(const char*, int, ...);
int __real_openat(int, const char*, int, ...);
int __real_close(int);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
off_t __real_lseek(int, off_t, int);
int __real_stat(const char*, struct stat*);
int __real_fstat(int, struct stat*);
int __real_fstatat(int, const char*, struct stat*, int);
int __real_fchmod(int, mode_t);
int __real_ftruncate(int, off_t);
int __real_mkdirat(int, const char*, mode_t);
int __real_unlinkat(int, const char*, int);
int __real_symlinkat(const char*, int, const char*);
int __real_utimensat(int, const char*, const struct timespec*, int);
}

namespace {

using fuzz::require;

constexpr int kFirstDescriptor = 5000;
constexpr mode_t kPermBits = 0777;
// More than any input holds of its own is made, not written.
constexpr std::size_t kKept = 65536;

struct Node {
    mode_t mode = 0;
    ino_t number = 0;
    std::size_t size = 0;
    std::string bytes;
    std::map<std::string, std::shared_ptr<Node>, std::less<>> children;
};
using NodePtr = std::shared_ptr<Node>;

struct Open {
    NodePtr node; // null: closed
    std::size_t at = 0;
};

struct World {
    NodePtr target;
    NodePtr archive;
    NodePtr null;
    std::vector<Open> open;
    ino_t numbers = 1;
};

World* world = nullptr; // null: the real file system

int fail(int number)
{
    errno = number;
    return -1;
}

NodePtr make_node(mode_t mode)
{
    auto node = std::make_shared<Node>();
    node->mode = mode;
    node->number = world->numbers++;
    return node;
}

Open* find(int fd)
{
    const auto index = static_cast<std::size_t>(fd - kFirstDescriptor);
    const bool known = fd >= kFirstDescriptor && index < world->open.size();
    require(known && world->open[index].node != nullptr, "only open descriptors are used");
    return &world->open[index];
}

int open_node(NodePtr node)
{
    const auto free = std::find_if(world->open.begin(), world->open.end(),
                                   [](const Open& open) { return open.node == nullptr; });
    const auto index = free - world->open.begin();
    if (free == world->open.end())
        world->open.emplace_back();
    world->open[static_cast<std::size_t>(index)] = {std::move(node), 0};
    return kFirstDescriptor + static_cast<int>(index);
}

// The directory and the name of one component below it.
Node& parent_of(int dir, std::string_view name)
{
    require(dir != AT_FDCWD, "everything is reached from an open directory");
    require(!name.empty() && name != ".." && name.find('/') == std::string_view::npos,
            "a name is one component and not the parent's");
    Node& parent = *find(dir)->node;
    require(S_ISDIR(parent.mode), "names are looked up in directories");
    return parent;
}

NodePtr look_up(int dir, std::string_view name)
{
    Node& parent = parent_of(dir, name);
    if (name == ".")
        return find(dir)->node;
    const auto found = parent.children.find(name);
    return found != parent.children.end() ? found->second : nullptr;
}

// The number that making `name` fails with, or 0.
int refused(int dir, std::string_view name)
{
    constexpr std::size_t kNameMax = 255;
    if (name.size() > kNameMax)
        return ENAMETOOLONG;
    return look_up(dir, name) != nullptr ? EEXIST : 0;
}

int open_existing(const NodePtr& node, int flags)
{
    if (S_ISLNK(node->mode))
        return fail((flags & O_DIRECTORY) != 0 ? ENOTDIR : ELOOP);
    if ((flags & O_DIRECTORY) != 0 && !S_ISDIR(node->mode))
        return fail(ENOTDIR);
    if (S_ISDIR(node->mode) && (flags & O_ACCMODE) != O_RDONLY)
        return fail(EISDIR);
    return open_node(node);
}

int open_in(int dir, const char* name, int flags, mode_t mode)
{
    require((flags & O_CLOEXEC) != 0, "no descriptor reaches a program");
    require((flags & (O_NOFOLLOW | O_EXCL)) != 0, "links are never followed");
    const NodePtr node = look_up(dir, name);
    if (node != nullptr)
        return (flags & O_EXCL) != 0 ? fail(EEXIST) : open_existing(node, flags);
    if ((flags & O_CREAT) == 0)
        return fail(ENOENT);
    if (const int number = refused(dir, name); number != 0)
        return fail(number);
    const NodePtr made = make_node(S_IFREG | (mode & kPermBits));
    parent_of(dir, name).children.emplace(name, made);
    return open_node(made);
}

void describe(const Node& node, struct stat* st)
{
    *st = {};
    st->st_mode = node.mode;
    st->st_ino = node.number;
    st->st_dev = 1;
    st->st_size = static_cast<off_t>(node.size);
}

} // namespace

namespace memory_tree {

void begin(std::string_view archive)
{
    static World the;
    the = World();
    world = &the;
    the.target = make_node(S_IFDIR | 0700);
    the.null = make_node(S_IFCHR | 0666);
    the.archive = make_node(S_IFREG | 0600);
    the.archive->bytes = archive;
    the.archive->size = archive.size();
}

void end()
{
    for (const Open& open : world->open)
        require(open.node == nullptr, "every descriptor is closed");
    world = nullptr;
}

} // namespace memory_tree

extern "C" {

int __wrap_open(const char* path, int flags, ...)
{
    if (world == nullptr) {
        va_list rest;
        va_start(rest, flags);
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
        va_end(rest);
        return __real_open(path, flags, mode);
    }
    const std::string_view name = path;
    if (name == memory_tree::kArchive)
        return open_node(world->archive);
    if (name == memory_tree::kTarget)
        return open_node(world->target);
    require(name == "/dev/null", "nothing else is opened");
    return open_node(world->null);
}

int __wrap_openat(int dir, const char* name, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return world == nullptr ? __real_openat(dir, name, flags, mode)
                            : open_in(dir, name, flags, mode);
}

int __wrap_close(int fd)
{
    if (world == nullptr)
        return __real_close(fd);
    find(fd)->node = nullptr;
    return 0;
}

ssize_t __wrap_read(int fd, void* buf, size_t count)
{
    if (world == nullptr)
        return __real_read(fd, buf, count);
    Open& open = *find(fd);
    const std::string& bytes = open.node->bytes;
    const std::size_t at = std::min(open.at, bytes.size());
    const std::size_t n = std::min(count, bytes.size() - at);
    std::memcpy(buf, bytes.data() + at, n);
    open.at = at + n;
    return static_cast<ssize_t>(n);
}

ssize_t __wrap_write(int fd, const void* buf, size_t count)
{
    if (world == nullptr)
        return __real_write(fd, buf, count);
    Open& open = *find(fd);
    require(open.node != world->archive, "the archive is not written to");
    if (S_ISREG(open.node->mode) && open.at + count <= kKept) {
        std::string& bytes = open.node->bytes;
        bytes.resize(std::max(bytes.size(), open.at + count));
        bytes.replace(open.at, count, static_cast<const char*>(buf), count);
    }
    open.at += count;
    open.node->size = std::max(open.node->size, open.at);
    return static_cast<ssize_t>(count);
}

off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    if (world == nullptr)
        return __real_lseek(fd, offset, whence);
    Open& open = *find(fd);
    require(whence == SEEK_SET || whence == SEEK_CUR, "files are not looked at from their end");
    const off_t at = whence == SEEK_CUR ? static_cast<off_t>(open.at) + offset : offset;
    if (at < 0)
        return fail(EINVAL);
    open.at = static_cast<std::size_t>(at);
    return at;
}

int __wrap_stat(const char* path, struct stat* st)
{
    if (world == nullptr)
        return __real_stat(path, st);
    require(std::string_view(path) == memory_tree::kTarget, "nothing else is looked at");
    describe(*world->target, st);
    return 0;
}

int __wrap_fstat(int fd, struct stat* st)
{
    if (world == nullptr)
        return __real_fstat(fd, st);
    describe(*find(fd)->node, st);
    return 0;
}

int __wrap_fstatat(int dir, const char* name, struct stat* st, int flags)
{
    if (world == nullptr)
        return __real_fstatat(dir, name, st, flags);
    require((flags & AT_SYMLINK_NOFOLLOW) != 0, "links are looked at themselves");
    const NodePtr node = look_up(dir, name);
    if (node == nullptr)
        return fail(ENOENT);
    describe(*node, st);
    return 0;
}

int __wrap_fchmod(int fd, mode_t mode)
{
    if (world == nullptr)
        return __real_fchmod(fd, mode);
    Node& node = *find(fd)->node;
    require((mode & ~kPermBits) == 0, "a mode is permission bits");
    require(&node != world->target.get(), "the target keeps its mode");
    node.mode = (node.mode & static_cast<mode_t>(S_IFMT)) | mode;
    return 0;
}

int __wrap_ftruncate(int fd, off_t length)
{
    if (world == nullptr)
        return __real_ftruncate(fd, length);
    Node& node = *find(fd)->node;
    require(length == 0, "files are only emptied");
    node.bytes.clear();
    node.size = 0;
    return 0;
}

int __wrap_mkdirat(int dir, const char* name, mode_t mode)
{
    if (world == nullptr)
        return __real_mkdirat(dir, name, mode);
    if (const int number = refused(dir, name); number != 0)
        return fail(number);
    parent_of(dir, name).children.emplace(name, make_node(S_IFDIR | (mode & kPermBits)));
    return 0;
}

int __wrap_unlinkat(int dir, const char* name, int flags)
{
    if (world == nullptr)
        return __real_unlinkat(dir, name, flags);
    const NodePtr node = look_up(dir, name);
    if (node == nullptr)
        return fail(ENOENT);
    if (S_ISDIR(node->mode) != ((flags & AT_REMOVEDIR) != 0))
        return fail(EISDIR);
    if (!node->children.empty())
        return fail(ENOTEMPTY);
    parent_of(dir, name).children.erase(name);
    return 0;
}

int __wrap_symlinkat(const char* target, int dir, const char* name)
{
    if (world == nullptr)
        return __real_symlinkat(target, dir, name);
    if (std::strlen(target) == 0)
        return fail(ENOENT);
    if (const int number = refused(dir, name); number != 0)
        return fail(number);
    parent_of(dir, name).children.emplace(name, make_node(S_IFLNK | kPermBits));
    return 0;
}

int __wrap_utimensat(int dir, const char* name, const struct timespec* times, int flags)
{
    if (world == nullptr)
        return __real_utimensat(dir, name, times, flags);
    require((flags & AT_SYMLINK_NOFOLLOW) != 0, "times are set on links themselves");
    return look_up(dir, name) != nullptr ? 0 : fail(ENOENT);
}
}
