// The sample queue: lookup by key, the pupil carry, and the batch reading
// that fills it from a recording.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>

#include "Internals.h"
#include "SampleQueue.h"
#include "VelocityFilter.h"

using namespace orbtest;

namespace {

constexpr float kMissing = 100000000.0f;

Sample leftSample(uint32_t time)
{
    Sample s;
    s.fs.flags = kSampleItem | kLeftEye;
    s.fs.time = time;
    return s;
}

std::unique_ptr<SampleQueue> queueWithKeys(const std::vector<unsigned long long>& keys)
{
    auto q = std::make_unique<SampleQueue>();
    for (unsigned long long k : keys) {
        Sample s = leftSample(uint32_t(k / 2));
        q->addSample(&s, k);
    }
    return q;
}

// Keys first, first + 2, ... (count of them): 1000 samples per second.
std::vector<unsigned long long> keys1000Hz(unsigned long long first, int count)
{
    std::vector<unsigned long long> keys;
    for (int i = 0; i < count; ++i) keys.push_back(first + 2 * unsigned(i));
    return keys;
}

int slotOf(SampleQueue& q, unsigned long long key)
{
    int pos = -2;
    q.getOldSample(key, &pos);
    return pos;
}

// Gaze x of sample i of a block.
int16_t gazeX(int i) { return int16_t(100 + 10 * i); }

// One recording block of n left-eye samples at `rate`, the first with its
// full time and the others with time steps, as a tracker writes them.
// between(i) may add items after sample i; skipped samples are left out.
void addSteppedBlock(OrbWriter& w, uint32_t t0, int n, double rate, const std::function<void(int)>& between = {},
                     std::initializer_list<int> skipped = {})
{
    const uint16_t flags = kSampleItem | kLeftEye | kGazeGroup | kResolutionGroup | kPupilGroup;
    w.add(blockStart(SSAMPLES, t0, rate, flags));
    w.add(blockStart(SEVENTS, t0, rate, 0x8000, 1, 10, 0x0312, kEventBlockLeftEye));
    uint32_t previous = t0, t = t0;
    for (int i = 0; i < n; ++i) {
        t = t0 + uint32_t(i * (1000.0 / rate));
        if (std::find(skipped.begin(), skipped.end(), i) != skipped.end()) continue;
        SampleItem s;
        s.flags = flags | (i == 0 ? kFullTime : 0);
        s.time = t;
        s.step = uint8_t(t - previous);
        s.gaze[0][0] = gazeX(i);
        s.gaze[0][1] = int16_t(50 - i);
        s.res[0] = s.res[1] = 40;
        s.pupil[0] = int16_t(700 + i);
        w.add(s);
        previous = t;
        if (between) between(i);
    }
    endBlock(w, t + 1);
}

// Index positions of the sample entries, in index order.
std::vector<int> sampleEntries(const ORBFile& f)
{
    std::vector<int> out;
    for (size_t i = 0; i < f.index.items.size(); ++i)
        if (f.index.items[i].code() == SAMPLE) out.push_back(int(i));
    return out;
}

} // namespace

// ---- lookup and adding ------------------------------------------------------

TEST(QueueLookup, ArithmeticSearchesThenTheScan)
{
    const std::vector<unsigned long long> steady = keys1000Hz(1000, 100), gap = {10, 12, 14, 20, 22};
    const struct {
        std::vector<unsigned long long> keys;
        unsigned long long key;
        int slot;
    } cases[] = {
        {steady, 1010, 5}, {steady, 1011, -1}, {steady, 998, -1}, {steady, 1200, -1}, {steady, 0, -1},
        // 20 would be slot 5 without the gap; the search from the end finds it.
        {gap, 20, 3}, {gap, 14, 2}, {gap, 16, -1},
        // Gaps on both sides of 20: no arithmetic finds it (the scan does).
        {{10, 12, 20, 22, 30, 32}, 20, -1},
        // Two entries: only the ends are found.
        {{10, 14}, 14, 1}, {{10, 14}, 12, -1},
        // A first step above 8 is replaced by the last step; a last step
        // that is no sample interval either gives up.
        {{10, 40, 42, 44, 46}, 42, 2}, {{10, 40, 43, 46}, 40, -1},
    };
    for (const auto& c : cases) EXPECT_EQ(slotOf(*queueWithKeys(c.keys), c.key), c.slot) << c.key;

    auto q = queueWithKeys(steady);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(slotOf(*q, 1000 + 2 * i), i);
    EXPECT_EQ(q->getOldSample(1010)->fs.time, 505u);
    int pos = -2;
    auto g = queueWithKeys({10, 12, 20, 22, 30, 32});
    EXPECT_NE(g->getOldSampleSlow(20, &pos), nullptr);
    EXPECT_EQ(pos, 2);
    EXPECT_EQ(g->getOldSampleSlow(21, &pos), nullptr);
    EXPECT_EQ(pos, -1);
}

