/*
 * orbapi.h - read ORB eye-tracker recordings.
 *
 * An ORB file holds one recording of an Oculant eye tracker: a text preamble
 * followed by gaze samples, eye-movement events, messages and the markers
 * that open and close recording blocks.  This library opens such a file,
 * orders every item by time and hands the items out one at a time as plain
 * records.
 *
 * Typical use:
 *
 *     int err;
 *     _ORBFILE *f = orb_open_file("run1.orb", 0, 1, 1, &err);
 *     if (!f) return err;
 *     int code;
 *     while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
 *         ALLF_DATA *d = orb_get_float_data(f);
 *         if (!d) continue;                   (the item could not be read)
 *         if (code == SAMPLE)         use_sample(&d->fs);
 *         else if (code == RECORDING) use_block(&d->rec);
 *         else                        use_event(&d->fe);
 *     }
 *     orb_close_file(f);
 *
 * Ownership and lifetime.  Every record pointer handed out (ALLF_DATA,
 * FSAMPLE, FEVENT, Recording, the ORB_MESSAGE of a message) points into the
 * one record buffer of the open file and is overwritten by the next call on
 * the same handle.  Copy what you keep.  TRIAL.rec points into the file's
 * index and lives until orb_close_file.  Strings the caller passes in are
 * kept by pointer where a function says so (orb_set_trial_identifier).
 *
 * Threads.  A handle is used by one thread at a time (any thread, but not two
 * at once); different handles may be used from different threads at once.
 * The record casts, orb_get_version and orb_library_version may be called
 * from any thread at any time.  The log function is process-wide: set it
 * once, before files are opened; it is then called from every thread that
 * reads a file.  Within one call the library may use a second thread of its
 * own: opening a large recording sorts its index there while the file is
 * read, a compressed body is inflated there, and orb_read_columns makes the
 * columns' memory ready there.  Such a thread serves that call alone; of
 * them only the inflating one may call the log function.
 *
 * NULL.  Unless a function says otherwise, a NULL handle or a NULL pointer
 * argument is not allowed: the function would crash.  orb_close_file accepts
 * NULL; the bookmark functions and orb_get_trial_header refuse a NULL
 * pointer with -1.
 *
 * Times are milliseconds of the tracker clock.  An absent value holds a
 * missing marker (ORB_MISSING_POSITION, ORB_MISSING_VALUE, ORB_MISSING_WORD
 * below); absent buttons read 0.
 *
 * Traps: what every caller should know
 * ------------------------------------
 * 1. Dispatch on the code orb_get_next_data returns, never on the record
 *    casts.  orb_get_sample, orb_get_event and orb_get_recording look at the
 *    16-bit word at byte 4 of the record, which is FEVENT.type only for an
 *    event.  In a sample those bytes belong to rawX[0], in a Recording to
 *    sampleRate: samples and block records are mostly "events" to
 *    orb_get_event, and a sample is almost never "a sample" to
 *    orb_get_sample.
 * 2. The record you were handed belongs to the file and is overwritten by
 *    the next call on the handle: stepping, reading, moving by trial or to a
 *    time, counting trials, and the raw pupil and CR accessors too.  The
 *    first call of a raw pupil or CR accessor on a file (and the first trial
 *    call) builds the trial list, which reads every message through that
 *    same buffer.  So pass those accessors a copy of the sample
 *    (FSAMPLE s = d->fs; orb_get_pupil_cr(f, &s, 0, xy);), never d->fs itself.
 * 3. Gaze values, resolutions and the other scaled values of samples and
 *    events are divided by the divisor of the block start the library
 *    decoded last: after opening, the file's last block start; later, the
 *    last one read.  After a jump (trial, bookmark,
 *    orb_get_sample_close_to_time) into another block, and before stepping
 *    over a block start, samples may be scaled with another block's
 *    divisor.  Likewise the rate accessors (orb_get_sample_per_second and
 *    its companions, and the velocities) keep the block start that stepping
 *    passed last.  Where blocks differ, step from the block start.
 * 4. Times handed out may be shifted.  The first record handed out settles
 *    it: when its time is 200000000 ms or more, that time is subtracted from
 *    every time of every record handed out from then on (the first record
 *    itself reads 0); otherwise nothing is shifted.  Bit 3 of `consistency`
 *    switches this off.  orb_get_sample_close_to_time, the TRIAL times (and
 *    TRIAL.rec->time) and orb_goto_trial_with_start_time / _end_time all
 *    use the file's own, unshifted times: add the shift back before looking
 *    a record's time up (or open with bit 3 set).
 * 5. FEVENT.time and FEVENT.aux0 are never filled by decoding.  aux0 is 0;
 *    time is 0, or 0 minus the shift of trap 4 when shifting is on.  Use
 *    startTime and endTime.
 * 6. After moving (trial, bookmark), the next orb_get_next_data steps onto
 *    the item moved to; orb_get_float_data called before that step reads the
 *    item before it.
 */
#ifndef ORBAPI_H
#define ORBAPI_H

#include <stdint.h>
#include <stddef.h>

/* The version of this library (not of the recordings it reads), for
 * compile-time checks; orb_library_version() gives the version of the
 * library actually loaded.  The build reads these lines: they are the one
 * place the version is written. */
#define ORBAPI_VERSION_MAJOR 1
#define ORBAPI_VERSION_MINOR 0
#define ORBAPI_VERSION_PATCH 0
#define ORBAPI_VERSION_STRING                                              \
    ORBAPI_STRINGIFY_(ORBAPI_VERSION_MAJOR) "."                            \
    ORBAPI_STRINGIFY_(ORBAPI_VERSION_MINOR) "."                            \
    ORBAPI_STRINGIFY_(ORBAPI_VERSION_PATCH) /* "1.0.0" */
#define ORBAPI_STRINGIFY_(x) ORBAPI_STRINGIFY2_(x)
#define ORBAPI_STRINGIFY2_(x) #x

#if defined(_WIN32)
#define ORBAPI_EXPORT __declspec(dllexport)
#else
#define ORBAPI_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Item-type codes: returned by orb_get_next_data and held in FEVENT.type.  */
/* ------------------------------------------------------------------------ */
enum {
    NO_MORE_ITEMS = 0,  /* stepping went past the last item               */
    SSPAN = 1,          /* start of a span event                           */
    ESPAN = 2,          /* end of a span event                             */
    SBLINK = 3,         /* start of a blink                                */
    EBLINK = 4,         /* end of a blink                                  */
    SSACC = 5,          /* start of a saccade                              */
    ESACC = 6,          /* end of a saccade                                */
    SFIX = 7,           /* start of a fixation                             */
    EFIX = 8,           /* end of a fixation                               */
    POINT9 = 9,         /* point event                                     */
    POINT10 = 10,       /* point event                                     */
    SSAMPLES = 15,      /* start of a sample block                         */
    ESAMPLES = 16,      /* end of a sample block                           */
    SEVENTS = 17,       /* start of an event block                         */
    EEVENTS = 18,       /* end of an event block                           */
    MESSAGE = 24,       /* message with text (FEVENT.message)              */
    POINT25 = 25,       /* point event                                     */
    POINT28 = 28,       /* point event                                     */
    RECORDING = 30,     /* recording block start or end (Recording)        */
    SAMPLE = 200        /* one gaze sample (FSAMPLE)                       */
};

/* Whether `code` is that of an event or message item (1-10, 15-18, 24, 25,
 * 28), whose record is an FEVENT: bit `code` of ORB_EVENT_CODES. */
#define ORB_EVENT_CODES 0x130787FEu
#define ORB_IS_EVENT_CODE(code)                                            \
    ((unsigned)(code) <= 28u && ((ORB_EVENT_CODES >> (unsigned)(code)) & 1u))

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* Arrays of two are indexed by eye: [0] left, [1] right.                   */
/* ------------------------------------------------------------------------ */

