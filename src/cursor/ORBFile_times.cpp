// The time adjustment of the records handed out.
#include <algorithm>

#include "ORBFile.h"
#include "base.h"

namespace {

// Record times from this many milliseconds on carry a large clock offset
// that the time adjustment removes.
constexpr uint32_t kTimeOffsetThreshold = 200000000u;

} // namespace

// The offset is settled by the first record handed out: times of a tracker
// clock that has run for days are shifted back by it, small times are left
// alone for the whole file.
bool ORBFile::settleTimeOffset(uint32_t first)
{
    if (timeOffset != 0)
        return true;
    timeOffset = first;
    if (timeOffset < kTimeOffsetThreshold) {
        timeFixupOff = true;
        return false;
    }
    orb_log("Enabling time offset fixup\n");
    return true;
}

void ORBFile::adjustTime(uint32_t& time)
{
    if (!timeFixupOff && settleTimeOffset(time))
        time -= timeOffset;
}

void ORBFile::adjustTimes(ALLF_DATA* data)
{
    if (timeFixupOff)
        return;
    if (current <= 0 || size_t(current) > index.items.size()) {
        orb_log("Unknown type %d\n", 0);
        return;
    }
    const unsigned c = index.items[size_t(current) - 1].code();

    if (c == RECORDING || c == SAMPLE) {
        adjustTime(c == RECORDING ? data->rec.time : data->fs.time);
    } else if (isEventCode(c)) {
        FEVENT& fe = data->fe;
        const uint32_t first = fe.time == 0 ? fe.startTime : std::min(fe.time, fe.startTime);
        if (!settleTimeOffset(first))
            return;
        fe.time -= timeOffset;
        fe.startTime -= timeOffset;
        fe.endTime -= timeOffset;
    } else {
        orb_log("Unknown type %d\n", int(c));
    }
}
