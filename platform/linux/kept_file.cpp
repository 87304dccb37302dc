// kept_file.cpp - see kept_file.hpp.
#include "kept_file.hpp"

#include "base/directory.hpp"
#include "helper/wire.hpp"
#include "zarnel/daemon_file.h"
#include "zarnel/fs.h"
#include "zarnel/path_trust.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kDirectory[] = ZN_RUNTIME_DIR "/kept";
constexpr char kUnfinished[] = ".new-";
constexpr char kHeader[] = "zarnel-kept %u %zu %llx\n";
constexpr std::size_t kHeaderMax = 80;

struct Path {
    Path(const char* prefix, const char* name)
    {
        std::snprintf(text, sizeof text, "%s/%s%s", kDirectory, prefix, name);
    }
    char text[128];
};

// FNV-1a. It detects damage, not forgery: only root can write the files.
unsigned long long checksum(std::string_view content)
{
    unsigned long long sum = 0xcbf29ce484222325;
    for (const char c : content)
        sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return sum;
}

int write_new(const char* path, std::string_view content)
{
    const UniqueFd file(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    char header[kHeaderMax];
    const int len = std::snprintf(header, sizeof header, kHeader, wire::kKeeperProtocol,
                                  content.size(), checksum(content));
    const bool written = file && znc::write_all(file.get(), {header, static_cast<size_t>(len)}) &&
                         znc::write_all(file.get(), content) && ::fsync(file.get()) == 0;
    return written ? 0 : errno;
}

// A file of this user that no other user can write to.
bool is_own_file(const struct stat& st)
{
    return st.st_uid == ::geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Splits the header off. 0 or an error number.
int check(std::string_view file, std::string_view& content, unsigned& protocol)
{
    const std::size_t end = file.find('\n');
    std::size_t len = 0;
    unsigned long long sum = 0;
    char header[kHeaderMax] = {};
    if (end == std::string_view::npos || end + 1 >= sizeof header)
        return EINVAL;
    std::memcpy(header, file.data(), end + 1);
    if (std::sscanf(header, kHeader, &protocol, &len, &sum) != 3)
        return EINVAL;
    content = file.substr(end + 1);
    if (content.size() != len || checksum(content) != sum)
        return EINVAL;
    return protocol == wire::kKeeperProtocol ? 0 : EPROTO;
}

} // namespace

bool kept_directory_trusted()
{
    znPathTrust trust = {};
    if (znPathTrusted(kDirectory, &trust) != OK)
        return false;
    errno = ENOENT;
    return trust.exists != FALSE;
}

int kept_write(const char* name, std::string_view content)
{
    if (znMkdirParents(kDirectory, 0700) != OK)
        return errno;
    const Path unfinished(kUnfinished, name);
    ::unlink(unfinished.text); // left by a process that was killed
    int error = write_new(unfinished.text, content);
    if (error == 0 && ::rename(unfinished.text, Path("", name).text) != 0)
        error = errno;
    if (error != 0)
        ::unlink(unfinished.text);
    const UniqueFd directory(::open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (error == 0 && (!directory || ::fsync(directory.get()) != 0))
        error = errno;
    return error;
}

int kept_read(const char* name, KeptText& text)
{
    struct stat st;
    const UniqueFd file(
        ::open(Path("", name).text, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!file || ::fstat(file.get(), &st) != 0)
        return errno == ELOOP ? EINVAL : errno;
    if (!S_ISREG(st.st_mode) || !is_own_file(st))
        return EINVAL;
    text.file = znc::read_text(file.get(), st);
    if (text.file.bytes == nullptr)
        return errno;
    return check({text.file.bytes.get(), text.file.len}, text.content, text.protocol);
}

void kept_remove(const char* name)
{
    const znc::ErrnoSaver keep;
    ::unlink(Path("", name).text);
}

void kept_clear_unfinished()
{
    const znc::ErrnoSaver keep;
    const znc::UniqueDir dir(::opendir(kDirectory));
    while (const dirent* entry = dir ? znc::next_entry(dir.get()) : nullptr)
        if (std::strncmp(entry->d_name, kUnfinished, sizeof kUnfinished - 1) == 0)
            ::unlinkat(::dirfd(dir.get()), entry->d_name, 0);
    ::rmdir(kDirectory);
}

bool kept_each(void (*visit)(int ns, void* context), void* context)
{
    const znc::UniqueDir dir(::opendir(kDirectory));
    if (!dir)
        return errno == ENOENT;
    while (const dirent* entry = znc::next_entry(dir.get())) {
        int ns = -1;
        char rest = 0;
        if (std::sscanf(entry->d_name, "%d%c", &ns, &rest) == 1 && ns >= 0)
            visit(ns, context);
    }
    return errno == 0;
}

} // namespace zn
