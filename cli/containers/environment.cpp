#include "environment.hpp"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>

namespace zncctl {
namespace {

std::string_view name_of(std::string_view entry)
{
    return entry.substr(0, entry.find('='));
}

} // namespace

Environment::Environment(const std::vector<std::string>& entries)
{
    for (const std::string& entry : entries)
        put(entry);
}

bool Environment::apply(const std::string& text)
{
    const std::string name(name_of(text));
    if (name.empty())
        return false;
    if (name.size() < text.size())
        put(text);
    else if (const char* own = std::getenv(name.c_str()); own != nullptr)
        set(name, own);
    return true;
}

void Environment::set(std::string_view name, std::string_view value)
{
    put(fmt::format("{}={}", name, value));
}

const char* Environment::value(std::string_view name) const
{
    const auto found = find(name);
    return found != entries_.end() && found->size() > name.size() ? &(*found)[name.size() + 1]
                                                                  : nullptr;
}

std::vector<char*> Environment::pointers()
{
    std::vector<char*> pointers;
    for (std::string& entry : entries_)
        pointers.push_back(entry.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string>::const_iterator Environment::find(std::string_view name) const
{
    return std::find_if(entries_.begin(), entries_.end(),
                        [name](const std::string& entry) { return name_of(entry) == name; });
}

void Environment::put(std::string entry)
{
    if (const auto found = find(name_of(entry)); found != entries_.end())
        entries_[static_cast<std::size_t>(found - entries_.begin())] = std::move(entry);
    else
        entries_.push_back(std::move(entry));
}

} // namespace zncctl
