// The item index: the classification of an entry, the order of two
// entries, the sort of the whole index, and the lookup of a sample by time.
#include <algorithm>

#include "ItemSort.h"
#include "ItemIndex.h"
#include "base.h"

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
    // The same in two steps, for the sort's inner loops.
    uint64_t key(const ORBItem& a) const { return a.key(); }
    bool tied(const ORBItem& a, const ORBItem& b) const { return sortByTime(a, b); }
};

struct SameInstant {
    bool operator()(const ORBItem& a, const ORBItem& b) const { return a.key() == b.key(); }
};

// Sorts the stretches of a large index one after another.  A recording
// whose stretch was not in order (entries at one instant that order each
// other in a circle, say) is mostly so in the next ones too: the shortcut
// for ranges in order is then left out for a few stretches, which saves its
// pass and changes nothing of the order.
class StretchSorter {
public:
    void sort(ORBItem* first, ORBItem* last)
    {
        if (skip_ > 0) {
            --skip_;
            orbsort::introsort(first, last, ByTime());
        } else if (!orbsort::sortNearlyOrdered(first, last, ByTime(), SameInstant(), scratch_)) {
            skip_ = kSkipAfterFailure;
        }
    }

private:
    static constexpr int kSkipAfterFailure = 7;
    std::vector<ORBItem> scratch_;
    int skip_ = 0;
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
    if (items.size() <= kWholeSortLimit) {
        std::vector<ORBItem> scratch;
        orbsort::sortNearlyOrdered(items.data(), items.data() + items.size(), ByTime(), SameInstant(), scratch);
        return;
    }
    sortStretchesFrom(0, kFirstStretch);
}

void ItemIndex::sortStretchesFrom(size_t first, size_t last)
{
    const size_t n = items.size();
    StretchSorter sorter;
    for (;;) {
        sorter.sort(items.data() + first, items.data() + last);
        if (last == n)
            break;
        first = last - kStretchOverlap;
        last = std::min(last + kStretchAdvance, n);
    }
}

IndexSorter::~IndexSorter()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void IndexSorter::publish(size_t count)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        final_ = count;
    }
    if (thread_.joinable())
        changed_.notify_all();
    else if (count > kWholeSortLimit + kStretchAdvance)
        thread_ = std::thread([this] { run(); });
}

std::unique_lock<std::mutex> IndexSorter::pause()
{
    std::unique_lock<std::mutex> lock(mutex_);
    ++pauses_;
    changed_.wait(lock, [&] { return !sorting_; });
    --pauses_;
    if (present_ != ~size_t(0))
        present_ = 0; // the index moves: its new pages past the entries are fresh
    return lock;
}

void IndexSorter::run()
{
    // The stretches of sortItems for an index of more than kWholeSortLimit
    // entries, which this one has: [first, last), each sorted once
    // published, up to the last whose end is not yet known.
    size_t first = 0;
    size_t last = kFirstStretch;
    StretchSorter sorter;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        // Between stretches the pages the scan writes next are made
        // present, up to kPresentAhead entries past the final ones; first
        // of all when fewer than half of those are.
        auto pagesToMake = [&] {
            return std::min(final_ + kPresentAhead, index_.items.capacity()) > std::max(present_, final_);
        };
        changed_.wait(lock, [&] { return done_ || (pauses_ == 0 && (final_ >= last || pagesToMake())); });
        if (done_)
            return;
        sorting_ = true;
        ORBItem* const data = index_.items.data();
        const bool pagesFirst = pagesToMake() && (final_ < last || present_ < final_ + kPresentAhead / 2);
        if (pagesFirst) {
            const size_t from = std::max(present_, final_);
            const size_t to = std::min(final_ + kPresentAhead, index_.items.capacity());
            lock.unlock();
            const bool made = pages::makePresent(data + from, data + to);
            lock.lock();
            present_ = made ? to : ~size_t(0); // where the system cannot, not again
            sorting_ = false;
            changed_.notify_all();
            continue;
        }
        lock.unlock();
        sorter.sort(data + first, data + last);
        lock.lock();
        sorting_ = false;
        sortedTo_ = last;
        changed_.notify_all();
        first = last - kStretchOverlap;
        last += kStretchAdvance;
    }
}

void IndexSorter::finish()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
    const size_t sorted = sortedTo_;
    const size_t n = index_.items.size();
    if (sorted == 0)
        index_.sortItems();
    else if (sorted < n)
        index_.sortStretchesFrom(sorted - kStretchOverlap, std::min(sorted + kStretchAdvance, n));
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
