// The samples stage as the later stages see it.
// Samples: the queue of decoded samples around the cursor and their
// velocities.
#ifndef ORBAPI_DOOR_SAMPLES_H
#define ORBAPI_DOOR_SAMPLES_H

#include "../SampleQueue.h"
#include "../SampleReader.h"

#endif
