// Consistency repair of the index (stray samples, a misplaced block end,
// blink bookkeeping, joined blinks, samples inside blinks) and the time
// adjustment of the records handed out.
#include <gtest/gtest.h>

#include "Internals.h"

using namespace orbtest;

namespace {

constexpr int kCheck = 1;
constexpr int kRepair = 2;

EventItem blinkStart(uint32_t t, int eye) { return EventItem(SBLINK, eye).start(t); }
EventItem blinkEnd(uint32_t from, uint32_t to, int eye) { return EventItem(EBLINK, eye).start(from).end(to); }

// Times of the samples whose type carries the flag.
std::vector<uint64_t> flagged(const ORBFile& f, uint16_t flag)
{
    std::vector<uint64_t> times;
    for (const ORBItem& i : f.index.items)
        if (i.code() == SAMPLE && (i.type & flag)) times.push_back(i.key() / 2);
    return times;
}

// The start time of entry `index` as handed out.
uint32_t startTimeAt(ORBFile& f, int index)
{
    f.gotoIndex(index);
    f.stepNext();
    const ALLF_DATA* d = f.getFloatData();
    return d ? d->fe.startTime : 0;
}

std::string stray(int t)
{
    return "WARNING: ORB FILE MAY BE CORRUPTED. Sample at " + std::to_string(t) +
           " found without start recording. Skipping this sample \n";
}

} // namespace

TEST(StraySamples, AreDroppedInBothModes)
{
    OrbWriter w;
    addSamples(w, {900, 950});
    startBlock(w, 1000);
    addSampleRun(w, 1000, 1002);
    endBlock(w, 1002);
    w.add(sampleAt(1003)); // between blocks
    startBlock(w, 1200);
    endBlock(w, 1201);
    for (int mode : {kCheck, kRepair}) {
        LogCapture log;
        EXPECT_EQ(countCode(*openOrb(w, mode), SAMPLE), 3u) << mode;
        EXPECT_EQ(log.lines(), (Lines{stray(900), stray(950), stray(1003)})) << mode;
    }
    EXPECT_EQ(countCode(*openOrb(w, 0), SAMPLE), 6u) << "no checking without a mode";
}

// Block 1 ends at the instant block 2 starts (key 2006), and the tracker
// wrote the new block's start before the old block's end: the sort leaves
// the end behind the start and the first sample of block 2.
TEST(MisplacedBlockEnd, IsMovedInFrontOfTheNextStartWithoutSortingAgain)
{
    OrbWriter w;
    w.add(blockStart(SSAMPLES, 1000, 1000.0, kSampleItem | kBothEyes | kGazeGroup, 1));
    w.add(sampleAt(1000));
    w.add(blockStart(SSAMPLES, 1003, 1000.0, kSampleItem | kBothEyes | kGazeGroup, 1));
    w.add(blockEnd(ESAMPLES, 1003));
    addSampleRun(w, 1003, 1005);
    w.add(blinkEnd(1001, 1004, 0)); // its start lies in block 1
    w.add(blinkStart(1005, 0));
    w.add(blockEnd(ESAMPLES, 1006));
    auto boundaryStates = [](const ORBFile& f) {
        std::vector<int> states;
        for (const ORBItem& i : f.index.items)
            if (i.code() == RECORDING && i.key() == 2006) states.push_back(i.rec->state);
        return states;
    };
    ASSERT_EQ(boundaryStates(*openOrb(w, 0)), (std::vector<int>{1, 0})) << "the situation repaired";
    for (int mode : {kCheck, kRepair}) {
        LogCapture log;
        auto f = openOrb(w, mode);
        EXPECT_EQ(countCode(*f, SAMPLE), 4u) << "no sample removed";
        EXPECT_TRUE(linesWith(log, "WARNING").empty());
        EXPECT_EQ(boundaryStates(*f), (std::vector<int>{0, 1}));
        EXPECT_EQ(f->index.items[size_t(indexOf(*f, RECORDING, 1)) - 1].key(), 2000u)
            << "where the start stood, after block 1's sample";
    }
    // The blink start, re-timed onto the orphaned end, would move on a new
    // sort; it stays.
    auto f = openOrb(w, kRepair);
    const int start = indexOf(*f, SBLINK);
    EXPECT_EQ(f->index.items[size_t(start)].type, kFlagEye0 | kEyeMarkerLeft | SBLINK);
    EXPECT_EQ(f->index.items[size_t(start)].key(), 2008u);
    EXPECT_EQ(f->index.items[size_t(start) - 1].code(), EBLINK) << "not sorted in front of the orphaned end";
    EXPECT_EQ(f->index.items[size_t(start) + 1].key(), 2010u);
}

