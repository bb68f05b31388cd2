// The cursor stage as the later stages see it.
// The cursor: the open recording, with its trials, bookmarks and camera
// values.
#ifndef ORBAPI_DOOR_CURSOR_H
#define ORBAPI_DOOR_CURSOR_H

#include "../ORBFile.h"

#endif
