// The sample queue: lookup by key, the pupil carry, and velocities.
//
// Keys are half-milliseconds.  Within a recording block neighbouring samples
// lie a constant step of 1, 2, 4 or 8 apart, so a key is normally found by
// one shift: (key - first key) >> log2(step).  Gaps (samples the stream
// lacks) break that arithmetic; the search then tries from the end of the
// span, and the caller falls back to a linear scan.
//
// Velocities are finite differences over the neighbours of a sample, looked
// up by key.  Only the neighbours the chosen filter reads are looked up, and
// the series live on the stack: handing out a sample allocates nothing.
#include "SampleQueue.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ORBFile.h"

namespace {

constexpr int kShiftBy = 128;        // entries dropped by one shift
constexpr int kLastCentredSlot = 447; // later slots have fewer than 64 successors
constexpr float kCarriedPupilStart = 1000.0f;

constexpr uint16_t kPupilGroup = 0x0100;
constexpr uint16_t kEyeBit[2] = {0x8000, 0x4000};

// Neighbour array of the velocity filters: the sample at kCentre, k steps
// earlier at kCentre - k, k steps later at kCentre + k.
constexpr int kNeighbours = 39;
constexpr int kCentre = kNeighbours / 2;
constexpr int kStandardHalfWidth = 2;

// Resolution of the second position from its offset: the eye at a distance
// of 15000 units, radians to degrees.
constexpr double kDistanceSquared = 225000000.0;
constexpr double kDegreesPerRadian = 57.2958;

inline bool present(float v) { return v != kMissingValue; }

// The step of a span, as the search takes it: the distance of its first two
// keys, or of its last two when the first one is a gap.
inline uint32_t spanStep(unsigned long long k0, unsigned long long k1, unsigned long long kBeforeLast,
                         unsigned long long kLast)
{
    uint32_t d = uint32_t(k1 - k0);
    if (d > 8)
        d = uint32_t(kLast - kBeforeLast);
    return d;
}

// log2 of a step of 1, 2, 4 or 8; -1 for any other step.
inline int stepShift(uint32_t d)
{
    switch (d) {
    case 1: return 0;
    case 2: return 1;
    case 4: return 2;
    case 8: return 3;
    default: return -1;
    }
}

// Half-width of the window that the high-speed filter reads at a rate.
inline int highSpeedHalfWidth(float rate)
{
    if (rate < 500.0f)
        return 2;
    if (rate < 1000.0f)
        return 4;
    if (rate < 2000.0f)
        return 9;
    return 19;
}

inline int filterHalfWidth(bool highSpeed, float rate)
{
    return highSpeed ? highSpeedHalfWidth(rate) : kStandardHalfWidth;
}

// Positions of one eye and kind from neighbours[lo..hi] into x and y; a
// missing neighbour gives the missing value.
void fillSeries(Sample* const* neighbours, int lo, int hi, int eye, int kind, float* x, float* y)
{
    for (int i = lo; i <= hi; ++i) {
        if (neighbours[i])
            neighbours[i]->getSampleData(&x[i], &y[i], eye, kind);
        else
            x[i] = y[i] = kMissingValue;
    }
}

// The three kinds in the order of the series below, and their group bits.
constexpr int kKinds[3] = {kGazePosition, kSecondPosition, kRawPosition};
constexpr uint16_t kKindGroups[3] = {0x0400, 0x0800, 0x1000};

// Series of all three kinds of one eye: [kind][axis][neighbour].
struct EyeSeries {
    float p[3][2][kNeighbours];
};

// What getSampleData gives for each kind, for neighbours[lo..hi], taken
// with one look at each neighbour's flags.  Returns the group bits found in
// any of them: a kind whose bit is missing has no position at all.
uint16_t fillEyeSeries(Sample* const* neighbours, int lo, int hi, int eye, EyeSeries& out)
{
    const uint16_t eyeBit = kEyeBit[eye];
    uint16_t groups = 0;
    for (int i = lo; i <= hi; ++i) {
        const Sample* n = neighbours[i];
        const FSAMPLE* fs = n ? &n->fs : nullptr;
        const bool open = fs && (fs->flags & eyeBit) &&
                          !((fs->flags & kPupilGroup) && fs->pupilSize[eye] <= 15.0f);
        const uint16_t flags = open ? fs->flags : 0;
        groups = uint16_t(groups | flags);
        const bool gaze = flags & 0x0400;
        const bool second = flags & 0x0800;
        const bool raw = flags & 0x1000;
        out.p[0][0][i] = gaze ? fs->gazeX[eye] : kMissingValue;
        out.p[0][1][i] = gaze ? fs->gazeY[eye] : kMissingValue;
        out.p[1][0][i] = second ? fs->secondX[eye] : kMissingValue;
        out.p[1][1][i] = second ? fs->secondY[eye] : kMissingValue;
        out.p[2][0][i] = raw ? fs->rawX[eye] : kMissingValue;
        out.p[2][1][i] = raw ? fs->rawY[eye] : kMissingValue;
    }
    return groups;
}

// The resolution pair for the centre sample, false when it is unusable.
// For the second position it follows from the position (cx, cy) itself.
bool resolutionPair(const Sample& centre, int kind, float cx, float cy, float* rx, float* ry)
{
    if (kind == kSecondPosition && present(cx) && present(cy)) {
        const double h = cx;
        const double v = cy;
        const double s = kDistanceSquared + h * h + v * v;
        *rx = float(s / std::sqrt(kDistanceSquared + v * v) / kDegreesPerRadian);
        *ry = float(s / std::sqrt(kDistanceSquared + h * h) / kDegreesPerRadian);
    } else {
        *rx = centre.fs.resolutionX;
        *ry = centre.fs.resolutionY;
    }
    return *rx > 0.01 && *rx < 10000.0 && *ry > 0.01 && *ry < 10000.0;
}

// ---- the standard filter: m2 m1 p0 p1 p2 are p[c-2] .. p[c+2] -------------

// The two-point rule: central difference, else backward, else forward.
inline double twoPoint(float m1, float p0, float p1, float resolution, float rate)
{
    if (present(m1)) {
        if (present(p1))
            return (p1 - m1) * rate * 0.5 / resolution;
        if (present(p0))
            return (p0 - m1) * rate / resolution;
        return kMissingValue;
    }
    if (present(p0) && present(p1))
        return (p1 - p0) * rate / resolution;
    return kMissingValue;
}

inline bool fivePointUsable(float m2, float m1, float p1, float p2)
{
    return present(m2) && present(m1) && present(p1) && present(p2);
}

inline double fivePoint(float m2, float m1, float p1, float p2, float resolution, float rate)
{
    return (p1 + p2 - m2 - m1) * rate / 6.0 / resolution;
}

// ---- the high-speed filter ------------------------------------------------

// The four supports around p[c] for half-width h; false when a value of
// p[c-h] .. p[c+h] is missing.  The caller has checked that the window
// lies inside the series.
inline bool highSpeedSupports(const float* p, int c, int h, double* l2, double* l1, double* r1,
                              double* r2)
{
    for (int i = c - h; i <= c + h; ++i)
        if (!present(p[i]))
            return false;
    auto mean4 = [&](int from) { return (p[from] + p[from + 1] + p[from + 2] + p[from + 3]) * 0.25; };
    auto mean8 = [&](int from) {
        return ((p[from] + p[from + 1]) * 0.5 + (p[from + 2] + p[from + 3]) * 0.5 +
                (p[from + 4] + p[from + 5]) * 0.5 + (p[from + 6] + p[from + 7]) * 0.5) *
               0.25;
    };
    switch (h) {
    case 2:
        *l2 = p[c - 2];
        *l1 = p[c - 1];
        *r1 = p[c + 1];
        *r2 = p[c + 2];
        break;
    case 4:
        *l2 = (p[c - 4] + p[c - 3]) * 0.5;
        *l1 = (p[c - 2] + p[c - 1]) * 0.5;
        *r1 = (p[c + 1] + p[c + 2]) * 0.5;
        *r2 = (p[c + 3] + p[c + 4]) * 0.5;
        break;
    case 9:
        *l2 = mean4(c - 9);
        *l1 = mean4(c - 5);
        *r1 = mean4(c + 2);
        *r2 = mean4(c + 6);
        break;
    default:
        *l2 = mean8(c - 19);
        *l1 = mean8(c - 11);
        *r1 = mean8(c + 4);
        *r2 = mean8(c + 12);
        break;
    }
    return true;
}

inline double highSpeedSmoothed(double l2, double l1, double r1, double r2, float resolution)
{
    return (250.0 / resolution) * ((r1 + r2 - l2 - l1) * 0.167);
}

inline double highSpeedFast(double l1, double r1, float resolution)
{
    return (250.0 / resolution) * ((r1 - l1) * 0.5);
}

// Both velocities of one series, as the two filters give them for the
// full neighbour array.
inline void velocitiesOf(bool highSpeed, const float* p, float resolution, float rate, float* smoothed,
                  float* fast)
{
    constexpr int c = kCentre;
    if (highSpeed) {
        double l2, l1, r1, r2;
        if (highSpeedSupports(p, c, highSpeedHalfWidth(rate), &l2, &l1, &r1, &r2)) {
            *smoothed = float(highSpeedSmoothed(l2, l1, r1, r2, resolution));
            *fast = float(highSpeedFast(l1, r1, resolution));
        } else {
            *smoothed = *fast = kMissingValue;
        }
        return;
    }
    const float m2 = p[c - 2], m1 = p[c - 1], p0 = p[c], p1 = p[c + 1], p2 = p[c + 2];
    const double two = twoPoint(m1, p0, p1, resolution, rate);
    *fast = float(two);
    *smoothed = fivePointUsable(m2, m1, p1, p2) ? float(fivePoint(m2, m1, p1, p2, resolution, rate))
                                                : float(two);
}

} // namespace

