// Calls every exported function on an open recording, the way a careful
// and a careless caller would, and optionally writes down everything that
// came back.  Shared by the fuzz target (which looks for crashes, hangs and
// leaks) and by the corpus test (which also compares what came back between
// a file opened from disk and the same bytes opened from memory).
#ifndef ORBAPI_FUZZ_EXERCISE_H
#define ORBAPI_FUZZ_EXERCISE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "orbapi.h"

namespace orbfuzz {

// The open arguments tried on every input: the consistency modes (none,
// check, repair, tolerant, tolerant repair, no time adjustment) and the
// load switches (both, events only, samples only).
constexpr int kModes[] = {0, 1, 2, 4, 6, 8};
constexpr int kLoads[][2] = {{1, 1}, {1, 0}, {0, 1}};

// What the calls returned, as bytes.  Pointers are not written down (two
// handles keep their records at different addresses); what they point to
// is.
class Transcript {
public:
    explicit Transcript(std::string* out) : out_(out) {}

    template <class T>
    void value(const T& v)
    {
        if (out_)
            out_->append(reinterpret_cast<const char*>(&v), sizeof v);
    }
    void bytes(const void* p, size_t n)
    {
        if (out_)
            out_->append(static_cast<const char*>(p), n);
    }
    void tag(char c) { value(c); }

