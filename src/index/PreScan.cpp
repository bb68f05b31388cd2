// The pre-scan: one pass over the whole item stream that builds the item
// index (one 16-byte entry per sample and event, in time order once sorted)
// and the list of recording blocks.
//
// Nothing of an item's contents is kept beyond its position, tag, type and
// time key; the entries are re-decoded on demand later.  Along the way the
// scan fills dropped samples with placeholder entries (repair mode) and
// pairs the separate start and end markers of a block's sample and event
// streams into one block record.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "base.h"
#include "PreScan.h"
#include "items.h"

namespace {

constexpr uint64_t kNoTime = ~uint64_t(0);
constexpr int64_t kNoPeriod = -1;
constexpr int64_t kLongestPeriod = 8; // half-milliseconds: 250 Hz
// Gaps are filled while the placeholders of the whole file stay within this
// many entries (64 MiB of index); a larger gap is a jump of the clock, not
// a dropout, and is logged but left open.
constexpr uint64_t kMaxPlaceholders = uint64_t(1) << 22;
// Nor may they outgrow the file: up to this many, and then two for every
// byte of the item stream read so far, so that a few bytes claiming a long
// dropout cannot make the index (16 bytes an entry) dwarf the file.
constexpr uint64_t kFreePlaceholders = uint64_t(1) << 12;
constexpr uint64_t kPlaceholdersPerByte = 2;

// Index capacity: a first estimate from the bytes to scan, then, should it
// run out, a new one from the bytes per entry seen so far.
constexpr uint64_t kBytesPerEntryGuess = 6;
constexpr uint64_t kMaxReservedEntries = sizeof(void*) >= 8 ? uint64_t(1) << 31 : uint64_t(1) << 24;

ORBItem makeItem(int32_t position, uint16_t type, uint16_t headerWord, uint64_t key)
{
    ORBItem item;
    item.position = position;
    item.type = type;
    item.headerWord = headerWord;
    item.timeKey = key;
    return item;
}

ORBItem makeRecordingItem(Recording* rec)
{
    ORBItem item;
    item.position = 0;
    item.type = RECORDING;
    item.headerWord = 0;
    item.rec = rec;
    return item;
}

// The block-start (or block-end) markers of a block's sample and event
// streams that wait for their partner.
struct PairSlot {
    Recording* samples = nullptr;
    uint64_t samplesKey = 0;
    size_t samplesAt = 0; // index position of its recording item
    Recording* events = nullptr;
    uint64_t eventsKey = 0;
    size_t eventsAt = 0;
};

// The scan tells the index sorter how far the index is final every so many
// entries.
constexpr size_t kPublishEvery = 4096;

constexpr const char* kDamagedItem = "a damaged item";

// Eye byte of a block: the sample block's flag word has the left eye in
// bit 15 and the right in bit 14, the event block's second flag word the
// other way round.
uint8_t blockEyes(unsigned code, const FEVENT& fe)
{
    if (code == SSAMPLES)
        return uint8_t(((fe.blockFlags & kLeftEye) ? 1 : 0) | ((fe.blockFlags & kRightEye) ? 2 : 0));
    return uint8_t(((fe.blockFlags2 & kEventBlockLeftEye) ? 1 : 0) |
                   ((fe.blockFlags2 & kEventBlockRightEye) ? 2 : 0));
}

// Whole units of a non-negative float, clamped to [0, limit].
int64_t truncatedClamp(double v, int64_t limit)
{
    if (!(v > 0))
        return 0;
    return v >= double(limit) ? limit : int64_t(v);
}

class PreScanner {
public:
    PreScanner(ItemDecoder& decoder, ItemIndex& index, const ScanOptions& options, ScannedSamples* receiver)
        : dec_(decoder), index_(index), opt_(options), tolerant_(options.tolerant),
          receiver_(options.loadSamples ? receiver : nullptr), sorter_(index)
    {
    }

