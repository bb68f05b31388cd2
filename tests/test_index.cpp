// The item index: keys and entries of the pre-scan, gap filling, block
// pairing, load filters, damaged files, the order of entries and the sort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

#include "Internals.h"
#include "ItemSort.h"

using namespace orbtest;

namespace {

ORBItem entry(int32_t position, uint16_t type, uint64_t key)
{
    ORBItem i{};
    i.position = position;
    i.type = type;
    i.timeKey = key;
    return i;
}

} // namespace

// ---------------------------------------------------------------------------
// Pre-scan

TEST(PreScan, EntriesAndKeys)
{
    auto empty = openOrb(OrbWriter()); // only the closing zero tag
    EXPECT_TRUE(empty->index.items.empty());
    EXPECT_TRUE(empty->index.recordings.empty());

    OrbWriter w;
    startBlock(w, 1000);
    const size_t bodyAt = w.headerSize() + w.body().size() + 2; // just after the tag
    w.add(sampleAt(1000));
    w.add(EventItem(EFIX, 1).start(990).end(1000));
    w.add(message(1001, "TRIALID 1"));
    endBlock(w, 1001);
    auto f = openOrb(w);
    const ORBItem& s = itemOf(*f, SAMPLE);
    EXPECT_EQ(s.position, int32_t(bodyAt));
    EXPECT_EQ(s.headerWord, sampleAt(1000).flags);
    EXPECT_EQ(s.key(), 2000u);
    EXPECT_EQ(itemOf(*f, EFIX).type, kEyeMarkerRight | EFIX) << "end codes: end time and eye marker";
    EXPECT_EQ(itemOf(*f, EFIX).key(), 2000u);
    EXPECT_EQ(itemOf(*f, MESSAGE).type, MESSAGE);
    EXPECT_EQ(itemOf(*f, MESSAGE).key(), 2002u);
    EXPECT_EQ(itemOf(*f, SSAMPLES).type, kEyeMarkerLeft | SSAMPLES);
}

// ---------------------------------------------------------------------------
// Keys and gap filling in repair mode