/* One sample. */
typedef struct FSAMPLE {
    uint32_t time;          /* sample time (ms); flags bit 0x0002 adds 0.5 ms */
    float rawX[2];          /* raw position x (camera units)                 */
    float rawY[2];          /* raw position y                                */
    float secondX[2];       /* second position x                             */
    float secondY[2];       /* second position y                             */
    float pupilSize[2];     /* pupil size                                    */
    float gazeX[2];         /* gaze position x                               */
    float gazeY[2];         /* gaze position y                               */
    float resolutionX;      /* resolution x (units per degree), both eyes    */
    float resolutionY;      /* resolution y                                  */
    float gazeVelX[2];      /* smoothed gaze velocity x (deg/s)              */
    float gazeVelY[2];      /* smoothed gaze velocity y                      */
    float secondVelX[2];    /* smoothed second-position velocity x           */
    float secondVelY[2];    /* smoothed second-position velocity y           */
    float rawVelX[2];       /* smoothed raw velocity x                       */
    float rawVelY[2];       /* smoothed raw velocity y                       */
    float fastGazeVelX[2];  /* two-point gaze velocity x                     */
    float fastGazeVelY[2];  /* two-point gaze velocity y                     */
    float fastSecondVelX[2];/* two-point second-position velocity x          */
    float fastSecondVelY[2];/* two-point second-position velocity y          */
    float fastRawVelX[2];   /* two-point raw velocity x                      */
    float fastRawVelY[2];   /* two-point raw velocity y                      */
    uint16_t extraData[8];  /* extra-data words (raw pupil and CR values)    */
    uint16_t flags;         /* the sample's flag word as stored; 0x8000 left
                               eye, 0x4000 right eye recorded                */
    uint16_t input;         /* input word (also the camera window position)  */
    uint16_t buttons;       /* buttons word                                  */
    int16_t extraType;      /* extra-data type byte; -32768 when absent      */
    uint16_t status;        /* status word                                   */
} FSAMPLE;

/* The text of a message item: the length as stored, then the bytes as
 * stored (no terminator is added; the last byte is the terminator's place). */
typedef struct ORB_MESSAGE {
    int16_t length;
    char text[498];
} ORB_MESSAGE;

/* One event, message or other non-sample item. */
typedef struct FEVENT {
    uint32_t time;          /* never filled by decoding (see traps 4, 5)     */
    uint16_t type;          /* item-type code                                */
    uint16_t contents;      /* which value groups the item carried           */
    uint32_t startTime;     /* start time of the event                       */
    uint32_t endTime;       /* end time of the event                         */
    float startPosX, startPosY;   /* position at the start                   */
    float startGazeX, startGazeY; /* gaze position at the start              */
    float startScalar;      /* start value of the scalar group               */
    float endPosX, endPosY;       /* position at the end                     */
    float endGazeX, endGazeY;     /* gaze position at the end                */
    float endScalar;        /* end value of the scalar group                 */
    float avgPosX, avgPosY;       /* average position                        */
    float avgGazeX, avgGazeY;     /* average gaze position                   */
    float avgScalar;        /* average value of the scalar group             */
    float avgPupil;         /* average pupil; sample rate in block starts    */
    float peakPupil;        /* second pupil value                            */
    float startPupil;       /* pupil at the start                            */
    float endPupil;         /* pupil at the end                              */
    float startResX;        /* resolution x at the start                     */
    float endResX;          /* resolution x at the end                       */
    float startResY;        /* resolution y at the start                     */
    float endResY;          /* resolution y at the end                       */
    int16_t eye;            /* 0 left, 1 right                               */
    uint16_t aux0;          /* never filled by decoding: 0                   */
    uint16_t blockFlags;    /* block flag word                               */
    uint16_t blockFlags2;   /* second block flag word                        */
    uint16_t blockOption;   /* block option word                             */
    uint16_t itemTag;       /* low byte of the item's tag, bit 0 cleared     */
    ORB_MESSAGE *message;   /* text of a MESSAGE item; NULL otherwise        */
} FEVENT;

/* The start or the end of a recording block (item type RECORDING). */
typedef struct Recording {
    uint32_t time;          /* time of the boundary                          */
    float sampleRate;       /* samples per second in force                   */
    uint16_t eventFlags;    /* flag word of the event block                  */
    uint16_t sampleFlags;   /* flag word of the sample block                 */
    uint8_t state;          /* 1 block start, 0 block end                    */
    uint8_t recordType;     /* 1 samples, 2 events, 3 both                   */
    uint8_t filterFlag;     /* 1 unless the block's first option equals 1    */
    uint8_t modeFlag;       /* 1 when the recording mode value is non-zero   */
    uint8_t modeLevel;      /* filter level of the block                     */
    uint8_t blockOption2;   /* second option byte of the block               */
    uint8_t eyes;           /* 1 left, 2 right, 3 both                       */
    uint64_t orderKey;      /* library's own: ordering key (time x 2)        */
    uint32_t itemRef;       /* library's own                                 */
} Recording;

/* Any item as handed out by orb_get_float_data; the code returned by
 * orb_get_next_data tells which member is meant. */
typedef union ALLF_DATA {
    FSAMPLE fs;
    FEVENT fe;
    Recording rec;
} ALLF_DATA;

/* One trial: a stretch of the recording between identifying messages. */
typedef struct TRIAL {
    Recording *rec;         /* block start of the block the trial lies in    */
    uint32_t trialWord;     /* duration in ms (endTime - startTime)          */
    uint32_t startTime;     /* time of the item that opened the trial        */
    uint32_t endTime;       /* time of the item that closed it (0 if open)   */
} TRIAL;

/* One remembered position in the item sequence. */
typedef struct BOOKMARK {
    uint32_t id;
} BOOKMARK;

/* Opaque handle of an open file. */
typedef struct _ORBFILE _ORBFILE;

/* ------------------------------------------------------------------------ */
/* Markers, flag bits and the file's first line                             */
/* ------------------------------------------------------------------------ */

/* What a record holds where the recording has no value. */
#define ORB_MISSING_POSITION (-32768.0f) /* position, pupil size or gaze  */
#define ORB_MISSING_VALUE 100000000.0f   /* scaled value, resolution or
                                            velocity; a camera centre     */
#define ORB_MISSING_WORD 32768           /* FSAMPLE.status and .input;
                                            FSAMPLE.extraType reads -32768 */

/* FSAMPLE.extraType and FSAMPLE.extraData[0] of a sample that the repair
 * (consistency 2) put where the recording lacks one; every other value of
 * such a sample is missing. */
#define ORB_PLACEHOLDER 32767

/* Bits of FSAMPLE.flags: the value groups the sample carries and its eyes,
 * as stored, and the half millisecond the library marks. */
#define ORB_SAMPLE_HALF_MS    0x0002 /* time + 0.5 ms: the second sample of
                                        its millisecond                    */
#define ORB_SAMPLE_EXTRA_DATA 0x0010 /* extraType and extraData            */
#define ORB_SAMPLE_BUTTONS    0x0020 /* buttons                            */
#define ORB_SAMPLE_INPUT      0x0040 /* input                              */
#define ORB_SAMPLE_STATUS     0x0080 /* status                             */
#define ORB_SAMPLE_PUPIL      0x0100 /* pupilSize                          */
#define ORB_SAMPLE_RESOLUTION 0x0200 /* resolutionX, resolutionY           */
#define ORB_SAMPLE_GAZE       0x0400 /* gazeX, gazeY                       */
#define ORB_SAMPLE_SECOND     0x0800 /* secondX, secondY                   */
#define ORB_SAMPLE_RAW        0x1000 /* rawX, rawY                         */
#define ORB_SAMPLE_RIGHT_EYE  0x4000 /* eye 1 recorded                     */
#define ORB_SAMPLE_LEFT_EYE   0x8000 /* eye 0 recorded                     */

/* Recording.eyes: the eyes of a block. */
#define ORB_EYES_LEFT 1
#define ORB_EYES_RIGHT 2
#define ORB_EYES_BOTH 3

/* The names of eye 0 and eye 1, as in the column names ("gaze_x_left"), for
 * an array initialiser: static const char *const eye[2] = ORB_EYE_NAMES; */
#define ORB_EYE_NAMES { "left", "right" }

/* The first line of a recording as a writer writes it, plain and
 * compressed.  Read are also these lines ended by "\r\n", and
 * "NORVANE_LAB_HSPDFILE" for a plain body. */
#define ORB_MAGIC_PLAIN "NORVANE_LAB_COMBFILE\n"
#define ORB_MAGIC_COMPRESSED "NORVANE_LAB_HSPDFILE ZIP\n"

