// source.hpp - where images come from: an OCI image layout or an archive of one, an archive in the
// older format with manifest.json, a root filesystem as a directory or an archive. Used by
// import.cpp.
//
// A source finds images and hands out streams; digests are compared by who reads a stream to its
// end.
#ifndef ZNC_IMPORT_SOURCE_SOURCE_HPP
#define ZNC_IMPORT_SOURCE_SOURCE_HPP

#include "front/json.hpp"
#include "spool.hpp"

#include <map>
#include <optional>

#include <nlohmann/json.hpp>

namespace zncimport {

struct Layer {
    std::string name;       // for messages
    std::string digest;     // of the stored bytes; "": none is known
    std::string diff_id;    // of the plain archive; "": none is known
    std::int64_t size = -1; // of the stored bytes; -1: not known
};

struct SourceImage {
    std::vector<std::string> names; // tags or references, without a path; none: []
    std::string os;
    std::string arch;
    std::string variant;         // "" for none
    std::string manifest_digest; // "" for none
    zncctl::Json annotations;    // of the manifest, and of its index entry: an object, or null
    zncctl::Json config;         // the image configuration, or null where the source has none
    std::vector<Layer> layers;   // lowest first
    std::string problem;         // why it cannot be imported, "" if it can
};

class Source {
  public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // Every image it holds, with digests and sizes of all documents verified. An image that cannot
    // be imported (encrypted, nondistributable, unknown media types) is listed with the reason in
    // `problem`; who chooses it throws.
    virtual std::vector<SourceImage> images() = 0;
    // The stored bytes of a layer of one of them.
    virtual ReaderPtr open(const Layer& layer) = 0;
    // True where the only layer is a directory of the file system instead: see directory_tree.hpp.
    [[nodiscard]] virtual bool is_tree() const { return false; }
};
using SourcePtr = std::unique_ptr<Source>;

// What `--platform` and a name in the source's text ask for.
struct Wanted {
    std::string name; // "" any
    std::string os;   // "" any
    std::string arch;
    std::string variant;
};

// "oci:PATH[:NAME]", "oci-archive:PATH[:NAME]", "docker-archive:PATH[:NAME]", "dir:PATH" (a root
// filesystem), "tar:PATH", or a path without one; "-" is standard input.
struct SourceName {
    std::string prefix; // "" to be told by what is there
    std::string path;
    std::string name; // "" when none is given
};
SourceName split_source_name(const std::string& text);

// "OS/ARCH[/VARIANT]", "ARCH" alone is not enough. Throws Failure (usage).
void read_platform(const std::string& text, Wanted& wanted);

// Opened by whoever starts the import, so that the rest needs no rights: a file or a directory.
// Standard input that cannot seek is copied to a spool by the reader of it.
struct OpenedSource {
    SourceName name;
    znc::UniqueFd fd;
    bool directory = false;
};
OpenedSource open_source(const SourceName& name);

// Tells what it is and reads its index. `spool` keeps what has to be kept of a stream; it and
// `opened` are borrowed.
SourcePtr read_source(const OpenedSource& opened, Spool& spool, Budget& budget);

// The one that is meant: its place. None or several are a Failure that lists them, with status 2.
std::size_t choose(const std::vector<SourceImage>& images, const Wanted& wanted);

} // namespace zncimport

#endif
