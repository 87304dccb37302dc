#include "outcome.hpp"

#include "front/digest.hpp"

#include <algorithm>

namespace zncimport {
namespace {

using zncctl::add_number;
using zncctl::add_text;
using zncctl::Json;
using zncctl::member;
using zncctl::text_of;

// The digests of new layers and documents are always SHA-256.
bool is_sha256(const std::string& text)
{
    return zncctl::is_digest(text) && text.starts_with("sha256:");
}

std::uint64_t number_of(const cJSON* object, const char* key)
{
    // 2^53: a double represents all integers up to here exactly
    constexpr double kMost = 9007199254740992.0;
    const cJSON* item = member(object, key);
    if (!cJSON_IsNumber(item) || !(item->valuedouble >= 0 && item->valuedouble <= kMost))
        throw Failure("", "the process reading the image returned an invalid result");
    return static_cast<std::uint64_t>(item->valuedouble);
}

NewLayer layer_of(const cJSON* object)
{
    NewLayer layer = {text_of(object, "digest"), text_of(object, "diff_id"),
                      number_of(object, "size")};
    if (!is_sha256(layer.digest) || !is_sha256(layer.diff_id))
        throw Failure("", "the process reading the image returned an invalid result");
    return layer;
}

} // namespace

std::string write_outcome(const Outcome& outcome)
{
    const Json document(cJSON_CreateObject());
    cJSON* layers = cJSON_AddArrayToObject(document.get(), "layers");
    for (const NewLayer& layer : outcome.layers) {
        cJSON* object = cJSON_CreateObject();
        cJSON_AddItemToArray(layers, object);
        add_text(object, "digest", layer.digest);
        add_text(object, "diff_id", layer.diff_id);
        add_number(object, "size", static_cast<double>(layer.size));
    }
    add_text(document.get(), "config", outcome.config);
    add_text(document.get(), "manifest", outcome.manifest);
    add_text(document.get(), "tag", outcome.tag);
    add_text(document.get(), "os", outcome.os);
    add_text(document.get(), "architecture", outcome.arch);
    add_text(document.get(), "variant", outcome.variant);
    add_number(document.get(), "losses", static_cast<double>(outcome.losses));
    add_text(document.get(), "summary", outcome.summary);
    add_text(document.get(), "report", outcome.report);
    return zncctl::compact(document.get());
}

std::string write_failure(const Failure& failure)
{
    const Json document(cJSON_CreateObject());
    add_text(document.get(), "error", failure.what());
    add_text(document.get(), "object", failure.object());
    add_number(document.get(), "status", failure.status());
    return zncctl::compact(document.get());
}

Outcome read_outcome(const std::string& text)
{
    const Json document = zncctl::parse_json(text);
    if (cJSON_HasObjectItem(document.get(), "error") != 0)
        throw Failure(text_of(document.get(), "object"), text_of(document.get(), "error"),
                      static_cast<zncctl::ExitStatus>(number_of(document.get(), "status") & 0xffU));
    Outcome outcome;
    const cJSON* object = nullptr;
    cJSON_ArrayForEach(object, member(document.get(), "layers"))
        outcome.layers.push_back(layer_of(object));
    outcome.config = text_of(document.get(), "config");
    outcome.manifest = text_of(document.get(), "manifest");
    outcome.tag = text_of(document.get(), "tag");
    outcome.os = text_of(document.get(), "os");
    outcome.arch = text_of(document.get(), "architecture");
    outcome.variant = text_of(document.get(), "variant");
    outcome.losses = number_of(document.get(), "losses");
    outcome.summary = text_of(document.get(), "summary");
    outcome.report = text_of(document.get(), "report");
    if (outcome.layers.empty() || outcome.config.empty() || outcome.manifest.empty())
        throw Failure("", "the process reading the image returned an invalid result");
    return outcome;
}

} // namespace zncimport