    ScanFacts run();

private:
    void reserveIndex();
    void append(const ORBItem& item)
    {
        if (index_.items.size() == index_.items.capacity())
            grow(1);
        index_.items.push_back(item);
    }
    void grow(uint64_t extra);
    // The entries that will not change any more: all but those from the
    // first recording item whose record still waits for its partner.
    size_t finalEntries() const;

    // Returns false when the scan ends here (tolerant mode).
    bool scanSample(int32_t position, uint16_t header);
    bool scanEvent(int32_t position, uint16_t header);
    void fillGap(uint64_t key, int32_t position);
    // Pairs a block marker; returns the record when it is a block of its
    // own (it then needs a recording item), null when it merged.
    Recording* pairBlock(unsigned code, const FEVENT& fe);
    void clearExtraDataFlagOfOpenBlock();
    void noteBlockStart();
    // The scan ends at the item that begins at `at`.
    void stop(const char* reason, int64_t at, int64_t unreadFrom)
    {
        facts_.stopReason = reason;
        facts_.stopAt = at;
        facts_.unreadFrom = unreadFrom;
    }
    int64_t streamAt() const { return int64_t(uint32_t(dec_.stream->position())); }

    ItemDecoder& dec_;
    ItemIndex& index_;
    const ScanOptions& opt_;
    const bool tolerant_;
    ScannedSamples* const receiver_; // null unless samples are loaded
    ScanFacts facts_;
    Sample sample_;
    bool sampleDecoded_ = false;
    EData event_;

    uint64_t prevTime_ = kNoTime;
    uint64_t prevPrevTime_ = kNoTime;
    int64_t period_ = kNoPeriod;
    uint64_t placeholders_ = 0;
    PairSlot slots_[2]; // block starts, block ends

