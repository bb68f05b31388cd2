// Walking the item index: stepping, reading the current item with its
// read-time repairs, and positioning by index and by time.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ORBFile.h"
#include "OrbWriter.h"
#include "Recordings.h"

using namespace orbtest;

namespace {

constexpr float kMissing = 100000000.0f;
constexpr uint32_t kUnset = 0xFFFFFFFFu;

std::unique_ptr<ORBFile> open(const OrbWriter& w, int options = 0)
{
    return std::make_unique<ORBFile>(w.write().c_str(), options, true, true);
}

int indexOf(const ORBFile& f, unsigned code, int nth = 0)
{
    for (size_t i = 0; i < f.items.size(); ++i)
        if (f.items[i].code() == code && nth-- == 0)
            return int(i);
    return -1;
}

// Steps onto entry `index` (passing the items before it) and reads it.
ALLF_DATA* readAt(ORBFile& f, int index)
{
    while (f.current <= index)
        if (f.stepNext() == 0)
            return nullptr;
    return f.getFloatData();
}

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
    auto f = open(w);
    std::memset(static_cast<void*>(&f->currentData), 0xAB, sizeof f->currentData);
    ALLF_DATA before = f->currentData;
    EXPECT_EQ(f->getFloatData(), &f->currentData);
    f->gotoIndex(5);
    EXPECT_EQ(f->getFloatData(), &f->currentData);
    EXPECT_EQ(std::memcmp(&before, &f->currentData, sizeof before), 0);
    EXPECT_FALSE(f->itemRequested);
}

TEST(Access, StepsThroughTheIndexAndTracksTheBlock)
{
    OrbWriter w;
    addBlock(w, 1000, 5, 500.0, [&w](int i, uint32_t t) {
        if (i == 2)
            w.add(EventItem(MESSAGE, -1).start(t).message("hello"));
    });
    auto f = open(w);
    const int n = int(f->items.size());
    ASSERT_GT(n, 0);
    ASSERT_EQ(f->items[0].code(), unsigned(RECORDING));

    EXPECT_EQ(f->stepNext(), RECORDING);
    ALLF_DATA* d = f->getFloatData();
    ASSERT_NE(d, nullptr);
    ASSERT_NE(f->currentRecording, nullptr);
    EXPECT_EQ(f->currentRecording, f->items[0].rec);
    EXPECT_EQ(std::memcmp(&d->rec, f->items[0].rec, sizeof(Recording)), 0);
    EXPECT_EQ(d->rec.sampleRate, 500.0f);

    int samples = 0;
    int code;
    while ((code = f->stepNext()) != 0) {
        EXPECT_EQ(unsigned(code), f->items[size_t(f->current - 1)].code());
        d = f->getFloatData();
        ASSERT_NE(d, nullptr);
        if (code == SAMPLE) {
            EXPECT_EQ(d->fs.time, 1000u + 2 * unsigned(samples));
            EXPECT_EQ(d->fs.gazeX[1], float(1001 + 10 * samples) / 10.0f);
            // 1 unit per sample at 500 per second, 40 units per degree.
            EXPECT_FLOAT_EQ(d->fs.fastGazeVelX[0], 12.5f);
            ++samples;
        } else if (code == MESSAGE) {
            EXPECT_EQ(d->fe.type, MESSAGE);
            EXPECT_EQ(d->fe.startTime, 1004u);
            ASSERT_NE(d->fe.message, nullptr);
            EXPECT_EQ(std::string(d->fe.message->text, 5), "hello");
        }
    }
    EXPECT_EQ(samples, 5);
    EXPECT_EQ(f->currentRecording, nullptr); // the block end was passed
    EXPECT_EQ(f->current, n);
    EXPECT_EQ(f->stepNext(), 0);
    EXPECT_EQ(f->current, n);
}

