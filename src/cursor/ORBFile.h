// One open recording: the item decoder over its stream, the time-ordered
// item index the pre-scan builds, the samples read from them, and the
// cursor that walks the index and hands out its records.
//
// The class is implemented in several units, one concern each:
//   ORBFile_open.cpp      construction, magic line, preamble
//   ORBFile_access.cpp    reading the current item, positioning
//   ORBFile_times.cpp     the time adjustment of the records handed out
//   ORBFile_trials.cpp    trials
//   ORBFile_bookmarks.cpp bookmarks
#ifndef ORBAPI_ORBFILE_H
#define ORBAPI_ORBFILE_H

#include <cstdint>
#include <memory>
#include <vector>

#include "bytes.h"
#include "index.h"
#include "items.h"
#include "samples.h"
#include "orbapi.h"

// The two container forms.
enum class ContainerForm { Plain, Compressed };

// What the cursor hands out for a copy of a queued sample of index entry
// `item`: blink repairs and the half-millisecond flag applied.
void finishSample(FSAMPLE& fs, const ORBItem& item);
// Whether the sample of index entry `item`, of time `time`, is the second
// of its millisecond (it then gets the half-millisecond flag).
inline bool secondInItsMillisecond(const ORBItem& item, uint32_t time) { return item.key() != 2ull * time; }

class ORBFile final {
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

    // ---- time adjustment (ORBFile_times.cpp) ---------------------------
    void adjustTimes(ALLF_DATA* data);
    // adjustTimes for the time of a sample or recording record handed out
    // at the current position.
    void adjustTime(uint32_t& time);

    // ---- access (ORBFile_access.cpp) -----------------------------------
    // The advance of the function interface: the code of the next item, or
    // 0 past the end.
    int stepNext();
    // stepNext from index entry `index` (the cursor moved there first).
    int stepFrom(int index)
    {
        current = index;
        return stepNext();
    }
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

    // ---- the parts ------------------------------------------------------
    ItemDecoder decoder; // the item stream and its decoding state
    ItemIndex index;     // what the pre-scan built, repaired
    // Samples around the cursor; made once the preamble tells the tracker
    // model.
    std::unique_ptr<SampleReader> samples;

    // ---- state shared by the units above --------------------------------

    // Preamble text.
    std::unique_ptr<char[]> preambleText; // null when none was read
    int preambleLength = 0;
    // The writer's text encoding, from the preamble's writer version: 1 for
    // UTF-8, 0 for the older single-byte text, -1 when the preamble names no
    // writer.
    int utf8encoding = -1;

    // Options.
    int consistencyMode = 0;
    bool fixupMode = false;
    bool tolerantScan = false;
    bool timeFixupOff = false;
    bool loadEvents = true;
    bool loadSamples = true;
    IndexSorting indexSorting = IndexSorting::WhileScanning;

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
    void open(std::unique_ptr<InputStream> source, ScannedSamples* scanned);
    ContainerForm readMagic();
    void sayEarlyEnd(const ScanFacts& facts);
    bool settleTimeOffset(uint32_t first);
    int jumpToFirstTrial(uint32_t ORBTrial::*member, unsigned int time);
};

#endif
