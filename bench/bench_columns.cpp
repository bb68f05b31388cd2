// Reading a whole recording into columns: the synthetic 60-minute binocular
// 1000 Hz recording (3.6 million samples), plain and compressed, with and
// without velocities, and two recordings on two threads at once.  Beside
// them, in the same run, the floors: reading the file's bytes once,
// inflating the body once, decoding every item once with no index, and
// writing as many bytes as the columns hold into fresh memory once.  Reads
// are timed by the clock on the wall: the reader uses a second thread.
//
// Each read reports samples per second, the size of its columns and the
// peak resident memory it reached over what the process held before
// (allowed: the columns plus 64 MiB).
//
// Also: the seven columns most analyses want, beside the floor of writing
// just those into fresh memory; and from a recording opened once, the
// whole read beside ten-second windows.
//
// ORBAPI_BENCH_SECONDS shortens the recording (default 3600).
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "BenchSupport.h"
#include "ItemFormat.h"
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

// Floors: as many bytes as the columns of the plain recording hold (with
// or without velocities), mapped fresh from the system, written once and
// given back: what every reader that hands out new columns pays the
// system, whatever it decodes.  By one thread taking each page as it first
// writes it; by one writer whose pages a second thread makes present a
// little ahead of it, as the reader does; and by two threads at once, each
// writing columns of its own, as two reads at once do (the rate counts
// both).
// The columns most analyses want: time, gaze and pupil of both eyes.
const char* const kSevenColumns[] = {"time",           "gaze_x_left",     "gaze_y_left",      "gaze_x_right",
                                     "gaze_y_right",   "pupil_size_left", "pupil_size_right", nullptr};

ORB_READ_OPTIONS readOptions(int flags, const char* const* sampleColumns)
{
    ORB_READ_OPTIONS o;
    orb_read_options_init(&o);
    o.flags = flags;
    o.columns[ORB_TABLE_SAMPLES] = sampleColumns;
    return o;
}

size_t columnBytesOfRead(int flags, const char* const* sampleColumns = nullptr)
{
    const ORB_READ_OPTIONS o = readOptions(flags, sampleColumns);
    ORB_COLUMNS* c = orb_read(files().plain.path.c_str(), &o, nullptr);
    const size_t n = c ? columnBytes(c) : 0;
    orb_free_columns(c);
    return n;
}

// Writes `bytes` of fresh memory once and gives it back; with `helped`, a
// second thread makes the pages present ahead of the writer.
bool writeFreshMemory(size_t bytes, bool helped)
{
    constexpr size_t kStep = size_t(4) << 20;
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        return false;
    unsigned char* const at = static_cast<unsigned char*>(p);
    std::atomic<size_t> written{0};
    std::thread helper;
    if (helped)
        helper = std::thread([&] {
            for (size_t from = 0; from < bytes; from += kStep) {
                while (from > written.load(std::memory_order_relaxed) + 4 * kStep)
                    std::this_thread::yield();
                madvise(at + from, std::min(kStep, bytes - from), MADV_POPULATE_WRITE);
            }
        });
    for (size_t from = 0; from < bytes; from += kStep) {
        std::memset(at + from, 0x5a, std::min(kStep, bytes - from));
        written.store(from + kStep, std::memory_order_relaxed);
    }
    if (helper.joinable())
        helper.join();
    benchmark::DoNotOptimize(at[bytes / 2]);
    munmap(p, bytes);
    return true;
}

enum class Writers { One, OneHelped, Two };

void freshColumns(benchmark::State& state, int flags, Writers writers, const char* const* sampleColumns = nullptr)
{
    const size_t bytes = columnBytesOfRead(flags, sampleColumns);
    const int count = writers == Writers::Two ? 2 : 1;
    for (auto _ : state) {
        std::atomic<bool> ok{true};
        std::vector<std::thread> pool;
        for (int t = 1; t < count; ++t)
            pool.emplace_back([&] { ok = writeFreshMemory(bytes, false) && ok; });
        ok = writeFreshMemory(bytes, writers == Writers::OneHelped) && ok;
        for (std::thread& t : pool)
            t.join();
        if (!ok) {
            state.SkipWithError("no memory");
            return;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes) * count);
    state.counters["samples/s"] = benchmark::Counter(double(files().plain.samples) * count,
                                                     benchmark::Counter::kIsIterationInvariantRate);
    state.counters["columns_MiB"] = double(bytes) / kMiB;
}

void BM_FloorFreshColumns(benchmark::State& state) { freshColumns(state, 0, Writers::One); }
BENCHMARK(BM_FloorFreshColumns)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FloorFreshSevenColumnsHelped(benchmark::State& state)
{
    freshColumns(state, 0, Writers::OneHelped, kSevenColumns);
}
BENCHMARK(BM_FloorFreshSevenColumnsHelped)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FloorFreshColumnsHelped(benchmark::State& state) { freshColumns(state, 0, Writers::OneHelped); }
BENCHMARK(BM_FloorFreshColumnsHelped)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FloorFreshColumnsTwoAtOnce(benchmark::State& state) { freshColumns(state, 0, Writers::Two); }
BENCHMARK(BM_FloorFreshColumnsTwoAtOnce)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FloorFreshVelocityColumnsHelped(benchmark::State& state)
{
    freshColumns(state, ORB_COLUMNS_VELOCITIES, Writers::OneHelped);
}
BENCHMARK(BM_FloorFreshVelocityColumnsHelped)->Unit(benchmark::kMillisecond)->UseRealTime();

