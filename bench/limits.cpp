// Measures what hostile recordings cost: for each crafted shape, the time
// and the peak memory of opening it and walking every item, beside the time
// of merely reading its bytes (the floor).  Each shape runs in a child
// process of its own so that its peak memory is its own.
//   limits [SIZE_MB [WORD]]   inputs of about SIZE_MB (default 4), only the
//                             shapes whose name holds WORD
// The inflating shapes have a body of 256 times SIZE_MB inflated.
// Prints one line per shape: input bytes, open + walk time, floor time,
// their ratio, peak memory added by the library and its ratio to the input,
// index entries, and the first log line.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "OrbWriter.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

using Clock = std::chrono::steady_clock;

long long logLines = 0;
std::string firstLine;
void countLine(char* line)
{
    if (logLines++ == 0)
        firstLine = line;
}

// Resident memory in kB: "VmRSS" now or "VmHWM", the peak since the last
// reset.
long statusKb(const char* key)
{
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0)
            return std::atol(line.c_str() + std::strlen(key) + 1);
    return -1;
}
void resetPeak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

Bytes header(const char* magic = "NORVANE_LAB_COMBFILE\n")
{
    OrbWriter w;
    w.magic = magic;
    w.terminate = false;
    return w.build();
}

void append(Bytes& out, const Bytes& b) { out.insert(out.end(), b.begin(), b.end()); }

Bytes blockStarts(uint32_t t)
{
    Bytes b = blockStart(SSAMPLES, t, 1000.0, kSampleItem | kLeftEye | kGazeGroup, 1).bytes();
    append(b, blockStart(SEVENTS, t, 1000.0, 0, 1, 10, 0x0312, kEventBlockRightEye).bytes());
    return b;
}

Bytes sampleAt(uint32_t t)
{
    SampleItem s;
    s.flags = kSampleItem | kFullTime | kLeftEye | kGazeGroup;
    s.time = t;
    Bytes b;
    s.writeTo(b);
    return b;
}

// The reference: an ordinary recording of the same size (binocular samples
// at 1000 Hz, a fixation and a saccade every 300 ms, a message a second).
Bytes ordinary(size_t size)
{
    Bytes out = header();
    append(out, blockStarts(1000));
    for (uint32_t t = 1000; out.size() < size; ++t) {
        SampleItem s;
        s.flags = kSampleItem | kFullTime | kBothEyes | kGazeGroup | kPupilGroup | kResolutionGroup;
        s.time = t;
        for (int e = 0; e < 2; ++e) {
            s.gaze[e][0] = int16_t(500 + (t % 300));
            s.gaze[e][1] = int16_t(400 - (t % 200));
            s.pupil[e] = 900;
        }
        s.res[0] = s.res[1] = 350;
        s.writeTo(out);
        if (t % 300 == 0) {
            append(out, EventItem(SFIX, 0).start(t - 250).bytes());
            append(out, EventItem(EFIX, 0).start(t - 250).end(t - 50).bytes());
            append(out, EventItem(SSACC, 0).start(t - 49).bytes());
            append(out, EventItem(ESACC, 0).start(t - 49).end(t - 10).bytes());
        }
        if (t % 1000 == 0)
            append(out, EventItem(24, -1).start(t).message("TRIALID " + std::to_string(t)).bytes());
    }
    put16(out, 0);
    return out;
}

// Samples whose clock jumps by a large step every few samples, read in
// repair mode (which fills what looks like dropped samples).
Bytes timeJumps(size_t size)
{
    Bytes out = header();
    append(out, blockStarts(1000));
    uint32_t t = 1000;
    for (size_t i = 0; out.size() < size; ++i) {
        t += (i % 3 == 2) ? 50000000u : 1u;
        append(out, sampleAt(t));
    }
    put16(out, 0);
    return out;
}

Bytes oneInstant(size_t size)
{
    Bytes out = header();
    append(out, blockStarts(1000));
    const Bytes event = EventItem(SFIX, 0).start(5000).bytes();
    const Bytes sample = sampleAt(5000);
    for (size_t i = 0; out.size() < size; ++i)
        append(out, i % 2 ? event : sample);
    put16(out, 0);
    return out;
}

Bytes allBlockStarts(size_t size)
{
    Bytes out = header();
    for (uint32_t t = 1000; out.size() < size; t += 3)
        append(out, blockStarts(t));
    put16(out, 0);
    return out;
}

Bytes filled(size_t size, unsigned char byte, bool withHeader)
{
    Bytes out = withHeader ? header() : Bytes();
    out.resize(size, byte);
    return out;
}

