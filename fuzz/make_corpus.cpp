// Writes the seed corpus of the fuzz target: small valid recordings of every
// kind the tests make, built with the tests' own writer.
//   make_corpus DIR
// Each file is named seed-<what it is>.orb.
#include <cstdio>
#include <string>

#include "Recordings.h"

using namespace orbtest;

namespace {

std::string dir;

void save(const std::string& name, const OrbWriter& w)
{
    const Bytes bytes = w.build();
    const std::string path = dir + "/seed-" + name + ".orb";
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::fclose(f);
}

EventItem eyeEvent(unsigned type, int eye, uint32_t start, uint32_t end = 0)
{
    EventItem e(type, eye);
    e.start(start);
    if (end)
        e.end(end);
    return e;
}

// Every event kind of one eye inside [t, t + 20).
void addEvents(OrbWriter& w, uint32_t t, int eye)
{
    w.add(eyeEvent(SFIX, eye, t)).add(eyeEvent(EFIX, eye, t, t + 4).words(kFieldStartGaze, 100, 200));
    w.add(eyeEvent(SSACC, eye, t + 5));
    w.add(eyeEvent(SBLINK, eye, t + 6)).add(eyeEvent(EBLINK, eye, t + 6, t + 8));
    w.add(eyeEvent(ESACC, eye, t + 5, t + 9));
    w.add(eyeEvent(SSPAN, eye, t + 10)).add(eyeEvent(ESPAN, eye, t + 10, t + 12));
    for (unsigned point : {POINT9, POINT10, POINT25, POINT28})
        w.add(eyeEvent(point, eye, t + 13));
}

SampleItem fullSample(uint32_t t, int i)
{
    SampleItem s;
    s.flags = uint16_t(kSampleItem | kFullTime | kBothEyes | kRawGroup | kSecondGroup | kGazeGroup |
                       kResolutionGroup | kPupilGroup | kStatusWord | kInputWord | kButtonsWord);
    s.time = t;
    for (int e = 0; e < 2; ++e) {
        s.raw[e][0] = int16_t(100 + i);
        s.raw[e][1] = int16_t(-200 - i);
        s.second[e][0] = int16_t(30 * i);
        s.gaze[e][0] = int16_t(500 + 7 * i + e);
        s.gaze[e][1] = int16_t(400 - 3 * i);
        s.pupil[e] = int16_t(900 + i);
    }
    s.res[0] = s.res[1] = 350;
    s.status = uint16_t(i & 1);
    s.input = 0x1E28;
    s.buttons = uint16_t(i & 3);
    return s;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_corpus DIR\n");
        return 2;
    }
    dir = argv[1];

    { // the plain form, each magic line
        OrbWriter w;
        addBlock(w, 1000, 8);
        save("plain", w);
        w.magic = "NORVANE_LAB_COMBFILE\r\n";
        save("plain-crlf", w);
        w.magic = "NORVANE_LAB_HSPDFILE\n";
        save("hspd", w);
        w.magic = "NORVANE_LAB_HSPDFILE\r\n";
        save("hspd-crlf", w);
        w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
        w.compressed = true;
        save("compressed", w);
        w.magic = "NORVANE_LAB_HSPDFILE ZIP\r\n";
        save("compressed-crlf", w);
        w.truncateBodyTo = 40;
        save("compressed-cut", w);
    }
    { // an empty recording and one whose preamble carries every fact
        OrbWriter w;
        save("empty", w);
        w.preamble = {"VERSION: OCULANT MK 0\n", "SOURCE: OCULANT HQ\n", "** NVEB1.6.2 writer\n"};
        addBlock(w, 5, 3, 250.0);
        save("preamble-facts", w);
    }
    for (double rate : {250.0, 1000.0, 2000.0}) { // rates and both halves of a millisecond
        OrbWriter w;
        addBlock(w, 2000, 12, rate);
        save("rate-" + std::to_string(int(rate)), w);
    }
    { // every sample group, relative times, extra data of each raw pupil kind
        OrbWriter w;
        startBlock(w, 100);
        for (int i = 0; i < 12; ++i) {
            SampleItem s = fullSample(uint32_t(100 + i), i);
            if (i % 3 == 1) {
                s.flags = uint16_t(s.flags & ~kFullTime);
                s.step = 1;
            }
            if (i % 4 == 0) {
                s.flags |= kExtraData;
                s.extraType = uint8_t(i == 0 ? 196 : i == 4 ? 200 : 201);
                s.extra = {0, 0, 33, 1234, 500, 56, 0x1E28, 0x0A14};
            }
            if (i == 6) {
                s.flags |= kSkipList1 | kSkipList2;
                s.skip1 = {2, 0xAA, 0xBB};
                s.skip2 = {1, 0xCC};
            }
            w.add(s);
        }
        endBlock(w, 112);
        save("sample-groups", w);
    }
    { // events of every kind and both eyes, messages and trials
        OrbWriter w;
        addBlock(w, 1000, 40, 1000.0, [&](int i, uint32_t t) {
            if (i == 2) w.add(message(t, "TRIALID 1"));
            if (i == 5) addEvents(w, t, 0);
            if (i == 9) addEvents(w, t, 1);
            if (i == 20) w.add(message(t, "trial end 1"));
            if (i == 22) w.add(message(t, "TRIALID 2"));
            if (i == 30) w.add(message(t, "begin here")).add(message(t + 1, "end there"));
            if (i == 33) w.add(EventItem(kMessageCode, -1).start(t).messageRaw(600, "bad length"));
        });
        save("events-trials", w);
    }
    { // two blocks, the second starting when the first ends; a stray sample
        OrbWriter w;
        addBlock(w, 1000, 5);
        w.add(sampleAt(1020));
        addBlock(w, 1009, 5);
        save("two-blocks", w);
    }
    { // dropped samples that repair mode fills
        OrbWriter w;
        startBlock(w, 1000, 1000.0);
        addSamples(w, {1000, 1001, 1002, 1003, 1010, 1011, 1012, 1100, 1101});
        endBlock(w, 1102);
        save("gaps", w);
    }
    { // blinks that the repair re-times, merges and flags
        OrbWriter w;
        startBlock(w, 1000);
        addSampleRun(w, 1000, 1014);
        w.add(eyeEvent(EBLINK, 0, 990, 1001));
        for (int eye : {0, 1}) {
            w.add(eyeEvent(SSACC, eye, 1002));
            w.add(eyeEvent(SBLINK, eye, 1003)).add(eyeEvent(EBLINK, eye, 1003, 1005));
            w.add(eyeEvent(SBLINK, eye, 1007)).add(eyeEvent(EBLINK, eye, 1007, 1009));
            w.add(eyeEvent(ESACC, eye, 1002, 1010));
        }
        w.add(eyeEvent(SBLINK, 1, 1011)).add(eyeEvent(SBLINK, 1, 1012));
        endBlock(w, 1015);
        save("blinks", w);
    }
    { // a tracker clock that has run for days: the time adjustment shifts it
        OrbWriter w;
        addBlock(w, 250000000u, 6, 500.0, [&](int i, uint32_t t) {
            if (i == 3) w.add(message(t, "late"));
        });
        save("time-offset", w);
    }
    { // samples and events with no block at all
        OrbWriter w;
        addSamples(w, {10, 12, 14});
        w.add(message(13, "TRIALID outside"));
        w.add(eyeEvent(SFIX, 0, 12)).add(eyeEvent(EFIX, 0, 12, 14));
        save("no-block", w);
    }
    return 0;
}
