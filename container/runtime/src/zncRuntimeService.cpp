// zncRuntimeService.cpp - the daemon's main loop, the command handlers and the replies.
//
// A single thread serves one request at a time, so nothing here needs a lock.
#include "zncRuntimeService.hpp"

#include "base/not_copied.hpp"
#include "zncContainerLib.hpp"

#include "zarnel/ns.h"
#include "zarnel/task.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

namespace {

using znc::param_pointer;
using znc::read_params;
using znc::template_param;

constexpr std::array kCreateRequest = {template_param(STRING, "containerId"),
                                       template_param(STRING, "bundle"),
                                       template_param(INTEGER, "option")};
constexpr std::array kStartRequest = {template_param(STRING, "containerId"),
                                      template_param(INTEGER, "option")};
constexpr std::array kKillRequest = {template_param(STRING, "containerId"),
                                     template_param(INTEGER, "signo", 15),
                                     template_param(INTEGER, "option")};
constexpr std::array kDeleteRequest = {template_param(STRING, "containerId"),
                                       template_param(INTEGER, "option")};
constexpr std::array kStateRequest = {template_param(STRING, "containerId")};
constexpr std::array kStoreRequest = {template_param(STRING, "containerId"),
                                      template_param(INTEGER, "handle")};

constexpr std::size_t kIdBufferLen = 256;
constexpr int kSendTimeoutSeconds = 1;
constexpr int kReclaimSeconds = 2;
constexpr std::string_view kClientPrefix = ZNC_MSG_Q_NAME "-u-";
constexpr std::string_view kInfoSuffix = "_info";

// Protects the calling task from deletion.
class DeletionSafety : znc::NotCopied {
  public:
    DeletionSafety() noexcept { znTaskSafe(); }
    ~DeletionSafety()
    {
        const znc::ErrnoSaver keep;
        znTaskUnsafe();
    }
};

// Converts the result of a registry call into the result of a handler. Must be called directly
// after the call, before errno can change.
int result_of(STATUS status)
{
    return status == OK ? 0 : errno;
}

// The pointers in `parm` point into the container's configuration: call this while the container
// exists.
cJSON* start_object(const CONTAINER_START_PARM& parm)
{
    std::array params = {
        znc::string_param("appPath", parm.appPath),
        znc::strings_param("arg", parm.arg, parm.argNum),
        znc::strings_param("env", parm.env, parm.envNum),
        znc::integer_param("option", parm.option),
        znc::integer_param("priority", parm.priority),
        znc::integer_param("stackSize", parm.stackSize),
        znc::integer_param("taskOption", parm.taskOption),
        znc::integer_param("nsId", parm.nsId),
        znc::string_param("cwd", parm.cwd),
        znc::integer_param("posixFlags", parm.posixFlags),
    };
    return zncParamObjInit(params.data(), static_cast<int>(params.size()));
}

// Unknown commands, and commands that need no work, succeed.
int dispatch(std::int32_t cmdId, cJSON* root, cJSON* body)
{
    switch (static_cast<std::uint32_t>(cmdId)) {
    case ZNC_CREATE:
        return zncCreateContainer(root);
    case ZNC_START:
        return zncStartContainer(root, body);
    case ZNC_KILL:
        return zncKillContainer(root);
    case ZNC_DELETE:
        return zncDeleteContainer(root);
    case ZNC_STATE:
        return zncQueryContainerState(root, body);
    case ZNC_LIST:
        return zncQueryContainerList(body);
    case ZNC_INSPECT:
        return zncInspectContainer(root, body);
    case ZNC_STORE_STATE:
        return zncStorePidHandleContainer(root);
    default:
        return 0;
    }
}

// Removes the queues of clients that were killed: the space for queues is limited, and a few dozen
// leftovers would keep every client from calling. Also cleans up ended namespaces, which exist
// until the clients have reaped the programs that they started.
class HouseKeeping {
  public:
    void run_if_due()
    {
        const auto now = std::chrono::steady_clock::now();
        if (now < due_)
            return;
        due_ = now + std::chrono::seconds(kReclaimSeconds);
        // If the queues cannot be listed, none are removed.
        static_cast<void>(znMsgQReclaim(znc::client_of_queue));
        znnsReap();
    }

