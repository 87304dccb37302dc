// bundle.hpp - creates runtime bundles with busybox as their only program, for system tests.
#ifndef BUNDLE_HPP
#define BUNDLE_HPP

#include "little_root.hpp"

#include <fstream>
#include <string>
#include <vector>

// `more` is appended to the members of config.json, for instance ,"mounts":[...].
inline void make_bundle(const std::string& path, const std::vector<std::string>& args,
                        const std::string& more = "")
{
    make_little_root(path + "/rootfs");
    std::ofstream config(path + "/config.json");
    config << R"({"ociVersion":"1.0.0","process":{"args":[)";
    for (std::size_t i = 0; i < args.size(); i++)
        config << (i > 0 ? "," : "") << '"' << args[i] << '"';
    config << R"(],"cwd":"/","env":["PATH=/bin"]},"root":{"path":"rootfs"})" << more << "}";
}

#endif