TEST(Access, FailedReadsGiveNull)
{
    OrbWriter w;
    addBlock(w, 1000, 5, 500.0, [&w](int i, uint32_t t) {
        if (i == 1)
            w.add(EventItem(MESSAGE, -1).start(t).message("a"));
    });
    auto f = open(w);
    LogCapture log;
    const int message = indexOf(*f, MESSAGE);
    ASSERT_GE(message, 0);
    f->items[size_t(message)].position = 1 << 30; // beyond the end
    f->gotoIndex(message);
    f->stepNext();
    EXPECT_EQ(f->getFloatData(), nullptr);
    EXPECT_TRUE(log.contains("Error End of file Exception \n"));

    f->items[size_t(message)].type = 12; // no item class
    log.clear();
    f->gotoIndex(message);
    f->stepNext();
    EXPECT_EQ(f->getFloatData(), nullptr);
    EXPECT_TRUE(log.contains("Read error \n"));
}

TEST(Access, SampleOutsideABlockHasNoVelocities)
{
    OrbWriter w;
    addBlock(w, 1000, 20, 500.0);
    auto f = open(w);
    LogCapture log;
    const int sample = indexOf(*f, SAMPLE, 10);
    f->gotoIndex(sample); // the block start is not passed
    f->stepNext();
    ALLF_DATA* d = f->getFloatData();
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 1020u);
    EXPECT_EQ(d->fs.gazeVelX[0], 0.0f);
    EXPECT_TRUE(log.contains(
        "WARNING: ORB FILE MAY BE CORRUPTED. Samples 1020 found without start recording \n"));
}

TEST(Access, SecondSampleOfAMillisecondIsMarked)
{
    OrbWriter w;
    addBlock(w, 1000, 8, 2000.0);
    auto f = open(w);
    int i = 0;
    while (int code = f->stepNext()) {
        if (code != SAMPLE)
            continue;
        ALLF_DATA* d = f->getFloatData();
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->fs.time, 1000u + unsigned(i / 2));
        EXPECT_EQ(d->fs.flags & 0x0002, i % 2 ? 0x0002 : 0) << i;
        ++i;
    }
    EXPECT_EQ(i, 8);
}

TEST(Access, SamplesInsideBlinksLoseTheirPositions)
{
    OrbWriter w;
    addBlock(w, 1000, 12, 500.0);
    auto f = open(w);
    const int left = indexOf(*f, SAMPLE, 5);
    const int both = indexOf(*f, SAMPLE, 6);
    f->items[size_t(left)].type |= 0x1000;
    f->items[size_t(both)].type |= 0x3000;

    ALLF_DATA* d = readAt(*f, left);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.gazeX[0], kMissing);
    EXPECT_EQ(d->fs.gazeY[0], kMissing);
    EXPECT_EQ(d->fs.rawX[0], kMissing);
    EXPECT_EQ(d->fs.secondY[0], kMissing);
    EXPECT_EQ(d->fs.pupilSize[0], 0.0f);
    EXPECT_EQ(d->fs.gazeX[1], 1051.0f / 10.0f);
    EXPECT_EQ(d->fs.pupilSize[1], 801.0f);
    // The velocities come from the positions as recorded.
    EXPECT_FLOAT_EQ(d->fs.gazeVelX[0], 12.5f);

    d = readAt(*f, both);
    ASSERT_NE(d, nullptr);
    for (int e = 0; e < 2; ++e) {
        EXPECT_EQ(d->fs.gazeX[e], kMissing);
        EXPECT_EQ(d->fs.rawY[e], kMissing);
        EXPECT_EQ(d->fs.secondX[e], kMissing);
        EXPECT_EQ(d->fs.pupilSize[e], 0.0f);
    }
    // The queue keeps the recorded positions for the neighbours.
    d = readAt(*f, both + 1);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.gazeX[0], 107.0f);
    EXPECT_FLOAT_EQ(d->fs.gazeVelX[0], 12.5f);
}

// ---- read-time repairs of event times ---------------------------------------