/* The line that ends the preamble text. */
#define ORB_PREAMBLE_END "ENDP:\n"

/* A recording without items: the first line, an empty preamble and a zero
 * tag word, which ends the items.  It holds NUL bytes: its size is
 * sizeof ORB_EMPTY_RECORDING - 1, e.g.
 * orb_open_memory(ORB_EMPTY_RECORDING, sizeof ORB_EMPTY_RECORDING - 1, ...). */
#define ORB_EMPTY_RECORDING ORB_MAGIC_PLAIN ORB_PREAMBLE_END "\0\0"

/* ------------------------------------------------------------------------ */
/* Opening and closing                                                      */
/* ------------------------------------------------------------------------ */

/* Opens the ORB file `fname`, reads its preamble and builds the time-ordered
 * index of its items (the whole file is scanned before it returns).
 * `consistency`: bits 0-1 the consistency mode (0 none, 1 check, 2 check and
 * repair), bit 2 a tolerant scan (a damaged item ends the scan instead of
 * failing the open), bit 3 switches the time shift of trap 4 off.
 * `loadevents`, `loadsamples`: non-zero to index events / samples.
 * On success sets *errval to 0 and returns the handle, to be closed with
 * orb_close_file.  On failure (no such file, not an ORB file, a damaged
 * item without the tolerant scan, memory exhausted) sets *errval to -1,
 * logs the reason through the log function and returns NULL.
 * `fname` and `errval` must not be NULL.  Any thread may open files, several
 * at once. */
ORBAPI_EXPORT _ORBFILE *orb_open_file(const char *fname, int consistency,
                                      int loadevents, int loadsamples,
                                      int *errval);

/* Opens a recording held in memory: `size` bytes at `data`, laid out exactly
 * as an ORB file on disk (either container form).  Everything else is as
 * orb_open_file on a file holding those bytes: the same records, the same
 * log lines, the same failures.  The bytes are read in place, not copied:
 * the caller keeps them alive and unchanged until orb_close_file.  A
 * compressed body is inflated into memory owned by the handle.
 * Sets *errval to 0 and returns the handle, or sets *errval to -1 and
 * returns NULL (the reason is then orb_get_last_error()).  `data` may be
 * NULL only when `size` is 0. */
ORBAPI_EXPORT _ORBFILE *orb_open_memory(const void *data, size_t size,
                                        int consistency, int loadevents,
                                        int loadsamples, int *errval);

/* Why the last orb_open_file, orb_open_memory, orb_read_columns,
 * orb_read_columns_memory, orb_read, orb_read_memory or orb_read_open
 * called on this thread failed: the lines the
 * library logged during that call, in order, exactly as the log function
 * received them (for example "Bad magic.  Corrupt orb file. \n...").  The
 * lines are kept whether or not a log function is set.  Should they pass a
 * megabyte, the ones after that are left out except the last.  After a
 * call that succeeded, the one line that says it stopped reading before the
 * end of the bytes it was given, when it did: "Reading stopped at byte N of
 * the file: REASON (M bytes not read)\n" (of the inflated body, for a
 * compressed container; REASON "an item tag of 0", "an event of type 0" or,
 * with the tolerant scan, "a damaged item"; and "the inflating limit" with
 * "(M compressed bytes not read)"); the empty string when it read them all
 * or no call was made yet.  The text belongs to the calling thread and
 * stays valid until its next open or read; each thread has its own.  Never
 * NULL. */
ORBAPI_EXPORT const char *orb_get_last_error(void);

/* Closes the file and frees everything it holds: after it, the handle and
 * every pointer the file handed out (records, messages, TRIAL.rec) are
 * invalid.  NULL is accepted and ignored.  Returns 0.  Not while another
 * thread uses the handle. */
ORBAPI_EXPORT int orb_close_file(_ORBFILE *ef);

/* ------------------------------------------------------------------------ */
/* Stepping and reading                                                     */
/* ------------------------------------------------------------------------ */

/* Every function below takes the handle of an open file, which must not be
 * NULL, and may be called from one thread at a time per handle.           */

/* Steps onto the next item in time order and returns its item-type code (a
 * value of the enum above, never negative), or NO_MORE_ITEMS (0) when there
 * is none: at the end it keeps returning 0 and the position stays.  Stepping
 * over a RECORDING item sets the block the rate accessors report (none after
 * a block end).  In repair mode (consistency 2) it decodes blink, saccade
 * and fixation starts as it passes them, through the record buffer. */
ORBAPI_EXPORT int orb_get_next_data(_ORBFILE *ef);

/* Reads the item orb_get_next_data stepped onto last (more exactly: the item
 * just before the current position, see trap 6) and returns it, times
 * shifted (trap 4), as the file's record buffer: the member to read is the
 * one the stepping code names (fs for SAMPLE, rec for RECORDING, fe for the
 * rest).  The pointer is the same on every call and the record is valid
 * until the next call on the handle.  Returns NULL, and logs a line, when
 * the item cannot be read (the file is damaged there), and NULL when there
 * is no item before the position.  Before the first step it returns the
 * buffer unread (all zero). */
ORBAPI_EXPORT ALLF_DATA *orb_get_float_data(_ORBFILE *ef);

/* As orb_get_float_data, but NULL unless the item last stepped onto is a
 * SAMPLE (NULL before the first step).  A mismatch logs nothing. */
ORBAPI_EXPORT ALLF_DATA *orb_get_sample_data(_ORBFILE *ef);

/* As orb_get_float_data, but NULL unless the item last stepped onto is an
 * event or message (codes 1-10, 15-18, 24, 25, 28). */
ORBAPI_EXPORT ALLF_DATA *orb_get_event_data(_ORBFILE *ef);

/* As orb_get_float_data, but NULL unless the item last stepped onto is a
 * RECORDING. */
ORBAPI_EXPORT ALLF_DATA *orb_get_recording_data(_ORBFILE *ef);

/* Reads the sample recorded at `time` and returns it in the record buffer
 * (as orb_get_float_data), or NULL when no sample carries exactly that time.
 * `time` is the file's own time in ms, before the shift of trap 4; samples
 * at a half millisecond (flags 0x0002) and the very first item of the file
 * are never found; a time of 2^31 or more wraps.  The stepping position is
 * left where it was, but the record buffer is overwritten. */
ORBAPI_EXPORT ALLF_DATA *orb_get_sample_close_to_time(_ORBFILE *ef,
                                                      unsigned int time);

/* Number of items in the file's time-ordered index (every item
 * orb_get_next_data will step onto, from the first). */
ORBAPI_EXPORT int orb_get_element_count(_ORBFILE *ef);

/* Moves to index position `index` (0 to orb_get_element_count() - 1): the
 * next orb_get_next_data steps onto the item there (trap 6).  Like the other
 * moves it leaves the rate accessors and the divisor alone (trap 3).
 * Returns 0, or -1 when there is no such position (nothing changes then). */
ORBAPI_EXPORT int orb_goto_index(_ORBFILE *ef, int index);

/* The item-type code of the item at index position `index` (0 to
 * orb_get_element_count() - 1), read from the index alone: the record
 * buffer is left as it is.  When `key` is not NULL, writes the item's
 * ordering key to *key: its time as the file holds it (before the shift of
 * trap 4) in half milliseconds, that is twice the time, plus 1 for a sample
 * at a half millisecond.  Returns the code, or -1 (leaving *key alone) when
 * there is no such position.  The item before the current position, the
 * one orb_get_float_data reads, is at orb_get_element_index() - 1. */
ORBAPI_EXPORT int orb_get_element_code(_ORBFILE *ef, int index,
                                       uint64_t *key);

/* Record casts: return `d` when the 16-bit word at byte offset 4 (FEVENT.type
 * in an event) says the record is of that kind, else NULL.  That word is
 * meaningful for events only (trap 1): dispatch on the code returned by
 * orb_get_next_data instead.  `d` must not be NULL.  They read `d` only:
 * any thread. */
ORBAPI_EXPORT FSAMPLE *orb_get_sample(ALLF_DATA *d);    /* word == 200      */
ORBAPI_EXPORT FEVENT *orb_get_event(ALLF_DATA *d);      /* word not 200, 30 */
ORBAPI_EXPORT Recording *orb_get_recording(ALLF_DATA *d); /* word == 30     */