SampleQueue::SampleQueue(ORBFile* file) : file_(file)
{
    clear();
}

void SampleQueue::clear()
{
    count_ = 0;
    head_ = 0;
    std::memset(static_cast<void*>(slots_), 0, sizeof slots_);
    carriedPupil_[0] = carriedPupil_[1] = kCarriedPupilStart;
}

void SampleQueue::shiftQueue()
{
    // The oldest entries leave by moving the ring's start past them; their
    // slots, now the last ones, are emptied as every slot past the entries
    // in use is.
    for (int i = 0; i < std::min(count_, kShiftBy); ++i)
        std::memset(static_cast<void*>(&at(i)), 0, sizeof(Slot));
    head_ = (head_ + kShiftBy) & kSlotMask;
    count_ = std::max(count_ - kShiftBy, 0);
}

int SampleQueue::addSample(Sample* s, unsigned long long key)
{
    if (count_ > 0 && key <= at(count_ - 1).key)
        return 0;
    // A sample without pupil sizes takes the latest ones seen.
    if (s->fs.flags & kPupilGroup) {
        carriedPupil_[0] = s->fs.pupilSize[0];
        carriedPupil_[1] = s->fs.pupilSize[1];
    } else {
        s->fs.pupilSize[0] = carriedPupil_[0];
        s->fs.pupilSize[1] = carriedPupil_[1];
    }
    // The batch reader stops at a full queue; this only keeps a careless
    // caller inside the array.
    if (count_ >= kSlots)
        return 0;
    Slot& slot = at(count_);
    slot.sample = *s;
    slot.key = key;
    ++count_;
    return 0;
}

