// Walking a long recording: every item stepped onto and read as a record,
// samples with their velocities, each record time-adjusted, as the caller's
// loop of the function interface does it.  Synthetic 60-minute binocular
// recordings at 1000 and at 2000 samples per second, plain and compressed.
// The file is opened once per benchmark; the walk alone is timed.  Each
// benchmark reports samples and items per second and the process's peak
// resident memory (getrusage).
//
// ORBAPI_BENCH_SECONDS shortens the recordings (default 3600).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "ORBException.h"
#include "ORBFile.h"
#include "SyntheticRecording.h"

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

// The recordings, written on first use and removed at exit.
class Files {
public:
    ~Files()
    {
        for (auto& entry : made_)
            std::remove(entry.second.path.c_str());
    }

    const orbbench::SyntheticRecording& get(double rate, bool compressed)
    {
        const int key = int(rate) * 2 + (compressed ? 1 : 0);
        auto it = made_.find(key);
        if (it != made_.end())
            return it->second;
        orbbench::SyntheticOptions o;
        o.rate = rate;
        o.compressed = compressed;
        if (const char* s = std::getenv("ORBAPI_BENCH_SECONDS"))
            o.seconds = std::max(1.0, std::atof(s));
        const char* dir = std::getenv("TMPDIR");
        std::string path = std::string(dir && *dir ? dir : "/tmp") + "/orbbench-walk-" +
                           std::to_string(getpid()) + "-" + std::to_string(key) + ".orb";
        return made_.emplace(key, orbbench::writeSyntheticRecording(path, o)).first->second;
    }

private:
    std::map<int, orbbench::SyntheticRecording> made_;
};

Files& files()
{
    static Files f;
    return f;
}

double peakRssMiB()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_maxrss) * 1024.0 / kMiB; // ru_maxrss is in KiB
}

void walkBenchmark(benchmark::State& state, double rate, bool compressed)
{
    const orbbench::SyntheticRecording& r = files().get(rate, compressed);
    std::unique_ptr<ORBFile> f;
    try {
        f = std::make_unique<ORBFile>(r.path.c_str(), 0, true, true);
    } catch (const ORBException& e) {
        state.SkipWithError(e.what());
        return;
    }
    if (f->index.items.size() != r.entries()) {
        state.SkipWithError("the index does not hold every item");
        return;
    }

    uint64_t samples = 0;
    uint64_t items = 0;
    for (auto _ : state) {
        f->gotoIndex(0);
        samples = items = 0;
        double sum = 0;
        int code;
        while ((code = f->stepNext()) != 0) {
            ALLF_DATA* d = f->getFloatData();
            if (!d) {
                state.SkipWithError("an item could not be read");
                return;
            }
            f->adjustTimes(d);
            ++items;
            if (code == SAMPLE) {
                ++samples;
                sum += d->fs.fastGazeVelX[0];
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    if (samples != r.samples || items != r.entries()) {
        state.SkipWithError("the walk did not hand out every item");
        return;
    }
    state.counters["samples/s"] =
        benchmark::Counter(double(samples), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["items/s"] =
        benchmark::Counter(double(items), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["samples"] = double(samples);
    state.counters["peakRSS_MiB"] = peakRssMiB();
}

void BM_Walk1000Plain(benchmark::State& state) { walkBenchmark(state, 1000.0, false); }
BENCHMARK(BM_Walk1000Plain)->Unit(benchmark::kMillisecond);

void BM_Walk1000Compressed(benchmark::State& state) { walkBenchmark(state, 1000.0, true); }
BENCHMARK(BM_Walk1000Compressed)->Unit(benchmark::kMillisecond);

void BM_Walk2000Plain(benchmark::State& state) { walkBenchmark(state, 2000.0, false); }
BENCHMARK(BM_Walk2000Plain)->Unit(benchmark::kMillisecond);

void BM_Walk2000Compressed(benchmark::State& state) { walkBenchmark(state, 2000.0, true); }
BENCHMARK(BM_Walk2000Compressed)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
