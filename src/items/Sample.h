// One decoded sample together with the operations on it.
#ifndef ORBAPI_SAMPLE_H
#define ORBAPI_SAMPLE_H

#include "orbapi.h"

// Missing-value markers of the records.
constexpr float kMissingPosition = ORB_MISSING_POSITION; // absent position, pupil, gaze
constexpr float kMissingValue = ORB_MISSING_VALUE; // absent scaled value, velocity
// A pupil this small (or smaller) means the eye was closed.
constexpr float kClosedPupil = 15.0f;

// Position kinds of getSampleData.
enum PositionKind { kGazePosition = 192, kSecondPosition = 128, kRawPosition = 64 };

class Sample {
public:
    FSAMPLE fs{};

    // One position pair of one eye: false (and both missing) when the eye
    // was not recorded; true otherwise, with both missing when the eye was
    // closed (pupil at most 15.0) or the group is absent.
    bool getSampleData(float* x, float* y, int eye, int kind) const;
};

#endif
