// The index stage as the later stages see it.
// The index: one time-ordered entry per item, and its sorting.
#ifndef ORBAPI_DOOR_INDEX_H
#define ORBAPI_DOOR_INDEX_H

#include "../ItemIndex.h"

#endif
