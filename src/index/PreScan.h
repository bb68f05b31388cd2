// The pre-scan: one pass over the whole item stream that builds the item
// index, and what it learns of the stream on the way.
#ifndef ORBAPI_PRESCAN_H
#define ORBAPI_PRESCAN_H

#include <cstdint>

#include "ItemIndex.h"
#include "items.h"

// What the pre-scan saw of the item stream, for readers that take the
// samples in stream order (see the columnar reader).
struct ScanFacts {
    uint64_t samples = 0;      // samples indexed (placeholders not counted)
    uint64_t pupilGroups = 0;  // of them, samples with pupil sizes
    uint64_t blockStarts = 0;  // block starts decoded, indexed or not
    // Every block start carried its own rate and the same gaze and pupil
    // scales, and a block start came before the first sample: so every
    // sample decodes with those scales whatever order the items are
    // decoded in, once any block start has been.
    bool uniformBlocks = true;
    float gazeDivisor = 0.0f;
    float secondScale = 0.0f;
    // Every position the scan filed was where the item lies, so that
    // reading an item again at its position reads what the scan read (a
    // stream whose positions were counted from elsewhere, or wrapped,
    // re-reads other bytes).
    bool positionsAreOffsets = false;
    // Why the scan stopped before the stream's end, if it did: "an item
    // tag of 0" or, in a tolerant scan, "a damaged item"; null when it read
    // on to the end.  stopAt is the stream position where that item begins,
    // unreadFrom that of the first byte the scan took nothing from (after the
    // tag of 0; the damaged item itself).
    const char* stopReason = nullptr;
    int64_t stopAt = -1;
    int64_t unreadFrom = -1;
    // Events of type 0 indexed: the cursor's walk ends at the first.
    uint64_t zeroEvents = 0;
};

// How to scan.
struct ScanOptions {
    bool tolerant = false;          // a damaged item ends the scan instead of failing it
    bool loadEvents = true;
    bool loadSamples = true;
    bool fixupMode = false;         // fill dropped samples with placeholder entries
    bool sortWhileScanning = true;  // sort on a second thread as the index grows
};

// Receives the samples the pre-scan puts in the index, in stream order, each
// decoded whole into a record of the receiver's that started out zeroed: a
// reader that takes every sample in stream order gets them without
// decoding them again.
class ScannedSamples {
public:
    // The scan is about to start, with about `bytes` of item stream ahead
    // (a guess for a body still being inflated; -1 when unknown).
    virtual void begin(int64_t bytes) = 0;
    // A zeroed record to decode the next sample into.
    virtual Sample* next() = 0;
    // The sample decoded into the last record next() gave is indexed; its
    // body lies at stream position `position`.
    virtual void sample(int32_t position) = 0;
    // The scan is over; what it learned.
    virtual void end(const ScanFacts& facts) = 0;

protected:
    ~ScannedSamples() = default;
};

// Scans the rest of the decoder's stream into `index` (empty before) and
// sorts it.  A `receiver` gets the samples as they are indexed (only when
// samples are loaded).  Throws ORBException for a damaged stream unless
// tolerant, and whatever the receiver throws.
ScanFacts preScan(ItemDecoder& decoder, ItemIndex& index, const ScanOptions& options,
                  ScannedSamples* receiver = nullptr);

#endif
