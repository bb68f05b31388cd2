// The soak: recordings of every kind opened, walked, read into columns and
// closed from several threads at once for a set time, every result checked
// against the one a single thread got before the threads started, and the
// process's resident memory compared between the end of a warm-up and the
// end of the run.
//   soak [--seconds=N] [--threads=N] [--memory-check=on|off]
// Defaults: 60 s, one thread per core, the memory check on (off in the
// sanitizer builds, whose allocators hold freed memory back on purpose).
// Prints the operations per second of every kind of recording and the
// memory at both points; exits 1 on any failure, 2 on a bad argument.
#include <unistd.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SyntheticRecording.h"
#include "orbapi.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SOAK_SANITIZED 1
#endif
#endif
#ifndef SOAK_SANITIZED
#define SOAK_SANITIZED 0
#endif

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// How much the resident memory may grow from the end of the warm-up to the
// end of the run.  Both are measured with every thread idle and every
// recording closed, after free memory was handed back to the system, so
// what stays between them is the allocator's own bookkeeping and the
// fragmentation of its arenas (under 200 kB in practice).  4 MiB leaves
// room for that and still catches a leak of a few hundred bytes an
// operation over the 15,000 or so operations of a 60-second run on two
// cores; smaller leaks are the leak detector's business in the
// AddressSanitizer run.
constexpr long kAllowedGrowthKb = 4 * 1024;

// ---------------------------------------------------------------------------
// Recordings

enum Source { kFromFile, kFromMemory };

// One kind of recording: its bytes, where it is read from, the open
// arguments, and whether it must be refused.
struct Kind {
    std::string name;
    Source source = kFromFile;
    int consistency = 0;
    bool refused = false;
    std::string path;
    Bytes bytes;
};

// What a single thread read from a recording before the threads started:
// every later read of it must give the same.
struct Expected {
    int items = 0;
    int trials = 0;
    int unreadable = 0;          // items orb_get_float_data could not read
    uint64_t bytesHash = 0;      // the recording's bytes
    uint64_t walkHash = 0;       // every record handed out by a walk
    uint64_t gazeHash = 0;       // time and gaze of every sample
    uint64_t velocityHash = 0;   // the smoothed gaze velocities of every sample
    int middleCode = 0;          // the item at index items / 2
    std::vector<int> trialStart; // index of each trial's first item
    uint64_t columnsHash[2] = {}; // every column, without and with velocities
};

