#include "cli/images/image_settings.hpp"
#include "cli/images/image_source.hpp"
#include "cli/images/layer_check.hpp"
#include "commands.hpp"
#include "front/blob.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "zncontainer.h"

namespace zncctl {
namespace {

struct Report {
    std::size_t layer; // from 1; 0: the manifest or the configuration
    Finding finding;
};

struct Verdict {
    const Image* image;
    std::vector<Report> reports;
    std::vector<std::string> asked; // what the image requests besides running its program

    [[nodiscard]] bool refused() const
    {
        return std::any_of(reports.begin(), reports.end(),
                           [](const Report& report) { return report.finding.refused; });
    }
    [[nodiscard]] const char* text() const
    {
        return refused() ? "refused" : reports.empty() ? "taken" : "taken with losses";
    }
};

void refuse(Verdict& verdict, std::string what)
{
    verdict.reports.push_back({0, {true, std::move(what), 1, ""}});
}

void check_blob(const std::string& layout, const Descriptor& blob, const std::string& diff_id,
                std::size_t layer, Verdict& verdict)
{
    const znc::UniqueFd file = open_regular(blob_path(layout, blob.digest));
    const std::string problem = file ? size_problem(file.get(), blob.digest, blob.size)
                                     : fmt::format("blob {}: {}", blob.digest, read_error_text());
    if (!problem.empty()) {
        verdict.reports.push_back({layer, {true, problem, 1, ""}});
        return;
    }
    // Use the path of the descriptor: the file's name may refer to another file by now.
    for (Finding& finding : check_layer(descriptor_path(file.get()), blob.digest, diff_id))
        verdict.reports.push_back({layer, std::move(finding)});
}

void look_at_settings(const Image& image, Verdict& verdict)
try {
    verdict.asked = image_requests(image.config_document);
} catch (const BadConfiguration& bad) {
    refuse(verdict, bad.what());
}

Verdict check(const std::string& layout, const Image& image)
{
    Verdict verdict = {&image, {}, {}};
    if (!image.problem.empty())
        refuse(verdict, image.problem);
    const bool configured = !image.config_document.is_null();
    if (configured)
        look_at_settings(image, verdict);
    const Json& ids =
        children(any_case_member(any_case_member(image.config_document, "rootfs"), "diff_ids"));
    if (configured && ids.size() != image.layers.size())
        refuse(verdict, "the configuration names another number of layers");
    // Report problems of a layer that is listed several times only once.
    std::set<std::string> seen;
    auto id = ids.begin();
    for (std::size_t i = 0; i < image.layers.size(); i++) {
        const Descriptor& layer = image.layers[i];
        const std::string* said = id != ids.end() ? text(&*id++) : nullptr;
        const std::string diff_id = said != nullptr ? *said : "";
        if (znc::is_digest(layer.digest) && // an invalid digest was reported above
            seen.insert(fmt::format("{} {} {}", layer.digest, layer.size, diff_id)).second)
            check_blob(layout, layer, diff_id, i + 1, verdict);
    }
    return verdict;
}

std::string plain(const std::vector<Verdict>& verdicts)
{
    std::string text;
    for (const Verdict& verdict : verdicts) {
        const Image& image = *verdict.image;
        text += printable(fmt::format("{} {}/{} {}: {}", image.tag.empty() ? "-" : image.tag,
                                      image.os, image.arch, image.manifest.digest, verdict.text()));
        text += "\n";
        for (const std::string& asked : verdict.asked)
            text += fmt::format("  asks for {}\n", printable(asked));
        for (const auto& [layer, finding] : verdict.reports) {
            text += layer != 0 ? fmt::format("  layer {}: ", layer) : "  ";
            text += finding.refused ? "refused: " : "";
            text += printable(finding.what);
            if (!finding.first.empty())
                text += fmt::format(" ({}, first: {})", finding.count, printable(finding.first));
            text += "\n";
        }
    }
    return text;
}

std::string json(const std::vector<Verdict>& verdicts)
{
    Json list = Json::array();
    for (const Verdict& verdict : verdicts) {
        Json findings = Json::array();
        for (const auto& [layer, finding] : verdict.reports)
            findings.push_back({{"layer", layer},
                                {"refused", finding.refused},
                                {"what", finding.what},
                                {"count", finding.count},
                                {"first", finding.first}});
        list.push_back({{"tag", verdict.image->tag},
                        {"os", verdict.image->os},
                        {"architecture", verdict.image->arch},
                        {"digest", verdict.image->manifest.digest},
                        {"verdict", verdict.text()},
                        {"asksFor", verdict.asked},
                        {"findings", std::move(findings)}});
    }
    return compact(list);
}

} // namespace

int cmd_image_check(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    const auto shown = layout_of(args, args.operand(0));
    if (!shown)
        return kExitFailure;
    const std::string& layout = shown->path;
    std::string problem;
    const auto images = read_layout(layout, problem);
    if (!images)
        return failure(shown->label, problem);
    std::vector<Verdict> verdicts;
    for (const Image& image : *images)
        verdicts.push_back(check(layout, image));
    if (!args.has("quiet") && !(images->empty() && !as_json))
        if (const int status = as_json ? print_json(json(verdicts)) : print_result(plain(verdicts));
            status != kExitOk)
            return status;
    // If one manifest is invalid, the library does not unpack any image of the layout.
    if (!size_problem(layout, *images).empty())
        return local_failure(S_zncLib_MANIFEST_INVALID, shown->label);
    const znc::MallocPtr<char> document(
        call_library([&] { return zncImageInfoGet(layout.c_str()); }));
    if (document == nullptr)
        return local_failure(errno, shown->label);
    const bool refused = std::any_of(verdicts.begin(), verdicts.end(),
                                     [](const Verdict& verdict) { return verdict.refused(); });
    return refused ? kExitFailure : kExitOk;
}

} // namespace zncctl
