// kept_file.hpp - the files of namespaces that outlive their owner (ns_keep.cpp), in a directory of
// their own in the runtime directory. Each has a header with the version of the protocol, the
// length and a checksum, so that a damaged or foreign file is recognised.
#ifndef ZN_KEPT_FILE_HPP
#define ZN_KEPT_FILE_HPP

#include "base/file.hpp"

#include <string_view>

namespace zn {

// Whether the directory exists and nobody but root can change it. False with errno set; ENOENT if
// it does not exist.
bool kept_directory_trusted();

// Replaces a file by renaming; its content is on disk afterwards. 0, or an error number and the
// old file unchanged.
int kept_write(const char* name, std::string_view content);

struct KeptText {
    znc::FileText file;
    std::string_view content; // in the file's text, which a NUL follows
    unsigned protocol = 0;    // of the writer
};

// Reads a file. 0, or an error number: EINVAL (damaged, or no regular file of this user), EPROTO
// (another version of the protocol).
int kept_read(const char* name, KeptText& text);

void kept_remove(const char* name);

// Removes incomplete files of writers that were killed; the directory too if it is empty.
void kept_clear_unfinished();

// Calls `visit(ns, context)` for the file of each namespace. False with errno set if they cannot be
// listed.
bool kept_each(void (*visit)(int ns, void* context), void* context);

} // namespace zn

#endif
