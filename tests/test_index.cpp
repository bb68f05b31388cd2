// The item index: keys and entries of the pre-scan, gap filling, block
// pairing, load filters, damaged files, the order of entries and the sort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ItemSort.h"
#include "ORBException.h"
#include "ORBFile.h"
#include "OrbWriter.h"

using namespace orbtest;

namespace {

std::unique_ptr<ORBFile> openFile(const OrbWriter& w, int options = 0, bool events = true, bool samples = true)
{
    return std::make_unique<ORBFile>(w.write().c_str(), options, events, samples);
}

std::string openError(const OrbWriter& w)
{
    try {
        openFile(w);
    } catch (const ORBException& e) {
        return e.what();
    }
    return "(opened)";
}

SampleItem sampleAt(uint32_t t, uint16_t more = 0)
{
    SampleItem s;
    s.flags = uint16_t(kSampleBit | kFullTime | kLeft | kGaze | more);
    s.time = t;
    return s;
}

void addSamples(OrbWriter& w, std::vector<uint32_t> times)
{
    for (uint32_t t : times) w.add(sampleAt(t));
}

// Both block starts (or ends) at t, merged into one record.
void startBlock(OrbWriter& w, uint32_t t, double rate = 1000.0)
{
    w.add(blockStart(15, t, rate, kSampleBit | kLeft | kGaze, 1));
    w.add(blockStart(17, t, rate, 0, 1, 10, 0x0312, 0x4000));
}
void endBlock(OrbWriter& w, uint32_t t)
{
    w.add(blockEnd(16, t));
    w.add(blockEnd(18, t));
}

const ORBItem* first(const ORBFile& f, unsigned code)
{
    for (const ORBItem& i : f.items)
        if (i.code() == code) return &i;
    return nullptr;
}
std::vector<uint64_t> keysOf(const ORBFile& f, unsigned code)
{
    std::vector<uint64_t> keys;
    for (const ORBItem& i : f.items)
        if (i.code() == code) keys.push_back(i.key());
    return keys;
}
size_t countCode(const ORBFile& f, unsigned code) { return keysOf(f, code).size(); }

std::vector<std::string> lines(const LogCapture& log, const std::string& part)
{
    std::vector<std::string> out;
    for (const std::string& l : log.lines())
        if (l.find(part) != std::string::npos) out.push_back(l);
    return out;
}

ORBItem entry(int32_t position, uint16_t type, uint64_t key)
{
    ORBItem i;
    i.position = position;
    i.type = type;
    i.headerWord = 0;
    i.timeKey = key;
    return i;
}

} // namespace

// ---------------------------------------------------------------------------
// Pre-scan

TEST(PreScan, EntriesAndKeys)
{
    EXPECT_TRUE(openFile(OrbWriter())->items.empty()); // only the closing zero tag
    EXPECT_TRUE(openFile(OrbWriter())->recordings.empty());

    OrbWriter w;
    startBlock(w, 1000);
    w.add(sampleAt(1000));
    w.add(EventItem(EFIX, 1).start(990).end(1000));
    w.add(EventItem(MESSAGE, -1).start(1001).message("TRIALID 1"));
    endBlock(w, 1001);
    auto f = openFile(w);
    const size_t starts = blockStart(15, 1000, 1000.0, kSampleBit | kLeft | kGaze, 1).bytes().size() +
                          blockStart(17, 1000, 1000.0, 0, 1, 10, 0x0312, 0x4000).bytes().size();
    const ORBItem* s = first(*f, SAMPLE);
    EXPECT_EQ(s->position, int32_t(w.headerSize() + starts + 2)) << "just after the tag";
    EXPECT_EQ(s->headerWord, kSampleBit | kFullTime | kLeft | kGaze);
    EXPECT_EQ(s->key(), 2000u);
    const ORBItem* efix = first(*f, EFIX);
    EXPECT_EQ(efix->type, 0x200 | EFIX) << "end codes: end time and eye marker";
    EXPECT_EQ(efix->key(), 2000u);
    EXPECT_EQ(efix->headerWord, (0x40 | EFIX) << 8);
    EXPECT_EQ(first(*f, MESSAGE)->type, MESSAGE);
    EXPECT_EQ(first(*f, MESSAGE)->key(), 2002u);
    EXPECT_EQ(first(*f, SSAMPLES)->type, 0x100 | SSAMPLES);
}

