// configured_world.hpp - namespaces made from a configuration. Used by the tests of settings.
#ifndef CONFIGURED_WORLD_HPP
#define CONFIGURED_WORLD_HPP

#include "namespace_world.hpp"

#include <algorithm>

namespace namespace_world {

class Configured : public Namespaces {
  protected:
    void TearDown() override
    {
        znnsPrivilegedAllow(FALSE);
        Namespaces::TearDown();
    }

    // Moves the root to a directory whose files can have other owners, which ZNC_TEST_DISK names if
    // /tmp is none.
    void use_disk()
    {
        const char* disk = std::getenv("ZNC_TEST_DISK");
        if (disk == nullptr)
            return;
        place_ = disk;
        root_ = place_ + "/root";
        make_little_root(root_);
    }
    void leave_disk() const { fs::remove_all(place_ + "/root"); }

    // Whether directories of this file system can be id-mapped; those of tmpfs since Linux 6.3.
    static bool can_be_mapped(const std::string& directory)
    {
        const nsid_t ns = znnsCreateConfigured(
            kFlags, "trial",
            R"({"linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},)"
            R"({"type":"uts"},{"type":"network"},{"type":"user"}],)"
            R"("uidMappings":[{"containerID":0,"hostID":700000,"size":65536}],)"
            R"("gidMappings":[{"containerID":0,"hostID":700000,"size":65536}]}})",
            nullptr, 0);
        if (ns < 0)
            return false;
        const bool made = znnsRootfsCreate(ns, directory.c_str(), "trial") == OK;
        return znnsDelete(ns) == OK && made;
    }

    // A namespace with root and a configuration; -1 with `reason_` set if it is refused.
    nsid_t configured(const std::string& document)
    {
        std::array<char, ZNNS_REASON_MAX> reason = {};
        errno = 0;
        const nsid_t ns =
            znnsCreateConfigured(kFlags, "web", document.c_str(), reason.data(), reason.size());
        const int error = errno;
        reason_ = reason.data();
        if (ns < 0) {
            errno = error;
            return -1;
        }
        EXPECT_EQ(znnsRootfsCreate(ns, root_.c_str(), "web"), OK) << std::strerror(errno);
        return ns;
    }

    nsid_t sealed(const std::string& document)
    {
        const nsid_t ns = configured(document);
        EXPECT_GE(ns, 0) << reason_;
        std::array<char, ZNNS_REASON_MAX> reason = {};
        EXPECT_EQ(znnsSeal(ns, reason.data(), reason.size()), OK) << reason.data();
        return ns;
    }

    // Runs a command under a configuration and deletes the namespace.
    std::string under(const std::string& document, const std::string& command)
    {
        const nsid_t ns = sealed(document);
        const std::string out = run(ns, command);
        EXPECT_EQ(znnsDelete(ns), OK);
        return out;
    }

    // What arrives in a pipe that is the standard output of a program which opens it again.
    std::string written_to_reopened_output(nsid_t ns)
    {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        const znc::UniqueFd reader(ends[0]);
        znc::UniqueFd writer(ends[1]);
        const znc::UniqueFd keep(::fcntl(1, F_DUPFD_CLOEXEC, 10));
        ::dup2(writer.get(), 1);
        writer.reset();
        znSpawnAttr attr;
        znSpawnAttrInit(&attr);
        znSpawnAttrSetNamespace(&attr, ns);
        std::array<char*, 4> argv = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                                     const_cast<char*>("echo again >/dev/stdout"), nullptr};
        pid_t pid = -1;
        const STATUS status =
            znSpawn(&pid, (root_ + "/bin/sh").c_str(), &attr, argv.data(), nullptr);
        const int error = errno;
        ::dup2(keep.get(), 1);
        EXPECT_EQ(status, OK) << std::strerror(error);
        if (status == OK)
            exit_ = wait(pid);
        std::array<char, 16> text = {};
        const ssize_t len = ::read(reader.get(), text.data(), text.size());
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(len, 0))};
    }

    void refused(const std::string& document, int error, const std::string& field)
    {
        EXPECT_EQ(configured(document), -1) << document;
        EXPECT_EQ(errno, error) << document << ": " << reason_;
        EXPECT_EQ(reason_.substr(0, field.size()), field) << document;
    }

    std::string reason_;
    std::string place_ = "/tmp"; // the directory of the root
};

} // namespace namespace_world

#endif
