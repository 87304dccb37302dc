#include "corpus_images.hpp"

#include "zncontainer.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

namespace corpus {

namespace {

namespace fs = std::filesystem;
constexpr int kRight = -1;

std::string replaced(std::string text, const std::string& what, const std::string& with)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
    return text;
}

// The three descriptors, and the errors for a wrong digest or size in each.
struct Place {
    std::string name;
    std::string key;
    int missing; // the error if the file does not exist
    int wrong;
};

const std::vector<Place>& places()
{
    static const std::vector<Place> kPlaces = {
        {"Entry", "entry", S_zncLib_MANIFEST_NOT_FOUND, S_zncLib_INDEX_INVALID},
        {"Config", "config", S_zncLib_CONFIG_NOT_FOUND, S_zncLib_MANIFEST_INVALID},
        {"Layer", "layer", S_zncLib_MANIFEST_INVALID, S_zncLib_MANIFEST_INVALID}};
    return kPlaces;
}

} // namespace

// ------------------------------------------------------------------ drafts

std::string Draft::text(const std::string& place, const std::string& otherwise) const
{
    const auto found = set.find(place);
    return found == set.end() ? otherwise : replaced(found->second, "$DOC", otherwise);
}

std::string Draft::object(const std::string& place, const std::string& members) const
{
    std::string all = text(place + ".first", "") + members + text(place + ".extra", "");
    if (all.starts_with(','))
        all.erase(0, 1);
    return "{" + all + "}";
}

std::string Draft::descriptor(const std::string& place, const std::string& type,
                              const std::string& bytes) const
{
    const std::string digits = layout::sha256_hex(bytes);
    std::string members;
    for (const auto& [name, right] : {std::pair("mediaType", layout::json_text(type)),
                                      std::pair("digest", layout::json_text("sha256:" + digits)),
                                      std::pair("size", std::to_string(bytes.size()))}) {
        std::string value = replaced(text(place + "." + name, right), "$D", digits);
        value = replaced(value, "$N+1", std::to_string(bytes.size() + 1));
        value = replaced(value, "$N-1", std::to_string(bytes.size() - 1));
        value = replaced(value, "$N", std::to_string(bytes.size()));
        if (!value.empty())
            members += std::string(",\"") + name + "\":" + value;
    }
    return object(place, members);
}

void Draft::write(const layout::Layout& layout)
{
    const auto member = [&](const std::string& place, const std::string& key,
                            const std::string& otherwise) {
        const std::string value = text(place, otherwise);
        return value.empty() ? "" : ",\"" + key + "\":" + value;
    };
    const std::string id = "[\"sha256:" + layout::sha256_hex(layer_) + "\"]";
    const std::string config =
        text("config", object("document", R"("architecture":"amd64","os":"zarnel")" +
                                              member("section", "config", "{}") +
                                              R"(,"rootfs":{"type":"layers")" +
                                              member("diff_ids", "diff_ids", id) + "}"));
    const std::string layers = "[" + descriptor("layer", layout::kLayerType, layer_) + "]";
    const std::string manifest =
        text("manifest", object("manifest", R"("schemaVersion":2,"config":)" +
                                                descriptor("config", layout::kConfigType, config) +
                                                member("layers", "layers", layers)));
    const std::string entry = descriptor("entry", layout::kManifestType, manifest);
    const std::string index =
        text("index", object("index", R"("schemaVersion":2)" +
                                          member("entries", "manifests", "[" + entry + "]")));
    layer_file = layout.blob(layout.add_blob(layer_));
    config_file = layout.blob(layout.add_blob(config));
    manifest_file = layout.blob(layout.add_blob(manifest));
    index_file = layout.dir() / "index.json";
    layout::write_file(index_file, index);
    version_file = layout.dir() / "oci-layout";
    layout::write_file(version_file, text("oci-layout", R"({"imageLayoutVersion":"1.0.0"})"));
}

// ------------------------------------------------------------------ digests