Bytes readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeAll(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

// Writes the recordings into `dir`: plain and compressed, one eye and two,
// 250 to 2000 Hz, read from file and from memory, checked and repaired, a
// damaged one read tolerantly, and two that must be refused.
std::vector<Kind> makeKinds(const std::string& dir)
{
    struct Plan {
        const char* name;
        double rate;
        int eyes;
        bool compressed;
        Source source;
        int consistency;
    };
    const Plan plans[] = {
        {"250 Hz left, plain, file", 250, 1, false, kFromFile, 0},
        {"500 Hz both, compressed, file, check", 500, 3, true, kFromFile, 1},
        {"1000 Hz both, plain, memory", 1000, 3, false, kFromMemory, 0},
        {"1000 Hz right, compressed, memory, repair", 1000, 2, true, kFromMemory, 2},
        {"2000 Hz both, plain, file, repair", 2000, 3, false, kFromFile, 2},
        {"2000 Hz left, compressed, memory", 2000, 1, true, kFromMemory, 0},
    };
    std::vector<Kind> kinds;
    unsigned seed = 1;
    for (const Plan& p : plans) {
        orbbench::SyntheticOptions o;
        o.rate = p.rate;
        o.eyes = p.eyes;
        o.compressed = p.compressed;
        o.seconds = 12.0;
        o.trialSeconds = 3.0;
        o.seed = seed++;
        Kind k;
        k.name = p.name;
        k.source = p.source;
        k.consistency = p.consistency;
        k.path = dir + "/kind" + std::to_string(kinds.size()) + ".orb";
        orbbench::writeSyntheticRecording(k.path, o);
        k.bytes = readAll(k.path);
        kinds.push_back(std::move(k));
    }

    // A plain recording cut at three fifths: no end of items, an item cut
    // short.  The tolerant scan reads what comes before the cut; without it
    // the file is refused.
    Bytes cut = kinds[2].bytes;
    cut.resize(cut.size() * 3 / 5);
    Kind damaged;
    damaged.name = "damaged, tolerant, file";
    damaged.consistency = 4;
    damaged.path = dir + "/damaged.orb";
    damaged.bytes = cut;
    writeAll(damaged.path, cut);
    kinds.push_back(damaged);

    Kind refusedCut = damaged;
    refusedCut.name = "damaged, refused, memory";
    refusedCut.source = kFromMemory;
    refusedCut.consistency = 0;
    refusedCut.refused = true;
    refusedCut.path.clear();
    kinds.push_back(refusedCut);

    Kind notOrb;
    notOrb.name = "first line altered, refused, file";
    notOrb.refused = true;
    notOrb.path = dir + "/altered.orb";
    notOrb.bytes = kinds[0].bytes;
    notOrb.bytes[0] ^= 0x20;
    writeAll(notOrb.path, notOrb.bytes);
    kinds.push_back(notOrb);
    return kinds;
}

// ---------------------------------------------------------------------------
// Hashes

struct Hash {
    uint64_t h = 1469598103934665603ull;
    void add(uint64_t v) { h = (h ^ v) * 1099511628211ull + (h >> 29); }
    void addFloat(float f)
    {
        uint32_t bits;
        std::memcpy(&bits, &f, sizeof bits);
        add(bits);
    }
    void addBytes(const unsigned char* p, size_t n)
    {
        size_t i = 0;
        for (; i + 8 <= n; i += 8) {
            uint64_t w;
            std::memcpy(&w, p + i, 8);
            add(w);
        }
        for (; i < n; ++i)
            add(p[i]);
    }
};

void addGaze(Hash& h, uint32_t time, float xl, float xr, float yl, float yr)
{
    h.add(time);
    h.addFloat(xl);
    h.addFloat(xr);
    h.addFloat(yl);
    h.addFloat(yr);
}

void addVelocity(Hash& h, float xl, float xr, float yl, float yr)
{
    h.addFloat(xl);
    h.addFloat(xr);
    h.addFloat(yl);
    h.addFloat(yr);
}

// ---------------------------------------------------------------------------
// Operations

// The floor is the recording's bytes read once (from its file, or from
// memory) and hashed: what no reading of it can go below.
enum Operation { kFloor, kWalk, kColumns, kColumnsVelocities, kOperations };
const char* const kOperationNames[kOperations] = {"floor", "walk", "columns", "columns+vel"};

// The failures of the run, the first few with their text.
class Failures {
public:
    void add(const std::string& what)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (count_++ < 20)
            texts_.push_back(what);
    }
    long count() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }
    void print() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const std::string& t : texts_)
            std::printf("FAILED: %s\n", t.c_str());
        if (count_ > long(texts_.size()))
            std::printf("FAILED: %ld more\n", count_ - long(texts_.size()));
    }

private:
    mutable std::mutex mutex_;
    long count_ = 0;
    std::vector<std::string> texts_;
};

// One operation on one recording: `expected` is filled when `learn` is set
// (the single-threaded first pass) and compared with otherwise.  `turn`
// varies the trial jumped to.  Returns the failure, or "" when none.
class Operator {
public:
    Operator(const Kind& k, Expected& e, bool learn, unsigned turn) : k_(k), e_(e), learn_(learn), turn_(turn) {}

    std::string run(Operation op)
    {
        if (op == kFloor)
            return floor();
        if (op == kWalk)
            return walk();
        return columns(op == kColumnsVelocities);
    }

private:
    template <class T>
    bool same(T& expected, T got, const char* what)
    {
        if (learn_)
            expected = got;
        else if (expected != got && failure_.empty())
            failure_ = std::string(what) + " differs (" + std::to_string(got) + " instead of " +
                       std::to_string(expected) + ")";
        return failure_.empty();
    }
    bool check(bool ok, const std::string& what)
    {
        if (!ok && failure_.empty())
            failure_ = what;
        return failure_.empty();
    }
    std::string refusal(const char* what)
    {
        return k_.refused ? "" : std::string(what) + " failed: " + orb_get_last_error();
    }