TEST(Blinks, ReassignLinesCarryTheKey)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSampleRun(w, 1000, 1010);
    w.add(blinkEnd(1001, 1003, 0));
    w.add(blinkEnd(1004, 1005, 0));
    w.add(blinkStart(1002, 1));
    w.add(blinkStart(1004, 1));
    endBlock(w, 1011);
    LogCapture log;
    openOrb(w, kCheck);
    EXPECT_EQ(linesWith(log, "REASSIGN"), (Lines{"SBLINK REASSIGN 2008 \n", "EBLINK REASSIGN 2010 \n"}));
}

TEST(Blinks, OrphanedEndRetimesTheNextStartOfItsEye)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSampleRun(w, 1000, 1010);
    w.add(blinkEnd(990, 1003, 0)); // orphaned
    w.add(blinkStart(1005, 1));    // the other eye: untouched
    w.add(blinkEnd(1005, 1006, 1));
    w.add(blinkStart(1007, 0));
    w.add(blinkEnd(1007, 1008, 0));
    endBlock(w, 1011);

    auto f = openOrb(w, kRepair);
    const int left = indexOf(*f, SBLINK, 0, 0);
    EXPECT_EQ(startTimeAt(*f, left), 1003u) << "read back at its new time";
    EXPECT_EQ(f->index.items[size_t(left)].key(), 2006u);
    EXPECT_EQ(f->index.items[size_t(left)].type, kFlagEye0 | kEyeMarkerLeft | SBLINK);
    EXPECT_EQ(f->index.items[size_t(left) + 1].code(), SAMPLE) << "sorted again, in front of its instant's sample";
    EXPECT_EQ(f->index.items[size_t(left) + 1].key(), 2006u);
    EXPECT_EQ(itemOf(*f, SBLINK, 0, 1).type, kEyeMarkerRight | SBLINK);
    EXPECT_EQ(itemOf(*f, SBLINK, 0, 1).key(), 2010u);

    auto checked = openOrb(w, kCheck);
    EXPECT_EQ(itemOf(*checked, SBLINK, 0, 0).type, kEyeMarkerLeft | SBLINK);
    EXPECT_EQ(itemOf(*checked, SBLINK, 0, 0).key(), 2014u);
}

TEST(Blinks, TwoBlinksInOneSaccadeBecomeOne)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSampleRun(w, 1000, 1012);
    for (int eye : {0, 1}) {
        w.add(EventItem(SSACC, eye).start(1002));
        w.add(blinkStart(1003, eye)).add(blinkEnd(1003, 1005, eye));
        w.add(blinkStart(1007, eye)).add(blinkEnd(1007, 1009, eye));
        w.add(EventItem(ESACC, eye).start(1002).end(1010));
    }
    // A saccade with one blink stays as it is.
    w.add(EventItem(SSACC, 0).start(1011));
    w.add(blinkStart(1011, 0)).add(blinkEnd(1011, 1012, 0));
    w.add(EventItem(ESACC, 0).start(1011).end(1012));
    endBlock(w, 1013);

    auto f = openOrb(w, kRepair);
    EXPECT_EQ(countCode(*f, SAMPLE), 13u);
    EXPECT_EQ(keysOf(*f, SBLINK), (std::vector<uint64_t>{2006, 2006, 2022}));
    EXPECT_EQ(keysOf(*f, EBLINK), (std::vector<uint64_t>{2018, 2018, 2024}));
    for (int eye : {0, 1}) EXPECT_TRUE(itemOf(*f, EBLINK, 0, eye).type & kFlagEye1) << eye;
    EXPECT_FALSE(itemOf(*f, EBLINK, 1, 0).type & kFlagEye1);
    // Samples inside a blink, per eye.
    EXPECT_EQ(flagged(*f, kFlagEye0), (std::vector<uint64_t>{1003, 1004, 1005, 1006, 1007, 1008, 1009, 1011, 1012}));
    EXPECT_EQ(flagged(*f, kFlagEye1), (std::vector<uint64_t>{1003, 1004, 1005, 1006, 1007, 1008, 1009}));
    // Read back, a merged end starts with the nearest earlier blink start of
    // its eye, passing over the other eye's events.
    for (int eye : {0, 1}) EXPECT_EQ(startTimeAt(*f, indexOf(*f, EBLINK, 0, eye)), 1003u) << eye;
    EXPECT_EQ(startTimeAt(*f, indexOf(*f, EBLINK, 1, 0)), 1011u);

    // Checking alone neither joins nor flags.
    auto checked = openOrb(w, kCheck);
    EXPECT_EQ(countCode(*checked, SBLINK) + countCode(*checked, EBLINK), 10u);
    EXPECT_TRUE(flagged(*checked, kFlagEye0 | kFlagEye1).empty());
}