TEST(QueueAdd, KeysMustIncrease)
{
    auto q = queueWithKeys({10, 12});
    Sample dup = leftSample(99);
    EXPECT_EQ(q->addSample(&dup, 12), 0);
    EXPECT_EQ(q->addSample(&dup, 4), 0);
    EXPECT_EQ(q->size(), 2);
    EXPECT_EQ(q->getOldSample(12)->fs.time, 6u);
}

TEST(QueueAdd, PupilSizesAreCarriedForward)
{
    SampleQueue q;
    Sample bare = leftSample(1);
    bare.fs.pupilSize[0] = bare.fs.pupilSize[1] = 5.0f;
    q.addSample(&bare, 2);
    EXPECT_EQ(bare.fs.pupilSize[0], 1000.0f) << "the caller's sample too";
    EXPECT_EQ(q.getOldSample(2)->fs.pupilSize[1], 1000.0f);

    Sample withPupil = leftSample(2);
    withPupil.fs.flags |= kPupilGroup;
    withPupil.fs.pupilSize[0] = 3.5f;
    withPupil.fs.pupilSize[1] = 4.0f;
    q.addSample(&withPupil, 4);
    // An ignored sample neither sets nor takes the carry.
    Sample late = leftSample(0);
    late.fs.flags |= kPupilGroup;
    late.fs.pupilSize[0] = late.fs.pupilSize[1] = 9.0f;
    q.addSample(&late, 4);
    Sample next = leftSample(3);
    q.addSample(&next, 6);
    EXPECT_EQ(q.getOldSample(6)->fs.pupilSize[0], 3.5f);
    EXPECT_EQ(q.getOldSample(6)->fs.pupilSize[1], 4.0f);

    // The carry survives a shift and not a clear.
    q.shiftQueue();
    Sample s = leftSample(5);
    q.addSample(&s, 10);
    EXPECT_EQ(s.fs.pupilSize[1], 4.0f);
    q.clear();
    q.addSample(&s, 10);
    EXPECT_EQ(s.fs.pupilSize[1], 1000.0f);
}

TEST(QueueAdd, BatchMayExtendByOneStep)
{
    auto q = queueWithKeys(keys1000Hz(900, 51)); // ..., 998, 1000
    EXPECT_FALSE(q->isOutOfBoundsToAdd(1002));
    EXPECT_TRUE(q->isOutOfBoundsToAdd(1004));
    EXPECT_FALSE(q->isOutOfBoundsToAdd(950)); // inside
    EXPECT_TRUE(q->isOutOfBoundsToAdd(898));  // before the span
    EXPECT_FALSE(queueWithKeys({})->isOutOfBoundsToAdd(5));
    EXPECT_TRUE(queueWithKeys({10, 12})->isOutOfBoundsToAdd(14)) << "no step known";
    // A gap at the front: the step comes from the last two keys.
    EXPECT_FALSE(queueWithKeys({10, 40, 42})->isOutOfBoundsToAdd(44));
    EXPECT_TRUE(queueWithKeys({10, 40, 42})->isOutOfBoundsToAdd(45));
}

// ---- batch reading ------------------------------------------------------