TEST(PreScan, TwoSamplesInOneMillisecond)
{
    LogCapture log;
    OrbWriter w;
    startBlock(w, 1000, 2000.0);
    for (uint32_t t = 1000; t < 1003; ++t) {
        w.add(sampleAt(t));
        w.add(sampleAt(t, kHalfMs));
    }
    w.add(sampleAt(1002)); // a third one
    endBlock(w, 1003);
    EXPECT_EQ(keysOf(*openFile(w, 2), SAMPLE), (std::vector<uint64_t>{2000, 2001, 2002, 2003, 2004, 2005, 2005}));
    EXPECT_TRUE(lines(log, "Missing").empty()) << "never a gap";
}

// ---------------------------------------------------------------------------
// Gap filling in repair mode

TEST(GapFilling, PlaceholdersAndLogLines)
{
    struct Case {
        double rate;
        std::vector<uint32_t> times;
        std::vector<uint64_t> keys;
        std::vector<std::string> log;
    } cases[] = {
        // One period is no gap; four periods get three placeholders.
        {500.0,
         {1000, 1002, 1004, 1006, 1014, 1016},
         {2000, 2004, 2008, 2012, 2016, 2020, 2024, 2028, 2032},
         {"Missing 4 samples. Inserting dummy samples \n", "Missing (1006-1014) samples. Calculating speriod \n"}},
        // The block's rate (8 half-ms) wins over the spacing (4).
        {250.0,
         {1000, 1002, 1004, 1012, 1016},
         {2000, 2004, 2008, 2016, 2024, 2032},
         {"Intersample period does not match with the sample rate given by the start recording event! Using "
          "start recording sample rate.\n",
          "Missing 2 samples. Inserting dummy samples \n", "Missing (1004-1012) samples. Calculating speriod \n"}},
        // A period above 8 half-ms: no filling at all.
        {100.0, {1000, 1010, 1020, 1050}, {2000, 2020, 2040, 2100}, {}},
        // Nothing before two samples are known.
        {500.0, {1000, 1010, 1012}, {2000, 2020, 2024}, {}},
    };
    for (const Case& c : cases) {
        OrbWriter w;
        startBlock(w, 1000, c.rate);
        addSamples(w, c.times);
        endBlock(w, 1100);
        LogCapture log;
        auto f = openFile(w, 2);
        EXPECT_EQ(keysOf(*f, SAMPLE), c.keys) << c.rate;
        EXPECT_EQ(log.lines(), c.log) << c.rate;
        for (const ORBItem& i : f->items)
            if (i.position == -1) {
                EXPECT_EQ(i.type | i.headerWord, SAMPLE);
            }
        EXPECT_EQ(countCode(*openFile(w, 1), SAMPLE), c.times.size()) << "check mode fills nothing";
    }
}

TEST(GapFilling, ResumesWithTheNextBlock)
{
    OrbWriter w;
    startBlock(w, 1000, 100.0);
    addSamples(w, {1000, 1010, 1020, 1060});
    endBlock(w, 1061);
    startBlock(w, 2000, 500.0);
    addSamples(w, {2000, 2002, 2004, 2010});
    endBlock(w, 2011);
    LogCapture log;
    EXPECT_EQ(countCode(*openFile(w, 2), SAMPLE), 8u + 2u);
    EXPECT_EQ(lines(log, "Missing (").front(), "Missing (2004-2010) samples. Calculating speriod \n");
}

// ---------------------------------------------------------------------------
// Recording blocks

