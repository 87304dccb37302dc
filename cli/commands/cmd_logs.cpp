#include "cli/containers/container.hpp"
#include "cli/containers/follow.hpp"
#include "commands.hpp"
#include "front/files.hpp"
#include "front/words.hpp"

#include <fmt/format.h>

namespace zncctl {
namespace {

// The last lines of a text. The last one may lack its newline.
std::string_view last_lines(std::string_view text, std::size_t lines)
{
    if (lines == 0)
        return "";
    std::size_t at = text.size() - (text.ends_with('\n') ? 1 : 0);
    for (std::size_t i = 0; i < lines; i++) {
        if (at == 0)
            return text;
        at = text.rfind('\n', at - 1);
        if (at == text.npos)
            return text;
    }
    return text.substr(at + 1);
}

} // namespace

int cmd_logs(const Arguments& args)
{
    const char* wanted = args.value("tail");
    const auto lines = to_number<std::size_t>(wanted != nullptr ? wanted : "0");
    if (!lines)
        return usage_failure(fmt::format("'{}' is not a valid number of lines", wanted));
    const std::string id = args.operand(0);
    znc::UniqueFd dir;
    if (const int status = open_log_of(id, dir); status != kExitOk)
        return status;
    LogReader reader(dir.get(), false);
    const std::string text = reader.read();
    const std::string_view shown =
        wanted != nullptr ? last_lines(text, *lines) : std::string_view(text);
    if (!write_all(STDOUT_FILENO, shown))
        return local_failure(errno, "standard output");
    if (!args.has("follow"))
        return kExitOk;
    return follow(dir.get(), reader, nullptr) ? static_cast<int>(kExitOk)
                                              : local_failure(errno, "standard output");
}

} // namespace zncctl
