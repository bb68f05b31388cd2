// The cursor over the item index: stepping, reading the current item into
// the handed-out record (with the repairs that need neighbouring events),
// and positioning by index and by time.
#include <cmath>
#include <cstring>

#include "base.h"
#include "ORBFile.h"
#include "items.h"

namespace {

constexpr uint32_t kUnset = 0xFFFFFFFFu;

// Whole samples per second of a block, rounded; 0 for a rate no int holds.
int roundedRate(float rate)
{
    if (!(rate > -2147483648.0f && rate < 2147483648.0f))
        return 0;
    return int(std::lround(rate));
}

// A sample inside a blink of one eye: no position, no pupil.
void maskEye(FSAMPLE& fs, int eye)
{
    fs.rawX[eye] = fs.rawY[eye] = kMissingValue;
    fs.secondX[eye] = fs.secondY[eye] = kMissingValue;
    fs.gazeX[eye] = fs.gazeY[eye] = kMissingValue;
    fs.pupilSize[eye] = 0.0f;
}

} // namespace

int ORBFile::stepNext()
{
    if (current < 0 || size_t(current) >= this->index.items.size())
        return NO_MORE_ITEMS;
    const ORBItem& item = this->index.items[size_t(current)];
    const int code = int(item.code());
    if (code == RECORDING)
        currentRecording = item.rec && item.rec->state ? item.rec : nullptr;
    ++current;
    itemRequested = true;
    // Repair mode reads these as they are passed, so that the event-pair
    // table knows them when their partners are read.
    if (fixupMode && (code == SBLINK || code == EBLINK || code == SSACC || code == SFIX))
        getFloatData();
    return code;
}

int ORBFile::readItem(int index)
{
    if (index < 0 || size_t(index) >= this->index.items.size()) {
        std::memset(static_cast<void*>(&currentData), 0, sizeof currentData);
        return -1;
    }
    const ORBItem& item = this->index.items[size_t(index)];
    const unsigned code = item.code();

    if (code == RECORDING) {
        std::memset(static_cast<void*>(&currentData), 0, sizeof currentData);
        if (item.rec)
            currentData.rec = *item.rec;
        return 0;
    }

    if (isEventCode(code)) {
        decoder.resetPosition(item);
        EData event;
        int r = decoder.read_combfile_event(&event, 0);
        if (r < 0) {
            orb_log("error reading orb file 4   %d %ld\n", r, long(item.position));
            throw ORBException("Error reading event - type(readItem)");
        }
        event.process_event();
        std::memset(static_cast<void*>(&currentData), 0, sizeof currentData);
        currentData.fe = event.fe;
        return 0;
    }

    if (code == SAMPLE) {
        Sample* s = queuedSample(index, true);
        if (!s) {
            std::memset(static_cast<void*>(&currentData), 0, sizeof currentData);
            return -1;
        }
        // The caller gets a copy: what is changed below for blinks stays
        // out of the queue, whose positions the neighbours' velocities use.
        currentData.fs = s->fs;
        return 0;
    }

    std::memset(static_cast<void*>(&currentData), 0, sizeof currentData);
    return -1;
}

Sample* ORBFile::queuedSample(int index, bool velocities, int* slot)
{
    const unsigned long long key = this->index.items[size_t(index)].key();
    Sample* s = slot ? samples->queue().following(*slot, key) : nullptr;
    if (s) {
        ++*slot;
    } else {
        auto carriesKey = [&](const Sample* s) {
            const int at = samples->queue().slotOf(s);
            return at >= 0 && samples->queue().keyAt(at) == key;
        };
        s = samples->getSample(index);
        if (!carriesKey(s))
            s = samples->getSample(index);
        if (slot)
            *slot = s ? samples->queue().slotOf(s) : -1;
    }
    if (!s) // no sample carries this entry's key: the stream and the index disagree here
        return nullptr;
    if (inBlock(s->fs.time) && velocities)
        samples->queue().setVelocity(s, roundedRate(currentRecording->sampleRate));
    return s;
}

bool ORBFile::inBlock(uint32_t time) const
{
    if (currentRecording)
        return true;
    orb_log("WARNING: ORB FILE MAY BE CORRUPTED. Samples %ld found without start recording \n", long(time));
    return false;
}

void finishSample(FSAMPLE& fs, const ORBItem& item)
{
    if (item.type & kFlagEye0)
        maskEye(fs, 0);
    if (item.type & kFlagEye1)
        maskEye(fs, 1);
    if (secondInItsMillisecond(item, fs.time))
        fs.flags = uint16_t(fs.flags | kHalfMillisecond);
}