TEST(BlockPairing, ToleranceDecidesWhetherMarkersMerge)
{
    // At 500 Hz markers up to 500 ms apart belong to one block, which begins
    // with the earlier start and ends with the later end.
    for (uint32_t gap : {400u, 501u}) {
        OrbWriter w;
        w.add(blockStart(17, 1000 + gap, 500.0, 0, 10, 10, 0x0312, 0x8000));
        w.add(blockStart(15, 1000, 500.0, 0xC000 | kSampleBit, 10));
        addSamples(w, {1000 + gap, 1001 + gap});
        w.add(blockEnd(16, 1002 + gap));
        w.add(blockEnd(18, 1002 + 2 * gap));
        auto f = openFile(w);
        if (gap == 400) {
            ASSERT_EQ(f->recordings.size(), 2u);
            const Recording& s = *f->recordings[0];
            EXPECT_EQ(s.recordType, 3);
            EXPECT_EQ(s.time, 1000u);
            EXPECT_EQ(s.orderKey, 2000u);
            EXPECT_EQ(s.sampleFlags, 0) << "the events side came first and stands for the block";
            EXPECT_EQ(s.eyes, 2);
            EXPECT_EQ(f->recordings[1]->time, 1802u);
            EXPECT_EQ(f->recordings[1]->recordType, 3);
            EXPECT_EQ(countCode(*f, RECORDING), 2u);
            EXPECT_EQ(f->items.front().key(), 2000u);
            EXPECT_EQ(f->items.back().code(), RECORDING);
        } else {
            ASSERT_EQ(f->recordings.size(), 4u);
            EXPECT_EQ(countCode(*f, RECORDING), 4u);
            for (int i = 0; i < 4; ++i) EXPECT_EQ(f->recordings[size_t(i)]->recordType, i == 0 || i == 3 ? 2 : 1);
        }
    }
}

TEST(BlockPairing, RecordFields)
{
    OrbWriter w;
    w.add(blockEnd(16, 900)); // before any block: no eyes to copy
    w.add(blockStart(15, 1000, 1000.0, 0x8000 | kSampleBit | kExtra, 10));
    w.add(EventItem(17, -1).start(5000).word(48, 10).word(81, 10).word(180, 0x1234).word(85, 0x8000)
              .word(86, 2).end(uint32_t(500.0 * 65536)).words(75, 0x0020, 0));
    w.add(blockEnd(16, 5001));
    auto f = openFile(w);
    ASSERT_EQ(f->recordings.size(), 4u);
    EXPECT_EQ(f->recordings[0]->eyes, 0);

    const Recording& s = *f->recordings[1];
    float divisor = 10.0f;
    uint32_t bits;
    std::memcpy(&bits, &divisor, 4);
    EXPECT_EQ(s.recordType, 1);
    EXPECT_EQ(s.sampleRate, 1000.0f);
    EXPECT_EQ(s.sampleFlags, 0x8000 | kSampleBit | kExtra);
    EXPECT_EQ(s.eventFlags, 0);
    EXPECT_EQ(s.eyes, 1);
    EXPECT_EQ(s.filterFlag, 0) << "no option field: option 1";
    EXPECT_EQ(s.modeFlag, 1);
    EXPECT_EQ(s.modeLevel, 1);
    EXPECT_EQ(s.itemRef, bits);

    const Recording& e = *f->recordings[2];
    EXPECT_EQ(e.recordType, 2);
    EXPECT_EQ(e.sampleRate, 500.0f);
    EXPECT_EQ(e.eventFlags, 0x1234);
    EXPECT_EQ(e.eyes, 2) << "the event block's word names the eyes the other way round";
    EXPECT_EQ(e.filterFlag, 1);
    EXPECT_EQ(e.modeFlag, 0);
    EXPECT_EQ(e.modeLevel, 2);
    EXPECT_EQ(e.itemRef, 0u);
    EXPECT_EQ(f->recordings[3]->eyes, 2) << "an end takes the eyes of the last record";
}

