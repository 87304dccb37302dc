#include "id_prefix.hpp"

#include "container.hpp"

#include <cerrno>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace zncctl {
namespace {

constexpr std::size_t kGenerated = 12; // digits of an id that zncctl makes up
constexpr std::size_t kShortest = 4;

bool is_hexadecimal(std::string_view text)
{
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

bool may_be_prefix(std::string_view word)
{
    return word.size() >= kShortest && word.size() < kGenerated && is_hexadecimal(word);
}

// The ids that the word begins; none if a container has exactly this id.
std::vector<std::string> ids_meant(const std::string& word)
{
    if (!may_be_prefix(word) || status_of(word) != STATE_UNKNOWN || errno != ENODEV)
        return {};
    std::vector<std::string> ids = all_ids().value_or(std::vector<std::string>());
    std::erase_if(ids, [&](const std::string& id) {
        return id.size() != kGenerated || !is_hexadecimal(id) || !id.starts_with(word);
    });
    return ids;
}

} // namespace

int complete_ids(const Command& command, Arguments& args)
{
    if (command.word != Word::kContainer)
        return kExitOk;
    const bool only_first = command.program != ProgramWords::kNone;
    for (std::size_t i = 0; i < (only_first ? 1 : args.operands()); i++) {
        const std::string word = args.operand(i);
        const std::vector<std::string> ids = ids_meant(word);
        if (ids.size() > 1)
            return failure(word,
                           fmt::format("several ids begin like this: {}", fmt::join(ids, ", ")));
        if (ids.size() == 1)
            args.replace_operand(i, ids.front());
    }
    return kExitOk;
}

} // namespace zncctl
