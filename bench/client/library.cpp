// library.cpp - measures library functions called from one process.
//
// usage: bench_library lifecycle ROUNDS BUNDLE     create, start and wait, delete
//        bench_library state CLIENTS ROUNDS ID     state requests; prints the average of one
//        bench_library fill COUNT BUNDLE           create COUNT containers and leave them
//        bench_library empty COUNT                 delete these
//        bench_library list ROUNDS                 list all containers
//        bench_library operations ROUNDS BUNDLE    state, create, kill, delete: one line per round
//        bench_library answers TRASH               state requests while container "filled-0" is
//                                                  deleted, and until the directory TRASH is gone
//        bench_library hold COUNT BUNDLE           start COUNT programs, print a line, and wait for
//                                                  end of file on standard input, but not for the
//                                                  programs
//        bench_library delete BUNDLE               zncImageBundleDelete
//        bench_library inspect LAYOUT              zncImageInfoGet
//
// Prints nanoseconds, one line per round.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "zncontainer.h"

namespace {

constexpr int kKill = 9;

struct Free {
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, Free>;

class Stopwatch {
  public:
    // Nanoseconds since the construction or the last call.
    long long lap()
    {
        const auto now = std::chrono::steady_clock::now();
        const std::chrono::nanoseconds spent = now - last_;
        last_ = now;
        return static_cast<long long>(spent.count());
    }

  private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

void must(bool good, const char* what)
{
    if (good)
        return;
    std::fprintf(stderr, "bench_library: %s: error 0x%x\n", what, static_cast<unsigned>(errno));
    std::exit(1);
}

std::string filled_id(int number)
{
    return "filled-" + std::to_string(number);
}

void lifecycle(int rounds, const char* bundle)
{
    const std::string id = "life-" + std::to_string(::getpid());
    for (int i = 0; i < rounds; i++) {
        Stopwatch watch;
        must(zncCreate(id.c_str(), bundle, 0, nullptr) == OK, "create");
        must(zncStart(id.c_str(), 0) != ERROR, "start");
        must(zncDelete(id.c_str(), 0) == OK, "delete");
        std::printf("%lld\n", watch.lap());
    }
}

void ask(int rounds, const char* id)
{
    for (int i = 0; i < rounds; i++)
        must(Text(zncState(id)) != nullptr, "state");
}

void state(int clients, int rounds, const char* id)
{
    Stopwatch watch;
    std::vector<pid_t> pids;
    for (int i = 0; i < clients; i++)
        if (pids.push_back(::fork()); pids.back() == 0) {
            ask(rounds, id);
            ::_exit(0);
        }
    for (const pid_t pid : pids) {
        int status = -1;
        must(::waitpid(pid, &status, 0) == pid && status == 0, "client");
    }
    std::printf("%lld\n", watch.lap() / (clients * rounds));
}

void operations(int rounds, const char* bundle)
{
    for (int i = 0; i < rounds; i++) {
        Stopwatch watch;
        must(zncCreate("measured", bundle, 0, nullptr) == OK, "create");
        const long long create = watch.lap();
        must(Text(zncState("measured")) != nullptr, "state");
        const long long state = watch.lap();
        must(zncStart("measured", ZNC_OPT_NO_WAIT) == OK, "start");
        watch.lap();
        must(zncKill("measured", kKill, 0) == OK, "kill");
        const long long kill = watch.lap();
        must(::waitpid(-1, nullptr, 0) > 0, "wait");
        watch.lap();
        must(zncDelete("measured", ZNC_OPT_WHOLE_NAMESPACE) == OK, "delete");
        std::printf("%lld %lld %lld %lld\n", state, create, kill, watch.lap());
    }
}

void answers(const char* trash)
{
    const pid_t deleting = ::fork();
    if (deleting == 0)
        ::_exit(zncDelete(filled_id(0).c_str(), 0) == OK ? 0 : 1);
    bool deleted = false;
    Stopwatch watch;
    do {
        must(Text(zncList()) != nullptr, "list");
        std::printf("%lld\n", watch.lap());
        int status = 0;
        if (!deleted && ::waitpid(deleting, &status, WNOHANG) == deleting) {
            must(status == 0, "delete");
            deleted = true;
        }
    } while (!deleted || ::access(trash, F_OK) == 0);
}

void list(int rounds)
{
    Stopwatch watch;
    for (int i = 0; i < rounds; i++) {
        must(Text(zncList()) != nullptr, "list");
        std::printf("%lld\n", watch.lap());
    }
}

void hold(int count, const char* bundle)
{
    for (int i = 0; i < count; i++) {
        must(zncCreate(filled_id(i).c_str(), bundle, 0, nullptr) == OK, "create");
        must(zncStart(filled_id(i).c_str(), ZNC_OPT_NO_WAIT) == OK, "start");
    }
    std::puts("held");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

int usage()
{
    std::fputs("usage: bench_library "
               "lifecycle|state|fill|empty|list|operations|answers|hold|delete|inspect ...\n",
               stderr);
    return 64;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view what = argc > 2 ? argv[1] : "";
    const int count = argc > 2 ? std::atoi(argv[2]) : 0;
    if (what == "lifecycle" && argc == 4) {
        lifecycle(count, argv[3]);
    } else if (what == "state" && argc == 5) {
        state(count, std::atoi(argv[3]), argv[4]);
    } else if (what == "operations" && argc == 4) {
        operations(count, argv[3]);
    } else if (what == "fill" && argc == 4) {
        for (int i = 0; i < count; i++)
            must(zncCreate(filled_id(i).c_str(), argv[3], 0, nullptr) == OK, "create");
    } else if (what == "empty" && argc == 3) {
        for (int i = 0; i < count; i++)
            must(zncDelete(filled_id(i).c_str(), 0) == OK, "delete");
    } else if (what == "list" && argc == 3) {
        list(count);
    } else if (what == "answers" && argc == 3) {
        answers(argv[2]);
    } else if (what == "hold" && argc == 4) {
        hold(count, argv[3]);
    } else if (what == "delete" && argc == 3) {
        must(zncImageBundleDelete(argv[2]) == OK, "delete");
    } else if (what == "inspect" && argc == 3) {
        must(Text(zncImageInfoGet(argv[2])) != nullptr, "inspect");
    } else {
        return usage();
    }
    return 0;
}
