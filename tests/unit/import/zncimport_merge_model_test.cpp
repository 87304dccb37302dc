// zncimport_merge_model_test.cpp - compares the merge with a second implementation: a flat list of
// paths that implements the rules of layers as simply as possible.
//
// Layers are random. The seed is printed; ZNC_MERGE_SEED=N repeats a run, and ZNC_MERGE_ROUNDS=N
// sets the number of pairs.
#include "zncimport_layers.hpp"

#include "front/words.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>

using layers::Entry;
using layers::Layer;
using zncimport::Kind;

namespace {

using Path = std::vector<std::string>;

struct Broken : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The object at a path. Names of the same file have the same number.
struct Thing {
    Kind kind = Kind::kDirectory;
    unsigned mode = 0755;
    std::int64_t mtime = 0;
    std::string target;
    int inode = 0;
};

Path components(const std::string& text)
{
    Path path;
    std::istringstream in(text);
    for (std::string name; std::getline(in, name, '/');)
        if (!name.empty() && name != ".")
            path.push_back(name);
    return path;
}

// Resolves "..", which must not leave the root.
Path plain(const std::string& text)
{
    Path path;
    for (const std::string& name : components(text)) {
        if (name != "..") {
            path.push_back(name);
        } else {
            if (path.empty())
                throw Broken("leaves the root");
            path.pop_back();
        }
    }
    return path;
}

bool is_below(const Path& path, const Path& directory)
{
    return path.size() > directory.size() &&
           std::equal(directory.begin(), directory.end(), path.begin());
}

class Model {
  public:
    void add(const Layer& layer)
    {
        remove_hidden(layer);
        for (const Entry& entry : layer)
            add(entry);
        resolve();
    }

    void finish()
    {
        resolve();
        std::erase_if(things_,
                      [](const auto& thing) { return thing.second.kind == Kind::kHardlink; });
    }

    [[nodiscard]] const std::map<Path, Thing>& things() const { return things_; }

  private:
    // Resolves a directory component by component. Missing directories are created with the given
    // time, or else the result is empty. A file in the path is replaced by a directory.
    std::optional<Path> directory(const Path& names, std::optional<std::int64_t> time)
    {
        Path here;
        Path left = names;
        int links = 0;
        while (!left.empty()) {
            const std::string name = left.front();
            left.erase(left.begin());
            if (name == "..") {
                if (!here.empty())
                    here.pop_back();
                continue;
            }
            Path next = here;
            next.push_back(name);
            const auto found = things_.find(next);
            if (found != things_.end() && found->second.kind == Kind::kSymlink) {
                if (++links > 255)
                    throw Broken("too many links");
                const std::string& target = found->second.target;
                if (target[0] == '/')
                    here.clear();
                const Path more = components(target);
                left.insert(left.begin(), more.begin(), more.end());
                continue;
            }
            if (found == things_.end() || found->second.kind != Kind::kDirectory) {
                if (!time)
                    return std::nullopt;
                things_[next] = {Kind::kDirectory, 0755, *time, "", ++inodes_};
            }
            here = next;
        }
        return here;
    }

    std::optional<Path> place(const Path& path, std::optional<std::int64_t> time)
    {
        std::optional<Path> result = directory({path.begin(), path.end() - 1}, time);
        if (result)
            result->push_back(path.back());
        return result;
    }

    void remove(const Path& path)
    {
        std::erase_if(things_, [&](const auto& thing) {
            return thing.first == path || is_below(thing.first, path);
        });
    }

    void remove_hidden(const Layer& layer)
    {
        std::set<Path> gone;
        std::set<Path> emptied;
        for (const Entry& entry : layer) {
            const Path path = plain(entry.member.path);
            if (path.empty() || !path.back().starts_with(".wh."))
                continue;
            auto real = place(path, std::nullopt);
            if (!real)
                continue;
            real->pop_back();
            if (path.back() == ".wh..wh..opq") {
                emptied.insert(*real);
            } else {
                real->push_back(path.back().substr(4));
                gone.insert(*real);
            }
        }
        std::erase_if(things_, [&](const auto& thing) {
            const auto contains = [&](const Path& directory) {
                return is_below(thing.first, directory);
            };
            return gone.contains(thing.first) || std::any_of(gone.begin(), gone.end(), contains) ||
                   std::any_of(emptied.begin(), emptied.end(), contains);
        });
    }

