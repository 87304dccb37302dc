// zncRuntimeApi.cpp - the client functions for containers, except those that start one.
#include "zncRuntimeApi.hpp"

#include "base/failure.hpp"
#include "cJSON_Additions.h"

#include <cerrno>
#include <cstdlib>

namespace {

// Passes on text printed by cJSON, which the caller frees; if it is null, sets errno to `ifNone`.
char* text_or(char* text, int ifNone)
{
    if (text == nullptr)
        errno = ifNone;
    return text;
}

bool is_missing(const void* argument)
{
    if (argument != nullptr)
        return false;
    errno = EINVAL;
    return true;
}

// Requests the state of a container. The result points into `reply`; null on failure.
cJSON* request_state(const char* containerId, znc::Reply* reply)
{
    std::array params = {znc::string_param("containerId", containerId)};
    if (znc::request_reply(ZNC_STATE, params, reply) != OK)
        return nullptr;
    cJSON* state = cJSON_GetArrayItem(reply->body, 0);
    if (state == nullptr)
        errno = EBADMSG;
    return state;
}

} // namespace

STATUS znc::request_reply(int cmdId, std::span<zncParam> params, Reply* reply, int notJson)
{
    const int before = errno; // a successful zncCall may change errno
    char* text = nullptr;
    if (zncCall(cmdId, params.data(), static_cast<int>(params.size()), &text) != OK)
        return ERROR;
    const MallocPtr<char> owned(text);
    errno = 0;
    reply->root.reset(cJSON_Parse(text));
    if (reply->root == nullptr) {
        if (errno != ENOMEM)
            errno = notJson != kKeepNumber ? notJson : before;
        return ERROR;
    }
    int number = 0;
    if (zncResponseCheck(reply->root.get(), &number, &reply->body) != OK)
        return znc::fail(number);
    return OK;
}

STATUS znc::request_done(int cmdId, std::span<zncParam> params)
{
    Reply reply;
    return request_reply(cmdId, params, &reply);
}

STATUS zncCreate(const char* containerId, const char* bundlePath, unsigned int option,
                 const ZNC_ATTR* pAttr)
{
    static_cast<void>(pAttr); // the attributes are not part of the request
    if (is_missing(containerId) || is_missing(bundlePath))
        return ERROR;
    // Resolve relative paths here: the daemon has another working directory.
    znc::MallocPtr<char> resolved;
    if (bundlePath[0] != '/') {
        resolved.reset(::realpath(bundlePath, nullptr));
        if (resolved == nullptr)
            return ERROR;
        bundlePath = resolved.get();
    }
    std::array params = {znc::string_param("containerId", containerId),
                         znc::string_param("bundle", bundlePath),
                         znc::integer_param("option", option)};
    return znc::request_done(ZNC_CREATE, params);
}

STATUS zncKill(const char* containerId, int signo, unsigned int option)
{
    if (is_missing(containerId))
        return ERROR;
    std::array params = {znc::string_param("containerId", containerId),
                         znc::integer_param("signo", signo), znc::integer_param("option", option)};
    return znc::request_done(ZNC_KILL, params);
}

STATUS zncDelete(const char* containerId, unsigned int option)
{
    if (is_missing(containerId))
        return ERROR;
    std::array params = {znc::string_param("containerId", containerId),
                         znc::integer_param("option", option)};
    return znc::request_done(ZNC_DELETE, params);
}

char* zncState(const char* containerId)
{
    if (is_missing(containerId))
        return nullptr;
    znc::Reply reply;
    const cJSON* state = request_state(containerId, &reply);
    return state != nullptr ? text_or(cJSON_PrintUnformatted(state), EBADMSG) : nullptr;
}

CONTAINER_STATUS zncStatusGet(const char* containerId)
{
    if (is_missing(containerId))
        return STATE_UNKNOWN;
    znc::Reply reply;
    const cJSON* state = request_state(containerId, &reply);
    if (state == nullptr)
        return STATE_UNKNOWN;
    const cJSON* status = cJSON_GetObjectItemCaseSensitive(state, "status");
    if (cJSON_IsNumber(status) == 0)
        return znc::fail(EBADMSG, STATE_UNKNOWN);
    return zncStatusIntConvert(cJSON_integer_value(status));
}

char* zncList(void)
{
    znc::Reply reply;
    if (znc::request_reply(ZNC_LIST, {}, &reply) != OK)
        return nullptr;
    return text_or(cJSON_PrintUnformatted(reply.body), reply.body != nullptr ? ENOMEM : EBADMSG);
}

char* zncContainerInfoGet(const char* containerId)
{
    if (is_missing(containerId))
        return nullptr;
    std::array params = {znc::string_param("Id", containerId)};
    znc::Reply reply;
    if (znc::request_reply(ZNC_INSPECT, params, &reply, EBADMSG) != OK)
        return nullptr;
    return text_or(cJSON_Print(reply.body), reply.body != nullptr ? ENOMEM : EBADMSG);
}

CONTAINER_STATUS zncStatusIntConvert(std::int32_t statusInt)
{
    switch (statusInt) {
    case STATE_CREATING:
    case STATE_CREATED:
    case STATE_RUNNING:
    case STATE_STOPPED:
        return static_cast<CONTAINER_STATUS>(statusInt);
    default:
        return STATE_UNKNOWN;
    }
}
