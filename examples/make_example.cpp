// Writes the example recording shipped in this directory: two trials of a
// binocular 1000 Hz recording with fixations, saccades, a blink and messages,
// laid out as a tracker writes them.
//
//     make_example OUTPUT
#include <cmath>
#include <cstdio>
#include <string>

#include "OrbWriter.h"

using namespace orbtest;

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s OUTPUT\n", argv[0]);
        return 2;
    }
    OrbWriter w;
    w.preamble = {"DATE: Sat Nov 21 09:30:00 2026\n", "TYPE: BINARY EVENT SAMPLE TAGGED\n",
                  "VERSION: OCULANT MK 3\n", "SOURCE: OCULANT MK\n",
                  "CONVERTER: NVEB1.6.1\n", "CAMERA: Example Camera\n"};
    const uint16_t flags = kSampleItem | kBothEyes | kRawGroup | kGazeGroup | kResolutionGroup |
                           kPupilGroup | kStatusWord | kInputWord | kButtonsWord;
    uint32_t t0 = 1000;
    for (int trial = 0; trial < 2; ++trial) {
        w.add(EventItem(24, -1).start(t0 - 10).message("TRIALID " + std::to_string(trial + 1) + "\n"));
        w.add(blockStart(SSAMPLES, t0, 1000.0, flags, 10));
        w.add(blockStart(SEVENTS, t0, 1000.0, 0xC000, 10, 10, 0x0312, kEventBlockBothEyes));
        int n = 1500;
        for (int i = 0; i < n; ++i) {
            SampleItem s;
            s.flags = uint16_t(flags | (i == 0 ? kFullTime : 0));
            s.time = t0;
            s.step = 1;
            // Two fixations joined by a saccade at 700-740 ms, a blink at 1100-1200 ms.
            double x = i < 700 ? 400 : i < 740 ? 400 + (i - 700) * 10.0 : 800;
            double y = 300 + 5 * std::sin(i / 50.0);
            bool blink = i >= 1100 && i < 1200;
            for (int e = 0; e < 2; ++e) {
                s.gaze[e][0] = int16_t(blink ? -32768 : (x + e * 3) * 10);
                s.gaze[e][1] = int16_t(blink ? -32768 : y * 10);
                s.raw[e][0] = int16_t(blink ? -32768 : x / 2);
                s.raw[e][1] = int16_t(blink ? -32768 : y / 2);
                s.pupil[e] = int16_t(blink ? 0 : 900 + e * 20);
            }
            s.res[0] = 380;
            s.res[1] = 370;
            s.status = 0;
            s.input = 0x0203;
            w.add(s);
            uint32_t now = t0 + uint32_t(i);
            // Events follow their samples by a few milliseconds.
            if (i == 4)
                for (int e = 0; e < 2; ++e) w.add(EventItem(SFIX, e).start(t0));
            if (i == 704)
                for (int e = 0; e < 2; ++e) {
                    w.add(EventItem(EFIX, e).start(t0).end(now - 5).words(kFieldAvgGaze, 4000, 3000));
                    w.add(EventItem(SSACC, e).start(now - 4));
                }
            if (i == 744)
                for (int e = 0; e < 2; ++e) {
                    w.add(EventItem(ESACC, e).start(now - 44).end(now - 5));
                    w.add(EventItem(SFIX, e).start(now - 4));
                }
            if (i == 900)
                w.add(EventItem(24, -1).start(now).message("stimulus on\n"));
            if (i == 1102)
                for (int e = 0; e < 2; ++e) w.add(EventItem(SBLINK, e).start(now - 2));
            if (i == 1203)
                for (int e = 0; e < 2; ++e) w.add(EventItem(EBLINK, e).start(now - 103).end(now - 4));
        }
        uint32_t end = t0 + uint32_t(n - 1);
        for (int e = 0; e < 2; ++e)
            w.add(EventItem(EFIX, e).start(t0 + 740).end(end).words(kFieldAvgGaze, 8000, 3000));
        w.add(EventItem(24, -1).start(end).message("trial end\n"));
        w.add(blockEnd(ESAMPLES, end + 1));
        w.add(blockEnd(EEVENTS, end + 1));
        t0 = end + 500;
    }
    Bytes bytes = w.build();
    FILE* f = std::fopen(argv[1], "wb");
    if (!f) return 1;
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    return 0;
}