namespace {

// Saccades, blinks and fixations of the left eye inside one block.
OrbWriter eventRecording()
{
    OrbWriter w;
    addBlock(w, 1000, 300, 500.0, [&w](int i, uint32_t t) {
        switch (i) {
        case 10: w.add(EventItem(SSACC, 0).start(t)); break;                  // 1020
        case 12: w.add(EventItem(SBLINK, 0).start(t)); break;                 // 1024
        case 20: w.add(EventItem(EBLINK, 0).start(1024).end(t)); break;       // 1040
        case 25: w.add(EventItem(ESACC, 0).start(1023).end(t)); break;        // 1050
        case 30: w.add(EventItem(SSACC, 0).start(t)); break;                  // 1060
        case 35: w.add(EventItem(ESACC, 0).start(1062).end(t)); break;        // 1070
        case 40: w.add(EventItem(SFIX, 0).start(t)); break;                   // 1080
        case 50: w.add(EventItem(EFIX, 0).start(1081).end(t)); break;         // 1100
        case 60: w.add(EventItem(EFIX, 0).start(1111).end(t)); break;         // 1120
        case 70: w.add(EventItem(EFIX, 1).start(1131).end(t)); break;         // 1140
        default: break;
        }
    });
    return w;
}

// Start times of the events of `code`, in index order, as handed out.
std::vector<uint32_t> startTimes(ORBFile& f, unsigned code)
{
    std::vector<uint32_t> out;
    while (int c = f.stepNext()) {
        if (unsigned(c) != code)
            continue;
        ALLF_DATA* d = f.getFloatData();
        EXPECT_NE(d, nullptr);
        out.push_back(d ? d->fe.startTime : 0);
    }
    return out;
}

} // namespace

TEST(EventRepair, SaccadeAndFixationStartsInRepairMode)
{
    OrbWriter w = eventRecording();
    {
        auto f = open(w, 2);
        ASSERT_TRUE(f->fixupMode);
        // A saccade with a blink in it starts at its start event; one
        // without keeps its own start.
        EXPECT_EQ(startTimes(*f, ESACC), (std::vector<uint32_t>{1020, 1062}));
    }
    {
        auto f = open(w, 2);
        // A fixation end takes its start's time; the start is kept for a
        // later end without one; an eye that never had a start gets -1.
        EXPECT_EQ(startTimes(*f, EFIX), (std::vector<uint32_t>{1080, 1080, kUnset}));
    }
    for (int mode : {0, 1}) {
        auto f = open(w, mode);
        EXPECT_EQ(startTimes(*f, ESACC), (std::vector<uint32_t>{1023, 1062})) << mode;
        auto g = open(w, mode);
        EXPECT_EQ(startTimes(*g, EFIX), (std::vector<uint32_t>{1081, 1111, 1131})) << mode;
    }
}

TEST(EventRepair, StartsAreTakenAsTheyArePassed)
{
    OrbWriter w = eventRecording();
    auto f = open(w, 2);
    const int ssacc = indexOf(*f, SSACC);
    const int sblink = indexOf(*f, SBLINK);
    while (f->current <= ssacc)
        f->stepNext(); // passed, not read by the caller
    EXPECT_EQ(f->eventPairs[0][ORBFile::kPairSaccStart], 1020u);
    EXPECT_EQ(f->eventPairs[0][ORBFile::kPairBlinkStart], kUnset);
    while (f->current <= sblink)
        f->stepNext();
    EXPECT_EQ(f->eventPairs[0][ORBFile::kPairBlinkStart], 1024u);
    EXPECT_EQ(f->eventPairs[1][ORBFile::kPairSaccStart], kUnset);

}

