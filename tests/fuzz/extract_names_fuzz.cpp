// extract_names_fuzz.cpp - archives made of few members with treacherous names and targets, in any
// order, extracted to a disk; aborts if anything changes elsewhere. Four bytes make a member: its
// type, its name, where it links to, its mode and content.
#include "fuzz_input.hpp"
#include "sentinel.hpp"

#include "tarforge.hpp"

#include <array>
#include <vector>

namespace {

constexpr std::size_t kMembersMax = 12;
constexpr std::string_view kTypes = "0500225052205\0 713467xgLKS";

// "@" stands for the directory that holds the target.
constexpr std::array kNames = {"a",
                               "b",
                               "a/b",
                               "b/a",
                               "a/b/c",
                               "l",
                               "l/x",
                               "l/secret",
                               "l/dir/x",
                               "a/l",
                               "a/l/secret",
                               "a/l/x",
                               "l/l",
                               "l/l/x",
                               "./a",
                               "a/./b",
                               "a//b",
                               "a/",
                               "l/",
                               ".",
                               "./",
                               "/",
                               "",
                               "..",
                               "../",
                               "../outside/secret",
                               "../target-evil/secret",
                               "../target-evil",
                               "a/../../outside/secret",
                               "l/../outside/secret",
                               "l/..",
                               "/a",
                               "//a",
                               "@/outside/secret",
                               "@/target-evil/x",
                               "\\a",
                               "a\\b",
                               "..\\outside\\secret",
                               "a\\..\\x",
                               "secret",
                               "outside",
                               "target-evil",
                               "dir",
                               "a/secret",
                               ".tard@#0000.sto",
                               "a/.tard@#0000.sto",
                               "...",
                               "a/...",
                               ".. ",
                               "a/b/",
                               "a/b/c/",
                               "proc",
                               "a/proc"};
constexpr std::array kTargets = {".",
                                 "..",
                                 "../outside",
                                 "../outside/secret",
                                 "../outside/dir",
                                 "../target-evil",
                                 "../target-evil/secret",
                                 "@/outside",
                                 "@/outside/secret",
                                 "@/target-evil",
                                 "a",
                                 "b",
                                 "a/b",
                                 "l",
                                 "./l",
                                 "../l",
                                 "/",
                                 "/proc/self/root",
                                 "/proc/self/cwd",
                                 "",
                                 "../../..",
                                 "nowhere",
                                 "../target",
                                 "@/target/a",
                                 "a/../..",
                                 "//",
                                 "../outside/link",
                                 "/proc/self/fd"};

std::string expanded(std::string_view text, const std::string& base)
{
    return text.starts_with('@') ? base + std::string(text.substr(1)) : std::string(text);
}

template <std::size_t N> const char* choose(const std::array<const char*, N>& from, unsigned byte)
{
    return from[byte % N];
}

void add_member(fuzz::Input& input, const std::string& base, tarforge::Archive& archive)
{
    const unsigned type = input.byte();
    const unsigned name = input.byte();
    const unsigned target = input.byte();
    const unsigned how = input.byte();
    const std::string text = expanded(choose(kNames, name), base);
    const std::string content(how % 4 == 0 ? 600U : how % 4, 'x');
    const bool hasContent = kTypes[type % kTypes.size()] == '0';
    tarforge::Header header(text, kTypes[type % kTypes.size()]);
    header.target(expanded(choose(kTargets, target), base));
    header.mode(how * 64 + how).mtime(how * 1000).size(hasContent ? content.size() : 0);
    if ((how & 0x40) != 0 && text.size() > 1)
        header.name(text.substr(text.size() / 2)).prefix(text.substr(0, text.size() / 2));
    if ((how & 0x20) != 0) // not the magic that makes the prefix count
        header.raw(tarforge::Field::kMagic, "ustar ");
    archive.member(header, hasContent ? content : "");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static fuzz::Sentinel sentinel;
    fuzz::Input input(data, size);
    const unsigned layers = 1 + input.byte() % 3;
    for (unsigned i = 0; i < layers; ++i) {
        tarforge::Archive archive;
        for (std::size_t n = input.byte() % kMembersMax + 1; n > 0 && !input.empty(); --n)
            add_member(input, sentinel.base(), archive);
        archive.end();
        sentinel.extract(archive.bytes());
    }
    sentinel.check_and_clear();
    return 0;
}
