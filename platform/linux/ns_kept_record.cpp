// ns_kept_record.cpp - see ns_kept_record.hpp.
#include "ns_kept_record.hpp"

#include "keep_process.hpp"
#include "keep_store.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace zn {
namespace {

constexpr char kLine[] = "%d %llu %d %llu %d %llu %llx %llx %llu %llu %llu %zu %zu\n";
constexpr int kFields = 13;
constexpr std::size_t kLineMax = 320;

struct FileName {
    explicit FileName(nsid_t ns) { std::snprintf(text, sizeof text, "%d", ns); }
    char text[16];
};

// 0 if it cannot be determined.
std::uint64_t inode_of(pid_t pid, const char* file)
{
    char path[64];
    struct stat st;
    std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    return ::stat(path, &st) == 0 ? st.st_ino : 0;
}

bool add(znc::List<char>& text, std::string_view more)
{
    for (const char c : more)
        if (text.append(c) == nullptr)
            return false;
    return true;
}

} // namespace

int kept_record_fill(KeptRecord& record, const NamespaceLinks& links, pid_t program)
{
    record.keeper = {links.keeper, process_start_time(links.keeper)};
    record.keeperSocket = socket_cookie(links.keeperSocket.get());
    record.executable = inode_of(links.keeper, "exe");
    record.pidNamespace = inode_of(links.keeper, "ns/pid");
    record.mountNamespace = inode_of(links.keeper, "ns/mnt");
    if (links.holder > 0) {
        record.holder = {links.holder, process_start_time(links.holder)};
        record.holderSocket = socket_cookie(links.holderSocket.get());
    }
    if (program > 0)
        record.program = {program, process_start_time(program)};
    const bool complete = record.keeper.startTime != 0 && record.keeperSocket != 0 &&
                          record.executable != 0 && record.pidNamespace != 0 &&
                          record.mountNamespace != 0 &&
                          (links.holder <= 0 || record.holder.startTime != 0);
    return complete ? 0 : ESRCH;
}

int kept_record_write(nsid_t ns, const KeptRecord& record)
{
    char line[kLineMax];
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    const int len = std::snprintf(
        line, sizeof line, kLine, record.keeper.pid, record.keeper.startTime, record.holder.pid,
        record.holder.startTime, record.program.pid, record.program.startTime,
        number(record.keeperSocket), number(record.holderSocket), number(record.executable),
        number(record.pidNamespace), number(record.mountNamespace), record.mounts.size(),
        record.note.size());
    znc::List<char> text;
    if (!add(text, {line, static_cast<std::size_t>(len)}) || !add(text, record.mounts) ||
        !add(text, record.note))
        return ENOMEM;
    return kept_write(FileName(ns).text, {text.begin(), text.size()});
}

int kept_record_read(nsid_t ns, KeptText& text, KeptRecord& record)
{
    if (const int error = kept_read(FileName(ns).text, text); error != 0)
        return error;
    const std::size_t end = text.content.find('\n');
    std::size_t mounts = 0;
    std::size_t note = 0;
    unsigned long long numbers[5] = {};
    if (end == std::string_view::npos || end >= kLineMax ||
        std::sscanf(text.content.data(), kLine, &record.keeper.pid, &record.keeper.startTime,
                    &record.holder.pid, &record.holder.startTime, &record.program.pid,
                    &record.program.startTime, &numbers[0], &numbers[1], &numbers[2], &numbers[3],
                    &numbers[4], &mounts, &note) != kFields)
        return EINVAL;
    const std::string_view rest = text.content.substr(end + 1);
    if (record.keeper.pid <= 0 || mounts > rest.size() || note != rest.size() - mounts)
        return EINVAL;
    record.keeperSocket = numbers[0];
    record.holderSocket = numbers[1];
    record.executable = numbers[2];
    record.pidNamespace = numbers[3];
    record.mountNamespace = numbers[4];
    record.mounts = rest.substr(0, mounts);
    record.note = rest.substr(mounts);
    return 0;
}

void kept_record_remove(nsid_t ns)
{
    kept_remove(FileName(ns).text);
}

KeeperIs keeper_examine(const KeptRecord& record, pid_t pid)
{
    errno = 0;
    const std::uint64_t executable = inode_of(pid, "exe");
    if (executable == 0 && errno == ENOENT)
        return KeeperIs::kEnding;
    return executable == record.executable && runs_helper(pid) &&
                   inode_of(pid, "ns/pid") == record.pidNamespace &&
                   inode_of(pid, "ns/mnt") == record.mountNamespace
               ? KeeperIs::kRecorded
               : KeeperIs::kOther;
}

} // namespace zn