TEST(BlockPairing, EdgesOfPairing)
{
    // A last sample with a kind-15 extra-data block clears the block start's
    // extra-data flag; another kind does not.
    for (uint8_t extraType : {uint8_t(0xF2), uint8_t(0x22)}) {
        OrbWriter w;
        w.add(blockStart(15, 1000, 500.0, 0x8000 | kSampleBit | kExtra, 10));
        SampleItem s = sampleAt(1000, kExtra);
        s.extraType = extraType;
        s.extra = {1, 2};
        w.add(s);
        endBlock(w, 1001);
        EXPECT_EQ(openFile(w)->recordings[0]->sampleFlags,
                  0x8000 | kSampleBit | (extraType == 0xF2 ? 0 : kExtra));
    }
    // A marker near time 0 does not match a side that is still empty.
    OrbWriter w;
    w.add(blockStart(15, 10, 1000.0, kSampleBit | kLeft, 1));
    w.add(blockStart(15, 20, 1000.0, kSampleBit | kLeft, 1));
    w.add(blockStart(17, 30, 1000.0, 0, 1, 10, 0x0312, 0x4000));
    auto f = openFile(w);
    ASSERT_EQ(f->recordings.size(), 2u);
    EXPECT_EQ(f->recordings[0]->recordType, 1);
    EXPECT_EQ(f->recordings[1]->recordType, 3);
    EXPECT_EQ(f->recordings[1]->time, 20u);
}

TEST(LoadFilters, SamplesOrEventsLeftOut)
{
    OrbWriter w;
    startBlock(w, 1000, 500.0);
    addSamples(w, {1000, 1002, 1004, 1020});
    w.add(EventItem(SFIX, 0).start(1002));
    w.add(EventItem(MESSAGE, -1).start(1002).message("hello"));
    endBlock(w, 1021);
    LogCapture log;
    auto noSamples = openFile(w, 2, true, false);
    EXPECT_EQ(countCode(*noSamples, SAMPLE) + countCode(*noSamples, SSAMPLES) + countCode(*noSamples, ESAMPLES), 0u);
    EXPECT_EQ(countCode(*noSamples, SFIX) + countCode(*noSamples, MESSAGE), 2u);
    for (const auto& r : noSamples->recordings) EXPECT_EQ(r->recordType, 2);
    EXPECT_TRUE(lines(log, "Missing").empty());

    auto noEvents = openFile(w, 0, false, true);
    std::vector<unsigned> codes;
    for (const ORBItem& i : noEvents->items)
        if (i.code() != SAMPLE && i.code() != RECORDING) codes.push_back(i.code());
    EXPECT_EQ(codes, (std::vector<unsigned>{SSAMPLES, ESAMPLES}));
    for (const auto& r : noEvents->recordings) EXPECT_EQ(r->recordType, 1);
    EXPECT_EQ(countCode(*noEvents, SAMPLE), 4u);
}

// ---------------------------------------------------------------------------
// Damaged files

TEST(Damage, TolerantScanEndsAtTheDamage)
{
    struct Case {
        Bytes tail;
        bool terminate;
        std::vector<std::string> tolerantLog; // the last lines
        std::string error;
    } cases[] = {
        {{0xA0, 0x01, 0x00, 0x00}, false, // a sample cut inside its time
         {"Error End of file Exception \n", "error reading orb file 2\n",
          "Unexpected file read error while reading sample; simulating end reached. \n"},
         "End of file Exception"},
        {EventItem(MESSAGE, -1).start(1001).messageRaw(499, std::string(499, 'x')).bytes(), true,
         {"error reading orb file 1\n", "Unexpected file read error while reading event; simulating end reached. \n"},
         "Error reading event - type(preScan)"},
        {{}, false, {"Error reading items End of file Exception \n"}, "End of file Exception"},
    };
    for (const Case& c : cases) {
        OrbWriter w;
        startBlock(w, 1000);
        addSamples(w, {1000, 1001});
        w.raw(c.tail);
        if (c.terminate) w.add(sampleAt(1002));
        w.terminate = c.terminate; // else the damage is the file's end
        {
            LogCapture log;
            auto f = openFile(w, 4);
            EXPECT_GE(countCode(*f, SAMPLE), 2u);
            EXPECT_EQ(f->items.front().code(), RECORDING) << "what was indexed is sorted";
            const auto& l = log.lines();
            ASSERT_GE(l.size(), c.tolerantLog.size());
            EXPECT_EQ(std::vector<std::string>(l.end() - long(c.tolerantLog.size()), l.end()), c.tolerantLog);
        }
        EXPECT_EQ(openError(w), c.error);
    }
}