/* ------------------------------------------------------------------------ */
/* Trials                                                                   */
/* A trial is a stretch of the index that starts at a message containing   */
/* the start identifier ("TRIALID" unless set) and ends at a message        */
/* containing the end identifier, at the next start, or at the block end;   */
/* a recording without such messages has a trial per block.  The list is    */
/* built on the first trial call (or raw pupil call, trap 2), which reads   */
/* every message through the record buffer.  Moving to a trial sets the     */
/* position to its first item: the next orb_get_next_data steps onto it     */
/* (trap 6), the rate accessors and the divisor keep the block stepped      */
/* through last (trap 3).  Trial times are the file's own (trap 4).         */
/* ------------------------------------------------------------------------ */

/* Number of trials, 0 when there are none. */
ORBAPI_EXPORT int orb_get_trial_count(_ORBFILE *ef);

/* Moves to the first item of trial `trial` (0 to count - 1) and makes it the
 * current trial.  Returns 0, or -1 when there is no such trial (nothing
 * changes then). */
ORBAPI_EXPORT int orb_jump_to_trial(_ORBFILE *ef, int trial);

/* Copies the current trial (the one last moved to) into *trial.  Returns 0,
 * or -1 (leaving *trial alone) when `trial` is NULL or no trial has been
 * moved to.  trial->rec points to the block start of the trial's block,
 * owned by the file until orb_close_file (NULL when the trial has none). */
ORBAPI_EXPORT int orb_get_trial_header(_ORBFILE *ef, TRIAL *trial);

/* The index positions the current trial spans: its first item is at
 * *start_index and *end_index is the position past its last (the trial
 * holds the items at start_index <= position < end_index).  Returns 0, or
 * -1 (writing nothing) when no trial has been moved to or either pointer
 * is NULL. */
ORBAPI_EXPORT int orb_get_trial_span(_ORBFILE *ef, uint32_t *start_index,
                                     uint32_t *end_index);

/* Moves to the trial before / after the current one (from no current trial,
 * "next" goes to trial 0).  Returns 0, or -1 past either end (nothing
 * changes then). */
ORBAPI_EXPORT int orb_goto_previous_trial(_ORBFILE *ef);
ORBAPI_EXPORT int orb_goto_next_trial(_ORBFILE *ef);

/* Moves to the first trial whose TRIAL.startTime / endTime equals `time`
 * (ms, the file's own time).  Returns 0, or -1 when none does (nothing
 * changes then). */
ORBAPI_EXPORT int orb_goto_trial_with_start_time(_ORBFILE *ef,
                                                 unsigned int time);
ORBAPI_EXPORT int orb_goto_trial_with_end_time(_ORBFILE *ef,
                                               unsigned int time);

/* Sets the texts whose presence in a message starts and ends a trial, and
 * builds the trial list anew (the current trial is kept by number).  The
 * file keeps the pointers, not copies: the strings must stay alive and
 * unchanged until the handle is closed or the identifiers set again.
 * `end_marker` may be NULL (trials then end at the next start or at the
 * block end); a NULL `start_marker` lets no message start a trial.
 * Returns 0. */
ORBAPI_EXPORT int orb_set_trial_identifier(_ORBFILE *ef, char *start_marker,
                                           char *end_marker);

/* The identifiers in force: the pointers last given to
 * orb_set_trial_identifier, else "TRIALID" (a static string; do not write
 * to it) and NULL. */
ORBAPI_EXPORT char *orb_get_start_trial_identifier(_ORBFILE *ef);
ORBAPI_EXPORT char *orb_get_end_trial_identifier(_ORBFILE *ef);

/* ------------------------------------------------------------------------ */
/* Bookmarks                                                                */
/* A bookmark remembers a position (the item the next orb_get_next_data     */
/* steps onto).  The file keeps its bookmarks in the order they were set;   */
/* the BOOKMARK the caller holds is only their key.                         */
/* ------------------------------------------------------------------------ */

/* Bookmarks the current position and writes its key to *bm.  Returns 0, or
 * -1 when `bm` is NULL or the position is past the last item.  A position
 * already bookmarked succeeds without writing *bm: initialise *bm or keep
 * the first one. */
ORBAPI_EXPORT int orb_set_bookmark(_ORBFILE *ef, BOOKMARK *bm);

/* Forgets the bookmark *bm.  Returns 0, or -1 when `bm` is NULL or unknown. */
ORBAPI_EXPORT int orb_free_bookmark(_ORBFILE *ef, BOOKMARK *bm);

/* Moves to the bookmark *bm and makes it the current bookmark.  Returns 0,
 * or -1 when `bm` is NULL or unknown (nothing changes then). */
ORBAPI_EXPORT int orb_goto_bookmark(_ORBFILE *ef, BOOKMARK *bm);

/* Moves to the bookmark set after / before the current bookmark (from none,
 * "next" goes to the first set).  Returns 0, or -1 when there is none
 * (nothing changes then). */
ORBAPI_EXPORT int orb_goto_next_bookmark(_ORBFILE *ef);
ORBAPI_EXPORT int orb_goto_previous_bookmark(_ORBFILE *ef);

/* ------------------------------------------------------------------------ */
/* Preamble and file facts                                                  */
/* ------------------------------------------------------------------------ */

/* Length of the preamble text plus one (room for the terminator), or 0 when
 * the file has none.  Ask it to size the buffer of orb_get_preamble_text. */
ORBAPI_EXPORT int orb_get_preamble_text_length(_ORBFILE *ef);

/* Copies the preamble text (each line prefixed by "** " and ended by "\n"),
 * at most length - 1 characters of it, into `buffer` and terminates it;
 * without a preamble it writes "".  `buffer` must hold `length` bytes; with
 * `length` 0 or less nothing is written (and `buffer` may then be NULL).
 * Returns 0. */
ORBAPI_EXPORT int orb_get_preamble_text(_ORBFILE *ef, char *buffer,
                                        int length);

/* The text "3.1 Linux Sep  2 2011", kept for callers that compare it; the
 * library's own version is orb_library_version().  A static string; any
 * thread. */
ORBAPI_EXPORT const char *orb_get_version(void);

/* The version of the library loaded, "MAJOR.MINOR.PATCH" (the value of
 * ORBAPI_VERSION_STRING it was built with).  A static string; never NULL;
 * any thread. */
ORBAPI_EXPORT const char *orb_library_version(void);

/* Tracker revision: the number on the preamble's "VERSION: OCULANT MK "
 * line (0 there counts as 1), 0 when there is no such line. */
ORBAPI_EXPORT int orb_get_revision(_ORBFILE *ef);

/* Tracker model from the preamble: 1 by default, 2 for a "SOURCE: OCULANT
 * MK" line, 3 for "SOURCE: OCULANT HQ". */
ORBAPI_EXPORT int orb_get_oculant_revision(_ORBFILE *ef);

/* ------------------------------------------------------------------------ */
/* Logging                                                                  */
/* ------------------------------------------------------------------------ */

/* Routes every diagnostic line of the library (at most 499 characters, each
 * ending in "\n") to `fcn`; NULL restores printing to standard output.
 * Process-wide, for every open file: set it once, before files are opened.
 * `fcn` is called on the thread that reads the file, so from several
 * threads at once when several files are read at once; the text it receives
 * is the library's and valid only during the call. */
ORBAPI_EXPORT void orb_set_log_function(void (*fcn)(char *));

/* Formats one diagnostic line (printf style; text beyond 499 characters is
 * cut) and hands it to the log function.  Without one the text goes to
 * standard output with every "%%" left in it printed as "%" (it is printed
 * as if used as a format a second time).  `fmt` must not be NULL.  Any
 * thread.  Returns 0. */
ORBAPI_EXPORT int print_log(char *fmt, ...);

/* ------------------------------------------------------------------------ */
/* Raw pupil and corneal-reflection (CR) values of a sample                 */
/* `ef` is the file the sample came from (not NULL), `s` a sample of it     */
/* (not NULL), `eye` 0 (left) or 1 (right): other values read outside the   */
/* record.  Pass a copy of the sample, never the record buffer itself: the  */
/* first call on a file builds the trial list through that buffer (trap 2). */
/* Samples come in two encodings, told apart by the sign of pupilSize[eye]; */
/* the functions read either.  They write only the array they are given,    */
/* which must hold two elements.                                            */
/* ------------------------------------------------------------------------ */

