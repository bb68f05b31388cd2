// The bytes stage as the later stages see it.
// Bytes: the input streams over a file or memory, and inflating the body
// of a compressed container.
#ifndef ORBAPI_DOOR_BYTES_H
#define ORBAPI_DOOR_BYTES_H

#include "../NVIO.h"
#include "../InflatingStream.h"

#endif
