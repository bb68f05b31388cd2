// Pieces shared by the benchmark programs: the synthetic recordings on
// disk, the peak resident memory, and the floors every reading benchmark is
// measured against (reading the file's bytes once, inflating the body once).
#ifndef ORBAPI_BENCH_BENCHSUPPORT_H
#define ORBAPI_BENCH_BENCHSUPPORT_H

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

#include "SyntheticRecording.h"

namespace orbbench {

constexpr double kMiB = 1024.0 * 1024.0;

// The 60-minute binocular 1000 Hz recording, plain and compressed, written
// on first use and removed at exit.  ORBAPI_BENCH_SECONDS shortens it.
struct RecordingPair {
    SyntheticRecording plain;
    SyntheticRecording compressed;

    explicit RecordingPair(const char* name)
    {
        const char* dir = std::getenv("TMPDIR");
        std::string base = std::string(dir && *dir ? dir : "/tmp") + "/orbbench-" + name + "-" +
                           std::to_string(getpid());
        SyntheticOptions o;
        if (const char* s = std::getenv("ORBAPI_BENCH_SECONDS"))
            o.seconds = std::max(1.0, std::atof(s));
        plain = writeSyntheticRecording(base + ".orb", o);
        o.compressed = true;
        compressed = writeSyntheticRecording(base + "-zip.orb", o);
    }
    ~RecordingPair()
    {
        std::remove(plain.path.c_str());
        std::remove(compressed.path.c_str());
    }
};

// The peak resident set is measured from a reset of the kernel's high-water
// mark, so that what the process held before does not count.  Without that
// interface it is the process's peak.
inline void resetPeakRss()
{
    if (FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", f);
        std::fclose(f);
    }
}

inline double peakRssBytes()
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

inline void setSampleRate(benchmark::State& state, const SyntheticRecording& r)
{
    state.counters["samples/s"] =
        benchmark::Counter(double(r.samples), benchmark::Counter::kIsIterationInvariantRate);
}

// Floor: every byte of the file read once.
inline void readBytesOnce(benchmark::State& state, const SyntheticRecording& r)
{
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

// Floor: the compressed body inflated once.
inline void inflateBodyOnce(benchmark::State& state, const SyntheticRecording& r)
{
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

} // namespace orbbench

#endif
