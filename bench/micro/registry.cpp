// registry.cpp - micro-benchmarks of the container registry: a lookup, and listing all containers.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <vector>

#include "zncContainerLib.hpp"

namespace {

// Contexts with an identity and a mutex, and nothing behind them.
class Registry {
  public:
    explicit Registry(benchmark::State& state)
    {
        if (zncContainerInit() != OK)
            state.SkipWithError("no registry");
        for (int i = 0; i < state.range(0); i++) {
            auto ctx = znc::malloc_zeroed<CONTAINER_CTX>();
            ctx->sem = znMutexCreate(znc::kMutexOptions);
            std::snprintf(ctx->state.containerId, sizeof ctx->state.containerId, "container-%d", i);
            contexts_.push_back(ctx.release());
            if (zncContainerAdd(contexts_.back()) != OK)
                state.SkipWithError("the registry refuses");
        }
    }
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;
    ~Registry()
    {
        for (CONTAINER_CTX* ctx : contexts_)
            zncContainerRemove(ctx);
    }
    [[nodiscard]] const char* last() const { return contexts_.back()->state.containerId; }

  private:
    std::vector<CONTAINER_CTX*> contexts_;
};

void registry_lookup(benchmark::State& state)
{
    const Registry registry(state);
    for (auto _ : state) {
        CONTAINER_CTX* found = zncContainerFindAndLockById(registry.last());
        benchmark::DoNotOptimize(found);
        zncContainerUnlock(found);
    }
}
BENCHMARK(registry_lookup)->Arg(1)->Arg(500);

void registry_listing(benchmark::State& state)
{
    const Registry registry(state);
    for (auto _ : state) {
        char id[256] = "";
        while (zncContainerNext(id) != FALSE)
            benchmark::DoNotOptimize(id);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(registry_listing)->Range(64, 4096)->Complexity();

} // namespace
