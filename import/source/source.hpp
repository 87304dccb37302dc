// source.hpp - the sources of images: an OCI image layout or an archive of one, a docker-archive
// with manifest.json, and a root filesystem as a directory or an archive. Used by import.cpp.
//
// A source lists images and opens streams; the code that reads a stream to its end compares the
// digest.
#ifndef ZNC_IMPORT_SOURCE_SOURCE_HPP
#define ZNC_IMPORT_SOURCE_SOURCE_HPP

#include "base/not_copied.hpp"
#include "front/json.hpp"
#include "spool.hpp"

#include <nlohmann/json.hpp>

namespace zncimport {

struct Layer {
    std::string name;       // for messages
    std::string digest;     // of the stored bytes; "": unknown
    std::string diff_id;    // of the uncompressed archive; "": unknown
    std::int64_t size = -1; // of the stored bytes; -1: not known
};

struct SourceImage {                // NOLINT(bugprone-exception-escape): moving JSON does not throw
    std::vector<std::string> names; // tags or references, without a path; may be empty
    std::string os;
    std::string arch;
    std::string variant;         // "" for none
    std::string manifest_digest; // "" for none
    zncctl::Json annotations;    // of the manifest, and of its index entry: an object, or null
    zncctl::Json config;         // the image configuration, or null where the source has none
    std::vector<Layer> layers;   // lowest first
    std::string problem;         // why the image cannot be imported, or ""
};

class Source : znc::NotCopied {
  public:
    virtual ~Source() = default;

    // Returns all images of the source; digests and sizes of all documents have been verified. An
    // image that cannot be imported (encrypted, nondistributable, unknown media types) is listed
    // with the reason in `problem`; choose() throws it if that image is selected.
    virtual std::vector<SourceImage> images() = 0;
    // Opens the stored bytes of a layer of one of these images.
    virtual ReaderPtr open(const Layer& layer) = 0;
    // Returns whether the only layer is a directory of the file system, see directory_tree.hpp.
    [[nodiscard]] virtual bool is_tree() const { return false; }
};
using SourcePtr = std::unique_ptr<Source>;

// The image selected with `--platform` and the name in the source argument. A whole name or a
// digest is preferred to the end of a name; "@N" is the image with this index in Source::images().
struct Wanted {
    std::string name; // "" any
    std::string os;   // "" any
    std::string arch;
    std::string variant;
};

// The source argument: "oci:PATH[:NAME]", "oci-archive:PATH[:NAME]", "docker-archive:PATH[:NAME]",
// "dir:PATH" (a root filesystem), "tar:PATH", or a path without a prefix, that of a layout also
// with
// ":NAME"; "-" is standard input.
struct SourceName {
    std::string prefix; // "" to detect the kind
    std::string path;
    std::string name; // "" when none is given
};
SourceName split_source_name(const std::string& text);

// Parses "OS/ARCH[/VARIANT]". Throws Failure (usage).
void read_platform(const std::string& text, Wanted& wanted);

// A source opened by the parent process, so that the worker needs no privileges: a file or a
// directory. If standard input is not seekable, the worker copies it to a spool.
struct OpenedSource {
    SourceName name;
    znc::UniqueFd fd;
    bool directory = false;
};
// Messages call standard input `input_name`.
OpenedSource open_source(const SourceName& name, const std::string& input_name = "standard input");

// Detects the kind of the source and reads its index. `spool` stores streams that are not seekable
// or are compressed. `spool` and `opened` are not owned.
SourcePtr read_source(const OpenedSource& opened, Spool& spool, Budget& budget);

// Returns the index of the selected image. If none or several match, throws a Failure that lists
// them, with exit status 2.
std::size_t choose(const std::vector<SourceImage>& images, const Wanted& wanted);

} // namespace zncimport

#endif
