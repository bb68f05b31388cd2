// Consistency repair of the index (stray samples, a misplaced block end,
// blink bookkeeping, joined blinks, samples inside blinks) and the time
// adjustment of the records handed out.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ORBFile.h"
#include "OrbWriter.h"

using namespace orbtest;

namespace {

constexpr int kCheck = 1;
constexpr int kRepair = 2;

std::unique_ptr<ORBFile> openFile(const OrbWriter& w, int options)
{
    return std::make_unique<ORBFile>(w.write().c_str(), options, true, true);
}

SampleItem sampleAt(uint32_t t)
{
    SampleItem s;
    s.flags = kSampleBit | kFullTime | kGaze | kLeft | kRight;
    s.time = t;
    return s;
}
void addSamples(OrbWriter& w, uint32_t from, uint32_t to)
{
    for (uint32_t t = from; t <= to; ++t) w.add(sampleAt(t));
}
void startBlock(OrbWriter& w, uint32_t t)
{
    w.add(blockStart(15, t, 1000.0, kSampleBit | kLeft | kRight | kGaze, 1));
    w.add(blockStart(17, t, 1000.0, 0, 1, 10, 0x0312, 0xC000));
}
void endBlock(OrbWriter& w, uint32_t t)
{
    w.add(blockEnd(16, t));
    w.add(blockEnd(18, t));
}
EventItem blinkStart(uint32_t t, int eye) { return EventItem(SBLINK, eye).start(t); }
EventItem blinkEnd(uint32_t from, uint32_t to, int eye) { return EventItem(EBLINK, eye).start(from).end(to); }

// Index of the first entry at or after `from` with this code (and eye), or -1.
long find(const ORBFile& f, unsigned code, int eye = -1, size_t from = 0)
{
    for (size_t i = from; i < f.items.size(); ++i)
        if (f.items[i].code() == code && (eye < 0 || (f.items[i].type & kEyeMarkerMask) == (eye ? 0x200 : 0x100)))
            return long(i);
    return -1;
}
size_t countCode(const ORBFile& f, unsigned code)
{
    size_t n = 0;
    for (const ORBItem& i : f.items) n += i.code() == code;
    return n;
}
std::vector<std::string> lines(const LogCapture& log, const std::string& part)
{
    std::vector<std::string> out;
    for (const std::string& l : log.lines())
        if (l.find(part) != std::string::npos) out.push_back(l);
    return out;
}
// Times of the samples whose type carries the flag.
std::vector<uint64_t> flagged(const ORBFile& f, uint16_t flag)
{
    std::vector<uint64_t> times;
    for (const ORBItem& i : f.items)
        if (i.code() == SAMPLE && (i.type & flag)) times.push_back(i.key() / 2);
    return times;
}
std::string stray(int t)
{
    return "WARNING: ORB FILE MAY BE CORRUPTED. Sample at " + std::to_string(t) +
           " found without start recording. Skipping this sample \n";
}

} // namespace

// ---------------------------------------------------------------------------
// Samples outside recording blocks

TEST(StraySamples, AreDroppedInBothModes)
{
    OrbWriter w;
    w.add(sampleAt(900));
    w.add(sampleAt(950));
    startBlock(w, 1000);
    addSamples(w, 1000, 1002);
    endBlock(w, 1003);
    for (int mode : {kCheck, kRepair}) {
        LogCapture log;
        EXPECT_EQ(countCode(*openFile(w, mode), SAMPLE), 3u) << mode;
        EXPECT_EQ(lines(log, "WARNING"), (std::vector<std::string>{stray(900), stray(950)})) << mode;
    }
    EXPECT_EQ(countCode(*openFile(w, 0), SAMPLE), 5u) << "no checking without a mode";

    // Between blocks, and very many of them (one pass drops them all).
    OrbWriter many;
    for (uint32_t t = 1; t <= 30000; ++t) many.add(sampleAt(t));
    startBlock(many, 40000);
    addSamples(many, 40000, 40001);
    endBlock(many, 40002);
    many.add(sampleAt(40100));
    startBlock(many, 40200);
    endBlock(many, 40201);
    LogCapture log;
    EXPECT_EQ(countCode(*openFile(many, kCheck), SAMPLE), 2u);
    EXPECT_EQ(lines(log, "WARNING").size(), 30001u);
    EXPECT_EQ(lines(log, "WARNING").back(), stray(40100));
}

// ---------------------------------------------------------------------------
// A block end sorted behind the start of the next block

