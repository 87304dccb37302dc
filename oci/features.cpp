// features.cpp - the command features: what is supported, in the format of the runtime
// specification.
#include "context.hpp"
#include "front/files.hpp"
#include "front/json.hpp"
#include "systemd_bus.hpp"

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace zncrun {

using zncctl::Json;

int run_features(const Context& /*context*/, const Arguments& /*args*/)
{
    Json json = Json::object();
    json["ociVersionMin"] = "1.0.0";
    json["ociVersionMax"] = kSpecification;
    json["hooks"] = {"prestart",       "createRuntime", "createContainer",
                     "startContainer", "poststart",     "poststop"};
    json["mountOptions"] = {"atime",     "bind",        "defaults",      "dev",       "diratime",
                            "exec",      "idmap",       "noatime",       "nodev",     "nodiratime",
                            "noexec",    "norelatime",  "nostrictatime", "nosuid",    "nosymfollow",
                            "private",   "rbind",       "relatime",      "ro",        "rprivate",
                            "rro",       "rrw",         "rnosuid",       "rnodev",    "rnoexec",
                            "rshared",   "rslave",      "runbindable",   "rw",        "shared",
                            "slave",     "strictatime", "suid",          "symfollow", "tmpcopyup",
                            "unbindable"};
    json["linux"]["namespaces"] = {"cgroup", "ipc",  "mount", "network",
                                   "pid",    "time", "user",  "uts"};
    json["linux"]["cgroup"] = {{"v1", true},
                               {"v2", true},
                               {"systemd", has_systemd_bus()},
                               {"systemdUser", false},
                               {"rdma", false}};
    json["linux"]["seccomp"] = {{"enabled", true},
                                {"actions",
                                 {"SCMP_ACT_ALLOW", "SCMP_ACT_ERRNO", "SCMP_ACT_KILL",
                                  "SCMP_ACT_KILL_PROCESS", "SCMP_ACT_KILL_THREAD", "SCMP_ACT_LOG",
                                  "SCMP_ACT_NOTIFY", "SCMP_ACT_TRACE", "SCMP_ACT_TRAP"}},
                                {"operators",
                                 {"SCMP_CMP_EQ", "SCMP_CMP_GE", "SCMP_CMP_GT", "SCMP_CMP_LE",
                                  "SCMP_CMP_LT", "SCMP_CMP_MASKED_EQ", "SCMP_CMP_NE"}}};
    json["linux"]["apparmor"] = {{"enabled", true}};
    json["linux"]["selinux"] = {{"enabled", true}};
    json["linux"]["mountExtensions"]["idmap"] = {{"enabled", true}};
    json["linux"]["intelRdt"] = {{"enabled", false}};
    return znc::write_all(STDOUT_FILENO, zncctl::pretty(json)) ? 0 : 1;
}

} // namespace zncrun
