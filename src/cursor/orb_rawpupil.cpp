// Camera-level pupil and corneal-reflection (CR) values of a sample, and the
// correction that removes the CR's overlap from the pupil centre.
//
// Two encodings exist, told apart by the eye's pupil size p: with p >= 0 the
// extra-data words carry the measurements (w0, w1 pupil centre and w2, w3
// CR centre in 1/250 units relative to the camera window, w4 and w5 the
// areas, w6 and w7 the dimensions); with p < 0 the pupil area is p + 32700
// and the centres travel in the raw and second positions, with four more
// fractional bits packed into the gaze values.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "ORBFile.h"
#include "orbapi.h"

namespace {

constexpr double kPi = 3.14159;
constexpr float kFraction = 0.00390625f; // 1/256

ORBFile* file(_ORBFILE* ef) { return reinterpret_cast<ORBFile*>(ef); }

int16_t word(const FSAMPLE* s, int i) { return int16_t(s->extraData[i]); }

bool present(float v) { return v != kMissingPosition && v != kMissingValue; }

// Conversion to int truncating toward zero; values an int cannot hold give
// the processor's "integer indefinite" INT_MIN, as the conversion
// instruction does, instead of undefined behaviour.
int toInt(double v)
{
    if (!(v > -2147483649.0 && v < 2147483648.0))
        return INT32_MIN;
    return int(v);
}

float gazeScale(_ORBFILE* ef, const FSAMPLE* s) { return file(ef)->getGazePrescaler(s->time); }

int windowX(const FSAMPLE* s) { return (s->input & 0x1FF) * 4 + 88; }
int windowY(const FSAMPLE* s) { return (s->input >> 9) * 8 + 95; }

// Pupil (fromCr false) or CR (fromCr true) centre of the packed encoding.
void packedCentre(_ORBFILE* ef, const FSAMPLE* s, int eye, bool fromCr, float* xy)
{
    float x = fromCr ? s->secondX[eye] : s->rawX[eye];
    float y = fromCr ? s->secondY[eye] : s->rawY[eye];
    float gaze = fromCr ? s->gazeY[eye] : s->gazeX[eye];
    if (!present(x) || !present(y) || !present(gaze)) {
        xy[0] = xy[1] = kMissingValue;
        return;
    }
    int g = toInt(double(gazeScale(ef, s) * gaze + 32700.0f));
    xy[0] = ((x + 32700.0f) * 16.0f + float((g >> 4) & 15)) * kFraction;
    xy[1] = ((y + 32700.0f) * 16.0f + float(g & 15)) * kFraction;
}

// Pupil (fromCr false) or CR (fromCr true) centre in camera coordinates,
// missing when the area is 0.
void centre(_ORBFILE* ef, const FSAMPLE* s, int eye, bool fromCr, int area, float* xy)
{
    if (area == 0) {
        xy[0] = xy[1] = kMissingValue;
    } else if (s->pupilSize[eye] >= 0.0f) {
        const int first = fromCr ? 2 : 0;
        xy[0] = float(word(s, first)) / 250.0f + float(windowX(s));
        xy[1] = float(word(s, first + 1)) / 250.0f + float(windowY(s));
    } else {
        packedCentre(ef, s, eye, fromCr, xy);
    }
}

// Removes the overlap of the CR disc (with margin) from the pupil: the pupil
// centre and area are blended toward the centre and area of pupil and disc
// together, in proportion to how far the disc reaches into the pupil.
void removeCrOverlap(float* px, float* py, unsigned int* parea, float crx, float cry,
                     float crarea, float margin, int iterations)
{
    if (*parea < 1 || crarea < 1.0f || *px == kMissingValue || *py == kMissingValue ||
        crx == kMissingValue || cry == kMissingValue)
        return;

    const double area = double(*parea);
    const double R = std::sqrt(double(crarea) / kPi) + double(margin);
    auto overlap = [&](double a, double x, double y) {
        double rp = std::sqrt(a / kPi);
        double d = std::hypot(x - double(crx), y - double(cry));
        return (rp - (d - R)) * 0.5 / R;
    };

    double f = overlap(area, double(*px), double(*py));
    if (f < 0.0)
        return;

    double w = std::min(f, 1.0);
    double u = 1.0 - w;
    const double ac = kPi * R * R;
    const double at = area + ac;
    const double mx = (double(crx) * ac + double(*px) * area) / at;
    const double my = (double(cry) * ac + double(*py) * area) / at;
    auto estimate = [&](double& x, double& y, double& a) {
        x = mx * w + double(*px) * u;
        y = my * w + double(*py) * u;
        a = w * at + u * area;
    };
    double x, y, a;
    estimate(x, y, a);

    while (f > 0.0 && iterations >= 2) {
        f = overlap(a, x, y);
        bool last = false;
        if (f < 0.0) {
            w = 0.0;
            u = 1.0;
            last = true;
        } else if (f <= 1.0) {
            w = f;
            u = 1.0 - f;
        } else {
            w = 1.0;
            u = 0.0;
        }
        --iterations;
        estimate(x, y, a);
        if (last)
            break;
    }

    *px = float(x);
    *py = float(y);
    *parea = unsigned(std::lround(a));
}

} // namespace

