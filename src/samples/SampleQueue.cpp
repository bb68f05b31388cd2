// The sample queue: lookup by key, the pupil carry, and velocities.
//
// Keys are half-milliseconds.  Within a recording block neighbouring samples
// lie a constant step of 1, 2, 4 or 8 apart, so a key is normally found by
// one shift: (key - first key) >> log2(step).  Gaps (samples the stream
// lacks) break that arithmetic; the search then tries from the end of the
// span, and the caller falls back to a linear scan.
//
// Velocities are finite differences (VelocityFilter) over the neighbours of
// a sample, looked up here by key.  Only the neighbours the chosen filter
// reads are looked up: handing out a sample allocates nothing.
#include "SampleQueue.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "items.h"
#include "VelocityFilter.h"

namespace {

constexpr int kShiftBy = 128;        // entries dropped by one shift

inline bool present(float v) { return v != kMissingValue; }

// The step of a span, as the search takes it: the distance of its first two
// keys, or of its last two when the first one is a gap.
inline uint32_t spanStep(unsigned long long k0, unsigned long long k1, unsigned long long kBeforeLast,
                         unsigned long long kLast)
{
    uint32_t d = uint32_t(k1 - k0);
    if (d > 8)
        d = uint32_t(kLast - kBeforeLast);
    return d;
}

// log2 of a step of 1, 2, 4 or 8; -1 for any other step.
inline int stepShift(uint32_t d)
{
    switch (d) {
    case 1: return 0;
    case 2: return 1;
    case 4: return 2;
    case 8: return 3;
    default: return -1;
    }
}

} // namespace

SampleQueue::SampleQueue(bool highSpeedFilter) : highSpeed_(highSpeedFilter)
{
    clear();
}

void SampleQueue::clear()
{
    count_ = 0;
    head_ = 0;
    std::memset(static_cast<void*>(slots_), 0, sizeof slots_);
    std::memset(keys_, 0, sizeof keys_);
    carriedPupil_[0] = carriedPupil_[1] = kCarriedPupilStart;
}

void SampleQueue::shiftQueue()
{
    // The oldest entries leave by moving the ring's start past them; their
    // slots, now the last ones, get the key 0 that every slot past the
    // entries in use has (lookups go by key, so the rest of a slot past the
    // entries is never read).
    for (int i = 0; i < std::min(count_, kShiftBy); ++i)
        keyOf(i) = 0;
    head_ = (head_ + kShiftBy) & kSlotMask;
    count_ = std::max(count_ - kShiftBy, 0);
}

int SampleQueue::addSample(Sample* s, unsigned long long key)
{
    if (count_ > 0 && key <= keyOf(count_ - 1))
        return 0;
    // A sample without pupil sizes takes the latest ones seen.
    if (s->fs.flags & kPupilGroup) {
        carriedPupil_[0] = s->fs.pupilSize[0];
        carriedPupil_[1] = s->fs.pupilSize[1];
    } else {
        s->fs.pupilSize[0] = carriedPupil_[0];
        s->fs.pupilSize[1] = carriedPupil_[1];
    }
    // The batch reader stops at a full queue; this only keeps a careless
    // caller inside the array.
    if (count_ >= kSlots)
        return 0;
    Slot& slot = at(count_);
    if (s != &slot.sample)
        slot.sample = *s;
    keyOf(count_) = key;
    ++count_;
    return 0;
}

bool SampleQueue::isOutOfBoundsToAdd(unsigned long long key) const
{
    if (count_ == 0)
        return false;
    const unsigned long long last = keyOf(count_ - 1);
    if (key < keyOf(0))
        return true;
    if (key <= last)
        return false;
    if (count_ < 3)
        return true;
    uint32_t d = spanStep(keyOf(0), keyOf(1), keyOf(count_ - 2), last);
    return key > last + d;
}