bool SampleQueue::isOutOfBoundsToAdd(unsigned long long key) const
{
    if (count_ == 0)
        return false;
    const unsigned long long last = at(count_ - 1).key;
    if (key < at(0).key)
        return true;
    if (key <= last)
        return false;
    if (count_ < 3)
        return true;
    uint32_t d = spanStep(at(0).key, at(1).key, at(count_ - 2).key, last);
    return key > last + d;
}

Sample* SampleQueue::getOldSample(unsigned long long key, int* pos)
{
    if (pos)
        *pos = -1;
    if (count_ == 0)
        return nullptr;
    const int lastSlot = count_ - 1;
    const unsigned long long first = at(0).key;
    const unsigned long long last = at(lastSlot).key;
    int found = -1;
    if (key == first) {
        found = 0;
    } else if (key == last) {
        found = lastSlot;
    } else if (key <= first || key >= last || count_ < 3) {
        return nullptr;
    } else {
        const int shift = stepShift(spanStep(first, at(1).key, at(lastSlot - 1).key, last));
        if (shift < 0)
            return nullptr;
        // From the front, as if there were no gap.
        const unsigned long long i = (key - first) >> shift;
        // From the back, as if there were no gap after the key.
        const unsigned long long fromEnd = (last - key) >> shift;
        // From the back by the last step.
        const unsigned long long lastStep = last - at(lastSlot - 1).key;
        if (i < unsigned(kSlots) && at(int(i)).key == key) {
            found = int(i);
        } else if (fromEnd <= unsigned(lastSlot) && at(lastSlot - int(fromEnd)).key == key) {
            found = lastSlot - int(fromEnd);
        } else if (lastStep != 0) {
            const unsigned long long back = (last - key) / lastStep;
            if (back <= unsigned(lastSlot) && at(lastSlot - int(back)).key == key)
                found = lastSlot - int(back);
        }
        if (found < 0)
            return nullptr;
    }
    if (pos)
        *pos = found;
    return &at(found).sample;
}