TEST(QueueBatch, SampleNearTheEndShiftsTheQueue)
{
    OrbWriter w;
    addSteppedBlock(w, 5000, 1000, 1000.0);
    auto f = openOrb(w);
    std::vector<int> entries = sampleEntries(*f);
    SampleReader& reader = *f->samples;
    SampleQueue& q = reader.queue();

    Sample* s = reader.getSample(entries[0]);
    EXPECT_EQ(q.slotOf(s), 0);
    EXPECT_EQ(q.size(), 512);
    EXPECT_EQ(q.slotOf(reader.getSample(entries[447])), 447) << "close enough: no batch";

    s = reader.getSample(entries[448]);
    EXPECT_EQ(q.slotOf(s), 320);
    EXPECT_EQ(q.keyAt(0), 2u * (5000 + 128));
    EXPECT_EQ(q.size(), 512);
    // The samples read on after the shift are the right ones.
    for (int i = 128; i < 640; ++i) {
        Sample* t = q.getOldSample(2u * (5000 + i));
        ASSERT_NE(t, nullptr) << i;
        EXPECT_EQ(t->fs.time, uint32_t(5000 + i));
        EXPECT_EQ(t->fs.gazeX[0], float(gazeX(i))) << i;
        EXPECT_EQ(t->fs.pupilSize[0], float(700 + i)) << i;
    }
}

TEST(QueueBatch, StopsAtTheBlockEndAndStartsAfreshInTheNext)
{
    OrbWriter w;
    // Events and messages between samples are read past.
    addSteppedBlock(w, 1000, 100, 500.0, [&w](int i) {
        if (i % 10 == 3) w.add(message(1000 + 2 * i, "TRIALID x"));
        if (i % 10 == 5) w.add(EventItem(SFIX, 0).start(1000 + 2 * i));
    });
    addSteppedBlock(w, 9000, 50, 500.0);
    auto f = openOrb(w);
    std::vector<int> entries = sampleEntries(*f);
    SampleReader& reader = *f->samples;
    SampleQueue& q = reader.queue();

    ASSERT_NE(reader.getSample(entries[0]), nullptr);
    EXPECT_EQ(q.size(), 100);
    for (int i = 0; i < 100; ++i) {
        Sample* s = q.getOldSample(2u * (1000 + 2 * i));
        ASSERT_NE(s, nullptr) << i;
        EXPECT_EQ(s->fs.gazeY[0], float(50 - i)) << i;
    }
    Sample* s = reader.getSample(entries[100]);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(q.size(), 50);
    EXPECT_EQ(q.keyAt(0), 18000u);
    EXPECT_EQ(s->fs.gazeX[0], float(gazeX(0)));
    // Back into the first block: not an extension, so the queue restarts.
    ASSERT_NE(reader.getSample(entries[60]), nullptr);
    EXPECT_EQ(q.keyAt(0), 2u * (1000 + 120));
    EXPECT_EQ(q.size(), 40);
}

TEST(QueueBatch, PlaceholdersBecomeMissingSamples)
{
    OrbWriter w;
    // Samples 3 and 4 absent: the repairing pre-scan puts placeholders for
    // them into the index.
    addSteppedBlock(w, 100, 12, 1000.0, {}, {3, 4});
    auto f = openOrb(w, 2);
    std::vector<int> entries = sampleEntries(*f);
    ASSERT_EQ(entries.size(), 12u);
    SampleReader& reader = *f->samples;
    SampleQueue& q = reader.queue();
    for (int i = 0; i < 12; ++i) {
        Sample* s = reader.getSample(entries[size_t(i)]);
        ASSERT_NE(s, nullptr) << i;
        const FSAMPLE& fs = s->fs;
        EXPECT_EQ(fs.time, uint32_t(100 + i));
        if (i != 3 && i != 4) {
            EXPECT_EQ(fs.gazeX[0], float(gazeX(i))) << i;
            continue;
        }
        EXPECT_EQ(fs.flags, kBothEyes);
        for (float v : {fs.gazeX[0], fs.rawY[1], fs.resolutionX, fs.fastRawVelY[1]}) EXPECT_EQ(v, kMissing);
        EXPECT_EQ(fs.pupilSize[0], 702.0f) << "carried";
        EXPECT_EQ((std::vector<int>{fs.extraType, fs.extraData[0], fs.extraData[1], fs.input, fs.status, fs.buttons}),
                  (std::vector<int>{32767, 32767, 0, 0, 0, 0}));
    }
    // A batch that starts on a placeholder: nothing to carry yet.
    q.clear();
    ASSERT_NE(reader.getSample(entries[3]), nullptr);
    EXPECT_EQ(q.keyAt(0), 206u);
    EXPECT_EQ(q.getOldSample(206)->fs.pupilSize[0], 1000.0f);
    EXPECT_EQ(q.getOldSample(210)->fs.gazeY[0], float(50 - 5));
}

