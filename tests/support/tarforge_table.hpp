// tarforge_table.hpp - archives written down as text, one case after another:
//
//     case LinkThenFileThroughIt
//     symlink l->../outside
//     file l/f data="x"
//     end
//     expect ENOTDIR
//
// One statement a line, "#" begins a comment. A word is NAME, KEY=VALUE or NAME->TARGET; what is in
// double quotes may hold blanks and the escapes \n \t \\ \" \0 \xHH, and "ab"*50 is its fiftyfold.
//
//     file NAME [KEY=VALUE...]       a regular file; data="..." is its content
//     dir NAME, symlink NAME->TARGET, hardlink NAME->TARGET, header: the same with other types
//     raw TEXT                       bytes as they are
//     end [BLOCKS]                   zero blocks, two if not said otherwise
//     gzip [KEY=VALUE...]            packs what stands before it, back to the last gzip
//     cut BYTES                      takes that many bytes away from the end
//     layer                          what follows is the next archive
//
// Keys are the fields of the header: name prefix target type mode uid gid size mtime chksum magic
// version uname gname major minor padding. A number is written as octal digits with a NUL, as
// KEY:full=N without the NUL, as KEY:base256=N in binary; KEY:raw=TEXT are the bytes themselves.
// chksum:off=N is the right checksum plus N, chksum:signed=1 the sum of signed bytes. Keys of gzip:
// level strategy method flags extra name comment hcrc crc size behind body.
//
// Every other statement is a note, kept for the reader of the case.
#ifndef TARFORGE_TABLE_HPP
#define TARFORGE_TABLE_HPP

#include <string>
#include <vector>

namespace tarforge {

struct Word {
    enum class Join { kNone, kEquals, kArrow };
    std::string text;
    Join join = Join::kNone;
    std::string value; // behind "=" or "->"
};

struct Note {
    std::string keyword;
    std::vector<Word> words;
};

struct Case {
    std::string name;
    std::string where; // "file:line"
    std::vector<std::string> layers;
    std::vector<Note> notes;
};

// The cases of a text; `file` is for messages. Throws std::runtime_error for a mistake in it.
std::vector<Case> parse_cases(const std::string& text, const std::string& file);
std::vector<Case> read_cases(const std::string& path);

// Every "*.txt" of a directory, in the order of the names.
std::vector<Case> read_case_directory(const std::string& dir);

} // namespace tarforge

#endif
