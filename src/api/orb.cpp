// The function interface: thin exported functions over the file object.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <new>

#include "base.h"
#include "cursor.h"
#include "orbapi.h"

namespace {

ORBFile* file(_ORBFILE* ef) { return reinterpret_cast<ORBFile*>(ef); }

// The item the cursor stepped onto last, or null before the first step and
// past the end.
const ORBItem* currentItem(ORBFile* f)
{
    if (f->current <= 0 || size_t(f->current - 1) >= f->index.items.size())
        return nullptr;
    return &f->index.items[size_t(f->current - 1)];
}

ALLF_DATA* adjusted(ORBFile* f, ALLF_DATA* data)
{
    if (data)
        f->adjustTimes(data);
    return data;
}

// Runs make() (which news an ORBFile) as an open of the function interface:
// failures are logged, counted in *errval and kept as the thread's last
// error.
template <class Make>
_ORBFILE* opened(int* errval, Make make)
{
    LastErrorScope scope;
    *errval = 0;
    try {
        _ORBFILE* handle = reinterpret_cast<_ORBFILE*>(make());
        scope.succeeded();
        return handle;
    } catch (const ORBException& e) {
        orb_log("%s\n", e.what());
    } catch (const std::bad_alloc&) {
        orb_log("%s\n", "Out of memory");
    } catch (...) {
        orb_log("%s\n", "Unexpected error while opening");
    }
    *errval = -1;
    return nullptr;
}

float currentRate(ORBFile* f)
{
    return f->currentRecording ? f->currentRecording->sampleRate : 0.0f;
}

} // namespace

