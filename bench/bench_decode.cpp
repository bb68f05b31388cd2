// Sample decoding throughput: binocular 1000 Hz samples with every group
// present, decoded one after the other as the pre-scan and the batch reader
// do.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>

#include "ORBFile.h"
#include "OrbWriter.h"

using namespace orbtest;

namespace {

constexpr int kSamples = 200000;
// Every group of a sample; the block's start announces all but the positions.
constexpr uint16_t kAllGroups = kBothEyes | kRawGroup | kSecondGroup | kGazeGroup | kResolutionGroup |
                                kPupilGroup | kStatusWord | kInputWord | kButtonsWord | kExtraData |
                                kSkipList1 | kSkipList2 | kSampleItem;
constexpr uint16_t kBlockFlags = kAllGroups & ~(kRawGroup | kSecondGroup | kGazeGroup);

struct Recording1000Hz {
    std::string path;
    long firstSample = 0;

    Recording1000Hz()
    {
        OrbWriter w;
        w.add(blockStart(SSAMPLES, 1000, 1000.0, kBlockFlags, 10));
        SampleItem s;
        s.flags = kAllGroups;
        s.step = 1;
        s.extraType = 0x08;
        s.extra = {1, 2, 3, 4, 5, 6, 7, 8};
        s.skip1 = {2, 1, 0x11, 0x22, 0};
        s.skip2 = {0};
        s.status = 0x0101;
        s.input = 0x1234;
        for (int i = 0; i < kSamples; ++i) {
            int16_t v = int16_t(i % 2000 - 1000);
            for (int e = 0; e < 2; ++e) {
                s.raw[e][0] = v;
                s.raw[e][1] = int16_t(-v);
                s.second[e][0] = int16_t(v / 2);
                s.second[e][1] = int16_t(v / 3);
                s.gaze[e][0] = int16_t(v * 10);
                s.gaze[e][1] = int16_t(v * 7);
                s.pupil[e] = int16_t(1000 + e);
            }
            s.res[0] = s.res[1] = 377;
            w.add(s);
        }
        path = w.write();
        Bytes block = blockStart(SSAMPLES, 1000, 1000.0, kBlockFlags, 10).bytes();
        firstSample = long(w.headerSize() + block.size());
    }
    ~Recording1000Hz() { std::remove(path.c_str()); }
};

void BM_DecodeSamples(benchmark::State& state)
{
    static Recording1000Hz file;
    ORBFile f(file.path.c_str(), 0, true, true);
    f.decoder.gazeDivisor = 10.0f;
    Sample sample;
    for (auto _ : state) {
        f.decoder.stream->seek(file.firstSample);
        f.decoder.pendingTag = 0;
        f.decoder.lastSampleTime = 1000;
        for (int i = 0; i < kSamples; ++i) {
            if (f.decoder.read_combfile_sample(&sample, 0, 1) != 0) {
                state.SkipWithError("decoding failed");
                return;
            }
            benchmark::DoNotOptimize(sample.fs.gazeX[1]);
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kSamples);
    state.counters["samples/s"] =
        benchmark::Counter(double(kSamples), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_DecodeSamples)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
