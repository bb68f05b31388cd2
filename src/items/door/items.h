// The items stage as the later stages see it.
// Items: the item format, the records an item decodes into, and the decoder
// of the item stream.
#ifndef ORBAPI_DOOR_ITEMS_H
#define ORBAPI_DOOR_ITEMS_H

#include "../ItemFormat.h"
#include "../ORBItem.h"
#include "../Sample.h"
#include "../EData.h"
#include "../ItemDecoder.h"

#endif
