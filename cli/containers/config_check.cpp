#include "config_check.hpp"

#include "front/files.hpp"

#include <cerrno>
#include <fmt/format.h>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "zncontainer.h"

namespace zncctl {
namespace {

struct Finding {
    ZNC_CONFIG_VERDICT verdict;
    ConfigFinding words;
};

const char* name_of(ZNC_CONFIG_TYPE type)
{
    switch (type) {
    case ZNC_CONFIG_ANY:
        return "";
    case ZNC_CONFIG_STRING:
        return "a string";
    case ZNC_CONFIG_BOOLEAN:
        return "true or false";
    case ZNC_CONFIG_OBJECT:
        return "an object";
    case ZNC_CONFIG_STRINGS:
        return "an array of strings";
    case ZNC_CONFIG_STRING_MAP:
        return "an object of strings";
    case ZNC_CONFIG_OBJECTS:
        return "an array of objects";
    case ZNC_CONFIG_NUMBER_STRING:
        return "a string that holds a number";
    case ZNC_CONFIG_VERSION:
        return "a version of 1 to 63 characters";
    case ZNC_CONFIG_PATH:
        return "a path";
    case ZNC_CONFIG_ABSOLUTE_PATH:
        return "an absolute path";
    case ZNC_CONFIG_PROGRAM:
        return "a program as the first argument";
    }
    return "";
}

std::string found_in(const ZNC_CONFIG_FINDING& finding)
{
    if (finding.verdict == ZNC_CONFIG_NO_EFFECT)
        return "no effect here";
    if (finding.verdict == ZNC_CONFIG_NOT_ALLOWED)
        return fmt::format("{} (needs zncd --allow-privileged)", finding.found);
    if (finding.expected == ZNC_CONFIG_PROGRAM)
        return "none";
    const bool wrong_text = finding.value != nullptr && finding.expected != ZNC_CONFIG_ANY;
    return wrong_text && finding.expected >= ZNC_CONFIG_NUMBER_STRING
               ? fmt::format("\"{}\"", finding.value)
               : finding.found;
}

void add(const ZNC_CONFIG_FINDING* finding, void* list)
{
    const bool refused = finding->verdict == ZNC_CONFIG_REFUSED ||
                         finding->verdict == ZNC_CONFIG_MISREAD ||
                         finding->verdict == ZNC_CONFIG_NOT_ALLOWED;
    static_cast<std::vector<Finding>*>(list)->push_back(
        {finding->verdict,
         {refused, *finding->path != '\0' ? finding->path : ".", name_of(finding->expected),
          found_in(*finding)}});
}

// The findings of the library; nullopt if it cannot parse the text.
std::optional<std::vector<Finding>> findings_in(std::string_view text)
{
    std::vector<Finding> findings;
    if (zncConfigCheck(text.data(), text.size(), add, &findings) == OK)
        return findings;
    if (errno == ENOMEM)
        throw std::bad_alloc();
    return std::nullopt;
}

} // namespace

std::optional<Json> parse_config(std::string_view text, JsonNotes* notes)
{
    return parse_json(text, notes, Annotations::kMayRepeat);
}

Json read_object(const std::string& path, Annotations annotations)
{
    const auto text = read_file(path);
    if (!text)
        throw std::runtime_error(fmt::format("{}: {}", path, read_error_text()));
    JsonNotes notes;
    auto document = parse_json(*text, &notes, annotations);
    if (!document || !document->is_object())
        throw std::runtime_error(fmt::format(
            "{}: {}", path, notes.problem.empty() ? "it is not an object" : notes.problem));
    return *std::move(document);
}

std::optional<std::vector<ConfigFinding>> check_config(std::string_view text, std::string& problem)
{
    JsonNotes notes;
    std::vector<ConfigFinding> result;
    if (!parse_config(text, &notes)) {
        problem = notes.problem;
        if (!notes.duplicate_key)
            return std::nullopt;
        result.push_back({true, *notes.duplicate_key, "the key only once", "two"});
    }
    auto findings = findings_in(text);
    if (!findings) {
        problem = "not valid JSON";
        return std::nullopt;
    }
    for (Finding& finding : *findings)
        if (!finding.words.refused || finding.words.path != notes.duplicate_key)
            result.push_back(std::move(finding.words));
    return result;
}

std::string ambiguity(std::string_view text, std::optional<Json>* config)
{
    const auto findings = findings_in(text);
    JsonNotes notes;
    if (!findings)
        return ""; // the library reports this
    auto document = parse_config(text, &notes);
    if (!document)
        return notes.problem;
    for (const auto& [verdict, words] : *findings)
        if (verdict == ZNC_CONFIG_MISREAD)
            return fmt::format("{}: expected {}, found {}", words.path, words.expected,
                               words.found);
    if (config != nullptr)
        *config = std::move(document);
    return "";
}

} // namespace zncctl
