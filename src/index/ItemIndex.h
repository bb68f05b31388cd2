// The time-ordered item index: one entry per sample and event, the records
// of the recording blocks the recording items stand for, and their order.
#ifndef ORBAPI_ITEMINDEX_H
#define ORBAPI_ITEMINDEX_H

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "items.h"
#include "orbapi.h"

class ItemIndex {
public:
    // Orders the entries by time (sortByTime), in overlapping stretches for
    // a large index.
    void sortItems();
    // The index of the sample entry whose key is `key` (a binary search
    // between low and high), or -1.
    int findIndex(unsigned int key, int low, int high) const;

    // The consistency check of modes 1 and 2: samples outside any block are
    // dropped, a block end sorted behind the next start is put back, and
    // blink ends are paired.  `fixupMode` (mode 2) also re-sorts, merges
    // the blinks inside one saccade and flags the samples inside blinks.
    int checkConsistency(bool fixupMode);
    void mergeBlinksInsideSaccade();
    void markSamplesInsideBlink();

    std::vector<ORBItem> items;
    std::vector<std::unique_ptr<Recording>> recordings;

private:
    friend class IndexSorter;
    // Sorts the stretch [first, last) and the ones after it up to the end.
    void sortStretchesFrom(size_t first, size_t last);
};

// sortItems on a second thread while the index is being built: each of the
// stretches that sortItems sorts is sorted as soon as its entries are all
// there and final, so that the order is the one sortItems gives, and little
// of it is left to do once the last entry is in.  Meanwhile the thread makes
// the pages of the index's next entries present, ahead of the scan.
class IndexSorter {
public:
    explicit IndexSorter(ItemIndex& index) : index_(index) {}
    // Stops the thread (an index left half sorted is the caller's to drop).
    ~IndexSorter();
    IndexSorter(const IndexSorter&) = delete;
    IndexSorter& operator=(const IndexSorter&) = delete;

    // The entries before `count` will not change any more, nor will the
    // records their recording items point to.  Starts the thread once there
    // are enough of them to be sorted in stretches.
    void publish(size_t count);
    // Holds the thread off the entries while the index is reallocated: the
    // caller grows it while the returned lock lives.
    std::unique_lock<std::mutex> pause();
    // The index is complete: sorts what is left, as sortItems would.
    void finish();

private:
    void run();

    ItemIndex& index_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t final_ = 0;      // entries published as final
    bool done_ = false;     // no more entries will come
    bool sorting_ = false;  // the thread is inside a stretch
    int pauses_ = 0;        // reallocations waiting or under way
    size_t sortedTo_ = 0;   // last entry (exclusive) of the last stretch sorted; 0 none
    size_t present_ = 0;    // entries whose pages are made present; all ones when that fails
    static constexpr size_t kPresentAhead = size_t(1) << 16;
    std::thread thread_;
};

#endif