// ---------------------------------------------------------------------------
// Time adjustment

namespace {

// A block at `base`; adjusts a record as if handed out at the first sample
// or at the fixation end.
struct Adjusting {
    std::unique_ptr<ORBFile> file;
    ALLF_DATA d{};

    explicit Adjusting(uint32_t base, int options = 0)
    {
        OrbWriter w;
        startBlock(w, base);
        addSampleRun(w, base, base + 3);
        w.add(EventItem(EFIX, 0).start(base + 1).end(base + 2));
        endBlock(w, base + 4);
        file = openOrb(w, options);
    }
    uint32_t sampleTime(uint32_t t)
    {
        file->current = indexOf(*file, SAMPLE) + 1; // counted from 1
        d.fs.time = t;
        file->adjustTimes(&d);
        return d.fs.time;
    }
    std::vector<uint32_t> eventTimes(uint32_t time, uint32_t start, uint32_t end)
    {
        file->current = indexOf(*file, EFIX) + 1;
        d.fe.time = time;
        d.fe.startTime = start;
        d.fe.endTime = end;
        file->adjustTimes(&d);
        return {d.fe.time, d.fe.startTime, d.fe.endTime};
    }
};

} // namespace

TEST(AdjustTimes, TheFirstRecordDecides)
{
    Adjusting small(1000);
    EXPECT_EQ(small.sampleTime(1000), 1000u);
    EXPECT_EQ(small.sampleTime(300000000), 300000000u) << "decided once for the file";

    const uint32_t base = 300000000;
    Adjusting large(base);
    LogCapture log;
    EXPECT_EQ(large.sampleTime(base), 0u);
    EXPECT_EQ(large.sampleTime(base + 7), 7u);
    EXPECT_EQ(large.eventTimes(base + 1, base + 1, base + 2), (std::vector<uint32_t>{1, 1, 2}));
    large.file->current = 1; // the block-start record
    large.d.rec.time = base + 3;
    large.file->adjustTimes(&large.d);
    EXPECT_EQ(large.d.rec.time, 3u);
    EXPECT_EQ(log.lines(), Lines{"Enabling time offset fixup\n"});

    // An event first: the earlier of its time and start time, or the start
    // time when its time is 0.
    EXPECT_EQ(Adjusting(250000000).eventTimes(250000005, 250000002, 250000009), (std::vector<uint32_t>{3, 0, 7}));
    Adjusting noTime(250000000);
    noTime.eventTimes(0, 250000004, 250000009);
    EXPECT_EQ(noTime.file->timeOffset, 250000004u);

    EXPECT_EQ(Adjusting(base, 8).sampleTime(base), base) << "switched off by the option bit";
}

TEST(AdjustTimes, UnknownEntriesAreLogged)
{
    Adjusting a(300000000);
    LogCapture log;
    a.d.fs.time = 300000000;
    for (int32_t cursor : {0, int32_t(a.file->index.items.size()) + 1}) {
        a.file->current = cursor;
        a.file->adjustTimes(&a.d);
    }
    a.file->current = 1;
    a.file->index.items[0].type = 12; // neither a record nor an event
    a.file->adjustTimes(&a.d);
    EXPECT_EQ(a.d.fs.time, 300000000u);
    EXPECT_EQ(a.file->timeOffset, 0u);
    EXPECT_EQ(log.lines(), (Lines{"Unknown type 0\n", "Unknown type 0\n", "Unknown type 12\n"}));
}
