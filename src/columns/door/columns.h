// The columns stage as the later stages see it.
// Columns: a recording read into the columns of tables.
#ifndef ORBAPI_DOOR_COLUMNS_H
#define ORBAPI_DOOR_COLUMNS_H

#include "../Columns.h"

#endif
