/*
 * orbsummary: what is in a recording, on one screen.
 *
 *     orbsummary FILE [CONSISTENCY]
 *
 * Prints the tracker, the recording blocks with their spans, rates and eyes,
 * the counts of samples, fixations, saccades, blinks, messages and trials,
 * what the library repaired or reported as damaged, and then the first
 * trial's items as a table.  Runs of samples are shown by their first sample
 * and a count; a value the tracker did not record is shown as "missing".
 * CONSISTENCY is the open argument of orb_open_file (default 2: check and
 * repair).  Exit status 1 when the file cannot be opened.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "orbapi.h"

/* The markers of a value the tracker did not record. */
#define MISSING_POSITION -32768.0f
#define MISSING_SCALED 100000000.0f

/* ------------------------------------------------------------------------ */
/* The library's log lines, kept while the recording is opened and read.   */

#define KEPT_LINES 6

static struct {
    char lines[KEPT_LINES][500];
    int kept;
    int total;
} log_lines;

static void keep_log_line(char *line)
{
    if (log_lines.kept < KEPT_LINES) {
        char *copy = log_lines.lines[log_lines.kept++];
        snprintf(copy, sizeof log_lines.lines[0], "%s", line);
        size_t n = strcspn(copy, "\n");
        while (n > 0 && copy[n - 1] == ' ')
            --n;
        copy[n] = '\0';
    }
    ++log_lines.total;
}

/* ------------------------------------------------------------------------ */
/* The summary                                                              */

#define MOST_BLOCKS 12

typedef struct {
    unsigned start, end; /* end is 0 while the block has no end item */
    int ended;
    float rate;
    int eyes;
} Block;

typedef struct {
    Block blocks[MOST_BLOCKS];
    int block_count;
    long samples, placeholders, fixations, saccades, blinks, messages;
} Counts;

static const char *eyes_name(int eyes)
{
    switch (eyes) {
    case 1: return "left eye";
    case 2: return "right eye";
    case 3: return "both eyes";
    default: return "no eye";
    }
}

/* 1234567 as "1,234,567". */
static const char *grouped(long n, char *out, size_t size)
{
    char digits[32];
    int len = snprintf(digits, sizeof digits, "%ld", n < 0 ? -n : n);
    size_t k = 0;
    if (n < 0 && k + 1 < size)
        out[k++] = '-';
    for (int i = 0; i < len && k + 1 < size; ++i) {
        if (i > 0 && (len - i) % 3 == 0 && k + 1 < size)
            out[k++] = ',';
        out[k++] = digits[i];
    }
    out[k] = '\0';
    return out;
}

static void count_items(_ORBFILE *f, Counts *c)
{
    memset(c, 0, sizeof *c);
    int code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
        ALLF_DATA *d = orb_get_float_data(f);
        if (!d)
            continue;
        switch (code) {
        case SAMPLE:
            ++c->samples;
            /* A sample the repair filled into a gap carries this mark. */
            if (d->fs.extraType == 32767 && d->fs.extraData[0] == 32767)
                ++c->placeholders;
            break;
        case EFIX: ++c->fixations; break;
        case ESACC: ++c->saccades; break;
        case EBLINK: ++c->blinks; break;
        case MESSAGE: ++c->messages; break;
        case RECORDING:
            if (d->rec.state) {
                if (c->block_count < MOST_BLOCKS) {
                    Block *b = &c->blocks[c->block_count];
                    b->start = d->rec.time;
                    b->ended = 0;
                    b->rate = d->rec.sampleRate;
                    b->eyes = d->rec.eyes;
                }
                ++c->block_count;
            } else if (c->block_count > 0 && c->block_count <= MOST_BLOCKS) {
                Block *b = &c->blocks[c->block_count - 1];
                b->end = d->rec.time;
                b->ended = 1;
            }
            break;
        default: break;
        }
    }
}