Sample* SampleQueue::getOldSampleSlow(unsigned long long key, int* pos)
{
    if (pos)
        *pos = -1;
    for (int i = 0; i < count_; ++i) {
        if (at(i).key == key) {
            if (pos)
                *pos = i;
            return &at(i).sample;
        }
    }
    return nullptr;
}

Sample* SampleQueue::getSample(int itemIndex)
{
    if (!file_ || itemIndex < 0 || size_t(itemIndex) >= file_->items.size())
        return nullptr;
    const unsigned long long key = file_->items[size_t(itemIndex)].key();

    int pos = -1;
    Sample* p = getOldSample(key, &pos);
    if (p && pos > kLastCentredSlot) {
        // Too close to the end for the look-ahead: shift and read on.  The
        // sample is then found 128 slots lower.
        file_->batchReadSample(itemIndex);
        p = getOldSample(key, &pos);
    }
    if (p)
        return p;
    if (count_ > 0 && at(0).key <= key && key <= at(count_ - 1).key)
        return getOldSampleSlow(key);

    file_->batchReadSample(itemIndex);
    p = getOldSample(key);
    if (!p)
        p = getOldSampleSlow(key);
    if (!p) {
        clear();
        file_->batchReadSample(itemIndex);
        p = getOldSample(key);
    }
    return p;
}

int SampleQueue::slotOf(const Sample* s) const
{
    const auto base = reinterpret_cast<uintptr_t>(&slots_[0].sample);
    const auto at = reinterpret_cast<uintptr_t>(s);
    if (!s || at < base)
        return -1;
    const uintptr_t offset = at - base;
    if (offset % sizeof(Slot) != 0 || offset / sizeof(Slot) >= uintptr_t(kSlots))
        return -1;
    const int slot = (int(offset / sizeof(Slot)) - head_) & kSlotMask;
    return slot < count_ ? slot : -1;
}

// ---------------------------------------------------------------------------
// Velocities

int SampleQueue::setVelocity(Sample* s, int rate)
{
    const int slot = slotOf(s);
    if (slot < 0)
        return 0;
    const unsigned long long key = at(slot).key;
    const bool highSpeed = file_ && file_->trackerModel >= 3;
    const int h = filterHalfWidth(highSpeed, float(rate));

    // Neighbours k intervals away, k = 1..h: the filters read no others,
    // and the entries beyond them are left unset.
    Sample* neighbours[kNeighbours];
    neighbours[kCentre] = s;
    // A rate of 0 (or below) has no sample interval: no neighbours then.
    const float interval = rate > 0 ? float(1000.0 / rate) : 0.0f;
    for (int k = 1; k <= h; ++k) {
        const float distance = float(k) * interval * 2.0f;
        Sample* before = nullptr;
        Sample* after = nullptr;
        if (rate > 0 && distance < 18446744073709551616.0f) {
            const auto d = static_cast<unsigned long long>(distance);
            before = getOldSample(key - d);
            after = getOldSample(key + d);
        }
        neighbours[kCentre - k] = before;
        neighbours[kCentre + k] = after;
    }

    const int lo = kCentre - h;
    const int hi = kCentre + h;
    FSAMPLE& fs = s->fs;
    float* const outputs[3][4] = {
        {fs.gazeVelX, fs.gazeVelY, fs.fastGazeVelX, fs.fastGazeVelY},
        {fs.secondVelX, fs.secondVelY, fs.fastSecondVelX, fs.fastSecondVelY},
        {fs.rawVelX, fs.rawVelY, fs.fastRawVelX, fs.fastRawVelY},
    };
    EyeSeries series;
    for (int eye = 0; eye < 2; ++eye) {
        if (!(fs.flags & kEyeBit[eye]))
            continue; // an absent eye keeps what it has
        // One series per kind and axis serves the smoothed and the fast
        // velocity alike.
        const uint16_t groups = fillEyeSeries(neighbours, lo, hi, eye, series);
        for (int k = 0; k < 3; ++k) {
            float* const* out = outputs[k];
            float rx = 0.0f;
            float ry = 0.0f;
            // A series with no position gives no velocity, whatever the
            // resolution.
            const float* x = series.p[k][0];
            const float* y = series.p[k][1];
            if (!(groups & kKindGroups[k]) ||
                !resolutionPair(*s, kKinds[k], x[kCentre], y[kCentre], &rx, &ry)) {
                out[0][eye] = out[1][eye] = out[2][eye] = out[3][eye] = kMissingValue;
                continue;
            }
            velocitiesOf(highSpeed, x, rx, float(rate), &out[0][eye], &out[2][eye]);
            velocitiesOf(highSpeed, y, ry, float(rate), &out[1][eye], &out[3][eye]);
        }
    }
    return 0;
}