    std::string floor()
    {
        Hash h;
        if (k_.source == kFromMemory) {
            h.addBytes(k_.bytes.data(), k_.bytes.size());
        } else {
            FILE* f = std::fopen(k_.path.c_str(), "rb");
            if (!f)
                return "cannot read " + k_.path;
            unsigned char buffer[1 << 16];
            size_t n;
            while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
                h.addBytes(buffer, n);
            std::fclose(f);
        }
        same(e_.bytesHash, h.h, "the hash of the bytes");
        return failure_;
    }

    std::string walk()
    {
        int err = 0;
        _ORBFILE* f = k_.source == kFromFile
                          ? orb_open_file(k_.path.c_str(), k_.consistency, 1, 1, &err)
                          : orb_open_memory(k_.bytes.data(), k_.bytes.size(), k_.consistency, 1, 1, &err);
        if (!f) {
            check(err == -1, "a refused open set errval " + std::to_string(err));
            check(*orb_get_last_error() != '\0', "a refused open left no reason");
            return failure_.empty() ? refusal("open") : failure_;
        }
        if (k_.refused) {
            orb_close_file(f);
            return "a recording that must be refused opened";
        }
        walkOpen(f);
        orb_close_file(f);
        return failure_;
    }

    void walkOpen(_ORBFILE* f)
    {
        const int items = orb_get_element_count(f);
        same(e_.items, items, "item count");
        same(e_.trials, orb_get_trial_count(f), "trial count");
        // Every recording has items and trials: the first pass learns no
        // empty result.
        check(items > 0 && e_.trials > 0, "no items or no trials");

        // Every item from the first, a bookmark set half way.
        Hash all, gaze, velocity;
        BOOKMARK mark{0};
        int steps = 0, unreadable = 0;
        for (;; ++steps) {
            if (steps == items / 2)
                check(orb_set_bookmark(f, &mark) == 0, "a bookmark could not be set");
            const int code = orb_get_next_data(f);
            if (code == NO_MORE_ITEMS)
                break;
            if (steps == items / 2)
                same(e_.middleCode, code, "the middle item's code");
            all.add(unsigned(code));
            const ALLF_DATA* d = orb_get_float_data(f);
            if (!d) {
                ++unreadable;
                continue;
            }
            if (code == SAMPLE) {
                const FSAMPLE& s = d->fs;
                addGaze(gaze, s.time, s.gazeX[0], s.gazeX[1], s.gazeY[0], s.gazeY[1]);
                addVelocity(velocity, s.gazeVelX[0], s.gazeVelX[1], s.gazeVelY[0], s.gazeVelY[1]);
                all.add(s.flags);
                all.addFloat(s.pupilSize[0]);
                all.addFloat(s.pupilSize[1]);
            } else if (code == RECORDING) {
                all.add(d->rec.time);
                all.add(d->rec.state);
                all.addFloat(d->rec.sampleRate);
            } else {
                all.add(d->fe.startTime);
                all.add(d->fe.endTime);
                all.addFloat(d->fe.avgGazeX);
                if (d->fe.message)
                    all.addBytes(reinterpret_cast<const unsigned char*>(d->fe.message->text),
                                 size_t(std::clamp<int>(d->fe.message->length, 0, 498)));
            }
        }
        check(steps == items, "the walk stepped over " + std::to_string(steps) + " of " + std::to_string(items) +
                                  " items");
        check(orb_get_next_data(f) == NO_MORE_ITEMS, "stepping past the end found an item");
        same(e_.unreadable, unreadable, "unreadable items");
        check(unreadable == 0 || (k_.consistency & 4) != 0,
              std::to_string(unreadable) + " items of an undamaged recording could not be read");
        same(e_.walkHash, all.h, "walk hash");
        same(e_.gazeHash, gaze.h, "gaze hash of the walk");
        same(e_.velocityHash, velocity.h, "velocity hash of the walk");

        // Back to the bookmark: the same item again.
        if (items > 0) {
            check(orb_goto_bookmark(f, &mark) == 0, "the bookmark could not be gone to");
            check(orb_get_element_index(f) == items / 2, "the bookmark moved to another item");
            same(e_.middleCode, orb_get_next_data(f), "the code at the bookmark");
            check(orb_free_bookmark(f, &mark) == 0, "the bookmark could not be freed");
        }

        // A trial, another each time, walked to the end.
        if (learn_) {
            e_.trialStart.clear();
            for (int t = 0; t < e_.trials; ++t) {
                check(orb_jump_to_trial(f, t) == 0, "trial " + std::to_string(t) + " could not be jumped to");
                e_.trialStart.push_back(orb_get_element_index(f));
            }
        } else if (e_.trials > 0) {
            const int t = int(turn_ % unsigned(e_.trials));
            check(orb_jump_to_trial(f, t) == 0, "trial " + std::to_string(t) + " could not be jumped to");
            const int start = orb_get_element_index(f);
            check(start == e_.trialStart[size_t(t)], "trial " + std::to_string(t) + " starts elsewhere");
            int rest = 0;
            while (orb_get_next_data(f) != NO_MORE_ITEMS)
                ++rest;
            check(rest == items - start, "from trial " + std::to_string(t) + " the walk stepped over " +
                                             std::to_string(rest) + " items");
        }
    }

