// The velocity filters: finite differences over the positions of a
// sample's neighbours, the standard filter (two- and five-point rules) and
// the high-speed filter of the HQ tracker (averaged supports spaced as at
// 250 samples per second).
#include "VelocityFilter.h"
#include "items.h"

#include <algorithm>
#include <cmath>

namespace velocity {

namespace {

constexpr int kStandardHalfWidth = 2;

// Resolution of the second position from its offset: the eye at a distance
// of 15000 units, radians to degrees.
constexpr double kDistanceSquared = 225000000.0;
constexpr double kDegreesPerRadian = 57.2958;

inline bool present(float v) { return v != kMissingValue; }

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
constexpr uint16_t kKindGroups[3] = {kGazeGroup, kSecondGroup, kRawGroup};

// Series of all three kinds of one eye: [kind][axis][neighbour].
struct EyeSeries {
    float p[3][2][kNeighbours];
};

// What getSampleData gives for each kind, for neighbours[lo..hi], taken
// with one look at each neighbour's flags.  Returns the group bits found in
// any of them: a kind whose bit is missing has no position at all.
uint16_t fillEyeSeries(Sample* const* neighbours, int lo, int hi, int eye, EyeSeries& out)
{
    const uint16_t eyeBit = sampleEyeBit(eye);
    uint16_t groups = 0;
    for (int i = lo; i <= hi; ++i) {
        const Sample* n = neighbours[i];
        const FSAMPLE* fs = n ? &n->fs : nullptr;
        const bool open = fs && (fs->flags & eyeBit) &&
                          !((fs->flags & kPupilGroup) && fs->pupilSize[eye] <= kClosedPupil);
        const uint16_t flags = open ? fs->flags : 0;
        groups = uint16_t(groups | flags);
        const bool gaze = flags & kGazeGroup;
        const bool second = flags & kSecondGroup;
        const bool raw = flags & kRawGroup;
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

// The standard filter's smoothed and fast velocity from the five positions
// m2 m1 p0 p1 p2.
inline void standardVelocities(float m2, float m1, float p0, float p1, float p2, float resolution, float rate,
                               float* smoothed, float* fast)
{
    const double two = twoPoint(m1, p0, p1, resolution, rate);
    *fast = float(two);
    *smoothed = fivePointUsable(m2, m1, p1, p2) ? float(fivePoint(m2, m1, p1, p2, resolution, rate))
                                                : float(two);
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
    standardVelocities(p[c - 2], p[c - 1], p[c], p[c + 1], p[c + 2], resolution, rate, smoothed, fast);
}

// The gaze velocities of one eye when the standard filter's five samples
// are all there with that eye open and none has a second or raw position:
// the general path then reads nothing else, and this gives what it gives
// without building the series.  False (nothing written) otherwise.
bool gazeOnly(const Sample& centre, Sample* const* neighbours, int eye, float rate, float* const (&out)[3][4])
{
    const uint16_t eyeBit = sampleEyeBit(eye);
    float x[5], y[5];
    uint16_t groups = 0;
    for (int i = 0; i < 5; ++i) {
        const Sample* n = neighbours[kCentre - kStandardHalfWidth + i];
        if (!n)
            return false;
        const FSAMPLE& fs = n->fs;
        const bool open = (fs.flags & eyeBit) && !((fs.flags & kPupilGroup) && fs.pupilSize[eye] <= kClosedPupil);
        if (!open || (fs.flags & (kSecondGroup | kRawGroup)))
            return false;
        groups = uint16_t(groups | fs.flags);
        const bool gaze = fs.flags & kGazeGroup;
        x[i] = gaze ? fs.gazeX[eye] : kMissingValue;
        y[i] = gaze ? fs.gazeY[eye] : kMissingValue;
    }
    for (int k = 1; k < 3; ++k)
        out[k][0][eye] = out[k][1][eye] = out[k][2][eye] = out[k][3][eye] = kMissingValue;
    float rx = 0.0f;
    float ry = 0.0f;
    if (!(groups & kGazeGroup) || !resolutionPair(centre, kGazePosition, x[2], y[2], &rx, &ry)) {
        out[0][0][eye] = out[0][1][eye] = out[0][2][eye] = out[0][3][eye] = kMissingValue;
        return true;
    }
    standardVelocities(x[0], x[1], x[2], x[3], x[4], rx, rate, &out[0][0][eye], &out[0][2][eye]);
    standardVelocities(y[0], y[1], y[2], y[3], y[4], ry, rate, &out[0][1][eye], &out[0][3][eye]);
    return true;
}

} // namespace

int halfWidth(bool highSpeed, float rate) { return filterHalfWidth(highSpeed, rate); }

void fill(Sample& centre, Sample* const* neighbours, bool highSpeed, int rate)
{
    Sample* const s = &centre;
    const int h = halfWidth(highSpeed, float(rate));
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
        if (!(fs.flags & sampleEyeBit(eye)))
            continue; // an absent eye keeps what it has
        if (!highSpeed && gazeOnly(*s, neighbours, eye, float(rate), outputs))
            continue;
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
}

void one(bool fast, int kind, int rate, bool highSpeed, Sample* const* neighbours, int count, int eye,
         float* vx, float* vy)
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
    const int h = filterHalfWidth(highSpeed, float(rate));
    float x[kNeighbours];
    float y[kNeighbours];
    fillSeries(neighbours, std::max(c - h, 0), std::min(c + h, count - 1), eye, kind, x, y);
    float rx = 0.0f;
    float ry = 0.0f;
    if (!resolutionPair(*centre, kind, x[c], y[c], &rx, &ry))
        return;
    if (highSpeed) {
        vx[eye] = float(velocity::highSpeed(fast, x, count, rx, float(rate)));
        vy[eye] = float(velocity::highSpeed(fast, y, count, ry, float(rate)));
    } else {
        vx[eye] = float(standard(fast, x, count, rx, float(rate)));
        vy[eye] = float(standard(fast, y, count, ry, float(rate)));
    }
}

double standard(bool fast, const float* p, int n, float resolution, float rate)
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

double highSpeed(bool fast, const float* p, int n, float resolution, float rate)
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

} // namespace velocity
