// loops.cpp - micro-benchmarks (Google Benchmark): archive headers, member paths, digests, JSON of
// requests.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zncDigest.hpp"
#include "zncRuntimeCSLib.hpp"
#include "zncTarLib.hpp"

namespace {

MT_HBLOCK header_block()
{
    MT_HBLOCK block = {};
    std::strcpy(block.dbuf.name, "usr/share/doc/libfoo-common/examples/readme.txt");
    std::memcpy(block.dbuf.mode, "0000644", 8);
    std::memcpy(block.dbuf.size, "00000012345", 12);
    std::memcpy(block.dbuf.mtime, "14523456701", 12);
    std::memcpy(block.dbuf.indicator, "ustar", 6);
    return block;
}

void header_parse(benchmark::State& state)
{
    MT_HBLOCK block = header_block();
    for (auto _ : state) {
        unsigned long value = 0;
        znc::tar_octal({block.dbuf.mode, sizeof block.dbuf.mode}, value);
        znc::tar_octal({block.dbuf.size, sizeof block.dbuf.size}, value);
        znc::tar_octal({block.dbuf.mtime, sizeof block.dbuf.mtime}, value);
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(mtChecksum(&block, sizeof block));
        benchmark::DoNotOptimize(zncTarBlockIsZero(&block));
    }
}
BENCHMARK(header_parse);

void condense(benchmark::State& state)
{
    const MT_HBLOCK block = header_block();
    const std::size_t len = ::strnlen(block.dbuf.name, sizeof block.dbuf.name);
    char path[1024];
    for (auto _ : state) {
        char* out = path;
        benchmark::DoNotOptimize(tarCopyCondense(&out, sizeof path, block.dbuf.name, len));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(condense);

void digest(benchmark::State& state)
{
    char name[] = "/tmp/bench-digest-XXXXXX";
    const znc::UniqueFd fd(::mkstemp(name));
    const std::string content(static_cast<std::size_t>(state.range(0)), 'x');
    if (::write(fd.get(), content.data(), content.size()) != state.range(0))
        state.SkipWithError("no room in /tmp");
    const std::string wrong(64, '0'); // same work as for a matching digest
    for (auto _ : state)
        benchmark::DoNotOptimize(validateSha256(name, wrong.c_str()));
    state.SetBytesProcessed(state.iterations() * state.range(0));
    ::unlink(name);
}
BENCHMARK(digest)->Arg(1024)->Arg(1024 * 1024);

void json_request(benchmark::State& state)
{
    for (auto _ : state) {
        zncParam out[] = {znc::string_param("containerId", "web-frontend-17"),
                          znc::string_param("bundle", "/ram0/znc/bundles/web-frontend"),
                          znc::integer_param("option", 2)};
        const znc::CJsonPtr request(zncParamObjInit(out, 3));
        const znc::CJsonText text(cJSON_PrintUnformatted(request.get()));
        const znc::CJsonPtr parsed(cJSON_Parse(text.get()));
        zncParam in[] = {znc::template_param(STRING, "containerId"),
                         znc::template_param(STRING, "bundle"),
                         znc::template_param(INTEGER, "option")};
        benchmark::DoNotOptimize(zncParamObjGet(parsed.get(), in, 3));
    }
}
BENCHMARK(json_request);

} // namespace

BENCHMARK_MAIN();