namespace {

// Block 1 ends at the instant block 2 starts (key 2006), and the tracker
// wrote the new block's start before the old block's end: the sort leaves
// the end behind the start and the first sample of block 2.
OrbWriter backToBackBlocks(bool withOrphanBlink)
{
    OrbWriter w;
    w.add(blockStart(15, 1000, 1000.0, kSampleBit | kLeft | kRight | kGaze, 1));
    w.add(sampleAt(1000));
    w.add(blockStart(15, 1003, 1000.0, kSampleBit | kLeft | kRight | kGaze, 1));
    w.add(blockEnd(16, 1003));
    addSamples(w, 1003, 1005);
    if (withOrphanBlink) {
        w.add(blinkEnd(1001, 1004, 0)); // its start lies in block 1
        w.add(blinkStart(1005, 0));
    }
    w.add(blockEnd(16, 1006));
    return w;
}

std::vector<int> boundaryStates(const ORBFile& f)
{
    std::vector<int> states;
    for (const ORBItem& i : f.items)
        if (i.code() == RECORDING && i.key() == 2006) states.push_back(i.rec->state);
    return states;
}

} // namespace

TEST(MisplacedBlockEnd, IsMovedInFrontOfTheNextStart)
{
    OrbWriter w = backToBackBlocks(false);
    ASSERT_EQ(boundaryStates(*openFile(w, 0)), (std::vector<int>{1, 0})) << "the situation repaired";
    for (int mode : {kCheck, kRepair}) {
        LogCapture log;
        auto f = openFile(w, mode);
        EXPECT_EQ(countCode(*f, SAMPLE), 4u) << "no sample removed";
        EXPECT_TRUE(lines(log, "WARNING").empty());
        EXPECT_EQ(boundaryStates(*f), (std::vector<int>{0, 1}));
        long end = find(*f, RECORDING, -1, 1);
        EXPECT_EQ(f->items[size_t(end - 1)].key(), 2000u) << "where the start stood, after block 1's sample";
    }
}

TEST(MisplacedBlockEnd, RepairDoesNotSortAgainAfterTheMove)
{
    // The re-timed blink start would move on a new sort; it stays.
    auto f = openFile(backToBackBlocks(true), kRepair);
    long start = find(*f, SBLINK, 0);
    ASSERT_GT(start, 0);
    EXPECT_EQ(f->items[size_t(start)].type, 0x1000 | 0x100 | SBLINK);
    EXPECT_EQ(f->items[size_t(start)].key(), 2008u);
    EXPECT_EQ(f->items[size_t(start) - 1].code(), EBLINK) << "not sorted in front of the orphaned end";
    EXPECT_EQ(f->items[size_t(start) + 1].key(), 2010u);
}

// ---------------------------------------------------------------------------
// Blinks

TEST(Blinks, ReassignLinesCarryTheKey)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSamples(w, 1000, 1010);
    w.add(blinkEnd(1001, 1003, 0));
    w.add(blinkEnd(1004, 1005, 0));
    w.add(blinkStart(1002, 1));
    w.add(blinkStart(1004, 1));
    endBlock(w, 1011);
    LogCapture log;
    openFile(w, kCheck);
    EXPECT_EQ(lines(log, "REASSIGN"), (std::vector<std::string>{"SBLINK REASSIGN 2008 \n", "EBLINK REASSIGN 2010 \n"}));
}

TEST(Blinks, OrphanedEndRetimesTheNextStartOfItsEye)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSamples(w, 1000, 1010);
    w.add(blinkEnd(990, 1003, 0)); // orphaned
    w.add(blinkStart(1005, 1));    // the other eye: untouched
    w.add(blinkEnd(1005, 1006, 1));
    w.add(blinkStart(1007, 0));
    w.add(blinkEnd(1007, 1008, 0));
    endBlock(w, 1011);

    auto f = openFile(w, kRepair);
    long left = find(*f, SBLINK, 0), right = find(*f, SBLINK, 1);
    EXPECT_EQ(f->items[size_t(left)].key(), 2006u);
    EXPECT_EQ(f->items[size_t(left)].type, 0x1000 | 0x100 | SBLINK);
    EXPECT_EQ(f->items[size_t(right)].type, 0x200 | SBLINK);
    EXPECT_EQ(f->items[size_t(right)].key(), 2010u);
    // Sorted again: in front of the sample of its new instant.
    EXPECT_EQ(f->items[size_t(left) + 1].code(), SAMPLE);
    EXPECT_EQ(f->items[size_t(left) + 1].key(), 2006u);

    auto checked = openFile(w, kCheck);
    EXPECT_EQ(checked->items[size_t(find(*checked, SBLINK, 0))].type, 0x100 | SBLINK);
    EXPECT_EQ(checked->items[size_t(find(*checked, SBLINK, 0))].key(), 2014u);
}

