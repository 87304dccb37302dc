// unpack.cpp - the floor of unpacking: the work that no verifying unpacker can avoid, done
// sequentially with the same libraries. No JSON, no checks of names, no confinement.
//
// usage: floor_unpack [--hash FILE]... [--extract ARCHIVE DIRECTORY]...
//
// --hash computes the SHA-256 digest of a file. --extract decompresses a gzip archive and creates
// its directories, files and links with their modes and timestamps.
#include "format/digest.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <isa-l/igzip_lib.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kPiece = 128 * 1024;
constexpr std::size_t kBlock = 512;

[[noreturn]] void die(const char* what)
{
    std::perror(what);
    std::exit(1);
}

void hash(const char* path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        die(path);
    std::vector<unsigned char> piece(kPiece);
    znc::Digest digest;
    for (ssize_t n; (n = ::read(fd, piece.data(), piece.size())) > 0;)
        digest.add(piece.data(), static_cast<std::size_t>(n));
    const znc::DigestText text = digest.text();
    std::printf("%.*s  %s\n", static_cast<int>(text.view().size()), text.view().data(), path);
    ::close(fd);
}

// The decompressed archive, read one or more blocks at a time.
class Archive {
  public:
    explicit Archive(const char* path) : fd_(::open(path, O_RDONLY | O_CLOEXEC))
    {
        if (fd_ < 0)
            die(path);
        isal_inflate_init(&state_);
        state_.crc_flag = ISAL_GZIP;
    }
    ~Archive() { ::close(fd_); }
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    // Returns up to `wanted` bytes without copying.
    std::string_view take(std::size_t wanted)
    {
        if (at_ == end_)
            refill();
        const std::size_t n = std::min(wanted, end_ - at_);
        const std::string_view bytes(reinterpret_cast<const char*>(out_.data()) + at_, n);
        at_ += n;
        return bytes;
    }

  private:
    void refill()
    {
        state_.next_out = out_.data();
        state_.avail_out = static_cast<std::uint32_t>(out_.size());
        while (state_.avail_out > 0 && state_.block_state != ISAL_BLOCK_FINISH) {
            if (state_.avail_in == 0) {
                const ssize_t n = ::read(fd_, in_.data(), in_.size());
                if (n <= 0)
                    break;
                state_.next_in = in_.data();
                state_.avail_in = static_cast<std::uint32_t>(n);
            }
            if (isal_inflate(&state_) != ISAL_DECOMP_OK)
                die("inflate");
        }
        at_ = 0;
        end_ = out_.size() - state_.avail_out;
    }

    int fd_;
    inflate_state state_ = {};
    std::vector<unsigned char> in_ = std::vector<unsigned char>(kPiece);
    std::vector<unsigned char> out_ = std::vector<unsigned char>(kPiece);
    std::size_t at_ = 0;
    std::size_t end_ = 0;
};

unsigned long octal(const char* field, std::size_t len)
{
    return std::strtoul(std::string(field, len).c_str(), nullptr, 8);
}

void set_time(int dir, const char* name, unsigned long mtime)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
    if (::utimensat(dir, name, times, AT_SYMLINK_NOFOLLOW) != 0)
        die(name);
}

void make_file(Archive& archive, int dir, const char* name, mode_t mode, unsigned long size,
               unsigned long mtime)
{
    const int fd = ::openat(dir, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        die(name);
    for (unsigned long left = (size + kBlock - 1) / kBlock * kBlock; left > 0;) {
        const std::string_view bytes = archive.take(left);
        const std::size_t wanted = std::min<std::size_t>(bytes.size(), size);
        if (bytes.empty() || ::write(fd, bytes.data(), wanted) < 0)
            die(name);
        left -= bytes.size();
        size -= wanted;
    }
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
    ::futimens(fd, times);
    ::close(fd);
}

void extract(const char* path, const char* target)
{
    Archive archive(path);
    const int dir = ::open(target, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        die(target);
    std::vector<std::pair<std::string, unsigned long>> directories;
    for (;;) {
        const std::string_view header = archive.take(kBlock);
        if (header.size() < kBlock || header[0] == '\0')
            break;
        const char* h = header.data();
        std::string name =
            h[345] != '\0' ? std::string(h + 345, ::strnlen(h + 345, 155)) + "/" : "";
        name.append(h, ::strnlen(h, 100));
        const auto mode = static_cast<mode_t>(octal(h + 100, 8) & 0777);
        const unsigned long mtime = octal(h + 136, 12);
        if (h[156] == '5') {
            if (::mkdirat(dir, name.c_str(), mode) == 0)
                directories.emplace_back(std::move(name), mtime);
        } else if (h[156] == '2') {
            const std::string link(h + 157, ::strnlen(h + 157, 100));
            if (::symlinkat(link.c_str(), dir, name.c_str()) != 0)
                die(name.c_str());
        } else if (h[156] == '0') {
            make_file(archive, dir, name.c_str(), mode, octal(h + 124, 12), mtime);
        }
    }
    for (auto it = directories.rbegin(); it != directories.rend(); ++it)
        set_time(dir, it->first.c_str(), it->second);
    ::close(dir);
}

} // namespace

int main(int argc, char** argv)
{
    ::umask(0);
    for (int i = 1; i < argc; i++) {
        const std::string_view word = argv[i];
        if (word == "--hash" && i + 1 < argc) {
            hash(argv[++i]);
        } else if (word == "--extract" && i + 2 < argc) {
            extract(argv[i + 1], argv[i + 2]);
            i += 2;
        } else {
            std::fputs("usage: floor_unpack [--hash FILE]... [--extract ARCHIVE DIRECTORY]...\n",
                       stderr);
            return 64;
        }
    }
    return 0;
}
