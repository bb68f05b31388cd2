// Reading a run of samples from the stream into the sample queue, and
// handing out the queued sample of an index entry.
//
// The index is the authority on time: the batch walks the index's sample
// entries and the stream's items together, and files each decoded sample
// under the key of the index entry it stands for.  Entries for samples the
// stream lacks (placeholders, position -1) become missing samples.
#include <cstring>

#include "SampleReader.h"
#include "base.h"
#include "items.h"

namespace {

constexpr int32_t kPlaceholder = -1;
constexpr int kQueueFullAbove = SampleQueue::kSlots - 1;
const FSAMPLE kZeroSample{};

// A sample that the stream does not hold, at key / 2 ms: every value
// missing, both eyes marked.  Its pupil sizes are the carried ones once it
// is added to the queue.
void makeMissingSample(Sample& s, unsigned long long key)
{
    std::memset(static_cast<void*>(&s.fs), 0, sizeof s.fs);
    FSAMPLE& fs = s.fs;
    fs.time = uint32_t(key >> 1);
    for (float* pair : {fs.rawX, fs.rawY, fs.secondX, fs.secondY, fs.pupilSize, fs.gazeX, fs.gazeY,
                        fs.gazeVelX, fs.gazeVelY, fs.secondVelX, fs.secondVelY, fs.rawVelX,
                        fs.rawVelY, fs.fastGazeVelX, fs.fastGazeVelY, fs.fastSecondVelX,
                        fs.fastSecondVelY, fs.fastRawVelX, fs.fastRawVelY})
        pair[0] = pair[1] = kMissingValue;
    fs.resolutionX = fs.resolutionY = kMissingValue;
    fs.flags = kBothEyes;
    fs.input = fs.buttons = fs.status = 0;
    fs.extraType = ORB_PLACEHOLDER;
    fs.extraData[0] = ORB_PLACEHOLDER;
}

bool endsBlock(unsigned code) { return code == ESAMPLES || code == EEVENTS; }

} // namespace

SampleReader::SampleReader(ItemDecoder& decoder, const ItemIndex& index, bool fixupMode)
    : decoder_(decoder), index_(index), fixupMode_(fixupMode), queue_(decoder.trackerModel >= 3)
{
}

int SampleReader::readBatch(int itemIndex)
{
    const std::vector<ORBItem>& items = index_.items;
    const int n = int(items.size());
    if (itemIndex < 0 || itemIndex >= n || items[size_t(itemIndex)].code() != SAMPLE)
        return 0;
    SampleQueue& q = queue_;
    if (q.isOutOfBoundsToAdd(items[size_t(itemIndex)].timeKey))
        q.clear();
    else
        q.shiftQueue();

    Sample placeholder;
    int at = itemIndex;

    // Leading placeholders: they need nothing from the stream.
    while (items[size_t(at)].position == kPlaceholder) {
        if (q.size() > kQueueFullAbove)
            return 0;
        makeMissingSample(placeholder, items[size_t(at)].key());
        q.addSample(&placeholder, items[size_t(at)].key());
        int next = at + 1;
        if (next >= n)
            return 0;
        if (items[size_t(next)].position != kPlaceholder && items[size_t(next)].code() != SAMPLE) {
            // Look for the next sample, unless the block ends first.
            while (next < n && items[size_t(next)].code() != SAMPLE) {
                if (endsBlock(items[size_t(next)].code()))
                    return 0;
                ++next;
            }
            if (next >= n)
                return 0;
        }
        at = next;
    }

    decoder_.resetPosition(items[size_t(at)]);
    EData event;
    bool firstRead = true;

    // The stream walk: the kind of the item at hand comes from the previous
    // framing call, starting with the sample the walk was positioned at.
    int kind = 1;
    for (;;) {
        if (kind == 0) {
            if (firstRead) {
                // The stream is not where the next sample lies (a placeholder
                // went before); that read repositions, so the event is left
                // alone.
                if (endsBlock(items[size_t(at)].code()))
                    return 0;
            } else {
                event.fe = FEVENT{};
                int r = decoder_.read_combfile_event(&event, 0);
                if (r < 0) {
                    orb_log("error reading orb file 4   %d %ld\n", r, long(items[size_t(at)].position));
                    return 0;
                }
                if (endsBlock(event.fe.type))
                    return 0;
            }
        } else if (kind == 1) {
            if (q.size() > kQueueFullAbove)
                return 0;
            const ORBItem& entry = items[size_t(at)];
            // Decoded straight into the queue's next slot.
            Sample& sample = *q.nextSlot();
            const unsigned long long key = entry.key();
            if (entry.position != kPlaceholder && !firstRead && q.size() > 0 && key <= q.keyAt(q.size() - 1)) {
                // Already queued (a shift kept it, and the batch reads on
                // from the sample at hand): the queue would not take it
                // again, so it is only stepped over.
                if (decoder_.frame_combfile_sample(&sample, 0) < 0) {
                    orb_log("error reading orb file 5\n");
                    throw ORBException("Error reading Sample - type");
                }
            } else {
                if (entry.position != kPlaceholder) {
                    // Copying a zero record compiles to a few wide stores; a
                    // memset of this size becomes a slow string instruction.
                    std::memcpy(static_cast<void*>(&sample.fs), &kZeroSample, sizeof sample.fs);
                    unsigned int expected = 0;
                    if (firstRead) {
                        decoder_.resetPosition(entry);
                        expected = runStartTime(entry);
                    }
                    if (decoder_.read_combfile_sample(&sample, expected, 0) < 0) {
                        orb_log("error reading orb file 5\n");
                        throw ORBException("Error reading Sample - type");
                    }
                    firstRead = false;
                } else {
                    makeMissingSample(sample, key);
                    firstRead = true;
                }
                // Repair mode trusts the index over the stream for the time.
                if (fixupMode_ && sample.fs.time != uint32_t(key >> 1))
                    makeMissingSample(sample, key);
                q.addSample(&sample, key);
            }

            int next = at + 1;
            while (next < n && items[size_t(next)].code() != SAMPLE)
                ++next;
            if (next >= n)
                return 0;
            at = next;
        }
        kind = decoder_.next_combfile_item(nullptr);
        // -1: the item stream ends.  2 (not in item mode) cannot change by
        // reading on, so it ends the batch as well.
        if (kind == -1 || kind == 2)
            return 0;
    }
}

Sample* SampleReader::getSample(int itemIndex)
{
    if (itemIndex < 0 || size_t(itemIndex) >= index_.items.size())
        return nullptr;
    const unsigned long long key = index_.items[size_t(itemIndex)].key();
    SampleQueue& q = queue_;

    int pos = -1;
    Sample* p = q.getOldSample(key, &pos);
    if (p && pos > SampleQueue::kLastCentredSlot) {
        // Too close to the end for the look-ahead: shift and read on.  The
        // sample is then found 128 slots lower.
        readBatch(itemIndex);
        p = q.getOldSample(key, &pos);
    }
    if (p)
        return p;
    if (q.size() > 0 && q.keyAt(0) <= key && key <= q.keyAt(q.size() - 1))
        return q.getOldSampleSlow(key);

    readBatch(itemIndex);
    p = q.getOldSample(key);
    if (!p)
        p = q.getOldSampleSlow(key);
    if (!p) {
        q.clear();
        readBatch(itemIndex);
        p = q.getOldSample(key);
    }
    return p;
}