/* Pupil area in camera pixels, before the CR correction; 0 when the sample
 * has no pupil for that eye. */
ORBAPI_EXPORT int orb_get_uncorrected_pupil_area(_ORBFILE *ef, FSAMPLE *s,
                                                 int eye);

/* CR area in camera pixels, before correction. */
ORBAPI_EXPORT int orb_get_uncorrected_cr_area(_ORBFILE *ef, FSAMPLE *s,
                                              int eye);

/* Area of a second CR; 0 when the sample carries none. */
ORBAPI_EXPORT int orb_get_uncorrected_cr2_area(_ORBFILE *ef, FSAMPLE *s,
                                               int eye);

/* Pupil width and height into dim[0], dim[1]; 0 and 0 when there is no
 * pupil, 100000000 and 100000000 when the packed values are missing. */
ORBAPI_EXPORT void orb_get_pupil_dimension(_ORBFILE *ef, FSAMPLE *s, int eye,
                                           int *dim);

/* CR width and height into dim[0], dim[1] (there is no eye argument: both
 * come from extraData[7] whatever the encoding). */
ORBAPI_EXPORT void orb_get_cr_dimension(_ORBFILE *ef, FSAMPLE *s, int *dim);

/* Camera window position (from FSAMPLE.input) into pos[0] (x), pos[1] (y). */
ORBAPI_EXPORT void orb_get_window_position(_ORBFILE *ef, FSAMPLE *s,
                                           int *pos);

/* Pupil centre in camera coordinates into xy[0], xy[1]; 100000000.0 and
 * 100000000.0 when there is no pupil or its values are missing. */
ORBAPI_EXPORT void orb_get_uncorrected_raw_pupil(_ORBFILE *ef, FSAMPLE *s,
                                                 int eye, float *xy);

/* CR centre in camera coordinates into xy[0], xy[1]; 100000000.0 and
 * 100000000.0 when there is no CR or its values are missing. */
ORBAPI_EXPORT void orb_get_uncorrected_raw_cr(_ORBFILE *ef, FSAMPLE *s,
                                              int eye, float *xy);

/* Second CR centre in camera coordinates into xy[0], xy[1]; 100000000.0
 * and 100000000.0 when the sample carries no second CR. */
ORBAPI_EXPORT void orb_get_uncorrected_raw_cr2(_ORBFILE *ef, FSAMPLE *s,
                                               int eye, float *xy);

/* Pupil centre minus 1.02 x CR centre, after removing the CR's overlap from
 * the pupil; written to xy[0], xy[1] and returns xy.  Missing centres are
 * not tested for: the result is then meaningless (test
 * orb_get_uncorrected_raw_pupil and _cr first). */
ORBAPI_EXPORT float *orb_get_pupil_cr(_ORBFILE *ef, FSAMPLE *s, int eye,
                                      float *xy);

/* Every value of the functions above for one sample, both eyes.  Arrays of
 * two are indexed by eye, as in the records. */
typedef struct ORB_CAMERA {
    int32_t pupilArea[2];   /* orb_get_uncorrected_pupil_area               */
    int32_t crArea[2];      /* orb_get_uncorrected_cr_area                  */
    int32_t cr2Area[2];     /* orb_get_uncorrected_cr2_area                 */
    int32_t pupilWidth[2];  /* orb_get_pupil_dimension, dim[0]              */
    int32_t pupilHeight[2]; /* orb_get_pupil_dimension, dim[1]              */
    int32_t crWidth;        /* orb_get_cr_dimension, dim[0]                 */
    int32_t crHeight;       /* orb_get_cr_dimension, dim[1]                 */
    int32_t windowX;        /* orb_get_window_position, pos[0]              */
    int32_t windowY;        /* orb_get_window_position, pos[1]              */
    float rawPupilX[2];     /* orb_get_uncorrected_raw_pupil, xy[0]         */
    float rawPupilY[2];     /* orb_get_uncorrected_raw_pupil, xy[1]         */
    float rawCrX[2];        /* orb_get_uncorrected_raw_cr, xy[0]            */
    float rawCrY[2];        /* orb_get_uncorrected_raw_cr, xy[1]            */
    float rawCr2X[2];       /* orb_get_uncorrected_raw_cr2, xy[0]           */
    float rawCr2Y[2];       /* orb_get_uncorrected_raw_cr2, xy[1]           */
    float pupilCrX[2];      /* orb_get_pupil_cr, xy[0]                      */
    float pupilCrY[2];      /* orb_get_pupil_cr, xy[1]                      */
} ORB_CAMERA;

/* Fills *out with the values the functions above give for the sample `s`
 * of the file `ef`, each called on a copy of `s` taken before the first of
 * them: unlike them, this one may be given the record buffer itself
 * (&orb_get_float_data(ef)->fs).  Like them it builds the trial list on the
 * first call, through the record buffer (trap 2).  None of `ef`, `s`, `out`
 * may be NULL. */
ORBAPI_EXPORT void orb_get_camera_values(_ORBFILE *ef, const FSAMPLE *s,
                                         ORB_CAMERA *out);

/* ------------------------------------------------------------------------ */
/* Columnar reading: a whole recording into arrays in one call              */
/* ------------------------------------------------------------------------ */

/* A recording read into columns: one array per record member, one row per
 * item, rows in the order orb_get_next_data delivers the items.  Every value
 * is bit for bit what a full cursor walk (orb_get_next_data from the first
 * item to the last, orb_get_float_data on each) hands out for the same open
 * arguments; stored missing markers stay as stored.  Opaque; owned by the
 * caller until orb_free_columns. */
typedef struct ORB_COLUMNS ORB_COLUMNS;

/* The tables of an ORB_COLUMNS. */
enum {
    ORB_TABLE_SAMPLES = 0,  /* one row per SAMPLE item                      */
    ORB_TABLE_EVENTS = 1,   /* one row per event item, messages included    */
    ORB_TABLE_BLOCKS = 2,   /* one row per RECORDING item (starts and ends) */
    ORB_TABLE_TRIALS = 3    /* one row per trial                            */
};

/* Element types of a column. */
enum {
    ORB_COLUMN_UINT8 = 1, ORB_COLUMN_INT16 = 2, ORB_COLUMN_UINT16 = 3,
    ORB_COLUMN_INT32 = 4, ORB_COLUMN_UINT32 = 5, ORB_COLUMN_FLOAT32 = 6,
    ORB_COLUMN_FLOAT64 = 7, ORB_COLUMN_INT64 = 8, ORB_COLUMN_UINT64 = 9
};

/* The members of the records as data.  Each list below names the value
 * members of one record in their order, one M(member, "name", TYPE, length,
 * flag) each: the member of the struct, the name its column has (the stem
 * of its columns for an array), its element type ORB_COLUMN_TYPE, its
 * number of elements (1; 2 for an eye pair, whose [0] and [1] are the
 * columns name_left and name_right; 8 for extraData, the columns
 * extra_data_0 .. extra_data_7), and the flag of orb_read_columns without
 * which its columns are left out (0: always there).  A C caller expands a
 * list with a macro of its own, e.g. the offsets:
 *
 *     #define OFFSET(m, name, type, n, flag) offsetof(FSAMPLE, m),
 *     static const size_t offsets[] = { ORB_SAMPLE_MEMBERS(OFFSET) };
 *
 * or asks orb_record_members() for the same lists at run time. */

