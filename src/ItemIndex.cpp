// The item index: the classification of an entry, the order of two
// entries, the sort of the whole index, and the lookup of a sample by time.
#include <algorithm>

#include "ItemSort.h"
#include "ItemIndex.h"

namespace {

// Up to this many entries the index is sorted in one piece.
constexpr size_t kWholeSortLimit = 20000;
// Larger indexes are sorted in overlapping stretches: the first has this
// many entries; each next one starts kStretchOverlap entries before the end
// of the previous one and reaches kStretchAdvance entries past it.  An
// entry that lies more than the overlap away from its place stays out of
// order.
constexpr size_t kFirstStretch = 13500;
constexpr size_t kStretchOverlap = 3000;
constexpr size_t kStretchAdvance = 10500;

inline bool isRecordingStart(const ORBItem& item) { return item.rec->state == 1; }

// sortByTime with its first rule, the one that decides almost every
// comparison, inline.
struct ByTime {
    bool operator()(const ORBItem& a, const ORBItem& b) const
    {
        const uint64_t ka = a.key();
        const uint64_t kb = b.key();
        if (ka != kb)
            return ka < kb;
        return sortByTime(a, b);
    }
};

} // namespace

int ORBItem::getItemType() const
{
    const unsigned c = code();
    if (c == SAMPLE)
        return 1;
    if (c == RECORDING)
        return 30;
    return isEventCode(c) ? 0 : -1;
}

bool sortByTime(ORBItem a, ORBItem b)
{
    const uint64_t ka = a.key();
    const uint64_t kb = b.key();
    if (ka != kb)
        return ka < kb;

    // Equal instants.
    const unsigned ta = a.code();
    const unsigned tb = b.code();
    const int ca = a.getItemType();
    const int cb = b.getItemType();
    const bool pairedA = isPairedCode(ta);
    const bool pairedB = isPairedCode(tb);

    // Start markers precede the samples of their instant, end markers
    // follow them.
    if (pairedA && cb == 1)
        return isStartCode(ta);
    if (pairedB && ca == 1)
        return isEndCode(tb);

    // A block start comes first of all; a block end after everything but
    // the start markers.
    if (ca == 30 && cb == 30)
        return !isRecordingStart(a) && isRecordingStart(b);
    if (ca == 30)
        return isRecordingStart(a);
    if (cb == 30)
        return !isRecordingStart(b) && !isStartCode(ta);

    // Saccades enclose blinks.  A blink start goes before a blink end, and
    // a blink end before a blink start of the other eye; both directions
    // are deliberate.
    if (ta == SSACC && tb == SBLINK)
        return true;
    if (ta == SBLINK && tb == SSACC)
        return false;
    if (ta == ESACC && tb == EBLINK)
        return false;
    if (ta == EBLINK && tb == ESACC)
        return true;
    if (ta == SBLINK && tb == EBLINK)
        return true;
    if (ta == EBLINK && tb == SBLINK)
        return (a.type & kEyeMarkerMask) != (b.type & kEyeMarkerMask);

    // Ends close before anything starts.
    if (isEndCode(ta) && isStartCode(tb))
        return false;
    if (isEndCode(tb) && isStartCode(ta))
        return true;

    // Messages go before the samples of their instant.
    if (tb == MESSAGE && ca == 1)
        return false;
    if (ta == MESSAGE && cb == 1)
        return true;

    // The rest keep file order where it means something; placeholders
    // (position -1) come first.
    const bool pointA = ca == 0 && !pairedA;
    const bool pointB = cb == 0 && !pairedB;
    const bool byFileOrder = (pointA && (pointB || cb == 1 || pairedB)) ||
                             (pointB && (ca == 1 || pairedA)) ||
                             (pairedA && pairedB && ta == tb);
    return byFileOrder && a.position <= b.position;
}

void ItemIndex::sortItems()
{
    ORBItem* const data = items.data();
    const size_t n = items.size();
    std::vector<ORBItem> scratch;
    auto sameInstant = [](const ORBItem& a, const ORBItem& b) { return a.key() == b.key(); };
    auto sort = [&](ORBItem* from, ORBItem* to) {
        orbsort::sortNearlyOrdered(from, to, ByTime(), sameInstant, scratch);
    };
    if (n <= kWholeSortLimit) {
        sort(data, data + n);
        return;
    }
    size_t first = 0;
    size_t last = kFirstStretch;
    for (;;) {
        sort(data + first, data + last);
        if (last == n)
            break;
        first = last - kStretchOverlap;
        last = std::min(last + kStretchAdvance, n);
    }
}

int ItemIndex::findIndex(unsigned int key, int low, int high) const
{
    const long long count = static_cast<long long>(items.size());
    // Entries outside the index match nothing and bound the search from
    // above.
    auto inside = [&](long long i) { return i >= 0 && i < count; };
    auto matches = [&](long long i) { return inside(i) && items[size_t(i)].key() == key; };
    auto isSample = [&](long long i) { return inside(i) && items[size_t(i)].isSample(); };

    long long lo = low;
    long long hi = high;
    if (hi < lo)
        return -1;
    while (hi - lo >= 2) {
        const long long mid = lo + (hi - lo) / 2;
        if (matches(mid) && isSample(mid))
            return int(mid);
        const unsigned long long midKey = inside(mid) ? items[size_t(mid)].key() : ~0ull;
        if ((midKey >> 32) == 0 && key >= uint32_t(midKey))
            lo = mid;
        else
            hi = mid;
        if (hi < lo)
            return -1;
    }
    if (matches(lo)) {
        if (matches(hi)) {
            if (isSample(lo))
                return int(lo);
            return isSample(hi) ? int(hi) : -1;
        }
        return isSample(lo) ? int(lo) : -1;
    }
    if (matches(hi) && isSample(hi))
        return int(hi);
    return -1;
}
