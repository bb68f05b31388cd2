// Walking the item index: stepping, reading the current item with its
// read-time repairs, and positioning by index and by time.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <random>

#include "Internals.h"

using namespace orbtest;

namespace {

constexpr float kMissing = 100000000.0f;
constexpr uint32_t kUnset = 0xFFFFFFFFu;

// Steps onto entry `index` (passing the items before it) and reads it.
ALLF_DATA* readAt(ORBFile& f, int index)
{
    while (f.current <= index)
        if (f.stepNext() == 0) return nullptr;
    return f.getFloatData();
}

// Every record of a walk from the cursor to the end.
std::vector<ALLF_DATA> walk(ORBFile& f)
{
    std::vector<ALLF_DATA> out;
    while (f.stepNext() != 0) {
        ALLF_DATA* d = f.getFloatData();
        EXPECT_NE(d, nullptr) << "entry " << f.current - 1;
        out.push_back(d ? *d : ALLF_DATA{});
    }
    return out;
}

} // namespace

// ---- stepping and reading ---------------------------------------------------

TEST(Access, NothingIsReadBeforeTheFirstStep)
{
    OrbWriter w;
    addBlock(w, 1000, 10, 500.0);
    auto f = openOrb(w);
    std::memset(static_cast<void*>(&f->currentData), 0xAB, sizeof f->currentData);
    const ALLF_DATA before = f->currentData;
    f->gotoIndex(5);
    EXPECT_EQ(f->getFloatData(), &f->currentData);
    EXPECT_EQ(std::memcmp(&before, &f->currentData, sizeof before), 0);
}

TEST(Access, StepsThroughTheIndexAndTracksTheBlock)
{
    OrbWriter w;
    addBlock(w, 1000, 8, 2000.0);
    auto f = openOrb(w);
    ASSERT_EQ(f->stepNext(), RECORDING);
    ALLF_DATA* d = f->getFloatData();
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(f->currentRecording, f->index.items[0].rec);
    EXPECT_EQ(std::memcmp(&d->rec, f->index.items[0].rec, sizeof(Recording)), 0);

    int samples = 0;
    while (int code = f->stepNext()) {
        d = f->getFloatData();
        ASSERT_NE(d, nullptr);
        if (code != SAMPLE) continue;
        // Two samples a millisecond: the second one is marked.
        EXPECT_EQ(d->fs.time, 1000u + unsigned(samples / 2));
        EXPECT_EQ(d->fs.flags & kHalfMillisecond, samples % 2 ? kHalfMillisecond : 0) << samples;
        EXPECT_EQ(d->fs.gazeX[1], float(1001 + 10 * samples) / 10.0f);
        // 1 unit per sample at 2000 per second, 40 units per degree.
        EXPECT_FLOAT_EQ(d->fs.fastGazeVelX[0], 50.0f);
        ++samples;
    }
    EXPECT_EQ(samples, 8);
    EXPECT_EQ(f->currentRecording, nullptr) << "the block end was passed";
}

TEST(Access, FailedReadsAndSamplesOutsideABlock)
{
    OrbWriter w;
    addBlock(w, 1000, 20, 500.0, [&w](int i, uint32_t t) {
        if (i == 1) w.add(message(t, "a"));
    });
    auto f = openOrb(w);
    LogCapture log;
    const int m = indexOf(*f, MESSAGE);
    f->index.items[size_t(m)].position = 1 << 30; // beyond the end
    f->gotoIndex(m);
    f->stepNext();
    EXPECT_EQ(f->getFloatData(), nullptr);
    EXPECT_EQ(log.lines().back(), "Error End of file Exception \n");

    f->index.items[size_t(m)].type = 12; // no item class
    EXPECT_EQ(f->getFloatData(), nullptr);
    EXPECT_EQ(log.lines().back(), "Read error \n");

    // The block start is not passed: no velocities.
    f->gotoIndex(indexOf(*f, SAMPLE, 10));
    f->stepNext();
    ALLF_DATA* d = f->getFloatData();
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 1020u);
    EXPECT_EQ(d->fs.gazeVelX[0], 0.0f);
    EXPECT_EQ(log.lines().back(), "WARNING: ORB FILE MAY BE CORRUPTED. Samples 1020 found without start recording \n");
}

