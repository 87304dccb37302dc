#include "report.hpp"

#include "front/escape.hpp"

#include <array>
#include <fmt/format.h>

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
    {Change::kDanglingLink, true, "dangling-link", "hard link to nothing", "hard links to nothing"},
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

// Returns the length in bytes of the UTF-8 character at the start of `text`, or 0 if it is invalid.
std::size_t character_length(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80)
        return 1;
    const std::size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
    if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xc0U) != 0x80)
            return 0;
    const unsigned second = byte(1);
    const bool overlong = (byte(0) == 0xe0 && second < 0xa0) || (byte(0) == 0xf0 && second < 0x90);
    const bool beyond = (byte(0) == 0xed && second > 0x9f) || (byte(0) == 0xf4 && second > 0x8f);
    return overlong || beyond ? 0 : length;
}

// Converts a file name to UTF-8 for a JSON document: invalid bytes become "\xNN".
std::string utf8(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = character_length(bytes);
        if (length > 0)
            text += bytes.substr(0, length);
        else
            text += fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes[0]));
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

zncctl::Json document_of(const Report::Item& item)
{
    zncctl::Json entry(cJSON_CreateObject());
    zncctl::add_text(entry.get(), "change", Report::word(item.change));
    zncctl::add_text(entry.get(), "path", utf8(item.path));
    if (!item.detail.empty())
        zncctl::add_text(entry.get(), "detail", utf8(item.detail));
    if (item.bytes != 0)
        zncctl::add_number(entry.get(), "bytes", static_cast<double>(item.bytes));
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
    zncctl::Json document(cJSON_CreateObject());
    zncctl::add_number(document.get(), "losses", static_cast<double>(losses()));
    cJSON* const counts = cJSON_AddObjectToObject(document.get(), "counts");
    const auto counted = counts_of(items_);
    for (std::size_t i = 0; i < kWords.size(); ++i)
        if (counted[i].items != 0)
            zncctl::add_number(counts, kWords[i].word, static_cast<double>(counted[i].items));
    cJSON* const items = cJSON_AddArrayToObject(document.get(), "items");
    for (const Item& item : items_)
        cJSON_AddItemToArray(items, document_of(item).release());
    return document;
}

} // namespace zncimport
