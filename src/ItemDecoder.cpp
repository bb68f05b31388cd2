// Item framing and the decoding of sample and event items.
//
// Every item opens with a big-endian tag word: 0 ends the item stream, an
// odd tag is a sample (the tag is its flag word, saying which groups
// follow), an even tag an event (type in bits 8-13, eye in bits 14-15)
// followed by coded fields up to a code 0.  A tag that one decoder reads but
// that belongs to the other stays in pendingTag for the other to take.
//
// The sample decoder is the hot path of opening and batch reading: it reads
// through the stream's inline readers and allocates nothing.
#include <cstring>

#include "ORBException.h"
#include "ItemDecoder.h"
#include "log.h"

namespace {

constexpr int kMissingWord = -32768;
constexpr uint16_t kMissingStatus = 0x8000;
constexpr int kMessageCapacity = int(sizeof(ORB_MESSAGE::text));
constexpr int kExtraWords = 8;
constexpr double kFixed16 = 1.52587890625e-05; // 2^-16

// Sample flag bits, in the order their groups lie on disk.
enum : unsigned {
    kSampleItem = 0x0001,
    kSkipList2 = 0x0004,
    kSkipList1 = 0x0008,
    kExtraData = 0x0010,
    kButtonsWord = 0x0020,
    kInputWord = 0x0040,
    kStatusWord = 0x0080,
    kPupilGroup = 0x0100,
    kResolutionGroup = 0x0200,
    kGazeGroup = 0x0400,
    kSecondGroup = 0x0800,
    kRawGroup = 0x1000,
    kFullTime = 0x2000,
    kRightEye = 0x4000,
    kLeftEye = 0x8000,
};

// Event content bits.
enum : unsigned {
    kHasStartTime = 0x0001,
    kHasEndTime = 0x0040,
};

inline float signedWord(InputStream& in) { return float(int16_t(in.getWord())); }

// A stored scaled word: -32768 marks a missing value; otherwise the word is
// divided by the divisor when that is a usable one (above 0.1; a NaN is not).
inline float prescale(int w, float divisor)
{
    if (w == kMissingWord)
        return kMissingValue;
    if (divisor > 0.1)
        return float(w) / divisor;
    return float(w);
}

inline float scaledWord(InputStream& in, float divisor)
{
    return prescale(int16_t(in.getWord()), divisor);
}

// -32768 marks a missing value; any other word is taken as it is.
inline float sentinelWord(InputStream& in)
{
    int w = int16_t(in.getWord());
    return w == kMissingWord ? kMissingValue : float(w);
}

// Truncation toward zero that stays defined for values an int cannot hold
// (they give 0).
inline int truncated(float v)
{
    if (!(v > -2147483648.0f && v < 2147483648.0f))
        return 0;
    return int(v);
}

// combfile_status() == 0, without the call: open, not at end of file, past
// the preamble.
inline bool ready(const ItemDecoder& f)
{
    return f.isOpen && f.stream && !f.stream->eof() && f.preambleComplete;
}

[[noreturn]] void shortRead(const char* line)
{
    orb_log("%s", line);
    throw ORBException("End of file Exception");
}

// A run of blocks {length n; if n != 0: kind byte, n bytes} ended by n = 0.
// Nothing of it is kept.
inline void skipBlockList(InputStream& in)
{
    for (;;) {
        int n = in.getByte();
        if (n == 0)
            return;
        in.getByte(); // the block's kind
        if (in.skip(n) != n)
            shortRead("error reading orb file 11\n");
    }
}

} // namespace

// ---------------------------------------------------------------------------
// Framing

int ItemDecoder::combfile_status() const
{
    if (!isOpen || !stream)
        return -1;
    if (stream->eof())
        return 1;
    return preambleComplete ? 0 : 2;
}

int ItemDecoder::next_combfile_item(unsigned short* type)
{
    if (!itemReadingEnabled || !isOpen || !stream)
        return -1;
    if (stream->eof())
        return 1;
    if (!preambleComplete)
        return 2;
    unsigned tag = unsigned(stream->getWord());
    pendingTag = uint16_t(tag);
    if (tag == 0)
        return -1;
    if (tag & kSampleItem) {
        if (type)
            *type = uint16_t(tag);
        return 1;
    }
    if (type)
        *type = uint16_t(tag >> 8);
    return 0;
}

