// registry.cpp - micro-benchmark of a lookup in the container registry.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>
#include <vector>

#include "zncContainerLib.hpp"

namespace {

// Contexts that have only an id and a mutex.
void registry_lookup(benchmark::State& state)
{
    if (zncContainerInit() != OK)
        state.SkipWithError("no registry");
    std::vector<CONTAINER_CTX*> contexts;
    for (int i = 0; i < state.range(0); i++) {
        auto ctx = znc::malloc_zeroed<CONTAINER_CTX>();
        ctx->sem = znMutexCreate(znc::kMutexOptions);
        std::snprintf(ctx->state.containerId, sizeof ctx->state.containerId, "container-%d", i);
        contexts.push_back(ctx.release());
        if (zncContainerAdd(contexts.back()) != OK)
            state.SkipWithError("the registry refuses");
    }
    const std::string last = contexts.back()->state.containerId;
    for (auto _ : state) {
        CONTAINER_CTX* found = zncContainerFindAndLockById(last.c_str());
        benchmark::DoNotOptimize(found);
        zncContainerUnlock(found);
    }
    for (CONTAINER_CTX* ctx : contexts)
        zncContainerRemove(ctx);
}
BENCHMARK(registry_lookup)->Arg(1)->Arg(500);

} // namespace