    void add(const Entry& entry)
    {
        const Path path = plain(entry.member.path);
        if (path.empty()) {
            if (entry.member.kind != Kind::kDirectory)
                throw Broken("root");
            return;
        }
        if (path.back().starts_with(".wh."))
            return;
        Thing thing = {entry.member.kind, entry.member.mode, entry.member.mtime,
                       entry.member.target, ++inodes_};
        if (entry.member.kind == Kind::kHardlink) {
            const Path target = plain(entry.member.target);
            const Thing* const file = file_at(target);
            if (file != nullptr && file->kind == Kind::kDirectory)
                throw Broken("link to a directory");
            if (file != nullptr && file->kind != Kind::kHardlink)
                thing = *file;
        }
        const Path real = *place(path, entry.member.mtime);
        const auto old = things_.find(real);
        const bool merged = old != things_.end() && old->second.kind == Kind::kDirectory &&
                            thing.kind == Kind::kDirectory;
        if (!merged)
            remove(real);
        things_[real] = thing;
    }

    // Returns the target of a hard link; the root is a directory.
    const Thing* file_at(const Path& target)
    {
        static const Thing root;
        if (target.empty())
            return &root;
        const auto real = place(target, std::nullopt);
        const auto found = real ? things_.find(*real) : things_.end();
        return found != things_.end() ? &found->second : nullptr;
    }

    // Repeat while any unresolved link finds its target.
    void resolve()
    {
        for (bool again = true; again;) {
            again = false;
            for (auto& [path, thing] : things_) {
                if (thing.kind != Kind::kHardlink)
                    continue;
                const Thing* const file = file_at(plain(thing.target));
                if (file == nullptr || file->kind == Kind::kHardlink)
                    continue;
                if (file->kind == Kind::kDirectory)
                    throw Broken("link to a directory");
                thing = *file;
                again = true;
            }
        }
    }

    std::map<Path, Thing> things_;
    int inodes_ = 0;
};

class Maker {
  public:
    explicit Maker(std::uint64_t seed) : random_(seed) {}

    Layer layer()
    {
        Layer made;
        for (std::size_t i = below(9) + 1; i > 0; --i)
            made.push_back(entry());
        return made;
    }

  private:
    std::size_t below(std::size_t end) { return random_() % end; }

    std::string path()
    {
        static constexpr const char* kNames[] = {"a", "b", "c", "d", "a", "b", ".", ".."};
        std::string made;
        for (std::size_t i = below(3) + 1; i > 0; --i)
            made += (made.empty() ? "" : "/") + std::string(kNames[below(below(8) == 0 ? 8 : 6)]);
        return made;
    }

    // Trees are more interesting than errors, so most paths stay inside the root.
    std::string inside()
    {
        for (;;) {
            std::string made = path();
            try {
                if (!plain(made).empty() || below(8) == 0)
                    return made;
            } catch (const Broken&) {
                if (below(64) == 0)
                    return made;
            }
        }
    }

    std::string target()
    {
        static constexpr const char* kTargets[] = {"a",  "b",     "/c",     "../d", "a/b", "/b/c",
                                                   "..", "../..", "c/../a", "/",    "./d", "/x/y"};
        return kTargets[below(std::size(kTargets))];
    }

    Entry entry()
    {
        const std::string name = inside();
        const auto slash = name.rfind('/') == std::string::npos ? 0 : name.rfind('/') + 1;
        Entry made;
        switch (below(16)) {
        case 0:
        case 1:
            made = layers::file(name.substr(0, slash) + ".wh." + "abcd"[below(4)]);
            break;
        case 2:
            made = layers::file(name.substr(0, slash) + ".wh..wh..opq");
            break;
        case 3:
        case 4:
        case 5:
        case 6:
            made = layers::directory(name + "/", below(2) != 0 ? 0755 : 0700);
            break;
        case 7:
        case 8:
            made = layers::symbolic(name, target());
            break;
        case 9:
        case 10:
            made = layers::hardlink(name, inside());
            break;
        case 11:
            made = layers::entry(below(2) != 0 ? Kind::kFifo : Kind::kCharDevice, name);
            break;
        default:
            made = layers::file(name);
        }
        made.member.mtime = static_cast<std::int64_t>(++time_);
        return made;
    }

