// Tests that each member which zncrun reads is refused, with its name, if it has another type. The
// document below has all of them; each value in it is replaced by values of all other types.
#include "oci/bundle.hpp"
#include "zarnel/engine.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using zncrun::Bundle;
using zncrun::Failure;
using zncrun::Json;

constexpr char kDocument[] = R"({
  "ociVersion": "1.0.2",
  "root": {"path": "rootfs", "readonly": true},
  "hostname": "box",
  "domainname": "domain",
  "annotations": {"key": "value"},
  "mounts": [
    {"destination": "/data", "type": "bind", "source": "/tmp", "options": ["rbind", "idmap"],
     "uidMappings": [{"containerID": 0, "hostID": 100000, "size": 10}],
     "gidMappings": [{"containerID": 0, "hostID": 100000, "size": 10}]}],
  "hooks": {
    "prestart": [{"path": "/bin/true", "args": ["true"], "env": ["A=b"], "timeout": 5}],
    "createRuntime": [{"path": "/bin/true", "args": ["true"], "env": ["A=b"], "timeout": 5}],
    "createContainer": [{"path": "/bin/true", "args": ["true"], "env": ["A=b"], "timeout": 5}],
    "startContainer": [{"path": "/bin/true", "args": ["true"], "env": ["A=b"], "timeout": 5}],
    "poststart": [{"path": "/bin/true", "args": ["true"], "env": ["A=b"], "timeout": 5}],
    "poststop": [{"path": "/bin/true", "args": ["true"], "env": ["A=b"], "timeout": 5}]},
  "process": {
    "terminal": true,
    "consoleSize": {"height": 24, "width": 80},
    "cwd": "/",
    "args": ["sh", "-c"],
    "env": ["PATH=/bin"],
    "user": {"uid": 1, "gid": 2, "umask": 18, "additionalGids": [3]},
    "capabilities": {"bounding": ["CAP_KILL"], "effective": ["CAP_KILL"],
                     "permitted": ["CAP_KILL"], "inheritable": ["CAP_KILL"],
                     "ambient": ["CAP_KILL"]},
    "noNewPrivileges": true,
    "rlimits": [{"type": "RLIMIT_CORE", "soft": 1, "hard": 2}],
    "oomScoreAdj": 100},
  "linux": {
    "namespaces": [{"type": "mount"}, {"type": "pid"}, {"type": "ipc"}, {"type": "user"},
                   {"type": "uts"}, {"type": "time"}, {"type": "cgroup"},
                   {"type": "network", "path": "/proc/self/ns/net"}],
    "uidMappings": [{"containerID": 0, "hostID": 100000, "size": 10}],
    "gidMappings": [{"containerID": 0, "hostID": 100000, "size": 10}],
    "timeOffsets": {"monotonic": {"secs": 1, "nanosecs": 2},
                    "boottime": {"secs": 1, "nanosecs": 2}},
    "devices": [{"path": "/dev/fuse", "type": "c", "major": 10, "minor": 229, "fileMode": 438,
                 "uid": 0, "gid": 0}],
    "cgroupsPath": "/a/b",
    "sysctl": {"kernel.msgmax": "1000"},
    "maskedPaths": ["/proc/kcore"],
    "readonlyPaths": ["/proc/sys"],
    "rootfsPropagation": "private",
    "resources": {
      "devices": [{"allow": true, "type": "c", "major": 1, "minor": 3, "access": "rwm"}],
      "memory": {"limit": 1000000, "reservation": 1000000, "swap": 2000000, "kernel": -1,
                 "kernelTCP": -1, "swappiness": 10, "disableOOMKiller": false,
                 "useHierarchy": true, "checkBeforeUpdate": false},
      "cpu": {"shares": 100, "quota": 1000, "period": 1000, "cpus": "0", "mems": "0", "burst": 0,
              "idle": 0, "realtimeRuntime": 0, "realtimePeriod": 0},
      "blockIO": {"weight": 100, "leafWeight": 0,
                  "weightDevice": [{"major": 8, "minor": 0, "weight": 10, "leafWeight": 0}],
                  "throttleReadBpsDevice": [{"major": 8, "minor": 0, "rate": 1}],
                  "throttleWriteBpsDevice": [{"major": 8, "minor": 0, "rate": 1}],
                  "throttleReadIOPSDevice": [{"major": 8, "minor": 0, "rate": 1}],
                  "throttleWriteIOPSDevice": [{"major": 8, "minor": 0, "rate": 1}]},
      "hugepageLimits": [{"pageSize": "2MB", "limit": 1}],
      "pids": {"limit": 10},
      "unified": {"memory.high": "1000000"}},
    "seccomp": {
      "defaultAction": "SCMP_ACT_ERRNO", "defaultErrnoRet": 1,
      "architectures": ["SCMP_ARCH_X86_64"],
      "flags": ["SECCOMP_FILTER_FLAG_LOG"],
      "syscalls": [{"names": ["read"], "action": "SCMP_ACT_ERRNO", "errnoRet": 2,
                    "args": [{"index": 0, "value": 1, "valueTwo": 2, "op": "SCMP_CMP_EQ"}]}]}}
})";