TEST(Access, SamplesInsideBlinksLoseTheirPositions)
{
    OrbWriter w;
    addBlock(w, 1000, 12, 500.0);
    auto f = openOrb(w);
    const int left = indexOf(*f, SAMPLE, 5), both = indexOf(*f, SAMPLE, 6);
    f->index.items[size_t(left)].type |= kFlagEye0;
    f->index.items[size_t(both)].type |= kFlagEye0 | kFlagEye1;

    // Every position of the eye missing, its pupil 0.
    auto blanked = [](const FSAMPLE& s, int e) {
        for (float v : {s.gazeX[e], s.gazeY[e], s.rawX[e], s.rawY[e], s.secondX[e], s.secondY[e]})
            if (v != kMissing) return false;
        return s.pupilSize[e] == 0.0f;
    };
    ALLF_DATA* d = readAt(*f, left);
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(blanked(d->fs, 0));
    EXPECT_EQ(d->fs.gazeX[1], 1051.0f / 10.0f);
    EXPECT_EQ(d->fs.pupilSize[1], 801.0f);
    EXPECT_FLOAT_EQ(d->fs.gazeVelX[0], 12.5f) << "velocities from the positions as recorded";
    d = readAt(*f, both);
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(blanked(d->fs, 0) && blanked(d->fs, 1));
    // The queue keeps the recorded positions for the neighbours.
    d = readAt(*f, both + 1);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.gazeX[0], 107.0f);
    EXPECT_FLOAT_EQ(d->fs.gazeVelX[0], 12.5f);
}

// ---- read-time repairs of event times ---------------------------------------

namespace {

// Start times of the events of `code`, in index order, as handed out.
std::vector<uint32_t> startTimes(const OrbWriter& w, int options, unsigned code)
{
    auto f = openOrb(w, options);
    std::vector<uint32_t> out;
    while (int c = f->stepNext())
        if (unsigned(c) == code) {
            ALLF_DATA* d = f->getFloatData();
            out.push_back(d ? d->fe.startTime : 0);
        }
    return out;
}

} // namespace

TEST(EventRepair, SaccadeAndFixationStartsInRepairMode)
{
    OrbWriter w;
    addBlock(w, 1000, 80, 500.0, [&w](int i, uint32_t t) {
        switch (i) {
        case 10: w.add(EventItem(SSACC, 0).start(t)); break;            // 1020
        case 12: w.add(EventItem(SBLINK, 0).start(t)); break;           // 1024
        case 20: w.add(EventItem(EBLINK, 0).start(1024).end(t)); break; // 1040
        case 25: w.add(EventItem(ESACC, 0).start(1023).end(t)); break;  // 1050
        case 30: w.add(EventItem(SSACC, 0).start(t)); break;            // 1060
        case 35: w.add(EventItem(ESACC, 0).start(1062).end(t)); break;  // 1070
        case 40: w.add(EventItem(SFIX, 0).start(t)); break;             // 1080
        case 50: w.add(EventItem(EFIX, 0).start(1081).end(t)); break;   // 1100
        case 60: w.add(EventItem(EFIX, 0).start(1111).end(t)); break;   // 1120
        case 70: w.add(EventItem(EFIX, 1).start(1131).end(t)); break;   // 1140
        default: break;
        }
    });
    // A saccade with a blink in it starts at its start event; one without
    // keeps its own start.  Starts are noted as they are passed, unread.
    EXPECT_EQ(startTimes(w, 2, ESACC), (std::vector<uint32_t>{1020, 1062}));
    // A fixation end takes its start's time; the start is kept for a later
    // end without one; an eye that never had a start gets -1.
    EXPECT_EQ(startTimes(w, 2, EFIX), (std::vector<uint32_t>{1080, 1080, kUnset}));
    for (int mode : {0, 1}) {
        EXPECT_EQ(startTimes(w, mode, ESACC), (std::vector<uint32_t>{1023, 1062})) << mode;
        EXPECT_EQ(startTimes(w, mode, EFIX), (std::vector<uint32_t>{1081, 1111, 1131})) << mode;
    }
}

// ---- positioning --------------------------------------------------------------

TEST(Positioning, GotoIndexOnlyWithinTheIndex)
{
    OrbWriter w;
    addBlock(w, 1000, 10, 500.0);
    auto f = openOrb(w);
    const int n = int(f->index.items.size());
    EXPECT_EQ(f->gotoIndex(4), n);
    EXPECT_EQ(f->current, 4);
    for (int bad : {-1, n, n + 7}) {
        EXPECT_EQ(f->gotoIndex(bad), n);
        EXPECT_EQ(f->current, 4);
    }
    EXPECT_EQ(f->gotoIndex(n - 1), n);
    EXPECT_EQ(f->stepNext(), int(f->index.items[size_t(n - 1)].code()));
}

