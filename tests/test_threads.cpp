// Two recordings read at the same time from two threads give exactly the
// records that reading them one after the other gives.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ItemFormat.h"
#include "ItemIndex.h"
#include "ORBFile.h"
#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

// Every record of a walk, as bytes, with the codes and a lookup by time.
std::vector<unsigned char> walk(const std::string& path)
{
    std::vector<unsigned char> out;
    int err = 0;
    _ORBFILE* f = orb_open_file(path.c_str(), 2, 1, 1, &err);
    if (!f) return out;
    int code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
        out.push_back(static_cast<unsigned char>(code));
        ALLF_DATA* d = orb_get_float_data(f);
        if (!d) continue;
        ALLF_DATA copy = *d;
        if (code != SAMPLE && code != RECORDING) {
            // The message pointer differs between runs; its text does not.
            if (copy.fe.message) {
                const ORB_MESSAGE* m = copy.fe.message;
                out.insert(out.end(), m->text, m->text + std::max<int>(0, m->length));
            }
            copy.fe.message = nullptr;
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(&copy);
        out.insert(out.end(), bytes, bytes + sizeof copy);
    }
    for (int i = 0; i < orb_get_trial_count(f); ++i) {
        TRIAL t{};
        orb_jump_to_trial(f, i);
        orb_get_trial_header(f, &t);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&t.trialWord);
        out.insert(out.end(), bytes, bytes + 12);
    }
    orb_close_file(f);
    return out;
}

std::string recording(double rate, int blocks, bool compressed)
{
    OrbWriter w;
    w.compressed = compressed;
    if (compressed) w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    for (int b = 0; b < blocks; ++b) {
        uint32_t t0 = 10000 + uint32_t(b) * 5000;
        w.add(message(t0 - 5, "TRIALID " + std::to_string(b) + "\n"));
        addBlock(w, t0, 1500, rate, [&](int i, uint32_t t) {
            if (i % 300 == 10) w.add(EventItem(SFIX, 0).start(t - 5));
            if (i % 300 == 200) w.add(EventItem(EFIX, 0).start(t - 195).end(t - 3).words(kFieldAvgGaze, 1000, 2000));
        });
    }
    return w.write();
}

} // namespace

TEST(Threads, TwoFilesAtOnceGiveTheSameRecords)
{
    const std::string a = recording(1000.0, 3, false);
    const std::string b = recording(500.0, 2, true);
    const auto aAlone = walk(a);
    const auto bAlone = walk(b);
    ASSERT_GT(aAlone.size(), 100000u);
    ASSERT_GT(bAlone.size(), 100000u);

    for (int round = 0; round < 2; ++round) {
        std::vector<unsigned char> aTogether, bTogether;
        std::thread ta([&] { aTogether = walk(a); });
        std::thread tb([&] { bTogether = walk(b); });
        ta.join();
        tb.join();
        EXPECT_TRUE(aTogether == aAlone);
        EXPECT_TRUE(bTogether == bAlone);
    }
}

// Each thread has its own reason: failures and successes on one thread do
// not touch another's, even while both open at once.
TEST(Threads, EachThreadKeepsItsOwnLastError)
{
    const std::string good = recording(500.0, 1, true);
    const std::string bad = "NOT AN ORB FILE\nENDP:\n";
    const std::string badReason = "Bad magic.  Corrupt orb file. \n\n";
    for (int round = 0; round < 20; ++round) {
        std::string seenByBad, seenByGood;
        std::thread tb([&] {
            int err = 0;
            EXPECT_EQ(orb_open_memory(bad.data(), bad.size(), 0, 1, 1, &err), nullptr);
            seenByBad = orb_get_last_error();
        });
        std::thread tg([&] {
            seenByGood = orb_get_last_error(); // nothing called yet here
            int err = 0;
            _ORBFILE* f = orb_open_file(good.c_str(), 0, 1, 1, &err);
            EXPECT_NE(f, nullptr);
            orb_close_file(f);
            EXPECT_STREQ(orb_get_last_error(), "");
        });
        tb.join();
        tg.join();
        EXPECT_EQ(seenByBad, badReason);
        EXPECT_EQ(seenByGood, "");
    }
}