    std::string columns(bool velocities)
    {
        const int flags = velocities ? ORB_COLUMNS_VELOCITIES : 0;
        int err = 0;
        ORB_COLUMNS* c = k_.source == kFromFile
                             ? orb_read_columns(k_.path.c_str(), k_.consistency, 1, 1, flags, nullptr, nullptr,
                                                nullptr, nullptr, &err)
                             : orb_read_columns_memory(k_.bytes.data(), k_.bytes.size(), k_.consistency, 1, 1,
                                                       flags, nullptr, nullptr, nullptr, nullptr, &err);
        if (!c) {
            check(err == -1, "a refused read set errval " + std::to_string(err));
            return failure_.empty() ? refusal("read into columns") : failure_;
        }
        if (k_.refused) {
            orb_free_columns(c);
            return "a recording that must be refused was read into columns";
        }
        // The columns are those of the walk, and the same every time.
        same(e_.items, int(orb_columns_items(c)), "item count of the columns");
        same(e_.trials, int(orb_columns_rows(c, ORB_TABLE_TRIALS)), "trial rows");
        const size_t rows = orb_columns_rows(c, ORB_TABLE_SAMPLES);
        auto column = [&](const char* name) -> const float* {
            ORB_COLUMN col{};
            if (!check(orb_columns_find(c, ORB_TABLE_SAMPLES, name, &col) == 0,
                       std::string("no column ") + name))
                return nullptr;
            return static_cast<const float*>(col.data);
        };
        ORB_COLUMN time{};
        const float* g[4] = {column("gaze_x_left"), column("gaze_x_right"), column("gaze_y_left"),
                             column("gaze_y_right")};
        const float* v[4] = {};
        if (velocities) {
            v[0] = column("gaze_vel_x_left");
            v[1] = column("gaze_vel_x_right");
            v[2] = column("gaze_vel_y_left");
            v[3] = column("gaze_vel_y_right");
        }
        if (check(orb_columns_find(c, ORB_TABLE_SAMPLES, "time", &time) == 0, "no time column") &&
            failure_.empty() && rows > 0) {
            const auto* t = static_cast<const uint32_t*>(time.data);
            Hash gaze, velocity;
            for (size_t i = 0; i < rows; ++i) {
                addGaze(gaze, t[i], g[0][i], g[1][i], g[2][i], g[3][i]);
                if (velocities)
                    addVelocity(velocity, v[0][i], v[1][i], v[2][i], v[3][i]);
            }
            // The walk learns these: columns only compare with them.
            check(gaze.h == e_.gazeHash, "the columns' gaze differs from the walk's");
            if (velocities)
                check(velocity.h == e_.velocityHash, "the columns' velocities differ from the walk's");
        }
        same(e_.columnsHash[velocities], hashColumns(c), "columns hash");
        orb_free_columns(c);
        return failure_;
    }

