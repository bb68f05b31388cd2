/*
 * orbdump: prints a recording's preamble, every item in time order, and its
 * trials.
 *
 *     orbdump FILE [CONSISTENCY]
 *
 * CONSISTENCY is the open argument of orb_open_file (default 2: check and
 * repair).
 */
#include <stdio.h>
#include <stdlib.h>

#include "orbapi.h"

static void print_sample(const FSAMPLE *s)
{
    printf("%10u%s SAMPLE ", (unsigned)s->time, (s->flags & 0x0002) ? ".5" : "  ");
    for (int eye = 0; eye < 2; ++eye) {
        if (!(s->flags & (eye == 0 ? 0x8000 : 0x4000)))
            continue;
        printf(" %s gaze %.1f %.1f pupil %.0f vel %.2f %.2f", eye == 0 ? "L" : "R",
               s->gazeX[eye], s->gazeY[eye], s->pupilSize[eye], s->gazeVelX[eye],
               s->gazeVelY[eye]);
    }
    printf("\n");
}

static void print_event(int code, const FEVENT *e)
{
    static const char *names[] = {
        [SSPAN] = "SSPAN",       [ESPAN] = "ESPAN",       [SBLINK] = "SBLINK",
        [EBLINK] = "EBLINK",     [SSACC] = "SSACC",       [ESACC] = "ESACC",
        [SFIX] = "SFIX",         [EFIX] = "EFIX",         [POINT9] = "POINT9",
        [POINT10] = "POINT10",   [SSAMPLES] = "SSAMPLES", [ESAMPLES] = "ESAMPLES",
        [SEVENTS] = "SEVENTS",   [EEVENTS] = "EEVENTS",   [MESSAGE] = "MESSAGE",
        [POINT25] = "POINT25",   [POINT28] = "POINT28",
    };
    const char *name = code < (int)(sizeof names / sizeof names[0]) && names[code] ? names[code] : "?";
    /* Events are placed in time by their start. */
    printf("%10u   %-8s eye %d end %u", (unsigned)e->startTime, name, e->eye,
           (unsigned)e->endTime);
    if (code == MESSAGE && e->message && e->message->length > 0) {
        /* The stored bytes; the last one is the terminator's place. */
        int n = e->message->length - 1;
        printf(" \"%.*s\"", n, e->message->text);
    } else if (code == EFIX) {
        printf(" avg %.1f %.1f", e->avgGazeX, e->avgGazeY);
    }
    printf("\n");
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILE [CONSISTENCY]\n", argv[0]);
        return 2;
    }
    int consistency = argc > 2 ? atoi(argv[2]) : 2;
    int err = 0;
    _ORBFILE *f = orb_open_file(argv[1], consistency, 1, 1, &err);
    if (!f) {
        fprintf(stderr, "%s: cannot open (%d): %s", argv[1], err, orb_get_last_error());
        return 1;
    }

    printf("orbapi %s\n", orb_get_version());
    printf("revision %d, model %d, %d items\n", orb_get_revision(f), orb_get_oculant_revision(f),
           orb_get_element_count(f));
    int length = orb_get_preamble_text_length(f);
    if (length > 0) {
        char *text = malloc((size_t)length);
        if (text) {
            orb_get_preamble_text(f, text, length);
            printf("%s", text);
            free(text);
        }
    }

    int code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
        ALLF_DATA *d = orb_get_float_data(f);
        if (!d) {
            printf("(unreadable item %d)\n", code);
            continue;
        }
        if (code == SAMPLE) {
            print_sample(&d->fs);
        } else if (code == RECORDING) {
            const Recording *r = &d->rec;
            printf("%10u   %s rate %.1f eyes %d\n", (unsigned)r->time,
                   r->state ? "BLOCK START" : "BLOCK END", r->sampleRate, r->eyes);
        } else {
            print_event(code, &d->fe);
        }
    }

    int trials = orb_get_trial_count(f);
    printf("%d trials\n", trials);
    for (int i = 0; i < trials; ++i) {
        TRIAL t;
        if (orb_jump_to_trial(f, i) == 0 && orb_get_trial_header(f, &t) == 0)
            printf("trial %d: %u to %u (%u ms)\n", i, (unsigned)t.startTime, (unsigned)t.endTime,
                   (unsigned)t.trialWord);
    }

    orb_close_file(f);
    return 0;
}