TEST(Blinks, TwoBlinksInOneSaccadeBecomeOne)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSamples(w, 1000, 1012);
    for (int eye : {0, 1}) w.add(EventItem(SSACC, eye).start(1002));
    for (int eye : {0, 1}) w.add(blinkStart(1003, eye));
    for (int eye : {0, 1}) w.add(blinkEnd(1003, 1005, eye));
    for (int eye : {0, 1}) w.add(blinkStart(1007, eye));
    for (int eye : {0, 1}) w.add(blinkEnd(1007, 1009, eye));
    for (int eye : {0, 1}) w.add(EventItem(ESACC, eye).start(1002).end(1010));
    // A saccade with one blink stays as it is.
    w.add(EventItem(SSACC, 0).start(1011));
    w.add(blinkStart(1011, 0));
    w.add(blinkEnd(1011, 1012, 0));
    w.add(EventItem(ESACC, 0).start(1011).end(1012));
    endBlock(w, 1013);

    auto f = openFile(w, kRepair);
    EXPECT_EQ(countCode(*f, SAMPLE), 13u);
    EXPECT_EQ(countCode(*f, SBLINK), 3u);
    EXPECT_EQ(countCode(*f, EBLINK), 3u);
    for (int eye : {0, 1}) {
        long end = find(*f, EBLINK, eye);
        EXPECT_EQ(f->items[size_t(find(*f, SBLINK, eye))].key(), 2006u) << eye;
        EXPECT_EQ(f->items[size_t(end)].key(), 2018u) << eye;
        EXPECT_TRUE(f->items[size_t(end)].type & 0x2000) << eye;
    }
    EXPECT_FALSE(f->items[size_t(find(*f, EBLINK, 0, size_t(find(*f, EBLINK, 0)) + 1))].type & 0x2000);
    // Samples inside a blink, per eye.
    EXPECT_EQ(flagged(*f, 0x1000), (std::vector<uint64_t>{1003, 1004, 1005, 1006, 1007, 1008, 1009, 1011, 1012}));
    EXPECT_EQ(flagged(*f, 0x2000), (std::vector<uint64_t>{1003, 1004, 1005, 1006, 1007, 1008, 1009}));

    // Checking alone neither joins nor flags.
    auto checked = openFile(w, kCheck);
    EXPECT_EQ(countCode(*checked, SBLINK) + countCode(*checked, EBLINK), 10u);
    EXPECT_TRUE(flagged(*checked, 0x3000).empty());
}

// ---------------------------------------------------------------------------
// Time adjustment

namespace {

// A block at `base`; the cursor (counted from 1) is set by the tests.
struct Adjusting {
    std::unique_ptr<ORBFile> file;
    int32_t sample, event;
    ALLF_DATA d{};

    explicit Adjusting(uint32_t base, int options = 0)
    {
        OrbWriter w;
        startBlock(w, base);
        addSamples(w, base, base + 3);
        w.add(EventItem(EFIX, 0).start(base + 1).end(base + 2));
        endBlock(w, base + 4);
        file = openFile(w, options);
        sample = int32_t(find(*file, SAMPLE) + 1);
        event = int32_t(find(*file, EFIX) + 1);
    }
    uint32_t sampleTime(uint32_t t)
    {
        file->current = sample;
        d.fs.time = t;
        file->adjustTimes(&d);
        return d.fs.time;
    }
    std::vector<uint32_t> eventTimes(uint32_t time, uint32_t start, uint32_t end)
    {
        file->current = event;
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
    EXPECT_TRUE(small.file->timeFixupOff);
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
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Enabling time offset fixup\n"});

    // An event first: the earlier of its time and start time, or the start
    // time when its time is 0.
    Adjusting event(250000000);
    EXPECT_EQ(event.eventTimes(250000005, 250000002, 250000009), (std::vector<uint32_t>{3, 0, 7}));
    Adjusting noTime(250000000);
    noTime.eventTimes(0, 250000004, 250000009);
    EXPECT_EQ(noTime.file->timeOffset, 250000004u);
}

TEST(AdjustTimes, OptionBitAndUnknownEntries)
{
    Adjusting off(300000000, 8);
    EXPECT_EQ(off.sampleTime(300000000), 300000000u);

    Adjusting a(300000000);
    LogCapture log;
    a.d.fs.time = 300000000;
    for (int32_t cursor : {0, int32_t(a.file->items.size()) + 1}) {
        a.file->current = cursor;
        a.file->adjustTimes(&a.d);
    }
    a.file->current = 1;
    a.file->items[0].type = 12; // neither a record nor an event
    a.file->adjustTimes(&a.d);
    EXPECT_EQ(a.d.fs.time, 300000000u);
    EXPECT_EQ(a.file->timeOffset, 0u);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Unknown type 0\n", "Unknown type 0\n", "Unknown type 12\n"}));
}
