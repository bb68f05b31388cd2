// Consistency repair of the item index and time adjustment of records.
#include "ORBFile.h"

int ORBFile::checkConsistency() { return 0; }
