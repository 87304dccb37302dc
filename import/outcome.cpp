#include "outcome.hpp"

#include "format/digest.hpp"
#include "front/escape.hpp"

#include <cstdint>
#include <nlohmann/json.hpp>

namespace zncimport {
namespace {

using zncctl::Json;
using zncctl::member;
using zncctl::text_of;

// The digests of new layers and documents are always SHA-256.
bool is_sha256(const std::string& text)
{
    return znc::is_digest(text) && text.starts_with("sha256:");
}

std::uint64_t number_of(const Json& object, const char* key)
{
    const std::int64_t number = zncctl::integer(member(object, key)).value_or(-1);
    if (number < 0)
        throw Failure("", "the process reading the image returned an invalid result");
    return static_cast<std::uint64_t>(number);
}

NewLayer layer_of(const Json& object)
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
    Json layers = Json::array();
    for (const NewLayer& layer : outcome.layers)
        layers.push_back(
            {{"digest", layer.digest}, {"diff_id", layer.diff_id}, {"size", layer.size}});
    return zncctl::compact({{"layers", std::move(layers)},
                            {"config", outcome.config},
                            {"manifest", outcome.manifest},
                            {"tag", outcome.tag},
                            {"os", outcome.os},
                            {"architecture", outcome.arch},
                            {"variant", outcome.variant},
                            {"losses", outcome.losses},
                            {"summary", outcome.summary},
                            {"report", outcome.report}});
}

std::string write_failure(const Failure& failure)
{
    return zncctl::compact({{"error", zncctl::utf8(failure.what())},
                            {"object", zncctl::utf8(failure.object())},
                            {"status", static_cast<int>(failure.status())}});
}

std::string write_list(const std::vector<SourceImage>& images)
{
    Json list = Json::array();
    for (const SourceImage& image : images) {
        Json names = Json::array();
        for (const std::string& name : image.names)
            names.push_back(zncctl::utf8(name));
        list.push_back({{"names", std::move(names)},
                        {"os", image.os},
                        {"architecture", image.arch},
                        {"variant", image.variant},
                        {"digest", image.manifest_digest},
                        {"rootfs", image.config.is_null() && image.problem.empty()},
                        {"problem", zncctl::utf8(image.problem)}});
    }
    return zncctl::compact({{"images", std::move(list)}});
}

namespace {

// Throws what the worker failed with.
Json read_document(const std::string& text)
{
    constexpr zncctl::JsonLimits kLimits = {SIZE_MAX, 10}; // a report can be long
    Json document =
        zncctl::parse_json(text, nullptr, zncctl::Annotations::kUnique, kLimits).value_or(Json());
    if (member(document, "error") != nullptr)
        throw Failure(text_of(document, "object"), text_of(document, "error"),
                      static_cast<zncctl::ExitStatus>(number_of(document, "status") & 0xffU));
    return document;
}

} // namespace

Json read_list(const std::string& text)
{
    const Json document = read_document(text);
    if (!zncctl::is_array(member(document, "images")))
        throw Failure("", "the process reading the image returned an invalid result");
    Json list = Json::array();
    for (const Json& image : zncctl::children(member(document, "images"))) {
        Json names = Json::array();
        for (const Json& name : zncctl::children(member(image, "names")))
            if (name.is_string())
                names.push_back(name);
        const Json* rootfs = member(image, "rootfs");
        Json entry = {{"names", std::move(names)}};
        for (const char* key : {"os", "architecture", "variant", "digest", "problem"})
            entry[key] = text_of(image, key);
        entry["rootfs"] = rootfs != nullptr && *rootfs == true;
        list.push_back(std::move(entry));
    }
    return list;
}

Outcome read_outcome(const std::string& text)
{
    const Json document = read_document(text);
    Outcome outcome;
    for (const Json& object : zncctl::children(member(document, "layers")))
        outcome.layers.push_back(layer_of(object));
    outcome.config = text_of(document, "config");
    outcome.manifest = text_of(document, "manifest");
    outcome.tag = text_of(document, "tag");
    outcome.os = text_of(document, "os");
    outcome.arch = text_of(document, "architecture");
    outcome.variant = text_of(document, "variant");
    outcome.losses = number_of(document, "losses");
    outcome.summary = text_of(document, "summary");
    outcome.report = text_of(document, "report");
    if (outcome.layers.empty() || outcome.config.empty() || outcome.manifest.empty())
        throw Failure("", "the process reading the image returned an invalid result");
    return outcome;
}

} // namespace zncimport