// The index of a large recording is sorted in stretches on a second thread
// while it is being built, and reallocated under it: the order must be the
// one sorting it afterwards gives, ties between events and samples of one
// instant included.
TEST(Threads, IndexSortedWhileBuiltIsSortedAsAfterwards)
{
    std::vector<std::unique_ptr<Recording>> blocks;
    std::vector<ORBItem> entries;
    auto add = [&](uint16_t type, uint64_t key) {
        ORBItem e{};
        e.position = int32_t(entries.size() + 1);
        e.type = type;
        e.timeKey = key;
        entries.push_back(e);
    };
    auto addBlock = [&](uint8_t state, uint64_t key) {
        blocks.push_back(std::make_unique<Recording>());
        blocks.back()->state = state;
        blocks.back()->orderKey = key;
        ORBItem e{};
        e.type = RECORDING;
        e.rec = blocks.back().get();
        entries.push_back(e);
    };
    for (uint64_t t = 0; t < 90000; ++t) {
        if (t % 30000 == 0)
            addBlock(1, 2 * t);
        add(SAMPLE, 2 * t);
        // Events of an instant written a few samples after it, one message
        // at the instant of a saccade end, and the end of a block.
        if (t % 50 == 7) {
            add(ESACC | kEyeMarkerLeft, 2 * (t - 4));
            add(MESSAGE, 2 * (t - 4));
            add(SFIX | kEyeMarkerLeft, 2 * (t - 3));
        }
        if (t % 30000 == 29999)
            addBlock(0, 2 * t);
    }

    ItemIndex reference;
    reference.items = entries;
    reference.sortItems();

    ItemIndex built;
    {
        IndexSorter sorter(built);
        built.items.reserve(1000);
        for (size_t i = 0; i < entries.size(); ++i) {
            if (built.items.size() == built.items.capacity()) {
                const auto paused = sorter.pause();
                built.items.reserve(built.items.capacity() * 3 / 2);
            }
            built.items.push_back(entries[i]);
            if (i % 1000 == 999)
                sorter.publish(built.items.size());
        }
        sorter.finish();
    }
    ASSERT_EQ(built.items.size(), reference.items.size());
    EXPECT_EQ(std::memcmp(built.items.data(), reference.items.data(), entries.size() * sizeof(ORBItem)), 0);

    // A sorter stopped before it finishes leaves the index to its owner.
    ItemIndex dropped;
    {
        IndexSorter sorter(dropped);
        dropped.items = entries;
        sorter.publish(dropped.items.size());
    }
    EXPECT_EQ(dropped.items.size(), entries.size());
}

// A large recording opened with its index sorted while the scan builds it
// gets the very index it gets sorted afterwards: blocks whose two start
// markers lie far apart in the file (the block's record changes long after
// it is indexed), events
// written after the samples they follow, messages at the instants of other
// items, and dropouts filled with placeholders under repair (which grow the
// index past its first estimate); plain and compressed.
TEST(Threads, LargeIndexSortedWhileScanningAsAfterwards)
{
    for (bool compressed : {false, true}) {
        OrbWriter w;
        w.compressed = compressed;
        if (compressed) w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
        uint32_t t0 = 10000;
        for (int b = 0; b < 4; ++b) {
            // One long block: its partner marker comes long after the
            // index's thread has sorted past its record.
            const uint32_t length = b == 1 ? 120000 : 20000;
            w.add(message(t0 - 5, "TRIALID " + std::to_string(b) + "\n"));
            w.add(blockStart(SSAMPLES, t0, 1000.0, kSampleItem | kBothEyes | kGazeGroup, 10));
            for (uint32_t t = t0; t < t0 + length; ++t) {
                // The event block's start, written long after, lies before
                // the sample block's: the block then starts there.
                if (t == t0 + length - 10)
                    w.add(blockStart(SEVENTS, t0 - 300, 1000.0, 0, 10, 10, 0x0312, kEventBlockBothEyes));
                if (t % 1000 >= 500 && t % 1000 < 560)
                    continue; // a dropout
                w.add(sampleAt(t));
                if (t % 97 == 0) {
                    w.add(EventItem(ESACC, 0).start(t - 20).end(t - 4));
                    w.add(message(t - 4, "at the saccade's end\n"));
                    w.add(EventItem(SFIX, 0).start(t - 3));
                }
            }
            endBlock(w, t0 + length);
            t0 += length + 10000;
        }
        const std::string path = w.write();
        for (int consistency : {0, 2}) {
            SCOPED_TRACE(std::string(compressed ? "compressed" : "plain") + " consistency " + std::to_string(consistency));
            ORBFile during(path.c_str(), consistency, true, true, ORBFile::IndexSorting::WhileScanning);
            ORBFile after(path.c_str(), consistency, true, true, ORBFile::IndexSorting::AfterScanning);
            ASSERT_GT(during.index.items.size(), 60000u);
            ASSERT_EQ(during.index.items.size(), after.index.items.size());
            size_t differ = 0;
            for (size_t i = 0; i < during.index.items.size(); ++i) {
                const ORBItem& a = during.index.items[i];
                const ORBItem& b = after.index.items[i];
                const bool same = a.position == b.position && a.type == b.type && a.headerWord == b.headerWord &&
                                  a.key() == b.key() &&
                                  (!a.isRecording() || std::memcmp(a.rec, b.rec, sizeof(Recording)) == 0);
                differ += same ? 0 : 1;
            }
            EXPECT_EQ(differ, 0u);
        }
    }
}
