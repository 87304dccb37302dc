#include "zarnel/signal.h"

#include <cerrno>
#include <csignal>
#include <map>

#include <gtest/gtest.h>

namespace {

TEST(SignalToHost, EverySignalTheHostHasIsTranslatedByName)
{
    const std::map<int, int> pairs = {
        {1, SIGHUP},   {2, SIGINT},     {3, SIGQUIT},  {4, SIGILL},   {5, SIGTRAP},  {6, SIGABRT},
        {8, SIGFPE},   {9, SIGKILL},    {10, SIGBUS},  {11, SIGSEGV}, {13, SIGPIPE}, {14, SIGALRM},
        {15, SIGTERM}, {17, SIGSTOP},   {18, SIGTSTP}, {19, SIGCONT}, {20, SIGCHLD}, {21, SIGTTIN},
        {22, SIGTTOU}, {30, SIGUSR1},   {31, SIGUSR2}, {32, SIGPOLL}, {33, SIGPROF}, {34, SIGSYS},
        {35, SIGURG},  {36, SIGVTALRM}, {37, SIGXCPU}, {38, SIGXFSZ}};
    for (const auto& [platform, host] : pairs)
        EXPECT_EQ(znSignalToHost(platform), host) << platform;
    EXPECT_EQ(znSignalToHost(48), SIGRTMIN);
    EXPECT_EQ(znSignalToHost(63), SIGRTMAX);
}

TEST(SignalToHost, ZeroStaysZero)
{
    EXPECT_EQ(znSignalToHost(0), 0);
}

TEST(SignalToHost, NumbersWithoutAHostSignalFailWithEINVAL)
{
    for (const int signo : {7, 12, 16, 23, 24, 25, 26, 27, 28, 29, 39, 40}) {
        errno = 0;
        EXPECT_EQ(znSignalToHost(signo), -1) << signo;
        EXPECT_EQ(errno, EINVAL) << signo;
    }
}

TEST(SignalToHost, NumbersOutsideTheTableFailWithEINVAL)
{
    for (const int signo : {-1, -9, 41, 47, 49, 62, 64, 1000, INT32_MIN, INT32_MAX}) {
        errno = 0;
        EXPECT_EQ(znSignalToHost(signo), -1) << signo;
        EXPECT_EQ(errno, EINVAL) << signo;
    }
}

} // namespace