// A compressed container whose body inflates about a thousandfold: samples
// all alike, so that the deflated stream is mostly the longest matches.
Bytes inflating(size_t inflatedSize)
{
    Bytes body = blockStarts(1000);
    const Bytes sample = sampleAt(1000);
    while (body.size() < inflatedSize)
        append(body, sample);
    put16(body, 0);
    uLongf zsize = compressBound(uLong(body.size()));
    Bytes z(zsize);
    if (compress2(z.data(), &zsize, body.data(), uLong(body.size()), 9) != Z_OK)
        std::abort();
    z.resize(zsize);
    Bytes out = header("NORVANE_LAB_HSPDFILE ZIP\n");
    append(out, z);
    return out;
}

struct Shape {
    const char* name;
    int consistency;
    bool fromMemory;
    std::function<Bytes()> make;
};

void measure(const Shape& shape)
{
    const Bytes input = shape.make();
    const std::string path = OrbWriter::writeFile(input);
    orb_set_log_function(countLine);

    // The floor: reading the bytes once and touching each.
    auto f0 = Clock::now();
    unsigned sum = 0;
    {
        std::ifstream in(path, std::ios::binary);
        std::vector<char> buf(1 << 20);
        while (in.read(buf.data(), long(buf.size())) || in.gcount() > 0)
            for (long i = 0; i < in.gcount(); ++i)
                sum += static_cast<unsigned char>(buf[size_t(i)]);
    }
    const double floor = std::chrono::duration<double>(Clock::now() - f0).count();
    volatile unsigned keep = sum; // the reading is not optimised away
    (void)keep;

    resetPeak();
    const long before = statusKb("VmRSS:");
    auto t0 = Clock::now();
    int err = 0;
    _ORBFILE* f = shape.fromMemory
                      ? orb_open_memory(input.data(), input.size(), shape.consistency, 1, 1, &err)
                      : orb_open_file(path.c_str(), shape.consistency, 1, 1, &err);
    long long entries = f ? orb_get_element_count(f) : -1;
    if (f) {
        while (orb_get_next_data(f) != NO_MORE_ITEMS)
            orb_get_float_data(f);
        orb_close_file(f);
    }
    const double took = std::chrono::duration<double>(Clock::now() - t0).count();
    const long peak = statusKb("VmHWM:") - before;
    std::remove(path.c_str());

    std::string line = firstLine.substr(0, firstLine.find('\n'));
    std::printf("%-34s %10zu B %8.3f s floor %7.4f s (x%6.1f) peak +%8.1f MiB (x%5.1f) entries %9lld "
                "log %lld: %s\n",
                shape.name, input.size(), took, floor, took / (floor > 0 ? floor : 1e-9), peak / 1024.0,
                peak * 1024.0 / double(input.size()), entries, logLines, line.c_str());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    const size_t mb = argc > 1 ? size_t(std::atol(argv[1])) : 4;
    const size_t size = mb << 20;
    const Shape shapes[] = {
        {"ordinary recording (reference)", 0, false, [&] { return ordinary(size); }},
        {"ordinary recording, repair mode", 2, false, [&] { return ordinary(size); }},
        {"time jumps, repair mode", 2, false, [&] { return timeJumps(size); }},
        {"time jumps, repair + tolerant", 6, false, [&] { return timeJumps(size); }},
        {"one instant, samples and events", 0, false, [&] { return oneInstant(size); }},
        {"one instant, repair mode", 2, false, [&] { return oneInstant(size); }},
        {"every event a block start", 2, false, [&] { return allBlockStarts(size); }},
        {"zero bytes after the preamble", 0, false, [&] { return filled(size, 0x00, true); }},
        {"0xFF bytes after the preamble", 4, false, [&] { return filled(size, 0xFF, true); }},
        {"0xFF bytes, whole file", 0, false, [&] { return filled(size, 0xFF, false); }},
        {"inflates x1000, from file", 0, false, [&] { return inflating(size * 256); }},
        {"inflates x1000, from memory", 0, true, [&] { return inflating(size * 256); }},
    };
    std::printf("shape                              input        open+walk  floor (read bytes)   "
                "peak memory added         index\n");
    for (const Shape& s : shapes) {
        if (argc > 2 && !std::strstr(s.name, argv[2]))
            continue;
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            measure(s);
            std::_Exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            std::printf("%-34s failed (status %d)\n", s.name, status);
    }
    return 0;
}