ALLF_DATA* ORBFile::getFloatData()
{
    const int index = current - 1;
    if (index < 0 || size_t(index) >= this->index.items.size())
        return nullptr;
    // Before the first step nothing is read: the buffer as it is.
    if (!itemRequested)
        return &currentData;
    try {
        if (readItem(index) != 0) {
            orb_log("Read error \n");
            return nullptr;
        }
    } catch (const ORBException& e) {
        orb_log("Error %s \n", e.what());
        return nullptr;
    }

    const ORBItem& item = this->index.items[size_t(index)];
    const unsigned code = item.code();
    const unsigned long long key = item.key();

    if (code == SAMPLE) {
        finishSample(currentData.fs, item);
        return &currentData;
    }

    if (!fixupMode || code < SBLINK || code > EFIX)
        return &currentData;

    FEVENT& fe = currentData.fe;
    const int eye = fe.eye;
    if (eye != 0 && eye != 1)
        return &currentData;
    uint32_t* pairs = eventPairs[eye];
    switch (code) {
    case SBLINK:
        // A blink start re-timed to an orphaned blink end starts there.
        if (item.type & kFlagEye0)
            fe.startTime = uint32_t(key / 2);
        pairs[kPairBlinkStart] = fe.startTime;
        break;
    case EBLINK:
        if (item.type & kFlagEye0) {
            fe.startTime = uint32_t(key / 2);
        } else if (item.type & kFlagEye1) {
            // A blink merged into a saccade starts with its first blink
            // start: the nearest earlier paired event of this eye.
            const uint16_t marker = item.type & kEyeMarkerMask;
            for (int i = index - 1; i >= 0; --i) {
                const ORBItem& before = this->index.items[size_t(i)];
                if (!isPairedCode(before.code()) || (before.type & kEyeMarkerMask) != marker)
                    continue;
                if (before.code() == SBLINK)
                    fe.startTime = uint32_t(before.timeKey / 2);
                break;
            }
        }
        pairs[kPairBlinkEnd] = fe.startTime;
        break;
    case SSACC:
        pairs[kPairSaccStart] = fe.startTime;
        break;
    case ESACC:
        pairs[kPairSaccEnd] = fe.startTime;
        // A saccade with a blink in it starts where its start event says.
        if (pairs[kPairBlinkStart] != kUnset && pairs[kPairBlinkEnd] != kUnset &&
            pairs[kPairSaccStart] != pairs[kPairSaccEnd])
            fe.startTime = pairs[kPairSaccStart];
        initEventPairArray(eye);
        break;
    case SFIX:
        pairs[kPairFixStart] = fe.startTime;
        break;
    case EFIX:
        pairs[kPairFixEnd] = fe.startTime;
        // Taken over even while no fixation start has been seen.
        if (pairs[kPairFixStart] != pairs[kPairFixEnd])
            fe.startTime = pairs[kPairFixStart];
        initFixationPairArray(eye);
        break;
    default:
        break;
    }
    return &currentData;
}

int ORBFile::gotoIndex(int index)
{
    const int count = int(this->index.items.size());
    if (index >= 0 && index < count)
        current = index;
    return count;
}

ALLF_DATA* ORBFile::getSampleCloseToTime(unsigned int key)
{
    const int index = this->index.findIndex(key, 0, int(this->index.items.size()));
    if (index < 1)
        return nullptr;
    // Read the sample as if stepped onto and leave the cursor as it was.
    // Before the first step the buffer comes back unread.
    const int32_t savedCurrent = current;
    current = index + 1;
    ALLF_DATA* data = getFloatData();
    current = savedCurrent;
    return data;
}

void ORBFile::initEventPairArray(int eye)
{
    if (eye != 0 && eye != 1)
        return;
    initFixationPairArray(eye);
    eventPairs[eye][kPairBlinkStart] = kUnset;
    eventPairs[eye][kPairBlinkEnd] = kUnset;
}

void ORBFile::initFixationPairArray(int eye)
{
    if (eye != 0 && eye != 1)
        return;
    // Only the saccade entries: the fixation entries are kept once set, so
    // a fixation end without its start takes the start seen last.
    eventPairs[eye][kPairSaccStart] = kUnset;
    eventPairs[eye][kPairSaccEnd] = kUnset;
}
