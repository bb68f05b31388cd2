// The operations on one decoded sample.
#include "Sample.h"
#include "ItemFormat.h"

bool Sample::getSampleData(float* x, float* y, int eye, int kind) const
{
    if ((eye != 0 && eye != 1) || !(fs.flags & sampleEyeBit(eye))) {
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
