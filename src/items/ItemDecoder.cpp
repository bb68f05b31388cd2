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
#include <algorithm>
#include <cstring>

#include "base.h"
#include "ItemDecoder.h"
#include "ItemFormat.h"

namespace {

constexpr int kMissingWord = -ORB_MISSING_WORD;
constexpr uint16_t kMissingStatus = ORB_MISSING_WORD;
constexpr int kMessageCapacity = int(sizeof(ORB_MESSAGE::text));
constexpr int kExtraWords = 8;
constexpr double kFixed16 = 1.52587890625e-05; // 2^-16

template <class In>
inline float signedWord(In& in)
{
    return float(int16_t(in.getWord()));
}

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

template <class In>
inline float scaledWord(In& in, float divisor)
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

// Big-endian reads straight from bytes known to be there: a sample whose
// bytes all lie in the stream's window is decoded through this.
struct InPlace {
    const unsigned char* p;
    int getByte() { return *p++; }
    int getWord()
    {
        const int v = (p[0] << 8) | p[1];
        p += 2;
        return v;
    }
    unsigned int getInt()
    {
        const unsigned int v = (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
        p += 4;
        return v;
    }
};

// The bytes of a sample with flag word `flag` from its time up to its
// extra-data type byte (included), which is all whose size the flags give.
inline size_t sampleHeadBytes(unsigned flag)
{
    // Set bits among the three lowest of x.
    auto count3 = [](unsigned x) { return size_t((x & 1) + ((x >> 1) & 1) + ((x >> 2) & 1)); };
    static_assert(kRawGroup == kSecondGroup << 1 && kSecondGroup == kGazeGroup << 1 &&
                      kStatusWord == kInputWord << 1 && kInputWord == kButtonsWord << 1 && kLeftEye == kRightEye << 1,
                  "groups of adjacent bits");
    const size_t eyes = count3((flag / kRightEye) & 3);
    // Four bytes an eye for each position group, two for each word.
    const size_t pairGroups = count3(flag / kGazeGroup);
    const size_t words = count3(flag / kButtonsWord);
    return ((flag & kFullTime) ? 4 : 1) + 4 * eyes * pairGroups + ((flag & kResolutionGroup) ? 4 : 0) +
           ((flag & kPupilGroup) ? 2 * eyes : 0) + 2 * words + ((flag & kExtraData) ? 1 : 0);
}

// The whole of a sample without skipped block lists in the stream's
// window, in place; null when it is not all there.  *size gets its bytes,
// *head those up to its extra-data type byte.
inline const unsigned char* sampleInWindow(const InputStream& in, unsigned flag, size_t* size, size_t* head)
{
    if (flag & (kSkipList1 | kSkipList2))
        return nullptr;
    size_t n = sampleHeadBytes(flag);
    *head = n;
    const unsigned char* p = in.peek(n);
    if (p && (flag & kExtraData)) {
        n += 2 * std::min(size_t(p[n - 1] & kExtraCountMask), size_t(kExtraWords));
        p = in.peek(n);
    }
    *size = n;
    return p;
}

// The values of a sample after its time, in file order, into s.  Pupil
// sizes of a sample without the group are left as they were.
template <class In>
inline void decodeSampleValues(In& in, unsigned flag, float divisor, FSAMPLE& s)
{
    const bool left = flag & kLeftEye;
    const bool right = flag & kRightEye;
    for (int e = 0; e < 2; ++e) {
        s.rawX[e] = s.rawY[e] = kMissingPosition;
        s.secondX[e] = s.secondY[e] = kMissingPosition;
        s.gazeX[e] = s.gazeY[e] = kMissingPosition;
    }
    // x then y of each recorded eye, the left one first.
    auto pairs = [&](float* x, float* y, auto word) {
        if (left) {
            x[0] = word();
            y[0] = word();
        }
        if (right) {
            x[1] = word();
            y[1] = word();
        }
    };
    auto plain = [&] { return signedWord(in); };
    if (flag & kRawGroup)
        pairs(s.rawX, s.rawY, plain);
    if (flag & kSecondGroup)
        pairs(s.secondX, s.secondY, plain);
    if (flag & kGazeGroup)
        pairs(s.gazeX, s.gazeY, [&] { return scaledWord(in, divisor); });
    if (flag & kResolutionGroup) {
        s.resolutionX = scaledWord(in, divisor);
        s.resolutionY = scaledWord(in, divisor);
    } else {
        s.resolutionX = s.resolutionY = kMissingValue;
    }
    if (flag & kPupilGroup) {
        s.pupilSize[0] = left ? signedWord(in) : kMissingPosition;
        s.pupilSize[1] = right ? signedWord(in) : kMissingPosition;
    }
    s.status = (flag & kStatusWord) ? uint16_t(in.getWord()) : kMissingStatus;
    s.input = (flag & kInputWord) ? uint16_t(in.getWord()) : kMissingStatus;
    s.buttons = (flag & kButtonsWord) ? uint16_t(in.getWord()) : 0;
    if (flag & kExtraData) {
        int type = in.getByte();
        int n = type & kExtraCountMask;
        if (n > kExtraWords)
            n = kExtraWords;
        for (int i = 0; i < n; ++i)
            s.extraData[i] = uint16_t(in.getWord());
        s.extraType = int16_t(type);
    } else {
        s.extraType = int16_t(kMissingWord);
    }
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

namespace {

bool startsWith(const char* s, const char* prefix)
{
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

} // namespace

void ItemDecoder::open(std::unique_ptr<InputStream> source)
{
    stream = std::move(source);
    isOpen = 1;
}

void ItemDecoder::close()
{
    stream.reset();
    isOpen = 0;
}

int ItemDecoder::get_combfile_preamble_text(char* line, int size)
{
    if (!line)
        return -1;
    if (combfile_status() < 0 || !itemReadingEnabled)
        return -1;
    if (preambleComplete)
        return 1;

    stream->getString(line, size);
    if (std::strcmp(line, ORB_PREAMBLE_END) == 0) {
        preambleComplete = 1;
        return 1;
    }
    if (startsWith(line, "VERSION: OCULANT MK ")) {
        long revision = std::strtol(line + 20, nullptr, 10);
        trackerRevision = uint16_t(revision == 0 ? 1 : revision);
    } else if (startsWith(line, "SOURCE: OCULANT MK")) {
        trackerModel = 2;
    } else if (startsWith(line, "SOURCE: OCULANT HQ")) {
        trackerModel = 3;
    }
    return 0;
}

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
        *type = uint16_t(tag >> kEventTypeShift);
    return 0;
}

float ItemDecoder::get_prescaled_word(float divisor)
{
    return scaledWord(*stream, divisor);
}

// ---------------------------------------------------------------------------
// Samples

void ItemDecoder::noteSampleTime(uint32_t time)
{
    if (earliestSampleTime == 0 || time < earliestSampleTime)
        earliestSampleTime = time;
    if (time > latestSampleTime)
        latestSampleTime = time;
}

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

    currentSampleFlags = uint16_t(currentSampleFlags | flag);
    pendingTag = 0;
    FSAMPLE& s = sample->fs;
    s.flags = uint16_t(flag);

    size_t size = 0, head = 0;
    const unsigned char* bytes = sampleInWindow(in, flag, &size, &head);
    InPlace at{bytes};
    uint32_t time;
    if (flag & kFullTime) {
        time = bytes ? at.getInt() : in.getInt();
    } else {
        time = lastSampleTime + uint32_t(bytes ? at.getByte() : in.getByte());
        // A caller that knows when this sample is due wins over the step;
        // the time base then follows it.
        if (expectedTime != 0 && time != expectedTime)
            time = expectedTime;
    }
    lastSampleTime = time;
    s.time = time;

    if (bytes) {
        decodeSampleValues(at, flag, gazeDivisor, s);
        in.consume(size);
    } else {
        decodeSampleValues(in, flag, gazeDivisor, s);
        if (flag & kSkipList1)
            skipBlockList(in);
        if (flag & kSkipList2)
            skipBlockList(in);
    }

    noteSampleTime(time);
    return 0;
}

int ItemDecoder::frame_combfile_sample(Sample* sample, int catchErrors)
{
    const unsigned flag = pendingTag;
    // A sample whose bytes all lie in the stream's window (as good as all
    // of them) is stepped over; anything else takes the decoder's own path.
    size_t size = 0, head = 0;
    const unsigned char* p = (flag & kSampleItem) && stream ? sampleInWindow(*stream, flag, &size, &head) : nullptr;
    if (!sample || !p || !ready(*this) || !itemReadingEnabled)
        return read_combfile_sample(sample, 0, catchErrors);
    InPlace at{p};
    const uint32_t time = (flag & kFullTime) ? at.getInt() : lastSampleTime + uint32_t(at.getByte());
    stream->consume(size);

    currentSampleFlags = uint16_t(currentSampleFlags | flag);
    pendingTag = 0;
    lastSampleTime = time;
    FSAMPLE& s = sample->fs;
    s.flags = uint16_t(flag);
    s.time = time;
    s.extraType = int16_t((flag & kExtraData) ? p[head - 1] : kMissingWord);
    noteSampleTime(time);
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
    // The right eye bit alone is the right eye; the left, both or neither
    // the left.
    eventEye = (tag & kBothEyes) == kRightEye ? 1 : 0;
    fe.eye = eventEye;
    fe.itemTag = uint16_t(tag & kEventTagLowBits);
    const unsigned type = (tag >> kEventTypeShift) & kEventTypeMask;
    const bool blockStart = type == SSAMPLES || type == SEVENTS;

    // The two words of a pair field, x first: gaze-scaled, or -32768
    // missing and taken as they are otherwise.
    auto gazePair = [&](float& x, float& y) {
        x = scaledWord(in, gazeDivisor);
        y = scaledWord(in, gazeDivisor);
    };
    auto positionPair = [&](float& x, float& y) {
        x = sentinelWord(in);
        y = sentinelWord(in);
    };

    unsigned contents = 0;
    bool optionSeen = false;
    bool fourthSeen = false;
    for (;;) {
        const int code = in.getByte();
        if (code == kFieldEnd)
            break;
        switch (code) {
        case kFieldStartTime:
            fe.startTime = in.getInt();
            contents |= kHasStart;
            break;
        case kFieldEndTime:
            fe.endTime = in.getInt();
            contents |= kHasEndTime;
            break;
        // The plain pairs (start, end, average) write their second word
        // over a position member a second time; readers rely on it.
        case kFieldStartPlain: {
            float x = signedWord(in);
            fe.startPosX = fe.startGazeX = x;
            float y = signedWord(in);
            fe.startPosX = fe.startGazeY = y;
            contents |= kHasPlain | kHasStartPair;
            break;
        }
        case kFieldStartPos:
            positionPair(fe.startPosX, fe.startPosY);
            contents |= kHasPosition | kHasStartPair;
            break;
        case kFieldStartGaze:
            gazePair(fe.startGazeX, fe.startGazeY);
            contents |= kHasGaze | kHasStartPair;
            break;
        case kFieldStartScalar:
            fe.startScalar = signedWord(in);
            contents |= kHasScalar | kHasStart;
            break;
        case kFieldEndScalar:
            fe.endScalar = signedWord(in);
            contents |= kHasScalar | kHasEnd;
            break;
        case kFieldAvgScalar:
            fe.avgScalar = signedWord(in);
            contents |= kHasScalar | kHasAverage;
            break;
        case kFieldStartPupil:
            fe.startPupil = scaledWord(in, secondScale);
            contents |= kHasPupil | kHasStart;
            break;
        case kFieldEndPupil:
            fe.endPupil = scaledWord(in, secondScale);
            contents |= kHasPupil | kHasEnd;
            break;
        case kFieldAvgPupil:
            fe.avgPupil = scaledWord(in, secondScale);
            contents |= kHasPupil | kHasAverage;
            break;
        case kFieldPeakPupil:
            if (blockStart) {
                fourthScale = signedWord(in);
                fourthSeen = true;
            } else {
                fe.peakPupil = scaledWord(in, secondScale);
                contents |= kHasPupil | kHasAverage;
            }
            break;
        case kFieldEndPlain: {
            float x = signedWord(in);
            fe.endPosX = fe.endGazeX = x;
            float y = signedWord(in);
            fe.endPosX = fe.endGazeY = y;
            contents |= kHasPlain | kHasEndPair;
            break;
        }
        case kFieldEndPos:
            positionPair(fe.endPosX, fe.endPosY);
            contents |= kHasPosition | kHasEndPair;
            break;
        case kFieldEndGaze:
            gazePair(fe.endGazeX, fe.endGazeY);
            contents |= kHasGaze | kHasEndPair;
            break;
        case kFieldAvgPlain: {
            float x = signedWord(in);
            fe.avgPosX = fe.avgGazeX = x;
            float y = signedWord(in);
            fe.startPosX = fe.avgGazeY = y;
            contents |= kHasPlain | kHasAveragePair;
            break;
        }
        case kFieldAvgPos:
            positionPair(fe.avgPosX, fe.avgPosY);
            contents |= kHasPosition | kHasAveragePair;
            break;
        case kFieldAvgGaze:
            gazePair(fe.avgGazeX, fe.avgGazeY);
            contents |= kHasGaze | kHasAveragePair;
            break;
        case kFieldStartRes:
            gazePair(fe.startResX, fe.startResY);
            contents |= kHasResolution | kHasStart;
            break;
        case kFieldEndRes:
            // In a block start the pair is the packed mode word and its
            // companion, taken as they are.
            if (blockStart) {
                fe.endResX = signedWord(in);
                fe.endResY = signedWord(in);
            } else {
                gazePair(fe.endResX, fe.endResY);
            }
            contents |= kHasResolution | kHasEnd;
            break;
        case kFieldBlockFlags:
            fe.blockFlags = uint16_t(in.getWord());
            contents |= kHasBlockFlags;
            break;
        case kFieldBlockFlags2:
            fe.blockFlags2 = uint16_t(in.getWord());
            break;
        case kFieldBlockOption:
            fe.blockOption = uint16_t(in.getWord());
            if (blockStart) {
                thirdScale = float(fe.blockOption);
                optionSeen = true;
            }
            break;
        case kFieldMessage: {
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

    if (!(contents & kHasStart)) {
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
    blockSelfContained = trackerRevision == 0 || fe.endTime != 0;
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
