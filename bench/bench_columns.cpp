// Reading a whole recording into columns: the synthetic 60-minute binocular
// 1000 Hz recording (3.6 million samples), plain and compressed, with and
// without velocities, and two recordings on two threads at once.  Beside
// them, in the same run, the floors: reading the file's bytes once,
// inflating the body once, and decoding every item once with no index.
//
// Each read reports samples per second, the size of its columns and the
// peak resident memory it reached over what the process held before
// (allowed: the columns plus 64 MiB).
//
// ORBAPI_BENCH_SECONDS shortens the recording (default 3600).
#include <memory>
#include <thread>

#include "BenchSupport.h"
#include "ORBFile.h"
#include "orbapi.h"

namespace {

using namespace orbbench;

RecordingPair& files()
{
    static RecordingPair f("columns");
    return f;
}

void BM_FloorReadBytes(benchmark::State& state) { readBytesOnce(state, files().plain); }
BENCHMARK(BM_FloorReadBytes)->Unit(benchmark::kMillisecond);

void BM_FloorInflateBody(benchmark::State& state) { inflateBodyOnce(state, files().compressed); }
BENCHMARK(BM_FloorInflateBody)->Unit(benchmark::kMillisecond);

// Floor: every item of the plain file decoded once, in file order, by the
// library's decoders, with nothing kept.
void BM_FloorDecodeOnce(benchmark::State& state)
{
    const SyntheticRecording& r = files().plain;
    // A file of the recording's preamble alone gives the decoder its fresh
    // state; its stream is then pointed at the recording's first item.
    std::string head;
    {
        FILE* in = std::fopen(r.path.c_str(), "rb");
        char line[256];
        while (std::fgets(line, sizeof line, in)) {
            head += line;
            if (std::strcmp(line, "ENDP:\n") == 0)
                break;
        }
        std::fclose(in);
    }
    const std::string headPath = r.path + ".head";
    FILE* out = std::fopen(headPath.c_str(), "wb");
    std::fwrite(head.data(), 1, head.size(), out);
    std::fwrite("\0\0", 1, 2, out); // an empty item stream
    std::fclose(out);

    uint64_t samples = 0, events = 0;
    for (auto _ : state) {
        ORBFile f(headPath.c_str(), 0, true, true);
        f.stream = std::make_unique<FileInputStream>(r.path.c_str());
        f.stream->seek(long(head.size()));
        Sample s;
        EData e;
        e.file = &f;
        samples = events = 0;
        for (;;) {
            const int kind = f.next_combfile_item(nullptr);
            if (kind == 1) {
                if (f.read_combfile_sample(&s, 0, 0) != 0)
                    break;
                ++samples;
            } else if (kind == 0) {
                e.fe = FEVENT{};
                if (f.read_combfile_event(&e, 0) != 0)
                    break;
                ++events;
            } else {
                break;
            }
        }
        benchmark::DoNotOptimize(s.fs.gazeX[0]);
    }
    std::remove(headPath.c_str());
    if (samples != r.samples || samples + events != r.samples + r.events + r.messages + 4 * r.blocks) {
        state.SkipWithError("not every item was decoded");
        return;
    }
    setSampleRate(state, r);
}
BENCHMARK(BM_FloorDecodeOnce)->Unit(benchmark::kMillisecond);

size_t columnBytes(const ORB_COLUMNS* c)
{
    size_t total = 0;
    for (int t = ORB_TABLE_SAMPLES; t <= ORB_TABLE_TRIALS; ++t)
        for (int i = 0; i < orb_columns_count(c, t); ++i) {
            ORB_COLUMN col{};
            orb_columns_column(c, t, i, &col);
            const size_t size = orb_column_type_size(col.type);
            total += size * orb_columns_rows(c, t);
        }
    size_t text = 0;
    orb_columns_text(c, &text);
    return total + text;
}

void columnsBenchmark(benchmark::State& state, const SyntheticRecording& r, int flags)
{
    double peak = 0, held = 0;
    for (auto _ : state) {
        resetPeakRss();
        const double before = peakRssBytes();
        int err = 0;
        ORB_COLUMNS* c = orb_read_columns(r.path.c_str(), 0, 1, 1, flags, nullptr, nullptr, nullptr, nullptr, &err);
        if (!c || orb_columns_rows(c, ORB_TABLE_SAMPLES) != r.samples) {
            state.SkipWithError(c ? "not every sample was read" : orb_get_last_error());
            orb_free_columns(c);
            return;
        }
        peak = std::max(peak, peakRssBytes() - before);
        held = double(columnBytes(c));
        orb_free_columns(c);
    }
    setSampleRate(state, r);
    state.counters["columns_MiB"] = held / kMiB;
    state.counters["peakRSS_MiB"] = peak / kMiB;
    state.counters["allowed_MiB"] = held / kMiB + 64.0;
}

void BM_ColumnsPlain(benchmark::State& state) { columnsBenchmark(state, files().plain, 0); }
BENCHMARK(BM_ColumnsPlain)->Unit(benchmark::kMillisecond);

void BM_ColumnsPlainVelocities(benchmark::State& state)
{
    columnsBenchmark(state, files().plain, ORB_COLUMNS_VELOCITIES);
}
BENCHMARK(BM_ColumnsPlainVelocities)->Unit(benchmark::kMillisecond);

void BM_ColumnsCompressed(benchmark::State& state) { columnsBenchmark(state, files().compressed, 0); }
BENCHMARK(BM_ColumnsCompressed)->Unit(benchmark::kMillisecond);

void BM_ColumnsCompressedVelocities(benchmark::State& state)
{
    columnsBenchmark(state, files().compressed, ORB_COLUMNS_VELOCITIES);
}
BENCHMARK(BM_ColumnsCompressedVelocities)->Unit(benchmark::kMillisecond);

// One plain recording per thread, each thread its own read; the rate is
// that of all threads together (wall time).
void BM_ColumnsThreads(benchmark::State& state)
{
    const SyntheticRecording& r = files().plain;
    const int threads = int(state.range(0));
    for (auto _ : state) {
        std::vector<std::thread> pool;
        std::vector<size_t> rows(size_t(threads), 0);
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                int err = 0;
                ORB_COLUMNS* c = orb_read_columns(r.path.c_str(), 0, 1, 1, 0, nullptr, nullptr, nullptr, nullptr, &err);
                rows[size_t(t)] = orb_columns_rows(c, ORB_TABLE_SAMPLES);
                orb_free_columns(c);
            });
        for (std::thread& t : pool)
            t.join();
        for (size_t n : rows)
            if (n != r.samples) {
                state.SkipWithError("not every sample was read");
                return;
            }
    }
    state.counters["samples/s"] = benchmark::Counter(double(r.samples) * threads,
                                                     benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ColumnsThreads)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
