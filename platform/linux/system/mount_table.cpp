// mount_table.cpp - see mount_table.hpp.
#include "mount_table.hpp"

#include <cstdlib>
#include <cstring>
#include <sys/sysmacros.h>

void zn::mount_unescape(char* text)
{
    char* out = text;
    for (const char* at = text; *at != '\0'; out++) {
        if (at[0] == '\\' && at[1] >= '0' && at[1] <= '3' && at[2] != '\0' && at[3] != '\0') {
            *out = static_cast<char>((at[1] - '0') * 64 + (at[2] - '0') * 8 + (at[3] - '0'));
            at += 4;
        } else {
            *out = *at++;
        }
    }
    *out = '\0';
}

namespace {

// Splits "36 25 0:32 / /overlay/name rw ... - overlay overlay rw,lowerdir=...": the device is the
// third field, the mount point the fifth; the type is the first behind the dash, the options of the
// file system are the last.
bool parse_line(char* line, zn::Mount& mount)
{
    constexpr int kDevice = 2;
    constexpr int kPoint = 4;
    constexpr char kDash[] = " - ";
    line[std::strcspn(line, "\n")] = '\0';
    char* rest = std::strstr(line, kDash);
    mount.options = std::strrchr(line, ' ');
    if (rest == nullptr || mount.options <= rest + 2)
        return false;
    *rest = '\0';
    *mount.options++ = '\0';
    char* save = nullptr;
    mount.type = ::strtok_r(rest + sizeof kDash - 1, " ", &save);
    char* field = ::strtok_r(line, " ", &save);
    for (int i = 0; i < kPoint && field != nullptr; i++) {
        if (i == kDevice) {
            char* colon = nullptr;
            const auto major = static_cast<unsigned>(std::strtoul(field, &colon, 10));
            const auto minor =
                static_cast<unsigned>(*colon == ':' ? std::strtoul(colon + 1, nullptr, 10) : 0);
            mount.device = makedev(major, minor);
        }
        field = ::strtok_r(nullptr, " ", &save);
    }
    mount.point = field;
    if (mount.type == nullptr || mount.point == nullptr)
        return false;
    zn::mount_unescape(mount.point);
    return true;
}

} // namespace

zn::MountTable::MountTable() : table_(std::fopen("/proc/self/mountinfo", "re")) {}

bool zn::MountTable::next(Mount& mount)
{
    while (table_) {
        char* line = line_.release();
        const bool got = ::getline(&line, &room_, table_.get()) > 0;
        line_.reset(line);
        if (!got) {
            complete_ = std::feof(table_.get()) != 0;
            return false;
        }
        if (parse_line(line, mount))
            return true;
    }
    return false;
}