float ItemDecoder::get_prescaled_word(float divisor)
{
    return scaledWord(*stream, divisor);
}

// ---------------------------------------------------------------------------
// Samples

int ItemDecoder::read_combfile_sample_noexcept(Sample* sample, unsigned int expectedTime)
{
    if (!sample || !ready(*this) || !itemReadingEnabled)
        return -1;
    InputStream& in = *stream;
    if (pendingTag == 0) {
        // next_combfile_item, whose checks have just been made.
        pendingTag = uint16_t(in.getWord());
        if (pendingTag == 0)
            return -1;
    }
    const unsigned flag = pendingTag;
    if (!(flag & kSampleItem))
        return -2; // an event: left pending for the event decoder

    sampleFlagWord = uint16_t(flag);
    currentSampleFlags = uint16_t(currentSampleFlags | flag);
    pendingTag = 0;
    FSAMPLE& s = sample->fs;
    s.flags = uint16_t(flag);

    uint32_t time;
    if (flag & kFullTime) {
        time = in.getInt();
    } else {
        time = lastSampleTime + uint32_t(in.getByte());
        // A caller that knows when this sample is due wins over the step;
        // the time base then follows it.
        if (expectedTime != 0 && time != expectedTime)
            time = expectedTime;
    }
    lastSampleTime = time;
    s.time = time;

    const bool left = flag & kLeftEye;
    const bool right = flag & kRightEye;
    for (int e = 0; e < 2; ++e) {
        s.rawX[e] = s.rawY[e] = kMissingPosition;
        s.secondX[e] = s.secondY[e] = kMissingPosition;
        s.gazeX[e] = s.gazeY[e] = kMissingPosition;
    }

    if (flag & kRawGroup) {
        if (left) {
            s.rawX[0] = signedWord(in);
            s.rawY[0] = signedWord(in);
        }
        if (right) {
            s.rawX[1] = signedWord(in);
            s.rawY[1] = signedWord(in);
        }
    }
    if (flag & kSecondGroup) {
        if (left) {
            s.secondX[0] = signedWord(in);
            s.secondY[0] = signedWord(in);
        }
        if (right) {
            s.secondX[1] = signedWord(in);
            s.secondY[1] = signedWord(in);
        }
    }
    const float divisor = gazeDivisor;
    if (flag & kGazeGroup) {
        if (left) {
            s.gazeX[0] = scaledWord(in, divisor);
            s.gazeY[0] = scaledWord(in, divisor);
        }
        if (right) {
            s.gazeX[1] = scaledWord(in, divisor);
            s.gazeY[1] = scaledWord(in, divisor);
        }
    }
    if (flag & kResolutionGroup) {
        s.resolutionX = scaledWord(in, divisor);
        s.resolutionY = scaledWord(in, divisor);
    } else {
        s.resolutionX = s.resolutionY = kMissingValue;
    }
    // Pupil sizes of a sample without the group are left as they were.
    if (flag & kPupilGroup) {
        s.pupilSize[0] = left ? signedWord(in) : kMissingPosition;
        s.pupilSize[1] = right ? signedWord(in) : kMissingPosition;
    }
    s.status = (flag & kStatusWord) ? uint16_t(in.getWord()) : kMissingStatus;
    s.input = (flag & kInputWord) ? uint16_t(in.getWord()) : kMissingStatus;
    s.buttons = (flag & kButtonsWord) ? uint16_t(in.getWord()) : 0;
    if (flag & kExtraData) {
        int type = in.getByte();
        int n = type & 0x0F;
        if (n > kExtraWords)
            n = kExtraWords;
        for (int i = 0; i < n; ++i)
            s.extraData[i] = uint16_t(in.getWord());
        s.extraType = int16_t(type);
    } else {
        s.extraType = int16_t(kMissingWord);
    }
    if (flag & kSkipList1)
        skipBlockList(in);
    if (flag & kSkipList2)
        skipBlockList(in);

    if (earliestSampleTime == 0 || time < earliestSampleTime)
        earliestSampleTime = time;
    if (time > latestSampleTime)
        latestSampleTime = time;
    return 0;
}

