// Positions in the index through the function interface: moving to one,
// what lies there, and the positions the current trial spans.
#include "cursor.h"
#include "orbapi.h"

namespace {

ORBFile* file(_ORBFILE* ef) { return reinterpret_cast<ORBFile*>(ef); }

} // namespace

extern "C" {

int orb_goto_index(_ORBFILE* ef, int index)
{
    ORBFile* f = file(ef);
    if (index < 0 || size_t(index) >= f->index.items.size())
        return -1;
    f->gotoIndex(index);
    return 0;
}

int orb_get_element_code(_ORBFILE* ef, int index, uint64_t* key)
{
    ORBFile* f = file(ef);
    if (index < 0 || size_t(index) >= f->index.items.size())
        return -1;
    const ORBItem& item = f->index.items[size_t(index)];
    if (key)
        *key = item.key();
    return int(item.code());
}

int orb_get_trial_span(_ORBFILE* ef, uint32_t* start_index, uint32_t* end_index)
{
    if (!start_index || !end_index)
        return -1;
    const ORBTrial* t = file(ef)->getTrialHeaders();
    if (!t)
        return -1;
    *start_index = t->startIndex;
    *end_index = t->endIndex;
    return 0;
}

} // extern "C"
