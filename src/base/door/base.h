// The base stage as the later stages see it.
// What every stage shares: the log, the exception the readers throw, and
// making pages of memory present.
#ifndef ORBAPI_DOOR_BASE_H
#define ORBAPI_DOOR_BASE_H

#include "../log.h"
#include "../ORBException.h"
#include "../Pages.h"

#endif