/* FSAMPLE: every member. */
#define ORB_SAMPLE_MEMBERS(M)                                               \
    M(time, "time", UINT32, 1, 0)                                           \
    M(rawX, "raw_x", FLOAT32, 2, 0)                                         \
    M(rawY, "raw_y", FLOAT32, 2, 0)                                         \
    M(secondX, "second_x", FLOAT32, 2, 0)                                   \
    M(secondY, "second_y", FLOAT32, 2, 0)                                   \
    M(pupilSize, "pupil_size", FLOAT32, 2, 0)                               \
    M(gazeX, "gaze_x", FLOAT32, 2, 0)                                       \
    M(gazeY, "gaze_y", FLOAT32, 2, 0)                                       \
    M(resolutionX, "resolution_x", FLOAT32, 1, 0)                           \
    M(resolutionY, "resolution_y", FLOAT32, 1, 0)                           \
    M(gazeVelX, "gaze_vel_x", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)           \
    M(gazeVelY, "gaze_vel_y", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)           \
    M(secondVelX, "second_vel_x", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)       \
    M(secondVelY, "second_vel_y", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)       \
    M(rawVelX, "raw_vel_x", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)             \
    M(rawVelY, "raw_vel_y", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)             \
    M(fastGazeVelX, "fast_gaze_vel_x", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)  \
    M(fastGazeVelY, "fast_gaze_vel_y", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)  \
    M(fastSecondVelX, "fast_second_vel_x", FLOAT32, 2,                      \
      ORB_COLUMNS_VELOCITIES)                                               \
    M(fastSecondVelY, "fast_second_vel_y", FLOAT32, 2,                      \
      ORB_COLUMNS_VELOCITIES)                                               \
    M(fastRawVelX, "fast_raw_vel_x", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)    \
    M(fastRawVelY, "fast_raw_vel_y", FLOAT32, 2, ORB_COLUMNS_VELOCITIES)    \
    M(extraData, "extra_data", UINT16, 8, 0)                                \
    M(flags, "flags", UINT16, 1, 0)                                         \
    M(input, "input", UINT16, 1, 0)                                         \
    M(buttons, "buttons", UINT16, 1, 0)                                     \
    M(extraType, "extra_type", INT16, 1, 0)                                 \
    M(status, "status", UINT16, 1, 0)

/* FEVENT: every member but the message pointer. */
#define ORB_EVENT_MEMBERS(M)                                                \
    M(time, "time", UINT32, 1, 0)                                           \
    M(type, "type", UINT16, 1, 0)                                           \
    M(contents, "contents", UINT16, 1, 0)                                   \
    M(startTime, "start_time", UINT32, 1, 0)                                \
    M(endTime, "end_time", UINT32, 1, 0)                                    \
    M(startPosX, "start_pos_x", FLOAT32, 1, 0)                              \
    M(startPosY, "start_pos_y", FLOAT32, 1, 0)                              \
    M(startGazeX, "start_gaze_x", FLOAT32, 1, 0)                            \
    M(startGazeY, "start_gaze_y", FLOAT32, 1, 0)                            \
    M(startScalar, "start_scalar", FLOAT32, 1, 0)                           \
    M(endPosX, "end_pos_x", FLOAT32, 1, 0)                                  \
    M(endPosY, "end_pos_y", FLOAT32, 1, 0)                                  \
    M(endGazeX, "end_gaze_x", FLOAT32, 1, 0)                                \
    M(endGazeY, "end_gaze_y", FLOAT32, 1, 0)                                \
    M(endScalar, "end_scalar", FLOAT32, 1, 0)                               \
    M(avgPosX, "avg_pos_x", FLOAT32, 1, 0)                                  \
    M(avgPosY, "avg_pos_y", FLOAT32, 1, 0)                                  \
    M(avgGazeX, "avg_gaze_x", FLOAT32, 1, 0)                                \
    M(avgGazeY, "avg_gaze_y", FLOAT32, 1, 0)                                \
    M(avgScalar, "avg_scalar", FLOAT32, 1, 0)                               \
    M(avgPupil, "avg_pupil", FLOAT32, 1, 0)                                 \
    M(peakPupil, "peak_pupil", FLOAT32, 1, 0)                               \
    M(startPupil, "start_pupil", FLOAT32, 1, 0)                             \
    M(endPupil, "end_pupil", FLOAT32, 1, 0)                                 \
    M(startResX, "start_res_x", FLOAT32, 1, 0)                              \
    M(endResX, "end_res_x", FLOAT32, 1, 0)                                  \
    M(startResY, "start_res_y", FLOAT32, 1, 0)                              \
    M(endResY, "end_res_y", FLOAT32, 1, 0)                                  \
    M(eye, "eye", INT16, 1, 0)                                              \
    M(aux0, "aux0", UINT16, 1, 0)                                           \
    M(blockFlags, "block_flags", UINT16, 1, 0)                              \
    M(blockFlags2, "block_flags2", UINT16, 1, 0)                            \
    M(blockOption, "block_option", UINT16, 1, 0)                            \
    M(itemTag, "item_tag", UINT16, 1, 0)

/* Recording: every member but the library's own. */
#define ORB_RECORDING_MEMBERS(M)                                            \
    M(time, "time", UINT32, 1, 0)                                           \
    M(sampleRate, "sample_rate", FLOAT32, 1, 0)                             \
    M(eventFlags, "event_flags", UINT16, 1, 0)                              \
    M(sampleFlags, "sample_flags", UINT16, 1, 0)                            \
    M(state, "state", UINT8, 1, 0)                                          \
    M(recordType, "record_type", UINT8, 1, 0)                               \
    M(filterFlag, "filter_flag", UINT8, 1, 0)                               \
    M(modeFlag, "mode_flag", UINT8, 1, 0)                                   \
    M(modeLevel, "mode_level", UINT8, 1, 0)                                 \
    M(blockOption2, "block_option2", UINT8, 1, 0)                           \
    M(eyes, "eyes", UINT8, 1, 0)

/* ORB_CAMERA: every member. */
#define ORB_CAMERA_MEMBERS(M)                                               \
    M(pupilArea, "pupil_area", INT32, 2, ORB_COLUMNS_CAMERA)                \
    M(crArea, "cr_area", INT32, 2, ORB_COLUMNS_CAMERA)                      \
    M(cr2Area, "cr2_area", INT32, 2, ORB_COLUMNS_CAMERA)                    \
    M(pupilWidth, "pupil_width", INT32, 2, ORB_COLUMNS_CAMERA)              \
    M(pupilHeight, "pupil_height", INT32, 2, ORB_COLUMNS_CAMERA)            \
    M(crWidth, "cr_width", INT32, 1, ORB_COLUMNS_CAMERA)                    \
    M(crHeight, "cr_height", INT32, 1, ORB_COLUMNS_CAMERA)                  \
    M(windowX, "window_x", INT32, 1, ORB_COLUMNS_CAMERA)                    \
    M(windowY, "window_y", INT32, 1, ORB_COLUMNS_CAMERA)                    \
    M(rawPupilX, "raw_pupil_x", FLOAT32, 2, ORB_COLUMNS_CAMERA)             \
    M(rawPupilY, "raw_pupil_y", FLOAT32, 2, ORB_COLUMNS_CAMERA)             \
    M(rawCrX, "raw_cr_x", FLOAT32, 2, ORB_COLUMNS_CAMERA)                   \
    M(rawCrY, "raw_cr_y", FLOAT32, 2, ORB_COLUMNS_CAMERA)                   \
    M(rawCr2X, "raw_cr2_x", FLOAT32, 2, ORB_COLUMNS_CAMERA)                 \
    M(rawCr2Y, "raw_cr2_y", FLOAT32, 2, ORB_COLUMNS_CAMERA)                 \
    M(pupilCrX, "pupil_cr_x", FLOAT32, 2, ORB_COLUMNS_CAMERA)               \
    M(pupilCrY, "pupil_cr_y", FLOAT32, 2, ORB_COLUMNS_CAMERA)

/* The records orb_record_members describes. */
enum {
    ORB_RECORD_SAMPLE = 0,    /* FSAMPLE, ORB_SAMPLE_MEMBERS                 */
    ORB_RECORD_EVENT = 1,     /* FEVENT, ORB_EVENT_MEMBERS                   */
    ORB_RECORD_RECORDING = 2, /* Recording, ORB_RECORDING_MEMBERS            */
    ORB_RECORD_CAMERA = 3     /* ORB_CAMERA, ORB_CAMERA_MEMBERS              */
};

/* One value of a record, from the lists above: a member, or one element
 * of an array member (then a column of its own). */