TEST(Damage, SkippedOrOddEvents)
{
    OrbWriter w;
    startBlock(w, 1000);
    w.add(EventItem(0, 0).start(1001));
    w.add(EventItem(SFIX, 0).start(0));
    w.add(EventItem(EFIX, 0).start(0).end(0));
    w.add(EventItem(RECORDING, -1).start(0)); // cannot be told from a block record: left out
    endBlock(w, 1002);
    {
        LogCapture log;
        auto f = openFile(w, 4);
        EXPECT_EQ(countCode(*f, 0) + countCode(*f, SFIX), 0u);
        EXPECT_EQ(countCode(*f, EFIX), 1u) << "end codes are not tested for time 0";
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"Unexpected event type tag 0. Skipping event \n",
                                                         "Unexpected time stamp 0. Skipping event \n"}));
    }
    auto f = openFile(w, 1);
    EXPECT_EQ(countCode(*f, 0) + countCode(*f, SFIX), 2u);
    EXPECT_EQ(countCode(*f, RECORDING), 2u);
}

// ---------------------------------------------------------------------------
// Order of the index

TEST(IndexOrder, EqualKeys)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSamples(w, {1000, 1004, 1005}); // written before the events of 1005
    w.add(EventItem(SSACC, 0).start(1005));
    w.add(EventItem(MESSAGE, -1).start(1005).message("TRIALID 1"));
    w.add(EventItem(EFIX, 0).start(900).end(1005));
    w.add(sampleAt(1006));
    endBlock(w, 1006);
    auto f = openFile(w);
    auto at = [&](uint64_t key) { // the two streams' markers tie: 17 counts as 15, 18 as 16
        std::vector<unsigned> codes;
        for (const ORBItem& i : f->items)
            if (i.key() == key) codes.push_back(i.code() == SEVENTS || i.code() == EEVENTS ? i.code() - 2 : i.code());
        return codes;
    };
    // Block start item, start codes, samples, end codes, block end item;
    // messages go before the samples.
    EXPECT_EQ(at(2000), (std::vector<unsigned>{RECORDING, SSAMPLES, SSAMPLES, SAMPLE}));
    EXPECT_EQ(at(2010), (std::vector<unsigned>{SSACC, MESSAGE, SAMPLE, EFIX}));
    EXPECT_EQ(at(2012), (std::vector<unsigned>{SAMPLE, ESAMPLES, ESAMPLES, RECORDING}));
}

TEST(IndexOrder, TieRulesThatAreNoOrder)
{
    // Both orders of a blink start and a blink end of different eyes; file
    // order for events even at equal positions.
    EXPECT_TRUE(sortByTime(entry(60, 0x100 | SBLINK, 100), entry(70, 0x200 | EBLINK, 100)));
    EXPECT_TRUE(sortByTime(entry(70, 0x200 | EBLINK, 100), entry(60, 0x100 | SBLINK, 100)));
    EXPECT_TRUE(sortByTime(entry(90, MESSAGE, 100), entry(90, MESSAGE, 100)));
    // Block end, block start, sample, block end: a cycle.
    Recording startRec{}, endRec{};
    startRec.state = 1;
    startRec.orderKey = endRec.orderKey = 100;
    ORBItem recStart = entry(0, RECORDING, 0), recEnd = entry(0, RECORDING, 0), sample = entry(50, SAMPLE, 100);
    recStart.rec = &startRec;
    recEnd.rec = &endRec;
    EXPECT_TRUE(sortByTime(recEnd, recStart) && sortByTime(recStart, sample) && sortByTime(sample, recEnd));
}

