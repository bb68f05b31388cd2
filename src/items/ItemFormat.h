// The layout of the item stream, named once: the flag bits of a sample's
// tag word, the parts of an event's tag word, the field codes of an event
// and the content bits each field sets.  The decoder, the index and the
// tests' writer all take the numbers from here.
//
// Included by source files only, never by another header, so that the
// names reach only the units that ask for them.  (The type-word marks that
// the index adds to its entries are in ORBItem.h.)
#ifndef ORBAPI_ITEMFORMAT_H
#define ORBAPI_ITEMFORMAT_H

#include <cstdint>

#include "orbapi.h"

// ---------------------------------------------------------------------------
// Sample flag bits: an odd tag word is a sample and the tag is its flag word.
// The groups lie on disk in the order of the bits from kFullTime down to
// kSkipList2.  The same word is the FSAMPLE's flags, and a sample block's
// start stores the flags of its samples in the same bits.

constexpr uint16_t kSampleItem = 0x0001;      // the item is a sample
constexpr uint16_t kHalfMillisecond = ORB_SAMPLE_HALF_MS; // set on reading: second sample of a millisecond
constexpr uint16_t kSkipList2 = 0x0004;       // second skipped block list
constexpr uint16_t kSkipList1 = 0x0008;       // first skipped block list
constexpr uint16_t kExtraData = ORB_SAMPLE_EXTRA_DATA; // type byte and extra-data words
constexpr uint16_t kButtonsWord = ORB_SAMPLE_BUTTONS;
constexpr uint16_t kInputWord = ORB_SAMPLE_INPUT;
constexpr uint16_t kStatusWord = ORB_SAMPLE_STATUS;
constexpr uint16_t kPupilGroup = ORB_SAMPLE_PUPIL; // pupil size per eye
constexpr uint16_t kResolutionGroup = ORB_SAMPLE_RESOLUTION; // one resolution pair
constexpr uint16_t kGazeGroup = ORB_SAMPLE_GAZE; // gaze pair per eye
constexpr uint16_t kSecondGroup = ORB_SAMPLE_SECOND; // second position pair per eye
constexpr uint16_t kRawGroup = ORB_SAMPLE_RAW; // raw position pair per eye
constexpr uint16_t kFullTime = 0x2000;        // 32-bit time instead of a step byte
constexpr uint16_t kRightEye = ORB_SAMPLE_RIGHT_EYE; // eye 1 (also in an event's tag)
constexpr uint16_t kLeftEye = ORB_SAMPLE_LEFT_EYE; // eye 0 (also in an event's tag)
constexpr uint16_t kBothEyes = kLeftEye | kRightEye;

// The extra-data type byte: its low four bits count the words that follow
// (at most 8 are kept).
constexpr unsigned kExtraCountMask = 0x0F;

// The eye bit of eye index 0 (left) or 1 (right).
constexpr uint16_t sampleEyeBit(int eye) { return eye == 1 ? kRightEye : kLeftEye; }

// ---------------------------------------------------------------------------
// Event tag word: type in bits 8-13, eye bits as in a sample (kRightEye
// alone is eye 1; kLeftEye, both or neither eye 0), the low byte but its
// lowest bit kept as the event's itemTag.

constexpr unsigned kEventTypeShift = 8;
constexpr unsigned kEventTypeMask = 0x3F; // after the shift
constexpr unsigned kEventTagLowBits = 0xFE;

// The second flag word of an event block's start names its eyes the other
// way round from the sample block's flag word.
constexpr uint16_t kEventBlockLeftEye = 0x4000;
constexpr uint16_t kEventBlockRightEye = 0x8000;
constexpr uint16_t kEventBlockBothEyes = kEventBlockLeftEye | kEventBlockRightEye;

// ---------------------------------------------------------------------------
// Event field codes: after the tag, { code byte, value } until kFieldEnd.

enum EventField : uint8_t {
    kFieldEnd = 0,
    kFieldStartTime = 33,   // 32-bit
    kFieldEndTime = 65,     // 32-bit; the rate in 16.16 in a block start
    kFieldStartPlain = 40,  // 2 plain words, written across position and gaze
    kFieldStartPos = 41,    // 2 words, -32768 missing
    kFieldStartGaze = 42,   // 2 gaze-scaled words
    kFieldStartRes = 43,    // 2 gaze-scaled words
    kFieldStartScalar = 48, // 1 plain word; the gaze divisor in a block start
    kFieldStartPupil = 51,  // 1 second-scaled word
    kFieldEndPlain = 72,
    kFieldEndPos = 73,
    kFieldEndGaze = 74,
    kFieldEndRes = 75,      // the packed mode word and its companion in a block start
    kFieldEndScalar = 81,   // the second scale in a block start
    kFieldEndPupil = 83,
    kFieldBlockFlags2 = 85, // 1 unsigned word
    kFieldBlockOption = 86, // 1 unsigned word; the third scale in a block start
    kFieldMessage = 94,     // a length word, then that many bytes
    kFieldAvgPlain = 104,
    kFieldAvgPos = 105,
    kFieldAvgGaze = 106,
    kFieldAvgScalar = 114,  // the recording state in a sample block start
    kFieldAvgPupil = 115,
    kFieldPeakPupil = 147,  // the fourth scale in a block start
    kFieldBlockFlags = 180, // 1 unsigned word
};

// ---------------------------------------------------------------------------
// Content bits of FEVENT::contents: which values the decoder found.  A
// field sets the bit of its group and that of its place.

constexpr uint16_t kHasStart = 0x0001;      // start time, or a start value
constexpr uint16_t kHasEnd = 0x0002;        // an end value
constexpr uint16_t kHasAverage = 0x0004;    // an average or peak value
constexpr uint16_t kHasStartPair = 0x0008;  // a start position, gaze or plain pair
constexpr uint16_t kHasEndPair = 0x0010;
constexpr uint16_t kHasAveragePair = 0x0020;
constexpr uint16_t kHasEndTime = 0x0040;
constexpr uint16_t kHasScalar = 0x0080;
constexpr uint16_t kHasPupil = 0x0100;
constexpr uint16_t kHasResolution = 0x0200;
constexpr uint16_t kHasPlain = 0x0400;
constexpr uint16_t kHasPosition = 0x0800;
constexpr uint16_t kHasGaze = 0x1000;
constexpr uint16_t kHasBlockFlags = 0x2000;

#endif