typedef struct ORB_MEMBER {
    const char *name;       /* its column's name: "time", "gaze_x_left",
                               "extra_data_3"                                */
    const char *stem;       /* the member's name in the list: "time",
                               "gaze_x", "extra_data"                        */
    uint32_t offset;        /* byte offset of the value in the record        */
    int type;               /* ORB_COLUMN_* of the value                     */
    int element;            /* its index in the member (the eye of a pair),
                               0 for a member of one value                   */
    int length;             /* elements of the member: 1, 2 (an eye pair)
                               or 8                                          */
    int flag;               /* ORB_COLUMNS_* its column needs; 0 for none    */
} ORB_MEMBER;

/* The values of `record` (ORB_RECORD_*) in their order, an array member's
 * elements one after another: writes their number to *count and returns
 * the first.  The table is static: valid for ever, the same on every call,
 * any thread.  An unknown record gives NULL and 0.  `count` must not be
 * NULL. */
ORBAPI_EXPORT const ORB_MEMBER *orb_record_members(int record, int *count);

/* The columns of each table, in this order.  A member of an eye pair gives
 * the columns name_left and name_right, extraData extra_data_0 ..
 * extra_data_7.
 *
 * ORB_TABLE_SAMPLES: those of ORB_SAMPLE_MEMBERS (the velocities only with
 *   ORB_COLUMNS_VELOCITIES); with ORB_COLUMNS_CAMERA those of
 *   ORB_CAMERA_MEMBERS, the values of orb_get_camera_values for the
 *   sample, after the trial list is built; index, block, trial (INT32, see
 *   below).
 *
 * ORB_TABLE_EVENTS, every item that is neither a sample nor a RECORDING
 *   item: those of ORB_EVENT_MEMBERS; message_offset (UINT64) and
 *   message_length (UINT32): where a MESSAGE's text lies in
 *   orb_columns_text(), the stored length clamped to 0..498 (0 and 0 for
 *   other items); index, block, trial (INT32).
 *
 * ORB_TABLE_BLOCKS, every RECORDING item: those of ORB_RECORDING_MEMBERS;
 *   index, block (INT32).
 *
 * ORB_TABLE_TRIALS, the TRIAL members of every trial:
 *   block (INT32, the block of TRIAL.rec, -1 when none); duration (UINT32,
 *   TRIAL.trialWord); start_time, end_time (UINT32); start_index,
 *   end_index (UINT32, the index positions the trial spans).
 *
 * orb_columns_layout() lists the columns of a table without a read.
 *
 * index: the row's position in the time-ordered index (as
 * orb_get_element_index before the step onto it).  block: the 0-based
 * number of the block the row lies in, counting block starts (RECORDING
 * items with state 1) in delivery order; a row lies in the latest block
 * start at or before it unless a block end came between (a block end's own
 * row lies in the block it ends); -1 outside every block.  trial: the
 * 0-based trial whose index span holds the row (start_index <= index <
 * end_index; the latest such trial), -1 outside every trial. */

/* Flags of orb_read_columns. */
#define ORB_COLUMNS_VELOCITIES 0x1 /* add the 24 velocity columns of samples */
#define ORB_COLUMNS_CAMERA     0x2 /* add the raw pupil and CR columns       */

/* Called now and then during a read with the fraction done (0 to 1, never
 * decreasing; 1 is reported once at the end).  Return 0 to go on, anything
 * else to cancel: the read then fails with the reason "Cancelled\n". */
typedef int (*orb_progress_function)(double fraction, void *user);

/* One column: its name, its element type and its rows. */
typedef struct ORB_COLUMN {
    const char *name;       /* e.g. "gaze_x_left"; valid as long as the
                               ORB_COLUMNS                                   */
    int type;               /* ORB_COLUMN_*                                  */
    const void *data;       /* orb_columns_rows() elements of that type,
                               aligned for it; NULL when the table is empty  */
} ORB_COLUMN;

/* Reads the whole recording `fname` into columns.  `consistency`,
 * `loadevents` and `loadsamples` are those of orb_open_file.  `flags`: any
 * of ORB_COLUMNS_VELOCITIES and ORB_COLUMNS_CAMERA.  `trial_start` and
 * `trial_end` are the trial identifiers (as orb_set_trial_identifier; NULL
 * trial_start means "TRIALID", NULL trial_end none); they are copied.
 * `progress` may be NULL.  Returns the columns, or NULL with *errval -1 when
 * the file is refused (reason in orb_get_last_error()), -2 when the read was
 * cancelled, -3 when memory ran out.  `errval` may be NULL.
 * Any thread may call it; two calls on two threads run in parallel.
 * Speed: with no flags the samples of most recordings are decoded
 * while the file is read for its index, in one pass; velocities and the
 * camera values need the cursor's sample queue and take about twice as
 * long.  The columns are new memory each time: on most systems providing
 * it costs about as much as the decoding. */
ORBAPI_EXPORT ORB_COLUMNS *orb_read_columns(const char *fname, int consistency,
                                            int loadevents, int loadsamples,
                                            int flags, const char *trial_start,
                                            const char *trial_end,
                                            orb_progress_function progress,
                                            void *user, int *errval);

/* As orb_read_columns, over `size` bytes at `data` (see orb_open_memory).
 * The bytes are needed only during the call. */
ORBAPI_EXPORT ORB_COLUMNS *orb_read_columns_memory(
    const void *data, size_t size, int consistency, int loadevents,
    int loadsamples, int flags, const char *trial_start, const char *trial_end,
    orb_progress_function progress, void *user, int *errval);

/* Frees the columns and everything they hold.  NULL is accepted. */
ORBAPI_EXPORT void orb_free_columns(ORB_COLUMNS *c);

/* Number of rows of `table`; 0 for an unknown table or a NULL handle. */
ORBAPI_EXPORT size_t orb_columns_rows(const ORB_COLUMNS *c, int table);

/* Number of columns of `table`; 0 for an unknown table or a NULL handle. */
ORBAPI_EXPORT int orb_columns_count(const ORB_COLUMNS *c, int table);

/* Writes column `i` (0 to orb_columns_count() - 1) of `table` to *out.
 * Returns 0, or -1 (and leaves *out alone) when there is no such column. */
ORBAPI_EXPORT int orb_columns_column(const ORB_COLUMNS *c, int table, int i,
                                     ORB_COLUMN *out);

/* Writes the column of `table` called `name` to *out.  Returns 0, or -1
 * when there is none. */
ORBAPI_EXPORT int orb_columns_find(const ORB_COLUMNS *c, int table,
                                   const char *name, ORB_COLUMN *out);

/* The message bytes of the events table, all messages one after another;
 * a row's bytes are its "message_length" bytes from its "message_offset".
 * Writes their total size to *size (may be NULL).  NULL when there are
 * none. */
ORBAPI_EXPORT const char *orb_columns_text(const ORB_COLUMNS *c, size_t *size);

/* The preamble text as orb_get_preamble_text gives it, and the revisions
 * as orb_get_revision and orb_get_oculant_revision give them. */
ORBAPI_EXPORT const char *orb_columns_preamble(const ORB_COLUMNS *c);
ORBAPI_EXPORT int orb_columns_revision(const ORB_COLUMNS *c);
ORBAPI_EXPORT int orb_columns_oculant_revision(const ORB_COLUMNS *c);

/* Number of items in the time-ordered index (orb_get_element_count). */
ORBAPI_EXPORT size_t orb_columns_items(const ORB_COLUMNS *c);

/* Bytes of one element of a column of element type `type` (ORB_COLUMN_*):
 * 1, 2, 4 or 8; 0 for an unknown type.  A column's data spans
 * orb_columns_rows() times this many bytes.  Any thread may call it. */
ORBAPI_EXPORT size_t orb_column_type_size(int type);

/* Writes column `i` of `table` as orb_read_columns lays it out for `flags`
 * to *out (its data NULL), without reading anything: the names and types
 * an empty table of that read has.  Returns 0, or -1 (leaving *out alone)
 * when there is no such column.  The names are static.  Any thread. */
ORBAPI_EXPORT int orb_columns_layout(int table, int flags, int i,
                                     ORB_COLUMN *out);

/* ------------------------------------------------------------------------ */
/* Reading with options: chosen columns, a time window                      */
/* ------------------------------------------------------------------------ */

/* What orb_read, orb_read_memory and orb_read_open read.  Fill it with
 * orb_read_options_init and then set the members wanted: later versions of
 * the library add members at the end only, and tell them apart by `size`,
 * so a caller built against this header keeps working with them. */
