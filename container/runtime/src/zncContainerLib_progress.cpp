// zncContainerLib_progress.cpp - sends progress texts to the client being served. It is no error if
// one is lost.
#include "zncContainerLib.hpp"

#include "zncRuntimeCSLib.hpp"

#include <cstdarg>
#include <cstdio>

namespace {

void post(uint32_t lvl, const char* format, va_list arguments)
{
    if (format == nullptr || lvl == 0 || lvl > zncMsgVerbosity)
        return;
    const znc::ErrnoSaver keep;
    const znc::UniqueQueue queue = znc::open_queue(infoMsgQ, znc::kInfoQueue, ZN_MSG_Q_FIFO);
    if (!queue)
        return;
    char text[znc::kInfoQueue.maxMsgLen + 1] = "";
    ::vsnprintf(text, znc::kInfoQueue.maxMsgLen, format, arguments);
    znMsgQSend(queue.get(), text, std::strlen(text) + 1, ZN_NO_WAIT, ZN_MSG_PRI_NORMAL);
}

} // namespace

char infoMsgQ[ZNC_MSG_NAME_LEN];
uint32_t zncMsgVerbosity = 2;

void zncMsgQnameSet(const char* msgQname)
{
    char* const end = infoMsgQ + sizeof infoMsgQ;
    char* out = znc::copy_end(infoMsgQ, end, msgQname != nullptr ? msgQname : "");
    out = znc::copy_end(out, end, "_");
    znc::copy_end(out, end, "info");
}

void zncMsgLvlSet(UINT8 lvl)
{
    // Values above 2 do not change the level, which stays that of the previous client: clients rely
    // on this.
    if (lvl <= 2)
        zncMsgVerbosity = lvl;
}

void zncSendMsg(uint32_t lvl, char* info, ...)
{
    va_list arguments;
    va_start(arguments, info);
    post(lvl, info, arguments);
    va_end(arguments);
}

void znc::send_progress(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    post(1, format, arguments);
    va_end(arguments);
}