TEST(EventRepair, RetimedAndMergedBlinks)
{
    OrbWriter w;
    addBlock(w, 1000, 100, 500.0, [&w](int i, uint32_t t) {
        switch (i) {
        case 10: w.add(EventItem(SBLINK, 0).start(t)); break;            // 1020
        case 12: w.add(EventItem(SBLINK, 1).start(t)); break;            // 1024, other eye
        case 14: w.add(EventItem(SSACC, 1).start(t)); break;             // 1028, other eye
        case 20: w.add(EventItem(EBLINK, 0).start(1036).end(t)); break;  // 1040
        case 30: w.add(EventItem(SBLINK, 0).start(t)); break;            // 1060
        default: break;
        }
    });
    auto f = open(w);
    f->fixupMode = true;
    const int end = indexOf(*f, EBLINK);
    const int start = indexOf(*f, SBLINK, 2);
    // A blink end marked as merged starts with the nearest earlier blink
    // start of its eye; the other eye's events are passed over.
    f->items[size_t(end)].type |= 0x2000;
    // A blink start moved onto an orphaned blink end starts there.
    f->items[size_t(start)].type |= 0x1000;
    f->items[size_t(start)].timeKey = 2 * 1050;

    ALLF_DATA* d = readAt(*f, end);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fe.startTime, 1020u);
    EXPECT_EQ(f->eventPairs[0][ORBFile::kPairBlinkEnd], 1020u);
    d = readAt(*f, start);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fe.startTime, 1050u);
    EXPECT_EQ(f->eventPairs[0][ORBFile::kPairBlinkStart], 1050u);

    // Without the mark the blink end keeps its own start.
    auto g = open(w);
    g->fixupMode = true;
    d = readAt(*g, end);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fe.startTime, 1036u);
}

// ---- positioning --------------------------------------------------------------

TEST(Positioning, GotoIndexOnlyWithinTheIndex)
{
    OrbWriter w;
    addBlock(w, 1000, 10, 500.0);
    auto f = open(w);
    const int n = int(f->items.size());
    EXPECT_EQ(f->gotoIndex(4), n);
    EXPECT_EQ(f->current, 4);
    for (int bad : {-1, n, n + 7}) {
        EXPECT_EQ(f->gotoIndex(bad), n);
        EXPECT_EQ(f->current, 4);
    }
    EXPECT_EQ(f->gotoIndex(n - 1), n);
    EXPECT_EQ(f->stepNext(), int(f->items[size_t(n - 1)].code()));
    EXPECT_EQ(f->stepNext(), 0);
}

TEST(Positioning, SampleCloseToTime)
{
    OrbWriter w;
    // No block start: the first entry is a sample.
    for (uint32_t i = 0; i < 20; ++i) {
        SampleItem s;
        s.time = 500 + 2 * i;
        s.flags = kSampleBit | kFullTime | kLeft | kGaze;
        s.gaze[0][0] = int16_t(i);
        w.add(s);
        if (i == 7)
            w.add(EventItem(MESSAGE, -1).start(s.time).message("same time"));
    }
    auto f = open(w);
    LogCapture log; // the samples lie outside any block
    ASSERT_EQ(f->items[0].code(), unsigned(SAMPLE));
    // Before the first step: read all the same, and still no step taken.
    ALLF_DATA* d = f->getSampleCloseToTime(2 * 504);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 504u);
    EXPECT_EQ(f->current, 0);
    EXPECT_FALSE(f->itemRequested);

    // Positioned and stepping started elsewhere; restored afterwards.
    f->stepNext();
    f->stepNext();
    EXPECT_EQ(f->getSampleCloseToTime(2 * 500), nullptr);
    EXPECT_EQ(f->current, 2);

    d = f->getSampleCloseToTime(2 * 514);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 514u);
    EXPECT_EQ(d->fs.gazeX[0], 7.0f);
    EXPECT_EQ(f->current, 2);

    for (uint32_t i = 1; i < 20; ++i) {
        d = f->getSampleCloseToTime(2 * (500 + 2 * i));
        ASSERT_NE(d, nullptr) << i;
        EXPECT_EQ(d->fs.gazeX[0], float(i));
    }
    for (unsigned key : {0u, 1001u, 1002u + 1, 2u * 539, 2u * 600, 0xFFFFFFFFu})
        EXPECT_EQ(f->getSampleCloseToTime(key), nullptr) << key;
}