// As zncrun reads it before anything is created; "" if it is accepted.
std::string refusal_of(const Json& document)
{
    std::ofstream("/tmp/bundle-types/config.json") << document.dump();
    try {
        const Bundle bundle("/tmp/bundle-types", "");
        static_cast<void>(bundle.group("web"));
        std::array<char, ZN_ENGINE_REASON_MAX> reason{};
        if (znEngineCheck(bundle.document().c_str(), reason.data(), reason.size()) != OK)
            return reason.data();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

// Calls visit(value, name) for the value and all in it; the visitor may replace the value.
template <class Visit> void walk(Json& value, const std::string& name, const Visit& visit)
{
    if (!name.empty())
        visit(value, name);
    std::size_t index = 0;
    for (auto& [key, member] : value.items())
        if (value.is_object())
            walk(member, name.empty() ? key : name + "." + key, visit);
        else if (value.is_array())
            walk(member, name + "[" + std::to_string(index++) + "]", visit);
}

class Types : public testing::Test {
  protected:
    Types() { std::filesystem::create_directories("/tmp/bundle-types/rootfs"); }
    ~Types() override { std::filesystem::remove_all("/tmp/bundle-types"); }
    Json document_ = Json::parse(kDocument);
};

TEST_F(Types, TheDocumentWithAllMembersIsAccepted)
{
    EXPECT_EQ(refusal_of(document_), "");
}

TEST_F(Types, AMemberOfAnotherTypeIsRefusedWithItsName)
{
    const Json others = {
        "words", 7, -1, 1.5, true, Json::array({Json::array()}), Json::object({{"a", "b"}})};
    std::size_t values = 0;
    walk(document_, "", [&](Json& value, const std::string& name) {
        const Json right = value;
        values++;
        for (const Json& wrong : others) {
            if (wrong.type() == right.type() || (wrong.is_number_integer() && right.is_number()))
                continue;
            value = wrong;
            const std::string refusal = refusal_of(document_);
            EXPECT_TRUE(refusal.starts_with(name + ": "))
                << name << " is " << wrong << ": \"" << refusal << "\"";
        }
        value = right;
    });
    EXPECT_GT(values, 200U);
}

// These are accepted with the kernel's support only, or not at all.
TEST_F(Types, OtherMembersOfAnotherTypeAreRefusedWithTheirNames)
{
    for (const char* pointer :
         {"/process/apparmorProfile", "/process/selinuxLabel", "/linux/mountLabel",
          "/process/ioPriority", "/process/scheduler", "/process/execCPUAffinity",
          "/process/user/username", "/linux/intelRdt", "/linux/memoryPolicy", "/linux/netDevices",
          "/linux/personality", "/linux/resources/network", "/linux/resources/rdma",
          "/linux/seccomp/listenerPath", "/linux/seccomp/listenerMetadata"}) {
        std::string name = std::string(pointer).substr(1);
        std::replace(name.begin(), name.end(), '/', '.');
        for (const Json& wrong : {Json(7), Json(true), Json::array({"x"})}) {
            Json changed = document_;
            changed[Json::json_pointer(pointer)] = wrong;
            EXPECT_TRUE(refusal_of(changed).starts_with(name + ": ")) << name << " is " << wrong;
        }
    }
}

TEST_F(Types, AnElementOfAnotherTypeIsRefusedWithItsNumber)
{
    document_["process"]["args"] = {"sh", 7};
    EXPECT_EQ(refusal_of(document_), "process.args[1]: not a string");
}

TEST_F(Types, NamesInAnotherCaseAreRefused)
{
    document_["process"].erase("terminal");
    document_["process"]["Terminal"] = true;
    EXPECT_EQ(refusal_of(document_), "process.terminal: is spelled in another case");
}

TEST_F(Types, NumbersHaveLimits)
{
    const auto refusal = [&](const char* pointer, const Json& number) {
        Json changed = document_;
        changed[Json::json_pointer(pointer)] = number;
        return refusal_of(changed);
    };
    EXPECT_EQ(refusal("/process/consoleSize/height", 65536),
              "process.consoleSize.height: not a whole number from 0 to 65535");
    EXPECT_EQ(refusal("/process/consoleSize/width", -1),
              "process.consoleSize.width: not a whole number from 0 to 65535");
    EXPECT_EQ(refusal("/hooks/poststop/0/timeout", 0),
              "hooks.poststop[0].timeout: not a whole number from 1 to 2147483647");
    EXPECT_EQ(refusal("/mounts/0/uidMappings/0/size", 0),
              "mounts[0].uidMappings[0].size: not a whole number from 1 to 4294967295");
}

} // namespace
