// layered_image.hpp - an image whose layers contain all kinds of members, and the expected tree. A
// test program lists layout_builder.cpp of this directory in its sources.
#ifndef LAYERED_IMAGE_HPP
#define LAYERED_IMAGE_HPP

#include "layout_builder.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace layered_image {

// Returns layer `n`, with directories, files of several pages and links of its own.
inline std::string layer_tar(int n, int files)
{
    const std::string top = "layer" + std::to_string(n) + "/";
    std::vector<layout::Member> members = {layout::directory(top)};
    for (int i = 0; i < files; i++) {
        const std::string dir = top + "d" + std::to_string(i) + "/";
        members.push_back(layout::directory(dir));
        members.push_back({dir + "file", std::string(9000, static_cast<char>('a' + i % 26))});
        members.push_back(layout::symlink(dir + "link", "file"));
    }
    return layout::tar(members);
}

inline layout::Image image_of(int layers, int files)
{
    layout::Image image;
    image.layers.clear();
    for (int n = 0; n < layers; n++)
        image.layers.push_back(layer_tar(n, files));
    image.section = R"({"Cmd":["/layer0/d0/file"],"Env":["A=1"]})";
    return image;
}

// Describes a tree as text: each path with its kind and size, in order.
inline std::string tree_text(const std::filesystem::path& root)
{
    namespace fs = std::filesystem;
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string path =
            fs::relative(entry.path().parent_path(), root) / entry.path().filename();
        if (entry.is_symlink())
            lines.push_back(path + " -> " + fs::read_symlink(entry.path()).string());
        else if (entry.is_directory())
            lines.push_back(path + "/");
        else
            lines.push_back(path + " " + layout::sha256_hex(layout::read_file(entry.path())));
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

} // namespace layered_image

#endif