Sample* SampleQueue::getOldSample(unsigned long long key, int* pos)
{
    if (pos)
        *pos = -1;
    if (count_ == 0)
        return nullptr;
    const int lastSlot = count_ - 1;
    const unsigned long long first = keyOf(0);
    const unsigned long long last = keyOf(lastSlot);
    int found = -1;
    if (key == first) {
        found = 0;
    } else if (key == last) {
        found = lastSlot;
    } else if (key <= first || key >= last || count_ < 3) {
        return nullptr;
    } else {
        const int shift = stepShift(spanStep(first, keyOf(1), keyOf(lastSlot - 1), last));
        if (shift < 0)
            return nullptr;
        // From the front, as if there were no gap.
        const unsigned long long i = (key - first) >> shift;
        // From the back, as if there were no gap after the key.
        const unsigned long long fromEnd = (last - key) >> shift;
        // From the back by the last step.
        const unsigned long long lastStep = last - keyOf(lastSlot - 1);
        if (i < unsigned(kSlots) && keyOf(int(i)) == key) {
            found = int(i);
        } else if (fromEnd <= unsigned(lastSlot) && keyOf(lastSlot - int(fromEnd)) == key) {
            found = lastSlot - int(fromEnd);
        } else if (lastStep != 0) {
            const unsigned long long back = (last - key) / lastStep;
            if (back <= unsigned(lastSlot) && keyOf(lastSlot - int(back)) == key)
                found = lastSlot - int(back);
        }
        if (found < 0)
            return nullptr;
    }
    if (pos)
        *pos = found;
    return &at(found).sample;
}

Sample* SampleQueue::getOldSampleSlow(unsigned long long key, int* pos)
{
    if (pos)
        *pos = -1;
    for (int i = 0; i < count_; ++i) {
        if (keyOf(i) == key) {
            if (pos)
                *pos = i;
            return &at(i).sample;
        }
    }
    return nullptr;
}

int SampleQueue::slotOf(const Sample* s) const
{
    const auto base = reinterpret_cast<uintptr_t>(&slots_[0].sample);
    const auto at = reinterpret_cast<uintptr_t>(s);
    if (!s || at < base)
        return -1;
    const uintptr_t offset = at - base;
    if (offset % sizeof(Slot) != 0 || offset / sizeof(Slot) >= uintptr_t(kSlots))
        return -1;
    const int slot = (int(offset / sizeof(Slot)) - head_) & kSlotMask;
    return slot < count_ ? slot : -1;
}

// ---------------------------------------------------------------------------
// Velocities

int SampleQueue::setVelocity(Sample* s, int rate)
{
    const int slot = slotOf(s);
    if (slot < 0)
        return 0;
    const unsigned long long key = keyOf(slot);
    const bool highSpeed = highSpeed_;
    const int h = velocity::halfWidth(highSpeed, float(rate));

    // Neighbours k intervals away, k = 1..h: the filters read no others,
    // and the entries beyond them are left unset.
    using velocity::kCentre;
    Sample* neighbours[velocity::kNeighbours];
    neighbours[kCentre] = s;
    // A queue without gaps (its keys one step apart from first to last, as
    // within a block) holds a key exactly where getOldSample's first rule
    // looks, and no key elsewhere: the lookup is then that rule alone.
    const int last = count_ - 1;
    const unsigned long long first = keyOf(0);
    const int shift = count_ >= 3 ? stepShift(uint32_t(keyOf(1) - first)) : -1;
    const bool even = shift >= 0 && keyOf(last) - first == (unsigned long long)(last) << shift;
    auto lookup = [&](unsigned long long k) -> Sample* {
        if (!even)
            return getOldSample(k);
        const unsigned long long offset = k - first;
        if (k < first || (offset >> shift) > unsigned(last) || (offset & ((1ull << shift) - 1)) != 0)
            return nullptr;
        return &at(int(offset >> shift)).sample;
    };
    // A rate of 0 (or below) has no sample interval: no neighbours then.
    const float interval = rate > 0 ? float(1000.0 / rate) : 0.0f;
    for (int k = 1; k <= h; ++k) {
        const float distance = float(k) * interval * 2.0f;
        Sample* before = nullptr;
        Sample* after = nullptr;
        if (rate > 0 && distance < 18446744073709551616.0f) {
            const auto d = static_cast<unsigned long long>(distance);
            before = lookup(key - d);
            after = lookup(key + d);
        }
        neighbours[kCentre - k] = before;
        neighbours[kCentre + k] = after;
    }

    velocity::fill(*s, neighbours, highSpeed, rate);
    return 0;
}

void SampleQueue::getVelocity(bool fast, int kind, int rate, Sample* const* neighbours, int count,
                              int eye, float* vx, float* vy) const
{
    velocity::one(fast, kind, rate, highSpeed_, neighbours, count, eye, vx, vy);
}

double SampleQueue::calcVelocity_non_hspd(bool fast, const float* p, int n, float resolution,
                                          float rate) const
{
    return velocity::standard(fast, p, n, resolution, rate);
}

double SampleQueue::calcVelocity_hspd(bool fast, const float* p, int n, float resolution,
                                      float rate) const
{
    return velocity::highSpeed(fast, p, n, resolution, rate);
}