// ---------------------------------------------------------------------------
// The sort

namespace {

struct Tagged {
    int key, id;
};
struct Recorder {
    std::vector<std::pair<int, int>>* calls;
    bool operator()(const Tagged& a, const Tagged& b) const
    {
        calls->emplace_back(a.id, b.id);
        return a.key < b.key;
    }
};

// Same order and the very same comparisons as the library's sort.
void expectSameAsLibrary(const std::vector<int>& keys, const std::string& what)
{
    std::vector<Tagged> ours, lib;
    for (size_t i = 0; i < keys.size(); ++i) ours.push_back({keys[i], int(i)});
    lib = ours;
    std::vector<std::pair<int, int>> ourCalls, libCalls;
    orbsort::introsort(ours.data(), ours.data() + ours.size(), Recorder{&ourCalls});
    std::sort(lib.begin(), lib.end(), Recorder{&libCalls});
    ASSERT_TRUE(ourCalls == libCalls) << what;
    for (size_t i = 0; i < ours.size(); ++i) ASSERT_EQ(ours[i].id, lib[i].id) << what;
}

// Keys decided as the library's sort asks, so that every pivot is poor and
// the depth limit strikes.
std::vector<int> medianOfThreeKiller(int n)
{
    std::vector<int> val(static_cast<size_t>(n), n), idx(static_cast<size_t>(n));
    int decided = 0, candidate = 0;
    for (int i = 0; i < n; ++i) idx[size_t(i)] = i;
    std::sort(idx.begin(), idx.end(), [&](int a, int b) {
        if (val[size_t(a)] == n && val[size_t(b)] == n) val[size_t(a == candidate ? a : b)] = decided++;
        if (val[size_t(a)] == n) candidate = a;
        else if (val[size_t(b)] == n) candidate = b;
        return val[size_t(a)] < val[size_t(b)];
    });
    for (int& v : val)
        if (v == n) v = decided++;
    return val;
}

} // namespace

TEST(Sort, SameAsTheLibrarySortWithTies)
{
    std::mt19937 rng(12345);
    for (int n : {0, 1, 2, 15, 16, 17, 33, 100, 1000, 20000}) {
        for (int range : {1, 3, 50, 1 << 30}) {
            std::vector<int> keys(static_cast<size_t>(n));
            for (int& k : keys) k = int(rng() % unsigned(range));
            expectSameAsLibrary(keys, "random " + std::to_string(n));
            std::sort(keys.begin(), keys.end());
            for (int i = 0; i + 8 < n; i += 7) std::swap(keys[size_t(i)], keys[size_t(i + 8)]);
            expectSameAsLibrary(keys, "nearly sorted " + std::to_string(n));
            std::reverse(keys.begin(), keys.end());
            expectSameAsLibrary(keys, "reversed " + std::to_string(n));
        }
    }
    for (int n : {100, 5000}) {
        std::vector<int> keys = medianOfThreeKiller(n);
        expectSameAsLibrary(keys, "killer");
        for (int& k : keys) k /= 3;
        expectSameAsLibrary(keys, "killer with ties");
    }
}

