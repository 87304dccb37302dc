// Extracts random well-formed archives with the library, GNU tar and bsdtar: the trees must be
// equal, except for what the library omits on purpose (hard links, FIFOs, mode bits beyond the low
// nine, times of links). DIFFERENTIAL_SEED repeats a run, DIFFERENTIAL_ARCHIVES sets the number of
// archives.
#include "tarforge.hpp"
#include "test_tree.hpp"

#include "zncontainer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include <sys/stat.h>

using tarforge::Archive;
using tarforge::Field;
using tarforge::Header;

namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;

std::uint64_t figure(const char* name, std::uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// Generates one archive: each member is below an earlier directory, and each name is unique.
class Generator {
  public:
    explicit Generator(std::uint64_t seed) : random_(seed) {}

    std::string make()
    {
        const std::size_t members = 1 + below(30);
        for (std::size_t i = 0; i < members; ++i)
            add_member();
        archive_.end(static_cast<unsigned>(1 + below(20)));
        return below(3) == 0 ? tarforge::gzip(archive_.bytes()) : archive_.bytes();
    }
    [[nodiscard]] const std::set<std::string>& left_out() const { return leftOut_; }

  private:
    std::size_t below(std::size_t end) { return random_() % end; }

    std::string component()
    {
        static const std::vector<std::string> kTexts = {
            "a",        "b",         "file",     "with blank", "...",   "..x", ".hidden", "-option",
            "\xc3\xa4", "new\nline", "\x01\x7f", "*?[",        "$(id)", "\"'", "#",       "x.tar"};
        std::string text = kTexts[below(kTexts.size())];
        if (below(2) == 0)
            text += std::to_string(below(1000));
        if (below(8) == 0)
            text += std::string(1 + below(70), 'l');
        return text;
    }

    // A new name that fits into a header, in an existing directory.
    std::string new_path()
    {
        for (;;) {
            const std::string path = directories_[below(directories_.size())] + component();
            if (path.size() <= 200 && (path.size() < 100 || splits(path)) &&
                names_.insert(path).second)
                return path;
        }
    }

    static std::size_t split_of(const std::string& path)
    {
        for (std::size_t at = path.find('/'); at != std::string::npos; at = path.find('/', at + 1))
            if (at <= 155 && path.size() - at - 1 < 100 && at + 1 < path.size())
                return at;
        return std::string::npos;
    }
    static bool splits(const std::string& path) { return split_of(path) != std::string::npos; }

    // The path in one of several equivalent forms.
    Header header_for(const std::string& path, char type, const std::string& suffix = "")
    {
        Header header("", type);
        if (path.size() < 97) {
            header.name((below(6) == 0 ? "./" : "") + path + suffix);
        } else {
            const std::size_t at = split_of(path);
            header.prefix(path.substr(0, at)).name(path.substr(at + 1) + suffix);
        }
        header.mtime(below(2) == 0 ? below(2000000000) : below(0777777777));
        return header.mode(static_cast<unsigned>(below(01000)));
    }

    std::string content()
    {
        static const std::vector<std::size_t> kSizes = {0,    1,     511,   512,   513,    1024,
                                                        4096, 10239, 10240, 10241, 102400, 150000};
        std::string text(below(3) == 0 ? kSizes[below(kSizes.size())] : below(3000), '\0');
        for (char& c : text)
            c = static_cast<char>(random_());
        return text;
    }

    void add_member()
    {
        const std::string path = new_path();
        const std::size_t kind = below(20);
        if (kind < 10) {
            const std::string data = content();
            const char type = below(8) == 0 ? '\0' : '0';
            archive_.member(header_for(path, type).size(data.size()), data);
            files_.push_back(path);
        } else if (kind < 15) {
            // Directories must be searchable for the comparison; files have all kinds of modes.
            archive_.member(header_for(path, '5', "/"));
            directories_.push_back(path + "/");
        } else if (kind < 18) {
            archive_.member(header_for(path, '2').target(below(2) == 0 ? "/nowhere" : component()));
        } else if (kind < 19 || files_.empty()) {
            archive_.member(header_for(path, '6'));
            leftOut_.insert(path);
        } else {
            add_hard_link(path);
        }
    }

    void add_hard_link(const std::string& path)
    {
        const std::string& target = files_[below(files_.size())];
        if (target.size() > 99)
            return;
        archive_.member(header_for(path, '1').target(target));
        leftOut_.insert(path);
        linked_.insert(target); // the target gets the mode and time of the link
    }

  public:
    [[nodiscard]] const std::set<std::string>& linked() const { return linked_; }

  private:
    std::mt19937_64 random_;
    Archive archive_;
    std::vector<std::string> directories_ = {""};
    std::vector<std::string> files_;
    std::set<std::string> names_;
    std::set<std::string> leftOut_;
    std::set<std::string> linked_;
};

std::string describe(const std::string& path, bool sharesItsInode)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return "?";
    if (S_ISLNK(st.st_mode))
        return "link " + fs::read_symlink(path).string();
    std::string text = S_ISDIR(st.st_mode) ? "directory" : "file";
    if (!sharesItsInode)
        text += " mode " + std::to_string(st.st_mode & 0777) + " time " +
                std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
    return S_ISREG(st.st_mode) ? text + " = " + test_tree::read_file(path) : text;
}