static void print_summary(const char *path, _ORBFILE *f, const Counts *c, int trials)
{
    static const char *models[] = {"", "", " (MK)", " (HQ)"};
    int model = orb_get_oculant_revision(f);
    char n[32];

    printf("%s\n", path);
    printf("  %-11srevision %d, model %d%s\n", "tracker", orb_get_revision(f), model,
           model >= 0 && model <= 3 ? models[model] : "");
    int shown = c->block_count < MOST_BLOCKS ? c->block_count : MOST_BLOCKS;
    for (int k = 0; k < shown; ++k) {
        const Block *b = &c->blocks[k];
        char key[16];
        snprintf(key, sizeof key, c->block_count > 1 ? "block %d" : "block", k + 1);
        if (b->ended)
            printf("  %-11s%u-%u ms (%.3f s), %g Hz, %s\n", key, b->start, b->end,
                   (b->end - b->start) / 1000.0, b->rate, eyes_name(b->eyes));
        else
            printf("  %-11sfrom %u ms, no block end, %g Hz, %s\n", key, b->start, b->rate,
                   eyes_name(b->eyes));
    }
    if (c->block_count > shown)
        printf("  %-11s... %d more blocks\n", "", c->block_count - shown);
    if (c->block_count == 0)
        printf("  %-11snone\n", "blocks");
    printf("  %-11s%s", "samples", grouped(c->samples, n, sizeof n));
    if (c->placeholders)
        printf(" (%s placeholders filled by the repair)", grouped(c->placeholders, n, sizeof n));
    printf("\n");
    printf("  %-11s%s\n", "fixations", grouped(c->fixations, n, sizeof n));
    printf("  %-11s%s\n", "saccades", grouped(c->saccades, n, sizeof n));
    printf("  %-11s%s\n", "blinks", grouped(c->blinks, n, sizeof n));
    printf("  %-11s%s\n", "messages", grouped(c->messages, n, sizeof n));
    printf("  %-11s%s\n", "trials", grouped(trials, n, sizeof n));
    if (log_lines.total == 0)
        printf("  %-11snone reported\n", "damage");
    for (int k = 0; k < log_lines.kept; ++k)
        printf("  %-11s%s\n", k == 0 ? "damage" : "", log_lines.lines[k]);
    if (log_lines.total > log_lines.kept)
        printf("  %-11s... %d more lines\n", "", log_lines.total - log_lines.kept);
}

/* ------------------------------------------------------------------------ */
/* The first trial's table                                                  */

/* One row of the table: time, item, eye, gaze x, gaze y, pupil, speed,
 * detail. */
static void row(const char *time, const char *item, const char *eye, const char *x,
                const char *y, const char *pupil, const char *speed, const char *detail)
{
    char line[800];
    int n = snprintf(line, sizeof line, "  %9s  %-15s %-6s %9s %9s %8s %9s  %s", time, item, eye,
                     x, y, pupil, speed, detail);
    if (n >= (int)sizeof line)
        n = (int)sizeof line - 1;
    while (n > 0 && line[n - 1] == ' ')
        --n;
    printf("%.*s\n", n, line);
}

static const char *number(float v, const char *format, char *out, size_t size)
{
    if (v == MISSING_POSITION || v == MISSING_SCALED)
        return "missing";
    snprintf(out, size, format, v);
    return out;
}

static const char *eye_name(int eye)
{
    return eye == 0 ? "left" : eye == 1 ? "right" : "?";
}

static const char *event_name(int code)
{
    switch (code) {
    case SFIX: return "fixation start";
    case EFIX: return "fixation end";
    case SSACC: return "saccade start";
    case ESACC: return "saccade end";
    case SBLINK: return "blink start";
    case EBLINK: return "blink end";
    case SSAMPLES: return "samples start";
    case ESAMPLES: return "samples end";
    case SEVENTS: return "events start";
    case EEVENTS: return "events end";
    case MESSAGE: return "message";
    default: return "event";
    }
}

static int is_end_event(int code)
{
    return code == EFIX || code == ESACC || code == EBLINK;
}

/* Where an item sits in time order: an end item at its event's end. */
static unsigned item_time(int code, const ALLF_DATA *d)
{
    if (code == SAMPLE)
        return d->fs.time;
    if (code == RECORDING)
        return d->rec.time;
    return is_end_event(code) ? d->fe.endTime : d->fe.startTime;
}

static void print_sample_rows(const FSAMPLE *s, long run)
{
    char t[16], x[16], y[16], p[16], v[16], detail[64] = "";
    snprintf(t, sizeof t, "%u%s", (unsigned)s->time, (s->flags & 0x0002) ? ".5" : "");
    if (run > 1)
        snprintf(detail, sizeof detail, "first of %ld samples", run);
    int first = 1;
    for (int eye = 0; eye < 2; ++eye) {
        if (!(s->flags & (eye == 0 ? 0x8000 : 0x4000)))
            continue;
        /* A pupil of 0 is the tracker's "not seen". */
        float pupil = s->pupilSize[eye] == 0.0f ? MISSING_POSITION : s->pupilSize[eye];
        /* The speed is the larger of the two velocity components' sizes:
         * enough for a glance, and no square root needed. */
        float vx = s->gazeVelX[eye], vy = s->gazeVelY[eye];
        float speed = MISSING_SCALED;
        if (vx != MISSING_SCALED && vy != MISSING_SCALED) {
            vx = vx < 0 ? -vx : vx;
            vy = vy < 0 ? -vy : vy;
            speed = vx > vy ? vx : vy;
        }
        row(first ? t : "", first ? "sample" : "", eye_name(eye),
            number(s->gazeX[eye], "%.1f", x, sizeof x), number(s->gazeY[eye], "%.1f", y, sizeof y),
            number(pupil, "%.0f", p, sizeof p), number(speed, "%.1f", v, sizeof v),
            first ? detail : "");
        first = 0;
    }
}

/* An event of both eyes at the same times is one row. */
typedef struct {
    int code;
    FEVENT e;
    int both;
    int pending;
} EventRow;

