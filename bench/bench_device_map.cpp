// SPDX-License-Identifier: Apache-2.0
// The device map at scale on generated simulated hosts (a kernel that answers at once): a whole
// enumeration without bus rescans at 64, 512 and 4096 LUNs, with no trace log, with a log at
// level 0 and with a level-6 log to a file, and the cached lookup of one device on a warm map.
//
// Counters: us_per_lun is CPU microseconds of the enumeration itself per LUN of the host (the
// multipath maps the host also has are part of that cost), entries the size of the map,
// peak_rss_MiB the process's peak resident size so far (run one size alone with --benchmark_filter
// for its own peak).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "device_udid_factory.h"
#include "fi_trace.h"
#include "generated_host.h"

using kzfi_pdk_4_4::CFiStreamTraceSink;
using kzfi_pdk_4_4::CFiTraceLog;
using kzfi_pdk_4_4::CFiTraceLogPtr;
using kzfi_pdk_4_4::CFiTraceSink;

namespace {

enum TraceMode { kNoLog = 0, kLevel0 = 1, kLevel6File = 2 };

// A trace log at `level` that writes to an anonymous temporary file.
class TraceFile {
public:
    explicit TraceFile(int level) : m_stream(std::tmpfile())
    {
        m_log = CFiTraceLogPtr(new CFiTraceLog());
        m_log->setLevel(level);
        m_log->setSink(std::unique_ptr<CFiTraceSink>(new CFiStreamTraceSink(m_stream, false)));
    }
    ~TraceFile()
    {
        m_log.release();
        std::fclose(m_stream);
    }
    const CFiTraceLogPtr& log() const { return m_log; }
    long size() const { return std::ftell(m_stream); }
    // Empties the file, so that a long run does not fill the disk.
    void empty()
    {
        std::fflush(m_stream);
        if (ftruncate(fileno(m_stream), 0) == 0) {
            std::rewind(m_stream);
        }
    }

private:
    FILE* m_stream;
    CFiTraceLogPtr m_log;
};

double peakRssMiB()
{
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB
}

// CPU time of this thread in microseconds.
double threadCpuMicroseconds()
{
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

void BM_EnumerateDeviceMap(benchmark::State& state)
{
    const size_t luns = static_cast<size_t>(state.range(0));
    const int mode = static_cast<int>(state.range(1));
    std::unique_ptr<simhost::SimHost> host = bench::makeHost(luns);
    simhost::SimHostInstall install(*host);
    std::unique_ptr<TraceFile> trace;
    if (mode != kNoLog) {
        trace.reset(new TraceFile(mode == kLevel0 ? 0 : 6));
    }
    CUDIDFactory factory;
    if (trace) {
        factory.registerTraceLog(trace->log());
    }
    size_t entries = 0;
    long traceBytes = 0;
    double cpu = 0;
    for (auto _ : state) {
        const double start = threadCpuMicroseconds();
        DeviceMap map = factory.enumerateDeviceMap(false, false, false);
        cpu += threadCpuMicroseconds() - start;
        entries = map.size();
        state.PauseTiming();
        // The host's record of CDBs and commands would grow with every run.
        host->clearEvents();
        if (trace) {
            traceBytes = trace->size();
            trace->empty();
        }
        state.ResumeTiming();
    }
    // Every LUN, every map and /dev/mapper/control.
    if (entries != luns + luns / 4 + 1) {
        state.SkipWithError(("map has " + std::to_string(entries) + " entries").c_str());
        return;
    }
    state.counters["entries"] = static_cast<double>(entries);
    state.counters["us_per_lun"] = cpu / static_cast<double>(state.iterations() * luns);
    state.counters["trace_MiB"] = static_cast<double>(traceBytes) / (1024.0 * 1024.0);
    state.counters["peak_rss_MiB"] = peakRssMiB();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * luns));
}

// getCachedUniqueDeviceID on a map built before: each call validates the one device again
// (opens it, reads its pages, asks the generators), whatever the size of the host.
void BM_CachedLookup(benchmark::State& state)
{
    const size_t luns = static_cast<size_t>(state.range(0));
    std::unique_ptr<simhost::SimHost> host = bench::makeHost(luns);
    simhost::SimHostInstall install(*host);
    CUDIDFactory factory;
    factory.enumerateDeviceMap(false, false, false);
    std::vector<std::string> names;
    for (size_t i = 0; i < luns; i += 7) {
        names.push_back("/dev/" + bench::diskName(i));
    }
    size_t next = 0;
    size_t empty = 0;
    double cpu = 0;
    for (auto _ : state) {
        const double start = threadCpuMicroseconds();
        std::string udid = factory.getCachedUniqueDeviceID(names[next].c_str(), false);
        cpu += threadCpuMicroseconds() - start;
        empty += udid.empty();
        benchmark::DoNotOptimize(udid);
        if (++next == names.size()) {
            next = 0;
            state.PauseTiming();
            host->clearEvents();
            state.ResumeTiming();
        }
    }
    if (empty != 0) {
        state.SkipWithError("a lookup gave no UDID");
        return;
    }
    state.counters["us_per_lookup"] = cpu / static_cast<double>(state.iterations());
}

void sizesAndTraceModes(benchmark::internal::Benchmark* b)
{
    for (int mode : {kNoLog, kLevel0, kLevel6File}) {
        for (int luns : {64, 512, 4096}) {
            b->Args({luns, mode});
        }
    }
}

}  // namespace

BENCHMARK(BM_EnumerateDeviceMap)
    ->ArgNames({"luns", "trace"})
    ->Apply(sizesAndTraceModes)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CachedLookup)->ArgName("luns")->Arg(512)->Arg(4096)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