TEST(QueueBatch, TheIndexIsTheAuthorityOnTime)
{
    OrbWriter w;
    addSteppedBlock(w, 100, 10, 1000.0);
    for (bool repair : {false, true}) {
        auto f = openOrb(w);
        f->samples->setFixupMode(repair);
        // Drop sample 4 from the index: from there on the stream's samples
        // are filed under the keys of the entries that follow.
        f->index.items.erase(f->index.items.begin() + sampleEntries(*f)[4]);
        SampleReader& reader = *f->samples;
        SampleQueue& q = reader.queue();
        ASSERT_NE(reader.getSample(sampleEntries(*f)[0]), nullptr);
        EXPECT_EQ(q.size(), 9);
        Sample* moved = q.getOldSample(210); // the entry of sample 5
        ASSERT_NE(moved, nullptr);
        EXPECT_EQ(moved->fs.time, repair ? 105u : 104u);
        EXPECT_EQ(moved->fs.gazeX[0], repair ? kMissing : float(gazeX(4)));
    }
}

// Velocities look their neighbours up by key: in a queue without gaps by
// offset alone.  Either way a neighbour is there exactly when getOldSample
// finds it: queues with and without gaps, after a shift, for every entry
// and the standard filter's reach at 250 to 2000 samples per second.
TEST(QueueVelocity, NeighboursAreThoseTheLookupFinds)
{
    std::vector<std::vector<unsigned long long>> shapes = {
        keys1000Hz(1000, 300),                     // no gap
        keys1000Hz(1000, 2),                       // too short for arithmetic
        {1000, 1002, 1004, 1010, 1012, 1014, 1016}, // a gap
        {1000, 1001, 1003, 1004, 1005},            // steps of one and two
    };
    std::vector<unsigned long long> shifted = keys1000Hz(5000, 512);
    shapes.push_back(shifted);
    for (size_t shape = 0; shape < shapes.size(); ++shape) {
        for (int rate : {250, 500, 1000, 2000}) {
            auto q = queueWithKeys(shapes[shape]);
            if (shape + 1 == shapes.size())
                q->shiftQueue(); // the ring's start no longer at the array's
            for (int slot = 0; slot < q->size(); ++slot) {
                const unsigned long long key = q->keyAt(slot);
                Sample* s = q->getOldSampleSlow(key);
                for (int e = 0; e < 2; ++e) {
                    s->fs.gazeX[e] = float(key % 97) + float(e);
                    s->fs.gazeY[e] = float(key % 89);
                    s->fs.resolutionX = s->fs.resolutionY = 10.0f;
                }
                s->fs.flags = kSampleItem | kLeftEye | kGazeGroup;
            }
            for (int slot = 0; slot < q->size(); ++slot) {
                SCOPED_TRACE("shape " + std::to_string(shape) + " rate " + std::to_string(rate) + " slot " +
                             std::to_string(slot));
                const unsigned long long key = q->keyAt(slot);
                Sample* s = q->getOldSampleSlow(key);
                Sample* neighbours[velocity::kNeighbours] = {};
                neighbours[velocity::kCentre] = s;
                const unsigned long long d = 2000 / unsigned(rate);
                for (int k = 1; k <= 2; ++k) {
                    neighbours[velocity::kCentre - k] = q->getOldSample(key - k * d);
                    neighbours[velocity::kCentre + k] = q->getOldSample(key + k * d);
                }
                Sample want = *s;
                velocity::fill(want, neighbours, false, rate);
                q->setVelocity(s, rate);
                EXPECT_EQ(std::memcmp(&want.fs, &s->fs, sizeof want.fs), 0);
            }
        }
    }
}
