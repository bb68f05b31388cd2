// The decoded-event wrapper.
#include "EData.h"

#include "ORBItem.h"
#include "base.h"

EData::EData(const FEVENT* source)
{
    // The message pointer is copied, not the text: it keeps pointing into
    // the file's message buffer.
    if (source)
        fe = *source;
}

void EData::process_event()
{
    if (!isEventCode(fe.type))
        orb_log(">>>>> FILE STRUCTURE ERROR: UNKNOWN EVENT (%d)\n", int(fe.type));
}