void SampleQueue::getVelocity(bool fast, int kind, int rate, Sample* const* neighbours, int count,
                              int eye, float* vx, float* vy) const
{
    if (eye != 0 && eye != 1)
        return;
    vx[eye] = vy[eye] = kMissingValue;
    // The series are fixed arrays of the neighbour array's size.
    if (!neighbours || count <= 0 || count > kNeighbours)
        return;
    const int c = count / 2;
    const Sample* centre = neighbours[c];
    if (!centre)
        return;
    const bool highSpeed = file_ && file_->trackerModel >= 3;
    const int h = filterHalfWidth(highSpeed, float(rate));
    float x[kNeighbours];
    float y[kNeighbours];
    fillSeries(neighbours, std::max(c - h, 0), std::min(c + h, count - 1), eye, kind, x, y);
    float rx = 0.0f;
    float ry = 0.0f;
    if (!resolutionPair(*centre, kind, x[c], y[c], &rx, &ry))
        return;
    if (highSpeed) {
        vx[eye] = float(calcVelocity_hspd(fast, x, count, rx, float(rate)));
        vy[eye] = float(calcVelocity_hspd(fast, y, count, ry, float(rate)));
    } else {
        vx[eye] = float(calcVelocity_non_hspd(fast, x, count, rx, float(rate)));
        vy[eye] = float(calcVelocity_non_hspd(fast, y, count, ry, float(rate)));
    }
}

double SampleQueue::calcVelocity_non_hspd(bool fast, const float* p, int n, float resolution,
                                          float rate) const
{
    if (!p || n <= 0)
        return kMissingValue;
    const int c = n / 2;
    // Positions outside the series count as missing.
    auto at = [&](int i) { return i >= 0 && i < n ? p[i] : kMissingValue; };
    const float m2 = at(c - 2), m1 = at(c - 1), p0 = p[c], p1 = at(c + 1), p2 = at(c + 2);
    if (!fast && n >= 6 && fivePointUsable(m2, m1, p1, p2))
        return fivePoint(m2, m1, p1, p2, resolution, rate);
    return twoPoint(m1, p0, p1, resolution, rate);
}

double SampleQueue::calcVelocity_hspd(bool fast, const float* p, int n, float resolution,
                                      float rate) const
{
    if (!p)
        return kMissingValue;
    // The supports are spaced as for 250 samples per second whatever the
    // rate: wider windows at higher rates, averaged, with the centre samples
    // skipped.  The scale is therefore a fixed 250.
    const int h = highSpeedHalfWidth(rate);
    const int c = n / 2;
    if (n <= 2 * h || c - h < 0 || c + h > n)
        return kMissingValue;
    double l2, l1, r1, r2;
    if (!highSpeedSupports(p, c, h, &l2, &l1, &r1, &r2))
        return kMissingValue;
    return fast ? highSpeedFast(l1, r1, resolution) : highSpeedSmoothed(l2, l1, r1, r2, resolution);
}