std::vector<ImageCase> digest_cases()
{
    enum Leads { kTo, kMissing, kWrong, kNoColon, kNoText };
    const std::vector<std::tuple<std::string, std::string, Leads>> digests = {
        {"ClimbsToASecret", R"("sha256:../../../outside/secret")", kWrong},
        {"ClimbsWithItsDigitsBehind", R"("sha256:../../../outside/secret:$D")", kMissing},
        {"IsAnAbsolutePath", R"("sha256:/tmp/znc-outside/secret")", kMissing},
        {"IsADot", R"("sha256:.")", kWrong},
        {"IsDotDot", R"("sha256:..")", kWrong},
        {"GoesRoundByADot", R"("sha256:./$D")", kWrong},
        {"GoesRoundByItsDirectory", R"("sha256:../sha256/$D")", kWrong},
        {"HasADotForADirectory", R"("./sha256:$D")", kWrong},
        {"HasDotDotForAnAlgorithm", R"("..:$D")", kMissing},
        {"HasAPathForAnAlgorithm", R"("../blobs/sha256:$D")", kWrong},
        {"HasTwoSlashes", R"("sha256:/$D")", kWrong},
        {"HasASlashForAColon", R"("sha256/$D")", kNoColon},
        {"IsEmpty", R"("")", kNoColon},
        {"IsAColon", R"(":")", kNoColon},
        {"BeginsWithAColon", R"(":$D")", kNoColon},
        {"IsOnlyAnAlgorithm", R"("sha256")", kNoColon},
        {"HasNoDigits", R"("sha256:")", kWrong},
        {"HasTwoColons", R"("sha256::$D")", kMissing},
        {"HasOneDigitMore", R"("sha256:$D0")", kMissing},
        {"HasABlankBehind", R"("sha256:$D ")", kMissing},
        {"HasANewlineBehind", R"("sha256:$D\n")", kMissing},
        {"HasABlankBefore", R"(" sha256:$D")", kMissing},
        {"IsOfMd5", R"("md5:$D")", kMissing},
        {"IsOfSha512", R"("sha512:$D")", kMissing},
        {"IsInCapitals", R"("SHA256:$D")", kMissing},
        {"IsOfANumber", "5", kNoText},
        {"IsNull", "null", kNoText},
        {"IsAList", R"(["sha256:$D"])", kNoText},
        {"IsAnObject", R"({"sha256":"$D"})", kNoText},
        {"IsTooLong", "\"sha256:" + std::string(2000, 'a') + "\"", kNoText},
        {"HasDigitsThatAreNone", "\"sha256:" + std::string(64, 'z') + "\"", kMissing},
        {"IsEncoded", R"("sha256:%2e%2e%2f%2e%2e%2foutside")", kMissing},
        {"EndsAtANul", R"("sha256:$D\u0000/../../../outside/secret")", kTo}};
    std::vector<ImageCase> cases;
    for (const Place& place : places())
        for (const auto& [name, digest, leads] : digests) {
            const std::map<Leads, int> codes = {{kTo, kRight},
                                                {kMissing, place.missing},
                                                {kWrong, place.wrong},
                                                {kNoColon, EINVAL},
                                                {kNoText, ENAMETOOLONG}};
            cases.push_back({"DigestOf" + place.name + name,
                             codes.at(leads),
                             {{place.key + ".digest", digest}}});
        }
    return cases;
}

// ------------------------------------------------------------------ sizes

std::vector<ImageCase> size_cases()
{
    const std::vector<std::tuple<std::string, std::string, bool>> sizes = {
        {"IsOneTooLarge", "$N+1", false},
        {"IsOneTooSmall", "$N-1", false},
        {"IsZero", "0", false},
        {"IsNegative", "-1", false},
        {"IsItsNegative", "-$N", false},
        {"Is63Bits", "9223372036854775808", false},
        {"Is64BitsLess1", "18446744073709551615", false},
        {"Is64BitsMore", "1844674407370955161$N", false},
        {"Is32BitsMore", "4294967296", false},
        {"IsInfinite", "1e999", false},
        {"IsMinusInfinite", "-1e999", false},
        {"IsAText", R"("$N")", false},
        {"IsNull", "null", false},
        {"IsTrue", "true", false},
        {"IsAList", "[$N]", false},
        {"IsAnObject", R"({"size":$N})", false},
        {"HasAFractionOfZero", "$N.0", true},
        {"HasAnExponentOfZero", "$Ne0", true}};
    std::vector<ImageCase> cases;
    for (const Place& place : places())
        for (const auto& [name, size, right] : sizes)
            cases.push_back({"SizeOf" + place.name + name,
                             right ? kRight : place.wrong,
                             {{place.key + ".size", size}}});
    for (const Place& place : places()) {
        cases.push_back(
            {"SizeOf" + place.name + "IsMissing", place.wrong, {{place.key + ".size", ""}}});
        cases.push_back(
            {"DigestOf" + place.name + "IsMissing", place.wrong, {{place.key + ".digest", ""}}});
    }
    return cases;
}