TEST(Sort, InconsistentComparatorsStayInsideTheArray)
{
    // Meant for the sanitizer build, which reports any step outside.
    std::mt19937 rng(7);
    for (int n : {17, 1000, 20000}) {
        std::vector<int> v(static_cast<size_t>(n)), sorted;
        for (int i = 0; i < n; ++i) v[size_t(i)] = i;
        orbsort::introsort(v.data(), v.data() + n, [](int, int) { return true; });
        orbsort::introsort(v.data(), v.data() + n, [&](int, int) { return (rng() & 1) != 0; });
        sorted = v;
        std::sort(sorted.begin(), sorted.end());
        for (int i = 0; i < n; ++i) ASSERT_EQ(sorted[size_t(i)], i) << "a permutation";
        orbsort::introsort(v.data(), v.data() + n, [](int a, int b) { return a <= b; });
        EXPECT_TRUE(std::is_sorted(v.begin(), v.end()));
    }

    // Blink starts and ends of different eyes at one instant each go before
    // the other: still no more than O(n log n) comparisons.
    std::vector<ORBItem> blinks;
    for (int i = 0; i < 20000; ++i) blinks.push_back(entry(20000 - i, i & 1 ? 0x200 | EBLINK : 0x100 | SBLINK, 100));
    long comparisons = 0;
    orbsort::introsort(blinks.data(), blinks.data() + blinks.size(), [&](const ORBItem& a, const ORBItem& b) {
        ++comparisons;
        return sortByTime(a, b);
    });
    EXPECT_LT(comparisons, 200L * 20000);

    // Index entries crowded onto few instants, with every code, repeated
    // positions and records of both states.
    auto f = openFile(OrbWriter());
    std::vector<Recording> recs(8);
    for (size_t i = 0; i < recs.size(); ++i) {
        recs[i].state = uint8_t(i & 1);
        recs[i].orderKey = i % 3;
    }
    const uint16_t types[] = {SAMPLE,       MESSAGE,      0x100 | SBLINK, 0x200 | SBLINK, 0x100 | EBLINK,
                              0x200 | EBLINK, 0x100 | SSACC, 0x200 | ESACC, 0x100 | EFIX,  POINT9,
                              0x100 | SSAMPLES, 0x100 | EEVENTS, 77, RECORDING};
    for (size_t n : {300u, 20000u, 60000u}) {
        f->items.clear();
        for (size_t i = 0; i < n; ++i) {
            ORBItem item = entry(int32_t(rng() % 4) - 1, types[rng() % std::size(types)], rng() % 3);
            if (item.code() == RECORDING) item.rec = &recs[rng() % recs.size()];
            f->items.push_back(item);
        }
        auto raw = [](const ORBItem& a, const ORBItem& b) { return std::memcmp(&a, &b, sizeof a) < 0; };
        std::vector<ORBItem> before = f->items;
        f->sortItems();
        std::vector<ORBItem> after = f->items;
        std::sort(before.begin(), before.end(), raw);
        std::sort(after.begin(), after.end(), raw);
        EXPECT_EQ(0, std::memcmp(before.data(), after.data(), n * sizeof(ORBItem))) << "a permutation";
    }
}

TEST(Sort, LargeIndexInOverlappingStretches)
{
    auto f = openFile(OrbWriter());
    std::mt19937 rng(3);
    for (int i = 0; i < 50000; ++i) f->items.push_back(entry(i, SAMPLE, uint64_t(2 * i)));
    for (size_t i = 0; i + 2500 < f->items.size(); i += 1000) std::swap(f->items[i], f->items[i + rng() % 2500]);
    auto byKey = [](const ORBItem& a, const ORBItem& b) { return a.key() < b.key(); };
    f->sortItems();
    EXPECT_TRUE(std::is_sorted(f->items.begin(), f->items.end(), byKey)) << "within the overlap";
    std::rotate(f->items.begin(), f->items.begin() + 1, f->items.begin() + 40001);
    f->sortItems();
    EXPECT_FALSE(std::is_sorted(f->items.begin(), f->items.end(), byKey)) << "far beyond it";
}

TEST(Sort, IndexOutgrowsItsFirstEstimate)
{
    // Three-byte samples and a long gap: more entries than the file's size
    // suggests.
    OrbWriter w;
    startBlock(w, 1000);
    addSamples(w, {1000, 1001});
    SampleItem s;
    s.flags = kSampleBit | kLeft;
    s.step = 1;
    for (int i = 0; i < 30000; ++i) w.add(s);
    w.add(sampleAt(51001));
    endBlock(w, 51002);
    LogCapture log;
    auto f = openFile(w, 2);
    EXPECT_EQ(countCode(*f, SAMPLE), 30003u + 19999u);
    std::vector<uint64_t> keys = keysOf(*f, SAMPLE);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
}
