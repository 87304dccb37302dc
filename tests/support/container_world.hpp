// container_world.hpp - a new storage base, bundles and an info queue for tests of the container
// registry. The test program lists tests/support/fake_platform.cpp in SOURCES and runs in the
// sandbox.
#ifndef CONTAINER_WORLD_HPP
#define CONTAINER_WORLD_HPP

#include "fake_platform.hpp"
#include "zncContainerLib.hpp"

#include "zarnel/fs.h"
#include "zarnel/msgq.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

class ContainerWorld : public ::testing::Test {
  protected:
    static constexpr const char* kConfig = R"({"ociVersion":"1.0.2","root":{"path":"rootfs"},
        "process":{"args":["/bin/app","-v"],"env":["A=1"],"cwd":"/work"}})";

    void SetUp() override
    {
        char dir[] = "/tmp/containersXXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        top = dir;
        base = top + "/base";
        ::setenv("ZNC_BASE", base.c_str(), 1);
        set_overlay(false);
        fake::reset();
        ASSERT_EQ(zncContainerInit(), OK);
        zncMsgLvlSet(2);
        zncMsgQnameSet("/znc-test");
        info = znMsgQOpen("/znc-test_info", 20, 255, ZN_MSG_Q_FIFO, ZN_MSG_Q_CREATE_EXCLUSIVE);
        ASSERT_GE(info, 0);
        errno = 0;
    }

    void TearDown() override
    {
        fake::set_in_use(false);
        remove_all_containers();
        znMsgQClose(info);
        znMsgQUnlink("/znc-test_info");
        set_overlay(true);
        ::unsetenv("ZNC_BASE");
        std::filesystem::remove_all(top);
    }

    // Creates or removes the sandbox's /overlay.
    static void set_overlay(bool there)
    {
        if (there)
            std::filesystem::create_directory("/overlay");
        else
            std::filesystem::remove("/overlay");
    }

    std::string bundle(const std::string& name, const std::string& config = kConfig) const
    {
        const std::string dir = top + "/" + name;
        std::filesystem::create_directories(dir);
        std::ofstream(dir + "/config.json") << config;
        return dir;
    }

    STATUS create(const std::string& id, const std::string& bundle_path)
    {
        return zncContainerCreate(id.c_str(), bundle_path.c_str(), 0, nullptr);
    }

    static int status_of(const std::string& id)
    {
        CONTAINER_STATE state;
        std::string name = id;
        return zncContainerStateGet(name.data(), &state) == OK ? state.status : -1;
    }

    static std::vector<std::string> ids()
    {
        std::vector<std::string> all;
        char id[256] = "";
        while (zncContainerNext(id))
            all.emplace_back(id);
        return all;
    }

    static void remove_all_containers()
    {
        // If a delete fails, a second one always succeeds.
        for (const std::string& id : ids())
            EXPECT_TRUE(zncContainerDelete(id.c_str(), 2) == OK ||
                        zncContainerDelete(id.c_str(), 2) == OK)
                << id;
    }

    // Returns the progress texts since the last call.
    std::vector<std::string> messages() const
    {
        std::vector<std::string> all;
        char text[256];
        ssize_t n;
        while ((n = znMsgQReceive(info, text, sizeof text, ZN_NO_WAIT)) >= 0)
            all.emplace_back(text, text + (n > 0 ? n - 1 : 0));
        return all;
    }

    // Runs `work` while another thread holds the lock of the container.
    template <class F> static void while_held_elsewhere(const std::string& id, F work)
    {
        std::thread holder([&] {
            CONTAINER_CTX* const ctx = zncContainerFindAndLockById(id.c_str());
            ASSERT_NE(ctx, nullptr);
            std::thread(work).join();
            zncContainerUnlock(ctx);
        });
        holder.join();
    }

    std::string top, base;
    MSG_Q_ID info = ZN_MSG_Q_INVALID;
};

#endif
