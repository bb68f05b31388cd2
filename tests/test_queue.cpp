// The sample queue: lookup by key, the pupil carry, shifting, and the batch
// reading that fills it from a recording.
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "ORBFile.h"
#include "OrbWriter.h"
#include "SampleQueue.h"

using namespace orbtest;

namespace {

constexpr float kMissing = 100000000.0f;

Sample leftSample(uint32_t time)
{
    Sample s;
    s.fs.flags = kSampleBit | kLeft;
    s.fs.time = time;
    return s;
}

std::unique_ptr<SampleQueue> queueWithKeys(std::initializer_list<unsigned long long> keys)
{
    auto q = std::make_unique<SampleQueue>(nullptr);
    for (unsigned long long k : keys) {
        Sample s = leftSample(uint32_t(k / 2));
        q->addSample(&s, k);
    }
    return q;
}

// Keys first, first + step, ... (count of them).
std::unique_ptr<SampleQueue> queueWithStep(unsigned long long first, unsigned step, int count)
{
    auto q = std::make_unique<SampleQueue>(nullptr);
    for (int i = 0; i < count; ++i) {
        Sample s = leftSample(uint32_t((first + i * step) / 2));
        q->addSample(&s, first + i * step);
    }
    return q;
}

int slotOf(SampleQueue& q, unsigned long long key)
{
    int pos = -2;
    q.getOldSample(key, &pos);
    return pos;
}

// ---- recordings ---------------------------------------------------------

// Gaze of sample i of a block, eye e: x = 100 + 10 i + e, y = 50 - i.
int16_t gazeX(int i, int e) { return int16_t(100 + 10 * i + e); }
int16_t gazeY(int i) { return int16_t(50 - i); }

// One recording block of n left-eye samples at `rate`, the first with its
// full time and the others with time steps, as a tracker writes them.
// between(w, i) may add items after sample i.
void addBlock(OrbWriter& w, uint32_t t0, int n, double rate,
              const std::function<void(OrbWriter&, int)>& between = {},
              const std::function<bool(int)>& skip = {})
{
    const uint16_t flags = kSampleBit | kLeft | kGaze | kRes | kPupil;
    w.add(blockStart(15, t0, rate, flags));
    w.add(blockStart(17, t0, rate, 0x8000, 1, 10, 0x0312, 0x4000));
    uint32_t previous = t0;
    bool first = true;
    uint32_t last = t0;
    for (int i = 0; i < n; ++i) {
        uint32_t t = rate >= 2000 ? t0 + uint32_t(i / 2) : t0 + uint32_t(i * (1000.0 / rate));
        last = t;
        if (skip && skip(i))
            continue;
        SampleItem s;
        s.flags = flags | (first ? kFullTime : 0);
        s.time = t;
        s.step = uint8_t(t - previous);
        s.gaze[0][0] = gazeX(i, 0);
        s.gaze[0][1] = gazeY(i);
        s.res[0] = s.res[1] = 40;
        s.pupil[0] = int16_t(700 + i);
        w.add(s);
        previous = t;
        first = false;
        if (between)
            between(w, i);
    }
    w.add(blockEnd(16, last + 1));
    w.add(blockEnd(18, last + 1));
}

std::unique_ptr<ORBFile> open(const OrbWriter& w, int options = 0)
{
    return std::make_unique<ORBFile>(w.write().c_str(), options, true, true);
}

// Index positions of the sample entries, in index order.
std::vector<int> sampleEntries(const ORBFile& f)
{
    std::vector<int> out;
    for (size_t i = 0; i < f.items.size(); ++i)
        if (f.items[i].code() == SAMPLE)
            out.push_back(int(i));
    return out;
}

} // namespace

// ---- lookup ---------------------------------------------------------------

