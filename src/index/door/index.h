// The index stage as the later stages see it.
// The index: one time-ordered entry per item, the pre-scan that builds it,
// its sorting and its consistency repairs.
#ifndef ORBAPI_DOOR_INDEX_H
#define ORBAPI_DOOR_INDEX_H

#include "../ItemIndex.h"
#include "../PreScan.h"

#endif