// Every item of the plain file decoded once, in file order, by the
// library's decoders, with nothing kept (the library's own pass, beside the
// floor below).
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
        f.decoder.continueWith(std::make_unique<FileInputStream>(r.path.c_str()));
        f.decoder.stream->seek(long(head.size()));
        Sample s;
        EData e;
        samples = events = 0;
        for (;;) {
            const int kind = f.decoder.next_combfile_item(nullptr);
            if (kind == 1) {
                if (f.decoder.read_combfile_sample(&s, 0, 0) != 0)
                    break;
                ++samples;
            } else if (kind == 0) {
                e.fe = FEVENT{};
                if (f.decoder.read_combfile_event(&e, 0) != 0)
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

// Floor: every item of the plain file decoded once by a straight-line
// decoder over the item stream in memory, values into one record per item
// and nothing kept: the least work decoding can be.  Reading the file into
// memory is not timed (that is the first floor).
namespace straight {

inline uint32_t be16(const unsigned char*& p)
{
    const uint32_t v = (uint32_t(p[0]) << 8) | p[1];
    p += 2;
    return v;
}
inline uint32_t be32(const unsigned char*& p)
{
    const uint32_t v = (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
    p += 4;
    return v;
}
inline float plain(const unsigned char*& p) { return float(int16_t(be16(p))); }
inline float scaled(const unsigned char*& p, float divisor)
{
    const int w = int16_t(be16(p));
    return w == -32768 ? 1e8f : float(w) / divisor;
}

struct Counts {
    uint64_t samples = 0, events = 0;
    double check = 0; // keeps the values from being optimised away
};

Counts decode(const unsigned char* p, const unsigned char* end)
{
    Counts n;
    float divisor = 1.0f;
    uint32_t last = 0;
    FSAMPLE s{};
    while (end - p >= 2) {
        const uint32_t tag = be16(p);
        if (tag == 0)
            break;
        if (tag & kSampleItem) {
            last = (tag & kFullTime) ? be32(p) : last + *p++;
            s.time = last;
            const bool eye[2] = {(tag & kLeftEye) != 0, (tag & kRightEye) != 0};
            for (uint16_t group : {kRawGroup, kSecondGroup, kGazeGroup})
                if (tag & group)
                    for (int e = 0; e < 2; ++e)
                        if (eye[e]) {
                            float* x = group == kRawGroup ? s.rawX : group == kSecondGroup ? s.secondX : s.gazeX;
                            float* y = group == kRawGroup ? s.rawY : group == kSecondGroup ? s.secondY : s.gazeY;
                            x[e] = group == kGazeGroup ? scaled(p, divisor) : plain(p);
                            y[e] = group == kGazeGroup ? scaled(p, divisor) : plain(p);
                        }
            if (tag & kResolutionGroup) {
                s.resolutionX = scaled(p, divisor);
                s.resolutionY = scaled(p, divisor);
            }
            if (tag & kPupilGroup)
                for (int e = 0; e < 2; ++e)
                    if (eye[e])
                        s.pupilSize[e] = plain(p);
            s.status = (tag & kStatusWord) ? uint16_t(be16(p)) : 0;
            s.input = (tag & kInputWord) ? uint16_t(be16(p)) : 0;
            s.buttons = (tag & kButtonsWord) ? uint16_t(be16(p)) : 0;
            if (tag & kExtraData) {
                const unsigned words = std::min(*p++ & kExtraCountMask, 8u);
                for (unsigned i = 0; i < words; ++i)
                    s.extraData[i] = uint16_t(be16(p));
            }
            for (uint16_t list : {kSkipList1, kSkipList2})
                if (tag & list)
                    for (unsigned len; (len = *p++) != 0;)
                        p += 1 + len;
            ++n.samples;
            n.check += double(s.gazeX[0]) + s.time;
            continue;
        }
        const unsigned type = (tag >> kEventTypeShift) & kEventTypeMask;
        const bool blockStart = type == SSAMPLES || type == SEVENTS;
        FEVENT fe{};
        for (unsigned code; (code = *p++) != kFieldEnd;) {
            switch (code) {
            case kFieldStartTime: fe.startTime = be32(p); break;
            case kFieldEndTime: fe.endTime = be32(p); break;
            case kFieldStartScalar:
                fe.startScalar = plain(p);
                if (blockStart)
                    divisor = fe.startScalar;
                break;
            case kFieldMessage: {
                const uint32_t length = be16(p);
                p += length;
                break;
            }
            case kFieldStartPlain: case kFieldStartPos: case kFieldStartGaze: case kFieldStartRes:
            case kFieldEndPlain: case kFieldEndPos: case kFieldEndGaze: case kFieldEndRes:
            case kFieldAvgPlain: case kFieldAvgPos: case kFieldAvgGaze:
                fe.avgGazeX = scaled(p, divisor);
                fe.avgGazeY = scaled(p, divisor);
                break;
            case kFieldEndScalar: case kFieldStartPupil: case kFieldEndPupil: case kFieldBlockFlags2:
            case kFieldBlockOption: case kFieldAvgScalar: case kFieldAvgPupil: case kFieldPeakPupil:
            case kFieldBlockFlags:
                fe.avgPupil = plain(p);
                break;
            default: break;
            }
        }
        ++n.events;
        n.check += fe.startTime + double(fe.avgGazeX);
    }
    return n;
}

} // namespace straight

void BM_FloorDecodeStraight(benchmark::State& state)
{
    const SyntheticRecording& r = files().plain;
    std::string bytes;
    {
        FILE* in = std::fopen(r.path.c_str(), "rb");
        char buffer[1 << 16];
        for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, in)) > 0;)
            bytes.append(buffer, got);
        std::fclose(in);
    }
    const size_t body = bytes.find("ENDP:\n") + 6;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    straight::Counts n;
    for (auto _ : state) {
        n = straight::decode(p + body, p + bytes.size());
        benchmark::DoNotOptimize(n.check);
    }
    if (n.samples != r.samples || n.samples + n.events != r.samples + r.events + r.messages + 4 * r.blocks) {
        state.SkipWithError("not every item was decoded");
        return;
    }
    setSampleRate(state, r);
}
BENCHMARK(BM_FloorDecodeStraight)->Unit(benchmark::kMillisecond);