TEST(Positioning, SampleCloseToTime)
{
    OrbWriter w;
    // No block start: the first entry is a sample.
    for (uint32_t i = 0; i < 20; ++i) {
        SampleItem s = sampleAt(500 + 2 * i);
        s.gaze[0][0] = int16_t(i);
        w.add(s);
        if (i == 7) w.add(message(s.time, "same time"));
    }
    auto f = openOrb(w);
    LogCapture log; // the samples lie outside any block
    ASSERT_EQ(f->index.items[0].code(), unsigned(SAMPLE));
    // Before the first step: the buffer comes back unread, and still no
    // step taken.
    ALLF_DATA* d = f->getSampleCloseToTime(2 * 504);
    EXPECT_EQ(d, &f->currentData);
    EXPECT_EQ(d->fs.time, 0u);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(f->current, 0);
    EXPECT_FALSE(f->itemRequested);

    // Stepping started elsewhere; the cursor is restored afterwards.
    f->stepNext();
    f->stepNext();
    EXPECT_EQ(f->getSampleCloseToTime(2 * 500), nullptr) << "the very first entry";
    for (uint32_t i = 1; i < 20; ++i) { // i = 7 shares its key with the message
        d = f->getSampleCloseToTime(2 * (500 + 2 * i));
        ASSERT_NE(d, nullptr) << i;
        EXPECT_EQ(d->fs.gazeX[0], float(i));
        EXPECT_EQ(f->current, 2);
    }
    for (unsigned key : {0u, 1001u, 1002u + 1, 2u * 539, 2u * 600, 0xFFFFFFFFu})
        EXPECT_EQ(f->getSampleCloseToTime(key), nullptr) << key;
}

// ---- a whole walk, straight and after jumps -----------------------------------

TEST(Walk, RecordsDoNotDependOnWhereTheCursorWasBefore)
{
    OrbWriter w;
    auto events = [&w](int i, uint32_t t) {
        if (i % 97 == 5) w.add(message(t, "TRIALID " + std::to_string(i)));
        if (i % 50 == 10) w.add(EventItem(SFIX, i % 100 == 10 ? 0 : 1).start(t));
        if (i % 50 == 30) w.add(EventItem(EFIX, i % 100 == 30 ? 0 : 1).start(t - 20).end(t));
        if (i % 200 == 40) w.add(EventItem(SSACC, 0).start(t));
        if (i % 200 == 45) w.add(EventItem(ESACC, 0).start(t - 5).end(t));
    };
    addBlock(w, 10000, 1500, 1000.0, events);
    addBlock(w, 20000, 1200, 1000.0, events);
    auto f = openOrb(w);
    LogCapture log;
    const std::vector<ALLF_DATA> straight = walk(*f);
    ASSERT_EQ(straight.size(), f->index.items.size());
    const int secondBlock = indexOf(*f, RECORDING, 2);
    ASSERT_EQ(f->index.items[size_t(secondBlock)].rec->state, 1);

    // Jump around: back and forth, into both blocks, reading a few items,
    // sometimes from within a block and sometimes from outside.
    std::mt19937 rng(7);
    const int n = int(f->index.items.size());
    for (int jump = 0; jump < 80; ++jump) {
        const int to = int(rng() % unsigned(n));
        if (jump % 3 == 0) {
            f->gotoIndex(to < secondBlock ? 0 : secondBlock);
            f->stepNext(); // into the block
        }
        f->gotoIndex(to);
        for (int k = 0; k < 5 && f->stepNext() != 0; ++k) {
            const int at = f->current - 1;
            ALLF_DATA* d = f->getFloatData();
            ASSERT_NE(d, nullptr);
            const ALLF_DATA& expected = straight[size_t(at)];
            if (f->index.items[size_t(at)].code() != SAMPLE) {
                EXPECT_EQ(std::memcmp(d, &expected, sizeof(ALLF_DATA)), 0) << at;
            } else { // all but the velocities, which depend on the neighbours read so far
                EXPECT_EQ(std::memcmp(d, &expected, offsetof(FSAMPLE, gazeVelX)), 0) << at;
                EXPECT_EQ(std::memcmp(&d->fs.extraData, &expected.fs.extraData,
                                      sizeof(FSAMPLE) - offsetof(FSAMPLE, extraData)), 0) << at;
            }
        }
    }

    f->gotoIndex(0);
    const std::vector<ALLF_DATA> again = walk(*f);
    ASSERT_EQ(again.size(), straight.size());
    for (size_t i = 0; i < again.size(); ++i)
        ASSERT_EQ(std::memcmp(&again[i], &straight[i], sizeof(ALLF_DATA)), 0) << "entry " << i;
}
