// One open recording: the item stream and its decoders (ItemDecoder), the
// time-ordered item index (ItemIndex), the sample queue, and the cursor that
// walks them.
//
// The data flows bytes -> items -> index -> queue -> records:
//   ItemDecoder.cpp       item framing, sample and event decoding
//   ItemIndex.cpp         ordering the index, lookup by time
//   SampleQueue.cpp       decoded samples around the cursor, velocities
// and the class itself is implemented in several units, one concern each:
//   ORBFile_open.cpp      construction, preamble, destruction
//   zipread.cpp           inflating a compressed body
//   ORBFile_prescan.cpp   the pre-scan that builds the index
//   ORBFile_repair.cpp    consistency repair and time adjustment
//   ORBFile_batch.cpp     reading runs of samples into the sample queue
//   ORBFile_access.cpp    reading the current item, positioning
//   ORBFile_trials.cpp    trials
//   ORBFile_bookmarks.cpp bookmarks
#ifndef ORBAPI_ORBFILE_H
#define ORBAPI_ORBFILE_H

#include <cstdint>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "items.h"
#include "index.h"
#include "bytes.h"
#include "samples.h"
#include "orbapi.h"

// Set from the preamble: 1 when the writer wrote UTF-8 text.  Process-wide.
extern std::atomic<int> utf8encoding;

// The two container forms.
enum class ContainerForm { Plain, Compressed };

// What the cursor hands out for a copy of a queued sample of index entry
// `item`: blink repairs and the half-millisecond flag applied.
void finishSample(FSAMPLE& fs, const ORBItem& item);
// Whether the sample of index entry `item`, of time `time`, is the second
// of its millisecond (it then gets the half-millisecond flag).
inline bool secondInItsMillisecond(const ORBItem& item, uint32_t time) { return item.key() != 2ull * time; }

// The time the cursor decodes the first sample of a run read from index
// entry `entry` against (the samples after it step on from there): the
// entry's own time, or 0, none, for an entry at time 0, whose sample then
// steps on from the time the decoder was left with.
inline unsigned runStartTime(const ORBItem& entry) { return unsigned(entry.key() >> 1); }
// Whether a run the cursor reads from `entry` on gives its samples the
// times the pre-scan gave them, whatever the decoder was left with: the
// samples the scan decoded may then stand for the cursor's.
inline bool runKeepsScannedTimes(const ORBItem& entry) { return runStartTime(entry) != 0; }

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
    // The scan is over.  `positionsAreOffsets`: every position it filed
    // was where the item lies, so that reading an item again at its
    // position reads what the scan read (a stream whose positions were
    // counted from elsewhere, or wrapped, re-reads other bytes).
    virtual void end(bool positionsAreOffsets) = 0;

protected:
    ~ScannedSamples() = default;
};

class ORBFile final : public ItemDecoder, public ItemIndex, public SampleSource {
public:
    // When the index is sorted: while the pre-scan builds it (on a second
    // thread, for a large index), or after (the same order, for the tests
    // that show it).
    enum class IndexSorting { WhileScanning, AfterScanning };

    // Opens path.  options: bits 0-1 consistency mode, bit 2 tolerant
    // pre-scan, bit 3 time adjustment off.  A `scanned` receiver gets the
    // samples as the pre-scan indexes them.  Throws ORBException, and
    // whatever the receiver throws.
    ORBFile(const char* path, int options, bool loadEvents, bool loadSamples,
            IndexSorting sorting = IndexSorting::WhileScanning, ScannedSamples* scanned = nullptr);
    // The same over `size` bytes at `data`, read in place (they must
    // outlive the file); a compressed body is inflated into memory.
    ORBFile(const void* data, size_t size, int options, bool loadEvents, bool loadSamples,
            IndexSorting sorting = IndexSorting::WhileScanning, ScannedSamples* scanned = nullptr);
    ~ORBFile();

    ORBFile(const ORBFile&) = delete;
    ORBFile& operator=(const ORBFile&) = delete;

    // ---- opening (ORBFile_open.cpp) ------------------------------------
    int readPreamble();
    int getPreamble(char* buffer, int size);
    int get_combfile_preamble_text(char* line, int size);

    // ---- index (ORBFile_prescan.cpp) -----------------------------------
    void preScan(int tolerant);

    // ---- repair (ORBFile_repair.cpp) -----------------------------------
    int checkConsistency();
    void mergeBlinksInsideSaccade();
    void markSamplesInsideBlink();
    void adjustTimes(ALLF_DATA* data);
    // adjustTimes for the time of a sample or recording record handed out
    // at the current position.
    void adjustTime(uint32_t& time);

