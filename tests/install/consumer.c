/* A program from outside the project: walks a recording through the
 * installed interface and checks that the library it loaded is the one whose
 * header it was compiled with.  Prints one line: the version, the number of
 * items and of samples. */
#include <orbapi.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: consumer RECORDING\n");
        return 2;
    }
    if (strcmp(orb_library_version(), ORBAPI_VERSION_STRING) != 0) {
        fprintf(stderr, "header %s, library %s\n", ORBAPI_VERSION_STRING,
                orb_library_version());
        return 1;
    }
    int err;
    _ORBFILE *f = orb_open_file(argv[1], 0, 1, 1, &err);
    if (!f)
        return 1;
    int items = 0, samples = 0, code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
        if (!orb_get_float_data(f)) {
            fprintf(stderr, "item %d unreadable\n", items);
            orb_close_file(f);
            return 1;
        }
        ++items;
        samples += code == SAMPLE;
    }
    int count = orb_get_element_count(f);
    orb_close_file(f);
    printf("orbapi %s: %d items, %d samples\n", orb_library_version(), items,
           samples);
    return items == count && samples > 0 ? 0 : 1;
}
