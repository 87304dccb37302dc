#include "report.hpp"

#include "front/escape.hpp"

#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncimport {
namespace {

struct Words {
    Change change;
    bool loss;
    const char* word;
    const char* one; // singular and plural, for the summary
    const char* many;
};

// In the order of the summary.
constexpr std::array<Words, 16> kWords = {{
    {Change::kDevice, true, "device", "device", "devices"},
    {Change::kFifo, true, "fifo", "FIFO", "FIFOs"},
    {Change::kXattr, true, "xattr", "file's extended attributes", "files' extended attributes"},
    {Change::kOwner, true, "owner", "owner", "owners"},
    {Change::kSetId, true, "set-id", "set-id or sticky bit", "set-id or sticky bits"},
    {Change::kLinkTarget, true, "link-target", "link target", "link targets"},
    {Change::kDanglingLink, true, "dangling-link", "dangling hard link", "dangling hard links"},
    {Change::kUnrepresentable, true, "unrepresentable", "file that cannot be written",
     "files that cannot be written"},
    {Change::kTime, true, "time", "modification time", "modification times"},
    {Change::kVolume, true, "volume", "volume", "volumes"},
    {Change::kUser, true, "user", "unknown user", "unknown users"},
    {Change::kHardlinkCopied, false, "hardlink-copied", "hard link copied", "hard links copied"},
    {Change::kHardlinkLinked, false, "hardlink-linked", "hard link made symbolic",
     "hard links made symbolic"},
    {Change::kSparse, false, "sparse", "sparse file filled", "sparse files filled"},
    {Change::kMetadataFile, false, "metadata-file", "metadata file dropped",
     "metadata files dropped"},
    {Change::kUserNumbers, false, "user-numbers", "user name made a number",
     "user names made numbers"},
}};

const Words& words_of(Change change)
{
    const auto place = static_cast<std::size_t>(change);
    return kWords.at(place);
}

constexpr bool in_order_of_changes()
{
    for (std::size_t i = 0; i < kWords.size(); ++i)
        if (static_cast<std::size_t>(kWords[i].change) != i)
            return false;
    return true;
}
static_assert(in_order_of_changes());

struct Count {
    std::uint64_t items = 0;
    const Report::Item* first = nullptr;
};

std::array<Count, kWords.size()> counts_of(const std::vector<Report::Item>& items)
{
    std::array<Count, kWords.size()> counts;
    for (const Report::Item& item : items) {
        Count& count = counts.at(static_cast<std::size_t>(item.change));
        if (count.items++ == 0)
            count.first = &item;
    }
    return counts;
}

std::string part_of_summary(const Count& count, const Words& words)
{
    std::string text = fmt::format("{} {}", count.items, count.items == 1 ? words.one : words.many);
    if (words.loss && !count.first->path.empty())
        text += fmt::format(" (first: {})", zncctl::printable(count.first->path));
    return text;
}

zncctl::Json document_of(const Report::Item& item)
{
    zncctl::Json entry = {{"change", Report::word(item.change)}, {"path", zncctl::utf8(item.path)}};
    if (!item.detail.empty())
        entry["detail"] = zncctl::utf8(item.detail);
    if (item.bytes != 0)
        entry["bytes"] = item.bytes;
    return entry;
}

} // namespace

bool Report::is_loss(Change change)
{
    return words_of(change).loss;
}

const char* Report::word(Change change)
{
    return words_of(change).word;
}

std::uint64_t Report::losses() const
{
    std::uint64_t losses = 0;
    for (const Item& item : items_)
        losses += is_loss(item.change) ? 1 : 0;
    return losses;
}

std::string Report::summary() const
{
    const auto counts = counts_of(items_);
    std::string lost;
    std::string changed;
    for (std::size_t i = 0; i < kWords.size(); ++i) {
        if (counts[i].items == 0)
            continue;
        std::string& list = kWords[i].loss ? lost : changed;
        list += (list.empty() ? "" : ", ") + part_of_summary(counts[i], kWords[i]);
    }
    std::string text = lost.empty() ? "" : "lost: " + lost;
    if (!changed.empty())
        text += (text.empty() ? "changed: " : "; changed: ") + changed;
    return text;
}

zncctl::Json Report::document() const
{
    zncctl::Json counts = zncctl::Json::object();
    const auto counted = counts_of(items_);
    for (std::size_t i = 0; i < kWords.size(); ++i)
        if (counted[i].items != 0)
            counts[kWords[i].word] = counted[i].items;
    zncctl::Json items = zncctl::Json::array();
    for (const Item& item : items_)
        items.push_back(document_of(item));
    return {{"losses", losses()}, {"counts", std::move(counts)}, {"items", std::move(items)}};
}

} // namespace zncimport