TEST(Positioning, FindIndexPrefersTheSampleAndStaysInside)
{
    OrbWriter w;
    addBlock(w, 1000, 400, 1000.0, [&w](int i, uint32_t t) {
        if (i % 7 == 3)
            w.add(EventItem(MESSAGE, -1).start(t).message("m"));
        if (i % 11 == 5)
            w.add(EventItem(SFIX, 0).start(t));
    });
    auto f = open(w);
    const int n = int(f->items.size());
    int found = 0;
    for (int i = 0; i < n; ++i) {
        if (f->items[size_t(i)].code() != SAMPLE)
            continue;
        const unsigned key = unsigned(f->items[size_t(i)].timeKey);
        EXPECT_EQ(f->findIndex(key, 0, n), i) << i;
        ++found;
    }
    EXPECT_EQ(found, 400);
    EXPECT_EQ(f->findIndex(2 * 1400, 0, n), -1); // after every item
    EXPECT_EQ(f->findIndex(2 * 999, 0, n), -1);
    EXPECT_EQ(f->findIndex(2 * 1010, 5, 4), -1);
    EXPECT_EQ(f->findIndex(2 * 1010, 0, 0), -1);
}

// ---- a whole walk, straight and after jumps -----------------------------------

TEST(Walk, RecordsDoNotDependOnWhereTheCursorWasBefore)
{
    OrbWriter w;
    auto events = [&w](int i, uint32_t t) {
        if (i % 97 == 5)
            w.add(EventItem(MESSAGE, -1).start(t).message("TRIALID " + std::to_string(i)));
        if (i % 50 == 10)
            w.add(EventItem(SFIX, i % 100 == 10 ? 0 : 1).start(t));
        if (i % 50 == 30)
            w.add(EventItem(EFIX, i % 100 == 30 ? 0 : 1).start(t - 20).end(t));
        if (i % 200 == 40)
            w.add(EventItem(SSACC, 0).start(t));
        if (i % 200 == 45)
            w.add(EventItem(ESACC, 0).start(t - 5).end(t));
    };
    addBlock(w, 10000, 1500, 1000.0, events);
    addBlock(w, 20000, 1200, 1000.0, events);
    auto f = open(w);
    LogCapture log;
    const std::vector<ALLF_DATA> straight = walk(*f);
    ASSERT_EQ(straight.size(), f->items.size());
    const int secondBlock = indexOf(*f, RECORDING, 2);
    ASSERT_GT(secondBlock, 0);
    ASSERT_EQ(f->items[size_t(secondBlock)].rec->state, 1);

    // Jump around: back and forth, into both blocks, reading a few items,
    // sometimes from within a block and sometimes from outside.
    std::mt19937 rng(7);
    const int n = int(f->items.size());
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
            if (f->items[size_t(at)].code() != SAMPLE) {
                EXPECT_EQ(std::memcmp(d, &expected, sizeof(ALLF_DATA)), 0) << at;
            } else {
                // All but the velocities, which depend on the neighbours
                // read so far.
                EXPECT_EQ(std::memcmp(d, &expected, offsetof(FSAMPLE, gazeVelX)), 0) << at;
                EXPECT_EQ(std::memcmp(&d->fs.extraData, &expected.fs.extraData,
                                      sizeof(FSAMPLE) - offsetof(FSAMPLE, extraData)),
                          0)
                    << at;
            }
        }
    }

    f->gotoIndex(0);
    const std::vector<ALLF_DATA> again = walk(*f);
    ASSERT_EQ(again.size(), straight.size());
    for (size_t i = 0; i < again.size(); ++i)
        ASSERT_EQ(std::memcmp(&again[i], &straight[i], sizeof(ALLF_DATA)), 0) << "entry " << i;
}
