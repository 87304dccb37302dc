// tarforge_table.hpp - parses descriptions of test archives, one case after another:
//
//     case LinkThenFileThroughIt
//     symlink l->../outside
//     file l/f data="x"
//     end
//     expect ENOTDIR
//
// One statement per line; "#" begins a comment. A word is NAME, KEY=VALUE or NAME->TARGET. Text in
// double quotes may contain spaces and the escapes \n \t \\ \" \0 \xHH; "ab"*50 repeats it fifty
// times.
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
// Every other statement is returned as a note for the code that reads the case.
#ifndef TARFORGE_TABLE_HPP
#define TARFORGE_TABLE_HPP

#include <string>
#include <vector>

namespace tarforge {

struct Word {
    enum class Join { kNone, kEquals, kArrow };
    std::string text;
    Join join = Join::kNone;
    std::string value; // after "=" or "->"
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

// Returns the cases of a text; `file` is used in messages. Throws std::runtime_error on a syntax
// error.
std::vector<Case> parse_cases(const std::string& text, const std::string& file);
std::vector<Case> read_cases(const std::string& path);

// Reads every "*.txt" of a directory, in the order of the names.
std::vector<Case> read_case_directory(const std::string& dir);

} // namespace tarforge

#endif
