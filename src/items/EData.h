// One decoded event together with the file it came from.
#ifndef ORBAPI_EDATA_H
#define ORBAPI_EDATA_H

#include "orbapi.h"

class ORBFile;

class EData {
public:
    EData() = default;
    EData(ORBFile* file, const FEVENT* source);

    // Logs ">>>>> FILE STRUCTURE ERROR: UNKNOWN EVENT (%d)\n" for a type the
    // library does not know; does nothing else.
    void process_event(ORBFile* file);

    FEVENT fe{};
    ORBFile* file = nullptr;
};

#endif