TEST(GapFilling, PlaceholdersAndLogLines)
{
    struct Case {
        double rate;
        std::vector<uint32_t> times;
        std::vector<uint64_t> keys;
        Lines log;
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
        // Two samples in one millisecond (a third one too) are never a gap.
        {2000.0, {1000, 1000, 1001, 1001, 1002, 1002, 1002}, {2000, 2001, 2002, 2003, 2004, 2005, 2005}, {}},
    };
    for (const Case& c : cases) {
        OrbWriter w;
        startBlock(w, 1000, c.rate);
        addSamples(w, c.times);
        endBlock(w, 1100);
        LogCapture log;
        auto f = openOrb(w, 2);
        EXPECT_EQ(keysOf(*f, SAMPLE), c.keys) << c.rate;
        EXPECT_EQ(log.lines(), c.log) << c.rate;
        size_t placeholders = 0;
        for (const ORBItem& i : f->index.items)
            placeholders += i.position == -1 && i.type == SAMPLE && i.headerWord == 0;
        EXPECT_EQ(placeholders, c.keys.size() - c.times.size()) << c.rate;
        EXPECT_EQ(countCode(*openOrb(w, 1), SAMPLE), c.times.size()) << "check mode fills nothing";
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
    EXPECT_EQ(countCode(*openOrb(w, 2), SAMPLE), 8u + 2u);
    EXPECT_EQ(linesWith(log, "Missing ("), Lines{"Missing (2004-2010) samples. Calculating speriod \n"});
}

// ---------------------------------------------------------------------------
// Recording blocks

TEST(BlockPairing, ToleranceDecidesWhetherMarkersMerge)
{
    // At 500 Hz markers up to 500 ms apart belong to one block, which begins
    // with the earlier start and ends with the later end.
    for (uint32_t gap : {400u, 501u}) {
        OrbWriter w;
        w.add(blockStart(SEVENTS, 1000 + gap, 500.0, 0, 10, 10, 0x0312, kEventBlockRightEye));
        w.add(blockStart(SSAMPLES, 1000, 500.0, kBothEyes | kSampleItem, 10));
        addSamples(w, {1000 + gap, 1001 + gap});
        w.add(blockEnd(ESAMPLES, 1002 + gap));
        w.add(blockEnd(EEVENTS, 1002 + 2 * gap));
        auto f = openOrb(w);
        std::vector<int> types;
        for (const auto& r : f->index.recordings) types.push_back(r->recordType);
        EXPECT_EQ(countCode(*f, RECORDING), types.size()) << "one item per record";
        if (gap == 501) {
            EXPECT_EQ(types, (std::vector<int>{2, 1, 1, 2}));
            continue;
        }
        ASSERT_EQ(types, (std::vector<int>{3, 3}));
        const Recording& s = *f->index.recordings[0];
        EXPECT_EQ(s.time, 1000u);
        EXPECT_EQ(s.orderKey, 2000u);
        EXPECT_EQ(s.sampleFlags, 0) << "the events side came first and stands for the block";
        EXPECT_EQ(s.eyes, 2);
        EXPECT_EQ(f->index.recordings[1]->time, 1802u);
        EXPECT_EQ(f->index.items.front().key(), 2000u);
    }
}

TEST(BlockPairing, RecordFields)
{
    OrbWriter w;
    w.add(blockStart(SSAMPLES, 1000, 1000.0, kLeftEye | kSampleItem | kExtraData, 10));
    w.add(EventItem(SEVENTS, -1).start(5000).word(kFieldStartScalar, 10).word(kFieldEndScalar, 10)
              .word(kFieldBlockFlags, 0x1234).word(kFieldBlockFlags2, kEventBlockRightEye).word(kFieldBlockOption, 2)
              .end(uint32_t(500.0 * 65536)).words(kFieldEndRes, 0x0020, 0));
    w.add(blockEnd(ESAMPLES, 5001));
    auto f = openOrb(w);
    ASSERT_EQ(f->index.recordings.size(), 3u);
    // recordType, eyes, filterFlag, modeFlag, modeLevel, sampleFlags, eventFlags, rate
    auto fields = [](const Recording& r) {
        return std::vector<int>{r.recordType, r.eyes,        r.filterFlag, r.modeFlag,
                                r.modeLevel,  r.sampleFlags, r.eventFlags, int(r.sampleRate)};
    };
    EXPECT_EQ(fields(*f->index.recordings[0]), (std::vector<int>{1, 1, 0, 1, 1, kLeftEye | kSampleItem | kExtraData, 0, 1000}))
        << "no option field: option 1";
    // The event block's word names the eyes the other way round.
    EXPECT_EQ(fields(*f->index.recordings[1]), (std::vector<int>{2, 2, 1, 0, 2, 0, 0x1234, 500}));
    EXPECT_EQ(f->index.recordings[2]->eyes, 2) << "an end takes the eyes of the last record";
    const float divisor = 10.0f;
    uint32_t bits;
    std::memcpy(&bits, &divisor, 4);
    EXPECT_EQ(f->index.recordings[0]->itemRef, bits);
    EXPECT_EQ(f->index.recordings[1]->itemRef, 0u);
}

TEST(BlockPairing, LastSampleWithKind15ExtraDataClearsTheFlag)
{
    for (uint8_t extraType : {uint8_t(0xF2), uint8_t(0x22)}) {
        OrbWriter w;
        w.add(blockStart(SSAMPLES, 1000, 500.0, kLeftEye | kSampleItem | kExtraData, 10));
        SampleItem s = sampleAt(1000, kExtraData);
        s.extraType = extraType;
        s.extra = {1, 2};
        w.add(s);
        endBlock(w, 1001);
        EXPECT_EQ(openOrb(w)->index.recordings[0]->sampleFlags, kLeftEye | kSampleItem | (extraType == 0xF2 ? 0 : kExtraData));
    }
}

TEST(LoadFilters, SamplesOrEventsLeftOut)
{
    OrbWriter w;
    startBlock(w, 1000, 500.0);
    addSamples(w, {1000, 1002, 1004, 1020});
    w.add(EventItem(SFIX, 0).start(1002));
    w.add(message(1002, "hello"));
    endBlock(w, 1021);
    auto codes = [](const ORBFile& f, int recordType) {
        std::vector<unsigned> out;
        for (const ORBItem& i : f.index.items)
            if (i.code() != RECORDING) out.push_back(i.code());
            else EXPECT_EQ(i.rec->recordType, recordType);
        return out;
    };
    LogCapture log;
    EXPECT_EQ(codes(*openOrb(w, 2, true, false), 2), (std::vector<unsigned>{SEVENTS, SFIX, MESSAGE, EEVENTS}));
    EXPECT_TRUE(linesWith(log, "Missing").empty()) << "no gap filling";
    EXPECT_EQ(codes(*openOrb(w, 0, false, true), 1),
              (std::vector<unsigned>{SSAMPLES, SAMPLE, SAMPLE, SAMPLE, SAMPLE, ESAMPLES}));
}

// ---------------------------------------------------------------------------
// Damaged files

TEST(Damage, TolerantScanEndsAtTheDamage)
{
    struct Case {
        Bytes tail;
        bool terminate;
        Lines tolerantLog; // the last lines, but the one that says where the scan stopped
        std::string error;
        size_t unread; // bytes from the damaged item on
    } cases[] = {
        {{0xA0, 0x01, 0x00, 0x00}, false, // a sample cut inside its time
         {"Error End of file Exception \n", "error reading orb file 2\n",
          "Unexpected file read error while reading sample; simulating end reached. \n"},
         "End of file Exception", 4},
        {EventItem(MESSAGE, -1).start(1001).messageRaw(499, std::string(499, 'x')).bytes(), true,
         {"error reading orb file 1\n", "Unexpected file read error while reading event; simulating end reached. \n"},
         "Error reading event - type(preScan)", 526},
        {{}, false, {"Error reading items End of file Exception \n"}, "End of file Exception", 0},
    };
    for (Case c : cases) {
        OrbWriter w;
        startBlock(w, 1000);
        addSamples(w, {1000, 1001});
        if (c.unread)
            c.tolerantLog.push_back("Reading stopped at byte " + std::to_string(w.headerSize() + w.body().size()) +
                                    " of the file: a damaged item (" + std::to_string(c.unread) + " bytes not read)\n");
        w.raw(c.tail);
        if (c.terminate) w.add(sampleAt(1002));
        w.terminate = c.terminate; // else the damage is the file's end
        {
            LogCapture log;
            auto f = openOrb(w, 4);
            EXPECT_EQ(countCode(*f, SAMPLE), 2u);
            EXPECT_EQ(f->index.items.front().code(), RECORDING) << "what was indexed is sorted";
            const Lines& l = log.lines();
            ASSERT_GE(l.size(), c.tolerantLog.size());
            EXPECT_EQ(Lines(l.end() - long(c.tolerantLog.size()), l.end()), c.tolerantLog);
        }
        EXPECT_EQ(thrown([&] { openOrb(w); }), c.error);
    }
}

TEST(Damage, TolerantScanSkipsEventsWithCodeOrTimeZero)
{
    OrbWriter w;
    startBlock(w, 1000);
    w.add(EventItem(0, 0).start(1001));
    w.add(EventItem(SFIX, 0).start(0));
    w.add(EventItem(EFIX, 0).start(0).end(0));
    endBlock(w, 1002);
    LogCapture log;
    auto f = openOrb(w, 4);
    EXPECT_EQ(countCode(*f, 0) + countCode(*f, SFIX), 0u);
    EXPECT_EQ(countCode(*f, EFIX), 1u) << "end codes are not tested for time 0";
    EXPECT_EQ(log.lines(), (Lines{"Unexpected event type tag 0. Skipping event \n",
                                  "Unexpected time stamp 0. Skipping event \n"}));
    f = openOrb(w, 1);
    EXPECT_EQ(countCode(*f, 0) + countCode(*f, SFIX), 2u) << "indexed when not tolerant";
}

// ---------------------------------------------------------------------------
// Order of the index

TEST(IndexOrder, EqualKeys)
{
    OrbWriter w;
    startBlock(w, 1000);
    addSamples(w, {1000, 1004, 1005}); // written before the events of 1005
    w.add(EventItem(SSACC, 0).start(1005));
    w.add(message(1005, "TRIALID 1"));
    w.add(EventItem(EFIX, 0).start(900).end(1005));
    w.add(sampleAt(1006));
    endBlock(w, 1006);
    auto f = openOrb(w);
    auto at = [&](uint64_t key) { // the two streams' markers tie: 17 counts as 15, 18 as 16
        std::vector<unsigned> codes;
        for (const ORBItem& i : f->index.items)
            if (i.key() == key) codes.push_back(i.code() == SEVENTS || i.code() == EEVENTS ? i.code() - 2 : i.code());
        return codes;
    };
    // Block start item, start codes, samples, end codes, block end item;
    // messages go before the samples.
    EXPECT_EQ(at(2000), (std::vector<unsigned>{RECORDING, SSAMPLES, SSAMPLES, SAMPLE}));
    EXPECT_EQ(at(2010), (std::vector<unsigned>{SSACC, MESSAGE, SAMPLE, EFIX}));
    EXPECT_EQ(at(2012), (std::vector<unsigned>{SAMPLE, ESAMPLES, ESAMPLES, RECORDING}));
}

// ---------------------------------------------------------------------------
// The sort

namespace {

// The same comparator, told to the sort as a key and a rule for ties.
template <class T, class Key, class Tied>
struct Keyed {
    Key keyOf;
    Tied tiedRule;
    auto key(const T& a) const { return keyOf(a); }
    bool tied(const T& a, const T& b) const { return tiedRule(a, b); }
    bool operator()(const T& a, const T& b) const { return key(a) != key(b) ? key(a) < key(b) : tied(a, b); }
};
template <class T, class Key, class Tied>
Keyed<T, Key, Tied> keyed(Key key, Tied tied)
{
    return {key, tied};
}

// Same order as the standard library's sort, ties included, whether the
// comparator is a plain one or tells its key.
void expectSameAsStdSort(const std::vector<int>& keys, const std::string& what)
{
    using Entry = std::pair<int, int>; // key, original place
    std::vector<Entry> ours, lib;
    for (size_t i = 0; i < keys.size(); ++i) ours.emplace_back(keys[i], int(i));
    lib = ours;
    std::vector<Entry> byTheKey = ours;
    auto byKey = [](const Entry& a, const Entry& b) { return a.first < b.first; };
    orbsort::introsort(ours.data(), ours.data() + ours.size(), byKey);
    orbsort::introsort(byTheKey.data(), byTheKey.data() + byTheKey.size(),
                       keyed<Entry>([](const Entry& a) { return a.first; }, [](const Entry&, const Entry&) { return false; }));
    std::sort(lib.begin(), lib.end(), byKey);
    ASSERT_TRUE(ours == lib) << what;
    ASSERT_TRUE(byTheKey == lib) << what << " (keyed)";
}

// Keys decided as the standard sort asks, so that every pivot is poor and
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

TEST(Sort, SameAsStdSortWithTies)
{
    std::mt19937 rng(12345);
    for (int n : {0, 1, 2, 15, 16, 17, 33, 100, 1000, 20000}) {
        for (int range : {1, 3, 50, 1 << 30}) {
            std::vector<int> keys(static_cast<size_t>(n));
            for (int& k : keys) k = int(rng() % unsigned(range));
            expectSameAsStdSort(keys, "random " + std::to_string(n));
            std::sort(keys.begin(), keys.end());
            for (int i = 0; i + 8 < n; i += 7) std::swap(keys[size_t(i)], keys[size_t(i + 8)]);
            expectSameAsStdSort(keys, "nearly sorted " + std::to_string(n));
            std::reverse(keys.begin(), keys.end());
            expectSameAsStdSort(keys, "reversed " + std::to_string(n));
        }
    }
    for (int n : {100, 5000}) {
        std::vector<int> keys = medianOfThreeKiller(n);
        expectSameAsStdSort(keys, "killer");
        for (int& k : keys) k /= 3;
        expectSameAsStdSort(keys, "killer with ties");
    }
}

// Meant for the sanitizer build too, which reports any step outside.
TEST(Sort, InconsistentComparatorsStayInsideTheArray)
{
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

    // A blink start and a blink end of different eyes at one instant each go
    // before the other: still no more than O(n log n) comparisons.
    const ORBItem start = entry(60, kEyeMarkerLeft | SBLINK, 100), end = entry(70, kEyeMarkerRight | EBLINK, 100);
    ASSERT_TRUE(sortByTime(start, end) && sortByTime(end, start));
    std::vector<ORBItem> blinks;
    for (int i = 0; i < 20000; ++i) blinks.push_back(i & 1 ? end : start);
    long comparisons = 0;
    orbsort::introsort(blinks.data(), blinks.data() + blinks.size(), [&](const ORBItem& a, const ORBItem& b) {
        ++comparisons;
        return sortByTime(a, b);
    });
    EXPECT_LT(comparisons, 200L * 20000);

    // The index's own rules, with entries at one instant that order each
    // other in a circle (a message before the sample, the sample before an
    // end marker, that marker before the message by file order) and blink
    // markers of both eyes: told as a key and a rule for ties, the sort
    // makes every comparison the plain comparator makes, so the orders agree.
    std::vector<ORBItem> index;
    for (int i = 0; i < 30000; ++i) {
        const uint64_t key = 2 * uint64_t(1000 + i / 3);
        const int32_t at = 100 + 40 * i;
        switch (rng() % 6) {
        case 0: index.push_back(entry(at, MESSAGE, key)); break;
        case 1: index.push_back(entry(at, kEyeMarkerLeft | EFIX, key)); break;
        case 2: index.push_back(entry(at, kEyeMarkerRight | SBLINK, key)); break;
        case 3: index.push_back(entry(at, kEyeMarkerLeft | EBLINK, key)); break;
        default: index.push_back(entry(at, SAMPLE, key)); break;
        }
        if (rng() % 50 == 0 && i > 5) std::swap(index[size_t(i)], index[size_t(i) - 1 - rng() % 5]);
    }
    std::vector<ORBItem> plain = index, byTheKey = index;
    orbsort::introsort(plain.data(), plain.data() + plain.size(), [](const ORBItem& a, const ORBItem& b) { return sortByTime(a, b); });
    const auto byKeyAndTies = keyed<ORBItem>([](const ORBItem& a) { return a.key(); }, sortByTime);
    static_assert(orbsort::HasKey<std::decay_t<decltype(byKeyAndTies)>, ORBItem>::value, "the sort sees the key");
    orbsort::introsort(byTheKey.data(), byTheKey.data() + byTheKey.size(), byKeyAndTies);
    for (size_t i = 0; i < plain.size(); ++i)
        ASSERT_EQ(std::memcmp(&plain[i], &byTheKey[i], sizeof(ORBItem)), 0) << i;
}

TEST(Sort, LargeIndexInOverlappingStretches)
{
    auto f = openOrb(OrbWriter());
    std::mt19937 rng(3);
    for (int i = 0; i < 50000; ++i) f->index.items.push_back(entry(i, SAMPLE, uint64_t(2 * i)));
    for (size_t i = 0; i + 2500 < f->index.items.size(); i += 1000) std::swap(f->index.items[i], f->index.items[i + rng() % 2500]);
    auto byKey = [](const ORBItem& a, const ORBItem& b) { return a.key() < b.key(); };
    f->index.sortItems();
    EXPECT_TRUE(std::is_sorted(f->index.items.begin(), f->index.items.end(), byKey)) << "within the overlap";
    std::rotate(f->index.items.begin(), f->index.items.begin() + 1, f->index.items.begin() + 40001);
    f->index.sortItems();
    EXPECT_FALSE(std::is_sorted(f->index.items.begin(), f->index.items.end(), byKey)) << "far beyond it";
}