extern "C" {

int orb_get_uncorrected_pupil_area(_ORBFILE*, FSAMPLE* s, int eye)
{
    float p = s->pupilSize[eye];
    if (p <= -32700.0f)
        return 0;
    if (p < 0.0f)
        return toInt(double(p + 32700.0f));
    return word(s, 4);
}

int orb_get_uncorrected_cr_area(_ORBFILE* ef, FSAMPLE* s, int eye)
{
    if (s->pupilSize[eye] >= 0.0f)
        return word(s, 5);
    float r = eye == 1 ? s->resolutionY : s->resolutionX;
    return toInt(std::floor(double(gazeScale(ef, s) * r) + 0.5));
}

int orb_get_uncorrected_cr2_area(_ORBFILE*, FSAMPLE* s, int eye)
{
    if (s->pupilSize[eye] >= 0.0f)
        return 0;
    switch (s->extraType) {
    case 196:
        return word(s, 3);
    case 200:
        return eye == 1 ? word(s, 7) : word(s, 3);
    default:
        return 0;
    }
}

void orb_get_pupil_dimension(_ORBFILE* ef, FSAMPLE* s, int eye, int* dim)
{
    if (orb_get_uncorrected_pupil_area(ef, s, eye) == 0) {
        dim[0] = dim[1] = 0;
        return;
    }
    if (s->pupilSize[eye] >= 0.0f) {
        unsigned w = s->extraData[6];
        dim[0] = int(w & 255);
        dim[1] = int(w >> 8);
        return;
    }
    if (!present(s->gazeX[eye]) || !present(s->gazeY[eye])) {
        dim[0] = dim[1] = 100000000;
        return;
    }
    float g = gazeScale(ef, s);
    dim[0] = (toInt(double(g * s->gazeY[eye] + 32700.0f)) >> 8) & 255;
    dim[1] = (toInt(double(g * s->gazeX[eye] + 32700.0f)) >> 8) & 255;
}

void orb_get_cr_dimension(_ORBFILE*, FSAMPLE* s, int* dim)
{
    int w = word(s, 7);
    dim[0] = w & 255;
    dim[1] = w >> 8;
}

void orb_get_window_position(_ORBFILE*, FSAMPLE* s, int* pos)
{
    pos[0] = windowX(s);
    pos[1] = windowY(s);
}

void orb_get_uncorrected_raw_pupil(_ORBFILE* ef, FSAMPLE* s, int eye, float* xy)
{
    centre(ef, s, eye, false, orb_get_uncorrected_pupil_area(ef, s, eye), xy);
}

void orb_get_uncorrected_raw_cr(_ORBFILE* ef, FSAMPLE* s, int eye, float* xy)
{
    centre(ef, s, eye, true, orb_get_uncorrected_cr_area(ef, s, eye), xy);
}

void orb_get_uncorrected_raw_cr2(_ORBFILE* ef, FSAMPLE* s, int eye, float* xy)
{
    if (orb_get_uncorrected_cr2_area(ef, s, eye) == 0) {
        xy[0] = xy[1] = kMissingValue;
        return;
    }
    bool second = s->extraType == 200 && eye == 1;
    int a = second ? 4 : 0, b = second ? 6 : 2, c = second ? 5 : 1;
    uint16_t wb = s->extraData[b];
    xy[0] = float(word(s, a)) + float(int8_t(wb >> 8)) * kFraction;
    xy[1] = float(word(s, c)) + float(wb & 0xFF) * kFraction;
}

float* orb_get_pupil_cr(_ORBFILE* ef, FSAMPLE* s, int eye, float* xy)
{
    float pupil[2], cr[2];
    orb_get_uncorrected_raw_pupil(ef, s, eye, pupil);
    orb_get_uncorrected_raw_cr(ef, s, eye, cr);
    unsigned area = unsigned(orb_get_uncorrected_pupil_area(ef, s, eye));
    int crArea = orb_get_uncorrected_cr_area(ef, s, eye);
    removeCrOverlap(&pupil[0], &pupil[1], &area, cr[0], cr[1], float(crArea), 3.0f, 5);
    xy[0] = pupil[0] - cr[0] * 1.02f;
    xy[1] = pupil[1] - cr[1] * 1.02f;
    return xy;
}

} // extern "C"
