// One decoded event.
#ifndef ORBAPI_EDATA_H
#define ORBAPI_EDATA_H

#include "orbapi.h"

class EData {
public:
    EData() = default;
    // A copy of `source` (an empty record when null).
    explicit EData(const FEVENT* source);

    // Logs ">>>>> FILE STRUCTURE ERROR: UNKNOWN EVENT (%d)\n" for a type the
    // library does not know; does nothing else.
    void process_event();

    FEVENT fe{};
};

#endif