    std::mt19937_64 random_;
    std::uint64_t time_ = 0;
};

std::string text_of(const Layer& layer)
{
    static constexpr const char* kKinds[] = {"file", "directory", "symlink", "hard link",
                                             "char", "block",     "FIFO",    "other"};
    std::string text;
    for (const Entry& entry : layer)
        text += "  " + std::string(kKinds[static_cast<int>(entry.member.kind)]) + " " +
                entry.member.path +
                (entry.member.target.empty() ? "" : " -> " + entry.member.target) + "\n";
    return text;
}

// Returns a line for each path; a file is identified by its first name.
struct Line {
    Kind kind;
    unsigned mode;
    std::int64_t mtime;
    std::string target;
    const void* file; // identifies the file
};

std::string text_of(const std::map<Path, Line>& lines)
{
    std::string text;
    std::map<const void*, std::size_t> files;
    for (const auto& [path, line] : lines) {
        const std::size_t file = files.try_emplace(line.file, files.size()).first->second;
        text += zncimport::Tree::join(path) + " kind " +
                std::to_string(static_cast<int>(line.kind)) + " mode " + std::to_string(line.mode) +
                " time " + std::to_string(line.mtime) + " file " + std::to_string(file) + " " +
                line.target + "\n";
    }
    return text;
}

void add_lines(const zncimport::Node& directory, const Path& path, std::map<Path, Line>& lines)
{
    for (const auto& [name, node] : directory.children) {
        Path child = path;
        child.push_back(name);
        lines[child] = {node->kind, node->mode, node->mtime, node->target, node.get()};
        add_lines(*node, child, lines);
    }
}

std::string by_merge(const std::vector<Layer>& all)
{
    const zncimport::Limits limits;
    zncimport::Report report;
    zncimport::Merge merge(limits, report);
    try {
        for (const Layer& layer : all)
            merge.add_layer(layer);
        const zncimport::Tree tree = merge.finish();
        std::map<Path, Line> lines;
        add_lines(tree.root(), {}, lines);
        return text_of(lines);
    } catch (const zncimport::Failure&) {
        return "failed";
    }
}

std::string by_model(const std::vector<Layer>& all)
{
    Model model;
    try {
        for (const Layer& layer : all)
            model.add(layer);
        model.finish();
    } catch (const Broken&) {
        return "failed";
    }
    std::map<int, char> files;
    std::map<Path, Line> lines;
    for (const auto& [path, thing] : model.things())
        lines[path] = {thing.kind, thing.mode, thing.mtime, thing.target, &files[thing.inode]};
    return text_of(lines);
}

std::uint64_t number_from(const char* variable, std::uint64_t otherwise)
{
    const char* const text = std::getenv(variable);
    return text != nullptr ? zncctl::to_number<std::uint64_t>(text).value() : otherwise;
}

} // namespace

TEST(MergeModel, RandomPairsOfLayersGiveTheTreeOfTheModel)
{
    const std::uint64_t seed = number_from("ZNC_MERGE_SEED", std::random_device()());
    const std::uint64_t rounds = number_from("ZNC_MERGE_ROUNDS", 10'000);
    std::uint64_t failed = 0;
    for (std::uint64_t i = 0; i < rounds; ++i) {
        Maker maker(seed + i);
        const std::vector<Layer> all = {maker.layer(), maker.layer()};
        const std::string wanted = by_model(all);
        failed += wanted == "failed" ? 1 : 0;
        ASSERT_EQ(by_merge(all), wanted) << "ZNC_MERGE_SEED=" << seed + i << "\nlower layer:\n"
                                         << text_of(all[0]) << "upper layer:\n"
                                         << text_of(all[1]);
    }
    std::printf("seed %llu: %llu pairs, %llu of them refused\n",
                static_cast<unsigned long long>(seed), static_cast<unsigned long long>(rounds),
                static_cast<unsigned long long>(failed));
    if (rounds >= 1000) {
        EXPECT_LT(failed, rounds / 2) << "most layers should be good ones";
    }
}