  private:
    std::chrono::steady_clock::time_point due_;
};

znc::ServiceListener service_listener;
bool requests_kept = false;

void notify_served(const zncMessage& message, const cJSON* root, int result)
{
    if (service_listener.served == nullptr)
        return;
    const cJSON* const key = message.cmdId == ZNC_INSPECT
                                 ? cJSON_GetObjectItem(root, "Id")
                                 : cJSON_GetObjectItem(root, "containerId");
    const char* const id = cJSON_GetStringValue(key);
    service_listener.served(message.cmdId, id != nullptr ? id : "", result);
}

// A client removes its queue when it gives up.
bool is_awaited(const zncMessage& message)
{
    return static_cast<bool>(znc::open_queue(message.name, znc::kReplyQueue, ZN_MSG_Q_FIFO));
}

// Whether the client's next request usually comes at once, to start the container. It would wait
// for the processor that spares are made on.
bool is_followed_by_start(const zncMessage& message)
{
    return message.cmdId == ZNC_CREATE || message.cmdId == ZNC_STATE;
}

// Serves requests until receiving one fails.
void serve(MSG_Q_ID queue)
{
    zncMessage message = {};
    HouseKeeping house_keeping;
    bool idle = true;
    for (;;) {
        house_keeping.run_if_due();
        if (idle && znMsgQEmpty(queue))
            znnsSparesMake();
        idle = true;
        const ssize_t len =
            znMsgQReceive(queue, &message, sizeof message, kReclaimSeconds * znSysClkRateGet());
        if (len < 0 && errno == ETIMEDOUT)
            continue;
        if (len < 0)
            return;
        errno = 0; // receiving may have changed errno
        if (!znc::decode_request(&message, static_cast<std::size_t>(len)) ||
            (requests_kept && !is_awaited(message)))
            continue;
        static_cast<void>(zncMessageProcess(&message));
        idle = !is_followed_by_start(message);
        errno = 0; // do not carry errno over to the next request
    }
}

znc::UniqueQueue daemon_queue()
{
    const auto& [messages, length] = znc::kDaemonQueue;
    if (requests_kept) {
        znc::UniqueQueue left(znMsgQTakeOver(ZNC_MSG_Q_NAME, messages, length));
        if (left)
            return left;
        znMsgQDiscard(ZNC_MSG_Q_NAME);
    }
    return znc::UniqueQueue(
        znMsgQOpen(ZNC_MSG_Q_NAME, messages, length, ZN_MSG_Q_PRIORITY, ZN_MSG_Q_CREATE_EXCLUSIVE));
}

bool all_digits(std::string_view text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

bool znc::is_client_queue_name(std::string_view name)
{
    if (!name.starts_with(kClientPrefix))
        return false;
    name.remove_prefix(kClientPrefix.size());
    const std::size_t dash = name.find('-');
    return dash != std::string_view::npos && all_digits(name.substr(0, dash)) &&
           all_digits(name.substr(dash + 1));
}

long znc::client_of_queue(const char* name)
{
    std::string_view text = name;
    if (text.ends_with(kInfoSuffix))
        text.remove_suffix(kInfoSuffix.size());
    if (!is_client_queue_name(text))
        return 0;
    text.remove_prefix(kClientPrefix.size());
    long pid = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), pid);
    return read.ec == std::errc() ? pid : 0;
}

bool znc::decode_request(zncMessage* message, std::size_t received)
{
    if (received < ZNC_MSG_HEADER_LEN || message->dataLen >= ZNC_MSG_DATA_LIMIT ||
        message->dataLen > received - ZNC_MSG_HEADER_LEN)
        return false;
    const std::size_t nameLen = ::strnlen(message->name, sizeof message->name);
    if (nameLen == sizeof message->name || !is_client_queue_name({message->name, nameLen}))
        return false;
    message->data[message->dataLen] = '\0';
    return true;
}

void znc::set_service_listener(const ServiceListener& listener)
{
    service_listener = listener;
}

void znc::keep_requests()
{
    requests_kept = true;
}

STATUS zncDaemonTask(void)
{
    const DeletionSafety safe;
    static_cast<void>(zncContainerInit());
    const znc::UniqueQueue queue = daemon_queue();
    if (!queue)
        return ERROR;
    if (service_listener.ready != nullptr)
        service_listener.ready();
    serve(queue.get());
    const znc::ErrnoSaver keep;
    if (!requests_kept)
        znMsgQUnlink(ZNC_MSG_Q_NAME);
    return ERROR;
}

STATUS zncMessageProcess(zncMessage* msgHead)
{
    zncMsgQnameSet(msgHead->name);
    zncMsgLvlSet(msgHead->msgLvl);
    const znc::CJsonPtr body(cJSON_CreateArray());
    if (body == nullptr)
        return ERROR;
    int result = 0;
    errno = 0;
    const znc::CJsonPtr root(cJSON_Parse(msgHead->data));
    if (root != nullptr)
        result = dispatch(msgHead->cmdId, root.get(), body.get());
    else if (errno == ENOMEM) // the request may be valid, but was not carried out
        result = ENOMEM;
    notify_served(*msgHead, root.get(), result);
    static_cast<void>(zncReplyMessage(msgHead->name, msgHead->cmdId, body.get(), result));
    return OK;
}

int zncCreateContainer(cJSON* root)
{
    const auto [id, bundle, option] = read_params(root, kCreateRequest);
    return result_of(zncContainerCreate(param_pointer<const char>(id),
                                        param_pointer<const char>(bundle),
                                        static_cast<unsigned>(option.value), nullptr));
}

int zncStartContainer(cJSON* root, cJSON* array)
{
    const auto [id, option] = read_params(root, kStartRequest);
    static_cast<void>(option); // the client interprets it
    CONTAINER_START_PARM parm = {};
    const int result = result_of(zncContainerStart(param_pointer<const char>(id), &parm));
    if (result != 0)
        return result;
    // Until the client has spawned the program, the namespace has no process, and the container
    // would count as stopped. znnsExpect makes the namespace count as in use until then; if it
    // fails, the container counts as stopped for that time.
    znnsExpect(parm.nsId, static_cast<pid_t>(znc::client_of_queue(infoMsgQ)));
    cJSON_AddItemToArray(array, start_object(parm));
    return result;
}