    // A record read for an item of this code (the record casts cannot
    // tell: a sample has no type word).
    void record(const ALLF_DATA* d, int code)
    {
        tag(d ? 'D' : '0');
        if (!d)
            return;
        if (code == SAMPLE) {
            value(d->fs);
        } else if (code == RECORDING) {
            value(d->rec);
        } else {
            bytes(&d->fe, offsetof(FEVENT, message));
            const ORB_MESSAGE* m = d->fe.message;
            tag(m ? 'M' : '-');
            if (m)
                value(*m);
        }
    }

private:
    std::string* out_;
};

// The raw pupil and CR accessors on a copy of the sample, both eyes.
inline void exerciseCamera(_ORBFILE* f, const FSAMPLE& sample, Transcript& t)
{
    FSAMPLE s = sample;
    for (int eye = 0; eye < 2; ++eye) {
        int dim[2] = {0, 0};
        float xy[2] = {0, 0};
        t.value(orb_get_uncorrected_pupil_area(f, &s, eye));
        t.value(orb_get_uncorrected_cr_area(f, &s, eye));
        t.value(orb_get_uncorrected_cr2_area(f, &s, eye));
        orb_get_pupil_dimension(f, &s, eye, dim);
        t.value(dim);
        orb_get_uncorrected_raw_pupil(f, &s, eye, xy);
        t.value(xy);
        orb_get_uncorrected_raw_cr(f, &s, eye, xy);
        t.value(xy);
        orb_get_uncorrected_raw_cr2(f, &s, eye, xy);
        t.value(xy);
        t.value(*orb_get_pupil_cr(f, &s, eye, xy));
    }
    int dim[2] = {0, 0};
    orb_get_cr_dimension(f, &s, dim);
    t.value(dim);
    orb_get_window_position(f, &s, dim);
    t.value(dim);
}

// One step and everything that reads the item stepped onto.
inline int exerciseStep(_ORBFILE* f, Transcript& t, std::vector<unsigned>* times)
{
    const int code = orb_get_next_data(f);
    t.value(code);
    if (code == NO_MORE_ITEMS)
        return code;
    ALLF_DATA* d = orb_get_float_data(f);
    t.record(d, code);
    t.tag(orb_get_sample_data(f) ? 's' : '-');
    t.tag(orb_get_event_data(f) ? 'e' : '-');
    t.tag(orb_get_recording_data(f) ? 'r' : '-');
    if (d) {
        // The casts look at the record just read (re-read above: each
        // typed reader reads again).
        d = orb_get_float_data(f);
        if (d) {
            t.tag(orb_get_sample(d) ? 'S' : '-');
            t.tag(orb_get_event(d) ? 'E' : '-');
            t.tag(orb_get_recording(d) ? 'R' : '-');
            if (code == SAMPLE) {
                if (times && times->size() < 256)
                    times->push_back(d->fs.time);
                exerciseCamera(f, d->fs, t);
            }
        }
    }
    t.value(orb_get_sample_per_second(f));
    t.value(orb_get_sample_interval(f));
    t.value(orb_get_sample_interval_ex(f));
    t.value(get_filter_level_for_sample(f));
    t.value(orb_get_element_index(f));
    return code;
}

// Walks from the cursor to the end, at most `limit` steps.
inline void exerciseWalk(_ORBFILE* f, Transcript& t, std::vector<unsigned>* times, size_t limit)
{
    for (size_t i = 0; i < limit && exerciseStep(f, t, times) != NO_MORE_ITEMS; ++i) {
    }
}

inline void exercisePreamble(_ORBFILE* f, Transcript& t)
{
    const int length = orb_get_preamble_text_length(f);
    t.value(length);
    std::vector<char> text(size_t(length > 0 ? length : 1) + 8, 'x');
    orb_get_preamble_text(f, text.data(), length > 0 ? length : 1);
    t.bytes(text.data(), text.size());
    char small[5] = {'x', 'x', 'x', 'x', 'x'};
    orb_get_preamble_text(f, small, sizeof small);
    t.value(small);
    t.value(orb_get_revision(f));
    t.value(orb_get_oculant_revision(f));
    t.bytes(orb_get_version(), std::strlen(orb_get_version()));
}

inline void exerciseTrials(_ORBFILE* f, Transcript& t)
{
    const int count = orb_get_trial_count(f);
    t.value(count);
    std::vector<TRIAL> headers;
    const int shown = count < 256 ? count : 256;
    for (int i = -1; i <= shown; ++i) {
        t.value(orb_jump_to_trial(f, i));
        TRIAL h{};
        const int r = orb_get_trial_header(f, &h);
        t.value(r);
        if (r == 0) {
            t.value(h.trialWord);
            t.value(h.startTime);
            t.value(h.endTime);
            t.tag(h.rec ? 'r' : '-');
            headers.push_back(h);
        }
        t.value(orb_get_element_index(f));
        exerciseWalk(f, t, nullptr, 3);
    }
    t.value(orb_goto_next_trial(f));
    t.value(orb_goto_previous_trial(f));
    t.value(orb_goto_previous_trial(f));
    for (const TRIAL& h : headers) {
        t.value(orb_goto_trial_with_start_time(f, h.startTime));
        t.value(orb_get_element_index(f));
        t.value(orb_goto_trial_with_end_time(f, h.endTime));
        t.value(orb_get_element_index(f));
    }
    t.value(orb_goto_trial_with_start_time(f, 0xFFFFFFFFu));
    t.value(orb_goto_trial_with_end_time(f, 0));

    // Other identifiers collect the trials anew.
    static char start[] = "START";
    static char end[] = "END";
    t.value(orb_set_trial_identifier(f, start, end));
    t.value(orb_get_trial_count(f));
    t.tag(orb_get_start_trial_identifier(f) == start ? 'y' : 'n');
    t.tag(orb_get_end_trial_identifier(f) == end ? 'y' : 'n');
    static char trialId[] = "TRIALID";
    t.value(orb_set_trial_identifier(f, trialId, nullptr));
    t.value(orb_get_trial_count(f));
}

inline void exerciseBookmarks(_ORBFILE* f, Transcript& t)
{
    int32_t index = 0;
    orb_jump_to_trial(f, -1); // nothing moves
    std::vector<BOOKMARK> marks(8);
    // One bookmark every few items from the start.
    for (BOOKMARK& bm : marks) {
        t.value(orb_set_bookmark(f, &bm));
        t.value(bm.id);
        for (int i = 0; i < 3; ++i)
            exerciseStep(f, t, nullptr);
    }
    t.value(orb_set_bookmark(f, nullptr));
    for (BOOKMARK& bm : marks) {
        t.value(orb_goto_bookmark(f, &bm));
        index = orb_get_element_index(f);
        t.value(index);
        exerciseStep(f, t, nullptr);
    }
    for (int i = 0; i < 10; ++i) {
        t.value(orb_goto_next_bookmark(f));
        t.value(orb_get_element_index(f));
    }
    for (int i = 0; i < 10; ++i) {
        t.value(orb_goto_previous_bookmark(f));
        t.value(orb_get_element_index(f));
    }
    BOOKMARK unknown{0xFFFFFFF0u};
    t.value(orb_goto_bookmark(f, &unknown));
    t.value(orb_free_bookmark(f, &unknown));
    for (BOOKMARK& bm : marks)
        t.value(orb_free_bookmark(f, &bm));
    t.value(orb_goto_next_bookmark(f));
}

// Everything, in an order that starts where a fresh handle stands.  The
// full walk takes at most `steps` steps.
inline void exercise(_ORBFILE* f, Transcript& t, size_t steps = SIZE_MAX)
{
    t.value(orb_get_element_count(f));
    t.tag(orb_get_float_data(f) ? 'D' : '0');
    t.tag(orb_get_sample_data(f) ? 'D' : '0');
    // A lookup before the first step hands back the untouched buffer.
    t.record(orb_get_sample_close_to_time(f, 0), SAMPLE);
    exercisePreamble(f, t);

    std::vector<unsigned> times;
    exerciseWalk(f, t, &times, steps);
    t.value(orb_get_next_data(f)); // past the end
    for (unsigned time : times) {
        t.record(orb_get_sample_close_to_time(f, time), SAMPLE);
        t.record(orb_get_sample_close_to_time(f, time + 1), SAMPLE);
    }
    exerciseTrials(f, t);
    exerciseBookmarks(f, t);
}

// Whether two reads of one recording into columns agree: the same rows in
// every table, the same message text, and the same bytes in every column
// that both have (reads with different options have different columns).
inline bool sameColumns(const ORB_COLUMNS* a, const ORB_COLUMNS* b)
{
    size_t textA = 0, textB = 0;
    const char* ta = orb_columns_text(a, &textA);
    const char* tb = orb_columns_text(b, &textB);
    if (textA != textB || (textA && std::memcmp(ta, tb, textA) != 0))
        return false;
    for (int table = ORB_TABLE_SAMPLES; table <= ORB_TABLE_TRIALS; ++table) {
        const size_t rows = orb_columns_rows(a, table);
        if (rows != orb_columns_rows(b, table))
            return false;
        for (int i = 0; i < orb_columns_count(a, table); ++i) {
            ORB_COLUMN x{}, y{};
            orb_columns_column(a, table, i, &x);
            if (orb_columns_find(b, table, x.name, &y) != 0)
                continue;
            if (x.type != y.type || (rows && std::memcmp(x.data, y.data, rows * orb_column_type_size(x.type)) != 0))
                return false;
        }
    }
    return true;
}

// Whether the sample rows of `c` carry the times and gaze values a full
// cursor walk of `fresh` (a handle nothing has moved yet) hands out, row for
// sample, bit for bit.  The trials are collected first, as a read into
// columns does (their messages are decoded before the walk).
inline bool sameSamplesAsCursor(const ORB_COLUMNS* c, _ORBFILE* fresh)
{
    orb_get_trial_count(fresh);
    const char* const names[] = {"time", "gaze_x_left", "gaze_x_right", "gaze_y_left", "gaze_y_right"};
    const unsigned char* columns[5] = {};
    for (int i = 0; i < 5; ++i) {
        ORB_COLUMN column{};
        if (orb_columns_find(c, ORB_TABLE_SAMPLES, names[i], &column) != 0)
            return false;
        columns[i] = static_cast<const unsigned char*>(column.data);
    }
    const size_t rows = orb_columns_rows(c, ORB_TABLE_SAMPLES);
    size_t row = 0;
    for (int code; (code = orb_get_next_data(fresh)) != NO_MORE_ITEMS;) {
        // Every item is read, as the columns' walk reads it: what the
        // decoder learns from an event counts for the samples after it.
        const ALLF_DATA* d = orb_get_float_data(fresh);
        if (code != SAMPLE || !d)
            continue;
        if (row == rows)
            return false;
        const FSAMPLE& s = d->fs;
        const void* values[5] = {&s.time, &s.gazeX[0], &s.gazeX[1], &s.gazeY[0], &s.gazeY[1]};
        for (int i = 0; i < 5; ++i)
            if (std::memcmp(columns[i] + row * 4, values[i], 4) != 0)
                return false;
        ++row;
    }
    return row == rows;
}

} // namespace orbfuzz

#endif