// ------------------------------------------------------------------ what stands in a file's place

namespace {

void make_socket(const fs::path& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // The path of a blob is too long for a socket address; that of its directory is not.
    const std::string link = "/tmp/znc-socket";
    fs::create_directory_symlink(path.parent_path(), link);
    const std::string name = link + "/s";
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("bind");
    close(fd);
    fs::rename(path.parent_path() / "s", path);
    fs::remove(link);
}

using Replace = std::function<void(const fs::path&)>;

// By name; true if the file then cannot be found at all.
std::vector<std::tuple<std::string, bool, Replace>> replacements()
{
    return {{"Nothing", true, [](const fs::path&) {}},
            {"ADirectory", false, [](const fs::path& p) { fs::create_directory(p); }},
            {"AFifo", false, [](const fs::path& p) { mkfifo(p.c_str(), 0600); }},
            {"TheNullDevice", false,
             [](const fs::path& p) { mknod(p.c_str(), S_IFCHR | 0600, makedev(1, 3)); }},
            {"TheZeroDevice", false,
             [](const fs::path& p) { mknod(p.c_str(), S_IFCHR | 0600, makedev(1, 5)); }},
            {"ABlockDevice", false,
             [](const fs::path& p) { mknod(p.c_str(), S_IFBLK | 0600, makedev(8, 0)); }},
            {"ASocket", false, make_socket},
            {"ALinkToNowhere", true, [](const fs::path& p) { fs::create_symlink("nowhere", p); }},
            {"ALinkToItself", true, [](const fs::path& p) { fs::create_symlink(p.filename(), p); }},
            {"ALinkToASecret", false,
             [](const fs::path& p) { fs::create_symlink("/tmp/znc-outside/secret", p); }},
            {"ALinkToAFifo", false,
             [](const fs::path& p) { fs::create_symlink("/tmp/znc-outside/fifo", p); }},
            {"ALinkToADirectory", false,
             [](const fs::path& p) { fs::create_symlink("/tmp/znc-outside", p); }},
            {"AFileOfProc", false,
             [](const fs::path& p) { fs::create_symlink("/proc/self/environ", p); }},
            {"AnEmptyFile", false, [](const fs::path& p) { layout::write_file(p, ""); }},
            {"AHugeFile", false, [](const fs::path& p) {
                 layout::write_file(p, "");
                 fs::resize_file(p, std::uintmax_t{1} << 40);
             }}};
}

} // namespace

std::vector<ImageCase> file_cases()
{
    using File = fs::path Draft::*;
    const std::vector<std::tuple<std::string, File, int, int>> files = {
        {"Version", &Draft::version_file, S_zncLib_LAYOUT_NOT_FOUND, S_zncLib_LAYOUT_INVALID},
        {"Index", &Draft::index_file, S_zncLib_INDEX_NOT_FOUND, S_zncLib_INDEX_INVALID},
        {"Manifest", &Draft::manifest_file, S_zncLib_MANIFEST_NOT_FOUND, S_zncLib_INDEX_INVALID},
        {"Config", &Draft::config_file, S_zncLib_CONFIG_NOT_FOUND, S_zncLib_MANIFEST_INVALID},
        {"Layer", &Draft::layer_file, S_zncLib_MANIFEST_INVALID, S_zncLib_MANIFEST_INVALID}};
    std::vector<ImageCase> cases;
    for (const auto& [file, member, missing, wrong] : files) {
        for (const auto& [name, gone, replace] : replacements()) {
            if (name == "AHugeFile" && (file == "Config" || file == "Layer"))
                continue; // for these the digest is checked before the size
            cases.push_back({file + "Is" + name,
                             gone ? missing : wrong,
                             {},
                             [m = member, r = replace](const Draft& draft) {
                                 fs::remove(draft.*m);
                                 r(draft.*m);
                             }});
        }
        cases.push_back({file + "IsALinkToTheRightFile", kRight, {}, [m = member](const Draft& d) {
                             const fs::path there = (d.*m).string() + ".moved";
                             fs::rename(d.*m, there);
                             fs::create_symlink(there, d.*m);
                         }});
    }
    return cases;
}

} // namespace corpus