    static uint64_t hashColumns(const ORB_COLUMNS* c)
    {
        Hash h;
        for (int t = ORB_TABLE_SAMPLES; t <= ORB_TABLE_TRIALS; ++t)
            for (int i = 0; i < orb_columns_count(c, t); ++i) {
                ORB_COLUMN col{};
                orb_columns_column(c, t, i, &col);
                if (col.data)
                    h.addBytes(static_cast<const unsigned char*>(col.data),
                               orb_column_type_size(col.type) * orb_columns_rows(c, t));
            }
        size_t n = 0;
        if (const char* text = orb_columns_text(c, &n))
            h.addBytes(reinterpret_cast<const unsigned char*>(text), n);
        return h.h;
    }

    const Kind& k_;
    Expected& e_;
    bool learn_;
    unsigned turn_;
    std::string failure_;
};

// ---------------------------------------------------------------------------
// Memory

// Resident memory in kB, with every thread idle: what the allocator holds
// free is handed back first, so that only memory in use is counted.
long residentKb()
{
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The system's load over the last minute: the figures are per second of a
// thread's time, which other processes on the machine lengthen.
double loadAverage()
{
    double load = -1;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(f, "%lf", &load) != 1)
            load = -1;
        std::fclose(f);
    }
    return load;
}

// ---------------------------------------------------------------------------
// The run

struct Options {
    double seconds = 60.0;
    unsigned threads = 0;
    bool memoryCheck = !SOAK_SANITIZED;
};

bool parse(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char* key) -> const char* {
            const size_t n = std::strlen(key);
            return a.compare(0, n, key) == 0 ? a.c_str() + n : nullptr;
        };
        if (const char* v = value("--seconds=")) {
            o.seconds = std::atof(v);
            if (!(o.seconds > 0))
                return false;
        } else if (const char* v = value("--threads=")) {
            o.threads = unsigned(std::atoi(v));
            if (o.threads < 1 || o.threads > 256)
                return false;
        } else if (const char* v = value("--memory-check=")) {
            if (std::strcmp(v, "on") != 0 && std::strcmp(v, "off") != 0)
                return false;
            o.memoryCheck = std::strcmp(v, "on") == 0;
        } else {
            return false;
        }
    }
    if (o.threads == 0)
        o.threads = std::max(1u, std::thread::hardware_concurrency());
    return true;
}

std::atomic<long> logLines{0};
void countLogLine(char*) { logLines.fetch_add(1, std::memory_order_relaxed); }

// Lets the main thread measure memory while every worker waits.
class Gate {
public:
    explicit Gate(unsigned workers) : waiting_(workers) {}
    void arriveAndWait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (--waiting_ == 0)
            changed_.notify_all();
        changed_.wait(lock, [&] { return open_; });
    }
    void waitForAll()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return waiting_ == 0; });
    }
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned waiting_;
    bool open_ = false;
};

