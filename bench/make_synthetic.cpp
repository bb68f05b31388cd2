// Writes the benchmarks' synthetic recording to a file, for benchmarks that
// run outside C++ (bench/bench_python.py).
//   make_synthetic PATH [SECONDS [RATE [EYES [compressed]]]]
// EYES: 1 left, 2 right, 3 both.  Prints the number of samples and items.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "SyntheticRecording.h"

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s PATH [SECONDS [RATE [EYES [compressed]]]]\n", argv[0]);
        return 2;
    }
    orbbench::SyntheticOptions o;
    if (argc > 2) o.seconds = std::atof(argv[2]);
    if (argc > 3) o.rate = std::atof(argv[3]);
    if (argc > 4) o.eyes = std::atoi(argv[4]);
    o.compressed = argc > 5 && std::strcmp(argv[5], "compressed") == 0;
    try {
        orbbench::SyntheticRecording r = orbbench::writeSyntheticRecording(argv[1], o);
        std::printf("%llu samples, %llu items, %llu bytes\n", (unsigned long long)r.samples,
                    (unsigned long long)r.entries(), (unsigned long long)r.fileBytes);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
