#include "layer_check.hpp"

#include "front/files.hpp"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fmt/format.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

const char* not_made(char type)
{
    switch (type) {
    case '1':
        return "hard link: left out";
    case '3':
    case '4':
        return "device: left out";
    case '5':
        return "directory whose name does not end in \"/\": left out";
    case '6':
        return "FIFO: left out";
    default:
        return "member of an unknown type: left out";
    }
}

const char* with_data(char type)
{
    switch (type) {
    case 'x':
    case 'g':
        return "pax header";
    case 'L':
        return "long name (GNU)";
    case 'K':
        return "long link (GNU)";
    case 'S':
        return "sparse file (GNU)";
    default:
        return "a link, device or directory with data";
    }
}

// The text for a report; "" if it is nothing to report to the user.
std::string words(const ZNC_LAYER_REPORT& report, const std::string& digest)
{
    constexpr std::uint32_t kSetId = 06000;
    switch (report.finding) {
    case ZNC_LAYER_MODE: // the sticky bit of a directory is restored; see sticky.hpp
        if (report.directory != FALSE && (report.mode & kSetId) == 0)
            return "";
        return kModeFinding;
    case ZNC_LAYER_OWNER:
        return kOwnerFinding;
    case ZNC_LAYER_WHITEOUT:
        return "whiteout: extracted as a file; it hides nothing";
    case ZNC_LAYER_NOT_MADE:
        return not_made(report.type);
    case ZNC_LAYER_NO_FILE:
        return "a file where a directory is: left out";
    case ZNC_LAYER_DATA_AS_MEMBERS:
        return with_data(report.type);
    case ZNC_LAYER_SIZE_FORM:
        return "the size is not written in octal digits";
    case ZNC_LAYER_LENGTH:
        return "its length is not a multiple of 512 bytes";
    case ZNC_LAYER_COMPRESSION:
        return fmt::format("it is compressed with {}", report.member);
    case ZNC_LAYER_CHECKSUM:
        return kHeaderFinding;
    case ZNC_LAYER_TOO_LARGE:
        return "the member has 4 GiB or more";
    case ZNC_LAYER_NAME:
        return "\"..\" in the name";
    case ZNC_LAYER_NO_PARENT:
        return "no directory for the member";
    case ZNC_LAYER_PARENT:
        return "the member's directory is a link or a file";
    case ZNC_LAYER_LINK_EXISTS:
        return "a symbolic link whose name exists already";
    case ZNC_LAYER_LINK_EMPTY:
        return "a symbolic link without a target";
    case ZNC_LAYER_CUT:
        return kCutFinding;
    case ZNC_LAYER_NO_END:
        return "there is no end mark";
    case ZNC_LAYER_DIGEST:
        return fmt::format("blob {}{}", digest, kContentFinding);
    case ZNC_LAYER_DIFF_ID:
        return kDiffIdFinding;
    }
    return "";
}

// Whether the rest of the archive is misread after this finding: headers are looked for where the
// writer of the archive did not put them. Unpacking continues, but image check refuses the image.
bool is_misread(ZNC_LAYER_FINDING finding)
{
    return finding == ZNC_LAYER_DATA_AS_MEMBERS || finding == ZNC_LAYER_SIZE_FORM ||
           finding == ZNC_LAYER_LENGTH;
}

class Findings {
  public:
    explicit Findings(const std::string& digest) : digest_(digest) {}

    static void heard(const ZNC_LAYER_REPORT* report, void* self) noexcept
    {
        auto& findings = *static_cast<Findings*>(self);
        try {
            findings.add(*report);
        } catch (...) { // exceptions must not pass through the library
            findings.failure_ = std::current_exception();
        }
    }

    // `refused`, `error`: whether and with which errno the library rejects the layer. Rethrows an
    // exception that occurred in heard().
    std::vector<Finding> take(bool refused, int error)
    {
        if (failure_)
            std::rethrow_exception(failure_);
        const bool said = std::any_of(found_.begin(), found_.end(),
                                      [](const Finding& finding) { return finding.refused; });
        if (refused && !said) {
            errno = error;
            found_.push_back(
                {true, fmt::format("the archive cannot be read: {}", read_error_text()), 1, ""});
        }
        return std::move(found_);
    }

  private:
    void add(const ZNC_LAYER_REPORT& report)
    {
        const bool of_whole = report.finding >= ZNC_LAYER_DIGEST;
        if (misread_ && !of_whole)
            return;
        if (report.finding == ZNC_LAYER_DIGEST)
            found_.clear();
        misread_ = misread_ || is_misread(report.finding);
        std::string what = words(report, digest_);
        if (what.empty())
            return;
        for (Finding& finding : found_)
            if (finding.what == what) {
                finding.count++;
                return;
            }
        const bool refused = report.finding >= ZNC_LAYER_COMPRESSION || is_misread(report.finding);
        const bool of_member = report.finding != ZNC_LAYER_COMPRESSION;
        found_.push_back({refused, std::move(what), 1, of_member ? report.member : ""});
    }

    const std::string& digest_;
    std::vector<Finding> found_;
    bool misread_ = false;
    std::exception_ptr failure_;
};

} // namespace

std::vector<Finding> check_layer(const std::string& path, const std::string& digest,
                                 const std::string& diff_id)
{
    Findings findings(digest);
    const char* const id = diff_id.empty() ? nullptr : diff_id.c_str();
    const STATUS status =
        zncLayerCheck(path.c_str(), digest.c_str(), id, &Findings::heard, &findings);
    return findings.take(status != OK, errno);
}

} // namespace zncctl