void columnsBenchmark(benchmark::State& state, const SyntheticRecording& r, int flags,
                      const char* const* sampleColumns = nullptr)
{
    double peak = 0, held = 0;
    const ORB_READ_OPTIONS o = readOptions(flags, sampleColumns);
    for (auto _ : state) {
        resetPeakRss();
        const double before = peakRssBytes();
        int err = 0;
        ORB_COLUMNS* c = orb_read(r.path.c_str(), &o, &err);
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
BENCHMARK(BM_ColumnsPlain)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ColumnsPlainSeven(benchmark::State& state) { columnsBenchmark(state, files().plain, 0, kSevenColumns); }
BENCHMARK(BM_ColumnsPlainSeven)->Unit(benchmark::kMillisecond)->UseRealTime();

// From a recording opened once (not timed): the whole read, and windows of
// ten seconds spread over the recording, one after another.
void fromHandle(benchmark::State& state, bool window)
{
    const SyntheticRecording& r = files().plain;
    int err = 0;
    _ORBFILE* f = orb_open_file(r.path.c_str(), 0, 1, 1, &err);
    if (!f) {
        state.SkipWithError(orb_get_last_error());
        return;
    }
    // The time of the first sample, as read.
    int64_t t0 = 0;
    {
        const char* const time[] = {"time", nullptr};
        const ORB_READ_OPTIONS first = readOptions(0, time);
        ORB_COLUMNS* c = orb_read_open(f, &first, &err);
        ORB_COLUMN column{};
        if (c && orb_columns_find(c, ORB_TABLE_SAMPLES, "time", &column) == 0 && column.data)
            t0 = *static_cast<const uint32_t*>(column.data);
        orb_free_columns(c);
    }
    ORB_READ_OPTIONS o = readOptions(0, nullptr);
    o.window = window;
    const int64_t span = int64_t(r.samples); // ms at 1000 Hz
    size_t rows = 0;
    int64_t at = 0;
    for (auto _ : state) {
        at = (at + 7919 * 1000) % std::max<int64_t>(span - 10000, 1);
        o.start = t0 + at;
        o.end = o.start + 10000;
        ORB_COLUMNS* c = orb_read_open(f, &o, &err);
        if (!c) {
            state.SkipWithError(orb_get_last_error());
            break;
        }
        rows = orb_columns_rows(c, ORB_TABLE_SAMPLES);
        orb_free_columns(c);
    }
    orb_close_file(f);
    state.counters["sample_rows"] = double(rows);
}

void BM_HandleWhole(benchmark::State& state) { fromHandle(state, false); }
BENCHMARK(BM_HandleWhole)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_HandleWindow10s(benchmark::State& state) { fromHandle(state, true); }
BENCHMARK(BM_HandleWindow10s)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ColumnsPlainVelocities(benchmark::State& state)
{
    columnsBenchmark(state, files().plain, ORB_COLUMNS_VELOCITIES);
}
BENCHMARK(BM_ColumnsPlainVelocities)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ColumnsCompressed(benchmark::State& state) { columnsBenchmark(state, files().compressed, 0); }
BENCHMARK(BM_ColumnsCompressed)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ColumnsCompressedVelocities(benchmark::State& state)
{
    columnsBenchmark(state, files().compressed, ORB_COLUMNS_VELOCITIES);
}
BENCHMARK(BM_ColumnsCompressedVelocities)->Unit(benchmark::kMillisecond)->UseRealTime();

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
