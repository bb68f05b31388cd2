// Opening a long recording: the pre-scan and sort of a synthetic 60-minute
// binocular 1000 Hz recording (3.6 million samples), plain and compressed,
// beside what it costs merely to read the file's bytes once and to inflate
// the compressed body once.  Each open reports its rate in samples per
// second and the peak resident memory it reached, against the allowance of
// 20 bytes per index entry plus 64 MiB.
//
// ORBAPI_BENCH_SECONDS shortens the recording (default 3600).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ORBFile.h"
#include "SyntheticRecording.h"

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

struct Files {
    orbbench::SyntheticRecording plain;
    orbbench::SyntheticRecording compressed;

    Files()
    {
        const char* dir = std::getenv("TMPDIR");
        std::string base = std::string(dir && *dir ? dir : "/tmp") + "/orbbench-open-" + std::to_string(getpid());
        orbbench::SyntheticOptions o;
        if (const char* s = std::getenv("ORBAPI_BENCH_SECONDS"))
            o.seconds = std::max(1.0, std::atof(s));
        plain = orbbench::writeSyntheticRecording(base + ".orb", o);
        o.compressed = true;
        compressed = orbbench::writeSyntheticRecording(base + "-zip.orb", o);
    }
    ~Files()
    {
        std::remove(plain.path.c_str());
        std::remove(compressed.path.c_str());
    }
};

Files& files()
{
    static Files f;
    return f;
}

// The peak resident set is measured from a reset of the kernel's high-water
// mark, so that what the process held before (the generator, an earlier
// open) does not count.  Without that interface it is the process's peak.
void resetPeakRss()
{
    if (FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", f);
        std::fclose(f);
    }
}

double peakRssBytes()
{
    if (FILE* f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        long kb = -1;
        while (std::fgets(line, sizeof line, f))
            if (std::strncmp(line, "VmHWM:", 6) == 0)
                kb = std::strtol(line + 6, nullptr, 10);
        std::fclose(f);
        if (kb >= 0)
            return double(kb) * 1024.0;
    }
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_maxrss) * 1024.0;
}

void setSampleRate(benchmark::State& state, const orbbench::SyntheticRecording& r)
{
    state.counters["samples/s"] =
        benchmark::Counter(double(r.samples), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_ReadBytes(benchmark::State& state)
{
    const auto& r = files().plain;
    std::vector<unsigned char> buffer(256 * 1024);
    for (auto _ : state) {
        FILE* f = std::fopen(r.path.c_str(), "rb");
        size_t total = 0, n;
        while ((n = std::fread(buffer.data(), 1, buffer.size(), f)) > 0)
            total += n;
        std::fclose(f);
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(r.fileBytes));
    setSampleRate(state, r);
}
BENCHMARK(BM_ReadBytes)->Unit(benchmark::kMillisecond);

void BM_InflateBody(benchmark::State& state)
{
    const auto& r = files().compressed;
    std::vector<unsigned char> in(16384), out(256 * 1024);
    for (auto _ : state) {
        FILE* f = std::fopen(r.path.c_str(), "rb");
        char line[256];
        while (std::fgets(line, sizeof line, f) && std::strcmp(line, "ENDP:\n") != 0) {
        }
        z_stream zs{};
        inflateInit(&zs);
        int status = Z_OK;
        size_t produced = 0;
        while (status != Z_STREAM_END) {
            zs.avail_in = uInt(std::fread(in.data(), 1, in.size(), f));
            if (zs.avail_in == 0)
                break;
            zs.next_in = in.data();
            do {
                zs.next_out = out.data();
                zs.avail_out = uInt(out.size());
                status = inflate(&zs, Z_NO_FLUSH);
                produced += out.size() - zs.avail_out;
            } while (zs.avail_out == 0 && status == Z_OK);
            if (status != Z_OK && status != Z_STREAM_END)
                break;
        }
        inflateEnd(&zs);
        std::fclose(f);
        if (produced != r.bodyBytes) {
            state.SkipWithError("inflated size differs");
            return;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(r.bodyBytes));
    setSampleRate(state, r);
}
BENCHMARK(BM_InflateBody)->Unit(benchmark::kMillisecond);

void openBenchmark(benchmark::State& state, const orbbench::SyntheticRecording& r, int options)
{
    double peak = 0;
    for (auto _ : state) {
        resetPeakRss();
        ORBFile f(r.path.c_str(), options, true, true);
        if (f.items.size() != r.entries()) {
            state.SkipWithError("the index does not hold every item");
            return;
        }
        peak = std::max(peak, peakRssBytes());
    }
    setSampleRate(state, r);
    state.counters["entries"] = double(r.entries());
    state.counters["peakRSS_MiB"] = peak / kMiB;
    state.counters["allowed_MiB"] = (20.0 * double(r.entries())) / kMiB + 64.0;
}

void BM_OpenPlain(benchmark::State& state) { openBenchmark(state, files().plain, 0); }
BENCHMARK(BM_OpenPlain)->Unit(benchmark::kMillisecond);

void BM_OpenCompressed(benchmark::State& state) { openBenchmark(state, files().compressed, 0); }
BENCHMARK(BM_OpenCompressed)->Unit(benchmark::kMillisecond);

// With the consistency check and repair on top.
void BM_OpenPlainRepair(benchmark::State& state) { openBenchmark(state, files().plain, 2); }
BENCHMARK(BM_OpenPlainRepair)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