int zncKillContainer(cJSON* root)
{
    const auto [id, signo, option] = read_params(root, kKillRequest);
    return result_of(zncContainerKill(param_pointer<const char>(id), static_cast<int>(signo.value),
                                      static_cast<unsigned>(option.value)));
}

int zncDeleteContainer(cJSON* root)
{
    const auto [id, option] = read_params(root, kDeleteRequest);
    return result_of(
        zncContainerDelete(param_pointer<const char>(id), static_cast<unsigned>(option.value)));
}

int zncStorePidHandleContainer(cJSON* root)
{
    const auto [id, handle] = read_params(root, kStoreRequest);
    return result_of(zncContainerStorePidHandle(param_pointer<const char>(id),
                                                static_cast<OBJ_HANDLE>(handle.value)));
}

int zncQueryContainerState(cJSON* root, cJSON* array)
{
    const auto [id] = read_params(root, kStateRequest);
    CONTAINER_STATE state = {};
    const int result = result_of(zncContainerStateGet(param_pointer<char>(id), &state));
    if (result == 0)
        cJSON_AddItemToArray(array, zncMsgBodyInitByState(&state));
    return result;
}

int zncQueryContainerList(cJSON* array)
{
    const auto id = znc::malloc_array<char>(kIdBufferLen);
    if (id == nullptr)
        return ENOMEM;
    while (zncContainerNext(id.get()) == TRUE) {
        CONTAINER_STATE state = {};
        if (zncContainerStateGet(id.get(), &state) != OK)
            return errno;
        cJSON_AddItemToArray(array, zncMsgBodyInitByState(&state));
    }
    return 0;
}

cJSON* zncMsgBodyInitByState(CONTAINER_STATE* state)
{
    std::array params = {
        znc::string_param("ociVersion", state->ver),
        znc::string_param("id", state->containerId),
        znc::integer_param("status", state->status),
        znc::string_param("bundle", state->bundlePath),
    };
    return zncParamObjInit(params.data(), static_cast<int>(params.size()));
}

STATUS zncMessageSend(MSG_Q_ID handle, const char* buffer, std::size_t length)
{
    const int timeout = kSendTimeoutSeconds * znSysClkRateGet();
    while (length > 0) {
        const std::size_t piece = std::min<std::size_t>(length, ZNC_MSG_MAX_LEN);
        if (znMsgQSend(handle, buffer, piece, timeout, ZN_MSG_PRI_NORMAL) != OK)
            return ERROR;
        buffer += piece;
        length -= piece;
    }
    return OK;
}

STATUS zncReplyMessage(char* name, int cmdId, cJSON* body, int errCode)
{
    // The name in a message may lack a terminator.
    char target[ZNC_MSG_NAME_LEN] = {};
    std::memcpy(target, name, ::strnlen(name, sizeof target - 1));
    const znc::UniqueQueue queue = znc::open_queue(target, znc::kReplyQueue, ZN_MSG_Q_FIFO);
    if (!queue)
        return ERROR;

    std::array params = {znc::integer_param("errno", errCode), znc::object_param("body", body)};
    const znc::CJsonPtr object(zncParamObjInit(params.data(), static_cast<int>(params.size())));
    const znc::CJsonText text(object != nullptr ? cJSON_PrintUnformatted(object.get()) : nullptr);
    if (text == nullptr)
        return ERROR;
    const std::size_t len = ::strnlen(text.get(), znc::kReplyTextLimit);
    if (len == znc::kReplyTextLimit)
        return ERROR;

    const std::size_t total = ZNC_MSG_HEADER_LEN + len;
    const auto message = znc::malloc_array<char>(std::max<std::size_t>(total, sizeof(zncMessage)));
    if (message == nullptr)
        return ERROR;
    auto* reply = reinterpret_cast<zncMessage*>(message.get());
    std::memcpy(reply->name, target, sizeof reply->name);
    reply->cmdId = cmdId;
    reply->dataLen = static_cast<std::uint32_t>(len);
    std::memcpy(znc::message_data(reply), text.get(), len);
    return zncMessageSend(queue.get(), message.get(), total);
}

BOOL zncDaemonIsAlive(void)
{
    const znc::UniqueQueue queue =
        znc::open_queue(ZNC_MSG_Q_NAME, znc::kDaemonQueue, ZN_MSG_Q_PRIORITY);
    if (!queue)
        return FALSE;
    char* text = nullptr;
    if (zncCall(ZNC_ALIVE, nullptr, 0, &text) != OK)
        return FALSE;
    const znc::MallocPtr<char> owned(text);
    const znc::CJsonPtr root(cJSON_Parse(text));
    return root != nullptr && zncResponseCheck(root.get(), nullptr, nullptr) == OK ? TRUE : FALSE;
}
