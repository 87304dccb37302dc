#include "confinement.hpp"

#include <cstring>

namespace zn {
namespace {

// Appends arrays to a block of memory that is large enough.
class Block {
  public:
    explicit Block(char* at) : at_(at) {}
    void add(const void* from, std::size_t size)
    {
        if (size != 0)
            std::memcpy(at_, from, size);
        at_ += size;
    }

  private:
    char* at_;
};

} // namespace

znc::MallocPtr<char[]> confinement_pack(wire::Confinement rules, const Settings& settings,
                                        std::span<const wire::FilterCode> filter,
                                        const List<Text>& entries, std::size_t& size)
{
    rules.limits = static_cast<std::uint32_t>(settings.rlimits.size());
    rules.filter = static_cast<std::uint32_t>(filter.size());
    rules.groups = static_cast<std::uint32_t>(settings.user.groups.size());
    rules.entries = static_cast<std::uint32_t>(entries.size());
    size = sizeof rules + rules.limits * sizeof(wire::Limit) +
           rules.filter * sizeof(wire::FilterCode) + rules.groups * sizeof(std::uint32_t);
    for (const Text& entry : entries)
        size += std::strlen(entry.get()) + 1;
    rules.size = size;
    auto memory = znc::malloc_array<char>(size);
    if (!memory)
        return nullptr;
    Block block(memory.get());
    block.add(&rules, sizeof rules);
    for (const Rlimit& limit : settings.rlimits) {
        const wire::Limit one = {static_cast<std::uint64_t>(limit.resource), limit.soft,
                                 limit.hard};
        block.add(&one, sizeof one);
    }
    block.add(filter.data(), filter.size() * sizeof(wire::FilterCode));
    block.add(settings.user.groups.begin(), settings.user.groups.size() * sizeof(std::uint32_t));
    for (const Text& entry : entries)
        block.add(entry.get(), std::strlen(entry.get()) + 1);
    return memory;
}

} // namespace zn
