#include "reference.hpp"

#include "format/digest.hpp"

#include <algorithm>

namespace zncctl {
namespace {

constexpr std::size_t kNameMax = 255; // the limits of registries
constexpr std::size_t kTagMax = 128;
constexpr std::size_t kPortMax = 5;
constexpr std::string_view kLower = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::string_view kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kIdKind = "sha256:";

bool contains(std::string_view set, char c)
{
    return set.find(c) != set.npos;
}

bool is_word(char c)
{
    return contains(kLower, c) || contains(kUpper, c);
}

// Lower-case letters and digits, separated by ".", "_", "__" or any number of "-".
bool is_path_component(std::string_view text)
{
    if (text.empty() || !contains(kLower, text.front()) || !contains(kLower, text.back()))
        return false;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t end = std::min(text.find_first_of(kLower, i), text.size());
        const std::string_view separator = text.substr(i, end - i);
        if (!separator.empty() && separator != "." && separator != "_" && separator != "__" &&
            separator.find_first_not_of('-') != separator.npos)
            return false;
        i = end + 1;
    }
    return true;
}

// A host name or address, maybe with a port.
bool is_registry(std::string_view text)
{
    const std::size_t bracket = text.rfind(']');
    const std::size_t colon = text.rfind(':');
    std::string_view host = text;
    if (colon != text.npos && (bracket == text.npos || colon > bracket)) {
        const std::string_view port = text.substr(colon + 1);
        if (port.empty() || port.size() > kPortMax || port.find_first_not_of(kDigits) != port.npos)
            return false;
        host = text.substr(0, colon);
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        return host.substr(1, host.size() - 2).find_first_not_of("0123456789abcdefABCDEF:") ==
               host.npos;
    if (host.empty() || !is_word(host.front()) || !is_word(host.back()) ||
        host.find("..") != host.npos)
        return false;
    return std::all_of(host.begin(), host.end(),
                       [](char c) { return is_word(c) || c == '.' || c == '-'; });
}

// Whether the first component of a name is a registry and not a part of the path.
bool names_registry(std::string_view component)
{
    return component == kLocalHost || component.find_first_of(".:") != component.npos ||
           component.find_first_of(kUpper) != component.npos;
}

bool is_tag(std::string_view tag)
{
    if (tag.empty() || tag.size() > kTagMax || tag.front() == '.' || tag.front() == '-')
        return false;
    return std::all_of(tag.begin(), tag.end(),
                       [](char c) { return is_word(c) || c == '_' || c == '.' || c == '-'; });
}

bool is_path(std::string_view path)
{
    for (;;) {
        const std::size_t slash = path.find('/');
        if (!is_path_component(path.substr(0, slash)))
            return false;
        if (slash == path.npos)
            return true;
        path.remove_prefix(slash + 1);
    }
}

// Removes tag and digest from the end of `name`. False if one is invalid.
bool take_suffixes(std::string_view& name, Reference& reference)
{
    if (const std::size_t at = name.find('@'); at != name.npos) {
        reference.digest = name.substr(at + 1);
        if (!znc::is_digest(reference.digest))
            return false;
        name = name.substr(0, at);
    }
    const std::size_t colon = name.rfind(':');
    if (colon != name.npos && name.find('/', colon) == name.npos) {
        reference.tag = name.substr(colon + 1);
        if (!is_tag(reference.tag))
            return false;
        name = name.substr(0, colon);
    }
    if (!reference.digest.empty())
        reference.tag.clear();
    else if (reference.tag.empty())
        reference.tag = "latest";
    return true;
}

bool has_registry(std::string_view name)
{
    const std::size_t slash = name.find('/');
    return slash != name.npos && names_registry(name.substr(0, slash));
}

} // namespace

std::string Reference::text() const
{
    return digest.empty() ? repository + ":" + tag : repository + "@" + digest;
}

std::optional<Reference> parse_reference(std::string_view text, const char* host)
{
    Reference reference;
    if (!take_suffixes(text, reference))
        return std::nullopt;
    std::string_view path = text;
    std::string registry = host;
    if (has_registry(text)) {
        registry = text.substr(0, text.find('/'));
        path = text.substr(registry.size() + 1);
    }
    if (!is_registry(registry) || !is_path(path))
        return std::nullopt;
    const bool official = registry == kDefaultRegistry && path.find('/') == path.npos;
    reference.repository = registry + (official ? "/library/" : "/") + std::string(path);
    if (reference.repository.size() > kNameMax)
        return std::nullopt;
    return reference;
}

std::vector<Reference> possible_references(std::string_view text)
{
    std::vector<Reference> found;
    for (const char* host : {kLocalHost, kDefaultRegistry})
        if (auto reference = parse_reference(text, host);
            reference && (found.empty() || reference->repository != found[0].repository))
            found.push_back(*std::move(reference));
    return found;
}

bool is_id_prefix(std::string_view text)
{
    constexpr std::size_t kIdSize = 64;
    const std::string_view digits = id_digits(text);
    return !digits.empty() && digits.size() <= kIdSize &&
           digits.find_first_not_of("0123456789abcdef") == digits.npos;
}

std::string_view id_digits(std::string_view id)
{
    return id.starts_with(kIdKind) ? id.substr(kIdKind.size()) : id;
}

} // namespace zncctl
