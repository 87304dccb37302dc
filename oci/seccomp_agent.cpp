#include "seccomp_agent.hpp"

#include "base/descriptor_message.hpp"
#include "fields.hpp"
#include "front/files.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncrun {
namespace {

// Sends the text, with the descriptor at its beginning. False with errno set.
bool send_with_descriptor(int socket, std::string_view text, int descriptor)
{
    znc::DescriptorControl control;
    iovec part = {const_cast<char*>(text.data()), text.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    znc::add_descriptor(message, control, descriptor);
    while (!text.empty()) {
        const ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(sent));
        part = {const_cast<char*>(text.data()), text.size()};
        message.msg_control = nullptr;
        message.msg_controllen = 0;
    }
    return true;
}

} // namespace

SeccompAgent::SeccompAgent(const Json& config, const Container& container, Status status)
    : listener_{receive, this}
{
    document_["ociVersion"] = kSpecification;
    document_["fds"] = Json::array({"seccompFd"});
    document_["pid"] = 0;
    const auto section = Fields(config, "").object("linux");
    const auto filter = section ? section->object("seccomp") : std::nullopt;
    if (filter) {
        path_ = filter->text("listenerPath");
        document_["metadata"] = filter->text("listenerMetadata");
    }
    document_["state"] = state_document(container, status);
}

std::string SeccompAgent::reason(const char* reason) const
{
    return failure_.empty() ? reason : failure_;
}

void SeccompAgent::send(int listener, pid_t pid) const
{
    const znc::UniqueFd socket(znEngineConnect(path_.c_str()));
    if (!socket)
        throw Failure(fmt::format("failed to connect with seccomp agent {}: {}", path_,
                                  zncctl::error_text()));
    Json document = document_;
    document["pid"] = pid;
    if (!send_with_descriptor(socket.get(), zncctl::compact(document), listener))
        throw Failure(fmt::format("seccomp agent {}: {}", path_, zncctl::error_text()));
}

STATUS SeccompAgent::receive(int listener, pid_t pid, void* context)
{
    auto* self = static_cast<SeccompAgent*>(context);
    try {
        self->send(listener, pid);
        return OK;
    } catch (const std::exception& failure) {
        self->failure_ = failure.what();
        return ERROR;
    }
}

} // namespace zncrun
