// One open recording: the stream, the facts of its preamble, the decoder
// state, the time-ordered item index and the cursor that walks it.
//
// The class is implemented in several units, one concern each:
//   ORBFile_open.cpp      construction, preamble, destruction
//   zipread.cpp           inflating a compressed body
//   ORBFile_decode.cpp    item framing, sample and event decoding
//   ORBFile_prescan.cpp   the pre-scan that builds the index
//   ORBFile_sort.cpp      ordering the index
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
#include <memory>
#include <vector>

#include "EData.h"
#include "NVIO.h"
#include "ORBItem.h"
#include "Sample.h"
#include "SampleQueue.h"
#include "orbapi.h"

// Set from the preamble: 1 when the writer wrote UTF-8 text.  Process-wide.
extern std::atomic<int> utf8encoding;

// The two container forms.
enum class ContainerForm { Plain, Compressed };

// The most an inflated body may hold: every stream position fits a signed
// 32-bit index entry.  Inflating stops there with a log line; the bytes
// before it are kept.
constexpr uint64_t kInflatedBodyLimit = 0x7FFFFFFFu;

// Inflates the zlib stream that starts at source's position into
// destination.  Returns 0 when the stream ended, else a negative zlib code.
int do_uncompress(FILE* source, FILE* destination);
// Inflates the zlib stream in the `size` bytes at `source` into a memory
// stream that owns its bytes.  A damaged or cut stream yields what inflated
// before the damage.  Throws std::bad_alloc when memory runs out.
std::unique_ptr<InputStream> inflateToMemory(const unsigned char* source, size_t size);
// The two with a smaller limit than kInflatedBodyLimit.
int do_uncompress(FILE* source, FILE* destination, uint64_t limit);
std::unique_ptr<InputStream> inflateToMemory(const unsigned char* source, size_t size, uint64_t limit);

class ORBFile {
public:
    // Opens path.  options: bits 0-1 consistency mode, bit 2 tolerant
    // pre-scan, bit 3 time adjustment off.  Throws ORBException.
    ORBFile(const char* path, int options, bool loadEvents, bool loadSamples);
    // The same over `size` bytes at `data`, read in place (they must
    // outlive the file); a compressed body is inflated into memory.
    ORBFile(const void* data, size_t size, int options, bool loadEvents, bool loadSamples);
    ~ORBFile();

    ORBFile(const ORBFile&) = delete;
    ORBFile& operator=(const ORBFile&) = delete;

    // ---- opening (ORBFile_open.cpp) ------------------------------------
    int readPreamble();
    int getPreamble(char* buffer, int size);
    int get_combfile_preamble_text(char* line, int size);
    // -1 not open, 1 stream at end of file, 0 ready, 2 still in the preamble.
    int combfile_status() const;

    // ---- decoding (ORBFile_decode.cpp) ---------------------------------
    // Reads the next tag: 1 sample (or end of file), 0 event, -1 no item,
    // 2 preamble incomplete.
    int next_combfile_item(unsigned short* type);
    int read_combfile_sample_noexcept(Sample* sample, unsigned int expectedTime);
    int read_combfile_sample(Sample* sample, unsigned int expectedTime, int catchErrors);
    int read_combfile_event_noexcept(EData* event);
    int read_combfile_event(EData* event, int catchErrors);
    float get_prescaled_word(float divisor);

    // ---- index (ORBFile_prescan.cpp, ORBFile_sort.cpp) -----------------
    void preScan(int tolerant);
    void sortItems();

    // ---- repair (ORBFile_repair.cpp) -----------------------------------
    int checkConsistency();
    void mergeBlinksInsideSaccade();
    void markSamplesInsideBlink();
    void adjustTimes(ALLF_DATA* data);

    // ---- samples (ORBFile_batch.cpp) -----------------------------------
    int batchReadSample(int itemIndex);

    // ---- access (ORBFile_access.cpp) -----------------------------------
    // The advance of the function interface: the code of the next item, or
    // 0 past the end.
    int stepNext();
    int readItem(int index);
    ALLF_DATA* getFloatData();
    void resetPosition(const ORBItem* item);
    int gotoIndex(int index);
    int findIndex(unsigned int key, int low, int high) const;
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

    // Stream and preamble.
    std::unique_ptr<InputStream> stream;
    std::unique_ptr<char[]> preambleText; // null when none was read
    int preambleLength = 0;
    int16_t itemReadingEnabled = 1;
    int16_t isOpen = 0;
    int16_t preambleComplete = 0;
    uint16_t trackerRevision = 0; // VERSION line; 0 read as 1
    uint16_t trackerModel = 1;    // 1 default, 2 MK, 3 HQ

    // Decoder state: scale values, rate and recording words set by block
    // starts; times kept by the sample decoder.
    float gazeDivisor = 1.0f;  // divisor of gaze and resolution words
    float secondScale = 10.0f; // scale of pupil values in events
    float thirdScale = 1.0f;
    float fourthScale = 1.0f;
    uint32_t lastSampleTime = 0;
    uint32_t earliestSampleTime = 0;
    uint32_t latestSampleTime = 0;
    float sampleRate = 250.0f;
    int16_t recordingState = 1;
    int16_t modeValue = 0;   // high byte of the block's mode word
    int16_t levelValue = 0;  // its middle four bits: the filter level
    int16_t lowModeValue = 0; // its low four bits
    uint16_t currentSampleFlags = 0; // non-zero while a sample block runs
    uint16_t eventBlockWord = 0;
    uint16_t eventBlockWord2 = 0;
    ORB_MESSAGE message{};     // shared by every message of this file
    uint16_t pendingTag = 0;   // tag read but not yet consumed
    uint16_t sampleFlagWord = 0; // flag word of the sample being decoded
    int16_t eventEye = 0;        // eye of the event being decoded

    // Options.
    int consistencyMode = 0;
    bool fixupMode = false;
    bool tolerantScan = false;
    bool timeFixupOff = false;
    bool loadEvents = true;
    bool loadSamples = true;

    // Index and blocks.
    std::vector<ORBItem> items;
    std::vector<std::unique_ptr<Recording>> recordings;
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
    int jumpToFirstTrial(uint32_t ORBTrial::*member, unsigned int time);
};

#endif