int ItemDecoder::read_combfile_sample(Sample* sample, unsigned int expectedTime, int catchErrors)
{
    if (!catchErrors)
        return read_combfile_sample_noexcept(sample, expectedTime);
    try {
        return read_combfile_sample_noexcept(sample, expectedTime);
    } catch (const ORBException& e) {
        orb_log("Error %s \n", e.what());
        return -1;
    }
}

// ---------------------------------------------------------------------------
// Events

int ItemDecoder::read_combfile_event_noexcept(EData* event)
{
    int status = combfile_status();
    if (status != 0) {
        orb_log(" bad status  %d\n", status);
        return -1;
    }
    if (!itemReadingEnabled) {
        orb_log("input is bad \n");
        return -1;
    }
    if (!event)
        return -1;
    if (pendingTag == 0 && next_combfile_item(nullptr) == -1)
        return -1;
    const unsigned tag = pendingTag;
    if (tag & kSampleItem)
        return -2; // a sample: left pending for the sample decoder
    pendingTag = 0;

    FEVENT& fe = event->fe;
    InputStream& in = *stream;
    // 0x40 alone in the high byte is the right eye; 0x80, both or neither
    // the left.
    eventEye = ((tag >> 8) & 0xC0) == 0x40 ? 1 : 0;
    fe.eye = eventEye;
    fe.itemTag = uint16_t(tag & 0xFE);
    const unsigned type = (tag >> 8) & 0x3F;
    const bool blockStart = type == SSAMPLES || type == SEVENTS;

    unsigned contents = 0;
    bool optionSeen = false;
    bool fourthSeen = false;
    for (;;) {
        const int code = in.getByte();
        if (code == 0)
            break;
        switch (code) {
        case 33:
            fe.startTime = in.getInt();
            contents |= 0x0001;
            break;
        case 65:
            fe.endTime = in.getInt();
            contents |= 0x0040;
            break;
        // The plain position pairs 40, 72 and 104 write their second word
        // over a position member a second time; readers rely on it.
        case 40: {
            float x = signedWord(in);
            fe.startPosX = fe.startGazeX = x;
            float y = signedWord(in);
            fe.startPosX = fe.startGazeY = y;
            contents |= 0x0408;
            break;
        }
        case 41:
            fe.startPosX = sentinelWord(in);
            fe.startPosY = sentinelWord(in);
            contents |= 0x0808;
            break;
        case 42:
            fe.startGazeX = scaledWord(in, gazeDivisor);
            fe.startGazeY = scaledWord(in, gazeDivisor);
            contents |= 0x1008;
            break;
        case 48:
            fe.startScalar = signedWord(in);
            contents |= 0x0081;
            break;
        case 81:
            fe.endScalar = signedWord(in);
            contents |= 0x0082;
            break;
        case 114:
            fe.avgScalar = signedWord(in);
            contents |= 0x0084;
            break;
        case 51:
            fe.startPupil = scaledWord(in, secondScale);
            contents |= 0x0101;
            break;
        case 83:
            fe.endPupil = scaledWord(in, secondScale);
            contents |= 0x0102;
            break;
        case 115:
            fe.avgPupil = scaledWord(in, secondScale);
            contents |= 0x0104;
            break;
        case 147:
            if (blockStart) {
                fourthScale = signedWord(in);
                fourthSeen = true;
            } else {
                fe.peakPupil = scaledWord(in, secondScale);
                contents |= 0x0104;
            }
            break;
        case 72: {
            float x = signedWord(in);
            fe.endPosX = fe.endGazeX = x;
            float y = signedWord(in);
            fe.endPosX = fe.endGazeY = y;
            contents |= 0x0410;
            break;
        }
        case 73:
            fe.endPosX = sentinelWord(in);
            fe.endPosY = sentinelWord(in);
            contents |= 0x0810;
            break;
        case 74:
            fe.endGazeX = scaledWord(in, gazeDivisor);
            fe.endGazeY = scaledWord(in, gazeDivisor);
            contents |= 0x1010;
            break;
        case 104: {
            float x = signedWord(in);
            fe.avgPosX = fe.avgGazeX = x;
            float y = signedWord(in);
            fe.startPosX = fe.avgGazeY = y;
            contents |= 0x0420;
            break;
        }
        case 105:
            fe.avgPosX = sentinelWord(in);
            fe.avgPosY = sentinelWord(in);
            contents |= 0x0820;
            break;
        case 106:
            fe.avgGazeX = scaledWord(in, gazeDivisor);
            fe.avgGazeY = scaledWord(in, gazeDivisor);
            contents |= 0x1020;
            break;
        case 43:
            fe.startResX = scaledWord(in, gazeDivisor);
            fe.startResY = scaledWord(in, gazeDivisor);
            contents |= 0x0201;
            break;
        case 75:
            // In a block start the pair is the packed mode word and its
            // companion, taken as they are.
            if (blockStart) {
                fe.endResX = signedWord(in);
                fe.endResY = signedWord(in);
            } else {
                fe.endResX = scaledWord(in, gazeDivisor);
                fe.endResY = scaledWord(in, gazeDivisor);
            }
            contents |= 0x0202;
            break;
        case 180:
            fe.blockFlags = uint16_t(in.getWord());
            contents |= 0x2000;
            break;
        case 85:
            fe.blockFlags2 = uint16_t(in.getWord());
            break;
        case 86:
            fe.blockOption = uint16_t(in.getWord());
            if (blockStart) {
                thirdScale = float(fe.blockOption);
                optionSeen = true;
            }
            break;
        case 94: {
            int n = int16_t(in.getWord());
            if (n > kMessageCapacity || n < 0)
                return -1; // the text is left unread: the file is damaged
            message.length = int16_t(n);
            if (n > 0 && in.getRawData(message.text, n) != n)
                shortRead("error reading orb file 12\n");
            fe.message = &message;
            break;
        }
        default:
            break; // unknown codes carry nothing
        }
    }

    if (!(contents & kHasStartTime)) {
        if (contents & kHasEndTime)
            fe.startTime = fe.endTime;
        else
            fe.endTime = 0;
    }
    if (currentSampleFlags == 0)
        latestSampleTime = fe.startTime;
    fe.contents = uint16_t(contents);
    fe.type = uint16_t(type);

    switch (type) {
    case SSAMPLES: {
        currentSampleFlags = fe.blockFlags;
        gazeDivisor = fe.startScalar;
        secondScale = fe.endScalar;
        int state = truncated(fe.avgScalar);
        recordingState = int16_t(state == 0 ? 1 : state);
        break;
    }
    case ESAMPLES:
        currentSampleFlags = 0;
        return 0;
    case SEVENTS:
        eventBlockWord = fe.blockFlags2;
        eventBlockWord2 = fe.blockFlags;
        gazeDivisor = fe.startScalar;
        secondScale = fe.endScalar;
        break;
    case EEVENTS:
        eventBlockWord = 0;
        return 0;
    default:
        return 0;
    }

    // A block starts: option, scales, rate and recording mode.
    if (!optionSeen) {
        fe.blockOption = 1;
        thirdScale = 1.0f;
    }
    if (!fourthSeen) {
        fe.peakPupil = 1.0f;
        fourthScale = 1.0f;
    }
    if (trackerRevision == 0) {
        // Trackers of revision 0 record at 250 Hz in one fixed mode.
        sampleRate = 250.0f;
        fe.avgPupil = 250.0f;
        modeValue = 9;
        levelValue = 1;
        lowModeValue = 1;
        fe.endTime = fe.startTime;
        return 0;
    }
    if (fe.endTime != 0) {
        // The end time of a block start carries the rate in 16.16.
        sampleRate = float(double(fe.endTime) * kFixed16);
    } else if (sampleRate != 500.0f) {
        if (sampleRate > 500.0f)
            orb_log("Possible miss handle! sample per second is %f resetting to 250 \n",
                    double(sampleRate));
        sampleRate = 250.0f;
    }
    fe.avgPupil = sampleRate;
    const unsigned mode = unsigned(truncated(fe.endResX));
    modeValue = int16_t((mode >> 8) & 0xFF);
    levelValue = int16_t((mode >> 4) & 0x0F);
    lowModeValue = int16_t(mode & 0x0F);
    fe.endTime = fe.startTime;
    return 0;
}

int ItemDecoder::read_combfile_event(EData* event, int catchErrors)
{
    if (!catchErrors)
        return read_combfile_event_noexcept(event);
    try {
        return read_combfile_event_noexcept(event);
    } catch (const ORBException& e) {
        orb_log("Error %s \n", e.what());
        return -1;
    }
}
