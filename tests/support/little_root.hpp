// little_root.hpp - creates a root filesystem with busybox as its only program, for tests that run
// real programs in real namespaces.
#ifndef LITTLE_ROOT_HPP
#define LITTLE_ROOT_HPP

#include <cstdlib>
#include <filesystem>
#include <string>

// Creates `root` with /bin/busybox, a link for each applet used, and the directories that a
// container expects.
inline void make_little_root(const std::string& root)
{
    namespace fs = std::filesystem;
    for (const char* directory : {"bin", "dev", "proc", "sys", "tmp", "etc"})
        fs::create_directories(fs::path(root) / directory);
    fs::copy_file("/bin/busybox", fs::path(root) / "bin/busybox",
                  fs::copy_options::overwrite_existing);
    for (const char* applet :
         {"sh",       "cat",   "ls",    "sleep", "true", "false", "kill",     "id",   "pwd",
          "readlink", "mount", "touch", "echo",  "env",  "stat",  "hostname", "grep", "mkdir",
          "rm",       "mknod", "test",  "dd",    "head", "ln",    "mv"})
        if (!fs::exists(fs::path(root) / "bin" / applet))
            fs::create_symlink("busybox", fs::path(root) / "bin" / applet);
}

#endif
