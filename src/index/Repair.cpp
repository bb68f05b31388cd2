// Consistency repair of the item index.
//
// The repairs change the index only: entries are dropped, moved, re-timed
// or flagged in the high byte of their type word; the file is never
// touched.
#include <algorithm>

#include "ItemIndex.h"
#include "items.h"
#include "base.h"

namespace {

// Eye index of a paired event: its eye marker minus one.
inline int eyeIndex(const ORBItem& item) { return (item.type & kEyeMarkerMask) == eyeMarker(1) ? 1 : 0; }

// One walk over the index that compacts it as it goes: visit(item, kept)
// may change the entry, or return false to drop it; a kept entry is written
// back at `kept`, which visit may lower when it moves entries before it.
template <class Visit>
void compactIndex(std::vector<ORBItem>& items, Visit visit)
{
    const size_t count = items.size();
    size_t kept = 0;
    for (size_t i = 0; i < count; ++i) {
        ORBItem item = items[i];
        if (visit(item, kept))
            items[kept++] = item;
    }
    items.resize(kept);
}

} // namespace

// One walk in index order.  Entries are dropped by compacting the index as
// the walk goes (kept entries are written back at `kept`), so that a file
// with many stray samples costs one pass; the indexes the walk remembers
// are places in the kept part.
int ItemIndex::checkConsistency(bool fixupMode)
{
    bool outsideBlock = true;
    long lastStart = -1;
    long lastEnd = -1;
    bool blinkStartSeen[2] = {false, false};
    bool blinkEndSeen[2] = {false, false};
    long orphanEnd = -1; // the last blink end that had no blink start open
    bool moved = false;

    compactIndex(items, [&](ORBItem& item, size_t& kept) {
        if (item.isRecording()) {
            const bool end = item.rec->state == 0;
            outsideBlock = end;
            (end ? lastEnd : lastStart) = long(kept);
            blinkStartSeen[0] = blinkStartSeen[1] = false;
            blinkEndSeen[0] = blinkEndSeen[1] = false;
        } else if (item.isSample() && outsideBlock) {
            if (lastStart >= 0 && lastEnd > 0 && lastEnd > lastStart &&
                items[size_t(lastStart)].key() == items[size_t(lastEnd)].key()) {
                // A block ended at the instant the next one started and its
                // end was sorted behind that start: put it back in front.
                const ORBItem blockEnd = items[size_t(lastEnd)];
                std::move_backward(items.begin() + lastStart, items.begin() + lastEnd,
                                   items.begin() + lastEnd + 1);
                items[size_t(lastStart)] = blockEnd;
                if (orphanEnd >= lastStart && orphanEnd < lastEnd)
                    ++orphanEnd;
                lastEnd = lastStart;
                ++lastStart;
                outsideBlock = false;
                moved = true;
            } else {
                orb_log("WARNING: ORB FILE MAY BE CORRUPTED. Sample at %d found without start "
                        "recording. Skipping this sample \n",
                        int(item.timeKey / 2));
                return false;
            }
        } else if (item.code() == SBLINK || item.code() == EBLINK) {
            const int e = eyeIndex(item);
            if (item.code() == SBLINK) {
                if (blinkStartSeen[e])
                    orb_log("SBLINK REASSIGN %u \n", unsigned(uint32_t(item.timeKey)));
                blinkStartSeen[e] = true;
                if (fixupMode && orphanEnd >= 0 && blinkEndSeen[e]) {
                    // The blink began where the orphaned end was recorded.
                    blinkStartSeen[e] = blinkEndSeen[e] = false;
                    item.timeKey = items[size_t(orphanEnd)].key();
                    item.type = uint16_t(item.type | kFlagEye0);
                }
            } else {
                if (blinkEndSeen[e])
                    orb_log("EBLINK REASSIGN %u \n", unsigned(uint32_t(item.timeKey)));
                blinkEndSeen[e] = true;
            }
            if (blinkEndSeen[e]) {
                if (!blinkStartSeen[e])
                    orphanEnd = long(kept);
                else
                    blinkStartSeen[e] = blinkEndSeen[e] = false;
            }
        }
        return true;
    });

    if (fixupMode) {
        // A moved block end would not survive a new sort.
        if (!moved)
            sortItems();
        mergeBlinksInsideSaccade();
        markSamplesInsideBlink();
    }
    return 0;
}

// Inside one saccade a second blink of the same eye is joined to the first:
// the second blink's start and the first one's end are dropped, and the
// end that closes the joined blink is flagged.  The walk compacts the index
// as checkConsistency does.
void ItemIndex::mergeBlinksInsideSaccade()
{
    int blinkStarts[2] = {0, 0};
    long lastBlinkEnd[2] = {-1, -1};
    bool merged[2] = {false, false};

    compactIndex(items, [&](ORBItem& item, size_t& kept) {
        if (item.isRecording()) {
            // Only the left eye's count starts again with a block.
            blinkStarts[0] = 0;
        } else if (isEventCode(item.code())) {
            const unsigned c = item.code();
            const int e = eyeIndex(item);
            if (c == SBLINK) {
                ++blinkStarts[e];
                if (blinkStarts[e] >= 2 && lastBlinkEnd[e] >= 1) {
                    const long end = lastBlinkEnd[e];
                    std::move(items.begin() + end + 1, items.begin() + long(kept), items.begin() + end);
                    --kept;
                    if (lastBlinkEnd[1 - e] > end)
                        --lastBlinkEnd[1 - e];
                    lastBlinkEnd[e] = -1;
                    merged[e] = true;
                    --blinkStarts[e];
                    return false; // the blink start is dropped as well
                }
            } else if (c == EBLINK) {
                if (merged[e])
                    item.type = uint16_t(item.type | kFlagEye1);
                lastBlinkEnd[e] = long(kept);
            } else if (c == SSACC || c == ESACC) {
                blinkStarts[e] = 0;
                lastBlinkEnd[e] = -1;
                merged[e] = false;
            }
        }
        return true;
    });
}

void ItemIndex::markSamplesInsideBlink()
{
    bool inBlink[2] = {false, false};
    for (ORBItem& item : items) {
        if (item.isRecording()) {
            inBlink[0] = inBlink[1] = false;
        } else if (item.isSample()) {
            if (inBlink[0])
                item.type = uint16_t(item.type | kFlagEye0);
            if (inBlink[1])
                item.type = uint16_t(item.type | kFlagEye1);
        } else if (item.code() == SBLINK || item.code() == EBLINK) {
            inBlink[eyeIndex(item)] = item.code() == SBLINK;
        }
    }
}