typedef struct ORB_READ_OPTIONS {
    size_t size;            /* sizeof(ORB_READ_OPTIONS) as the caller was
                               built; smaller than this version's first
                               size is refused                               */
    int consistency;        /* as orb_open_file; not used by orb_read_open   */
    int loadevents;         /* as orb_open_file; not used by orb_read_open   */
    int loadsamples;        /* as orb_open_file; not used by orb_read_open   */
    int flags;              /* ORB_COLUMNS_VELOCITIES, ORB_COLUMNS_CAMERA:
                               the columns there are to choose from          */
    const char *trial_start; /* trial identifiers as orb_read_columns; not
                               used by orb_read_open (the handle's are)      */
    const char *trial_end;
    orb_progress_function progress; /* may be NULL                           */
    void *user;             /* handed to `progress`                          */
    /* The columns wanted of each table (by ORB_TABLE_*): a NULL-terminated
     * list of names, made in that order; NULL for every column of the
     * layout (orb_columns_layout).  A velocity or camera column can be
     * named only with its flag.  Only the named columns get memory, and the
     * velocities and camera values are computed only when one of theirs is
     * named.  The lists are read during the call only. */
    const char *const *columns[4];
    /* A time window: when `window` is nonzero, only the stretch of the
     * time-ordered index from the first item whose time is at or after
     * `start` to the first item whose time is at or after `end` (times in
     * ms as the records hand them out, i.e. after the time adjustment) is
     * read.  Every table then holds the rows of the items of that stretch
     * that the whole read has, bit for bit the same rows (velocities, block
     * and trial numbers included, message_offset aside, which counts in
     * the window's own text); the trials table holds the trials that start
     * in the stretch.  A window outside the recording gives empty tables.
     * start > end is refused. */
    int window;
    int64_t start;
    int64_t end;
} ORB_READ_OPTIONS;

/* Sets *options to the defaults: size sizeof(ORB_READ_OPTIONS), consistency
 * 0, loadevents and loadsamples 1, no flags, no progress, every column, no
 * window.  NULL is ignored. */
ORBAPI_EXPORT void orb_read_options_init(ORB_READ_OPTIONS *options);

/* Reads the recording `fname` into columns as `options` say (NULL: the
 * defaults of orb_read_options_init).  Returns the columns, or NULL with
 * *errval (may be NULL):
 *   -1 the file is refused, or the options are: a size too small, an
 *      unknown table's or column's name (the reason names the known
 *      columns), a velocity or camera column without its flag, a column
 *      named twice, start > end; the reason is in orb_get_last_error();
 *   -2 the read was cancelled through `progress`;
 *   -3 memory ran out.
 * Any thread; calls on two threads run in parallel.  A window from a path
 * still reads the whole file for its index: read windows from an open
 * handle (orb_read_open) to pay for the index once. */
ORBAPI_EXPORT ORB_COLUMNS *orb_read(const char *fname,
                                    const ORB_READ_OPTIONS *options,
                                    int *errval);

/* As orb_read, over `size` bytes at `data` (see orb_open_memory).  The bytes
 * are needed only during the call. */
ORBAPI_EXPORT ORB_COLUMNS *orb_read_memory(const void *data, size_t size,
                                           const ORB_READ_OPTIONS *options,
                                           int *errval);

/* As orb_read, from the recording open at `ef` with its open arguments and
 * trial identifiers (those of `options` are not used).  The handle keeps
 * its index: a window is found by a binary search on it and costs time in
 * proportion to the window's items (and to the recording's event and
 * block items before it, which set what the window's first rows depend
 * on).  The handle's position (orb_get_element_index) is kept; the next
 * orb_get_next_data reads on as after orb_goto_index.  Fails as orb_read,
 * and with -1 when `ef` is NULL.  Not on a thread that uses `ef` at the
 * same time. */
ORBAPI_EXPORT ORB_COLUMNS *orb_read_open(_ORBFILE *ef,
                                         const ORB_READ_OPTIONS *options,
                                         int *errval);

#ifdef __cplusplus
} /* extern "C" */

/* These five keep C++ linkage: C++ callers link to them as declared here.
 * Like the functions above they take a handle that must not be NULL. */

/* Samples per second of the block whose start orb_get_next_data stepped over
 * last; 0 before any and after stepping over a block end.  Moves by trial,
 * bookmark or time do not change it (trap 3). */
ORBAPI_EXPORT float orb_get_sample_per_second(_ORBFILE *ef);

/* 1000 / orb_get_sample_per_second(), truncated toward zero (2 at 500 Hz, 0
 * at 2000 Hz); 0 when the rate is 0, negative or not a number. */
ORBAPI_EXPORT int orb_get_sample_interval(_ORBFILE *ef);

/* 1000 / orb_get_sample_per_second(), not truncated (0.5 at 2000 Hz); 0 in
 * the same cases. */
ORBAPI_EXPORT double orb_get_sample_interval_ex(_ORBFILE *ef);

/* Filter level (0 to 15) of the block start decoded last (trap 3); after
 * opening, that of the file's last block. */
ORBAPI_EXPORT int get_filter_level_for_sample(_ORBFILE *ef);

/* The current position: the index (0 to orb_get_element_count()) of the
 * next item orb_get_next_data will step onto. */
ORBAPI_EXPORT int orb_get_element_index(_ORBFILE *ef);
#endif

/* Layout checks: callers and the library agree on every offset. */
#ifdef __cplusplus
#define ORBAPI_STATIC_ASSERT static_assert
#else
#define ORBAPI_STATIC_ASSERT _Static_assert
#endif
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, rawX) == 4, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, resolutionX) == 60, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, gazeVelX) == 68, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, fastRawVelY) == 156, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, extraData) == 164, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, flags) == 180, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, extraType) == 186, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(offsetof(FSAMPLE, status) == 188, "FSAMPLE layout");
ORBAPI_STATIC_ASSERT(sizeof(FSAMPLE) == 192, "FSAMPLE size");
ORBAPI_STATIC_ASSERT(sizeof(ORB_MESSAGE) == 500, "ORB_MESSAGE size");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, type) == 4, "FEVENT layout");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, startTime) == 8, "FEVENT layout");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, startPosX) == 16, "FEVENT layout");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, endResY) == 104, "FEVENT layout");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, eye) == 108, "FEVENT layout");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, itemTag) == 118, "FEVENT layout");
ORBAPI_STATIC_ASSERT(offsetof(FEVENT, message) == 120, "FEVENT layout");
ORBAPI_STATIC_ASSERT(sizeof(FEVENT) == 128, "FEVENT size");
ORBAPI_STATIC_ASSERT(offsetof(Recording, eventFlags) == 8, "Recording layout");
ORBAPI_STATIC_ASSERT(offsetof(Recording, state) == 12, "Recording layout");
ORBAPI_STATIC_ASSERT(offsetof(Recording, eyes) == 18, "Recording layout");
ORBAPI_STATIC_ASSERT(offsetof(Recording, orderKey) == 24, "Recording layout");
ORBAPI_STATIC_ASSERT(offsetof(Recording, itemRef) == 32, "Recording layout");
ORBAPI_STATIC_ASSERT(sizeof(Recording) == 40, "Recording size");
ORBAPI_STATIC_ASSERT(sizeof(ALLF_DATA) == 192, "ALLF_DATA size");
ORBAPI_STATIC_ASSERT(offsetof(TRIAL, trialWord) == sizeof(void *), "TRIAL layout");
ORBAPI_STATIC_ASSERT(offsetof(TRIAL, endTime) == sizeof(void *) + 8, "TRIAL layout");
ORBAPI_STATIC_ASSERT(sizeof(BOOKMARK) == 4, "BOOKMARK size");
ORBAPI_STATIC_ASSERT(offsetof(ORB_CAMERA, crWidth) == 40, "ORB_CAMERA layout");
ORBAPI_STATIC_ASSERT(offsetof(ORB_CAMERA, rawPupilX) == 56, "ORB_CAMERA layout");
ORBAPI_STATIC_ASSERT(sizeof(ORB_CAMERA) == 120, "ORB_CAMERA size");

#endif /* ORBAPI_H */
