// The time-ordered item index: one entry per sample and event, the records
// of the recording blocks the recording items stand for, and their order.
#ifndef ORBAPI_ITEMINDEX_H
#define ORBAPI_ITEMINDEX_H

#include <memory>
#include <vector>

#include "ORBItem.h"
#include "orbapi.h"

class ItemIndex {
public:
    // Orders the entries by time (sortByTime), in overlapping stretches for
    // a large index.
    void sortItems();
    // The index of the sample entry whose key is `key` (a binary search
    // between low and high), or -1.
    int findIndex(unsigned int key, int low, int high) const;

    std::vector<ORBItem> items;
    std::vector<std::unique_ptr<Recording>> recordings;
};

#endif
