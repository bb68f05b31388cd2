// Opening a long recording: the pre-scan and sort of a synthetic 60-minute
// binocular 1000 Hz recording (3.6 million samples), plain and compressed,
// beside what it costs merely to read the file's bytes once and to inflate
// the compressed body once.  Each open reports its rate in samples per
// second and the peak resident memory it reached, against the allowance of
// 20 bytes per index entry plus 64 MiB.
//
// ORBAPI_BENCH_SECONDS shortens the recording (default 3600).
#include <algorithm>

#include "BenchSupport.h"
#include "ORBFile.h"

namespace {

using namespace orbbench;

RecordingPair& files()
{
    static RecordingPair f("open");
    return f;
}

void BM_ReadBytes(benchmark::State& state) { readBytesOnce(state, files().plain); }
BENCHMARK(BM_ReadBytes)->Unit(benchmark::kMillisecond);

void BM_InflateBody(benchmark::State& state) { inflateBodyOnce(state, files().compressed); }
BENCHMARK(BM_InflateBody)->Unit(benchmark::kMillisecond);

void openBenchmark(benchmark::State& state, const orbbench::SyntheticRecording& r, int options)
{
    double peak = 0;
    for (auto _ : state) {
        resetPeakRss();
        ORBFile f(r.path.c_str(), options, true, true);
        if (f.index.items.size() != r.entries()) {
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
