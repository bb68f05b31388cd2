// The pre-scan that builds the item index.
#include "ORBFile.h"

void ORBFile::preScan(int /*tolerant*/) {}
