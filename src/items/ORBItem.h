// One entry of the time-ordered item index.
#ifndef ORBAPI_ORBITEM_H
#define ORBAPI_ORBITEM_H

#include <cstdint>

#include "orbapi.h"

// Event codes as bit sets over the codes 0 to 28.
constexpr uint32_t kEventCodes = ORB_EVENT_CODES; // 1-10, 15-18, 24, 25, 28
constexpr uint32_t kPairedCodes = 0x781FEu;    // 1-8, 15-18
constexpr uint32_t kStartCodes = 0x280AAu;     // 1, 3, 5, 7, 15, 17
constexpr uint32_t kEndCodes = 0x50154u;       // 2, 4, 6, 8, 16, 18

inline bool inCodeSet(uint32_t set, unsigned code) { return code <= 28 && ((set >> code) & 1u); }
inline bool isEventCode(unsigned code) { return inCodeSet(kEventCodes, code); }
inline bool isPairedCode(unsigned code) { return inCodeSet(kPairedCodes, code); }
inline bool isStartCode(unsigned code) { return inCodeSet(kStartCodes, code); }
inline bool isEndCode(unsigned code) { return inCodeSet(kEndCodes, code); }

// Type-word flags added by the consistency repair (high byte).
constexpr uint16_t kEyeMarkerMask = 0x0F00;
constexpr uint16_t kEyeMarkerLeft = 0x0100;  // eye index 0 (and events of neither eye)
constexpr uint16_t kEyeMarkerRight = 0x0200; // eye index 1
inline uint16_t eyeMarker(int eye) { return eye == 1 ? kEyeMarkerRight : kEyeMarkerLeft; }
constexpr uint16_t kFlagEye0 = 0x1000;       // re-timed blink start; sample in blink of eye 0
constexpr uint16_t kFlagEye1 = 0x2000;       // merged blink end; sample in blink of eye 1

struct ORBItem {
    int32_t position;     // stream position of the item's body; -1 placeholder sample; 0 recording
    uint16_t type;        // low byte the item code, high byte eye marker and repair flags
    uint16_t headerWord;  // the item's tag word, restored when the item is read again
    union {
        uint64_t timeKey; // time in half-milliseconds (x2, +1 for a second sample)
        Recording* rec;   // recording items (code 30): the record, whose orderKey is the key
    };

    unsigned code() const { return type & 0xFFu; }
    bool isRecording() const { return code() == RECORDING; }
    bool isSample() const { return code() == SAMPLE; }
    // The ordering key, read from the record for a recording item.
    uint64_t key() const { return isRecording() ? rec->orderKey : timeKey; }
    // 1 sample, 30 recording item, 0 event, -1 anything else.
    int getItemType() const;
};
static_assert(sizeof(ORBItem) == 16, "an index entry is 16 bytes");

// Whether a goes before b in the index.
bool sortByTime(ORBItem a, ORBItem b);

// The library's own trial entry; the first four members are a TRIAL.
struct ORBTrial {
    Recording* rec;
    uint32_t trialWord;
    uint32_t startTime;
    uint32_t endTime;
    uint32_t startIndex;
    uint32_t endIndex;
};

#endif