TEST(QueueLookup, FindsEveryKeyOfAConstantStep)
{
    auto q = queueWithStep(1000, 2, 100); // 1000 samples per second
    int pos = -2;
    Sample* s = q->getOldSample(1010, &pos);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(pos, 5);
    EXPECT_EQ(s->fs.time, 505u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(slotOf(*q, 1000 + 2 * i), i);
    // Between keys, before the first and after the last: nothing.
    for (unsigned long long k : {1011ull, 998ull, 1200ull, 0ull}) {
        EXPECT_EQ(q->getOldSample(k, &pos), nullptr) << k;
        EXPECT_EQ(pos, -1);
    }
}

TEST(QueueLookup, GapsFallBackFromTheEndThenToTheScan)
{
    // 20 would be slot 5 without the gap; the search from the end finds it.
    auto q = queueWithKeys({10, 12, 14, 20, 22});
    EXPECT_EQ(slotOf(*q, 20), 3);
    EXPECT_EQ(slotOf(*q, 14), 2);
    EXPECT_EQ(slotOf(*q, 16), -1);

    // Gaps on both sides of 20: no arithmetic finds it, the scan does.
    auto g = queueWithKeys({10, 12, 20, 22, 30, 32});
    EXPECT_EQ(slotOf(*g, 20), -1);
    int pos = -2;
    Sample* s = g->getOldSampleSlow(20, &pos);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(pos, 2);
    EXPECT_EQ(g->getOldSampleSlow(21, &pos), nullptr);
    EXPECT_EQ(pos, -1);

    // Two entries: only the ends are found.
    auto two = queueWithKeys({10, 14});
    EXPECT_EQ(slotOf(*two, 14), 1);
    EXPECT_EQ(slotOf(*two, 12), -1);

    // A first step above 8 is replaced by the last step; a last step that
    // is no sample interval either gives up.
    auto wide = queueWithKeys({10, 40, 42, 44, 46});
    EXPECT_EQ(slotOf(*wide, 42), 2);
    auto odd = queueWithKeys({10, 40, 43, 46});
    EXPECT_EQ(slotOf(*odd, 40), -1);
    int at = -2;
    EXPECT_NE(odd->getOldSampleSlow(40, &at), nullptr);
    EXPECT_EQ(at, 1);
}

// ---- adding -------------------------------------------------------------

TEST(QueueAdd, KeysMustIncrease)
{
    auto q = queueWithKeys({10, 12});
    Sample dup = leftSample(99);
    EXPECT_EQ(q->addSample(&dup, 12), 0);
    EXPECT_EQ(q->addSample(&dup, 4), 0);
    EXPECT_EQ(q->size(), 2);
    EXPECT_EQ(q->getOldSample(12)->fs.time, 6u);
    EXPECT_EQ(q->addSample(&dup, 13), 0);
    EXPECT_EQ(q->size(), 3);
    EXPECT_EQ(q->keyAt(2), 13u);
}

TEST(QueueAdd, PupilSizesAreCarriedForward)
{
    auto q = std::make_unique<SampleQueue>(nullptr);
    Sample bare = leftSample(1);
    bare.fs.pupilSize[0] = bare.fs.pupilSize[1] = 5.0f;
    q->addSample(&bare, 2);
    EXPECT_EQ(bare.fs.pupilSize[0], 1000.0f); // the caller's sample too
    EXPECT_EQ(q->getOldSample(2)->fs.pupilSize[1], 1000.0f);

    Sample withPupil = leftSample(2);
    withPupil.fs.flags |= kPupil;
    withPupil.fs.pupilSize[0] = 3.5f;
    withPupil.fs.pupilSize[1] = 4.0f;
    q->addSample(&withPupil, 4);
    Sample next = leftSample(3);
    q->addSample(&next, 6);
    EXPECT_EQ(q->getOldSample(6)->fs.pupilSize[0], 3.5f);
    EXPECT_EQ(q->getOldSample(6)->fs.pupilSize[1], 4.0f);

    // An ignored sample neither sets nor takes the carry.
    Sample late = leftSample(0);
    late.fs.flags |= kPupil;
    late.fs.pupilSize[0] = late.fs.pupilSize[1] = 9.0f;
    q->addSample(&late, 6);
    EXPECT_EQ(late.fs.pupilSize[0], 9.0f);
    Sample after = leftSample(4);
    q->addSample(&after, 8);
    EXPECT_EQ(after.fs.pupilSize[0], 3.5f);

    // The carry survives a shift and not a clear.
    q->shiftQueue();
    Sample s = leftSample(5);
    q->addSample(&s, 10);
    EXPECT_EQ(s.fs.pupilSize[1], 4.0f);
    q->clear();
    q->addSample(&s, 10);
    EXPECT_EQ(s.fs.pupilSize[1], 1000.0f);
}

TEST(QueueAdd, BatchMayExtendByOneStep)
{
    auto q = queueWithStep(900, 2, 51); // ..., 998, 1000
    EXPECT_FALSE(q->isOutOfBoundsToAdd(1002));
    EXPECT_TRUE(q->isOutOfBoundsToAdd(1004));
    EXPECT_FALSE(q->isOutOfBoundsToAdd(950)); // inside
    EXPECT_TRUE(q->isOutOfBoundsToAdd(898));  // before the span
    EXPECT_FALSE(queueWithKeys({})->isOutOfBoundsToAdd(5));
    EXPECT_TRUE(queueWithKeys({10, 12})->isOutOfBoundsToAdd(14)); // no step known
    // A gap at the front: the step comes from the last two keys.
    EXPECT_FALSE(queueWithKeys({10, 40, 42})->isOutOfBoundsToAdd(44));
    EXPECT_TRUE(queueWithKeys({10, 40, 42})->isOutOfBoundsToAdd(45));
}

TEST(QueueShift, DropsTheOldest128)
{
    auto q = queueWithStep(0, 2, SampleQueue::kSlots);
    q->shiftQueue();
    ASSERT_EQ(q->size(), 384);
    EXPECT_EQ(q->keyAt(0), 256u);
    EXPECT_EQ(q->keyAt(383), 1022u);
    EXPECT_EQ(q->keyAt(384), 0u); // freed slots are zeroed
    EXPECT_EQ(q->getOldSample(256)->fs.time, 128u);
    EXPECT_EQ(slotOf(*q, 600), 172);

    auto small = queueWithStep(0, 2, 100);
    small->shiftQueue();
    EXPECT_EQ(small->size(), 0);
    EXPECT_EQ(small->keyAt(0), 0u);
}

// ---- batch reading ------------------------------------------------------

TEST(QueueBatch, SampleNearTheEndShiftsTheQueue)
{
    OrbWriter w;
    addBlock(w, 5000, 1000, 1000.0);
    auto f = open(w);
    std::vector<int> entries = sampleEntries(*f);
    ASSERT_EQ(entries.size(), 1000u);
    SampleQueue& q = *f->queue;

    Sample* s = q.getSample(entries[0]);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(q.size(), 512);
    EXPECT_EQ(q.slotOf(s), 0);
    EXPECT_EQ(q.getSample(entries[447]), q.getOldSample(f->items[size_t(entries[447])].timeKey));
    EXPECT_EQ(q.keyAt(0), 10000u); // 447 is close enough: no batch

    s = q.getSample(entries[448]);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(q.slotOf(s), 320);
    EXPECT_EQ(q.keyAt(0), 2u * (5000 + 128));
    EXPECT_EQ(q.size(), 512);
    EXPECT_EQ(s->fs.time, 5448u);
    EXPECT_EQ(s->fs.gazeX[0], float(gazeX(448, 0)));
    // The samples read on after the shift are the right ones.
    for (int i = 128; i < 640; ++i) {
        Sample* t = q.getOldSample(2u * (5000 + i));
        ASSERT_NE(t, nullptr) << i;
        EXPECT_EQ(t->fs.time, uint32_t(5000 + i));
        EXPECT_EQ(t->fs.gazeX[0], float(gazeX(i, 0))) << i;
        EXPECT_EQ(t->fs.pupilSize[0], float(700 + i)) << i;
    }
}

TEST(QueueBatch, StopsAtTheBlockEndAndStartsAfreshInTheNext)
{
    OrbWriter w;
    // Events and messages between samples are read past.
    addBlock(w, 1000, 100, 500.0, [](OrbWriter& out, int i) {
        if (i % 10 == 3)
            out.add(EventItem(MESSAGE, -1).start(1000 + 2 * i).message("TRIALID x"));
        if (i % 10 == 5)
            out.add(EventItem(SFIX, 0).start(1000 + 2 * i));
    });
    addBlock(w, 9000, 50, 500.0);
    auto f = open(w);
    std::vector<int> entries = sampleEntries(*f);
    ASSERT_EQ(entries.size(), 150u);
    SampleQueue& q = *f->queue;

    ASSERT_NE(q.getSample(entries[0]), nullptr);
    EXPECT_EQ(q.size(), 100);
    for (int i = 0; i < 100; ++i) {
        Sample* s = q.getOldSample(2u * (1000 + 2 * i));
        ASSERT_NE(s, nullptr) << i;
        EXPECT_EQ(s->fs.gazeY[0], float(gazeY(i))) << i;
    }
    Sample* s = q.getSample(entries[100]);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(q.size(), 50);
    EXPECT_EQ(q.keyAt(0), 18000u);
    EXPECT_EQ(s->fs.gazeX[0], float(gazeX(0, 0)));
    // Back into the first block: not an extension, so the queue restarts.
    s = q.getSample(entries[60]);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(q.keyAt(0), 2u * (1000 + 120));
    EXPECT_EQ(q.size(), 40);
}

TEST(QueueBatch, PlaceholdersBecomeMissingSamples)
{
    OrbWriter w;
    // 1000 per second with samples 3 and 4 absent: the repairing pre-scan
    // puts placeholders for them into the index.
    addBlock(w, 100, 12, 1000.0, {}, [](int i) { return i == 3 || i == 4; });
    auto f = open(w, 2);
    std::vector<int> entries = sampleEntries(*f);
    ASSERT_EQ(entries.size(), 12u);
    EXPECT_EQ(f->items[size_t(entries[3])].position, -1);
    EXPECT_EQ(f->items[size_t(entries[4])].position, -1);

    auto check = [&](SampleQueue& q, float carriedPupil) {
        for (int i = 0; i < 12; ++i) {
            Sample* s = q.getSample(entries[size_t(i)]);
            ASSERT_NE(s, nullptr) << i;
            const FSAMPLE& fs = s->fs;
            EXPECT_EQ(fs.time, uint32_t(100 + i));
            if (i == 3 || i == 4) {
                EXPECT_EQ(fs.flags, 0xC000);
                EXPECT_EQ(fs.gazeX[0], kMissing);
                EXPECT_EQ(fs.rawY[1], kMissing);
                EXPECT_EQ(fs.resolutionX, kMissing);
                EXPECT_EQ(fs.fastRawVelY[1], kMissing);
                EXPECT_EQ(fs.pupilSize[0], carriedPupil);
                EXPECT_EQ(fs.extraType, 32767);
                EXPECT_EQ(fs.extraData[0], 32767);
                EXPECT_EQ(fs.extraData[1], 0);
                EXPECT_EQ(fs.input, 0);
                EXPECT_EQ(fs.status, 0);
                EXPECT_EQ(fs.buttons, 0);
            } else {
                EXPECT_EQ(fs.gazeX[0], float(gazeX(i, 0))) << i;
                EXPECT_EQ(fs.pupilSize[0], float(700 + i)) << i;
            }
        }
    };
    check(*f->queue, 702.0f);
    // A batch that starts on a placeholder: nothing to carry yet.
    f->queue->clear();
    SampleQueue& q = *f->queue;
    ASSERT_NE(q.getSample(entries[3]), nullptr);
    EXPECT_EQ(q.keyAt(0), 206u);
    EXPECT_EQ(q.getOldSample(206)->fs.pupilSize[0], 1000.0f);
    EXPECT_EQ(q.getOldSample(210)->fs.gazeY[0], float(gazeY(5)));
}

TEST(QueueBatch, TheIndexIsTheAuthorityOnTime)
{
    OrbWriter w;
    addBlock(w, 100, 10, 1000.0);
    for (bool repair : {false, true}) {
        auto f = open(w);
        f->fixupMode = repair;
        std::vector<int> entries = sampleEntries(*f);
        ASSERT_EQ(entries.size(), 10u);
        // Drop sample 4 from the index: from there on the stream's samples
        // are filed under the keys of the entries that follow.
        f->items.erase(f->items.begin() + entries[4]);
        entries = sampleEntries(*f);
        SampleQueue& q = *f->queue;
        ASSERT_NE(q.getSample(entries[0]), nullptr);
        EXPECT_EQ(q.size(), 9);
        EXPECT_EQ(q.getOldSample(206)->fs.gazeX[0], float(gazeX(3, 0)));
        Sample* moved = q.getOldSample(210); // the entry of sample 5
        ASSERT_NE(moved, nullptr);
        if (repair) {
            EXPECT_EQ(moved->fs.time, 105u);
            EXPECT_EQ(moved->fs.flags, 0xC000);
            EXPECT_EQ(moved->fs.gazeX[0], kMissing);
        } else {
            EXPECT_EQ(moved->fs.time, 104u);
            EXPECT_EQ(moved->fs.gazeX[0], float(gazeX(4, 0)));
        }
    }
}
