// The sample queue: lookup by key, the pupil carry, and velocities.
#include "SampleQueue.h"

#include <cstring>

#include "ORBFile.h"

SampleQueue::SampleQueue(ORBFile* file) : file_(file)
{
    clear();
}

void SampleQueue::clear()
{
    count_ = 0;
    std::memset(static_cast<void*>(slots_), 0, sizeof slots_);
    carriedPupil_[0] = carriedPupil_[1] = 1000.0f;
}
