// zncLayerFindings.cpp - see zncLayerFindings.hpp; and the check of a layer, a dry run of the
// extractor.
#include "zncLayerFindings.hpp"

#include "base/failure.hpp"

#include "zncBlob.hpp"
#include "zncTarDryTree.hpp"

#include <cstdio>
#include <cstring>

namespace {

// The formats of compression that the extractor does not know, by the bytes they begin with.
const char* other_compression(int fd)
{
    struct Format {
        const char* name;
        std::string_view begin;
    };
    static constexpr Format kFormats[] = {
        {"zstd", "\x28\xb5\x2f\xfd"}, {"xz", "\xfd\x37zXZ"}, {"bzip2", "BZh"}};
    char begin[8] = {};
    const ssize_t n = ::pread(fd, begin, sizeof begin, 0);
    const std::string_view have(begin, n > 0 ? static_cast<std::size_t>(n) : 0);
    for (const Format& format : kFormats)
        if (have.substr(0, format.begin.size()) == format.begin)
            return format.name;
    return nullptr;
}

} // namespace

namespace znc {

void LayerFindings::archive() noexcept
{
    name_[0] = '\0';
    type_ = '\0';
    directory_ = FALSE;
    mode_ = 0;
}

void LayerFindings::member(const header& h) noexcept
{
    const std::string_view prefix = tar_has_prefix(h) ? tar_text(h.prefix) : std::string_view();
    const std::string_view name = tar_text(h.name);
    ::snprintf(name_, sizeof name_, "%.*s%s%.*s", static_cast<int>(prefix.size()), prefix.data(),
               prefix.empty() ? "" : "/", static_cast<int>(name.size()), name.data());
    unsigned long mode = 0;
    unsigned long size = 0;
    (void)tar_octal(h.mode, mode);
    (void)tar_octal(h.size, size);
    type_ = h.linkflag;
    directory_ = size == 0 && !name.empty() && pathIsSep(name.back()) ? TRUE : FALSE;
    mode_ = static_cast<uint32_t>(mode) & 07777U;
    if (members_ < 2)
        ++members_;
}

void LayerFindings::add(ZNC_LAYER_FINDING finding) noexcept
{
    const ErrnoSaver keep;
    const bool unread = finding == ZNC_LAYER_CHECKSUM || finding == ZNC_LAYER_LENGTH;
    ZNC_LAYER_REPORT report = {finding, name_, type_, directory_, mode_};
    if (unread && members_ < 2 && compression_ != nullptr)
        report = {ZNC_LAYER_COMPRESSION, compression_, '\0', FALSE, 0};
    func_(&report, context_);
}

void begin_member(const MT_TAR_SOFT& ctrl, const header& h) noexcept
{
    if (ctrl.run.findings != nullptr)
        ctrl.run.findings->member(h);
}

void tell_of_member(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding) noexcept
{
    if (ctrl.run.findings != nullptr)
        ctrl.run.findings->add(finding);
}

void tell_of_archive(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding) noexcept
{
    if (ctrl.run.findings == nullptr)
        return;
    ctrl.run.findings->archive();
    ctrl.run.findings->add(finding);
}

} // namespace znc

STATUS zncLayerCheck(const char* layerFile, const char* digest, const char* diffId,
                     ZNC_LAYER_FUNC func, void* context)
{
    if (layerFile == nullptr || func == nullptr)
        return znc::fail(EINVAL);
    znc::BlobReader blob;
    errno = 0;
    if (!blob.open(layerFile, digest))
        return errno != 0 ? ERROR : znc::fail(S_zncLib_MANIFEST_INVALID);
    znc::RunningDigest plain;
    errno = 0;
    const bool named = diffId != nullptr && plain.start(diffId);
    if (diffId != nullptr && !named && errno == ENOMEM)
        return ERROR;
    znc::LayerFindings findings(func, context, other_compression(blob.fd()));
    znc::TarDryTree tree;
    znc::TarRun run;
    run.dry = &tree;
    run.plain = named ? &plain : nullptr;
    run.findings = &findings;
    errno = 0;
    const STATUS status = znc::tar_extract_whole(blob, nullptr, znc::kTarLayerBlocks, run);
    const int why = errno;
    findings.archive();
    if (!blob.verified()) {
        findings.add(ZNC_LAYER_DIGEST);
        return znc::fail(why == ENOMEM ? ENOMEM : S_zncLib_MANIFEST_INVALID);
    }
    if (status != OK)
        return znc::fail(why);
    if (diffId == nullptr || (named && plain.matches()))
        return OK;
    findings.add(ZNC_LAYER_DIFF_ID);
    return znc::fail(S_zncLib_CONFIG_INVALID);
}
