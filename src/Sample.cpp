// The operations on one decoded sample.
#include "Sample.h"

namespace {

constexpr uint16_t kEyeBit[2] = {0x8000, 0x4000};
constexpr uint16_t kPupilGroup = 0x0100;
constexpr uint16_t kGazeGroup = 0x0400;
constexpr uint16_t kSecondGroup = 0x0800;
constexpr uint16_t kRawGroup = 0x1000;
// A pupil this small (or smaller) means the eye was closed.
constexpr float kClosedPupil = 15.0f;

} // namespace

bool Sample::getSampleData(float* x, float* y, int eye, int kind) const
{
    if ((eye != 0 && eye != 1) || !(fs.flags & kEyeBit[eye])) {
        *x = *y = kMissingValue;
        return false;
    }
    if ((fs.flags & kPupilGroup) && fs.pupilSize[eye] <= kClosedPupil) {
        *x = *y = kMissingValue;
        return true;
    }
    switch (kind) {
    case kGazePosition:
        if (fs.flags & kGazeGroup) {
            *x = fs.gazeX[eye];
            *y = fs.gazeY[eye];
            return true;
        }
        break;
    case kSecondPosition:
        if (fs.flags & kSecondGroup) {
            *x = fs.secondX[eye];
            *y = fs.secondY[eye];
            return true;
        }
        break;
    case kRawPosition:
        if (fs.flags & kRawGroup) {
            *x = fs.rawX[eye];
            *y = fs.rawY[eye];
            return true;
        }
        break;
    default:
        break;
    }
    *x = *y = kMissingValue;
    return true;
}