Tree tree_of(const std::string& root, const Generator& generator)
{
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().string().substr(root.size() + 1);
        tree[name] = describe(entry.path(), generator.linked().count(name) != 0);
    }
    return tree;
}

bool run(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// Describes the differences, without the contents of files.
std::string difference(const Tree& ours, const Tree& theirs, const std::set<std::string>& left_out)
{
    std::string text;
    for (const auto& [name, state] : theirs) {
        const auto found = ours.find(name);
        if (left_out.count(name) != 0)
            text += found != ours.end() ? "  was to be left out: " + name + "\n" : "";
        else if (found == ours.end())
            text += "  missing: " + name + "\n";
        else if (found->second != state)
            text += "  " + name + "\n    " + found->second.substr(0, 80) + "\n    " +
                    state.substr(0, 80) + "\n";
    }
    for (const auto& [name, state] : ours)
        if (theirs.count(name) == 0)
            text += "  only here: " + name + " " + state.substr(0, 80) + "\n";
    return text;
}

class DifferentialTar : public testing::Test {
  protected:
    void SetUp() override
    {
        for (const char* tool : {"tar", "bsdtar"})
            if (!run(std::string("command -v ") + tool))
                GTEST_SKIP() << tool << " is not installed";
    }
    void compare(std::uint64_t seed)
    {
        SCOPED_TRACE("DIFFERENTIAL_SEED=" + std::to_string(seed) + " DIFFERENTIAL_ARCHIVES=1");
        const test_tree::TempDir dir;
        Generator generator(seed);
        test_tree::write_file(dir / "archive", generator.make());
        for (const char* place : {"ours", "gnu", "bsd"})
            fs::create_directory(dir / place);
        ASSERT_EQ(zncUtilUntar((dir / "archive").c_str(), (dir / "ours").c_str()), OK);
        // The members of a directory need not be adjacent. -P: create links immediately instead of
        // placeholder files.
        ASSERT_TRUE(run("tar --delay-directory-restore -xpPf " + (dir / "archive") + " -C " +
                        (dir / "gnu")));
        ASSERT_TRUE(run("bsdtar -xpf " + (dir / "archive") + " -C " + (dir / "bsd")));
        const Tree ours = tree_of(dir / "ours", generator);
        EXPECT_EQ(difference(ours, tree_of(dir / "gnu", generator), generator.left_out()), "");
        EXPECT_EQ(difference(ours, tree_of(dir / "bsd", generator), generator.left_out()), "");
        entries_ += ours.size();
        leftOut_ += generator.left_out().size();
    }

    std::size_t entries_ = 0;
    std::size_t leftOut_ = 0;
};

} // namespace

TEST_F(DifferentialTar, WellFormedArchivesGiveTheTreeOfTheOthers)
{
    const std::uint64_t seed = figure("DIFFERENTIAL_SEED", std::random_device()());
    const std::uint64_t archives = figure("DIFFERENTIAL_ARCHIVES", 200);
    for (std::uint64_t i = 0; i < archives && !HasFailure(); ++i)
        compare(seed + i);
    std::printf("%llu archives from seed %llu: %zu entries alike, %zu left out\n",
                static_cast<unsigned long long>(archives), static_cast<unsigned long long>(seed),
                entries_, leftOut_);
    EXPECT_GT(entries_, archives);
}
