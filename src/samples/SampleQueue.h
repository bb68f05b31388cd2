// The span of up to 512 decoded samples around the current one, from which
// samples are handed out and velocities computed.  The slots form a ring:
// dropping the oldest entries moves its start instead of the entries.
#ifndef ORBAPI_SAMPLEQUEUE_H
#define ORBAPI_SAMPLEQUEUE_H

#include <cstddef>
#include <cstdint>

#include "items.h"

class SampleQueue {
public:
    static constexpr int kSlots = 512;
    // Later slots have fewer than 64 successors: a sample found there is
    // handed out only after the queue has read on.
    static constexpr int kLastCentredSlot = 447;
    // The pupil sizes a sample without them takes before any sample had
    // them.
    static constexpr float kCarriedPupilStart = 1000.0f;

    // `highSpeedFilter`: velocities with the filter of the high-speed
    // tracker model.
    explicit SampleQueue(bool highSpeedFilter = false);

    // Empties the queue and resets the carried pupil sizes.
    void clear();
    // Drops the oldest 128 entries.
    void shiftQueue();
    // Appends s under key (ignored unless key is above the last key), after
    // the pupil carry, which may change s's pupil sizes.  Returns 0.
    int addSample(Sample* s, unsigned long long key);
    // The slot the next addSample fills, to decode a sample into in place
    // (then handed to addSample); null when the queue is full.  Its content
    // counts only once added.
    Sample* nextSlot() { return count_ < kSlots ? &at(count_).sample : nullptr; }
    // Whether a batch starting at key cannot simply extend the queue.
    bool isOutOfBoundsToAdd(unsigned long long key) const;
    // Fast lookup by arithmetic on the key step; *pos gets the slot or -1.
    Sample* getOldSample(unsigned long long key, int* pos = nullptr);
    // Linear lookup.
    Sample* getOldSampleSlow(unsigned long long key, int* pos = nullptr);
    // What SampleReader::getSample hands out for an entry whose key is `key` when the
    // entry at `slot` went before it: the next slot, when it holds that key
    // and lies where getSample takes a sample without reading on; null
    // otherwise (getSample then decides).
    Sample* following(int slot, unsigned long long key)
    {
        const int next = slot + 1;
        if (slot < 0 || next >= count_ || next > kLastCentredSlot || keyOf(next) != key)
            return nullptr;
        return &at(next).sample;
    }

    // Fills the velocity members of s (a queue entry) from its neighbours.
    int setVelocity(Sample* s, int rate);
    // One velocity pair of one eye and kind into vx[eye], vy[eye].
    void getVelocity(bool fast, int kind, int rate, Sample* const* neighbours, int count,
                     int eye, float* vx, float* vy) const;
    // The standard and the high-speed filters over p[0..n-1].
    double calcVelocity_non_hspd(bool fast, const float* p, int n, float resolution,
                                 float rate) const;
    double calcVelocity_hspd(bool fast, const float* p, int n, float resolution,
                             float rate) const;

    // The slot that holds s, or -1 when s is not an entry in use.
    int slotOf(const Sample* s) const;

    int size() const { return count_; }
    // Slot numbers count from the oldest entry.
    unsigned long long keyAt(int slot) const { return keyOf(slot); }

private:
    struct Slot {
        Sample sample;
    };

    static constexpr int kSlotMask = kSlots - 1;
    static_assert((kSlots & kSlotMask) == 0, "a ring of a power of two");

    // Slot i of the ring, counted from its start.
    Slot& at(int i) { return slots_[(head_ + i) & kSlotMask]; }
    const Slot& at(int i) const { return slots_[(head_ + i) & kSlotMask]; }
    // The key of slot i.  The keys lie apart from the samples, in one small
    // array, so that a lookup reads no sample it does not hand out.
    unsigned long long& keyOf(int i) { return keys_[(head_ + i) & kSlotMask]; }
    unsigned long long keyOf(int i) const { return keys_[(head_ + i) & kSlotMask]; }

    int count_ = 0;
    int head_ = 0; // the array index of slot 0
    unsigned long long keys_[kSlots]; // by array index, as slots_; 0 past the entries
    Slot slots_[kSlots];
    bool highSpeed_;
    float carriedPupil_[2];
};

#endif
