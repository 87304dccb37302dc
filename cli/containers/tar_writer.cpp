#include "tar_writer.hpp"

#include "format/ustar.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <span>
#include <unistd.h>

namespace zncctl {
namespace {

constexpr std::size_t kBufferSize = std::size_t{256} * 1024;
constexpr std::size_t kRecord = 20 * znc::kTarBlock; // the archive is padded to a multiple of it
constexpr char kExtended = 'x';

void put_text(std::span<char> field, std::string_view text)
{
    std::copy_n(text.begin(), std::min(text.size(), field.size()), field.begin());
}

// A number that does not fit is 0 here and correct in the extended header.
template <std::size_t N> void put_number(char (&field)[N], std::uint64_t number)
{
    znc::tar_put_octal(field, number <= znc::tar_octal_max(N) ? number : 0);
}

std::string header_block(const TarMember& member, char type)
{
    znc::UstarHeader header{};
    put_text(header.name, member.path);
    put_number(header.mode, member.mode);
    put_number(header.uid, member.uid);
    put_number(header.gid, member.gid);
    put_number(header.size, member.size);
    put_number(header.mtime, static_cast<std::uint64_t>(std::max<std::int64_t>(member.mtime, 0)));
    header.linkflag = type;
    put_text(header.linkname, member.target);
    put_text(header.indicator, {znc::kUstarMagic, sizeof znc::kUstarMagic});
    put_text(header.version, {znc::kUstarVersion, sizeof znc::kUstarVersion});
    put_number(header.major, 0);
    put_number(header.minor, 0);
    std::fill(std::begin(header.chksum), std::end(header.chksum), ' ');
    const std::uint32_t sum = znc::tar_sum(&header, sizeof header); // the padding is zero
    header.chksum[6] = '\0';
    znc::tar_put_octal(std::span(header.chksum).first(7), sum);
    std::string block(znc::kTarBlock, '\0');
    std::memcpy(block.data(), &header, sizeof header);
    return block;
}

// "LENGTH KEY=VALUE\n", where the length counts itself.
std::string record(std::string_view key, std::string_view value)
{
    const std::size_t rest = key.size() + value.size() + 3;
    std::size_t length = rest + 1;
    while (std::to_string(length).size() + rest != length)
        length++;
    return fmt::format("{} {}={}\n", length, key, value);
}

// What does not fit into the header of a member.
std::string extended_records(const TarMember& member)
{
    const znc::UstarHeader fields{};
    std::string records;
    const bool long_path = member.path.size() > sizeof fields.name;
    const bool long_target = member.target.size() > sizeof fields.linkname;
    if ((long_path && !is_utf8(member.path)) || (long_target && !is_utf8(member.target)))
        records += record("hdrcharset", "BINARY");
    if (long_path)
        records += record("path", member.path);
    if (long_target)
        records += record("linkpath", member.target);
    if (member.size > znc::tar_octal_max(sizeof fields.size))
        records += record("size", std::to_string(member.size));
    if (member.uid > znc::tar_octal_max(sizeof fields.uid))
        records += record("uid", std::to_string(member.uid));
    if (member.gid > znc::tar_octal_max(sizeof fields.gid))
        records += record("gid", std::to_string(member.gid));
    if (member.mtime < 0 ||
        static_cast<std::uint64_t>(member.mtime) > znc::tar_octal_max(sizeof fields.mtime))
        records += record("mtime", std::to_string(member.mtime));
    return records;
}

} // namespace

TarWriter::TarWriter(int fd) : fd_(fd), buffer_(kBufferSize) {}

void TarWriter::add(const TarMember& member)
{
    if (const std::string records = extended_records(member); !records.empty())
        add_extended_header(member, records);
    write(header_block(member, static_cast<char>(member.type)));
    data_ = member.size;
}

void TarWriter::add_extended_header(const TarMember& member, std::string_view records)
{
    TarMember header;
    header.path = "./PaxHeaders/" + member.path.substr(0, 80);
    header.mode = 0644;
    header.size = records.size();
    write(header_block(header, kExtended));
    write(records);
    pad();
}

bool TarWriter::add_data(int file)
{
    std::uint64_t left = data_;
    while (left > 0) {
        if (used_ == buffer_.size())
            flush();
        const auto most = std::min<std::uint64_t>(left, buffer_.size() - used_);
        const ssize_t n = ::read(file, buffer_.data() + used_, static_cast<std::size_t>(most));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        used_ += static_cast<std::size_t>(n);
        written_ += static_cast<std::uint64_t>(n);
        left -= static_cast<std::uint64_t>(n);
    }
    const bool complete = left == 0;
    for (const std::string zeros(znc::kTarBlock, '\0'); left > 0;) {
        const auto part = std::min<std::uint64_t>(left, zeros.size());
        write({zeros.data(), static_cast<std::size_t>(part)});
        left -= part;
    }
    pad();
    return complete;
}

void TarWriter::finish()
{
    write(std::string(2 * znc::kTarBlock, '\0'));
    write(std::string((kRecord - written_ % kRecord) % kRecord, '\0'));
    flush();
}

void TarWriter::pad()
{
    write(std::string((znc::kTarBlock - written_ % znc::kTarBlock) % znc::kTarBlock, '\0'));
}

void TarWriter::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (used_ == buffer_.size())
            flush();
        const std::size_t part = std::min(bytes.size(), buffer_.size() - used_);
        std::memcpy(buffer_.data() + used_, bytes.data(), part);
        used_ += part;
        written_ += part;
        bytes.remove_prefix(part);
    }
}

void TarWriter::flush()
{
    if (!write_all(fd_, {buffer_.data(), used_}))
        throw_error("the archive");
    used_ = 0;
}

} // namespace zncctl