    uint64_t streamBytes_ = 0; // size of the item stream's file; 0 unknown
    IndexSorter sorter_;
};

void PreScanner::reserveIndex()
{
    const int64_t length = dec_.stream->length();
    if (length <= 0)
        return;
    streamBytes_ = uint64_t(length);
    int32_t at = dec_.stream->position();
    uint64_t remaining = streamBytes_ > uint64_t(std::max(at, 0)) ? streamBytes_ - uint64_t(at) : 0;
    uint64_t estimate = std::min(remaining / kBytesPerEntryGuess + 256, kMaxReservedEntries);
    try {
        index_.items.reserve(size_t(estimate));
    } catch (const std::bad_alloc&) {
        // Left to ordinary growth.
    }
}

void PreScanner::grow(uint64_t extra)
{
    const uint64_t have = index_.items.size();
    uint64_t want = have + extra + have / 8 + 1024;
    const int32_t at = dec_.stream->position();
    if (streamBytes_ != 0 && at > 0 && have > 0 && uint64_t(at) < streamBytes_) {
        // What is left, at the density seen so far, and a sixteenth more.
        const double perByte = double(have) / double(at);
        const double rest = double(streamBytes_ - uint64_t(at)) * perByte;
        want = std::max(want, have + extra + uint64_t(rest * 1.0625) + 1024);
    }
    want = std::max(std::min(want, kMaxReservedEntries), have + extra);
    const auto paused = sorter_.pause();
    index_.items.reserve(size_t(want));
}

size_t PreScanner::finalEntries() const
{
    size_t n = index_.items.size();
    for (const PairSlot& slot : slots_) {
        if (slot.samples)
            n = std::min(n, slot.samplesAt);
        if (slot.events)
            n = std::min(n, slot.eventsAt);
    }
    return n;
}

ScanFacts PreScanner::run()
{
    reserveIndex();
    ScannedSamples* const receiver = receiver_;
    const bool trueStart = dec_.stream->positionIsOffset();
    if (receiver) {
        const int32_t at = std::max(dec_.stream->position(), 0);
        receiver->begin(streamBytes_ > uint64_t(at) ? int64_t(streamBytes_ - uint64_t(at)) : -1);
    }
    size_t nextPublish = kPublishEvery;
    for (;;) {
        if (index_.items.size() >= nextPublish && opt_.sortWhileScanning) {
            sorter_.publish(finalEntries());
            nextPublish = index_.items.size() + kPublishEvery;
        }
        const int64_t itemAt = dec_.stream ? streamAt() : 0;
        int kind;
        try {
            kind = dec_.next_combfile_item(nullptr);
        } catch (const ORBException& e) {
            if (!tolerant_)
                throw;
            orb_log("Error reading items %s \n", e.what());
            stop(kDamagedItem, itemAt, itemAt);
            break;
        }
        if (kind == -1) {
            if (dec_.stream && dec_.pendingTag == 0 && streamAt() == itemAt + 2)
                stop("an item tag of 0", itemAt, itemAt + 2);
            break;
        }
        if (kind == 2) {
            orb_log("error reading orb file 3\n");
            throw ORBException("Error reading orb file unknown data type");
        }
        const int32_t position = dec_.stream->position();
        const uint16_t header = dec_.pendingTag;
        const bool more = kind == 1 ? scanSample(position, header) : scanEvent(position, header);
        if (!more) {
            stop(kDamagedItem, itemAt, itemAt);
            break;
        }
    }
    facts_.positionsAreOffsets = trueStart && dec_.stream->positionIsOffset();
    if (receiver)
        receiver->end(facts_);
    sorter_.finish();
    return facts_;
}

bool PreScanner::scanSample(int32_t position, uint16_t header)
{
    // The index needs only a sample's time and flags, unless a receiver
    // takes the whole sample.
    ScannedSamples* const receiver = receiver_;
    int read;
    if (receiver) {
        Sample* const s = receiver->next();
        read = dec_.read_combfile_sample(s, 0, tolerant_);
        // What the scan keeps of the last sample.
        sample_.fs.time = s->fs.time;
        sample_.fs.flags = s->fs.flags;
        sample_.fs.extraType = s->fs.extraType;
    } else {
        read = dec_.frame_combfile_sample(&sample_, tolerant_);
    }
    if (read < 0) {
        orb_log("error reading orb file 2\n");
        if (!tolerant_)
            throw ORBException("Error reading Sample - type");
        orb_log("Unexpected file read error while reading sample; simulating end reached. \n");
        return false;
    }
    sampleDecoded_ = true;
    if (facts_.blockStarts == 0)
        facts_.uniformBlocks = false;
    if (!opt_.loadSamples)
        return true;
    ++facts_.samples;
    if (sample_.fs.flags & kPupilGroup)
        ++facts_.pupilGroups;

    const uint64_t t = sample_.fs.time;
    // A second sample within one millisecond (2000 Hz) sits half a
    // millisecond later.
    const uint64_t key = 2 * t + (prevTime_ == t ? 1 : 0);
    if (opt_.fixupMode && prevTime_ != kNoTime && prevTime_ != 0 && prevPrevTime_ != kNoTime &&
        prevPrevTime_ != 0)
        fillGap(key, position);
    append(makeItem(position, SAMPLE, header, key));
    prevPrevTime_ = prevTime_;
    prevTime_ = t;
    if (receiver)
        receiver->sample(position);
    return true;
}

void PreScanner::fillGap(uint64_t key, int32_t position)
{
    const uint64_t prevKey = 2 * prevTime_ + (prevTime_ == prevPrevTime_ ? 1 : 0);
    const int64_t step = int64_t(key) - int64_t(prevKey);

    if (period_ < 1 || period_ > kLongestPeriod) {
        period_ = step;
        if (period_ > kLongestPeriod) {
            // Slower than 250 Hz: nothing is filled, and the period is
            // learned anew from the next samples (of the next block, as a
            // block keeps its rate).
            period_ = kNoPeriod;
            return;
        }
        if (period_ <= 0)
            return;
        // The block start's rate wins over the spacing of two samples.
        const double expected = 2000.0 / double(dec_.sampleRate);
        if (expected >= 1.0 && expected < double(kLongestPeriod + 1)) {
            const int64_t e = int64_t(expected);
            if (e != period_) {
                orb_log("Intersample period does not match with the sample rate given by the start "
                        "recording event! Using start recording sample rate.\n");
                period_ = e;
            }
        }
    }
    if (step <= period_)
        return;

    // Counted from the previous sample's whole millisecond.
    const uint64_t n = (key - 2 * prevTime_) / uint64_t(period_);
    orb_log("Missing %d samples. Inserting dummy samples \n", int(n));
    orb_log("Missing (%llu-%llu) samples. Calculating speriod \n",
            static_cast<unsigned long long>(prevTime_), static_cast<unsigned long long>(key / 2));
    std::fflush(nullptr);
    const uint64_t budget =
        std::min(kMaxPlaceholders, kFreePlaceholders + kPlaceholdersPerByte * uint64_t(std::max(position, 0)));
    if (n < 2 || placeholders_ > budget || n - 1 > budget - placeholders_)
        return;
    placeholders_ += n - 1;
    if (index_.items.capacity() - index_.items.size() < n)
        grow(n);
    for (uint64_t k = 1; k < n; ++k)
        index_.items.push_back(makeItem(-1, SAMPLE, 0, prevKey + k * uint64_t(period_)));
}

bool PreScanner::scanEvent(int32_t position, uint16_t header)
{
    // Each event starts from an empty record: the decoder fills only the
    // fields the item carries.
    event_.fe = FEVENT{};
    if (dec_.read_combfile_event(&event_, tolerant_) < 0) {
        orb_log("error reading orb file 1\n");
        if (!tolerant_)
            throw ORBException("Error reading event - type(preScan)");
        orb_log("Unexpected file read error while reading event; simulating end reached. \n");
        return false;
    }
    const FEVENT& fe = event_.fe;
    const unsigned c = fe.type;
    if (c == SSAMPLES || c == SEVENTS)
        noteBlockStart();
    if (tolerant_ && c == 0) {
        orb_log("Unexpected event type tag 0. Skipping event \n");
        return true;
    }
    if (!opt_.loadEvents && (c < SSAMPLES || c > EEVENTS))
        return true;
    // An event claiming the code of a recording item (only a damaged file
    // has one) cannot be told from a real one in the index: it is left out.
    if (c == RECORDING)
        return true;

    const uint16_t marked = uint16_t(c | eyeMarker(fe.eye));
    uint16_t type = uint16_t(c);
    uint64_t key = 2 * uint64_t(fe.startTime);
    Recording* block = nullptr;
    switch (c) {
    case SSPAN:
    case SBLINK:
    case SSACC:
    case SFIX:
        if (tolerant_ && fe.startTime == 0) {
            orb_log("Unexpected time stamp 0. Skipping event \n");
            return true;
        }
        type = marked;
        break;
    case ESPAN:
    case EBLINK:
    case ESACC:
    case EFIX:
        key = 2 * uint64_t(fe.endTime);
        type = marked;
        break;
    case SSAMPLES:
    case SEVENTS:
        if (c == SSAMPLES ? !opt_.loadSamples : !opt_.loadEvents) {
            period_ = kNoPeriod;
            return true;
        }
        block = pairBlock(c, fe);
        type = marked;
        break;
    case ESAMPLES:
    case EEVENTS:
        if (c == ESAMPLES ? !opt_.loadSamples : !opt_.loadEvents)
            return true;
        if (opt_.loadSamples)
            clearExtraDataFlagOfOpenBlock();
        block = pairBlock(c, fe);
        key = 2 * uint64_t(fe.endTime);
        type = marked;
        break;
    case 0:
        ++facts_.zeroEvents;
        break;
    default:
        break; // point events, messages and unknown codes
    }
    if (block)
        append(makeRecordingItem(block));
    append(makeItem(position, type, header, key));
    return true;
}

void PreScanner::noteBlockStart()
{
    ScanFacts& facts = facts_;
    auto same = [](float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; };
    if (facts.blockStarts++ == 0) {
        facts.gazeDivisor = dec_.gazeDivisor;
        facts.secondScale = dec_.secondScale;
    }
    if (!dec_.blockSelfContained || !same(facts.gazeDivisor, dec_.gazeDivisor) || !same(facts.secondScale, dec_.secondScale))
        facts.uniformBlocks = false;
}

// A block whose last sample carries an extra-data block of kind 15 does not
// announce extra data in its start record.  Looked at when the first end
// marker of the block arrives, while the block's start is the last record.
void PreScanner::clearExtraDataFlagOfOpenBlock()
{
    if (index_.recordings.empty() || !sampleDecoded_)
        return;
    Recording& open = *index_.recordings.back();
    const FSAMPLE& last = sample_.fs;
    if (open.state == 1 && (last.flags & kExtraData) &&
        ((unsigned(last.extraType) >> 4) & 0x0F) == 15 && open.sampleFlags != 0)
        open.sampleFlags = uint16_t(open.sampleFlags & ~unsigned(kExtraData));
}

Recording* PreScanner::pairBlock(unsigned code, const FEVENT& fe)
{
    const bool start = code == SSAMPLES || code == SEVENTS;
    const bool samplesSide = code == SSAMPLES || code == ESAMPLES;

    auto r = std::make_unique<Recording>();
    r->time = start ? fe.startTime : fe.endTime;
    r->sampleRate = dec_.sampleRate;
    r->eventFlags = code == SEVENTS ? fe.blockFlags : 0;
    r->sampleFlags = code == SSAMPLES ? fe.blockFlags : 0;
    r->state = start ? 1 : 0;
    r->recordType = samplesSide ? 1 : 2;
    r->filterFlag = fe.blockOption == 1 ? 0 : 1;
    r->modeFlag = dec_.modeValue != 0 ? 1 : 0;
    r->modeLevel = uint8_t(dec_.levelValue);
    r->blockOption2 = 0; // the block items carry no second option byte
    if (start)
        r->eyes = blockEyes(code, fe);
    else
        r->eyes = index_.recordings.empty() ? 0 : index_.recordings.back()->eyes;
    r->orderKey = 2 * uint64_t(r->time);
    r->itemRef = 0;
    if (code == SSAMPLES)
        std::memcpy(&r->itemRef, &fe.startScalar, sizeof r->itemRef);

    PairSlot& slot = slots_[start ? 0 : 1];
    if (samplesSide) {
        slot.samples = r.get();
        slot.samplesKey = r->orderKey;
    } else {
        slot.events = r.get();
        slot.eventsKey = r->orderKey;
    }

    // The two markers belong to one block when they lie within as many
    // half-milliseconds as twice the rate in hertz, that is as many
    // milliseconds as the rate has hertz.  A side still empty matches
    // nothing.
    const int64_t tolerance = truncatedClamp(2.0 * double(dec_.sampleRate), INT64_MAX / 4);
    const uint64_t distance = slot.eventsKey > slot.samplesKey ? slot.eventsKey - slot.samplesKey
                                                                : slot.samplesKey - slot.eventsKey;
    if (slot.samples && slot.events && distance <= uint64_t(tolerance)) {
        // The partner came first and is listed with its recording item; it
        // becomes the block's record and the newcomer is dropped.  A block
        // begins with its earlier start marker and ends with its later end
        // marker.
        Recording* keep = samplesSide ? slot.events : slot.samples;
        keep->recordType = 3;
        keep->orderKey = start ? std::min(slot.samplesKey, slot.eventsKey)
                               : std::max(slot.samplesKey, slot.eventsKey);
        keep->time = uint32_t(keep->orderKey / 2);
        if (keep->blockOption2 == 0)
            keep->blockOption2 = r->blockOption2;
        slot = PairSlot();
        if (start)
            period_ = kNoPeriod;
        return nullptr;
    }

    // A block of its own: its recording item goes in next.
    (samplesSide ? slot.samplesAt : slot.eventsAt) = index_.items.size();
    index_.recordings.push_back(std::move(r));
    if (start)
        period_ = kNoPeriod;
    return index_.recordings.back().get();
}

} // namespace

ScanFacts preScan(ItemDecoder& decoder, ItemIndex& index, const ScanOptions& options, ScannedSamples* receiver)
{
    return PreScanner(decoder, index, options, receiver).run();
}
