// The samples of an open recording as the cursor takes them: the sample
// queue, filled from the item stream in runs that follow the index.
#ifndef ORBAPI_SAMPLEREADER_H
#define ORBAPI_SAMPLEREADER_H

#include "SampleQueue.h"
#include "index.h"
#include "items.h"

// The time the cursor decodes the first sample of a run read from index
// entry `entry` against (the samples after it step on from there): the
// entry's own time, or 0, none, for an entry at time 0, whose sample then
// steps on from the time the decoder was left with.
inline unsigned runStartTime(const ORBItem& entry) { return unsigned(entry.key() >> 1); }
// Whether a run the cursor reads from `entry` on gives its samples the
// times the pre-scan gave them, whatever the decoder was left with: the
// samples the scan decoded may then stand for the cursor's.
inline bool runKeepsScannedTimes(const ORBItem& entry) { return runStartTime(entry) != 0; }

class SampleReader {
public:
    // Reads with `decoder` the samples that `index` lists.  `fixupMode`:
    // a sample whose time is not its entry's is handed out as missing.
    SampleReader(ItemDecoder& decoder, const ItemIndex& index, bool fixupMode);

    // The sample of index entry itemIndex, reading a run when needed; null
    // when no sample carries the entry's key.  Throws ORBException when the
    // stream cannot be read.
    Sample* getSample(int itemIndex);
    // Reads the run of samples that starts at index entry `itemIndex` into
    // the queue.  Returns 0.
    int readBatch(int itemIndex);

    SampleQueue& queue() { return queue_; }
    void setFixupMode(bool on) { fixupMode_ = on; }

private:
    ItemDecoder& decoder_;
    const ItemIndex& index_;
    bool fixupMode_;
    SampleQueue queue_;
};

#endif