extern "C" {

_ORBFILE* orb_open_file(const char* fname, int consistency, int loadevents, int loadsamples,
                        int* errval)
{
    return opened(errval, [&] {
        return new ORBFile(fname, consistency, loadevents != 0, loadsamples != 0);
    });
}

_ORBFILE* orb_open_memory(const void* data, size_t size, int consistency, int loadevents,
                          int loadsamples, int* errval)
{
    return opened(errval, [&] {
        return new ORBFile(data, size, consistency, loadevents != 0, loadsamples != 0);
    });
}

int orb_close_file(_ORBFILE* ef)
{
    delete file(ef);
    return 0;
}

int orb_get_next_data(_ORBFILE* ef) { return file(ef)->stepNext(); }

ALLF_DATA* orb_get_float_data(_ORBFILE* ef)
{
    ORBFile* f = file(ef);
    return adjusted(f, f->getFloatData());
}

ALLF_DATA* orb_get_sample_data(_ORBFILE* ef)
{
    const ORBItem* item = currentItem(file(ef));
    return item && item->code() == SAMPLE ? orb_get_float_data(ef) : nullptr;
}

ALLF_DATA* orb_get_event_data(_ORBFILE* ef)
{
    const ORBItem* item = currentItem(file(ef));
    return item && isEventCode(item->code()) ? orb_get_float_data(ef) : nullptr;
}

ALLF_DATA* orb_get_recording_data(_ORBFILE* ef)
{
    const ORBItem* item = currentItem(file(ef));
    return item && item->code() == RECORDING ? orb_get_float_data(ef) : nullptr;
}

ALLF_DATA* orb_get_sample_close_to_time(_ORBFILE* ef, unsigned int time)
{
    ORBFile* f = file(ef);
    return adjusted(f, f->getSampleCloseToTime(time * 2u));
}

int orb_get_element_count(_ORBFILE* ef) { return int(file(ef)->index.items.size()); }

// The record casts look at the 16-bit word at byte offset 4 (FEVENT.type).
static uint16_t typeWord(const ALLF_DATA* d)
{
    uint16_t w;
    std::memcpy(&w, reinterpret_cast<const unsigned char*>(d) + 4, sizeof w);
    return w;
}

FSAMPLE* orb_get_sample(ALLF_DATA* d) { return typeWord(d) == SAMPLE ? &d->fs : nullptr; }

FEVENT* orb_get_event(ALLF_DATA* d)
{
    uint16_t w = typeWord(d);
    return w == SAMPLE || w == RECORDING ? nullptr : &d->fe;
}

Recording* orb_get_recording(ALLF_DATA* d) { return typeWord(d) == RECORDING ? &d->rec : nullptr; }

int orb_get_trial_count(_ORBFILE* ef)
{
    ORBFile* f = file(ef);
    if (!f->trialsCollected)
        f->collectTrials();
    return int(f->trials.size());
}

int orb_jump_to_trial(_ORBFILE* ef, int trial) { return file(ef)->jumpToTrial(trial); }
int orb_get_trial_header(_ORBFILE* ef, TRIAL* trial) { return file(ef)->getTrialHeaders(trial); }
int orb_goto_previous_trial(_ORBFILE* ef) { return file(ef)->gotoPreviousTrial(); }
int orb_goto_next_trial(_ORBFILE* ef) { return file(ef)->gotoNextTrial(); }

int orb_goto_trial_with_start_time(_ORBFILE* ef, unsigned int time)
{
    return file(ef)->gotoTrialWithStartTime(time);
}

int orb_goto_trial_with_end_time(_ORBFILE* ef, unsigned int time)
{
    return file(ef)->gotoTrialWithEndTime(time);
}

int orb_set_trial_identifier(_ORBFILE* ef, char* start_marker, char* end_marker)
{
    ORBFile* f = file(ef);
    f->trialStartId = start_marker;
    f->trialEndId = end_marker;
    f->collectTrials();
    return 0;
}

char* orb_get_start_trial_identifier(_ORBFILE* ef) { return const_cast<char*>(file(ef)->trialStartId); }
char* orb_get_end_trial_identifier(_ORBFILE* ef) { return const_cast<char*>(file(ef)->trialEndId); }

int orb_set_bookmark(_ORBFILE* ef, BOOKMARK* bm) { return file(ef)->setBookMark(bm); }
int orb_free_bookmark(_ORBFILE* ef, BOOKMARK* bm) { return file(ef)->removeBookMark(bm); }
int orb_goto_bookmark(_ORBFILE* ef, BOOKMARK* bm) { return file(ef)->gotoBookMark(bm); }
int orb_goto_next_bookmark(_ORBFILE* ef) { return file(ef)->gotoNextBookMark(); }
int orb_goto_previous_bookmark(_ORBFILE* ef) { return file(ef)->gotoPreviousBookMark(); }

int orb_get_preamble_text_length(_ORBFILE* ef)
{
    ORBFile* f = file(ef);
    return f->preambleText ? f->preambleLength + 1 : 0;
}

int orb_get_preamble_text(_ORBFILE* ef, char* buffer, int length)
{
    ORBFile* f = file(ef);
    int n = 0;
    if (f->preambleText && length > 1)
        n = std::min(length - 1, f->preambleLength);
    if (n > 0)
        std::memcpy(buffer, f->preambleText.get(), size_t(n));
    if (length > 0)
        buffer[n] = '\0';
    return 0;
}

const char* orb_get_version(void) { return "3.1 Linux Sep  2 2011"; }

const char* orb_library_version(void) { return ORBAPI_VERSION_STRING; }

int orb_get_revision(_ORBFILE* ef) { return int16_t(file(ef)->decoder.trackerRevision); }
int orb_get_oculant_revision(_ORBFILE* ef) { return int16_t(file(ef)->decoder.trackerModel); }

} // extern "C"

// The five functions with C++ linkage.

float orb_get_sample_per_second(_ORBFILE* ef) { return currentRate(file(ef)); }

double orb_get_sample_interval_ex(_ORBFILE* ef)
{
    float rate = currentRate(file(ef));
    return rate > 0.0f ? 1000.0 / double(rate) : 0.0; // NaN fails the test too
}

int orb_get_sample_interval(_ORBFILE* ef)
{
    double interval = orb_get_sample_interval_ex(ef);
    return interval < double(INT_MAX) ? int(interval) : INT_MAX;
}

int get_filter_level_for_sample(_ORBFILE* ef) { return file(ef)->decoder.levelValue; }

int orb_get_element_index(_ORBFILE* ef) { return file(ef)->current; }