    // ---- samples (ORBFile_batch.cpp) -----------------------------------
    int batchReadSample(int itemIndex);

    // ---- the queue's source ---------------------------------------------
    size_t entryCount() const override { return items.size(); }
    unsigned long long entryKey(int index) const override { return items[size_t(index)].key(); }
    void readSamples(int index) override { batchReadSample(index); }
    bool highSpeedFilter() const override { return trackerModel >= 3; }

    // ---- access (ORBFile_access.cpp) -----------------------------------
    // The advance of the function interface: the code of the next item, or
    // 0 past the end.
    int stepNext();
    int readItem(int index);
    // The queue entry of the sample at index entry `index`, read into the
    // queue when needed, its velocities filled when asked for; null when no
    // sample carries the entry's key.  Throws ORBException when the stream
    // cannot be read.  A caller that hands out samples in index order may
    // keep the slot of the last one in *slot (-1 at first): the next is
    // then found without a search when it follows in the queue.
    Sample* queuedSample(int index, bool velocities, int* slot = nullptr);
    // Whether a sample of time `time` handed out now lies in a recording
    // block; logs the warning for one that does not.
    bool inBlock(uint32_t time) const;
    ALLF_DATA* getFloatData();
    void resetPosition(const ORBItem* item);
    int gotoIndex(int index);
    ALLF_DATA* getSampleCloseToTime(unsigned int key);
    void initEventPairArray(int eye);
    void initFixationPairArray(int eye);

    // ---- trials (ORBFile_trials.cpp) -----------------------------------
    void collectTrials();
    int jumpToTrial(int trial);
    int gotoTrialWithStartTime(unsigned int time);
    int gotoTrialWithEndTime(unsigned int time);
    int gotoNextTrial();
    int gotoPreviousTrial();
    ORBTrial* getTrialHeaders();
    int getTrialHeaders(TRIAL* out);
    float getGazePrescaler(unsigned int time);

    // ---- bookmarks (ORBFile_bookmarks.cpp) -----------------------------
    int setBookMark(BOOKMARK* bm);
    int gotoBookMark(BOOKMARK* bm);
    int gotoNextBookMark();
    int gotoPreviousBookMark();
    int removeBookMark(BOOKMARK* bm);

    // ---- state shared by the units above --------------------------------

    // Preamble text.
    std::unique_ptr<char[]> preambleText; // null when none was read
    int preambleLength = 0;

    // Options.
    int consistencyMode = 0;
    bool fixupMode = false;
    bool tolerantScan = false;
    bool timeFixupOff = false;
    bool loadEvents = true;
    bool loadSamples = true;
    IndexSorting indexSorting = IndexSorting::WhileScanning;
    ScannedSamples* scannedSamples = nullptr; // only while the pre-scan runs

    // Samples around the cursor.
    std::unique_ptr<SampleQueue> queue;

    // Cursor and the record handed out.
    int32_t current = 0;      // index of the next entry to hand out
    bool itemRequested = false;
    ALLF_DATA currentData{};
    Recording* currentRecording = nullptr;
    uint32_t timeOffset = 0;
    // Start times of paired events per eye, for the read-time repairs:
    // [eye][slot] with slots kPairSaccStart .. kPairFixEnd.
    enum { kPairSaccStart, kPairSaccEnd, kPairBlinkStart, kPairBlinkEnd, kPairFixStart, kPairFixEnd };
    uint32_t eventPairs[2][6];

    // What the pre-scan saw of the item stream, for readers that take the
    // samples in stream order (see the columnar reader).
    struct ScanFacts {
        uint64_t samples = 0;      // samples indexed (placeholders not counted)
        uint64_t pupilGroups = 0;  // of them, samples with pupil sizes
        uint64_t blockStarts = 0;  // block starts decoded, indexed or not
        // Every block start carried its own rate and the same gaze and
        // pupil scales, and a block start came before the first sample: so
        // every sample decodes with those scales whatever order the items
        // are decoded in, once any block start has been.
        bool uniformBlocks = true;
        float gazeDivisor = 0.0f;
        float secondScale = 0.0f;
    } scanFacts;

    // Trials and bookmarks.
    std::vector<ORBTrial> trials;
    bool trialsCollected = false;
    int32_t currentTrial = -1;
    const char* trialStartId = "TRIALID";
    const char* trialEndId = nullptr;
    std::vector<BOOKMARK> bookmarks;
    int32_t currentBookmark = -1;

private:
    void setOptions(int options);
    void open(std::unique_ptr<InputStream> source);
    ContainerForm readMagic();
    bool settleTimeOffset(uint32_t first);
    int jumpToFirstTrial(uint32_t ORBTrial::*member, unsigned int time);
};

#endif
