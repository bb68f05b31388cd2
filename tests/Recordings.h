// Small recordings shared by the tests of the function interface.
#ifndef ORBAPI_TESTS_RECORDINGS_H
#define ORBAPI_TESTS_RECORDINGS_H

#include <string>
#include <vector>

#include "OrbWriter.h"

namespace orbtest {

constexpr unsigned kMessageCode = 24;

inline EventItem message(uint32_t time, const std::string& text)
{
    return EventItem(kMessageCode, -1).start(time).message(text);
}

// One recording block: sample and event block starts at t0, n binocular
// samples one period apart, the block ends one millisecond after the last.
// `between` is called after every sample with its index and time.
template <class Between>
void addBlock(OrbWriter& w, uint32_t t0, int n, double rate, Between between)
{
    const uint16_t flags = kSampleItem | kBothEyes | kGazeGroup | kResolutionGroup | kPupilGroup;
    w.add(blockStart(SSAMPLES, t0, rate, flags, 10));
    w.add(blockStart(SEVENTS, t0, rate, 0xC000, 10, 10, 0x0312, kEventBlockBothEyes));
    double period = 1000.0 / rate;
    uint32_t last = t0;
    for (int i = 0; i < n; ++i) {
        uint32_t t = t0 + uint32_t(i * period);
        SampleItem s;
        s.flags = flags | kFullTime;
        s.time = t;
        for (int e = 0; e < 2; ++e) {
            s.gaze[e][0] = int16_t(1000 + 10 * i + e);
            s.gaze[e][1] = int16_t(2000 - 10 * i);
            s.pupil[e] = int16_t(800 + e);
        }
        s.res[0] = s.res[1] = 400;
        w.add(s);
        between(i, t);
        last = t;
    }
    w.add(blockEnd(ESAMPLES, last + 1));
    w.add(blockEnd(EEVENTS, last + 1));
}

inline void addBlock(OrbWriter& w, uint32_t t0, int n, double rate = 500.0)
{
    addBlock(w, t0, n, rate, [](int, uint32_t) {});
}

// A binocular gaze sample written with its full time.
inline SampleItem sampleAt(uint32_t t, uint16_t more = 0)
{
    SampleItem s;
    s.flags = uint16_t(kSampleItem | kFullTime | kBothEyes | kGazeGroup | more);
    s.time = t;
    return s;
}
inline void addSamples(OrbWriter& w, const std::vector<uint32_t>& times)
{
    for (uint32_t t : times) w.add(sampleAt(t));
}
// One sample a millisecond from `from` to `to`.
inline void addSampleRun(OrbWriter& w, uint32_t from, uint32_t to)
{
    for (uint32_t t = from; t <= to; ++t) w.add(sampleAt(t));
}

// Both starts (or both ends) of a binocular block with gaze divisor 1.
inline void startBlock(OrbWriter& w, uint32_t t, double rate = 1000.0)
{
    w.add(blockStart(SSAMPLES, t, rate, kSampleItem | kBothEyes | kGazeGroup, 1));
    w.add(blockStart(SEVENTS, t, rate, 0, 1, 10, 0x0312, kEventBlockBothEyes));
}
inline void endBlock(OrbWriter& w, uint32_t t)
{
    w.add(blockEnd(ESAMPLES, t));
    w.add(blockEnd(EEVENTS, t));
}

} // namespace orbtest

#endif
