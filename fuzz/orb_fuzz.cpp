// libFuzzer target: any bytes, opened from memory in every mode and with
// every exported function called on what opens, then read into columns.  Each input is tried three
// ways: as it is (a whole file), as the item stream behind a valid magic
// line and preamble, and as the item stream of a compressed container, so
// that most of the time goes into the items rather than the magic line.
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Exercise.h"
#include "orbapi.h"

namespace {

void ignoreLine(char*) {}

const char kPreamble[] = "DATE: Sat Nov 21 12:00:00 2026\n"
                         "VERSION: OCULANT MK 3\n"
                         "SOURCE: OCULANT MK\n"
                         "ENDP:\n";

std::vector<unsigned char> withHeader(const char* magic, const unsigned char* body, size_t size)
{
    std::vector<unsigned char> out(magic, magic + std::strlen(magic));
    out.insert(out.end(), kPreamble, kPreamble + sizeof kPreamble - 1);
    out.insert(out.end(), body, body + size);
    return out;
}

// Opens the bytes under every mode and load switch, or only the first ones.
void openEveryWay(const unsigned char* data, size_t size, bool all = true)
{
    for (int mode : orbfuzz::kModes) {
        for (const auto& load : orbfuzz::kLoads) {
            if (!all && (mode != 0 || load != orbfuzz::kLoads[0]))
                continue;
            int err = 0;
            _ORBFILE* f = orb_open_memory(size ? data : nullptr, size, mode, load[0], load[1], &err);
            if (!f) {
                // The reason must be there.
                if (err != -1 || orb_get_last_error()[0] == '\0')
                    __builtin_trap();
                continue;
            }
            orbfuzz::Transcript none(nullptr);
            // What lies past a few thousand items adds time, not code.
            orbfuzz::exercise(f, none, 4096);
            const size_t items = size_t(orb_get_element_count(f));
            orb_close_file(f);
            // What opens reads into columns too, samples taken either way
            // (from the scan without options, through the sample queue with
            // them): never more rows than items, the same values in every
            // column both reads have, and the sample times and gaze values
            // a cursor walk of a fresh handle hands out.
            ORB_COLUMNS* reads[2] = {};
            const int flags[2] = {0, ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA};
            for (int k = 0; k < 2; ++k) {
                ORB_COLUMNS* c = orb_read_columns_memory(size ? data : nullptr, size, mode, load[0], load[1],
                                                         flags[k], nullptr, nullptr, nullptr, nullptr, &err);
                if (!c || err != 0 || orb_columns_items(c) != items ||
                    orb_columns_rows(c, ORB_TABLE_SAMPLES) + orb_columns_rows(c, ORB_TABLE_EVENTS) +
                            orb_columns_rows(c, ORB_TABLE_BLOCKS) > items)
                    __builtin_trap();
                reads[k] = c;
            }
            if (!orbfuzz::sameColumns(reads[0], reads[1]))
                __builtin_trap();
            // And the samples of the read without options are the cursor's.
            f = orb_open_memory(size ? data : nullptr, size, mode, load[0], load[1], &err);
            if (!f || !orbfuzz::sameSamplesAsCursor(reads[0], f))
                __builtin_trap();
            orb_close_file(f);
            orb_free_columns(reads[0]);
            orb_free_columns(reads[1]);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = (orb_set_log_function(ignoreLine), true);
    (void)quiet;

    openEveryWay(data, size);
    std::vector<unsigned char> plain = withHeader("NORVANE_LAB_COMBFILE\n", data, size);
    openEveryWay(plain.data(), plain.size());

    uLongf zsize = compressBound(uLong(size));
    std::vector<unsigned char> z(zsize);
    if (compress2(z.data(), &zsize, data, uLong(size), 1) == Z_OK) {
        std::vector<unsigned char> zip = withHeader("NORVANE_LAB_HSPDFILE ZIP\n", z.data(), zsize);
        // The items are those of the plain form: here only the container
        // is new.
        openEveryWay(zip.data(), zip.size(), false);
    }
    return 0;
}