int soak(const Options& o, const std::vector<Kind>& kinds, std::vector<Expected>& expected)
{
    const size_t slots = kinds.size() * kOperations;
    Failures failures;

    // First pass, one thread: what every later operation must give.
    for (size_t k = 0; k < kinds.size(); ++k)
        for (int op = 0; op < kOperations; ++op) {
            const std::string f = Operator(kinds[k], expected[k], true, 0).run(Operation(op));
            if (!f.empty())
                failures.add(kinds[k].name + ", " + kOperationNames[op] + ": " + f);
        }
    if (failures.count() > 0) {
        failures.print();
        return 1;
    }

    // Each worker goes round every kind and operation, starting at its own
    // place: a warm-up round, the gate, then rounds until the time is up.
    std::vector<std::vector<long>> done(o.threads, std::vector<long>(slots, 0));
    std::vector<std::vector<double>> busy(o.threads, std::vector<double>(slots, 0.0));
    std::atomic<bool> stop{false};
    Gate warm(o.threads), finished(o.threads);
    std::vector<std::thread> workers;
    for (unsigned w = 0; w < o.threads; ++w)
        workers.emplace_back([&, w] {
            std::vector<Expected> mine = expected; // compared with only
            unsigned turn = w;
            auto one = [&](size_t slot) {
                const size_t k = slot / kOperations;
                const int op = int(slot % kOperations);
                const std::string f = Operator(kinds[k], mine[k], false, turn++).run(Operation(op));
                if (!f.empty())
                    failures.add(kinds[k].name + ", " + kOperationNames[op] + ": " + f);
            };
            for (size_t i = 0; i < slots; ++i)
                one((i + w) % slots);
            warm.arriveAndWait();
            for (size_t i = w * 7; !stop.load(std::memory_order_relaxed); ++i) {
                const auto start = Clock::now();
                one(i % slots);
                busy[w][i % slots] += std::chrono::duration<double>(Clock::now() - start).count();
                ++done[w][i % slots];
            }
            finished.arriveAndWait();
        });

    // Memory is measured with the workers alive and idle both times.
    warm.waitForAll();
    const long startKb = residentKb();
    std::printf("warm-up done; resident memory %.1f MiB\n", double(startKb) / 1024.0);
    std::fflush(stdout);
    const auto t0 = Clock::now();
    warm.open();
    double next = 10.0;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
        if (elapsed >= o.seconds || failures.count() > 0)
            break;
        if (elapsed >= next) {
            std::printf("  %3.0f s\n", elapsed);
            std::fflush(stdout);
            next += 10.0;
        }
    }
    stop = true;
    finished.waitForAll();
    const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
    const long endKb = residentKb();
    finished.open();
    for (std::thread& t : workers)
        t.join();

    // Per kind and operation: how many a thread completes per second of its
    // time spent on them, while the other threads run theirs.
    std::printf("\n%-42s %7s %6s", "kind (operations per thread-second)", "kB", "items");
    for (const char* name : kOperationNames)
        std::printf(" %11s", name);
    std::printf("\n");
    long total = 0;
    for (size_t k = 0; k < kinds.size(); ++k) {
        std::printf("%-42s %7zu %6d", kinds[k].name.c_str(), kinds[k].bytes.size() / 1024, expected[k].items);
        for (int op = 0; op < kOperations; ++op) {
            long n = 0;
            double seconds = 0;
            for (unsigned w = 0; w < o.threads; ++w) {
                n += done[w][k * kOperations + size_t(op)];
                seconds += busy[w][k * kOperations + size_t(op)];
            }
            total += n;
            std::printf(" %11.1f", seconds > 0 ? double(n) / seconds : 0.0);
        }
        std::printf("\n");
    }
    const long growth = endKb - startKb;
    std::printf("\n%ld operations in %.1f s on %u threads (%.1f per second), %ld log lines, "
                "load average %.2f on %u cores\n",
                total, elapsed, o.threads, double(total) / elapsed, logLines.load(), loadAverage(),
                std::thread::hardware_concurrency());
    std::printf("resident memory: %.1f MiB after the warm-up, %.1f MiB at the end (%+ld kB; %s)\n",
                double(startKb) / 1024.0, double(endKb) / 1024.0, growth,
                o.memoryCheck ? ("at most +" + std::to_string(kAllowedGrowthKb) + " kB allowed").c_str()
                              : "not checked");
    int status = 0;
    if (failures.count() > 0) {
        failures.print();
        status = 1;
    }
    if (o.memoryCheck && growth > kAllowedGrowthKb) {
        std::printf("FAILED: the resident memory grew by %ld kB\n", growth);
        status = 1;
    }
    if (status == 0)
        std::printf("no failure\n");
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr, "usage: %s [--seconds=N] [--threads=N] [--memory-check=on|off]\n", argv[0]);
        return 2;
    }
    orb_set_log_function(countLogLine);

    const char* tmp = std::getenv("TMPDIR");
    std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/orbsoak-XXXXXX";
    if (!mkdtemp(dir.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    int status = 1;
    std::vector<Kind> kinds;
    try {
        kinds = makeKinds(dir);
        std::vector<Expected> expected(kinds.size());
        std::printf("soak: %zu kinds of recording, %u threads, %.0f s, memory check %s\n", kinds.size(),
                    o.threads, o.seconds, o.memoryCheck ? "on" : "off (sanitizer build or asked)");
        std::fflush(stdout);
        status = soak(o, kinds, expected);
    } catch (const std::exception& e) {
        std::printf("FAILED: %s\n", e.what());
    }
    for (const Kind& k : kinds)
        if (!k.path.empty())
            std::remove(k.path.c_str());
    rmdir(dir.c_str());
    return status;
}