static void print_event_row(const EventRow *r)
{
    const FEVENT *e = &r->e;
    char t[16], x[16] = "", y[16] = "", p[16] = "", detail[600] = "";
    const char *xs = "", *ys = "", *ps = "";
    int ends = is_end_event(r->code);
    snprintf(t, sizeof t, "%u", (unsigned)(ends ? e->endTime : e->startTime));
    if (r->code == MESSAGE && e->message && e->message->length > 0) {
        int len = e->message->length - 1;
        while (len > 0 && (e->message->text[len - 1] == '\0' || e->message->text[len - 1] == '\n'))
            --len;
        snprintf(detail, sizeof detail, "\"%.*s\"", len, e->message->text);
    } else if (ends) {
        snprintf(detail, sizeof detail, "%u-%u ms", (unsigned)e->startTime, (unsigned)e->endTime);
    }
    if (r->code == EFIX) {
        xs = number(e->avgGazeX, "%.1f", x, sizeof x);
        ys = number(e->avgGazeY, "%.1f", y, sizeof y);
        ps = number(e->avgPupil == 0.0f ? MISSING_POSITION : e->avgPupil, "%.0f", p, sizeof p);
    }
    const char *eye = r->code == MESSAGE || r->code == SSAMPLES || r->code == ESAMPLES ||
                              r->code == SEVENTS || r->code == EEVENTS
                          ? ""
                      : r->both ? "both"
                                : eye_name(e->eye);
    row(t, event_name(r->code), eye, xs, ys, ps, "", detail);
}

static void flush_event(EventRow *r)
{
    if (r->pending)
        print_event_row(r);
    r->pending = 0;
}

static int same_event_other_eye(const EventRow *r, int code, const FEVENT *e)
{
    return r->pending && !r->both && r->code == code && code != MESSAGE &&
           r->e.startTime == e->startTime && r->e.endTime == e->endTime && r->e.eye != e->eye &&
           r->e.avgGazeY == e->avgGazeY && r->e.endGazeY == e->endGazeY;
}

static void print_first_trial(_ORBFILE *f, int trials)
{
    TRIAL t;
    if (trials == 0 || orb_jump_to_trial(f, 0) != 0 || orb_get_trial_header(f, &t) != 0) {
        printf("\nNo trials: no message marks one (a trial starts at a message holding "
               "\"%s\").\n",
               orb_get_start_trial_identifier(f) ? orb_get_start_trial_identifier(f) : "TRIALID");
        return;
    }
    printf("\nTrial 1 of %d, %u-%u ms: every item, a run of samples shown by its first\n", trials,
           (unsigned)t.startTime, (unsigned)t.endTime);
    row("time (ms)", "item", "eye", "gaze x", "gaze y", "pupil", "speed", "");
    row("", "", "", "(px)", "(px)", "(a.u.)", "(deg/s)", "");

    EventRow pending = {0};
    FSAMPLE first;
    long run = 0;
    int code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
        ALLF_DATA *d = orb_get_float_data(f);
        if (!d)
            continue;
        /* The trial ends with the item that closed it: stop past its time. */
        if (t.endTime && item_time(code, d) > t.endTime)
            break;
        if (code == SAMPLE) {
            flush_event(&pending);
            if (run++ == 0)
                first = d->fs;
            continue;
        }
        if (run > 0) {
            print_sample_rows(&first, run);
            run = 0;
        }
        if (code == RECORDING) {
            flush_event(&pending);
            char time[16], detail[64];
            snprintf(time, sizeof time, "%u", (unsigned)d->rec.time);
            snprintf(detail, sizeof detail, "%g Hz, %s", d->rec.sampleRate,
                     eyes_name(d->rec.eyes));
            row(time, d->rec.state ? "block start" : "block end", "", "", "", "", "",
                   d->rec.state ? detail : "");
            continue;
        }
        if (same_event_other_eye(&pending, code, &d->fe)) {
            pending.both = 1;
            continue;
        }
        flush_event(&pending);
        pending.code = code;
        pending.e = d->fe;
        pending.both = 0;
        pending.pending = 1;
        /* A message's text belongs to the record, valid until the next step. */
        if (code == MESSAGE)
            flush_event(&pending);
    }
    if (run > 0)
        print_sample_rows(&first, run);
    flush_event(&pending);
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILE [CONSISTENCY]\n", argv[0]);
        return 2;
    }
    int consistency = argc > 2 ? atoi(argv[2]) : 2;
    orb_set_log_function(keep_log_line);
    int err = 0;
    _ORBFILE *f = orb_open_file(argv[1], consistency, 1, 1, &err);
    if (!f) {
        fprintf(stderr, "%s: cannot open (%d): %s", argv[1], err, orb_get_last_error());
        if (!(consistency & 4))
            fprintf(stderr, "(consistency %d reads what comes before damage)\n", consistency | 4);
        return 1;
    }
    Counts counts;
    count_items(f, &counts);
    int trials = orb_get_trial_count(f);
    print_summary(argv[1], f, &counts, trials);
    print_first_trial(f, trials);
    orb_close_file(f);
    return 0;
}
