// Reading and writing a binary property list of file records.
//
//   bench_plist [--benchmark_...]         the Google Benchmark suite
//   bench_plist generate FILE [COUNT]     writes the workload as a binary property list
//   bench_plist once read|write FILE N    times N reads (or writes) of FILE and prints
//                                         "<CPU ms per operation> <peak RSS in KiB>", the
//                                         form the run script compares across readers
//
// "once" counts process CPU time rather than wall time: the comparison runs
// on shared machines, where wall time mostly measures the neighbours.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "bench/plist/ManifestFixture.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace {

using qvl::plist::Format;
using qvl::plist::Value;

constexpr size_t kRecords = 100'000;

const Value& manifest() {
    static const Value value = qvl::bench::makeManifest(kRecords);
    return value;
}

const std::string& encoded(Format format) {
    static const std::string binary = qvl::plist::writeBinary(manifest());
    static const std::string xml = qvl::plist::writeXML(manifest());
    return format == Format::Binary ? binary : xml;
}

void BM_ReadBinary(benchmark::State& state) {
    const std::string& bytes = encoded(Format::Binary);
    for (auto _ : state) {
        auto value = qvl::plist::read(bytes);
        if (!value) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    state.counters["file_bytes"] = static_cast<double>(bytes.size());
}

void BM_WriteBinary(benchmark::State& state) {
    for (auto _ : state) {
        std::string bytes = qvl::plist::writeBinary(manifest());
        benchmark::DoNotOptimize(bytes);
    }
}

void BM_ReadXML(benchmark::State& state) {
    const std::string& bytes = encoded(Format::XML);
    for (auto _ : state) {
        auto value = qvl::plist::read(bytes);
        if (!value) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_WriteXML(benchmark::State& state) {
    for (auto _ : state) {
        std::string bytes = qvl::plist::writeXML(manifest());
        benchmark::DoNotOptimize(bytes);
    }
}

BENCHMARK(BM_ReadBinary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteBinary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadXML)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteXML)->Unit(benchmark::kMillisecond);

// Process CPU time as a std::chrono clock.
struct CPUClock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<CPUClock>;
    static time_point now() {
        timespec ts{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        return time_point(duration(static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec));
    }
};

long peakKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int generate(const char* path, size_t count) {
    std::string error;
    if (!qvl::platform::writePropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(), path,
                                              qvl::bench::makeManifest(count), Format::Binary, &error)) {
        fprintf(stderr, "bench_plist: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

int once(const std::string& op, const char* path, int n) {
    std::ifstream in(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    using Clock = CPUClock;
    Clock::duration total{};
    if (op == "read") {
        for (int i = 0; i < n; ++i) {
            const auto start = Clock::now();
            {
                auto value = qvl::plist::read(bytes);
                if (!value) return fprintf(stderr, "bench_plist: cannot read %s\n", path), 1;
            }
            total += Clock::now() - start;
        }
    } else {
        auto value = qvl::plist::read(bytes);
        if (!value) return fprintf(stderr, "bench_plist: cannot read %s\n", path), 1;
        for (int i = 0; i < n; ++i) {
            const auto start = Clock::now();
            {
                std::string out = qvl::plist::writeBinary(*value);
                benchmark::DoNotOptimize(out);
            }
            total += Clock::now() - start;
        }
    }
    printf("%.1f %ld\n", std::chrono::duration<double, std::milli>(total).count() / n, peakKiB());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "generate") == 0)
        return generate(argv[2], argc > 3 ? std::stoul(argv[3]) : kRecords);
    if (argc == 5 && strcmp(argv[1], "once") == 0 &&
        (strcmp(argv[2], "read") == 0 || strcmp(argv[2], "write") == 0))
        return once(argv[2], argv[3], std::max(1, atoi(argv[4])));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
