#include "container.hpp"

#include "at_once.hpp"
#include "base/failure.hpp"
#include "cli/containers/image_bundle.hpp"
#include "cli/containers/image_user.hpp"
#include "cli/images/sticky.hpp"
#include "config_check.hpp"
#include "events.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"
#include "front/record.hpp"
#include "pause.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>

#include "zarnel/ns.h"

namespace zncctl {
namespace {

std::optional<Json> request_state(const std::string& id)
{
    const znc::MallocPtr<char> text(zncState(id.c_str()));
    if (text == nullptr)
        return std::nullopt;
    std::optional<Json> state = parse_json(text.get());
    if (!state)
        errno = EBADMSG;
    return state;
}

} // namespace

std::optional<Json> state_of(const std::string& id)
{
    return call_library([&] { return request_state(id); });
}

CONTAINER_STATUS status_of(const std::string& id)
{
    return call_library([&] { return zncStatusGet(id.c_str()); });
}

uid_t user_of_program(const std::string& id)
{
    const std::string bundle = text_of(state_of(id).value_or(Json()), "bundle");
    const auto config = parse_config(read_file(bundle + "/config.json").value_or(""));
    const Json* process = config ? member(*config, "process") : nullptr;
    const auto uid = integer(member(member(process, "user"), "uid")).value_or(0);
    return std::in_range<uid_t>(uid) ? static_cast<uid_t>(uid) : 0;
}

std::string root_of_bundle(const std::string& bundle)
{
    const auto config = parse_config(read_file(bundle + "/config.json").value_or(""));
    const std::string path = config ? text_of(member(*config, "root"), "path") : "";
    if (path.empty())
        return "";
    return path.starts_with('/') ? path : bundle + "/" + path;
}

namespace {

// Ids of containers that may exist; the daemon is then asked about each of them. Each container has
// a namespace; the others are for the case that these cannot be listed.
std::set<std::string> known_ids()
{
    const std::vector<std::string> recorded = recorded_ids();
    std::set<std::string> ids(recorded.begin(), recorded.end());
    for (const auto& [id, ns] : namespaces_by_id())
        ids.insert(id);
    std::array<char, 1024> area{};
    if (zncBasePathGet(area.data(), area.size(), ZNC_CONTAINERS_PATH) == 0)
        return ids;
    std::error_code error;
    for (std::filesystem::directory_iterator it(area.data(), error), end; it != end && !error;
         it.increment(error))
        ids.insert(it->path().filename());
    return ids;
}

// Empty with errno set if a request fails for another reason than that there is no such container.
std::optional<Json> states_of(const std::set<std::string>& known)
{
    struct Answer {
        std::optional<Json> state;
        int error = 0;
    };
    std::vector<std::string> ids;
    for (const std::string& id : known)
        if (is_container_id(id))
            ids.push_back(id);
    std::vector<Answer> answers(ids.size());
    std::atomic<bool> failed =
        false; // then no more is requested: each request may wait for seconds
    call_library([&] {
        for_each_at_once(ids.size(), [&](std::size_t index) {
            Answer& answer = answers[index];
            answer.error = ENODEV;
            if (failed)
                return;
            answer.state = request_state(ids[index]);
            answer.error = answer.state ? 0 : errno;
            if (!answer.state && answer.error != ENODEV)
                failed = true;
        });
    });
    Json states = Json::array();
    for (Answer& answer : answers) {
        if (answer.state) {
            states.push_back(*std::move(answer.state));
        } else if (answer.error != ENODEV) {
            return znc::fail(answer.error, std::nullopt);
        }
    }
    return states;
}

// Whether the list of these containers is certainly too long for one reply of the daemon. It then
// sends none, and the library waits for it in vain for seconds.
bool is_too_long(const NamespaceIds& ids)
{
    constexpr std::size_t kReplyMax = 65535;
    constexpr std::size_t kEach =
        std::string_view(R"({"ociVersion":"1.0.0","id":"","status":1,"bundle":""},)").size();
    std::size_t length = 0;
    for (const auto& [id, ns] : ids)
        length += kEach + id.size();
    if (length <= kReplyMax / 4 || length > kReplyMax)
        return length > kReplyMax;
    try { // bundles that zncctl made have paths of a known length
        const std::string base = storage_base();
        for (const auto& [id, ns] : ids)
            length += own_bundle(id, base).size();
    } catch (const std::runtime_error&) {
        return false; // without a storage base there are none
    }
    return length > kReplyMax;
}

} // namespace

std::optional<Json> all_states()
{
    if (is_too_long(namespaces_by_id()))
        return states_of(known_ids());
    const znc::MallocPtr<char> text(call_library(zncList));
    if (text == nullptr) {
        const int error = errno;
        if (error == 0 && zncDaemonIsAlive() != FALSE)
            return states_of(known_ids());
        return znc::fail(error, std::nullopt);
    }
    std::optional<Json> states = parse_json(text.get());
    if (!states || !states->is_array())
        return znc::fail(EBADMSG, std::nullopt);
    return states;
}

std::optional<std::vector<std::string>> all_ids(std::optional<CONTAINER_STATUS> status)
{
    const std::optional<Json> states = all_states();
    if (!states)
        return std::nullopt;
    std::vector<std::string> ids;
    for (const Json& state : *states)
        if (!status || integer(member(state, "status")) == *status)
            ids.push_back(text_of(state, "id"));
    return ids;
}

namespace {

// When a container is started, the daemon sends these members to the client. A reply that is too
// long is never sent: the client would wait in vain, and the container could not be started again.
std::string length_problem(const Json& config)
{
    constexpr std::size_t kReplyMax = 65535;
    const Json* process = member(config, "process");
    std::size_t length = 0;
    for (const char* name : {"args", "env"})
        if (const Json* value = member(process, name); value != nullptr && value->is_array())
            length += value->dump(-1, ' ', false, Json::error_handler_t::replace).size();
    return length <= kReplyMax
               ? ""
               : fmt::format("process.args and process.env are {} bytes long: the daemon passes on "
                             "at most {} when it starts a program",
                             length, kReplyMax);
}

// Why the bundle must not be passed to the library, or "".
std::string bundle_problem(const std::string& bundle)
{
    const auto text = read_file(bundle + "/config.json");
    if (!text)
        return "";
    std::optional<Json> config;
    const std::string problem = ambiguity(*text, &config);
    return problem.empty() && config ? length_problem(*config) : problem;
}

int create_failure(const std::string& id, const std::string& bundle)
{
    const int status = daemon_failure(errno, id);
    std::array<char, ZNNS_REASON_MAX> reason{};
    const auto config = read_file(bundle + "/config.json");
    if (status == kExitFailure && config &&
        znnsConfigurationCheck(config->c_str(), reason.data(), reason.size()) != OK &&
        errno == EPERM)
        print_hint(fmt::format("{}; this needs a daemon that was started with --allow-privileged",
                               reason.data()));
    return status;
}

} // namespace

int create_container(const std::string& id, NewBundle& bundle, const Network& network)
{
    const std::string& path = bundle.path;
    int refused = kExitOk;
    if (const std::string problem = bundle_problem(path); !problem.empty())
        refused = failure(path + "/config.json", problem);
    else if (call_library([&] { return zncCreate(id.c_str(), path.c_str(), 0, nullptr); }) != OK)
        refused = create_failure(id, path);
    if (refused != kExitOk) {
        if (bundle.lock) // it was made for this container
            zncImageBundleDelete(path.c_str());
        return refused;
    }
    const std::string own = bundle.lock ? path : "";
    bundle.lock.reset();
    bundle.in_use.reset(); // from now on the container itself keeps it from being collected
    remove_record(id);     // left by an earlier container with this id
    ContainerEvents(id, own).note(kCreateEvent);
    const int status = restore_sticky(id, path) && open_root_to_users(id, path)
                           ? connect_network(id, network)
                           : local_failure(errno, id);
    if (status != kExitOk)
        static_cast<void>(delete_container(id, true));
    return status;
}

STATUS delete_container(const std::string& id, bool force)
{
    // Ask for the state only if the container may have a bundle made for it alone; most have not.
    const std::string private_bundle = own_bundle(id);
    const Json state = private_bundle.empty() ? Json() : state_of(id).value_or(Json());
    const unsigned option = force ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    const NetworkEnd network(id);
    RemoveEvent event(id, private_bundle);
    if (call_library([&] { return zncDelete(id.c_str(), option); }) != OK)
        return ERROR;
    // The network ends with the container. Wait for it: when delete returns, the published ports
    // must be free.
    if (!network.wait())
        print_warning(fmt::format("{}: the container's network has not ended", printable(id)));
    event.note();
    remove_record(id);
    if (!private_bundle.empty() && text_of(state, "bundle") == private_bundle)
        zncImageBundleDelete(private_bundle.c_str());
    return OK;
}

} // namespace zncctl
